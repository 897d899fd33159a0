#include "connection.h"

#include "annexb.h"
#include "stream_url.h"
#include "tls_check.h"

#include "base/log.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <mutex>
#include <strings.h>

extern "C" {
#include <libavutil/opt.h>
}

namespace cv {

namespace {

constexpr auto kRounding = AVRounding(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX);
constexpr int kAacFrameSamples = 1024;
constexpr int64_t kAudioBitrate = 160000;
// FFmpeg's, for rtmps:// and rtmpts:// alike.
constexpr int kRtmpsDefaultPort = 443;

int64_t now_ns()
{
	timespec now = {};
	clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
	return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int64_t from_now(std::chrono::milliseconds budget)
{
	return now_ns() + int64_t(budget.count()) * 1000000;
}

void lower_to(std::atomic<int64_t> &value, int64_t at)
{
	int64_t current = value.load();
	while (at < current && !value.compare_exchange_weak(current, at)) {
	}
}

bool copy_header(AVCodecParameters *par, const std::vector<uint8_t> &header)
{
	par->extradata = static_cast<uint8_t *>(av_mallocz(header.size() + AV_INPUT_BUFFER_PADDING_SIZE));
	if (!par->extradata)
		return false;
	memcpy(par->extradata, header.data(), header.size());
	par->extradata_size = int(header.size());
	return true;
}

// Gives the packet a new payload and keeps everything else about it.
bool replace_payload(AVPacket *packet, const std::vector<uint8_t> &payload)
{
	AVBufferRef *buffer = av_buffer_alloc(payload.size() + AV_INPUT_BUFFER_PADDING_SIZE);
	if (!buffer)
		return false;
	memcpy(buffer->data, payload.data(), payload.size());
	memset(buffer->data + payload.size(), 0, AV_INPUT_BUFFER_PADDING_SIZE);
	av_buffer_unref(&packet->buf);
	packet->buf = buffer;
	packet->data = buffer->data;
	packet->size = int(payload.size());
	return true;
}

// The TLS forms of RTMP, as FFmpeg names them, in any letter case.
bool has_scheme(const std::string &url, const char *scheme)
{
	const size_t length = strlen(scheme);
	return url.size() > length && strncasecmp(url.c_str(), scheme, length) == 0;
}

bool is_rtmpts_url(const std::string &url)
{
	return has_scheme(url, "rtmpts://");
}

bool is_tls_url(const std::string &url)
{
	return has_scheme(url, "rtmps://") || is_rtmpts_url(url);
}

// Whether FFmpeg's TLS checks the certificate also when nobody asks it to (from FFmpeg 9
// on), as on the connections that the options handed to it do not reach.
bool ffmpeg_tls_verifies_unasked()
{
	const AVClass *tls = avio_protocol_get_class("tls");
	const AVOption *verify = tls ? av_opt_find(&tls, "tls_verify", nullptr, 0, AV_OPT_SEARCH_FAKE_OBJ) : nullptr;
	return verify && verify->default_val.i64 != 0;
}

} // namespace

void IoDeadline::arm(std::chrono::milliseconds budget)
{
	deadline_ns_ = std::min(limit_ns_.load(), from_now(budget));
}

void IoDeadline::cut(std::chrono::milliseconds budget)
{
	const int64_t at = from_now(budget);
	lower_to(limit_ns_, at);
	lower_to(deadline_ns_, at);
}

bool IoDeadline::passed() const
{
	return now_ns() >= deadline_ns_.load();
}

int IoDeadline::interrupted(void *self)
{
	return static_cast<IoDeadline *>(self)->passed() ? 1 : 0;
}

std::string error_text(int code)
{
	char text[AV_ERROR_MAX_STRING_SIZE] = {};
	av_strerror(code, text, sizeof(text));
	return text;
}

Connection::Connection(const Destination &destination, IoDeadline &deadline)
	: destination_(destination),
	  deadline_(deadline),
	  interrupt_(deadline.callback())
{
}

Connection::~Connection()
{
	if (format_) {
		format_->pb = nullptr;
		avformat_free_context(format_);
	}
	close_io();
	av_bsf_free(&annexb_filter_);
}

bool Connection::open(std::string *error, std::string *untrusted)
{
	AVDictionary *options = nullptr;
	std::string url = destination_.url;
	if (is_tls_url(url) && !check_server(&options, error, untrusted))
		return false;
	if (destination_.srt) {
		// FFmpeg quotes the address it fails to reach in its own log: the stream id and
		// passphrase go to it as options instead, and the address it sees has neither.
		const SrtAddress address = split_srt_address(destination_.url);
		url = address.url;
		if (address.streamid)
			av_dict_set(&options, "streamid", address.streamid->c_str(), 0);
		if (address.passphrase)
			av_dict_set(&options, "passphrase", address.passphrase->c_str(), 0);
	} else {
		// Commands and chunk headers go out at once, not after the server's delayed
		// acknowledgement of what went before.
		av_dict_set(&options, "tcp_nodelay", "1", 0);
		av_dict_set(&options, "rtmp_live", "live", 0);
		av_dict_set(&options, "rtmp_flashver", "FMLE/3.0 (compatible; FMSc/1.0)", 0);
		av_dict_set(&options, "rtmp_tcurl", destination_.tc_url.c_str(), 0);
		av_dict_set(&options, "rtmp_swfurl", destination_.tc_url.c_str(), 0);
		av_dict_set(&options, "rtmp_pageurl", "", 0);
	}
	const int rc = avio_open2(&io_, url.c_str(), AVIO_FLAG_WRITE, &interrupt_, &options);
	av_dict_free(&options);
	if (rc < 0) {
		io_ = nullptr;
		*error = error_text(rc);
		return false;
	}
	return true;
}

bool Connection::start(const StreamLayout &layout, std::string *error)
{
	const bool srt = destination_.srt;
	// No address: the muxer writes to the connection made already, and nothing it might
	// print can quote the key.
	if (avformat_alloc_output_context2(&format_, nullptr, srt ? "mpegts" : "flv", nullptr) < 0 || !format_) {
		*error = "avformat_alloc_output_context2 failed";
		return false;
	}
	format_->pb = io_;
	format_->interrupt_callback = interrupt_;
	format_->flags |= AVFMT_FLAG_FLUSH_PACKETS;
	const AVRational time_base = srt ? AVRational{1, 90000} : AVRational{1, 1000};

	video_stream_ = avformat_new_stream(format_, nullptr);
	if (!video_stream_ || !copy_header(video_stream_->codecpar, layout.video_header)) {
		*error = "the video stream could not be made";
		return false;
	}
	video_stream_->time_base = time_base;
	video_stream_->avg_frame_rate = layout.fps;
	video_stream_->r_frame_rate = layout.fps;
	AVCodecParameters *video = video_stream_->codecpar;
	video->codec_type = AVMEDIA_TYPE_VIDEO;
	video->codec_id = AV_CODEC_ID_H264;
	video->width = int(layout.width);
	video->height = int(layout.height);
	video->format = AV_PIX_FMT_YUV420P;

	// Older FFmpeg writes a single audio track into FLV; the first one goes.
	const bool one_track = !srt && !kFlvCarriesAllAudioTracks;
	std::string left_out;
	for (size_t slot = 0; slot < kAudioSlots; slot++) {
		const std::vector<uint8_t> &header = layout.audio_headers[slot];
		if (header.empty())
			continue;
		if (one_track && format_->nb_streams > 1) {
			left_out += (left_out.empty() ? "" : ",") + std::to_string(slot);
			continue;
		}
		AVStream *stream = avformat_new_stream(format_, nullptr);
		if (!stream || !copy_header(stream->codecpar, header)) {
			*error = "an audio stream could not be made";
			return false;
		}
		stream->time_base = time_base;
		AVCodecParameters *audio = stream->codecpar;
		audio->codec_type = AVMEDIA_TYPE_AUDIO;
		audio->codec_id = AV_CODEC_ID_AAC;
		audio->sample_rate = layout.sample_rate;
		audio->bit_rate = kAudioBitrate;
		audio->frame_size = kAacFrameSamples;
		av_channel_layout_default(&audio->ch_layout, 2);
		audio_streams_[slot] = stream;
	}
	if (!left_out.empty()) {
		static std::once_flag warned;
		std::call_once(warned, [&] {
			log_warning(
				"This FFmpeg writes one audio track into FLV; left out audio track(s) %s of the RTMP "
				"stream",
				left_out.c_str());
		});
	}

	AVDictionary *options = nullptr;
	if (srt) {
		av_dict_set(&options, "flush_packets", "1", 0);
		av_dict_set(&options, "mpegts_flags", "+resend_headers", 0);
	} else {
		av_dict_set(&options, "flvflags", "no_duration_filesize", 0);
	}
	const int rc = avformat_write_header(format_, &options);
	av_dict_free(&options);
	if (rc < 0) {
		*error = error_text(rc);
		return false;
	}
	header_written_ = true;

	if (srt)
		parameter_sets_ = annexb_parameter_sets(layout.video_header.data(), layout.video_header.size());
	const AVRational fps = layout.fps.num > 0 && layout.fps.den > 0 ? layout.fps : AVRational{30, 1};
	video_duration_ = std::max<int64_t>(1, av_rescale_q(1, av_inv_q(fps), video_stream_->time_base));
	audio_duration_ = std::max<int64_t>(1, av_rescale_q(kAacFrameSamples,
							    AVRational{1, std::max(layout.sample_rate, 1)}, time_base));
	last_dts_.assign(format_->nb_streams, AV_NOPTS_VALUE);
	bytes_written_ = uint64_t(std::max<int64_t>(0, avio_tell(format_->pb)));
	return true;
}

int Connection::write(QueuedPacket &queued)
{
	AVPacket *packet = queued.packet.get();
	const PacketInfo &info = queued.info;
	AVStream *stream = info.video ? video_stream_ : info.track < kAudioSlots ? audio_streams_[info.track] : nullptr;
	if (!format_ || !stream || packet->dts == AV_NOPTS_VALUE)
		return 0;
	if (!clock_started_) {
		// The queue starts every connection with a keyframe.
		if (!info.video || !info.keyframe)
			return 0;
		clock_started_ = true;
		base_dts_ = packet->dts;
		base_time_base_ = packet->time_base;
	}

	const AVRational time_base = stream->time_base;
	const int64_t base = av_rescale_q_rnd(base_dts_, base_time_base_, time_base, kRounding);
	const int64_t dts = av_rescale_q_rnd(packet->dts, packet->time_base, time_base, kRounding) - base;
	const int64_t pts = packet->pts == AV_NOPTS_VALUE
				    ? dts
				    : av_rescale_q_rnd(packet->pts, packet->time_base, time_base, kRounding) - base;
	// Audio from before the keyframe this connection starts with.
	if (dts < 0)
		return 0;
	if (info.video && destination_.srt && !shape_video(packet, info.keyframe))
		return 0;
	packet->dts = dts;
	packet->pts = pts;
	packet->time_base = time_base;
	packet->stream_index = stream->index;
	packet->duration = info.video ? video_duration_ : audio_duration_;
	packet->flags = info.video && !info.keyframe ? 0 : AV_PKT_FLAG_KEY;
	fix_monotonic_ts(packet->pts, packet->dts, last_dts_[size_t(stream->index)]);

	const int rc = av_write_frame(format_, packet);
	if (rc >= 0)
		bytes_written_ = uint64_t(std::max<int64_t>(0, avio_tell(format_->pb)));
	return rc;
}

// MPEG-TS wants every access unit self-contained in Annex B: a delimiter first, and
// the parameter sets with every keyframe, so a viewer can start at any of them.
bool Connection::shape_video(AVPacket *packet, bool keyframe)
{
	if (!is_annexb(packet->data, size_t(packet->size))) {
		// Length-prefixed units: FFmpeg's filter makes a byte stream of them and puts the
		// parameter sets in front of keyframes itself.
		if (!annexb_filter_) {
			const AVBitStreamFilter *filter = av_bsf_get_by_name("h264_mp4toannexb");
			if (!filter || av_bsf_alloc(filter, &annexb_filter_) < 0 ||
			    avcodec_parameters_copy(annexb_filter_->par_in, video_stream_->codecpar) < 0) {
				av_bsf_free(&annexb_filter_);
				return false;
			}
			annexb_filter_->time_base_in = video_stream_->time_base;
			if (av_bsf_init(annexb_filter_) < 0) {
				av_bsf_free(&annexb_filter_);
				return false;
			}
		}
		if (av_bsf_send_packet(annexb_filter_, packet) < 0 || av_bsf_receive_packet(annexb_filter_, packet) < 0)
			return false;
	}
	if (complete_access_unit(packet->data, size_t(packet->size), keyframe, parameter_sets_, &scratch_))
		return replace_payload(packet, scratch_);
	return true;
}

void Connection::finish()
{
	if (format_ && header_written_)
		av_write_trailer(format_);
	if (format_)
		format_->pb = nullptr;
	close_io();
}

// RTMP over TLS: what FFmpeg's TLS checks depends on its version (older ones check nothing
// unless asked), and it tells no reason, so the certificate is checked here first; FFmpeg
// is then asked to check it again on the connection it makes, so that a server presenting
// another certificate to that one gets nothing either.
bool Connection::check_server(AVDictionary **options, std::string *error, std::string *untrusted)
{
	const std::string &url = destination_.url;
	// As large as FFmpeg's RTMP takes them.
	char user[128] = {}, host[256] = {};
	int port = -1;
	av_url_split(nullptr, 0, user, sizeof(user), host, sizeof(host), &port, nullptr, 0, url.c_str());
	// The options reach only the first TLS connection FFmpeg makes: not the HTTPS tunnel of
	// rtmpts://, and not the connections an RTMP login (user name and password) makes again.
	if ((is_rtmpts_url(url) || user[0]) && !ffmpeg_tls_verifies_unasked()) {
		*untrusted = "this FFmpeg would not check it on the further connections of an rtmpts:// address or a "
			     "login with user name and password";
		return false;
	}
	const std::string authorities = trusted_authorities_file();
	const CertificateCheck check = check_certificate(host, port > 0 ? port : kRtmpsDefaultPort, authorities,
							 [this] { return deadline_.passed(); });
	switch (check.outcome) {
	case CertificateCheck::Outcome::Untrusted:
		*untrusted = check.detail;
		return false;
	case CertificateCheck::Outcome::Unreached:
		*error = check.detail;
		return false;
	case CertificateCheck::Outcome::Trusted:
		break;
	}
	// FFmpeg's TLS then checks the chain against these authorities and, with GnuTLS (which
	// Debian builds it with), that the certificate names the host of the address.
	av_dict_set(options, "tls_verify", "1", 0);
	av_dict_set(options, "ca_file", authorities.c_str(), 0);
	return true;
}

void Connection::close_io()
{
	if (io_)
		avio_closep(&io_);
}

} // namespace cv

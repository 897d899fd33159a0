#include "shared_encoders.h"

#include "host_encoders.h"

#include "base/encoder_order.h"
#include "base/log.h"
#include "canvas/vertical_canvas.h"
#include "stream/mux_output.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

namespace cv {

namespace {

constexpr int kAudioKbps = 160;
std::atomic<uint64_t> name_counter{0};

// libobs from 31 on keeps a timing record for each frame its video encoder takes in,
// and forgets all of them whenever any output on the encoder stops. The frames still
// inside the encoder then come out without a record; an output that joins meanwhile may
// be handed its first keyframe without one, and the host's interleaver aborts the whole
// program when it drops that keyframe to line up the audio. A join therefore waits until
// the frames inside the encoder when another output left have come out: no encoder the
// host offers holds more than this many.
#if LIBOBS_API_MAJOR_VER >= 31
constexpr int kFramesInEncoder = 60;
#else
constexpr int kFramesInEncoder = 0;
#endif
// However slow the encode, a join waits no longer than this.
constexpr auto kLongestSettle = std::chrono::seconds(4);

OBSEncoderAutoRelease make_video_encoder(const std::string &id, const OutputConfig &config, video_t *video)
{
	// The preset is the chosen encoder's; with "auto", x264's.
	const bool preset_applies = config.preferred_encoder == kAutomaticEncoder ? id == kX264Encoder
										  : id == config.preferred_encoder;
	OBSDataAutoRelease settings = video_encoder_settings(id, config, preset_applies);
	OBSEncoderAutoRelease encoder =
		obs_video_encoder_create(id.c_str(), make_unique_name("cv_video_enc").c_str(), settings, nullptr);
	if (encoder)
		obs_encoder_set_video(encoder, video);
	else
		log_warning("Failed to create video encoder candidate: %s", id.c_str());
	return encoder;
}

void attach(obs_output_t *output, obs_encoder_t *video, obs_encoder_t *audio)
{
	obs_output_set_video_encoder(output, video);
	obs_output_set_audio_encoder(output, audio, 0);
}

} // namespace

// One set of encoders, the outputs on it, and the canvas audio it keeps open.
struct SharedEncoders::Encode {
	// First, so it goes last: the audio stays open until its encoder is gone.
	std::shared_ptr<const void> keep_audio_open;
	OBSEncoderAutoRelease video;
	OBSEncoderAutoRelease audio;
	uint64_t generation = 0;
	std::vector<OBSWeakOutputAutoRelease> users;
	// Since the last output left: one that stayed, and how many frames it had sent then.
	OBSWeakOutputAutoRelease witness;
	int witness_frames = 0;

	// Drops the outputs that have stopped.
	void prune()
	{
		const size_t before = users.size();
		users.erase(std::remove_if(users.begin(), users.end(),
					   [](const OBSWeakOutputAutoRelease &weak) {
						   OBSOutputAutoRelease user = obs_weak_output_get_output(weak);
						   return !user || !obs_output_active(user);
					   }),
			    users.end());
		if (kFramesInEncoder > 0 && users.size() < before && !users.empty()) {
			OBSOutputAutoRelease stayed = obs_weak_output_get_output(users.front());
			witness = obs_output_get_weak_output(stayed);
			witness_frames = obs_output_get_total_frames(stayed);
		}
	}
	// Waits until the frames inside the encoder when an output last left have come out.
	void settle()
	{
		OBSOutputAutoRelease stayed = obs_weak_output_get_output(witness);
		witness = nullptr;
		const auto give_up = std::chrono::steady_clock::now() + kLongestSettle;
		while (stayed && obs_output_active(stayed) &&
		       obs_output_get_total_frames(stayed) < witness_frames + kFramesInEncoder) {
			if (std::chrono::steady_clock::now() > give_up) {
				log_warning("The vertical encode is slow to settle; joining it anyway");
				return;
			}
			std::this_thread::sleep_for(std::chrono::milliseconds(10));
		}
	}
	bool joinable(uint64_t current)
	{
		prune();
		return !users.empty() && generation == current && !obs_encoder_paused(video);
	}
	bool serves(obs_output_t *output) const
	{
		return std::any_of(users.begin(), users.end(), [output](const OBSWeakOutputAutoRelease &weak) {
			return obs_weak_output_references_output(weak, output);
		});
	}
};

std::string make_unique_name(const char *base)
{
	const long long seconds = static_cast<long long>(time(nullptr));
	const uint64_t count = name_counter.fetch_add(1);
	return std::string(base) + "_" + std::to_string(seconds) + "_" + std::to_string(count);
}

SharedEncoders::SharedEncoders(VerticalCanvas *canvas, const OutputConfig &config) : canvas_(canvas), config_(config) {}

SharedEncoders::~SharedEncoders() = default;

void SharedEncoders::update_config(const OutputConfig &config)
{
	config_ = config;
}

Error SharedEncoders::start(obs_output_t *output, const CanvasFeed &feed)
{
	for (const std::unique_ptr<Encode> &encode : encodes_) {
		bool joinable = encode->joinable(canvas_->generation());
		while (joinable && encode->witness) {
			encode->settle();
			joinable = encode->joinable(canvas_->generation());
		}
		if (!joinable)
			continue;
		attach(output, encode->video, encode->audio);
		if (!obs_output_start(output)) {
			const Error failure = mux_output_failure(output);
			return failure ? failure : Error(ErrorCode::NoEncoder);
		}
		encode->users.emplace_back(obs_output_get_weak_output(output));
		return {};
	}
	std::vector<std::string> offered;
	for (const HostChoice &encoder : host_h264_encoders())
		offered.push_back(encoder.value);
	const std::vector<std::string> order = encoder_order(config_.preferred_encoder, offered);
	if (config_.preferred_encoder != kAutomaticEncoder &&
	    (order.empty() || order.front() != config_.preferred_encoder))
		log_warning("The chosen encoder %s is not offered by this OBS — trying the others",
			    config_.preferred_encoder.c_str());
	Error failure;
	for (const std::string &id : order) {
		std::unique_ptr<Encode> encode = create(id, feed);
		if (!encode)
			continue;
		attach(output, encode->video, encode->audio);
		if (obs_output_start(output)) {
			encoder_id_ = id;
			encode->users.emplace_back(obs_output_get_weak_output(output));
			encodes_.push_back(std::move(encode));
			log_info("Vertical encode started with encoder: %s (%s)", id.c_str(),
				 obs_encoder_get_display_name(id.c_str()));
			return {};
		}
		const char *error = obs_output_get_last_error(output);
		log_warning("Encoder %s failed to start output: %s%s", id.c_str(), error ? error : "unknown",
			    id == order.back() ? "" : " — trying the next one");
		failure = mux_output_failure(output);
		// Only an encoder's own failure is worth another encoder.
		if (failure && failure.code != ErrorCode::NoEncoder)
			return failure;
	}
	log_error("No encoder could start successfully");
	return ErrorCode::NoEncoder;
}

void SharedEncoders::release_unused()
{
	for (auto it = encodes_.begin(); it != encodes_.end();) {
		(*it)->prune();
		it = (*it)->users.empty() ? encodes_.erase(it) : it + 1;
	}
}

bool wait_stopped(obs_output_t *output, std::chrono::milliseconds timeout)
{
	const auto give_up = std::chrono::steady_clock::now() + timeout;
	while (obs_output_active(output)) {
		if (std::chrono::steady_clock::now() > give_up)
			return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(2));
	}
	return true;
}

bool SharedEncoders::alone(obs_output_t *output) const
{
	for (const std::unique_ptr<Encode> &encode : encodes_)
		if (encode->serves(output))
			return encode->users.size() == 1;
	return false;
}

std::unique_ptr<SharedEncoders::Encode> SharedEncoders::create(const std::string &id, const CanvasFeed &feed)
{
	// The first encoders get a mix made now, which no reset of the host's video can have
	// taken away (none runs while a start is on its way: VerticalOutput::output_starting);
	// later ones share the one that runs.
	video_t *video = encodes_.empty() ? canvas_->fresh_video() : canvas_->video();
	if (!video)
		return nullptr;
	if (!feed.audio) {
		log_error("The vertical audio could not start");
		return nullptr;
	}
	auto encode = std::make_unique<Encode>();
	encode->video = make_video_encoder(id, config_, video);
	if (!encode->video)
		return nullptr;
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_int(settings, "bitrate", kAudioKbps);
	encode->audio = obs_audio_encoder_create("ffmpeg_aac", make_unique_name("cv_audio_enc").c_str(), settings,
						 feed.audio_mix, nullptr);
	if (!encode->audio) {
		log_error("Failed to create the ffmpeg_aac encoder");
		return nullptr;
	}
	obs_encoder_set_audio(encode->audio, feed.audio);
	encode->generation = canvas_->generation();
	encode->keep_audio_open = feed.keep_audio_open;
	return encode;
}

} // namespace cv

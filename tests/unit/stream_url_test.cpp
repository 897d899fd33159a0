#include "stream/stream_url.h"
#include "stream/write_errors.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <optional>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/parseutils.h>
}

namespace {

// What FFmpeg's SRT protocol reads from its address for one option, by its own parser.
std::optional<std::string> ffmpeg_reads(const std::string &url, const char *option)
{
	const char *query = strchr(url.c_str(), '?');
	std::string value(4096, '\0');
	if (!query || !av_find_info_tag(value.data(), int(value.size()), option, query))
		return std::nullopt;
	return std::string(value.c_str());
}

} // namespace

TEST(StreamUrl, TrimSrtDetectionAndAddressChecks)
{
	EXPECT_EQ(cv::trim_blanks(" \t\r\n\v\fabc def\n\t "), "abc def");
	EXPECT_EQ(cv::trim_blanks("\xC3\xA9\xA0"), "\xC3\xA9\xA0") << "bytes above 127 are not blanks";
	for (const char *srt : {"srt://h:9000", "SRT://h", "sRt://"})
		EXPECT_TRUE(cv::is_srt_url(srt)) << srt;
	for (const char *other : {"srt:/", "srt", "srtp://h", " srt://h", "rtmp://h/srt://"})
		EXPECT_FALSE(cv::is_srt_url(other)) << other;

	for (const char *url :
	     {"rtmp://h/app/k", "RTMPS://h/app", "rtmpte://h", "srt://h:9000?streamid=a", "rtmp://h/app/\xC3\xA9\xFF"})
		EXPECT_EQ(cv::stream_url_problem(url), "") << url;
	for (const char *url : {"rtmp://", "h/app/k", "/tmp/out.flv", "file:out.flv", "http://h/up", "rtmpx://h", "",
				"srt:/h", " rtmp://h/app"})
		EXPECT_EQ(cv::stream_url_problem(url), "not an RTMP or SRT address") << url;
	for (const char *url : {"rtmp://h/app/my key", "rtmp://h/app\t/k", "rtmp://h/app/k\x01", "rtmp://h/app/k\x7F",
				"srt://h:1?passphrase=a b"})
		EXPECT_EQ(cv::stream_url_problem(url), "a blank or control character inside the address") << url;

	const std::string rtmp = "rtmp://h/app/";
	EXPECT_EQ(cv::stream_url_problem(rtmp + std::string(512 - rtmp.size(), 'k')), "");
	EXPECT_EQ(cv::stream_url_problem(rtmp + std::string(513 - rtmp.size(), 'k')), "longer than 512 bytes");
	const std::string srt = "srt://h:1?latency=";
	EXPECT_EQ(cv::stream_url_problem(srt + std::string(1024 - srt.size(), 's')), "");
	EXPECT_EQ(cv::stream_url_problem(srt + std::string(1025 - srt.size(), 's')), "longer than 1024 bytes");
	EXPECT_EQ(cv::stream_url_problem("srt://h:1?streamid=" + std::string(512, 's') + "&mode=caller"), "");
	EXPECT_EQ(cv::stream_url_problem("srt://h:1?streamid=" + std::string(513, 's') + "&mode=caller"),
		  "an SRT stream id longer than 512 bytes");
}

TEST(StreamUrl, BuildsRtmpAndSrtAddresses)
{
	const struct {
		const char *server, *key, *url, *tc_url;
		bool key_ignored;
	} cases[] = {
		{"rtmp://h/app///", "abc", "rtmp://h/app/abc", "rtmp://h/app", false},
		{" \trtmp://h/app\n", " key1 \r\n", "rtmp://h/app/key1", "rtmp://h/app", false},
		{"rtmps://h/app/", "a/b?c", "rtmps://h/app/a/b?c", "rtmps://h/app", false},
		{"rtmp://h/app", " \t\n", "", "", false},
		{" \n", "abc", "", "", false},
		// The server sees no user name and password, which FFmpeg answers challenges with.
		{"RTMP://u:p@h:1935/app?t=x@y/", "k", "RTMP://u:p@h:1935/app?t=x@y/k", "RTMP://h:1935/app?t=x@y",
		 false},
		{"rtmp://u@[::1]/app", "k", "rtmp://u@[::1]/app/k", "rtmp://[::1]/app", false},
		// SRT: the key is the stream id, unless the address has one FFmpeg reads.
		{"srt://h:9000", " k1 ", "srt://h:9000?streamid=k1", "", false},
		{"srt://h:9000?latency=20", "#!::r=a/b,m=publish",
		 "srt://h:9000?latency=20&streamid=#!::r=a/b,m=publish", "", false},
		{"srt://h:9000?a=1&", "%41=?", "srt://h:9000?a=1&streamid=%41=?", "", false},
		{"srt://h:9000?a=b?", "k", "srt://h:9000?a=b?&streamid=k", "", false},
		{"SRT://u:p@h:1?StreamID=x", "k", "SRT://u:p@h:1?StreamID=x&streamid=k", "", false},
		{"srt://h:9000?streamid=x", "k", "srt://h:9000?streamid=x", "", true},
		{"srt://h:9000?mode=caller&streamid", "k", "srt://h:9000?mode=caller&streamid", "", true},
		{"  SRT://H:1\n", "", "SRT://H:1", "", false},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.server) + " + " + c.key);
		const cv::StreamUrl built = cv::build_stream_url(c.server, c.key);
		EXPECT_EQ(built.url, c.url);
		EXPECT_EQ(built.tc_url, c.tc_url);
		EXPECT_EQ(cv::srt_key_ignored(c.server, c.key), c.key_ignored);
		if (cv::is_srt_url(built.url) && *c.key && !c.key_ignored) {
			EXPECT_EQ(ffmpeg_reads(built.url, "streamid"), cv::trim_blanks(c.key));
		}
	}
	for (const char *key : {"a&b", "a+b"}) {
		EXPECT_EQ(cv::stream_key_problem("srt://h:1", key),
			  "a stream key sent as SRT stream id cannot hold '&' or '+'");
		EXPECT_EQ(cv::stream_key_problem("srt://h:1?streamid=s", key), "");
		EXPECT_EQ(cv::stream_key_problem("rtmp://h/app", key), "");
	}
}

// FFmpeg gets the SRT secrets as options, and an address without them that it may quote.
TEST(StreamUrl, SrtSecretsLeaveTheAddressAsFFmpegReadsThem)
{
	const struct {
		const char *url, *without;
	} cases[] = {
		{"srt://u:p@h:1?streamid=#!::r=live/k,m=publish&latency=200&passphrase=a+b+c0123456",
		 "srt://h:1?latency=200"},
		{"srt://h:1?passphrase=x&streamid=s1&streamid=s2&StreamID=s3&PASSPHRASE=p", "srt://h:1"},
		{"srt://h:1?streamid&mode=caller", "srt://h:1?mode=caller"},
		{"srt://h:1?streamid=a=b?c#d&&latency=1&token=t&", "srt://h:1?latency=1"},
		{"srt://h:1/p@q?latency=1", "srt://h:1/p@q?latency=1"},
		{"srt://h:1", "srt://h:1"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.url);
		const cv::SrtAddress split = cv::split_srt_address(c.url);
		EXPECT_EQ(split.url, c.without);
		EXPECT_EQ(split.streamid, ffmpeg_reads(c.url, "streamid"));
		EXPECT_EQ(split.passphrase, ffmpeg_reads(c.url, "passphrase"));
		for (const char *option : {"streamid", "passphrase"})
			EXPECT_EQ(ffmpeg_reads(split.url, option), std::nullopt);
		for (const char *option : {"latency", "mode"})
			EXPECT_EQ(ffmpeg_reads(split.url, option), ffmpeg_reads(c.url, option));
	}
}

TEST(StreamUrl, LogMaskingHidesEverySecret)
{
	const struct {
		const char *url, *key, *masked;
		bool has_secret; // without the key
	} cases[] = {
		{"rtmp://h/app/live_abc123", " live_abc123\n", "rtmp://h/app/****", false},
		{"rtmp://h/k1/k1?x=k1", "k1", "rtmp://h/****/****?x=****", true},
		{"rtmp://h/app/aaa", "aa", "rtmp://h/app/****", false},
		{"rtmp://h/app/other", "abc", "rtmp://h/app/other", false},
		{"rtmp://h/x/a%2Fb%20c/%61%2fb c/a%2", "a/b c", "rtmp://h/x/****/****/a%2", false},
		// User name and password, whatever they hold and wherever the '@' is.
		{"rtmp://user:pa55word@h:1935/app/k", "k", "rtmp://****@h:1935/app/****", true},
		{"RTMPS://user@h/app", "", "RTMPS://****@h/app", true},
		{"rtmp://:pw@[::1]:1935/app", "", "rtmp://****@[::1]:1935/app", true},
		{"rtmp://u:p?s@h/app?t=1", "", "rtmp://****@h/app?t=****", true},
		{"rtmp://u:p#s@h/app", "", "rtmp://****", true}, // or a fragment: hidden either way
		{"rtmp://u:p/s@s@h/app", "", "rtmp://****@h/app", true},
		{"rtmp://u%3Ap%40x@h?x", "", "rtmp://****@h?****", true},
		{" user:pw@h/app", "", " ****@h/app", true},
		{"rtmp://@h/app", "", "rtmp://@h/app", false},
		{"rtmp://[::1]:1935/app", "", "rtmp://[::1]:1935/app", false},
		// Query values (names stay), bare parameters, fragments; '@' in the query is no user.
		{"rtmp://h/app?mail=a@b.c&t=x", "", "rtmp://h/app?mail=****&t=****", true},
		{"rtmp://h/app?a=1&b=&&c&=d&", "", "rtmp://h/app?a=****&b=****&&****&=****&", true},
		{"rtmp://h/app#x?a=1", "", "rtmp://h/app#****", true},
		{"rtmp://h/app?", "", "rtmp://h/app?", false},
		{"srt://h?streamid=#!::r=live/key,m=publish&latency=200", "", "srt://h?streamid=****&latency=****",
		 true},
		{"SRT://h?PassPhrase=x?StreamID=y", "", "SRT://h?PassPhrase=****", true},
		{"srt://h?streamid=", "", "srt://h?streamid=****", false},
		// A key equal to a parameter's name must not shield the parameter's value.
		{"srt://h?streamid=s1", "streamid", "srt://h?****=****", true},
		{"rtmp://k:k@h/k", "k", "rtmp://****@h/****", true},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.url) + " / " + c.key);
		EXPECT_EQ(cv::mask_url_for_log(c.url, c.key), c.masked);
		EXPECT_EQ(cv::url_has_secret(c.url), c.has_secret);
	}
	// Linear in the address and the key, however repetitive both are.
	const std::string key(1 << 14, 'a');
	EXPECT_EQ(cv::mask_url_for_log("rtmp://h/" + std::string(1 << 20, 'a') + "?t=" + key, key),
		  "rtmp://h/****?t=****");
}

TEST(WriteErrors, ConnectionLossVersusOtherFailures)
{
	for (int lost : {AVERROR(EIO), AVERROR(EPIPE), AVERROR(ECONNRESET), AVERROR(ECONNABORTED), AVERROR(ETIMEDOUT),
			 AVERROR(ENOTCONN), AVERROR(ENETDOWN), AVERROR(ENETUNREACH), AVERROR(EHOSTUNREACH),
			 AVERROR(ESHUTDOWN), AVERROR_EOF})
		EXPECT_TRUE(cv::is_connection_lost(lost)) << lost;
	for (int other : {0, 1, EPIPE, AVERROR(EAGAIN), AVERROR(EINVAL), AVERROR(ENOMEM), AVERROR_EXIT,
			  AVERROR_INVALIDDATA, AVERROR_BUG})
		EXPECT_FALSE(cv::is_connection_lost(other)) << other;
	// Whatever the code, once the byte stream has failed nothing more goes out on it.
	EXPECT_TRUE(cv::is_connection_lost(AVERROR_UNKNOWN, AVERROR_UNKNOWN));
	EXPECT_FALSE(cv::is_connection_lost(AVERROR(EINVAL), 0));
}

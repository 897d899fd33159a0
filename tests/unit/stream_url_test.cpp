#include "stream/stream_url.h"
#include "stream/write_errors.h"

#include <gtest/gtest.h>

#include <cerrno>

extern "C" {
#include <libavutil/error.h>
}

namespace {

TEST(StreamUrl, TrimAndSrtDetection)
{
	EXPECT_EQ(cv::trim_blanks(" \t\r\n\v\fabc def\n\t "), "abc def");
	EXPECT_EQ(cv::trim_blanks(" \t\n"), "");
	EXPECT_EQ(cv::trim_blanks("\xC3\xA9\xA0"), "\xC3\xA9\xA0") << "bytes above 127 are not blanks";

	const struct {
		const char *url;
		bool srt;
	} cases[] = {
		{"srt://h:9000", true}, {"SRT://h", true},   {"sRt://", true},    {"srt:/", false},
		{"srt", false},         {"srtp://h", false}, {" srt://h", false}, {"rtmp://h/srt://", false},
	};
	for (const auto &c : cases)
		EXPECT_EQ(cv::is_srt_url(c.url), c.srt) << c.url;

	const std::string not_stream = "not an RTMP or SRT address";
	const std::string blank = "a blank or control character inside the address";
	const struct {
		const char *url;
		std::string problem;
	} addresses[] = {
		{"rtmp://h/app/k", ""},
		{"RTMPS://h/app", ""},
		{"rtmpte://h", ""},
		{"srt://h:9000?streamid=a", ""},
		{"rtmp://h/app/\xC3\xA9\xFF", ""}, // bytes above 127 go through as they are
		{"rtmp://", not_stream},
		{"h/app/k", not_stream},
		{"/tmp/out.flv", not_stream},
		{"file:out.flv", not_stream},
		{"http://h/up", not_stream},
		{"rtmpx://h", not_stream},
		{"rtm://h", not_stream},
		{"", not_stream},
		{"srt:/h", not_stream},
		{"udp://h:1", not_stream},
		{" rtmp://h/app", not_stream},
		{"rtmp://h/app/my key", blank},
		{"rtmp://h/app\t/k", blank},
		{"rtmp://h/app/k\x01", blank},
		{"rtmp://h/app/k\x7F", blank},
		{"srt://h:1?passphrase=a b", blank},
	};
	for (const auto &c : addresses)
		EXPECT_EQ(cv::stream_url_problem(c.url), c.problem) << c.url;

	const std::string rtmp = "rtmp://h/app/";
	EXPECT_EQ(cv::stream_url_problem(rtmp + std::string(512 - rtmp.size(), 'k')), "");
	EXPECT_EQ(cv::stream_url_problem(rtmp + std::string(513 - rtmp.size(), 'k')), "longer than 512 bytes");
	const std::string srt = "srt://h:1?streamid=";
	EXPECT_EQ(cv::stream_url_problem(srt + std::string(1024 - srt.size(), 's')), "");
	EXPECT_EQ(cv::stream_url_problem(srt + std::string(1025 - srt.size(), 's')), "longer than 1024 bytes");
}

TEST(StreamUrl, BuildsRtmpAndSrtAddresses)
{
	const struct {
		const char *server, *key, *url, *tc_url;
	} cases[] = {
		{"rtmp://h/app///", "abc", "rtmp://h/app/abc", "rtmp://h/app"},
		{" \trtmp://live.example.com/app\n", " key1 \r\n", "rtmp://live.example.com/app/key1",
		 "rtmp://live.example.com/app"},
		{"rtmps://h/app/", "a/b?c", "rtmps://h/app/a/b?c", "rtmps://h/app"},
		{"rtmp://h/app", "", "", ""},
		{"rtmp://h/app", " \t\n", "", ""},
		{"", "abc", "", ""},
		{" \n", "abc", "", ""},
		// SRT carries everything in the server address; the key is not used.
		{"srt://h:9000?streamid=x", "ignored", "srt://h:9000?streamid=x", ""},
		{"  SRT://H:1\n", "", "SRT://H:1", ""},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(std::string(c.server) + " + " + c.key);
		const cv::StreamUrl built = cv::build_stream_url(c.server, c.key);
		EXPECT_EQ(built.url, c.url);
		EXPECT_EQ(built.tc_url, c.tc_url);
	}
}

TEST(StreamUrl, LogMaskingHidesKeysAndSrtSecrets)
{
	const struct {
		const char *url, *key, *masked;
	} cases[] = {
		{"rtmp://h/app/live_abc123", "live_abc123", "rtmp://h/app/****"},
		{"rtmp://h/app/live_abc123", " live_abc123\n", "rtmp://h/app/****"},
		{"rtmp://h/k1/k1?x=k1", "k1", "rtmp://h/****/****?x=****"},
		{"rtmp://h/app/aaa", "aa", "rtmp://h/app/****"},
		{"rtmp://h/app/other", "abc", "rtmp://h/app/other"},
		{"rtmp://h/app/abc", "", "rtmp://h/app/abc"},
		{"rtmp://h/app?k=a%2Fb%20c&l=a%2fb%20c", "a/b c", "rtmp://h/app?k=****&l=****"},
		// SRT stream ids often start with "#!::"; the value runs to the next '&'.
		{"srt://h:9000?streamid=#!::r=live/key,m=publish&latency=200", "",
		 "srt://h:9000?streamid=****&latency=200"},
		{"srt://h:1?mode=caller&passphrase=secret&pbkeylen=16", "",
		 "srt://h:1?mode=caller&passphrase=****&pbkeylen=16"},
		{"SRT://h?PassPhrase=x&StreamID=y", "", "SRT://h?PassPhrase=****&StreamID=****"},
		{"srt://h?streamid=a?passphrase=b", "", "srt://h?streamid=****"},
		{"srt://h?x=1?passphrase=b", "", "srt://h?x=1?passphrase=****"},
		{"srt://h?streamid=", "", "srt://h?streamid=****"},
		{"srt://h?mystreamid=a&streamidx=b&streamid", "", "srt://h?mystreamid=a&streamidx=b&streamid"},
		// A key equal to a parameter name must not shield the parameter's value.
		{"srt://h?streamid=s1", "streamid", "srt://h?****=****"},
	};
	for (const auto &c : cases)
		EXPECT_EQ(cv::mask_url_for_log(c.url, c.key), c.masked) << c.url << " / " << c.key;
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
}

} // namespace

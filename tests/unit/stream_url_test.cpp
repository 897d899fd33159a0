#include "stream/stream_url.h"
#include "stream/write_errors.h"

#include <gtest/gtest.h>

#include <cerrno>

extern "C" {
#include <libavutil/error.h>
}

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
		{" \trtmp://h/app\n", " key1 \r\n", "rtmp://h/app/key1", "rtmp://h/app"},
		{"rtmps://h/app/", "a/b?c", "rtmps://h/app/a/b?c", "rtmps://h/app"},
		{"rtmp://h/app", " \t\n", "", ""},
		{" \n", "abc", "", ""},
		{"srt://h:9000?streamid=x", "ignored", "srt://h:9000?streamid=x", ""}, // SRT: all in the address
		{"  SRT://H:1\n", "", "SRT://H:1", ""},
	};
	for (const auto &c : cases) {
		const cv::StreamUrl built = cv::build_stream_url(c.server, c.key);
		EXPECT_EQ(built.url, c.url) << c.server << " + " << c.key;
		EXPECT_EQ(built.tc_url, c.tc_url) << c.server << " + " << c.key;
	}
}

TEST(StreamUrl, LogMaskingHidesKeysAndSrtSecrets)
{
	const struct {
		const char *url, *key, *masked;
	} cases[] = {
		{"rtmp://h/app/live_abc123", " live_abc123\n", "rtmp://h/app/****"},
		{"rtmp://h/k1/k1?x=k1", "k1", "rtmp://h/****/****?x=****"},
		{"rtmp://h/app/aaa", "aa", "rtmp://h/app/****"},
		{"rtmp://h/app/other", "abc", "rtmp://h/app/other"},
		{"rtmp://h/app?k=a%2Fb%20c&l=a%2fb%20c", "a/b c", "rtmp://h/app?k=****&l=****"},
		// Stream ids often start with "#!::": the value runs to the next '&'.
		{"srt://h?streamid=#!::r=live/key,m=publish&latency=200", "", "srt://h?streamid=****&latency=200"},
		{"srt://h?mode=c&passphrase=secret&pbkeylen=16", "", "srt://h?mode=c&passphrase=****&pbkeylen=16"},
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
	// Whatever the code, once the byte stream has failed nothing more goes out on it.
	EXPECT_TRUE(cv::is_connection_lost(AVERROR_UNKNOWN, AVERROR_UNKNOWN));
	EXPECT_FALSE(cv::is_connection_lost(AVERROR(EINVAL), 0));
}

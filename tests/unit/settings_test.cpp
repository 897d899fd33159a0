#include "base/encoder_order.h"
#include "base/settings.h"

#include <gtest/gtest.h>

using Ids = std::vector<std::string>;

// What a hand-edited profile can hold: each value that cannot be used takes its default
// and is named, the others stay.
TEST(Settings, ValuesThatCannotBeUsedTakeTheirDefaults)
{
	const struct {
		const char *what;
		void (*edit)(cv::PluginConfig &);
		std::vector<cv::SettingWarning> warned;
		void (*check)(const cv::PluginConfig &);
	} cases[] = {
		{"usable", [](cv::PluginConfig &c) { c.fpsnum = 60000, c.fpsden = 1001, c.encoder = "obs_nvenc_h264_tex"; },
		 {}, [](const cv::PluginConfig &c) { EXPECT_EQ(c.encoder, "obs_nvenc_h264_tex"); }},
		{"zero width, huge height", [](cv::PluginConfig &c) { c.canvaswidth = 0, c.canvasheight = 99999; },
		 {{"canvaswidth", "0"}, {"canvasheight", "99999"}},
		 [](const cv::PluginConfig &c) { EXPECT_EQ(c.canvaswidth * c.canvasheight, 1080u * 1920); }},
		{"frame rate", [](cv::PluginConfig &c) { c.fpsden = 0; }, {{"fpsnum", "30"}, {"fpsden", "0"}}, nullptr},
		{"audio track, bitrate, keyframe interval",
		 [](cv::PluginConfig &c) { c.audiotrack = 7, c.videobitrate = 10, c.keyintsec = 0; },
		 {{"audiotrack", "7"}, {"videobitrate", "10"}, {"keyintsec", "0"}},
		 [](const cv::PluginConfig &c) { EXPECT_EQ(c.videobitrate, cv::kMinVideoKbps); }},
		// Presets are x264's to check only where x264 is the encoder.
		{"x264 preset", [](cv::PluginConfig &c) { c.encoderpreset = "Medium"; }, {{"encoderpreset", "Medium"}},
		 nullptr},
		{"another encoder's preset", [](cv::PluginConfig &c) { c.encoder = "ffmpeg_nvenc", c.encoderpreset = "p5"; },
		 {}, nullptr},
		{"no destination, no encoder",
		 [](cv::PluginConfig &c) { c.destinations.clear(), c.encoder.clear(); }, {{"encoder", ""}},
		 [](const cv::PluginConfig &c) { EXPECT_EQ(c.destinations.at(0).name, "Destination 1"); }},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.what);
		cv::PluginConfig config;
		config.destinations = {{"", "rtmp://a/b", "k"}, {"B", "rtmp://a/b", "k", true, "kept"}};
		c.edit(config);
		std::vector<cv::SettingWarning> warnings;
		const cv::PluginConfig result = cv::sanitized(config, &warnings);
		EXPECT_EQ(warnings, c.warned);
		for (const cv::DestinationSettings &destination : result.destinations)
			EXPECT_FALSE(destination.name.empty() || destination.id.empty());
		if (result.destinations.size() == 2) {
			EXPECT_EQ(result.destinations[1].id, "kept");
		}
		if (c.check)
			c.check(result);
	}
}

// The chosen encoder first, then the host's hardware encoders (NVENC, AMF, QSV, VA-API;
// texture-fed first), then x264; nothing the host does not offer.
TEST(Settings, EncodersAreTriedInOrder)
{
	const Ids linux32 = {"obs_x264", "ffmpeg_openh264", "ffmpeg_vaapi_tex", "obs_qsv11_v2", "obs_nvenc_h264_soft",
			     "obs_nvenc_h264_tex", "ffmpeg_vaapi"};
	const struct {
		std::string chosen;
		Ids offered, order;
	} cases[] = {
		{"auto", {"obs_x264"}, {"obs_x264"}},
		{"auto", linux32,
		 {"obs_nvenc_h264_tex", "obs_nvenc_h264_soft", "obs_qsv11_v2", "ffmpeg_vaapi_tex", "ffmpeg_vaapi",
		  "obs_x264"}},
		{"ffmpeg_openh264", linux32,
		 {"ffmpeg_openh264", "obs_nvenc_h264_tex", "obs_nvenc_h264_soft", "obs_qsv11_v2", "ffmpeg_vaapi_tex",
		  "ffmpeg_vaapi", "obs_x264"}},
		{"obs_x264", {"obs_x264", "ffmpeg_nvenc"}, {"obs_x264", "ffmpeg_nvenc"}},
		{"jim_nvenc", {"obs_x264"}, {"obs_x264"}},
		{"auto", {"h264_texture_amf", "ffmpeg_nvenc"}, {"ffmpeg_nvenc", "h264_texture_amf"}},
	};
	for (const auto &c : cases)
		EXPECT_EQ(cv::encoder_order(c.chosen, c.offered), c.order) << c.chosen;
}

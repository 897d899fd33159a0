#pragma once

#include "host_fixture.h"
#include "host_sources.h"

#include "canvas/vertical_canvas.h"
#include "mux/mux_output.h"
#include "output/vertical_output.h"

#include <memory>
#include <string>

namespace cvtest {

// A 360x640 vertical canvas showing a host scene "Show" of four bands (red, green, blue,
// white, left to right; the 9:16 cover of it shows the right half of green and the
// left half of blue), with the host at 30 fps, and the plug-in's vertical output on it
// as the runtime builds it.
class CanvasOutputTest : public HostTest {
protected:
	static constexpr uint32_t kRed = 0xFF0000;
	static constexpr uint32_t kGreen = 0x00FF00;
	static constexpr uint32_t kBlue = 0x0000FF;
	static constexpr uint32_t kWhite = 0xFFFFFF;

	HostOptions host_options() const override
	{
		HostOptions options;
		options.fps_num = 30;
		return options;
	}

	void SetUp() override
	{
		HostTest::SetUp();
		if (HasFatalFailure())
			return;
		cv::register_mux_output();
		cv::CanvasConfig config;
		config.width = 360;
		config.height = 640;
		canvas_ = std::make_unique<cv::VerticalCanvas>(config);
		ASSERT_TRUE(canvas_->init());
		scene_ = make_band_scene("Show", {kRed, kGreen, kBlue, kWhite});
		ASSERT_TRUE(canvas_->assign_scene_source("Scene 1", "Show"));
	}

	void TearDown() override
	{
		output_.reset();
		if (canvas_)
			canvas_->shutdown();
		canvas_.reset();
		scene_ = nullptr;
		HostTest::TearDown();
	}

	cv::VerticalOutput &make_output(const std::string &url, const std::string &key,
					const std::string &preferred = "auto", uint32_t kbps = 1000)
	{
		cv::OutputConfig config;
		config.url = url;
		config.key = key;
		config.bitrate_kbps = kbps;
		config.preferred_encoder = preferred;
		output_ = std::make_unique<cv::VerticalOutput>(canvas_.get(), config);
		EXPECT_TRUE(output_->init());
		return *output_;
	}

	std::unique_ptr<cv::VerticalCanvas> canvas_;
	OBSSceneAutoRelease scene_;
	std::unique_ptr<cv::VerticalOutput> output_;
};

} // namespace cvtest

#pragma once

#include "host_fixture.h"
#include "host_sources.h"

#include "canvas/vertical_canvas.h"
#include "mux/mux_output.h"
#include "output/vertical_output.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

namespace cvtest {

// The stress suite runs in a short form by default (what CI runs) and in its long form
// when CV_STRESS_LONG is set to anything but "0".
inline bool stress_long_form()
{
	const char *value = std::getenv("CV_STRESS_LONG");
	return value && *value && std::string(value) != "0";
}

inline int by_form(int short_form, int long_form)
{
	return stress_long_form() ? long_form : short_form;
}

inline void sleep_ms(int ms)
{
	std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// A small vertical canvas showing a coloured host scene, and the plug-in's vertical
// output on it, as the runtime builds them.
class CanvasStressTest : public HostTest {
protected:
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
		scene_ = make_band_scene("Show", {0xFF0000, 0x00FF00, 0x0000FF, 0xFFFFFF});
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

	cv::VerticalOutput &make_output(const std::string &url, const std::string &key, uint32_t kbps = 1000)
	{
		cv::OutputConfig config;
		config.url = url;
		config.key = key;
		config.bitrate_kbps = kbps;
		output_ = std::make_unique<cv::VerticalOutput>(canvas_.get(), config);
		EXPECT_TRUE(output_->init());
		return *output_;
	}

	std::unique_ptr<cv::VerticalCanvas> canvas_;
	OBSSceneAutoRelease scene_;
	std::unique_ptr<cv::VerticalOutput> output_;
};

} // namespace cvtest

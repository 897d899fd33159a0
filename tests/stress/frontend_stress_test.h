#pragma once

#include "ui_test.h"
#include "mux_pipeline.h"

#include "stress_fixture.h"

#include "host_sources.h"
#include "log_capture.h"
#include "recording_probe.h"
#include "stream_servers.h"

#include "core/dock_registry.h"
#include "core/frontend_events.h"
#include "output/vertical_output.h"

#include <memory>
#include <string>

namespace cvtest {

// The plug-in as the host program runs it: the front end's events reach the module's
// callback, a main window holds the dock, a coloured host scene is there to be shown,
// and an RTMP server is waiting.
class FrontendStressTest : public FrontendTest {
protected:
	HostOptions host_options() const override { return stress_host_options(); }

	void SetUp() override
	{
		FrontendTest::SetUp();
		if (HasFatalFailure())
			return;
		std::string error;
		ASSERT_TRUE(rtmp_.start(&error)) << error;
		show_ = make_band_scene("Show", {0xFF0000, 0x00FF00, 0x0000FF, 0xFFFFFF});
	}

	void TearDown() override
	{
		if (show_)
			obs_source_remove(obs_scene_get_source(show_));
		show_ = nullptr;
		FrontendTest::TearDown();
	}

	bool vertical_active()
	{
		std::lock_guard lock(cv::runtime_mutex());
		return cv::runtime_output() && cv::runtime_output()->is_active();
	}

	bool wait_vertical_inactive()
	{
		for (int i = 0; i < 500 && vertical_active(); i++)
			process_events_for(20);
		return !vertical_active();
	}

	// The main stream runs for a few seconds; what the server recorded last for `key`.
	RecordingInfo stream_with_main(const std::string &key)
	{
		fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		EXPECT_TRUE(wait_mux_connected(20000));
		sleep_ms(3000);
		fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
		EXPECT_TRUE(wait_vertical_inactive());
		// The server finishes the recording once it has seen the connection close.
		sleep_ms(1000);
		const auto recordings = rtmp_.recordings(key);
		if (recordings.empty())
			return {};
		return probe_recording(recordings.back());
	}

	RtmpServer rtmp_;
	OBSSceneAutoRelease show_;
};

} // namespace cvtest

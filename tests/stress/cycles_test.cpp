// Profile switches while streaming, and many starts and stops with the main stream: no
// crash, no thread or memory left behind, the scenes intact, the last stream decodes.

#include "frontend.h"
#include "host.h"
#include "media.h"
#include "pipeline.h"
#include "process.h"
#include "servers.h"
#include "wait.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "plugin/plugin.h"
#include "stream/mux_output.h"

#include <obs-frontend-api.h>

#include <QCoreApplication>

#include <functional>

namespace {

using cvtest::frontend::fire_event;

class CyclesTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		// The host's event loop, on which the plug-in's queued work runs.
		static int argc = 1;
		static char name[] = "cv_stress_tests";
		static char *argv[] = {name, nullptr};
		static QCoreApplication app(argc, argv);
		std::string error;
		ASSERT_TRUE(server_.start(&error)) << error;
		cvtest::write_file(global_file(),
				   "[Scenes]\ncount=2\nactivescene=Talk\nscene_0_name=Talk\nscene_1_name=Game\n");
	}
	// A profile folder of its own streaming under `key`.
	std::string make_profile(const std::string &key, int width, int height)
	{
		const std::string dir = temp_dir() + "/profiles/" + key;
		cvtest::write_file(dir + "/corvane-vertical-canvas.ini",
				   "[VerticalCanvas]\nrtmpurl=" + server_.app_url() + "\nstreamkey=" + key +
					   "\ncanvaswidth=" + std::to_string(width) +
					   "\ncanvasheight=" + std::to_string(height) + "\nvideobitrate=800\n");
		return dir;
	}
	void TearDown() override
	{
		plugin_.reset();
		HostTest::TearDown();
	}
	bool vertical_active() { return plugin_->output() && plugin_->output()->is_active(); }
	// With the host's loop running: what the plug-in does once idle is queued there.
	bool wait_stopped()
	{
		return cvtest::wait_until(
			       [&] {
				       QCoreApplication::processEvents();
				       return !vertical_active() && plugin_->output()->idle();
			       },
			       10000) &&
		       cv::wait_for_mux_streams(std::chrono::seconds(5));
	}
	// A last run with the main stream decodes from its first frame.
	void expect_last_stream_decodes(const std::string &key, uint32_t width)
	{
		fire_event(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		ASSERT_TRUE(cvtest::wait_mux_connected(20000));
		cvtest::sleep_ms(3000);
		fire_event(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
		ASSERT_TRUE(wait_stopped());
		server_.stop();
		const cvtest::StreamCheck check = cvtest::check_stream(server_.recordings(key).back());
		EXPECT_EQ(check.error, "");
		EXPECT_TRUE(check.starts_with_keyframe);
		EXPECT_GE(check.video_seconds, 2.0);
		EXPECT_EQ(cvtest::decode_frame_rgb(server_.recordings(key).back(), 1.0).size(),
			  width * width * 16 / 9 * 3);
	}

	void run_rounds(int rounds, const std::function<void(int)> &round, const std::string &last_key, uint32_t width);

	cvtest::RtmpServer server_;
	std::unique_ptr<cv::Plugin> plugin_ = std::make_unique<cv::Plugin>();
};

} // namespace

// `rounds` rounds after a first one, so that the host's own worker threads exist before
// counting; then the last stream decodes and no thread or memory is left behind.
void CyclesTest::run_rounds(int rounds, const std::function<void(int)> &round, const std::string &last_key,
			    uint32_t width)
{
	round(0);
	const size_t threads = cvtest::thread_count();
	std::vector<size_t> heap;
	for (int i = 1; i <= rounds; i++) {
		SCOPED_TRACE("round " + std::to_string(i));
		ASSERT_NO_FATAL_FAILURE(round(i));
		// Compared at the same profile each time, once the old encoders are gone and what
		// libobs lets go of a few frames after a stop and a video reset has gone too.
		if (i % 2 == 0 && wait_stopped()) {
			cvtest::sleep_ms(250);
			heap.push_back(cvtest::heap_in_use());
		}
	}
	ASSERT_NO_FATAL_FAILURE(expect_last_stream_decodes(last_key, width));
	EXPECT_LE(cvtest::thread_count(), threads);
	// A leaked canvas, encoder set or queue raises the floor by a megabyte or so a round.
	EXPECT_LT(cvtest::heap_floor_growth_mb(heap), 2.0);
}

// The main stream is live: every runtime starts its stream, and every other switch comes
// before the connection is made. Each switch is the host's: PROFILE_CHANGING, its video
// reset to another size (refused while anything vertical still runs, then made once it has
// stopped), PROFILE_CHANGED.
TEST_F(CyclesTest, ProfileSwitchesWhileStreaming)
{
	const std::string first = make_profile("first", 360, 640);
	const std::string second = make_profile("second", 270, 480);
	cvtest::frontend::set_profile_dir(first);
	ASSERT_TRUE(plugin_->load());
	fire_event(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	run_rounds(
		20,
		[&](int i) {
			fire_event(OBS_FRONTEND_EVENT_STREAMING_STARTING);
			ASSERT_TRUE(vertical_active());
			ASSERT_TRUE(i % 2 || cvtest::wait_mux_connected(20000));
			cvtest::frontend::switch_profile(i % 2 ? first : second, i % 2 ? 1920 : 1280,
							 i % 2 ? 1080 : 720);
			obs_video_info host = {};
			ASSERT_TRUE(cvtest::wait_until(
				[&] {
					QCoreApplication::processEvents();
					return obs_get_video_info(&host) &&
					       host.base_width == (i % 2 ? 1920u : 1280u) && plugin_->canvas() &&
					       plugin_->canvas()->width() == (i % 2 ? 360u : 270u);
				},
				10000));
			EXPECT_EQ(plugin_->canvas()->scene_names(), (std::vector<std::string>{"Talk", "Game"}));
			EXPECT_FALSE(vertical_active()) << "a switch stops the vertical stream";
		},
		"second", 270);
}

// Every other cycle stops while the connection is being made.
TEST_F(CyclesTest, StartStopCyclesWithTheMainStream)
{
	cvtest::frontend::set_profile_dir(make_profile("cycles", 360, 640));
	ASSERT_TRUE(plugin_->load());
	fire_event(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	run_rounds(
		50,
		[&](int i) {
			fire_event(OBS_FRONTEND_EVENT_STREAMING_STARTING);
			ASSERT_TRUE(vertical_active());
			ASSERT_TRUE(i % 2 || cvtest::wait_mux_connected(20000));
			fire_event(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
			ASSERT_TRUE(wait_stopped());
		},
		"cycles", 360);
}

// The runtime torn down and rebuilt by profile switches while the vertical stream is
// live, and the stream started and stopped with the main stream many times over: no
// crash, no thread or memory left behind, the saved scenes intact, and the last stream
// still decodes.

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

#include <algorithm>
#include <cstdio>

namespace {

using cvtest::frontend::fire_event;

// The heap floor after each round. The first rounds warm caches up and a sample may catch
// objects the host is still destroying on its own threads; neither lasts. A leak raises
// the floor: the lowest sample of the second half against the lowest of the first. A
// leaked canvas, encoder set or queue costs hundreds of kilobytes to megabytes a round.
double floor_growth_mb(const std::vector<size_t> &samples)
{
	const auto half = samples.begin() + std::ptrdiff_t(samples.size() / 2);
	fprintf(stderr, "heap floor %.1f MB, then %.1f MB\n", double(*std::min_element(samples.begin(), half)) / 1e6,
		double(*std::min_element(half, samples.end())) / 1e6);
	return (double(*std::min_element(half, samples.end())) - double(*std::min_element(samples.begin(), half))) / 1e6;
}

class CyclesTest : public cvtest::HostTest {
protected:
	void SetUp() override
	{
		HostTest::SetUp();
		std::string error;
		ASSERT_TRUE(server_.start(&error)) << error;
		cvtest::write_file(global_file(), "[Scenes]\ncount=2\nactivescene=Talk\nscene_0_name=Talk\nscene_1_name=Game\n");
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
	bool wait_stopped()
	{
		return cvtest::wait_until([&] { return !vertical_active(); }, 10000) &&
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
		EXPECT_EQ(cvtest::decode_frame_rgb(server_.recordings(key).back(), 1.0).size(), width * width * 16 / 9 * 3);
	}

	cvtest::RtmpServer server_;
	std::unique_ptr<cv::Plugin> plugin_ = std::make_unique<cv::Plugin>();
};

} // namespace

TEST_F(CyclesTest, ProfileSwitchesWhileStreaming)
{
	const std::string first = make_profile("first", 360, 640);
	const std::string second = make_profile("second", 270, 480);
	cvtest::frontend::set_profile_dir(first);
	ASSERT_TRUE(plugin_->load());
	fire_event(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	// One switch first, so that the host's own worker threads exist before counting.
	fire_event(OBS_FRONTEND_EVENT_STREAMING_STARTING);
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	cvtest::frontend::set_profile_dir(second);
	fire_event(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
	const size_t threads = cvtest::thread_count();
	std::vector<size_t> heap;
	for (int i = 1; i <= 20; i++) {
		SCOPED_TRACE("switch " + std::to_string(i));
		// The main stream is live: every runtime starts its stream, and every other
		// switch comes before the connection is made.
		fire_event(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		ASSERT_TRUE(vertical_active());
		if (i % 2) {
			ASSERT_TRUE(cvtest::wait_mux_connected(20000));
		}
		cvtest::frontend::set_profile_dir(i % 2 ? first : second);
		fire_event(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
		ASSERT_NE(plugin_->canvas(), nullptr);
		EXPECT_EQ(plugin_->canvas()->width(), i % 2 ? 360u : 270u);
		EXPECT_EQ(plugin_->canvas()->scene_names(), (std::vector<std::string>{"Talk", "Game"}));
		EXPECT_FALSE(vertical_active()) << "a switch stops the vertical stream";
		// Compared at the same profile each time, once the old encoders are gone.
		if (i % 2 == 0 && wait_stopped())
			heap.push_back(cvtest::heap_in_use());
	}
	ASSERT_NO_FATAL_FAILURE(expect_last_stream_decodes("second", 270));
	EXPECT_LE(cvtest::thread_count(), threads);
	EXPECT_LT(floor_growth_mb(heap), 2.0);
	plugin_.reset();
	EXPECT_NE(cvtest::read_file(global_file()).find("scene_1_name=Game"), std::string::npos);
}

TEST_F(CyclesTest, StartStopCyclesWithTheMainStream)
{
	cvtest::frontend::set_profile_dir(make_profile("cycles", 360, 640));
	ASSERT_TRUE(plugin_->load());
	fire_event(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	fire_event(OBS_FRONTEND_EVENT_STREAMING_STARTING);
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	fire_event(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
	ASSERT_TRUE(wait_stopped());
	const size_t threads = cvtest::thread_count();
	std::vector<size_t> heap;
	for (int i = 1; i <= 50; i++) {
		SCOPED_TRACE("cycle " + std::to_string(i));
		fire_event(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		ASSERT_TRUE(vertical_active());
		if (i % 2) { // every other cycle stops while the connection is being made
			ASSERT_TRUE(cvtest::wait_mux_connected(20000));
		}
		fire_event(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
		ASSERT_TRUE(wait_stopped());
		heap.push_back(cvtest::heap_in_use());
	}
	ASSERT_NO_FATAL_FAILURE(expect_last_stream_decodes("cycles", 360));
	EXPECT_LE(cvtest::thread_count(), threads);
	EXPECT_LT(floor_growth_mb(heap), 2.0);
}

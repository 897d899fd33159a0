// The runtime torn down and rebuilt by profile switches while the vertical stream is
// live, and the stream started and stopped with the main stream many times over: no
// crash, no thread or libobs allocation left behind, the saved scene list intact.

#include "frontend_stress_test.h"
#include "mux_pipeline.h"

#include "mux/mux_output.h"

#include "process_stats.h"

#include "canvas/vertical_canvas.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using cvtest::heap_in_use;
using cvtest::log_count;
using cvtest::thread_count;
using cvtest::wait_for_log;

// The heap after each round of something repeated. The first rounds warm caches up (the
// renderer's, the encoders', the allocator's arenas for new threads), and a sample may
// catch objects the host is still destroying on its own threads; neither lasts. A leak
// raises the floor: the lowest sample of the second half is compared with the lowest of
// the first. A leaked canvas, encoder set or write queue costs hundreds of kilobytes to
// megabytes a round.
class HeapTrend {
public:
	void sample() { samples_.push_back(heap_in_use()); }

	// How far the floor rose from the first half to the second (negative when it fell).
	double floor_growth() const
	{
		if (samples_.size() < 2)
			return 0;
		return double(lowest(samples_.size() / 2, samples_.size())) - double(lowest(0, samples_.size() / 2));
	}

	std::string describe() const
	{
		if (samples_.size() < 2)
			return "too few samples";
		char text[160];
		snprintf(text, sizeof(text), "heap floor %.1f MB over the first half, %.1f MB over the second; MB:",
			 double(lowest(0, samples_.size() / 2)) / 1e6,
			 double(lowest(samples_.size() / 2, samples_.size())) / 1e6);
		std::string described = text;
		for (const size_t sample : samples_) {
			snprintf(text, sizeof(text), " %.1f", double(sample) / 1e6);
			described += text;
		}
		return described;
	}

private:
	size_t lowest(size_t begin, size_t end) const
	{
		return *std::min_element(samples_.begin() + std::ptrdiff_t(begin),
					 samples_.begin() + std::ptrdiff_t(end));
	}

	std::vector<size_t> samples_;
};

constexpr double kSecondHalfSlack = 2.0 * 1024 * 1024;

class ProfileAndCyclesTest : public cvtest::FrontendStressTest {
protected:
	// A profile folder of its own whose settings stream to the test server under `key`.
	std::string make_profile(const std::string &name, const std::string &key, int width, int height)
	{
		const std::string dir = temp_dir() + "/profiles/" + name;
		write_file(dir + "/corvane-vertical-canvas.ini",
			   "[VerticalCanvas]\nrtmpurl=" + rtmp_.app_url() + "\nstreamkey=" + key +
				   "\ncanvaswidth=" + std::to_string(width) +
				   "\ncanvasheight=" + std::to_string(height) + "\nvideobitrate=800\n");
		return dir;
	}

	// What the host does at start: settings opened, the runtime made, then the
	// front end's "finished loading".
	void load_with_profile(const std::string &dir)
	{
		cvtest::frontend::set_profile_dir(dir);
		cv::load_global_config();
		cv::load_profile_config();
		ASSERT_TRUE(create_runtime());
		fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	}

	void switch_profile(const std::string &dir)
	{
		fire(OBS_FRONTEND_EVENT_PROFILE_CHANGING);
		cvtest::frontend::set_profile_dir(dir);
		fire(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
	}
};

TEST_F(ProfileAndCyclesTest, ProfileSwitchesWhileStreaming)
{
	const std::string first = make_profile("First", "first", 360, 640);
	const std::string second = make_profile("Second", "second", 270, 480);
	write_file(global_config_file(), "[Scenes]\ncount=3\nactivescene=Talk\n"
					 "scene_0_name=Talk\nscene_0_source=Show\n"
					 "scene_1_name=Game\nscene_1_source=\n"
					 "scene_2_name=Outro\nscene_2_source=Show\n");
	ASSERT_NO_FATAL_FAILURE(load_with_profile(first));
	const std::vector<std::string> scenes{"Talk", "Game", "Outro"};

	// One switch first, so the host's own worker threads exist before counting.
	fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	switch_profile(second);
	const size_t threads = thread_count();
	HeapTrend heap;

	const int switches = 20;
	for (int i = 1; i <= switches; i++) {
		SCOPED_TRACE("switch " + std::to_string(i));
		// The main stream is live, so the vertical one is started on every runtime.
		fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		ASSERT_TRUE(vertical_active());
		// Every other switch happens before the connection is made.
		if (i % 2) {
			ASSERT_TRUE(cvtest::wait_mux_connected(20000));
		}
		const bool to_first = i % 2;
		switch_profile(to_first ? first : second);

		{
			std::lock_guard lock(cv::runtime_mutex());
			cv::VerticalCanvas *canvas = cv::runtime_canvas();
			ASSERT_NE(canvas, nullptr);
			EXPECT_EQ(canvas->width(), to_first ? 360u : 270u);
			EXPECT_EQ(canvas->scene_names(), scenes);
			EXPECT_EQ(canvas->active_scene_name(), "Talk");
			EXPECT_EQ(canvas->scene_source_name("Outro"), "Show");
			EXPECT_FALSE(cv::runtime_output()->is_active()) << "a switch stops the vertical stream";
		}
		// Compared at the same profile each time, once the old runtime's encoders,
		// which the host destroys on its own threads, are gone.
		if (!to_first) {
			cvtest::process_events_for(300);
			ASSERT_TRUE(cv::wait_for_mux_streams(std::chrono::seconds(5)));
			heap.sample();
		}
	}
	EXPECT_EQ(log_count("Failed to rebuild vertical runtime"), 0u);
	EXPECT_GE(log_count("Profile change — rebuilding vertical runtime"), size_t(switches + 1));

	// The last runtime (the second profile's) still streams, and what it sends decodes.
	const cvtest::RecordingInfo info = stream_with_main("second");
	ASSERT_TRUE(info.opened) << info.error;
	EXPECT_EQ(info.decode_errors, 0);
	EXPECT_TRUE(info.first_video_packet_key);
	EXPECT_EQ(info.width, 270);

	cvtest::sleep_ms(300);
	EXPECT_LE(thread_count(), threads);
	EXPECT_LT(heap.floor_growth(), kSecondHalfSlack) << heap.describe();
	fprintf(stderr, "%s\n", heap.describe().c_str());
	// The list saved by every teardown is the one restored: nothing dropped or added.
	const std::string saved = read_file(global_config_file());
	EXPECT_NE(saved.find("count=3"), std::string::npos) << saved;
	EXPECT_NE(saved.find("scene_2_name=Outro"), std::string::npos) << saved;
}

TEST_F(ProfileAndCyclesTest, StartStopCyclesWithTheMainStream)
{
	ASSERT_NO_FATAL_FAILURE(load_with_profile(make_profile("Cycles", "cycles", 360, 640)));

	// One cycle first, so the host's own worker threads exist before counting.
	fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
	ASSERT_TRUE(cvtest::wait_mux_connected(20000));
	fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
	ASSERT_TRUE(wait_vertical_inactive());
	const size_t threads = thread_count();
	HeapTrend heap;

	const int cycles = 50;
	for (int i = 1; i <= cycles; i++) {
		SCOPED_TRACE("cycle " + std::to_string(i));
		fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
		ASSERT_TRUE(vertical_active());
		// Every other cycle stops before the connection is made.
		if (i % 2) {
			ASSERT_TRUE(cvtest::wait_mux_connected(20000));
		}
		fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
		ASSERT_TRUE(wait_vertical_inactive());
		ASSERT_TRUE(cv::wait_for_mux_streams(std::chrono::seconds(5)));
		heap.sample();
	}
	EXPECT_EQ(log_count("No encoder could start successfully"), 0u);

	// A last, longer run decodes from its first frame.
	const cvtest::RecordingInfo info = stream_with_main("cycles");
	ASSERT_TRUE(info.opened) << info.error;
	EXPECT_EQ(info.decode_errors, 0);
	EXPECT_TRUE(info.first_video_packet_key);
	EXPECT_GT(info.video_frames_decoded, 30);

	cvtest::sleep_ms(300);
	EXPECT_LE(thread_count(), threads);
	EXPECT_LT(heap.floor_growth(), kSecondHalfSlack) << heap.describe();
	fprintf(stderr, "%s\n", heap.describe().c_str());
}

} // namespace

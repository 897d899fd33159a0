// The host's UI event loop while the plug-in starts and stops the vertical stream, the
// profile switches and the host exits, beside the host's own Start and Stop Streaming
// done on the same thread in the same run: the longest time the loop did not run.
//
// The plug-in is loaded as the host loads it (through the stand-in front end) into a
// QApplication on the benchmark's X server: a main window with the host's preview and the
// plug-in's floating dock with its own, both drawn by libobs, as a user sees them.

#include "bench_util.h"
#include "timed_mux_output.h"

#include "frontend.h"
#include "host_rtmp_output.h"
#include "process.h"
#include "servers.h"
#include "sources.h"

#include "canvas/vertical_canvas.h"
#include "output/vertical_output.h"
#include "plugin/plugin.h"
#include "ui/vertical_dock.h"

#include <benchmark/benchmark.h>
#include <graphics/graphics.h>
#include <obs-frontend-api.h>
#include <obs-nix-platform.h>
#include <obs.hpp>

#include <QApplication>
#include <QDockWidget>
#include <QEventLoop>
#include <QMainWindow>
#include <QTimer>
#include <QWidget>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace cvbench {

using cvtest::steady_ns;

namespace {

// What a phase's follow-up work may still queue on the UI thread once it is done.
constexpr int kTailMs = 300;
constexpr int kPhaseTimeoutMs = 20000;
// What the loop is left to do after a load before the next phase.
constexpr int kSettleMs = 2000;
// How long a stream runs between its start and its stop.
constexpr int kStreamMs = 1500;
constexpr double kGoalMs = 50;

// The longest gap between two ticks of a 1 ms timer on the UI thread: the longest time
// its event loop did not run; and the same less the time the host's own video resets took
// in it (a reset the plug-in has the host make once its outputs have stopped is the
// host's work, moved there from the profile switch).
class LoopWatch {
public:
	LoopWatch()
	{
		timer_.setTimerType(Qt::PreciseTimer);
		timer_.setInterval(1);
		QObject::connect(&timer_, &QTimer::timeout, [this] {
			const uint64_t now = steady_ns();
			const uint64_t resets = cvtest::frontend::video_reset_ns();
			longest_ = std::max(longest_, now - last_);
			longest_own_ = std::max(longest_own_, now - last_ - std::min(now - last_, resets - resets_));
			last_ = now;
			resets_ = resets;
		});
		timer_.start();
	}
	void reset()
	{
		last_ = steady_ns();
		resets_ = cvtest::frontend::video_reset_ns();
		longest_ = longest_own_ = 0;
	}
	double longest_ms() const { return double(longest_) / 1e6; }
	double longest_own_ms() const { return double(longest_own_) / 1e6; }

private:
	QTimer timer_;
	uint64_t last_ = 0;
	uint64_t resets_ = 0;
	uint64_t longest_ = 0;
	uint64_t longest_own_ = 0;
};

// Runs `action` from the UI thread's event loop and lets the loop run until `done` holds,
// and kTailMs longer for what the action queued; the loop's longest stall meanwhile, in
// ms, or -1 when `done` never held.
double stall_of(LoopWatch &watch, const std::function<void()> &action, const std::function<bool()> &done)
{
	QEventLoop loop;
	bool acted = false;
	bool timed_out = false;
	uint64_t done_at = 0;
	const uint64_t deadline = steady_ns() + uint64_t(kPhaseTimeoutMs) * 1000000;
	QTimer poll;
	poll.setTimerType(Qt::PreciseTimer);
	poll.setInterval(1);
	QObject::connect(&poll, &QTimer::timeout, [&] {
		const uint64_t now = steady_ns();
		if (!acted)
			return;
		if (done_at == 0 && done())
			done_at = now;
		if (done_at != 0 && now - done_at >= uint64_t(kTailMs) * 1000000) {
			loop.quit();
		} else if (done_at == 0 && now > deadline) {
			timed_out = true;
			loop.quit();
		}
	});
	QTimer::singleShot(0, &loop, [&] {
		action();
		acted = true;
	});
	watch.reset();
	poll.start();
	loop.exec();
	return timed_out ? -1 : watch.longest_ms();
}

// Lets the UI thread's event loop run for `ms`.
void spin(int ms)
{
	QEventLoop loop;
	QTimer::singleShot(ms, &loop, &QEventLoop::quit);
	loop.exec();
}

// The host's own preview: its main canvas drawn into a native window of its main window,
// so that the graphics thread has the host's usual work beside the plug-in's preview.
class HostPreview : public QWidget {
public:
	HostPreview()
	{
		setAttribute(Qt::WA_NativeWindow);
		setAttribute(Qt::WA_PaintOnScreen);
		setAttribute(Qt::WA_NoSystemBackground);
	}
	~HostPreview() override
	{
		if (!display_)
			return;
		obs_display_remove_draw_callback(display_, draw, this);
		obs_display_destroy(display_);
	}
	QPaintEngine *paintEngine() const override { return nullptr; }
	// Once shown.
	bool attach()
	{
		gs_init_data init = {};
		init.cx = uint32_t(std::max(width(), 1));
		init.cy = uint32_t(std::max(height(), 1));
		init.format = GS_RGBA;
		init.zsformat = GS_ZS_NONE;
		init.window.id = uint32_t(winId());
		init.window.display = obs_get_nix_platform_display();
		display_ = obs_display_create(&init, 0x202020);
		if (display_)
			obs_display_add_draw_callback(display_, draw, this);
		return display_ != nullptr;
	}

private:
	static void draw(void *, uint32_t cx, uint32_t cy)
	{
		obs_video_info video = {};
		if (!obs_get_video_info(&video))
			return;
		gs_viewport_push();
		gs_projection_push();
		gs_ortho(0.0f, float(video.base_width), 0.0f, float(video.base_height), -100.0f, 100.0f);
		gs_set_viewport(0, 0, int(cx), int(cy));
		obs_render_main_texture();
		gs_projection_pop();
		gs_viewport_pop();
	}

	obs_display_t *display_ = nullptr;
};

// The time the plug-in's own front-end handlers take: callbacks added just before and
// just after the plug-in's own bracket it in the host's delivery of an event.
struct HandlerClock {
	uint64_t began = 0;
	uint64_t total = 0;

	static void before(enum obs_frontend_event, void *data)
	{
		static_cast<HandlerClock *>(data)->began = steady_ns();
	}
	static void after(enum obs_frontend_event, void *data)
	{
		auto *clock = static_cast<HandlerClock *>(data);
		clock->total += steady_ns() - clock->began;
	}
	double take_ms()
	{
		const double ms = double(total) / 1e6;
		total = 0;
		return ms;
	}
};

// The host's own stream as its front end starts it on the UI thread when the user presses
// Start Streaming (Simple output mode): x264 at its default preset and bitrate and AAC on
// the main video and audio, an rtmp_custom service and rtmp_output, obs_output_start,
// which opens the encoders there; live once the output says it started.
struct HostStream {
	OBSEncoderAutoRelease video;
	OBSEncoderAutoRelease audio;
	cvtest::HostRtmpOutput rtmp;
	OBSSignal started;
	std::atomic<bool> live{false};

	bool start(const std::string &server, const std::string &key)
	{
		OBSDataAutoRelease video_settings = obs_data_create();
		obs_data_set_string(video_settings, "preset", "veryfast");
		obs_data_set_string(video_settings, "rate_control", "CBR");
		obs_data_set_int(video_settings, "bitrate", 2500);
		video = obs_video_encoder_create("obs_x264", "simple_h264_stream", video_settings, nullptr);
		OBSDataAutoRelease audio_settings = obs_data_create();
		obs_data_set_string(audio_settings, "rate_control", "CBR");
		obs_data_set_int(audio_settings, "bitrate", 160);
		audio = obs_audio_encoder_create("ffmpeg_aac", "simple_aac", audio_settings, 0, nullptr);
		if (!video || !audio)
			return false;
		obs_encoder_set_video(video, obs_get_video());
		obs_encoder_set_audio(audio, obs_get_audio());
		rtmp = cvtest::make_host_rtmp_output(server, key, video, audio);
		if (!rtmp.output)
			return false;
		live = false;
		started.Connect(
			obs_output_get_signal_handler(rtmp.output), "start",
			[](void *data, calldata_t *) { static_cast<HostStream *>(data)->live = true; }, this);
		return obs_output_start(rtmp.output);
	}
	void stop() { obs_output_stop(rtmp.output); }
	bool stopped() const { return !obs_output_active(rtmp.output); }
	void release()
	{
		started.Disconnect();
		rtmp = {};
		video = nullptr;
		audio = nullptr;
	}
};

// The plug-in as the host runs it: loaded into the main window, its scene showing the
// host's, the front end's events bracketed by the clock.
class LoadedPlugin {
public:
	explicit LoadedPlugin(HandlerClock *clock) : clock_(clock) {}
	~LoadedPlugin() { unload(); }

	bool load(const char *host_scene)
	{
		obs_frontend_add_event_callback(HandlerClock::before, clock_);
		plugin_ = std::make_unique<cv::Plugin>();
		const bool loaded = plugin_->load();
		obs_frontend_add_event_callback(HandlerClock::after, clock_);
		cvtest::frontend::fire_event(OBS_FRONTEND_EVENT_FINISHED_LOADING);
		clock_->take_ms();
		return loaded && plugin_->output() && !plugin_->assign_host_scene("Scene 1", host_scene);
	}
	// The host's exit as the plug-in sees it: the EXIT event, last in the host's handling
	// of its main window's close, while its event loop still runs; then, once the loop
	// has ended and the window is gone, its docks deleted and the plug-in unloaded.
	void exit_event() { cvtest::frontend::fire_event(OBS_FRONTEND_EVENT_EXIT); }
	void after_loop()
	{
		drop_docks();
		unload();
	}
	cv::Plugin *operator->() const { return plugin_.get(); }
	bool live() const
	{
		return plugin_->output() && plugin_->output()->destinations().at(0).state == cv::StreamState::Live;
	}
	bool idle() const { return plugin_->output() && plugin_->output()->idle(); }

private:
	void unload()
	{
		if (plugin_) {
			plugin_->unload();
			plugin_.reset();
		}
		obs_frontend_remove_event_callback(HandlerClock::before, clock_);
		obs_frontend_remove_event_callback(HandlerClock::after, clock_);
	}
	// The dock is the host's; a new load makes a new one.
	static void drop_docks()
	{
		if (auto *window = static_cast<QMainWindow *>(obs_frontend_get_main_window()))
			qDeleteAll(window->findChildren<QDockWidget *>());
	}

	HandlerClock *clock_;
	std::unique_ptr<cv::Plugin> plugin_;
};

QApplication *application()
{
	static int argc = 1;
	static char name[] = "cv_benchmarks", *argv[] = {name, nullptr};
	static QApplication *app = [] {
		setenv("QT_QPA_PLATFORM", "xcb", 1);
		return new QApplication(argc, argv);
	}();
	return app;
}

// One repetition's figures, in ms.
struct Stalls {
	double idle = 0;
	double host_start = 0;
	double host_stop = 0;
	double start = 0;
	double stop = 0;
	double profile_switch = 0;      // the plug-in's handlers in it
	double profile_switch_loop = 0; // the whole switch, the host's video reset included
	double exit = 0;
	double switch_live = 0; // the plug-in's handlers, switching while the vertical stream is live
	double switch_live_loop = 0;
	double exit_live = 0;
	double after_loop = 0; // docks deleted and unload, once the host's loop has ended
	double after_loop_live = 0;
};

class Run {
public:
	Run(cvtest::RtmpServer &server, const std::string &dir) : server_(server), dir_(dir) {}

	// False, with the reason, when a phase did not complete.
	bool once(int round, Stalls *stalls, std::string *error)
	{
		const std::string suffix = std::to_string(round);
		*error = {};
		// The loop's floor: a second with nothing to do.
		const uint64_t idle_until = steady_ns() + 700000000;
		stalls->idle = stall_of(
			watch_, [] {}, [&] { return steady_ns() >= idle_until; });

		HostStream host;
		bool host_started = false;
		stalls->host_start = stall_of(
			watch_, [&] { host_started = host.start(server_.app_url(), "host" + suffix); },
			[&] { return !host_started || host.live; });
		if (!host_started || stalls->host_start < 0)
			return fail(error, "the host's stream did not start");
		spin(kStreamMs);
		stalls->host_stop = stall_of(
			watch_, [&] { host.stop(); }, [&] { return host.stopped(); });
		host.release();
		if (stalls->host_stop < 0)
			return fail(error, "the host's stream did not stop");

		if (!measure_start(&stalls->start, error))
			return false;
		spin(kStreamMs);
		stalls->stop = stall_of(
			watch_, [&] { plugin_->stop_streaming(); }, [&] { return plugin_.idle(); });
		if (stalls->stop < 0)
			return fail(error, "the vertical stream did not stop");
		if (!measure_switch(&stalls->profile_switch, &stalls->profile_switch_loop, error))
			return false;
		stalls->exit = exit(&stalls->after_loop);
		if (!load(error))
			return false;

		double ignored = 0;
		if (!measure_start(&ignored, error))
			return false;
		spin(kStreamMs);
		if (!measure_switch(&stalls->switch_live, &stalls->switch_live_loop, error) ||
		    !measure_start(&ignored, error))
			return false;
		spin(kStreamMs);
		stalls->exit_live = exit(&stalls->after_loop_live);
		return load(error);
	}

	bool load(std::string *error)
	{
		if (!plugin_.load("UI Stall Show"))
			return fail(error, "the plug-in did not load");
		// The dock and its preview come up in the loop: not part of the next phase.
		spin(kSettleMs);
		return true;
	}
	void unload()
	{
		plugin_.exit_event();
		plugin_.after_loop();
	}

private:
	static bool fail(std::string *error, const char *why)
	{
		*error = why;
		return false;
	}

	// The loop's stall from the EXIT event; what follows once the loop has ended is timed
	// into `after_loop_ms`.
	double exit(double *after_loop_ms)
	{
		const double stall = stall_of(
			watch_, [&] { plugin_.exit_event(); }, [] { return true; });
		const uint64_t began = steady_ns();
		plugin_.after_loop();
		*after_loop_ms = double(steady_ns() - began) / 1e6;
		return stall;
	}

	bool measure_start(double *stall, std::string *error)
	{
		cv::Error started;
		*stall = stall_of(
			watch_, [&] { started = plugin_->start_streaming(); },
			[&] { return started || plugin_.live(); });
		if (started || *stall < 0)
			return fail(error, "the vertical stream did not go live");
		return true;
	}

	// To the other profile folder, done once the plug-in has taken up the new profile (at
	// once when idle, once its outputs have stopped when live) and the host's video is the
	// new profile's. The switch's own call is timed apart, the loop's stalls after it are
	// those of what it left queued. The plug-in's share: its handlers' time in the call
	// (the host's video reset between them is not its), or the longest stall after it less
	// any video reset of the host's in it, whichever is longer; the whole switch is the
	// longer of the call and the stalls after it, resets and all.
	bool measure_switch(double *plugin_ms, double *loop_ms, std::string *error)
	{
		profile_ = 1 - profile_;
		const std::string dir = dir_ + "/profile" + std::to_string(profile_);
		const uint32_t width = profile_ ? 1280 : 1920, height = profile_ ? 720 : 1080;
		clock_.take_ms();
		uint64_t call_ns = 0;
		const double after = stall_of(
			watch_,
			[&] {
				const uint64_t began = steady_ns();
				cvtest::frontend::switch_profile(dir, width, height);
				call_ns = steady_ns() - began;
				watch_.reset();
			},
			[&] {
				obs_video_info video = {};
				return !plugin_->profile_switching() && plugin_->output() &&
				       obs_get_video_info(&video) && video.base_width == width;
			});
		*loop_ms = std::max(double(call_ns) / 1e6, after);
		*plugin_ms = std::max(clock_.take_ms(), watch_.longest_own_ms());
		if (after < 0)
			return fail(error, "the profile switch did not complete");
		return true;
	}

	cvtest::RtmpServer &server_;
	std::string dir_;
	LoopWatch watch_;
	HandlerClock clock_;
	LoadedPlugin plugin_{&clock_};
	int profile_ = 0;
};

void BM_UiStall(benchmark::State &state)
{
	cvtest::RtmpServer server;
	std::string error;
	if (!server.start(&error)) {
		state.SkipWithError(error.c_str());
		return;
	}
	application();
	const std::string dir = cvtest::make_temp_dir("cv-ui-stall-");
	for (int profile = 0; profile < 2; profile++)
		cvtest::write_file(dir + "/profile" + std::to_string(profile) + "/corvane-vertical-canvas.ini",
				   "[VerticalCanvas]\nrtmpurl=" + server.app_url() + "\nstreamkey=vertical" +
					   std::to_string(profile) + "\n");
	cvtest::frontend::reset();
	cvtest::frontend::set_profile_dir(dir + "/profile0");
	OBSSceneAutoRelease scene = cvtest::make_band_scene("UI Stall Show", {0xFF0000, 0x00FF00, 0x0000FF});
	obs_set_output_source(0, obs_scene_get_source(scene));

	auto window = std::make_unique<QMainWindow>();
	auto *preview = new HostPreview;
	window->setCentralWidget(preview);
	window->resize(960, 600);
	window->show();
	cvtest::frontend::set_main_window(window.get());
	spin(200);
	static int round = 0;
	{
		Run run(server, dir);
		if (!preview->attach()) {
			state.SkipWithError("the host's preview has no display");
		} else if (!run.load(&error)) {
			state.SkipWithError(error.c_str());
		} else {
			for (auto _ : state) {
				Stalls stalls;
				if (!run.once(round++, &stalls, &error)) {
					state.SkipWithError(error.c_str());
					break;
				}
				const double plugin =
					std::max({stalls.start, stalls.stop, stalls.profile_switch, stalls.exit});
				const double host = std::max(stalls.host_start, stalls.host_stop);
				state.counters["plugin_stall_ms"] = plugin;
				state.counters["host_stall_ms"] = host;
				state.counters["ratio"] = host > 0 ? plugin / host : 0;
				state.counters["goal_ms"] = kGoalMs;
				state.counters["idle_ms"] = stalls.idle;
				state.counters["host_start_ms"] = stalls.host_start;
				state.counters["host_stop_ms"] = stalls.host_stop;
				state.counters["start_ms"] = stalls.start;
				state.counters["stop_ms"] = stalls.stop;
				state.counters["switch_ms"] = stalls.profile_switch;
				state.counters["switch_loop_ms"] = stalls.profile_switch_loop;
				state.counters["exit_ms"] = stalls.exit;
				state.counters["switch_live_ms"] = stalls.switch_live;
				state.counters["switch_live_loop_ms"] = stalls.switch_live_loop;
				state.counters["exit_live_ms"] = stalls.exit_live;
				state.counters["live_stall_ms"] = std::max(stalls.switch_live, stalls.exit_live);
				state.counters["after_loop_ms"] = stalls.after_loop;
				state.counters["after_loop_live_ms"] = stalls.after_loop_live;
				state.counters["render_frame_ms"] = double(obs_get_average_frame_time_ns()) / 1e6;
			}
		}
		run.unload();
	}
	window.reset();
	cvtest::frontend::reset();
	obs_set_output_source(0, nullptr);
	obs_source_remove(obs_scene_get_source(scene));
	server.stop();
	std::filesystem::remove_all(dir);
}

} // namespace

BENCHMARK(BM_UiStall)->Iterations(1)->Repetitions(7)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace cvbench

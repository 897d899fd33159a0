// Bad input, each tried the way a user would meet it: typed into the settings dialog
// and started from the dock, written by hand into the settings files and picked up by
// a profile switch, or typed as a scene name. Every row has one expected, clear
// outcome; none may crash, hang, leak the stream key or lose the saved scene list.

#include "frontend_stress_test.h"
#include "mux_pipeline.h"

#include "canvas/vertical_canvas.h"
#include "mux/stream_url.h"
#include "ui/settings_dialog.h"
#include "ui/vertical_dock.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>

#include <chrono>
#include <filesystem>

namespace {

using cvtest::log_contains;
using cvtest::log_count;
using cvtest::sleep_ms;

constexpr const char *kRejected = "Stream rejected — check server URL and stream key";

enum class Outcome {
	Refused,         // the dialog's "Validation" box; nothing stored
	NotStarted,      // the start is refused at once; `detail` is in the log
	Rejected,        // starts, then stops by itself with the error box saying `detail`
	Streams,         // the server receives the stream
	RejectedOrStops, // unreachable: rejected as above, or still connecting after a
			 // while, and then the user's Stop returns at once
	Stops,           // still connecting after a while; the user's Stop returns at once
};

const char *outcome_name(Outcome outcome)
{
	switch (outcome) {
	case Outcome::Refused:
		return "refused by the dialog";
	case Outcome::NotStarted:
		return "not started";
	case Outcome::Rejected:
		return "rejected";
	case Outcome::Streams:
		return "streams";
	case Outcome::RejectedOrStops:
		return "rejected or stopped";
	case Outcome::Stops:
		return "stopped while connecting";
	}
	return "?";
}

struct AddressCase {
	const char *what;
	std::string url; // "{rtmp}" and "{srt}" stand for the test servers, "{port}" for nginx's port
	std::string key;
	bool hand_edited; // written into the profile file (bytes a dialog cannot take) instead of typed
	Outcome outcome;
	std::string detail;
	bool silent_server = false; // the RTMP server accepts connections but never answers
};

struct FileCase {
	const char *what;
	std::string text; // the whole profile file; "{rtmp}" stands for the RTMP server
	bool runs;        // the runtime is rebuilt from it (otherwise the rebuild fails, and says so)
	uint32_t width = 0;
	uint32_t height = 0;
	bool streams = false; // and a main-stream start reaches the server
};

size_t flv_files_below(const std::string &dir)
{
	size_t count = 0;
	std::error_code error;
	for (auto it = std::filesystem::recursive_directory_iterator(dir, error);
	     !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error))
		count += it->path().extension() == ".flv";
	return count;
}

std::string replace_all(std::string text, const std::string &from, const std::string &to)
{
	for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
		text.replace(at, from.size(), to);
	return text;
}

class BadInputsTest : public cvtest::FrontendStressTest {
protected:
	void SetUp() override
	{
		FrontendStressTest::SetUp();
		if (HasFatalFailure())
			return;
		std::string error;
		ASSERT_TRUE(srt_.start(&error)) << error;
		write_file(global_config_file(), kSavedScenes);
		write_file(profile_file(), good_profile("good"));
		cv::load_global_config();
		cv::load_profile_config();
		ASSERT_TRUE(create_runtime());
		fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
		make_dock();
	}

	void TearDown() override
	{
		dock_.reset();
		FrontendStressTest::TearDown();
	}

	static constexpr const char *kSavedScenes = "[Scenes]\ncount=2\nactivescene=Talk\n"
						    "scene_0_name=Talk\nscene_0_source=Show\n"
						    "scene_1_name=Game\nscene_1_source=\n";

	std::string expand(const std::string &text) const
	{
		std::string expanded = replace_all(text, "{rtmp}", rtmp_.app_url());
		expanded = replace_all(expanded, "{srt}", srt_.url());
		return replace_all(expanded, "{port}", std::to_string(rtmp_.port()));
	}

	std::string good_profile(const std::string &key) const
	{
		return "[VerticalCanvas]\nrtmpurl=" + rtmp_.app_url() + "\nstreamkey=" + key +
		       "\ncanvaswidth=360\ncanvasheight=640\nvideobitrate=800\n";
	}

	void make_dock()
	{
		std::lock_guard lock(cv::runtime_mutex());
		dock_ = std::make_unique<cv::VerticalDock>(cv::runtime_canvas(), cv::runtime_output());
		dock_->refreshSceneList();
	}

	// What a profile switch does to the runtime, with the dock made anew on it.
	void rebuild_from_profile_file()
	{
		dock_.reset();
		fire(OBS_FRONTEND_EVENT_PROFILE_CHANGING);
		fire(OBS_FRONTEND_EVENT_PROFILE_CHANGED);
		make_dock();
	}

	template<typename T> T *dock_child(const char *name) { return dock_->findChild<T *>(name); }

	// The scene list the canvas holds and the one the global file holds are the saved ones.
	void expect_scene_list_kept()
	{
		{
			std::lock_guard lock(cv::runtime_mutex());
			if (cv::VerticalCanvas *canvas = cv::runtime_canvas()) {
				EXPECT_EQ(canvas->scene_names(), (std::vector<std::string>{"Talk", "Game"}));
				EXPECT_EQ(canvas->scene_source_name("Talk"), "Show");
			}
		}
		const std::string saved = read_file(global_config_file());
		EXPECT_NE(saved.find("count=2"), std::string::npos) << saved;
		EXPECT_NE(saved.find("scene_0_name=Talk"), std::string::npos) << saved;
		EXPECT_NE(saved.find("scene_1_name=Game"), std::string::npos) << saved;
	}

	void try_address(const AddressCase &c);

	cvtest::SrtListener srt_;
	std::unique_ptr<cv::VerticalDock> dock_;
};

void BadInputsTest::try_address(const AddressCase &c)
{
	const std::string url = expand(c.url);
	cvtest::clear_logs();

	if (c.hand_edited) {
		write_file(profile_file(), "[VerticalCanvas]\nrtmpurl=" + url + "\nstreamkey=" + c.key +
						   "\ncanvaswidth=360\ncanvasheight=640\nvideobitrate=800\n");
		rebuild_from_profile_file();
	} else {
		const std::string stored_url = cv::rtmpurl();
		cv::SettingsDialog dialog;
		dialog.findChild<QLineEdit *>("urlEdit")->setText(QString::fromUtf8(url.c_str()));
		dialog.findChild<QLineEdit *>("keyEdit")->setText(QString::fromUtf8(c.key.c_str()));
		cvtest::ModalAnswerer answerer(cvtest::press_button(QMessageBox::Ok));
		dialog.findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Save)->click();
		if (c.outcome == Outcome::Refused) {
			EXPECT_EQ(answerer.answered(), 1);
			EXPECT_EQ(answerer.last_title(), "Validation");
			EXPECT_EQ(dialog.result(), 0);
			EXPECT_EQ(cv::rtmpurl(), stored_url) << "a refused URL was stored";
			return;
		}
		EXPECT_EQ(answerer.answered(), 0);
		ASSERT_EQ(dialog.result(), int(QDialog::Accepted));
	}

	if (c.silent_server)
		rtmp_.pause();
	const size_t flv_before = flv_files_below(rtmp_.dir());
	const size_t srt_before = srt_.recordings().size();
	auto wait_until = [&](int ms, const std::function<bool()> &done) {
		for (int waited = 0; waited < ms && !done(); waited += 50)
			cvtest::process_events_for(50);
		return done();
	};
	// The dock enables Start once its status tick has seen the last stream end.
	QPushButton *start = dock_child<QPushButton>("startButton");
	ASSERT_TRUE(wait_until(5000, [&] { return start->isEnabled(); }));
	cvtest::ModalAnswerer answerer(cvtest::press_button(QMessageBox::Ok));
	start->click();

	switch (c.outcome) {
	case Outcome::Refused:
		break;
	case Outcome::NotStarted:
		EXPECT_FALSE(vertical_active());
		EXPECT_TRUE(log_contains(c.detail)) << cvtest::logs_matching("corvane");
		EXPECT_EQ(dock_child<QLabel>("statusLabel")->text(), "Stopped");
		break;
	case Outcome::Rejected:
	case Outcome::RejectedOrStops:
	case Outcome::Stops: {
		const int patience = c.outcome == Outcome::Rejected ? 30000 : 4000;
		const bool rejected =
			wait_until(patience, [&] { return answerer.answered() > 0 && !vertical_active(); });
		if (c.outcome == Outcome::Stops) {
			EXPECT_FALSE(rejected);
			EXPECT_TRUE(vertical_active());
		} else if (rejected || c.outcome == Outcome::Rejected) {
			ASSERT_TRUE(rejected) << "no error box; log:\n" << cvtest::logs_matching("corvane");
			EXPECT_EQ(answerer.answered(), 1);
			EXPECT_EQ(answerer.last_text(), QString::fromUtf8(c.detail.c_str()));
			break;
		}
		const auto begin = std::chrono::steady_clock::now();
		dock_child<QPushButton>("stopButton")->click();
		const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
		EXPECT_LT(took, 5.0) << "the stop waited for the unreachable server";
		EXPECT_TRUE(wait_until(10000, [&] { return !vertical_active(); }));
		cvtest::process_events_for(300);
		EXPECT_EQ(answerer.answered(), 0) << "a stop by the user is no error";
		break;
	}
	case Outcome::Streams: {
		const bool srt = url.rfind("srt://", 0) == 0;
		const bool reached = wait_until(20000, [&] {
			return srt ? srt_.recordings().size() > srt_before : flv_files_below(rtmp_.dir()) > flv_before;
		});
		EXPECT_TRUE(reached) << "nothing reached the server; log:\n" << cvtest::logs_matching("corvane");
		sleep_ms(1000);
		EXPECT_TRUE(vertical_active());
		dock_child<QPushButton>("stopButton")->click();
		EXPECT_TRUE(wait_until(10000, [&] { return !vertical_active(); }));
		EXPECT_EQ(answerer.answered(), 0) << answerer.last_text().toStdString();
		break;
	}
	}
	if (c.silent_server)
		rtmp_.resume();
	EXPECT_FALSE(vertical_active());
	const std::string key = cv::trim_blanks(c.key);
	if (key.size() >= 4) {
		EXPECT_FALSE(log_contains(key)) << "the stream key reached the log";
	}
}

} // namespace

TEST_F(BadInputsTest, StreamAddressesAndKeys)
{
	const std::string long_key(10 * 1024, 'k');
	const std::string long_url = "{rtmp}/" + std::string(64 * 1024, 'u');
	const AddressCase cases[] = {
		// URLs typed into the dialog.
		{"empty URL", "", "key1", false, Outcome::Refused, ""},
		{"blank URL", "  \t  ", "key1", false, Outcome::Refused, ""},
		{"no scheme", "127.0.0.1:{port}/live", "key1", false, Outcome::Rejected, kRejected},
		{"a bare word", "live", "key1", false, Outcome::Rejected, kRejected},
		{"a local path", "/tmp", "key1", false, Outcome::Rejected, kRejected},
		{"file scheme", "file:/tmp", "key1", false, Outcome::Rejected, kRejected},
		{"http scheme", "http://127.0.0.1:{port}/live", "key1", false, Outcome::Rejected, kRejected},
		{"udp scheme", "udp://127.0.0.1:9/live", "key1", false, Outcome::Rejected, kRejected},
		{"misspelt scheme", "rtmpx://127.0.0.1:{port}/live", "key1", false, Outcome::Rejected, kRejected},
		{"scheme alone", "rtmp://", "key1", false, Outcome::Rejected, kRejected},
		{"no host", "rtmp:///live", "key1", false, Outcome::Rejected, kRejected},
		{"no application", "rtmp://127.0.0.1:{port}", "key1", false, Outcome::Rejected, kRejected},
		{"unknown application", "rtmp://127.0.0.1:{port}/nosuchapp", "key1", false, Outcome::Rejected,
		 kRejected},
		{"port out of range", "rtmp://127.0.0.1:99999/live", "key1", false, Outcome::Rejected, kRejected},
		{"nothing listening", "rtmp://127.0.0.1:1/live", "key1", false, Outcome::Rejected, kRejected},
		{"unresolvable host", "rtmp://cv-no-such-host.invalid/live", "key1", false, Outcome::RejectedOrStops,
		 kRejected},
		{"unreachable address", "rtmp://192.0.2.1:1935/live", "key1", false, Outcome::RejectedOrStops,
		 kRejected},
		{"server that accepts and never answers", "{rtmp}", "key1", false, Outcome::Stops, "", true},
		{"control characters", "rtmp://127.0.0.1:{port}/li\x01ve\x7f", "key1", false, Outcome::Rejected,
		 kRejected},
		{"blank inside", "rtmp://127.0.0.1:{port}/live now", "key1", false, Outcome::Rejected, kRejected},
		{"SRT port out of range", "srt://127.0.0.1:99999", "", false, Outcome::Rejected, kRejected},
		{"SRT without port", "srt://127.0.0.1", "", false, Outcome::Rejected, kRejected},
		{"SRT unknown mode", "{srt}?mode=sideways", "", false, Outcome::Rejected, kRejected},
		{"SRT passphrase too short", "{srt}?passphrase=short", "", false, Outcome::Rejected, kRejected},
		{"SRT unreachable", "srt://192.0.2.1:9000", "", false, Outcome::RejectedOrStops, kRejected},
		// Keys typed into the dialog.
		{"empty key", "{rtmp}", "", false, Outcome::NotStarted, "Missing RTMP server/key"},
		{"blank key", "{rtmp}", "   ", false, Outcome::NotStarted, "Missing RTMP server/key"},
		{"key with blanks around", "{rtmp}", "  padded  ", false, Outcome::Streams, ""},
		{"key with blanks inside", "{rtmp}", "my stream key", false, Outcome::Rejected, kRejected},
		{"key with a slash", "{rtmp}", "team/vertical", false, Outcome::Rejected, kRejected},
		{"key of slashes", "{rtmp}", "///", false, Outcome::Streams, ""},
		{"key with a query", "{rtmp}", "key1?token=abcd", false, Outcome::Streams, ""},
		{"10 KiB key", "{rtmp}", long_key, false, Outcome::Rejected, kRejected},
		{"key with control characters", "{rtmp}", "ke\x01y\x02", false, Outcome::Rejected, kRejected},
		// What only a hand-edited file can hold.
		{"64 KiB URL", long_url, "key1", true, Outcome::Rejected, kRejected},
		{"URL with bytes that are not UTF-8", "{rtmp}\xff\xfe", "key1", true, Outcome::Rejected, kRejected},
		{"key with bytes that are not UTF-8", "{rtmp}", "\xff\xfe-key", true, Outcome::Streams, ""},
	};
	for (const AddressCase &c : cases) {
		SCOPED_TRACE(std::string(c.what) + " (" + outcome_name(c.outcome) + ")");
		try_address(c);
		if (HasFatalFailure())
			return;
	}
	expect_scene_list_kept();
}

TEST_F(BadInputsTest, HandEditedProfileFiles)
{
	const std::string stream = "[VerticalCanvas]\nrtmpurl={rtmp}\nstreamkey=edited\nvideobitrate=800\n";
	std::string binary;
	for (int i = 0; i < 4096; i++)
		binary.push_back(char((i * 131 + 7) % 256));
	const FileCase cases[] = {
		{"zero width", stream + "canvaswidth=0\ncanvasheight=640\n", false},
		{"negative height", stream + "canvaswidth=360\ncanvasheight=-640\n", false},
		{"huge width", stream + "canvaswidth=99999999999\ncanvasheight=640\n", false},
		{"width past 32 bits", stream + "canvaswidth=4294967656\ncanvasheight=640\n", false},
		{"width that is not a number", stream + "canvaswidth=wide\ncanvasheight=640\n", false},
		{"zero frame rate", stream + "canvaswidth=360\ncanvasheight=640\nfpsnum=0\n", false},
		{"zero frame rate denominator", stream + "canvaswidth=360\ncanvasheight=640\nfpsden=0\n", false},
		{"negative frame rate", stream + "canvaswidth=360\ncanvasheight=640\nfpsnum=-30\n", false},
		{"huge frame rate", stream + "canvaswidth=360\ncanvasheight=640\nfpsnum=1000000\n", false},
		{"fractional frame rate", stream + "canvaswidth=360\ncanvasheight=640\nfpsnum=30.5\n", true, 360, 640,
		 true},
		{"zero bitrate", stream + "canvaswidth=360\ncanvasheight=640\nvideobitrate=0\n", true, 360, 640, true},
		{"negative bitrate", stream + "canvaswidth=360\ncanvasheight=640\nvideobitrate=-800\n", true, 360, 640,
		 true},
		{"unknown encoder preset", stream + "canvaswidth=360\ncanvasheight=640\nencoderpreset=warp9\n", true,
		 360, 640, true},
		{"truncated file", "[VerticalCanvas]\nrtmpurl={rtmp}\nstreamkey=edited\ncanvasheight=64", true, 1080,
		 64},
		{"file cut inside its section name", "[VerticalCanv", true, 1080, 1920},
		{"empty file", "", true, 1080, 1920},
		{"binary file", binary, true, 1080, 1920},
	};
	for (const FileCase &c : cases) {
		SCOPED_TRACE(c.what);
		cvtest::clear_logs();
		cvtest::ModalAnswerer answerer(cvtest::press_button(QMessageBox::Ok));
		write_file(profile_file(), expand(c.text));
		rebuild_from_profile_file();
		cvtest::process_events_for(200);
		bool rebuilt = false;
		{
			std::lock_guard lock(cv::runtime_mutex());
			cv::VerticalCanvas *canvas = cv::runtime_canvas();
			rebuilt = canvas != nullptr;
			if (canvas && c.runs) {
				EXPECT_EQ(canvas->width(), c.width);
				EXPECT_EQ(canvas->height(), c.height);
			}
		}
		EXPECT_EQ(rebuilt, c.runs);
		if (!c.runs) {
			EXPECT_TRUE(log_contains("Invalid canvas format")) << cvtest::logs_matching("corvane");
			EXPECT_EQ(answerer.answered(), 1);
			EXPECT_TRUE(answerer.last_text().startsWith("Failed to rebuild the vertical canvas"));
		} else {
			EXPECT_EQ(answerer.answered(), 0) << answerer.last_text().toStdString();
		}
		if (c.streams) {
			fire(OBS_FRONTEND_EVENT_STREAMING_STARTING);
			EXPECT_TRUE(cvtest::wait_mux_connected(20000)) << cvtest::logs_matching("corvane");
			fire(OBS_FRONTEND_EVENT_STREAMING_STOPPED);
			EXPECT_TRUE(wait_vertical_inactive());
		}

		// A good file and another switch bring everything back.
		write_file(profile_file(), good_profile("good"));
		rebuild_from_profile_file();
		std::lock_guard lock(cv::runtime_mutex());
		ASSERT_NE(cv::runtime_canvas(), nullptr);
		expect_scene_list_kept();
	}
}

TEST_F(BadInputsTest, SceneNames)
{
	auto add_scene = [&](const QString &typed) {
		cvtest::ModalAnswerer answerer(cvtest::type_and_accept(typed));
		dock_child<QPushButton>("addButton")->click();
		return answerer.answered();
	};
	auto names = [&] {
		std::lock_guard lock(cv::runtime_mutex());
		return cv::runtime_canvas()->scene_names();
	};
	const std::vector<std::string> saved{"Talk", "Game"};

	// Empty and blank names are ignored.
	EXPECT_EQ(add_scene(""), 1);
	EXPECT_EQ(add_scene("   \t"), 1);
	EXPECT_EQ(names(), saved);

	// A name that exists already is refused with a warning box (the box is answered
	// by the same answerer after the input dialog).
	{
		cvtest::ModalAnswerer answerer([](QWidget *modal) {
			if (qobject_cast<QMessageBox *>(modal))
				cvtest::press_button(QMessageBox::Ok)(modal);
			else
				cvtest::type_and_accept("Talk")(modal);
		});
		dock_child<QPushButton>("addButton")->click();
		EXPECT_EQ(answerer.answered(), 2);
		EXPECT_EQ(answerer.last_title(), "Add Scene");
	}
	EXPECT_EQ(names(), saved);

	// Long names, names with the settings file's own special characters, and names
	// in other scripts survive the save and the next load byte for byte.
	const std::string long_ascii(10000, 'n');
	std::string long_utf8;
	for (int i = 0; i < 5000; i++)
		long_utf8 += "\xC3\xA9"; // é
	const std::string specials = "a=b ;#[Scenes] \\ \"q\"";
	for (const std::string &name : {long_ascii, long_utf8, specials}) {
		EXPECT_EQ(add_scene(QString::fromUtf8(name.c_str(), int(name.size()))), 1);
	}
	std::vector<std::string> expected = saved;
	expected.insert(expected.end(), {long_ascii, long_utf8, specials});
	EXPECT_EQ(names(), expected);
	rebuild_from_profile_file();
	EXPECT_EQ(names(), expected);

	// A name with bytes that are not UTF-8 can only come from a hand-edited file: it is
	// restored, listed (with replacement characters) and saved back unchanged.
	write_file(global_config_file(), "[Scenes]\ncount=3\nactivescene=Talk\n"
					 "scene_0_name=Talk\nscene_0_source=Show\n"
					 "scene_1_name=\xff\xfe bad\nscene_1_source=\xfe\n"
					 "scene_2_name=\nscene_2_source=Show\n");
	dock_.reset();
	{
		std::lock_guard lock(cv::runtime_mutex());
		cv::destroy_runtime(false);
		cv::load_global_config();
		ASSERT_TRUE(cv::create_runtime_from_current_profile());
	}
	fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	make_dock();
	EXPECT_EQ(names(), (std::vector<std::string>{"Talk", "\xff\xfe bad"}));
	EXPECT_EQ(dock_child<QListWidget>("sceneList")->count(), 2);
	EXPECT_TRUE(log_contains("not found")) << cvtest::logs_matching("corvane");
	rebuild_from_profile_file();
	EXPECT_EQ(names(), (std::vector<std::string>{"Talk", "\xff\xfe bad"}));
	const std::string file = read_file(global_config_file());
	EXPECT_NE(file.find("scene_1_name=\xff\xfe bad\n"), std::string::npos) << file;
}

#pragma once

#include "frontend.h"
#include "host.h"
#include "process.h"
#include "ui.h"

#include "plugin/plugin.h"
#include "stream/mux_output.h"
#include "ui/vertical_dock.h"

#include <QApplication>
#include <QMainWindow>
#include <QPushButton>

#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>

// Readable failure messages for QString comparisons.
inline void PrintTo(const QString &text, std::ostream *os)
{
	*os << '"' << text.toStdString() << '"';
}

// Widget tests: real libobs and a real QApplication, offscreen unless a test needs
// native windows on the Xvfb ("xcb").
class UiTest : public cvtest::HostTest {
protected:
	virtual const char *platform() const { return "offscreen"; }
	void SetUp() override
	{
		HostTest::SetUp();
		static int argc = 1;
		static char name[] = "cv_ui_tests", *argv[] = {name, nullptr};
		setenv("QT_QPA_PLATFORM", platform(), 1);
		app_ = std::make_unique<QApplication>(argc, argv);
		cv::register_mux_output();
	}
	void TearDown() override
	{
		app_.reset();
		HostTest::TearDown();
	}
	std::unique_ptr<QApplication> app_;
};

// The plug-in as the host runs it: a main window for its dock, its settings in the
// test's folders, the front end's events delivered to it.
class PluginUiTest : public UiTest {
protected:
	void SetUp() override
	{
		UiTest::SetUp();
		// Shown, as the host's is by the time its modules load.
		window_ = std::make_unique<QMainWindow>();
		window_->resize(1280, 800);
		window_->show();
		cvtest::frontend::set_main_window(window_.get());
	}
	void TearDown() override
	{
		plugin_.reset();
		window_.reset();
		UiTest::TearDown();
	}
	// Loads with this profile file ("key=value" lines) up to the front end's "finished
	// loading", in the host's order: modules loaded, then its dock layout restored. A
	// plug-in loaded before goes first: it saves its files as it unloads.
	void load(const std::string &profile)
	{
		plugin_.reset();
		cvtest::write_file(profile_file(), "[VerticalCanvas]\n" + profile);
		plugin_ = std::make_unique<cv::Plugin>();
		EXPECT_TRUE(plugin_->load());
		plugin_->post_load();
		cvtest::frontend::restore_dock_layout();
		fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
	}
	static void fire(obs_frontend_event event) { cvtest::frontend::fire_event(event); }
	template<typename T = QPushButton> T *dock_child(const char *name)
	{
		return plugin_->dock()->findChild<T *>(name);
	}

	std::unique_ptr<QMainWindow> window_;
	std::unique_ptr<cv::Plugin> plugin_;
};

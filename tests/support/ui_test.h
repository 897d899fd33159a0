#pragma once

#include "frontend.h"
#include "host.h"
#include "process.h"
#include "ui.h"

#include "plugin/plugin.h"
#include "stream/mux_output.h"

#include <QApplication>
#include <QMainWindow>
#include <QString>

#include <memory>
#include <ostream>
#include <string>

// Readable failure messages for QString comparisons.
inline void PrintTo(const QString &text, std::ostream *os)
{
	*os << '"' << text.toStdString() << '"';
}

// Widget tests: real libobs and a real QApplication, offscreen unless a test needs
// native windows on the Xvfb.
class UiTest : public cvtest::HostTest {
protected:
	virtual const char *platform() const { return "offscreen"; }
	void SetUp() override
	{
		HostTest::SetUp();
		app_ = cvtest::make_application(platform());
		cv::register_mux_output();
	}
	void TearDown() override
	{
		app_.reset();
		HostTest::TearDown();
	}
	std::unique_ptr<QApplication> app_;
};

// The plug-in as the host program runs it: a main window for its dock, its settings in
// the test's folders, the front end's events delivered to the callback it adds.
class PluginUiTest : public UiTest {
protected:
	void SetUp() override
	{
		UiTest::SetUp();
		window_ = std::make_unique<QMainWindow>();
		cvtest::frontend::set_main_window(window_.get());
	}
	void TearDown() override
	{
		if (plugin_)
			plugin_->unload();
		plugin_.reset();
		window_.reset();
		UiTest::TearDown();
	}
	// Loads with this profile file ("key=value" lines) and, unless told otherwise, the
	// front end's "finished loading" (scenes restored, dock made).
	cv::Plugin &load(const std::string &profile, bool finished_loading = true)
	{
		cvtest::write_file(profile_file(), "[VerticalCanvas]\n" + profile);
		plugin_ = std::make_unique<cv::Plugin>();
		EXPECT_TRUE(plugin_->load());
		if (finished_loading)
			fire(OBS_FRONTEND_EVENT_FINISHED_LOADING);
		return *plugin_;
	}
	static void fire(obs_frontend_event event) { cvtest::frontend::fire_event(event); }

	std::unique_ptr<QMainWindow> window_;
	std::unique_ptr<cv::Plugin> plugin_;
};

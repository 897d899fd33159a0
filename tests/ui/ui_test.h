#pragma once

#include "fake_frontend.h"
#include "host_fixture.h"
#include "ui_helpers.h"

#include "core/dock_registry.h"
#include "core/frontend_events.h"
#include "core/runtime.h"
#include "core/settings_store.h"
#include "mux/mux_output.h"

#include <QApplication>
#include <QMainWindow>

#include <QString>

#include <memory>
#include <mutex>
#include <ostream>
#include <string>

// Readable failure messages for QString comparisons.
inline void PrintTo(const QString &text, std::ostream *os)
{
	*os << '"' << text.toStdString() << '"';
}

// Widget tests: real libobs, the plug-in's settings files in the test's folders, and a
// real QApplication (offscreen unless a test needs native windows on the Xvfb).
class UiTest : public cvtest::HostTest {
protected:
	virtual const char *platform() const { return "offscreen"; }

	void SetUp() override
	{
		HostTest::SetUp();
		if (HasFatalFailure())
			return;
		app_ = cvtest::make_application(platform());
		cv::register_mux_output();
		cvtest::frontend::set_profile_dir(profile_dir());
	}

	void TearDown() override
	{
		{
			std::lock_guard lock(cv::runtime_mutex());
			cv::destroy_runtime(false);
		}
		cv::save_and_close_configs();
		app_.reset();
		HostTest::TearDown();
	}

	std::string profile_file() const { return profile_dir() + "/corvane-vertical-canvas.ini"; }

	// Writes the profile's settings file ("key=value" lines) and opens both files.
	void open_settings(const std::string &lines)
	{
		write_file(profile_file(), "[VerticalCanvas]\n" + lines);
		cv::load_global_config();
		cv::load_profile_config();
	}

	bool create_runtime()
	{
		std::lock_guard lock(cv::runtime_mutex());
		return cv::create_runtime_from_current_profile();
	}

	std::unique_ptr<QApplication> app_;
};

// The module as the host program runs it: a main window for the dock, and the front
// end's events delivered to the module's callback.
class FrontendTest : public UiTest {
protected:
	void SetUp() override
	{
		UiTest::SetUp();
		if (HasFatalFailure())
			return;
		window_ = std::make_unique<QMainWindow>();
		cvtest::frontend::set_main_window(window_.get());
		obs_frontend_add_event_callback(cv::on_frontend_event, nullptr);
	}

	void TearDown() override
	{
		obs_frontend_remove_event_callback(cv::on_frontend_event, nullptr);
		{
			std::lock_guard lock(cv::runtime_mutex());
			cv::destroy_runtime(false);
			cv::forget_dock();
		}
		window_.reset();
		UiTest::TearDown();
	}

	static void fire(obs_frontend_event event) { cvtest::frontend::fire_event(event); }

	std::unique_ptr<QMainWindow> window_;
};

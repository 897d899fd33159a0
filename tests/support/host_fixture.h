#pragma once

#include "host_session.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace cvtest {

// Starts real libobs in the test process (see HostSession) and shuts it down after the
// test. Every reference the test or the plug-in leaks shows up as a libobs allocation
// that is still outstanding after shutdown, which fails the test.
class HostTest : public ::testing::Test {
protected:
	virtual HostOptions host_options() const { return {}; }

	void SetUp() override;
	void TearDown() override;

	// Scratch folder of this test, removed afterwards.
	const std::string &temp_dir() const { return temp_dir_; }
	// Where the host keeps module settings (the plug-in's global file lives below it).
	std::string module_config_root() const { return temp_dir_ + "/plugin_config"; }
	std::string global_config_file() const;
	// Folder the fake front end reports as the current profile.
	std::string profile_dir() const { return temp_dir_ + "/profile"; }

	// Writes `text` to `path`, creating its folders.
	static void write_file(const std::string &path, const std::string &text);
	static std::string read_file(const std::string &path);

private:
	std::string temp_dir_;
	std::unique_ptr<HostSession> host_;
};

} // namespace cvtest

#include "host_fixture.h"

#include "fake_frontend.h"
#include "log_capture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace cvtest {

namespace {

class XvfbEnvironment : public ::testing::Environment {
public:
	void TearDown() override { stop_process_xvfb(); }
};
const auto *const xvfb_environment = ::testing::AddGlobalTestEnvironment(new XvfbEnvironment);

} // namespace

std::string HostTest::global_config_file() const
{
	return module_config_root() + "/corvane-vertical-canvas/settings-global.ini";
}

void HostTest::write_file(const std::string &path, const std::string &text)
{
	std::filesystem::create_directories(std::filesystem::path(path).parent_path());
	std::ofstream(path, std::ios::binary) << text;
}

std::string HostTest::read_file(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	std::stringstream text;
	text << in.rdbuf();
	return text.str();
}

void HostTest::SetUp()
{
	char pattern[] = "/tmp/cv-host-test-XXXXXX";
	ASSERT_NE(mkdtemp(pattern), nullptr);
	temp_dir_ = pattern;

	install_log_capture();
	clear_logs();
	frontend::reset();

	host_ = std::make_unique<HostSession>();
	std::string error;
	ASSERT_TRUE(host_->start(host_options(), module_config_root(), &error)) << error;
}

void HostTest::TearDown()
{
	if (host_) {
		EXPECT_EQ(host_->stop(), 0) << "libobs allocations still outstanding after shutdown";
		host_.reset();
	}
	if (!temp_dir_.empty() && !getenv("CV_TEST_KEEP"))
		std::filesystem::remove_all(temp_dir_);
}

} // namespace cvtest

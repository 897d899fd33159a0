#pragma once

#include "log_capture.h"
#include "recording_probe.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace cvtest {

// A live stream whose server is killed and brought back while it runs.
struct ReconnectStream {
	std::function<bool()> active;                         // the output is still live
	std::function<void()> stop;                           // ends the stream
	std::function<std::vector<std::string>()> recordings; // one file per connection, oldest first
};

// Kills the server mid-stream `rounds` times, keeps it down for `down_ms` (a retry or
// more fails meanwhile), brings it back, and finally checks that every segment the
// server recorded decodes from its first frame. Rounds follow what the server saw (one
// recording per connection), not log counts: a retry may connect while the server is
// still coming up. Call with ASSERT_NO_FATAL_FAILURE.
template<typename Server>
void reconnect_rounds(Server &server, const ReconnectStream &stream, int rounds, int down_ms, size_t min_failed_retries)
{
	auto sleep_ms = [](int ms) {
		std::this_thread::sleep_for(std::chrono::milliseconds(ms));
	};
	auto wait_for_recordings = [&](size_t count) {
		const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(45);
		while (stream.recordings().size() < count) {
			if (std::chrono::steady_clock::now() > deadline)
				return false;
			sleep_ms(50);
		}
		return true;
	};

	for (int round = 1; round <= rounds; round++) {
		SCOPED_TRACE("round " + std::to_string(round));
		ASSERT_TRUE(wait_for_recordings(size_t(round)));
		sleep_ms(2500);
		const size_t lost = log_count("entering reconnect mode");
		server.kill_hard();
		ASSERT_TRUE(wait_for_log("entering reconnect mode", 45000, lost + 1));
		EXPECT_TRUE(stream.active());
		sleep_ms(down_ms);
		std::string error;
		ASSERT_TRUE(server.restart(&error)) << error;
	}
	ASSERT_TRUE(wait_for_recordings(size_t(rounds + 1)));
	sleep_ms(2500);
	stream.stop();
	server.stop();

	EXPECT_GE(log_count("reconnect succeeded"), size_t(rounds));
	EXPECT_GE(log_count("reconnect failed, will retry"), min_failed_retries);
	const auto files = stream.recordings();
	ASSERT_EQ(files.size(), size_t(rounds + 1));
	for (const std::string &file : files) {
		SCOPED_TRACE(file);
		const RecordingInfo info = probe_recording(file);
		ASSERT_TRUE(info.opened) << info.error;
		EXPECT_EQ(info.decode_errors, 0);
		EXPECT_TRUE(info.first_video_packet_key);
		EXPECT_GT(info.video_frames_decoded, 10);
	}
}

} // namespace cvtest

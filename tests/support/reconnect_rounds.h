#pragma once

#include "media_packets.h"
#include "mux_pipeline.h"
#include "wait.h"

#include "mux/stream_session.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
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
// server recorded starts with a keyframe and decodes. Meanwhile the output stays live and
// says it is reconnecting. Rounds follow what the server saw (one recording per
// connection). Call with ASSERT_NO_FATAL_FAILURE.
template<typename Server> void reconnect_rounds(Server &server, const ReconnectStream &stream, int rounds, int down_ms)
{
	auto wait_for_recordings = [&](size_t count) {
		return wait_until([&] { return stream.recordings().size() >= count; }, 45000, 50);
	};

	for (int round = 1; round <= rounds; round++) {
		SCOPED_TRACE("round " + std::to_string(round));
		ASSERT_TRUE(wait_for_recordings(size_t(round)));
		sleep_ms(2500);
		server.kill_hard();
		ASSERT_TRUE(wait_until([] { return first_mux_stats().reconnecting; }, 45000));
		EXPECT_TRUE(stream.active());
		const std::vector<obs_output_t *> outputs = mux_outputs();
		ASSERT_EQ(outputs.size(), 1u);
		const char *error = obs_output_get_last_error(outputs[0]);
		EXPECT_STREQ(error ? error : "", cv::kReconnectingError);
		sleep_ms(down_ms);
		std::string restart_error;
		ASSERT_TRUE(server.restart(&restart_error)) << restart_error;
	}
	ASSERT_TRUE(wait_for_recordings(size_t(rounds + 1)));
	sleep_ms(2500);
	EXPECT_GE(first_mux_stats().reconnects, uint32_t(rounds));
	stream.stop();
	server.stop();

	const auto files = stream.recordings();
	ASSERT_EQ(files.size(), size_t(rounds + 1));
	for (const std::string &file : files) {
		SCOPED_TRACE(file);
		const StreamCheck check = check_stream(file);
		EXPECT_EQ(check.error, "");
		EXPECT_TRUE(check.starts_with_keyframe);
		EXPECT_TRUE(check.dts_increasing);
		EXPECT_GT(check.video_packets, 10u);
	}
}

} // namespace cvtest

// The vertical stream outlives its server: killed and restarted again and again during
// one stream, every restart resumes with a segment that decodes from its first frame.

#include "stress_fixture.h"

#include "canvas_output_fixture.h"

#include "log_capture.h"
#include "reconnect_rounds.h"
#include "stream_servers.h"

namespace {

using cvtest::by_form;

class ServerRestartTest : public cvtest::CanvasOutputTest {};

TEST_F(ServerRestartTest, RtmpServerKilledAndRestartedDuringOneStream)
{
	cvtest::RtmpServer server;
	std::string error;
	ASSERT_TRUE(server.start(&error)) << error;
	cv::VerticalOutput &output = make_output(server.app_url(), "again");
	ASSERT_TRUE(output.start());
	const int rounds = by_form(4, 10);
	cvtest::ReconnectStream stream{[&] { return output.is_active(); }, [&] { output.stop(); },
				       [&] {
					       return server.recordings("again");
				       }};
	ASSERT_NO_FATAL_FAILURE(cvtest::reconnect_rounds(server, stream, rounds, 2500));
}

TEST_F(ServerRestartTest, SrtListenerKilledAndRestartedDuringOneStream)
{
	cvtest::SrtListener listener;
	std::string error;
	ASSERT_TRUE(listener.start(&error)) << error;
	cv::VerticalOutput &output = make_output(listener.url(), "");
	ASSERT_TRUE(output.start());
	// An SRT caller learns that nobody listens only when its connect times out.
	cvtest::ReconnectStream stream{[&] { return output.is_active(); }, [&] { output.stop(); },
				       [&] {
					       return listener.recordings();
				       }};
	ASSERT_NO_FATAL_FAILURE(cvtest::reconnect_rounds(listener, stream, by_form(4, 10), 4500));
}

} // namespace

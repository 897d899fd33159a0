#pragma once

#include "stream/stream_session.h"

#include <obs.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace cv {
class VerticalCanvas;
}

// A vertical canvas showing a coloured host scene, the host's own x264 and AAC encoders
// on it, and one instance of the plug-in's output type: the stream's whole road with the
// encoder settings in the test's hands (B-frames, keyframe interval, another encoder).
namespace cvtest {

struct PipelineOptions {
	uint32_t width = 360;
	uint32_t height = 640;
	uint32_t fps_num = 30;
	uint32_t fps_den = 1;
	size_t audio_tracks = 2;
	int keyint_sec = 1;
	int video_kbps = 800;
	int bframes = 0;
	const char *output_id = nullptr; // the plug-in's own output type when null
};

// The outputs of the plug-in's type that exist now, and what the first of them reports.
std::vector<obs_output_t *> mux_outputs();
cv::SessionStats first_mux_stats();
// Waits until an output of the plug-in's type has made its connection.
bool wait_mux_connected(int timeout_ms);

class MuxPipeline {
public:
	explicit MuxPipeline(const PipelineOptions &options = {});
	~MuxPipeline();

	// Creates the encoders and the output for a server and key; false when libobs
	// refuses one of them.
	bool create(const std::string &server, const std::string &key);
	bool start() { return obs_output_start(output_); }
	void stop();
	// Waits until the output is inactive (a stop it signalled itself, or ours).
	bool wait_inactive(int timeout_ms);

	obs_output_t *output() const { return output_; }
	cv::VerticalCanvas &canvas() const { return *canvas_; }
	const char *last_error() const { return obs_output_get_last_error(output_); }

	// Codes of every "stop" signal the output emitted.
	std::vector<long long> stop_codes() const;

	// What the output's stream reports, and a wait until it has made its connection.
	cv::SessionStats stats() const;
	bool wait_connected(int timeout_ms) const;

private:
	static void on_stop(void *param, calldata_t *data);

	PipelineOptions options_;
	std::unique_ptr<cv::VerticalCanvas> canvas_;
	OBSSceneAutoRelease scene_;
	OBSEncoderAutoRelease video_;
	std::vector<OBSEncoderAutoRelease> audio_;
	OBSOutputAutoRelease output_;
	OBSSignal stop_signal_;
	mutable std::mutex codes_mutex_;
	std::vector<long long> codes_;
};

} // namespace cvtest

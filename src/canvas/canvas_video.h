#pragma once

// The vertical canvas's picture in the host's renderer: a video mix of its own size and
// rate that shows one source (the active vertical scene), and the output of that mix that
// encoders listen to.
//
// Every reset of the host's video (Settings → Video, a profile switch, a websocket
// client's SetVideoSettings) frees every mix the host has, this one included. Newer hosts
// (OBS 31 and later) keep the mix of a canvas object of their own and build it again
// themselves; on older ones the mix belongs to a view and is made anew before encoders
// are made on it.

#include <obs.hpp>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace cv {

class CanvasVideo {
public:
	CanvasVideo();
	~CanvasVideo();
	CanvasVideo(const CanvasVideo &) = delete;
	CanvasVideo &operator=(const CanvasVideo &) = delete;

	// Size and rate as given; colour format, space and range as the host has them now.
	bool open(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den);
	// Another size or rate, showing the same; only while no encoder listens to video().
	// False, and nothing changed, when the host cannot make it.
	bool resize(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den);
	void close();
	bool is_open() const;

	// The mix's video output, null when there is none. On older hosts a reset of the
	// host's video may have freed it since it was made: only what is current is read.
	video_t *video();
	// The video output to make encoders on: on older hosts its mix made anew, so only
	// while no encoder uses the canvas.
	video_t *fresh_video();
	// Counts the mixes made: encoders made on an older one are not joined.
	uint64_t generation() const { return generation_.load(); }

	// What the canvas shows; null shows nothing.
	void set_source(obs_source_t *source);
	OBSSourceAutoRelease source() const;
	// Draws what the canvas shows at its own size; the host's graphics thread, in its
	// graphics context.
	void render();

private:
	bool build();

	uint32_t width_ = 0;
	uint32_t height_ = 0;
	uint32_t fps_num_ = 0;
	uint32_t fps_den_ = 0;
	std::atomic<uint64_t> generation_{0};
#if LIBOBS_API_MAJOR_VER >= 31
	static OBSCanvasAutoRelease make_canvas(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den);
	void take(OBSCanvasAutoRelease canvas);
	static void on_canvas_reset(void *data, calldata_t *);
	// Swapped under the lock; the render thread takes its own reference under it.
	mutable std::mutex canvas_mutex_;
	OBSCanvasAutoRelease canvas_;
	OBSSignal reset_signal_;
#else
	OBSView view_;
	video_t *video_ = nullptr;
#endif
};

} // namespace cv

#pragma once

// The vertical canvas's picture in the host's renderer: a video mix of its own size and
// rate that shows one source (the active vertical scene), and the output of that mix that
// encoders listen to.
//
// Every reset of the host's video (Settings → Video, a profile switch, a websocket
// client's SetVideoSettings) frees every mix the host has, this one included, and makes
// none again. So the mix belongs to a view of the canvas's own, which stays (the preview
// draws it), and is made anew just before encoders are made on it, and let go of once
// none uses it.
//
// The view and its size belong to the UI thread; the mix is made and let go of on the
// output's job thread, while the UI thread changes nothing (no resize, no close).

#include <obs.hpp>

#include <atomic>
#include <cstdint>

namespace cv {

class CanvasVideo {
public:
	CanvasVideo();
	~CanvasVideo();
	CanvasVideo(const CanvasVideo &) = delete;
	CanvasVideo &operator=(const CanvasVideo &) = delete;

	// Size and rate as given; colour format, space and range as the host has them when
	// the mix is made. False without host video.
	bool open(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den);
	// Another size or rate for the next mix, showing the same; only while no encoder
	// listens to video().
	void resize(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den);
	void close();
	bool is_open() const;

	// The mix's video output, null when there is none. A reset of the host's video may
	// have freed it since it was made: only what is current is read of it.
	video_t *video() const;
	// The video output to make encoders on: its mix made anew. Only while no encoder uses
	// the canvas; the job thread.
	video_t *fresh_video();
	// Lets go of the mix; only while no encoder uses it.
	void drop_video();
	// Counts the mixes made and let go of: encoders made on an older one are not joined.
	uint64_t generation() const { return generation_.load(); }

	// What the canvas shows; null shows nothing.
	void set_source(obs_source_t *source);
	OBSSourceAutoRelease source() const;
	// Draws what the canvas shows at its own size; the host's graphics thread, in its
	// graphics context.
	void render();

private:
	uint32_t width_ = 0;
	uint32_t height_ = 0;
	uint32_t fps_num_ = 0;
	uint32_t fps_den_ = 0;
	std::atomic<uint64_t> generation_{0};
	OBSView view_;
	std::atomic<video_t *> video_{nullptr};
};

} // namespace cv

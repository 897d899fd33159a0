#include "canvas_video.h"

#include "base/log.h"

namespace cv {

namespace {

// The mix's settings: the host's own but for size and rate. Base and output size are
// equal, so nothing is scaled.
bool mix_info(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den, obs_video_info *ovi)
{
	if (!obs_get_video_info(ovi))
		return false;
	ovi->base_width = ovi->output_width = width;
	ovi->base_height = ovi->output_height = height;
	ovi->fps_num = fps_num;
	ovi->fps_den = fps_den;
	return true;
}

} // namespace

// The host frees the view's mix at a reset and makes none again, and nothing tells when.
// So the mix is made only when encoders are to be made on it, and made anew each time:
// a reset is refused while any encoder uses a mix, so an encoder never finds its mix
// gone. With no encoder, there is no mix either, and the host renders none for nothing.

CanvasVideo::CanvasVideo() = default;

CanvasVideo::~CanvasVideo()
{
	close();
}

bool CanvasVideo::open(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den)
{
	close();
	obs_video_info ovi = {};
	if (!mix_info(width, height, fps_num, fps_den, &ovi))
		return false;
	resize(width, height, fps_num, fps_den);
	view_ = obs_view_create();
	return view_ != nullptr;
}

// Only the size the next mix is made at: the view stays, so the preview goes on drawing it.
void CanvasVideo::resize(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den)
{
	drop_video();
	width_ = width;
	height_ = height;
	fps_num_ = fps_num;
	fps_den_ = fps_den;
}

void CanvasVideo::close()
{
	if (!view_)
		return;
	obs_view_set_source(view_, 0, nullptr);
	drop_video();
	view_ = nullptr;
}

bool CanvasVideo::is_open() const
{
	return view_ != nullptr;
}

video_t *CanvasVideo::video() const
{
	return video_.load();
}

video_t *CanvasVideo::fresh_video()
{
	obs_video_info ovi = {};
	if (!view_ || !mix_info(width_, height_, fps_num_, fps_den_, &ovi))
		return nullptr;
	// The host's render thread frees the old mix at its next frame.
	obs_view_remove(view_);
	video_ = obs_view_add2(view_, &ovi);
	generation_++;
	if (!video_)
		log_error("The vertical canvas's video could not be made at %ux%u", width_, height_);
	return video_;
}

void CanvasVideo::drop_video()
{
	if (view_ && video_.exchange(nullptr)) {
		obs_view_remove(view_);
		generation_++;
	}
}

OBSSourceAutoRelease CanvasVideo::source() const
{
	return view_ ? obs_view_get_source(view_, 0) : nullptr;
}

void CanvasVideo::set_source(obs_source_t *source)
{
	if (view_)
		obs_view_set_source(view_, 0, source);
}

void CanvasVideo::render()
{
	if (view_)
		obs_view_render(view_);
}

} // namespace cv

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
// So the mix is made anew whenever encoders are to be made on it and none uses the old
// one: a reset is refused while any encoder uses a mix, so an encoder never finds its mix
// gone.

CanvasVideo::CanvasVideo() = default;

CanvasVideo::~CanvasVideo()
{
	close();
}

bool CanvasVideo::open(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den)
{
	close();
	width_ = width;
	height_ = height;
	fps_num_ = fps_num;
	fps_den_ = fps_den;
	view_ = obs_view_create();
	if (!view_ || !build()) {
		view_ = nullptr;
		return false;
	}
	return true;
}

// The same view, so the preview may go on drawing it meanwhile.
bool CanvasVideo::resize(uint32_t width, uint32_t height, uint32_t fps_num, uint32_t fps_den)
{
	if (!view_)
		return open(width, height, fps_num, fps_den);
	const uint32_t old[] = {width_, height_, fps_num_, fps_den_};
	width_ = width;
	height_ = height;
	fps_num_ = fps_num;
	fps_den_ = fps_den;
	if (build())
		return true;
	width_ = old[0];
	height_ = old[1];
	fps_num_ = old[2];
	fps_den_ = old[3];
	build();
	return false;
}

void CanvasVideo::close()
{
	if (!view_)
		return;
	obs_view_set_source(view_, 0, nullptr);
	obs_view_remove(view_);
	view_ = nullptr;
	video_ = nullptr;
}

bool CanvasVideo::is_open() const
{
	return view_ != nullptr;
}

// The host's render thread frees the old mix at its next frame.
bool CanvasVideo::build()
{
	obs_video_info ovi = {};
	if (!mix_info(width_, height_, fps_num_, fps_den_, &ovi))
		return false;
	obs_view_remove(view_);
	video_ = obs_view_add2(view_, &ovi);
	generation_++;
	return video_ != nullptr;
}

video_t *CanvasVideo::video()
{
	return video_;
}

video_t *CanvasVideo::fresh_video()
{
	if (view_ && !build())
		log_error("The vertical canvas's video could not be made again");
	return video_;
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

#include "vertical_canvas.h"

#include "core/plugin_log.h"

namespace cv {

namespace {

void clear_mixer_bit(obs_source_t *source)
{
	const uint32_t mixers = obs_source_get_audio_mixers(source);
	if (mixers & kActiveSceneMixerBit)
		obs_source_set_audio_mixers(source, mixers & ~kActiveSceneMixerBit);
}

void set_mixer_bit(obs_source_t *source)
{
	const uint32_t mixers = obs_source_get_audio_mixers(source);
	if (!(mixers & kActiveSceneMixerBit))
		obs_source_set_audio_mixers(source, mixers | kActiveSceneMixerBit);
}

} // namespace

VerticalCanvas::VerticalCanvas(const CanvasConfig &config)
	: width_(config.width),
	  height_(config.height),
	  fps_num_(config.fps_num),
	  fps_den_(config.fps_den),
	  use_active_scene_audio_(config.use_active_scene_audio)
{
}

VerticalCanvas::~VerticalCanvas()
{
	std::lock_guard lock(mutex_);
	if (initialised_)
		teardown();
	scenes_.clear();
}

bool VerticalCanvas::init()
{
	std::lock_guard lock(mutex_);

	if (initialised_) {
		blog(LOG_WARNING, "[%s] VerticalCanvas already initialised", kLogTag);
		return true;
	}

	const std::string problem = canvas_format_problem(width_, height_, fps_num_, fps_den_);
	if (!problem.empty()) {
		blog(LOG_ERROR, "[%s] Invalid canvas format %ux%u @ %u/%u fps — %s", kLogTag, width_, height_, fps_num_,
		     fps_den_, problem.c_str());
		return false;
	}

	obs_video_info ovi = {};
	if (!obs_get_video_info(&ovi)) {
		blog(LOG_ERROR, "[%s] obs_get_video_info failed — OBS not ready", kLogTag);
		return false;
	}

	if (use_active_scene_audio_)
		apply_active_audio();

	// Only size and rate differ from the host; format, colour space, range and scaling
	// stay as the host has them. Base and output size are equal: no rescale.
	ovi.base_width = ovi.output_width = width_;
	ovi.base_height = ovi.output_height = height_;
	ovi.fps_num = fps_num_;
	ovi.fps_den = fps_den_;
	video_info_ = ovi;

	view_ = obs_view_create();
	if (!view_) {
		blog(LOG_ERROR, "[%s] obs_view_create() failed", kLogTag);
		return false;
	}

	video_ = obs_view_add2(view_, &video_info_);
	if (!video_) {
		blog(LOG_ERROR, "[%s] obs_view_add2() failed", kLogTag);
		view_ = nullptr;
		return false;
	}

	audio_ = obs_get_audio();

	if (!create_scene_unlocked("Scene 1"))
		blog(LOG_WARNING, "[%s] Failed to create default scene", kLogTag);

	initialised_ = true;
	blog(LOG_INFO, "[%s] Canvas initialised: %ux%u @ %u/%u fps", kLogTag, width_, height_, fps_num_, fps_den_);
	return true;
}

void VerticalCanvas::shutdown()
{
	std::lock_guard lock(mutex_);
	if (initialised_)
		teardown();
}

void VerticalCanvas::teardown()
{
	// Take the active scene off the view before anything it shows is released.
	obs_view_set_source(view_, 0, nullptr);
	clear_active_audio();

	for (VerticalScene &entry : scenes_) {
		release_assignment(entry);
		entry.scene = nullptr;
	}
	scenes_.clear();
	active_index_ = -1;

	if (view_) {
		obs_view_remove(view_);
		view_ = nullptr;
	}
	audio_ = nullptr;
	video_ = nullptr;
	initialised_ = false;
	blog(LOG_INFO, "[%s] Canvas shut down", kLogTag);
}

bool VerticalCanvas::create_scene(const std::string &name)
{
	std::lock_guard lock(mutex_);
	return create_scene_unlocked(name);
}

bool VerticalCanvas::create_scene_unlocked(const std::string &name)
{
	for (const VerticalScene &entry : scenes_) {
		if (entry.name == name) {
			blog(LOG_WARNING, "[%s] Scene already exists: %s", kLogTag, name.c_str());
			return false;
		}
	}

	OBSSceneAutoRelease scene = obs_scene_create_private(name.c_str());
	if (!scene) {
		blog(LOG_ERROR, "[%s] obs_scene_create_private failed for: %s", kLogTag, name.c_str());
		return false;
	}

	scenes_.push_back(VerticalScene{name, {}, std::move(scene), nullptr});
	if (active_index_ < 0) {
		active_index_ = int32_t(scenes_.size() - 1);
		show_on_view(&scenes_.back());
	}
	blog(LOG_INFO, "[%s] Scene created (private): %s", kLogTag, name.c_str());
	return true;
}

std::vector<std::string> VerticalCanvas::scene_names()
{
	std::lock_guard lock(mutex_);
	std::vector<std::string> names;
	names.reserve(scenes_.size());
	for (const VerticalScene &entry : scenes_)
		names.push_back(entry.name);
	return names;
}

std::string VerticalCanvas::active_scene_name()
{
	std::lock_guard lock(mutex_);
	if (active_index_ >= 0 && size_t(active_index_) < scenes_.size())
		return scenes_[size_t(active_index_)].name;
	return {};
}

obs_source_t *VerticalCanvas::active_source() const
{
	const int32_t index = active_index_;
	if (index >= 0 && size_t(index) < scenes_.size())
		return scenes_[size_t(index)].source;
	return nullptr;
}

void VerticalCanvas::show_on_view(const VerticalScene *entry)
{
	obs_view_set_source(view_, 0, entry ? obs_scene_get_source(entry->scene) : nullptr);
}

void VerticalCanvas::release_assignment(VerticalScene &entry)
{
	if (!entry.source)
		return;
	// The marker comes off whatever the option says, so the host's mixers are as the
	// user left them once the source is no longer on the canvas.
	clear_mixer_bit(entry.source);
	obs_source_dec_showing(entry.source);
	entry.source = nullptr;
}

void VerticalCanvas::clear_active_audio()
{
	if (!use_active_scene_audio_)
		return;
	for (const VerticalScene &entry : scenes_) {
		if (entry.source)
			clear_mixer_bit(entry.source);
	}
}

void VerticalCanvas::apply_active_audio()
{
	if (!use_active_scene_audio_)
		return;
	clear_active_audio();
	if (active_index_ >= 0 && size_t(active_index_) < scenes_.size()) {
		obs_source_t *source = scenes_[size_t(active_index_)].source;
		if (source)
			set_mixer_bit(source);
	}
}

} // namespace cv

#include "vertical_canvas.h"

#include "base/canvas_format.h"
#include "base/log.h"
#include "base/placement.h"
#include "scene_audio.h"

namespace cv {

VerticalCanvas::VerticalCanvas(const CanvasConfig &config)
	: width_(config.width),
	  height_(config.height),
	  fps_num_(config.fps_num),
	  fps_den_(config.fps_den),
	  use_active_scene_audio_(config.use_active_scene_audio),
	  audio_track_(config.audio_track)
{
}

VerticalCanvas::~VerticalCanvas()
{
	if (initialised_)
		teardown();
	scenes_.clear();
}

bool VerticalCanvas::init()
{

	if (initialised_) {
		log_warning("VerticalCanvas already initialised");
		return true;
	}

	const std::string problem = canvas_format_problem(width_, height_, fps_num_, fps_den_);
	if (!problem.empty()) {
		log_error("Invalid canvas format %ux%u @ %u/%u fps — %s", width_, height_, fps_num_, fps_den_,
			  problem.c_str());
		return false;
	}

	obs_video_info ovi = {};
	if (!obs_get_video_info(&ovi)) {
		log_error("obs_get_video_info failed — OBS not ready");
		return false;
	}

	if (use_active_scene_audio_) {
		scene_audio_ = std::make_unique<SceneAudio>(audio_track_);
		if (!scene_audio_->init()) {
			log_error("The vertical audio cannot follow the active scene — it is the whole track %u",
				  audio_track_ + 1);
			scene_audio_.reset();
		}
	}

	// Only size and rate differ from the host; format, colour space, range and scaling
	// stay as the host has them. Base and output size are equal: no rescale.
	ovi.base_width = ovi.output_width = width_;
	ovi.base_height = ovi.output_height = height_;
	ovi.fps_num = fps_num_;
	ovi.fps_den = fps_den_;
	video_info_ = ovi;

	view_ = obs_view_create();
	if (!view_) {
		log_error("obs_view_create() failed");
		return false;
	}

	video_ = obs_view_add2(view_, &video_info_);
	if (!video_) {
		log_error("obs_view_add2() failed");
		view_ = nullptr;
		return false;
	}

	if (!create_scene("Scene 1"))
		log_warning("Failed to create default scene");

	initialised_ = true;
	log_info("Canvas initialised: %ux%u @ %u/%u fps", width_, height_, fps_num_, fps_den_);
	return true;
}

void VerticalCanvas::shutdown()
{
	if (initialised_)
		teardown();
}

void VerticalCanvas::teardown()
{
	// Take the active scene off the view before anything it shows is released.
	obs_view_set_source(view_, 0, nullptr);
	scene_audio_.reset();

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
	video_ = nullptr;
	initialised_ = false;
	log_debug("Canvas shut down");
}

bool VerticalCanvas::create_scene(const std::string &name)
{
	if (find_scene(name)) {
		log_warning("Scene already exists: %s", name.c_str());
		return false;
	}

	OBSSceneAutoRelease scene = obs_scene_create_private(name.c_str());
	if (!scene) {
		log_error("obs_scene_create_private failed for: %s", name.c_str());
		return false;
	}

	scenes_.push_back(VerticalScene{name, {}, std::move(scene), nullptr});
	if (active_index_ < 0) {
		active_index_ = int32_t(scenes_.size() - 1);
		show_on_view(&scenes_.back());
	}
	log_info("Scene created (private): %s", name.c_str());
	return true;
}

bool VerticalCanvas::remove_scene(const std::string &name)
{

	const int32_t index = find_index(name);
	if (index < 0) {
		log_warning("remove_scene — not found: %s", name.c_str());
		return false;
	}

	if (index == active_index_) {
		show_on_view(nullptr);
		active_index_ = -1;
	}

	VerticalScene &entry = scenes_[size_t(index)];
	release_assignment(entry);
	entry.scene = nullptr;
	scenes_.erase(scenes_.begin() + index);

	if (active_index_ > index)
		active_index_--;
	// Removing the active scene activates the first one left, not a neighbour.
	if (active_index_ < 0 && !scenes_.empty()) {
		active_index_ = 0;
		show_on_view(&scenes_.front());
	}
	apply_active_audio();

	log_info("Scene removed: %s", name.c_str());
	return true;
}

bool VerticalCanvas::rename_scene(const std::string &old_name, const std::string &new_name)
{

	if (old_name == new_name)
		return true;
	if (find_scene(new_name)) {
		log_warning("rename_scene — name already in use: %s", new_name.c_str());
		return false;
	}
	VerticalScene *entry = find_scene(old_name);
	if (!entry) {
		log_warning("rename_scene — not found: %s", old_name.c_str());
		return false;
	}

	rename_private_scene(*entry, new_name);
	entry->name = new_name;
	log_info("Scene renamed: %s -> %s", old_name.c_str(), new_name.c_str());
	return true;
}

bool VerticalCanvas::set_active_scene(const std::string &name)
{

	const int32_t index = find_index(name);
	if (index < 0) {
		log_warning("set_active_scene — not found: %s", name.c_str());
		return false;
	}
	if (index == active_index_)
		return true;

	active_index_ = index;
	show_on_view(&scenes_[size_t(index)]);
	apply_active_audio();
	log_info("Active scene: %s", name.c_str());
	return true;
}

bool VerticalCanvas::assign_scene_source(const std::string &scene_name, const std::string &source_name)
{

	VerticalScene *entry = find_scene(scene_name);
	if (!entry) {
		log_warning("assign_scene_source — scene not found: %s", scene_name.c_str());
		return false;
	}

	release_assignment(*entry);
	entry->source_name.clear();

	if (source_name.empty()) {
		place_source(*entry, nullptr);
		apply_active_audio();
		log_info("Scene '%s': source cleared", scene_name.c_str());
		return true;
	}

	OBSSourceAutoRelease source = obs_get_source_by_name(source_name.c_str());
	// The name is kept either way, so a later re-apply can find a source that does not
	// exist yet.
	entry->source_name = source_name;
	if (!source) {
		apply_active_audio();
		// The old picture stays in the private scene on purpose.
		log_warning("assign_scene_source — OBS source not found: %s", source_name.c_str());
		return false;
	}

	place_source(*entry, source);
	obs_source_inc_showing(source);
	entry->source = std::move(source);
	apply_active_audio();
	log_info("Scene '%s': source assigned → '%s'", scene_name.c_str(), source_name.c_str());
	return true;
}

std::vector<std::string> VerticalCanvas::scene_names() const
{
	std::vector<std::string> names;
	names.reserve(scenes_.size());
	for (const VerticalScene &entry : scenes_)
		names.push_back(entry.name);
	return names;
}

std::string VerticalCanvas::active_scene_name() const
{
	if (active_index_ >= 0 && size_t(active_index_) < scenes_.size())
		return scenes_[size_t(active_index_)].name;
	return {};
}

std::string VerticalCanvas::scene_source_name(const std::string &scene_name) const
{
	const VerticalScene *entry = find_scene(scene_name);
	return entry ? entry->source_name : std::string();
}

SceneList VerticalCanvas::scene_list() const
{
	SceneList list;
	for (const VerticalScene &entry : scenes_)
		list.scenes.push_back({entry.name, entry.source_name});
	list.active = active_scene_name();
	return list;
}

void VerticalCanvas::restore(const SceneList &list)
{
	if (list.scenes.empty()) {
		log_info("No saved scenes — keeping default Scene 1");
		return;
	}
	remove_scene("Scene 1");
	for (const SceneEntry &entry : list.scenes) {
		// A name that exists already is refused here; its source is still assigned.
		create_scene(entry.name);
		if (!entry.source.empty())
			assign_scene_source(entry.name, entry.source);
	}
	if (!list.active.empty())
		set_active_scene(list.active);
	log_info("Restored %zu scene(s), active: %s", list.scenes.size(),
		 list.active.empty() ? "(none)" : list.active.c_str());
}

void VerticalCanvas::reassign_sources()
{
	for (size_t i = 0; i < scenes_.size(); i++) {
		// Copies: the assignment changes the entry.
		const std::string name = scenes_[i].name;
		const std::string source = scenes_[i].source_name;
		if (source.empty())
			continue;
		log_debug("Re-applying source '%s' → scene '%s'", source.c_str(), name.c_str());
		assign_scene_source(name, source);
	}
}

VerticalScene *VerticalCanvas::find_scene(const std::string &name)
{
	const int32_t index = find_index(name);
	return index < 0 ? nullptr : &scenes_[size_t(index)];
}

const VerticalScene *VerticalCanvas::find_scene(const std::string &name) const
{
	const int32_t index = find_index(name);
	return index < 0 ? nullptr : &scenes_[size_t(index)];
}

int32_t VerticalCanvas::find_index(const std::string &name) const
{
	const auto count = int32_t(scenes_.size());
	for (int32_t i = 0; i < count; i++) {
		if (scenes_[size_t(i)].name == name)
			return i;
	}
	return -1;
}

void VerticalCanvas::rename_private_scene(VerticalScene &entry, const std::string &new_name)
{
	obs_source_t *source = obs_scene_get_source(entry.scene);
	obs_source_set_name(source, new_name.c_str());
	if (new_name == obs_source_get_name(source))
		return;

	// Newer hosts ignore a new name for a private source; a duplicate made under the
	// new name, showing the same items, takes the old scene's place instead.
	OBSSceneAutoRelease renamed = obs_scene_duplicate(entry.scene, new_name.c_str(), OBS_SCENE_DUP_PRIVATE_REFS);
	if (!renamed)
		return;
	const bool shown = active_index_ >= 0 && &scenes_[size_t(active_index_)] == &entry;
	entry.scene = std::move(renamed);
	if (shown)
		show_on_view(&entry);
}

void VerticalCanvas::place_source(VerticalScene &entry, obs_source_t *source)
{
	if (!entry.scene)
		return;

	// The old items are removed after the enumeration, not inside it: the last release
	// of an item enters the graphics context, and the enumeration holds the scene's
	// lock, which the graphics thread takes while it renders the scene with the
	// context held. Doing both at once deadlocks the two threads.
	std::vector<OBSSceneItem> old_items;
	obs_scene_enum_items(
		entry.scene,
		[](obs_scene_t *, obs_sceneitem_t *item, void *param) {
			static_cast<std::vector<OBSSceneItem> *>(param)->emplace_back(item);
			return true;
		},
		&old_items);
	for (obs_sceneitem_t *item : old_items)
		obs_sceneitem_remove(item);
	old_items.clear();
	if (!source)
		return;

	obs_sceneitem_t *item = obs_scene_add(entry.scene, source);
	if (!item) {
		log_warning("obs_scene_add failed for source: %s", obs_source_get_name(source));
		return;
	}

	const uint32_t sw = obs_source_get_width(source);
	const uint32_t sh = obs_source_get_height(source);
	const CoverPlacement placement = cover_placement(width_, height_, sw, sh);

	obs_transform_info info = {};
	vec2_set(&info.pos, placement.x, placement.y);
	info.rot = 0.0f;
	vec2_set(&info.scale, placement.scale, placement.scale);
	info.alignment = OBS_ALIGN_LEFT | OBS_ALIGN_TOP;
	info.bounds_type = OBS_BOUNDS_NONE;
	info.bounds_alignment = 0;
	vec2_zero(&info.bounds);
#if LIBOBS_API_MAJOR_VER >= 30
	info.crop_to_bounds = false;
	obs_sceneitem_set_info2(item, &info);
#else
	obs_sceneitem_set_info(item, &info);
#endif

	log_debug("Source '%s' placed: src=%ux%u scale=%.4f pos=(%.1f,%.1f)", obs_source_get_name(source), sw, sh,
		  placement.scale, placement.x, placement.y);
}

void VerticalCanvas::show_on_view(const VerticalScene *entry)
{
	obs_view_set_source(view_, 0, entry ? obs_scene_get_source(entry->scene) : nullptr);
}

void VerticalCanvas::release_assignment(VerticalScene &entry)
{
	if (!entry.source)
		return;
	obs_source_dec_showing(entry.source);
	entry.source = nullptr;
}

audio_t *VerticalCanvas::audio() const
{
	return scene_audio_ ? scene_audio_->audio() : obs_get_audio();
}

size_t VerticalCanvas::audio_mix() const
{
	return scene_audio_ ? 0 : audio_track_;
}

void VerticalCanvas::rejoin_audio()
{
	if (scene_audio_)
		scene_audio_->rejoin();
}

void VerticalCanvas::apply_active_audio()
{
	if (!scene_audio_)
		return;
	const bool has_active = active_index_ >= 0 && size_t(active_index_) < scenes_.size();
	scene_audio_->set_source(has_active ? scenes_[size_t(active_index_)].source.Get() : nullptr);
}

} // namespace cv

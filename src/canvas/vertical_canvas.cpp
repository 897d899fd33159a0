#include "vertical_canvas.h"

#include "base/canvas_format.h"
#include "base/log.h"
#include "base/placement.h"
#include "scene_audio.h"

namespace cv {

namespace {

constexpr const char *kDefaultScene = "Scene 1";

// Weak references to one source are one object.
bool shows(const VerticalScene &entry, obs_weak_source_t *source)
{
	return source && entry.host.Get() == source;
}

} // namespace

VerticalCanvas::VerticalCanvas(const CanvasConfig &config)
	: config_(config),
	  width_(config.width),
	  height_(config.height),
	  fps_num_(config.fps_num),
	  fps_den_(config.fps_den)
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
		log_error("Invalid canvas format %ux%u @ %u/%u fps — %s", width_.load(), height_.load(), fps_num_,
			  fps_den_, problem.c_str());
		return false;
	}
	obs_video_info host = {};
	if (!obs_get_video_info(&host)) {
		log_error("obs_get_video_info failed — OBS not ready");
		return false;
	}
	if (!video_.open(width_, height_, fps_num_, fps_den_)) {
		log_error("The vertical canvas's video could not be made");
		return false;
	}
	open_audio();

	if (!create_scene(kDefaultScene))
		log_warning("Failed to create default scene");

	initialised_ = true;
	log_info("Canvas initialised: %ux%u @ %u/%u fps", width_.load(), height_.load(), fps_num_, fps_den_);
	return true;
}

bool VerticalCanvas::open_audio()
{
	scene_audio_.reset();
	audio_generation_++;
	if (!config_.use_active_scene_audio)
		return true;
	scene_audio_ = std::make_unique<SceneAudio>(config_.audio_track);
	if (scene_audio_->init())
		return true;
	log_error("The vertical audio cannot follow the active scene — it is the whole track %u",
		  config_.audio_track + 1);
	scene_audio_.reset();
	return false;
}

void VerticalCanvas::shutdown()
{
	if (initialised_)
		teardown();
}

void VerticalCanvas::teardown()
{
	// Off the canvas before anything it shows is released.
	show_on_canvas(nullptr);
	scene_audio_.reset();
	for (VerticalScene &entry : scenes_)
		release_assignment(entry);
	scenes_.clear();
	active_index_ = -1;
	video_.close();
	initialised_ = false;
	log_debug("Canvas shut down");
}

bool VerticalCanvas::reconfigure(const CanvasConfig &config)
{
	const std::string problem = canvas_format_problem(config.width, config.height, config.fps_num, config.fps_den);
	if (!problem.empty()) {
		log_error("Invalid canvas format %ux%u @ %u/%u fps — %s", config.width, config.height, config.fps_num,
			  config.fps_den, problem.c_str());
		return false;
	}
	const bool format_changed = config.width != width_ || config.height != height_ || config.fps_num != fps_num_ ||
				    config.fps_den != fps_den_;
	const bool audio_changed = config.use_active_scene_audio != config_.use_active_scene_audio ||
				   config.audio_track != config_.audio_track;
	if (format_changed && initialised_)
		video_.resize(config.width, config.height, config.fps_num, config.fps_den);
	config_ = config;
	width_ = config.width;
	height_ = config.height;
	fps_num_ = config.fps_num;
	fps_den_ = config.fps_den;
	if (format_changed)
		replace_placements();
	if (audio_changed && initialised_) {
		open_audio();
		apply_active_audio();
	}
	if (format_changed || audio_changed)
		log_info("Canvas now %ux%u @ %u/%u fps, audio %s track %u", config.width, config.height, config.fps_num,
			 config.fps_den, config.use_active_scene_audio ? "of the active scene on" : "of the whole",
			 config.audio_track + 1);
	return true;
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
		show_on_canvas(&scenes_.back());
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
		show_on_canvas(nullptr);
		active_index_ = -1;
	}

	release_assignment(scenes_[size_t(index)]);
	scenes_.erase(scenes_.begin() + index);

	if (active_index_ > index)
		active_index_--;
	// Removing the active scene activates the first one left, not a neighbour.
	if (active_index_ < 0 && !scenes_.empty()) {
		active_index_ = 0;
		show_on_canvas(&scenes_.front());
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
	show_on_canvas(&scenes_[size_t(index)]);
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

	OBSSourceAutoRelease source = source_name.empty() ? nullptr : obs_get_source_by_name(source_name.c_str());
	if (!source_name.empty() && !source) {
		// The name is kept, so that a scene made later under it is found. The old picture
		// stays on purpose; the host prunes it if its scene goes.
		entry->host = nullptr;
		entry->source_name = source_name;
		apply_active_audio();
		log_warning("assign_scene_source — OBS source not found: %s", source_name.c_str());
		return false;
	}

	release_assignment(*entry);
	place_source(*entry, source);
	entry->source_name = source_name;
	entry->host = source ? obs_source_get_weak_source(source) : nullptr;
	apply_active_audio();
	if (source)
		log_info("Scene '%s': source assigned → '%s'", scene_name.c_str(), source_name.c_str());
	else
		log_info("Scene '%s': source cleared", scene_name.c_str());
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

void VerticalCanvas::replace_scenes(const SceneList &list)
{
	clear_scenes();
	if (list.scenes.empty())
		create_scene(kDefaultScene);
	for (const SceneEntry &entry : list.scenes) {
		// A name that exists already is refused here; its source is still assigned.
		create_scene(entry.name);
		if (!entry.source.empty())
			assign_scene_source(entry.name, entry.source);
	}
	if (!list.active.empty())
		set_active_scene(list.active);
	log_info("Restored %zu scene(s), active: %s", scenes_.size(), active_scene_name().c_str());
}

void VerticalCanvas::clear_scenes()
{
	show_on_canvas(nullptr);
	active_index_ = -1;
	for (VerticalScene &entry : scenes_)
		release_assignment(entry);
	scenes_.clear();
	apply_active_audio();
}

void VerticalCanvas::resolve_pending()
{
	for (size_t i = 0; i < scenes_.size(); i++) {
		if (scenes_[i].host || scenes_[i].source_name.empty())
			continue;
		// Copies: the assignment changes the entry.
		const std::string name = scenes_[i].name;
		const std::string source = scenes_[i].source_name;
		OBSSourceAutoRelease found = obs_get_source_by_name(source.c_str());
		if (found)
			assign_scene_source(name, source);
	}
}

bool VerticalCanvas::host_source_renamed(obs_weak_source_t *source, const std::string &new_name)
{
	bool any = false;
	for (VerticalScene &entry : scenes_) {
		if (!shows(entry, source) || entry.source_name == new_name)
			continue;
		log_info("Scene '%s' shows '%s', now named '%s'", entry.name.c_str(), entry.source_name.c_str(),
			 new_name.c_str());
		entry.source_name = new_name;
		any = true;
	}
	return any;
}

bool VerticalCanvas::host_source_removed(obs_weak_source_t *source)
{
	bool any = false;
	for (VerticalScene &entry : scenes_) {
		if (!shows(entry, source))
			continue;
		log_info("Scene '%s': its OBS scene '%s' was removed", entry.name.c_str(), entry.source_name.c_str());
		release_assignment(entry);
		entry.source_name.clear();
		any = true;
	}
	if (any)
		apply_active_audio();
	return any;
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

VerticalScene *VerticalCanvas::active_entry()
{
	return active_index_ >= 0 && size_t(active_index_) < scenes_.size() ? &scenes_[size_t(active_index_)] : nullptr;
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
	const bool shown = active_entry() == &entry;
	entry.scene = std::move(renamed);
	if (shown)
		show_on_canvas(&entry);
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

// Every assigned host scene placed again, to cover a canvas of another size.
void VerticalCanvas::replace_placements()
{
	for (VerticalScene &entry : scenes_) {
		OBSSourceAutoRelease source = entry.host ? obs_weak_source_get_source(entry.host) : nullptr;
		if (source)
			place_source(entry, source);
	}
}

void VerticalCanvas::show_on_canvas(const VerticalScene *entry)
{
	video_.set_source(entry ? obs_scene_get_source(entry->scene) : nullptr);
}

void VerticalCanvas::release_assignment(VerticalScene &entry)
{
	place_source(entry, nullptr);
	entry.host = nullptr;
}

audio_t *VerticalCanvas::audio() const
{
	return scene_audio_ ? scene_audio_->audio() : obs_get_audio();
}

size_t VerticalCanvas::audio_mix() const
{
	return scene_audio_ ? 0 : config_.audio_track;
}

std::shared_ptr<const void> VerticalCanvas::keep_audio_open() const
{
	return scene_audio_ ? scene_audio_->keep_open() : nullptr;
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
	VerticalScene *entry = active_entry();
	OBSSourceAutoRelease source = entry && entry->host ? obs_weak_source_get_source(entry->host) : nullptr;
	scene_audio_->set_source(source);
}

} // namespace cv

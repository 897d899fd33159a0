#include "vertical_canvas.h"

#include "backdrop.h"

#include "base/canvas_format.h"
#include "base/log.h"
#include "base/placement.h"
#include "scene_audio.h"

#include <array>

namespace cv {

namespace {

constexpr const char *kDefaultScene = "Scene 1";

// Weak references to one source are one object.
bool shows(const VerticalScene &entry, obs_weak_source_t *source)
{
	return source && entry.host.Get() == source;
}

// One scene item a layout asks for: its source, where it goes and what of it is cut off.
struct Piece {
	obs_source_t *source = nullptr;
	float x = 0.0f, y = 0.0f, scale_x = 1.0f, scale_y = 1.0f;
	obs_sceneitem_crop crop = {};
};

Piece placed(obs_source_t *source, const CoverPlacement &placement)
{
	Piece piece;
	piece.source = source;
	piece.x = placement.x;
	piece.y = placement.y;
	piece.scale_x = piece.scale_y = placement.scale;
	return piece;
}

Piece cropped(obs_source_t *source, const RegionPlacement &at)
{
	Piece piece;
	piece.source = source;
	piece.x = at.x;
	piece.y = at.y;
	piece.scale_x = at.scale_x;
	piece.scale_y = at.scale_y;
	piece.crop = {int(at.crop_left), int(at.crop_top), int(at.crop_right), int(at.crop_bottom)};
	return piece;
}

void apply(obs_sceneitem_t *item, const Piece &piece)
{
	obs_transform_info info = {};
	vec2_set(&info.pos, piece.x, piece.y);
	info.rot = 0.0f;
	vec2_set(&info.scale, piece.scale_x, piece.scale_y);
	info.alignment = OBS_ALIGN_LEFT | OBS_ALIGN_TOP;
	info.bounds_type = OBS_BOUNDS_NONE;
	info.bounds_alignment = 0;
	vec2_zero(&info.bounds);
	obs_sceneitem_defer_update_begin(item);
#if LIBOBS_API_MAJOR_VER >= 30
	info.crop_to_bounds = false;
	obs_sceneitem_set_info2(item, &info);
#else
	obs_sceneitem_set_info(item, &info);
#endif
	obs_sceneitem_set_crop(item, &piece.crop);
	obs_sceneitem_defer_update_end(item);
}

// A private scene as large as the canvas (a scene is as large as the host's canvas
// otherwise), so that a transition draws it as it is. Loading the size empties the scene.
void size_scene(obs_scene_t *scene, uint32_t width, uint32_t height)
{
	OBSDataAutoRelease settings = obs_data_create();
	obs_data_set_bool(settings, "custom_size", true);
	obs_data_set_int(settings, "cx", width);
	obs_data_set_int(settings, "cy", height);
	obs_source_t *source = obs_scene_get_source(scene);
	obs_source_update(source, settings);
	obs_source_load(source);
}

std::vector<OBSSceneItem> items_of(obs_scene_t *scene)
{
	std::vector<OBSSceneItem> items;
	obs_scene_enum_items(
		scene,
		[](obs_scene_t *, obs_sceneitem_t *item, void *param) {
			static_cast<std::vector<OBSSceneItem> *>(param)->emplace_back(item);
			return true;
		},
		&items);
	return items;
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
	if (!make_transition(transition_settings_) && !make_transition({kCutTransition, 0}))
		log_warning("The host has no transitions: the vertical scenes change at once");
	video_.set_source(transition_);
	apply_active_audio();

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
	video_.set_source(nullptr);
	transition_ = nullptr;
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
	if (format_changed && transition_)
		obs_transition_set_size(transition_, width_, height_);
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

	size_scene(scene, width_, height_);
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

bool VerticalCanvas::set_active_scene(const std::string &name, bool cut)
{
	const int32_t index = find_index(name);
	if (index < 0) {
		log_warning("set_active_scene — not found: %s", name.c_str());
		return false;
	}
	if (index == active_index_)
		return true;

	active_index_ = index;
	obs_source_t *next = obs_scene_get_source(scenes_[size_t(index)].scene);
	const bool animated =
		!cut && transition_ && transition_settings_.kind != kCutTransition &&
		obs_transition_start(transition_, OBS_TRANSITION_MODE_AUTO, transition_settings_.duration_ms, next);
	if (!animated)
		show_on_canvas(&scenes_[size_t(index)]);
	// The audio goes over with the picture, as the host's own transitions take it.
	apply_active_audio(animated ? transition_settings_.duration_ms : 0);
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

	// Placed anew over what it showed before, which goes once the new picture is there.
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

std::optional<SceneLayout> VerticalCanvas::scene_layout(const std::string &scene_name) const
{
	const VerticalScene *entry = find_scene(scene_name);
	return entry ? std::optional<SceneLayout>(entry->layout) : std::nullopt;
}

bool VerticalCanvas::set_scene_layout(const std::string &scene_name, const SceneLayout &layout)
{
	VerticalScene *entry = find_scene(scene_name);
	if (!entry)
		return false;
	if (entry->layout == layout)
		return true;
	entry->layout = layout;
	OBSSourceAutoRelease source = entry->host ? obs_weak_source_get_source(entry->host) : nullptr;
	if (source)
		place_source(*entry, source);
	log_debug("Scene '%s': layout %s", scene_name.c_str(), layout_name(layout.kind));
	return true;
}

SourceSize VerticalCanvas::scene_source_size(const std::string &scene_name) const
{
	const VerticalScene *entry = find_scene(scene_name);
	OBSSourceAutoRelease source = entry && entry->host ? obs_weak_source_get_source(entry->host) : nullptr;
	return source ? SourceSize{obs_source_get_width(source), obs_source_get_height(source)} : SourceSize{};
}

std::string VerticalCanvas::scene_showing(obs_source_t *host_scene) const
{
	for (const VerticalScene &entry : scenes_)
		if (host_scene && entry.host && obs_weak_source_references_source(entry.host, host_scene))
			return entry.name;
	return {};
}

bool VerticalCanvas::make_transition(const TransitionSettings &transition)
{
	const char *id = transition.kind.c_str();
	bool known = false;
	const char *type = nullptr;
	for (size_t i = 0; !known && obs_enum_transition_types(i, &type); i++)
		known = transition.kind == type;
	if (!known)
		return false;
	OBSSourceAutoRelease made = obs_source_create_private(id, "cv_vertical_transition", nullptr);
	if (!made)
		return false;
	// The scenes are as large as the canvas: drawn as they are. The new transition takes
	// over what the old one shows (where it is going, if it is under way).
	obs_transition_set_scale_type(made, OBS_TRANSITION_SCALE_MAX_ONLY);
	transition_ready_ = false;
	OBSSourceAutoRelease showing = transition_ ? obs_transition_get_active_source(transition_) : nullptr;
	show_now(made, showing);
	if (transition_)
		video_.set_source(made);
	transition_ = std::move(made);
	transition_settings_ = transition;
	apply_active_audio();
	return true;
}

bool VerticalCanvas::set_transition(const TransitionSettings &transition)
{
	if (transition.kind == transition_settings_.kind && transition_) {
		transition_settings_.duration_ms = transition.duration_ms;
		return true;
	}
	if (!make_transition(transition)) {
		log_warning("The host has no transition type '%s'", transition.kind.c_str());
		return false;
	}
	log_info("Transition between vertical scenes: %s, %u ms", transition.kind.c_str(), transition.duration_ms);
	return true;
}

SceneList VerticalCanvas::scene_list() const
{
	SceneList list;
	for (const VerticalScene &entry : scenes_)
		list.scenes.push_back({entry.name, entry.source_name, entry.layout});
	list.active = active_scene_name();
	list.transition = transition_settings_;
	list.follow_main = follow_main_;
	return list;
}

void VerticalCanvas::replace_scenes(const SceneList &list)
{
	clear_scenes();
	if (!set_transition(list.transition))
		log_warning("Transition '%s' unknown to the host — keeping %s", list.transition.kind.c_str(),
			    transition_settings_.kind.c_str());
	follow_main_ = list.follow_main;
	if (list.scenes.empty())
		create_scene(kDefaultScene);
	for (const SceneEntry &entry : list.scenes) {
		// A name that exists already is refused here; its source is still assigned.
		create_scene(entry.name);
		set_scene_layout(entry.name, entry.layout);
		if (!entry.source.empty())
			assign_scene_source(entry.name, entry.source);
	}
	if (!list.active.empty())
		set_active_scene(list.active, true);
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
	size_scene(entry.scene, width_, height_);
	OBSSourceAutoRelease host = entry.host ? obs_weak_source_get_source(entry.host) : nullptr;
	place_source(entry, host);
	if (shown)
		show_on_canvas(&entry);
}

void VerticalCanvas::place_source(VerticalScene &entry, obs_source_t *source)
{
	if (!entry.scene)
		return;

	// The items the layout asks for, bottom first.
	std::vector<Piece> pieces;
	const SceneLayout &layout = entry.layout;
	const uint32_t sw = source ? obs_source_get_width(source) : 0;
	const uint32_t sh = source ? obs_source_get_height(source) : 0;
	if (source && layout.kind == LayoutKind::Cover) {
		// The host draws a scene inside a scene through a picture of it at its own size:
		// cut to what shows, that picture is no larger than the canvas.
		const CoverPlacement cover =
			focused_cover(width_, height_, sw, sh, layout.focus_x, layout.focus_y, layout.zoom);
		pieces.push_back(cropped(source, visible_part(width_, height_, sw, sh, cover)));
	} else if (source && layout.kind == LayoutKind::Fit) {
		if (!entry.backdrop)
			entry.backdrop = make_backdrop();
		const bool blur = layout.background == kBlurBackground;
		set_backdrop(entry.backdrop, source, blur, parse_colour(layout.background).value_or(0), width_,
			     height_);
		if (entry.backdrop) {
			// The backdrop draws the scene too, straight onto the canvas at its fitted
			// size rather than through a picture of it at full size. The scene's item
			// stays, one pixel of it and off the canvas, so that the scene is heard
			// and counts as showing, as in the other layouts.
			pieces.push_back(placed(entry.backdrop, CoverPlacement{1.0f, 0.0f, 0.0f}));
			RegionPlacement anchor;
			anchor.crop_left = sw > 0 ? sw - 1 : 0;
			anchor.crop_top = sh > 0 ? sh - 1 : 0;
			anchor.x = anchor.y = -4.0f;
			pieces.push_back(cropped(source, anchor));
		} else {
			pieces.push_back(placed(source, fit_placement(width_, height_, sw, sh)));
		}
	} else if (source) {
		const std::array<Part, 2> parts = stack_parts(width_, height_, layout.split);
		const Region regions[2] = {top_region(layout, sw, sh), bottom_region(layout, sw, sh)};
		for (size_t i = 0; i < parts.size(); i++)
			pieces.push_back(cropped(source, region_cover(sw, sh, regions[i], parts[i])));
	}
	entry.placed_width = sw;
	entry.placed_height = sh;
	if (entry.backdrop && (layout.kind != LayoutKind::Fit || !source))
		set_backdrop(entry.backdrop, nullptr, false, 0, width_, height_);

	// The same items as before are moved where they go. Otherwise the new ones are added
	// before the old ones go, so that no frame shows the scene empty.
	std::vector<OBSSceneItem> old_items = items_of(entry.scene);
	bool same = old_items.size() == pieces.size();
	for (size_t i = 0; same && i < pieces.size(); i++)
		same = obs_sceneitem_get_source(old_items[i]) == pieces[i].source;
	if (same) {
		for (size_t i = 0; i < pieces.size(); i++)
			apply(old_items[i], pieces[i]);
		return;
	}
	for (const Piece &piece : pieces) {
		obs_sceneitem_t *item = obs_scene_add(entry.scene, piece.source);
		if (!item) {
			log_warning("obs_scene_add failed for source: %s", obs_source_get_name(piece.source));
			continue;
		}
		apply(item, piece);
	}
	// Removed after the enumeration, not inside it: the last release of an item enters
	// the graphics context, and the enumeration holds the scene's lock, which the
	// graphics thread takes while it renders the scene with the context held. Doing both
	// at once deadlocks the two threads.
	for (obs_sceneitem_t *item : old_items)
		obs_sceneitem_remove(item);
	old_items.clear();
	if (source)
		log_debug("Source '%s' placed (%s): src=%ux%u", obs_source_get_name(source), layout_name(layout.kind),
			  sw, sh);
}

bool VerticalCanvas::follow_host_sizes()
{
	bool any = false;
	for (VerticalScene &entry : scenes_) {
		OBSSourceAutoRelease source = entry.host ? obs_weak_source_get_source(entry.host) : nullptr;
		if (!source || (obs_source_get_width(source) == entry.placed_width &&
				obs_source_get_height(source) == entry.placed_height))
			continue;
		place_source(entry, source);
		any = true;
	}
	return any;
}

// Every assigned host scene placed again, to cover a canvas of another size.
void VerticalCanvas::replace_placements()
{
	for (VerticalScene &entry : scenes_) {
		size_scene(entry.scene, width_, height_);
		OBSSourceAutoRelease source = entry.host ? obs_weak_source_get_source(entry.host) : nullptr;
		if (source)
			place_source(entry, source);
	}
}

void VerticalCanvas::show_on_canvas(const VerticalScene *entry)
{
	obs_source_t *source = entry ? obs_scene_get_source(entry->scene) : nullptr;
	if (transition_)
		show_now(transition_, source);
	else
		video_.set_source(source);
}

// The host works out how a transition draws its scenes (for these scenes, as large as
// the transition, as they are) at its ticks and when a transition starts, but not when a
// scene is merely set. So a transition that never drew one would draw nothing until the
// host's next tick: it is started once towards nothing, which works that out, and the
// scene set again.
void VerticalCanvas::show_now(obs_source_t *transition, obs_source_t *source)
{
	obs_transition_set(transition, source);
	if (!source || transition_ready_)
		return;
	obs_transition_start(transition, OBS_TRANSITION_MODE_AUTO, 0, nullptr);
	obs_transition_set(transition, source);
	transition_ready_ = true;
}

OBSSourceAutoRelease VerticalCanvas::shown() const
{
	if (transition_)
		return obs_transition_get_active_source(transition_);
	return video_.source();
}

// Read from the view, which the UI thread never replaces while a frame is drawn.
OBSSourceAutoRelease VerticalCanvas::settled_scene() const
{
	OBSSourceAutoRelease top = video_.source();
	if (!top || obs_source_get_type(top) != OBS_SOURCE_TYPE_TRANSITION)
		return top;
	if (obs_transition_get_time(top) < 1.0f)
		return nullptr;
	return obs_transition_get_active_source(top);
}

void VerticalCanvas::render_scaled(const ScaledTarget &target)
{
	if (OBSSourceAutoRelease scene = settled_scene())
		draw_scene_scaled(obs_scene_from_source(scene), target);
	else
		video_.render();
}

void VerticalCanvas::release_assignment(VerticalScene &entry)
{
	place_source(entry, nullptr);
	entry.host = nullptr;
}

VerticalCanvas::AudioFeed VerticalCanvas::listen_audio()
{
	if (!scene_audio_)
		return {obs_get_audio(), config_.audio_track, nullptr};
	SceneAudio::Listener listener = scene_audio_->listen();
	return {listener.audio, 0, std::move(listener.hold)};
}

bool VerticalCanvas::audio_running() const
{
	return scene_audio_ && scene_audio_->running();
}

void VerticalCanvas::settle_audio()
{
	if (scene_audio_)
		scene_audio_->settle();
}

void VerticalCanvas::rejoin_audio()
{
	if (scene_audio_)
		scene_audio_->rejoin();
}

void VerticalCanvas::apply_active_audio(uint32_t fade_ms)
{
	if (!scene_audio_)
		return;
	VerticalScene *entry = active_entry();
	OBSSourceAutoRelease source = entry && entry->host ? obs_weak_source_get_source(entry->host) : nullptr;
	scene_audio_->set_source(source.Get(), fade_ms);
}

} // namespace cv

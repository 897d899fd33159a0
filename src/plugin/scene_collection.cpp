#include "scene_collection.h"

#include <obs.hpp>

#include <algorithm>

namespace cv {

namespace {

// No real list comes near it; a hand-edited one of millions is not walked.
constexpr size_t kMaxScenes = 10000;

// A number that is there, else the default.
double number(obs_data_t *data, const char *name, double fallback)
{
	obs_data_item_t *item = obs_data_item_byname(data, name);
	const double value = item && obs_data_item_gettype(item) == OBS_DATA_NUMBER &&
					     obs_data_item_has_user_value(item)
				     ? obs_data_item_get_double(item)
				     : fallback;
	obs_data_item_release(&item);
	return value;
}

void write_region(obs_data_t *data, const char *name, const Region &region)
{
	OBSDataAutoRelease object = obs_data_create();
	obs_data_set_double(object, "x", region.x);
	obs_data_set_double(object, "y", region.y);
	obs_data_set_double(object, "width", region.width);
	obs_data_set_double(object, "height", region.height);
	obs_data_set_obj(data, name, object);
}

Region read_region(obs_data_t *data, const char *name)
{
	OBSDataAutoRelease object = obs_data_get_obj(data, name);
	if (!object)
		return {};
	return {number(object, "x", -1), number(object, "y", -1), number(object, "width", -1),
		number(object, "height", -1)};
}

SceneLayout read_layout(obs_data_t *data)
{
	const SceneLayout defaults;
	if (!data)
		return defaults;
	SceneLayout layout;
	layout.kind = layout_kind(obs_data_get_string(data, "layout")).value_or(defaults.kind);
	layout.focus_x = number(data, "focusX", defaults.focus_x);
	layout.focus_y = number(data, "focusY", defaults.focus_y);
	layout.zoom = number(data, "zoom", defaults.zoom);
	layout.split = number(data, "split", defaults.split);
	if (obs_data_has_user_value(data, "background"))
		layout.background = obs_data_get_string(data, "background");
	layout.top = read_region(data, "top");
	layout.bottom = read_region(data, "bottom");
	return sanitized(layout);
}

} // namespace

void write_layout(obs_data_t *data, const SceneLayout &layout, uint32_t scene_width, uint32_t scene_height)
{
	obs_data_set_string(data, "layout", layout_name(layout.kind));
	obs_data_set_double(data, "focusX", layout.focus_x);
	obs_data_set_double(data, "focusY", layout.focus_y);
	obs_data_set_double(data, "zoom", layout.zoom);
	obs_data_set_string(data, "background", layout.background.c_str());
	write_region(data, "top", top_region(layout, scene_width, scene_height));
	write_region(data, "bottom", bottom_region(layout, scene_width, scene_height));
	obs_data_set_double(data, "split", layout.split);
}

void write_transition(obs_data_t *data, const TransitionSettings &transition)
{
	obs_data_set_string(data, "transitionKind", transition.kind.c_str());
	obs_data_set_int(data, "transitionDuration", transition.duration_ms);
}

void write_scene_list(obs_data_t *collection, const SceneList &list)
{
	OBSDataArrayAutoRelease scenes = obs_data_array_create();
	for (const SceneEntry &entry : list.scenes) {
		OBSDataAutoRelease scene = obs_data_create();
		obs_data_set_string(scene, "name", entry.name.c_str());
		obs_data_set_string(scene, "hostScene", entry.source.c_str());
		// Regions not drawn yet stay unset, so that they follow the scene's size.
		OBSDataAutoRelease layout = obs_data_create();
		write_layout(layout, entry.layout, 0, 0);
		if (entry.layout.top.empty())
			obs_data_erase(layout, "top");
		if (entry.layout.bottom.empty())
			obs_data_erase(layout, "bottom");
		obs_data_set_obj(scene, "layout", layout);
		obs_data_array_push_back(scenes, scene);
	}
	OBSDataAutoRelease saved = obs_data_create();
	obs_data_set_array(saved, "scenes", scenes);
	obs_data_set_string(saved, "active", list.active.c_str());
	OBSDataAutoRelease transition = obs_data_create();
	write_transition(transition, list.transition);
	obs_data_set_obj(saved, "transition", transition);
	obs_data_set_bool(saved, "followMainScene", list.follow_main);
	obs_data_set_obj(collection, kCollectionKey, saved);
}

std::optional<SceneList> read_scene_list(obs_data_t *collection)
{
	OBSDataAutoRelease saved = collection ? obs_data_get_obj(collection, kCollectionKey) : nullptr;
	if (!saved)
		return std::nullopt;
	SceneList list;
	OBSDataArrayAutoRelease scenes = obs_data_get_array(saved, "scenes");
	const size_t count = std::min(obs_data_array_count(scenes), kMaxScenes);
	for (size_t i = 0; i < count; i++) {
		OBSDataAutoRelease scene = obs_data_array_item(scenes, i);
		const std::string name = obs_data_get_string(scene, "name");
		OBSDataAutoRelease layout = obs_data_get_obj(scene, "layout");
		if (!name.empty())
			list.scenes.push_back({name, obs_data_get_string(scene, "hostScene"), read_layout(layout)});
	}
	list.active = obs_data_get_string(saved, "active");
	// The transition type is checked against the host's when it is used.
	OBSDataAutoRelease transition = obs_data_get_obj(saved, "transition");
	if (transition) {
		if (const char *kind = obs_data_get_string(transition, "transitionKind"); kind && *kind)
			list.transition.kind = kind;
		const long long duration = obs_data_get_int(transition, "transitionDuration");
		if (duration >= kMinTransitionMs && duration <= kMaxTransitionMs)
			list.transition.duration_ms = uint32_t(duration);
	}
	list.follow_main = obs_data_get_bool(saved, "followMainScene");
	return list;
}

} // namespace cv

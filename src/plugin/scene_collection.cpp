#include "scene_collection.h"

#include <obs.hpp>

#include <algorithm>

namespace cv {

namespace {

// No real list comes near it; a hand-edited one of millions is not walked.
constexpr size_t kMaxScenes = 10000;

} // namespace

void write_scene_list(obs_data_t *collection, const SceneList &list)
{
	OBSDataArrayAutoRelease scenes = obs_data_array_create();
	for (const SceneEntry &entry : list.scenes) {
		OBSDataAutoRelease scene = obs_data_create();
		obs_data_set_string(scene, "name", entry.name.c_str());
		obs_data_set_string(scene, "hostScene", entry.source.c_str());
		obs_data_array_push_back(scenes, scene);
	}
	OBSDataAutoRelease saved = obs_data_create();
	obs_data_set_array(saved, "scenes", scenes);
	obs_data_set_string(saved, "active", list.active.c_str());
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
		if (!name.empty())
			list.scenes.push_back({name, obs_data_get_string(scene, "hostScene")});
	}
	list.active = obs_data_get_string(saved, "active");
	return list;
}

} // namespace cv

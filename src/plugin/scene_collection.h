#pragma once

// The vertical scenes as the host's scene collection keeps them: an object of the
// plug-in's own in the collection's module data, which the host saves and loads through
// its front end (so its export, import and backups carry them):
//   "corvane-vertical-canvas": {"scenes": [{"name": "...", "hostScene": "..."}], "active": "..."}

#include "base/settings.h"

#include <obs.h>

#include <optional>

namespace cv {

inline constexpr const char *kCollectionKey = "corvane-vertical-canvas";

void write_scene_list(obs_data_t *collection, const SceneList &list);
// Nothing when the collection has no vertical scenes of its own yet. Entries without a
// name (a hand-edited file) are left out.
std::optional<SceneList> read_scene_list(obs_data_t *collection);

} // namespace cv

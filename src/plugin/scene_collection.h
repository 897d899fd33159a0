#pragma once

// The vertical scenes as the host's scene collection keeps them: an object of the
// plug-in's own in the collection's module data, which the host saves and loads through
// its front end (so its export, import and backups carry them):
//   "corvane-vertical-canvas": {
//     "scenes": [{"name": "...", "hostScene": "...", "layout": {<layout>}}],
//     "active": "...",
//     "transition": {"transitionKind": "fade_transition", "transitionDuration": 300},
//     "followMainScene": false}
// <layout>: {"layout": "cover", "focusX": 0.5, "focusY": 0.5, "zoom": 1, "background":
// "blur", "top": {"x", "y", "width", "height"}, "bottom": {...}, "split": 0.5}, the form
// websocket clients see it in too.

#include "base/settings.h"

#include <obs.h>

#include <optional>

namespace cv {

inline constexpr const char *kCollectionKey = "corvane-vertical-canvas";

void write_scene_list(obs_data_t *collection, const SceneList &list);
// Nothing when the collection has no vertical scenes of its own yet. Entries without a
// name (a hand-edited file) are left out; values that cannot be used are their defaults.
std::optional<SceneList> read_scene_list(obs_data_t *collection);

// A layout's fields into `data`, in the form above (empty regions as their defaults for a
// scene of that size).
void write_layout(obs_data_t *data, const SceneLayout &layout, uint32_t scene_width, uint32_t scene_height);
void write_transition(obs_data_t *data, const TransitionSettings &transition);

} // namespace cv

#pragma once

#include "base/settings.h"

#include <obs.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace cv {

class SceneAudio;

// One entry of the canvas's scene list: a private host scene showing one host source.
struct VerticalScene {
	std::string name;        // unique in the list, compared byte for byte
	std::string source_name; // assigned host source; kept even when it was not found
	OBSSceneAutoRelease scene;
	OBSSourceAutoRelease source; // holds one reference and one "showing" count
};

// The second, vertical canvas: a host view with its own video output and the list
// of vertical scenes it can show. The host's UI thread alone uses it.
class VerticalCanvas {
public:
	explicit VerticalCanvas(const CanvasConfig &config);
	~VerticalCanvas();

	VerticalCanvas(const VerticalCanvas &) = delete;
	VerticalCanvas &operator=(const VerticalCanvas &) = delete;

	bool init();
	void shutdown();

	uint32_t width() const { return width_; }
	uint32_t height() const { return height_; }
	uint32_t fps_num() const { return fps_num_; }
	uint32_t fps_den() const { return fps_den_; }
	obs_view_t *view() const { return view_; }
	video_t *video() const { return video_; }
	// The vertical audio and its mix: the active vertical scene's sources on the chosen
	// track when the audio follows the scene, else the host's whole track.
	audio_t *audio() const;
	size_t audio_mix() const;
	bool initialised() const { return initialised_; }

	// Scene list operations. Names are UTF-8 byte strings compared byte for byte.
	bool create_scene(const std::string &name);
	bool remove_scene(const std::string &name);
	bool rename_scene(const std::string &old_name, const std::string &new_name);
	bool set_active_scene(const std::string &name);
	// An empty source name clears the scene.
	bool assign_scene_source(const std::string &scene_name, const std::string &source_name);

	std::vector<std::string> scene_names() const;
	std::string active_scene_name() const;
	// Empty when the scene does not exist or has no source assigned.
	std::string scene_source_name(const std::string &scene_name) const;

	// The scene list as a record, and back: a saved list replaces the default scene
	// (an empty one keeps it).
	SceneList scene_list() const;
	void restore(const SceneList &list);
	// Assigns every scene's source once more, for host scenes that did not exist when
	// the list was restored.
	void reassign_sources();
	// After the host loaded another scene collection.
	void rejoin_audio();

private:
	void teardown();
	VerticalScene *find_scene(const std::string &name);
	const VerticalScene *find_scene(const std::string &name) const;
	int32_t find_index(const std::string &name) const;
	void place_source(VerticalScene &entry, obs_source_t *source);
	void rename_private_scene(VerticalScene &entry, const std::string &new_name);
	void show_on_view(const VerticalScene *entry);
	void release_assignment(VerticalScene &entry);
	void apply_active_audio();

	uint32_t width_;
	uint32_t height_;
	uint32_t fps_num_;
	uint32_t fps_den_;
	bool use_active_scene_audio_;
	uint32_t audio_track_;
	std::unique_ptr<SceneAudio> scene_audio_;
	obs_video_info video_info_{};
	OBSView view_;
	video_t *video_ = nullptr;
	std::vector<VerticalScene> scenes_;
	int32_t active_index_ = -1;
	bool initialised_ = false;
};

} // namespace cv

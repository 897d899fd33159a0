#pragma once

#include "canvas_video.h"
#include "scaled_draw.h"

#include "base/settings.h"

#include <obs.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace cv {

class SceneAudio;

// One entry of the canvas's scene list: a private host scene showing one host scene.
struct VerticalScene {
	std::string name; // unique in the list, compared byte for byte
	// The host scene's name: followed when it is renamed, kept when no scene had it (so
	// that one made later is found), empty for none.
	std::string source_name;
	OBSSceneAutoRelease scene;
	// The host scene it shows. Its only strong reference is the private scene's item, so
	// the canvas never keeps a scene alive that the host let go.
	OBSWeakSourceAutoRelease host;
	SceneLayout layout = {};
	// The fit layout's background, made when first needed.
	OBSSourceAutoRelease backdrop = {};
	// The host scene's size when it was placed.
	uint32_t placed_width = 0;
	uint32_t placed_height = 0;
};

struct SourceSize {
	uint32_t width = 0;
	uint32_t height = 0;
};

// The second, vertical canvas: its own video at its own size and rate, and the list of
// vertical scenes it can show, each framing its host scene by its layout. The canvas
// shows them through one of the host's transitions, so only the active vertical scene
// (and, while a transition runs, the one it leaves) is on the canvas, and only its host
// scene and what is inside it count as showing. The host's UI thread alone uses it, but
// for render(), width() and height() (the preview's draw, on the graphics thread).
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
	const CanvasConfig &config() const { return config_; }
	// The canvas's video, made when encoders are made on it (fresh_video(), made anew since
	// the host's resets of its video free it) and let go of (drop_video()) once none uses
	// it: both only then, and only these three may be called on the output's job thread.
	video_t *video() const { return video_.video(); }
	video_t *fresh_video() { return video_.fresh_video(); }
	void drop_video() { video_.drop_video(); }
	// Changes whenever video() or the audio's choice do: encoders made before are not joined.
	uint64_t generation() const { return video_.generation() + audio_generation_; }
	// Draws what the canvas shows (graphics thread), and what that is: the active
	// vertical scene's private scene, or nothing.
	void render() { video_.render(); }
	// The same into a part of the current render target at that part's size: straight,
	// but through the canvas's own view while a transition blends two scenes.
	void render_scaled(const ScaledTarget &target);
	// The vertical scene's private scene shown, or being moved to.
	OBSSourceAutoRelease shown() const;
	// Graphics thread: the private scene shown when no transition is under way, null
	// during one.
	OBSSourceAutoRelease settled_scene() const;
	// The vertical audio to make an encoder on: the active vertical scene's sources on the
	// chosen track when the audio follows the scene (mixed only while someone holds
	// `hold`), else the host's whole track.
	struct AudioFeed {
		audio_t *audio = nullptr;
		size_t mix = 0;
		// Kept by whoever made an encoder on `audio`, as long as the encoder exists.
		std::shared_ptr<const void> hold;
	};
	AudioFeed listen_audio();
	// Whether the vertical audio is mixed now.
	bool audio_running() const;
	bool initialised() const { return initialised_; }

	// Takes a new size, rate or audio choice, keeping the scenes. Only while no encoder
	// uses the canvas (and never on its job thread). False (and the canvas as it was) when
	// the format is unusable.
	bool reconfigure(const CanvasConfig &config);

	// Scene list operations. Names are UTF-8 byte strings compared byte for byte.
	bool create_scene(const std::string &name);
	bool remove_scene(const std::string &name);
	bool rename_scene(const std::string &old_name, const std::string &new_name);
	// Through the transition; at once with `cut`.
	bool set_active_scene(const std::string &name, bool cut = false);
	// An empty source name clears the scene.
	bool assign_scene_source(const std::string &scene_name, const std::string &source_name);

	std::vector<std::string> scene_names() const;
	std::string active_scene_name() const;
	// Empty when the scene does not exist or has no source assigned.
	std::string scene_source_name(const std::string &scene_name) const;
	// How the scene frames its host scene; nothing when there is no such scene.
	std::optional<SceneLayout> scene_layout(const std::string &scene_name) const;
	// Takes a layout that has been checked (it is not checked again); false when there is
	// no such scene.
	bool set_scene_layout(const std::string &scene_name, const SceneLayout &layout);
	// The size of the host scene the scene shows: zero when it shows none.
	SourceSize scene_source_size(const std::string &scene_name) const;

	// The transition used between vertical scenes: one of the host's transition types.
	// False (and the transition as it was) when the host has no such type.
	bool set_transition(const TransitionSettings &transition);
	const TransitionSettings &transition() const { return transition_settings_; }
	// Whether the canvas follows the host's program scene (the plug-in does the following).
	void set_follow_main(bool follow) { follow_main_ = follow; }
	bool follow_main() const { return follow_main_; }
	// The first vertical scene showing that host scene; empty for none.
	std::string scene_showing(obs_source_t *host_scene) const;

	// The scene list as a record, and back: the list replaces every scene (an empty one
	// leaves the default "Scene 1").
	SceneList scene_list() const;
	void replace_scenes(const SceneList &list);
	// Lets go of every scene (and so of every host scene), showing nothing.
	void clear_scenes();
	// Assigns the host scenes that were named but not found once more.
	void resolve_pending();
	// The host renamed or removed one of its sources (known by its weak reference, as it
	// may be gone); true when a vertical scene showed it: its assignment follows the new
	// name, or is cleared.
	bool host_source_renamed(obs_weak_source_t *source, const std::string &new_name);
	bool host_source_removed(obs_weak_source_t *source);
	// Places again the host scenes whose size changed since they were placed (the host's
	// canvas size is theirs); true when any was.
	bool follow_host_sizes();
	// Lets go of what the audio no longer needs once a transition is over; now and then.
	void settle_audio();
	// After the host loaded another scene collection.
	void rejoin_audio();

private:
	void teardown();
	bool open_audio();
	VerticalScene *find_scene(const std::string &name);
	const VerticalScene *find_scene(const std::string &name) const;
	int32_t find_index(const std::string &name) const;
	VerticalScene *active_entry();
	void place_source(VerticalScene &entry, obs_source_t *source);
	bool make_transition(const TransitionSettings &transition);
	void replace_placements();
	void rename_private_scene(VerticalScene &entry, const std::string &new_name);
	void show_on_canvas(const VerticalScene *entry);
	void show_now(obs_source_t *transition, obs_source_t *source);
	void release_assignment(VerticalScene &entry);
	void apply_active_audio(uint32_t fade_ms = 0);

	CanvasConfig config_;
	std::atomic<uint32_t> width_;
	std::atomic<uint32_t> height_;
	uint32_t fps_num_;
	uint32_t fps_den_;
	std::unique_ptr<SceneAudio> scene_audio_;
	uint64_t audio_generation_ = 0;
	CanvasVideo video_;
	std::vector<VerticalScene> scenes_;
	int32_t active_index_ = -1;
	// What the view shows: the scenes pass through it. Null on a host without transitions.
	OBSSourceAutoRelease transition_;
	TransitionSettings transition_settings_;
	bool transition_ready_ = false; // it knows how to draw the scenes
	bool follow_main_ = false;
	bool initialised_ = false;
};

} // namespace cv

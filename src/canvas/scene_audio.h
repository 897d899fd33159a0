#pragma once

// The vertical audio when it follows the active vertical scene: exactly the audio of the
// sources inside the scene's host source (nested scenes and groups included), mixed by
// the host the way it mixes them for one of its tracks, and nothing else.
//
// How: a private source of the plug-in's own sits on one of the host's free output
// channels with the host source as its only child, so the host's audio thread renders
// that source's tree every tick, children first. The private source takes the child's
// mix of the chosen track and hands it, with the tick's timestamp, to an audio output of
// the plug-in's own, which the vertical audio encoder listens to. The private source
// gives the host's own mixes nothing, and no setting of any source is touched.
//
// All of that runs only while an encoder listens: with none, the private source is on no
// channel, the host's track is not tapped and the audio output is closed, so nothing is
// mixed for nobody.

#include <obs.hpp>

#include <cstdint>
#include <memory>

namespace cv {

inline constexpr const char *kSceneAudioSourceId = "cv_vertical_scene_audio";

class SceneAudio {
public:
	// `track`: the host's track, from 0.
	explicit SceneAudio(uint32_t track);
	~SceneAudio();
	SceneAudio(const SceneAudio &) = delete;
	SceneAudio &operator=(const SceneAudio &) = delete;

	// Makes the private source; nothing runs until listen().
	bool init();
	// What is heard: the active vertical scene's host source, or nothing (silence). With a
	// fade, the one heard so far fades out over it while the new one fades in, as the
	// host's transitions mix their scenes' audio.
	void set_source(obs_source_t *source, uint32_t fade_ms = 0);
	// Lets go of a source that has faded out; the host's UI thread, now and then.
	void settle();
	// Takes a free output channel again when the host cleared its channels (it does so
	// when it loads another scene collection).
	void rejoin();
	// The audio to make an encoder on (on its first mix), running as long as `hold`
	// lives: whoever makes an encoder on it keeps `hold` until the encoder is gone, which
	// may be after this object is. Null audio when it could not start.
	struct Listener {
		audio_t *audio = nullptr;
		std::shared_ptr<const void> hold;
	};
	Listener listen();
	// Whether anything listens, so that the audio runs.
	bool running() const;

	struct State;
	struct Live;

private:
	void drop_fading();

	uint32_t track_;
	std::shared_ptr<State> state_;
	OBSSourceAutoRelease source_;
	std::shared_ptr<Live> live_;
};

} // namespace cv

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
	// The audio the encoders listen to, on its first mix.
	audio_t *audio() const { return output_ ? output_->audio : nullptr; }
	// Keeps that audio open: an encoder still stopping may listen to it after this
	// object is gone, so whoever made one on it holds this until the encoder is.
	std::shared_ptr<const void> keep_open() const { return output_; }

	struct State;

private:
	// The plug-in's own audio output, closed when its last holder lets go.
	struct Output {
		audio_t *audio = nullptr;
		std::shared_ptr<State> state; // what its thread reads
		~Output();
	};

	bool take_channel();
	void leave_channel();

	void drop_fading();

	uint32_t track_;
	std::shared_ptr<State> state_;
	OBSSourceAutoRelease source_;
	std::shared_ptr<Output> output_;
	audio_t *host_audio_ = nullptr;
	uint32_t channel_ = 0;
	bool tapped_ = false;
};

} // namespace cv

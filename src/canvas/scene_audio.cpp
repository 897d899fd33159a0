#include "scene_audio.h"

#include "base/log.h"

#include <media-io/audio-io.h>
#include <util/platform.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

namespace cv {

namespace {

// Channels the host's front end leaves alone: it uses the first seven.
constexpr uint32_t kFirstFreeChannel = 8;
constexpr uint32_t kChannels = 64;
// Ticks held for the plug-in's audio output: about two seconds.
constexpr size_t kMaxTicks = 96;

struct Tick {
	uint64_t timestamp = 0;
	std::vector<float> samples; // planar: channel after channel, AUDIO_OUTPUT_FRAMES each
};

} // namespace

// Shared by the private source (the host's audio thread), the tap on the host's track
// (the same thread, right after the mix) and the plug-in's audio output (its own thread).
struct SceneAudio::State {
	obs_source_t *parent = nullptr; // the private source; set once at its creation
	uint32_t track = 0;
	size_t channels = 2;
	size_t sample_rate = 48000;

	std::mutex mutex; // guards everything below
	OBSWeakSourceAutoRelease child;
	// The source heard before, fading out from fade_start (the host's audio clock) over
	// fade_ns while the child fades in.
	OBSWeakSourceAutoRelease fading;
	uint64_t fade_start = 0;
	uint64_t fade_ns = 0;
	// The child's mix of this tick, from its render until the tap gives it a timestamp.
	std::vector<float> rendered;
	uint64_t rendered_timestamp = 0;
	std::deque<Tick> ticks;
	uint64_t dropped_ticks = 0;
};

namespace {

using State = SceneAudio::State;

// The private source's data: the state it shares with its owner.
struct SourceData {
	std::shared_ptr<State> state;
};

const char *source_name(void *)
{
	return "Vertical scene audio";
}

void *source_create(obs_data_t *, obs_source_t *)
{
	return new SourceData;
}

void source_destroy(void *data)
{
	delete static_cast<SourceData *>(data);
}

OBSSource strong(const OBSWeakSourceAutoRelease &weak)
{
	OBSSourceAutoRelease source = obs_weak_source_get_source(weak);
	return OBSSource(source.Get());
}

void source_enum(void *data, obs_source_enum_proc_t callback, void *param)
{
	const std::shared_ptr<State> state = static_cast<SourceData *>(data)->state;
	if (!state)
		return;
	OBSSource child, fading;
	{
		std::lock_guard lock(state->mutex);
		child = strong(state->child);
		fading = strong(state->fading);
	}
	// Called without the lock: the callback walks the children's own trees.
	for (obs_source_t *source : {fading.Get(), child.Get()})
		if (source)
			callback(state->parent, source, param);
}

// Adds `source`'s mix of the track to `out`, times `gain` at each sample (from `from` to
// `to` across the tick); false when it has nothing for this tick.
bool add_mix(State &state, obs_source_t *source, float from, float to, std::vector<float> &out)
{
	if (!source || obs_source_audio_pending(source) || !obs_source_get_audio_timestamp(source))
		return false;
	obs_source_audio_mix mix = {};
	obs_source_get_audio_mix(source, &mix);
	for (size_t ch = 0; ch < state.channels; ch++) {
		const float *in = mix.output[state.track].data[ch];
		float *sum = &out[ch * AUDIO_OUTPUT_FRAMES];
		for (size_t i = 0; i < AUDIO_OUTPUT_FRAMES; i++)
			sum[i] += in[i] * (from + (to - from) * float(i) / float(AUDIO_OUTPUT_FRAMES));
	}
	return true;
}

// How far the fade is at `timestamp`, from 0 to 1.
float fade_at(const State &state, uint64_t timestamp)
{
	if (!state.fade_ns || timestamp <= state.fade_start)
		return state.fade_ns ? 0.0f : 1.0f;
	return float(std::min(1.0, double(timestamp - state.fade_start) / double(state.fade_ns)));
}

// The host's audio thread, after the children's trees have been rendered for this tick.
bool source_audio_render(void *data, uint64_t *, obs_source_audio_mix *, uint32_t, size_t, size_t)
{
	const std::shared_ptr<State> state = static_cast<SourceData *>(data)->state;
	if (!state)
		return false;
	OBSSource child, fading;
	{
		std::lock_guard lock(state->mutex);
		child = strong(state->child);
		fading = strong(state->fading);
	}
	const uint64_t timestamp = child ? obs_source_get_audio_timestamp(child) : 0;
	std::lock_guard lock(state->mutex);
	state->rendered.clear();
	if (!child || obs_source_audio_pending(child) || !timestamp)
		return false;
	const uint64_t tick_ns = uint64_t(AUDIO_OUTPUT_FRAMES) * 1000000000ull / state->sample_rate;
	const float from = fade_at(*state, timestamp), to = fade_at(*state, timestamp + tick_ns);
	state->rendered.assign(state->channels * AUDIO_OUTPUT_FRAMES, 0.0f);
	add_mix(*state, child, from, to, state->rendered);
	if (from < 1.0f)
		add_mix(*state, fading, 1.0f - from, 1.0f - to, state->rendered);
	state->rendered_timestamp = timestamp;
	// Nothing for the host's own mixes.
	return false;
}

// The host's audio thread, once the tick is mixed: the tick's timestamp. The child's
// audio starts where its own timestamp falls in the tick; before it, silence.
void on_host_tick(void *param, size_t, audio_data *data)
{
	auto *state = static_cast<State *>(param);
	Tick tick;
	tick.timestamp = data->timestamp;
	tick.samples.assign(state->channels * AUDIO_OUTPUT_FRAMES, 0.0f);
	std::lock_guard lock(state->mutex);
	if (!state->rendered.empty() && state->rendered_timestamp >= data->timestamp) {
		const size_t offset =
			size_t(ns_to_audio_frames(state->sample_rate, state->rendered_timestamp - data->timestamp));
		for (size_t ch = 0; offset < AUDIO_OUTPUT_FRAMES && ch < state->channels; ch++)
			memcpy(&tick.samples[ch * AUDIO_OUTPUT_FRAMES + offset],
			       &state->rendered[ch * AUDIO_OUTPUT_FRAMES],
			       (AUDIO_OUTPUT_FRAMES - offset) * sizeof(float));
	}
	state->rendered.clear();
	if (state->ticks.size() >= kMaxTicks) {
		state->ticks.pop_front();
		state->dropped_ticks++;
	}
	state->ticks.push_back(std::move(tick));
}

// The plug-in's audio output's thread: one tick at a time, as the host made them.
bool on_output_input(void *param, uint64_t, uint64_t, uint64_t *new_ts, uint32_t, audio_output_data *mixes)
{
	auto *state = static_cast<State *>(param);
	Tick tick;
	{
		std::lock_guard lock(state->mutex);
		if (state->ticks.empty())
			return false;
		tick = std::move(state->ticks.front());
		state->ticks.pop_front();
	}
	for (size_t ch = 0; ch < state->channels; ch++)
		memcpy(mixes[0].data[ch], &tick.samples[ch * AUDIO_OUTPUT_FRAMES], AUDIO_OUTPUT_FRAMES * sizeof(float));
	*new_ts = tick.timestamp;
	return true;
}

void register_source_type()
{
	if (obs_source_get_display_name(kSceneAudioSourceId))
		return;
	obs_source_info info = {};
	info.id = kSceneAudioSourceId;
	info.type = OBS_SOURCE_TYPE_INPUT;
	info.output_flags = OBS_SOURCE_COMPOSITE | OBS_SOURCE_CAP_DISABLED | OBS_SOURCE_DO_NOT_DUPLICATE;
	info.get_name = source_name;
	info.create = source_create;
	info.destroy = source_destroy;
	info.enum_active_sources = source_enum;
	info.enum_all_sources = source_enum;
	info.audio_render = source_audio_render;
	obs_register_source(&info);
}

} // namespace

// What runs while encoders listen, shared with their holds, which may outlive the
// SceneAudio: the plug-in's audio output, the tap on the host's track and the private
// source's output channel.
struct SceneAudio::Live {
	std::mutex mutex; // guards everything below; never taken on the host's audio thread
	std::shared_ptr<State> state;
	OBSSource source;
	audio_t *host_audio = nullptr;
	audio_output_info info = {};
	size_t holders = 0;
	bool closed = false; // the SceneAudio is gone: silence until the last hold goes
	audio_t *audio = nullptr;
	bool tapped = false;
	bool on_channel = false;
	uint32_t channel = 0;

	bool start()
	{
		{
			// What was left from the last time it ran is stale.
			std::lock_guard lock(state->mutex);
			state->ticks.clear();
			state->rendered.clear();
		}
		if (audio_output_open(&audio, &info) != AUDIO_OUTPUT_SUCCESS) {
			audio = nullptr;
			log_error("Scene audio: could not open its audio output");
			return false;
		}
		// The host mixes a track only while something listens to it.
		tapped = audio_output_connect(host_audio, state->track, nullptr, on_host_tick, state.get());
		if (!tapped)
			log_error("Scene audio: could not listen to track %u", state->track + 1);
		take_channel();
		log_info("Vertical scene audio runs (output channel %u)", channel);
		return true;
	}
	void quiet()
	{
		leave_channel();
		if (tapped)
			audio_output_disconnect(host_audio, state->track, on_host_tick, state.get());
		tapped = false;
	}
	void stop()
	{
		quiet();
		if (audio)
			audio_output_close(audio);
		audio = nullptr;
		log_info("Vertical scene audio stopped: nothing listens");
	}
	void release()
	{
		std::lock_guard lock(mutex);
		if (--holders == 0)
			stop();
	}
	bool take_channel()
	{
		for (uint32_t at = kChannels - 1; at >= kFirstFreeChannel; at--) {
			OBSSourceAutoRelease taken = obs_get_output_source(at);
			if (taken)
				continue;
			channel = at;
			on_channel = true;
			obs_set_output_source(at, source);
			return true;
		}
		log_error("Scene audio: every output channel of the host is taken");
		return false;
	}
	void leave_channel()
	{
		if (!on_channel)
			return;
		on_channel = false;
		OBSSourceAutoRelease current = obs_get_output_source(channel);
		if (current.Get() == source.Get())
			obs_set_output_source(channel, nullptr);
	}
};

SceneAudio::SceneAudio(uint32_t track) : track_(track), state_(std::make_shared<State>()) {}

SceneAudio::~SceneAudio()
{
	if (live_) {
		// Encoders still stopping keep the output open; they hear silence from now on.
		std::lock_guard lock(live_->mutex);
		live_->closed = true;
		live_->quiet();
	}
	set_source(nullptr);
	if (state_->dropped_ticks)
		log_info("Vertical scene audio dropped %llu late tick(s)", (unsigned long long)state_->dropped_ticks);
}

bool SceneAudio::init()
{
	audio_t *host_audio = obs_get_audio();
	obs_audio_info host = {};
	if (!host_audio || !obs_get_audio_info(&host)) {
		log_error("Scene audio: the host has no audio");
		return false;
	}
	state_->track = track_;
	state_->channels = get_audio_channels(host.speakers);
	state_->sample_rate = host.samples_per_sec;

	register_source_type();
	source_ = obs_source_create_private(kSceneAudioSourceId, "cv_vertical_scene_audio", nullptr);
	if (!source_) {
		log_error("Scene audio: could not create its source");
		return false;
	}
	// It never adds to the host's own tracks.
	obs_source_set_audio_mixers(source_, 0);
	state_->parent = source_;
	static_cast<SourceData *>(obs_obj_get_data(source_))->state = state_;

	live_ = std::make_shared<Live>();
	live_->state = state_;
	live_->source = source_.Get();
	live_->host_audio = host_audio;
	live_->info.name = "cv_vertical_audio";
	live_->info.samples_per_sec = host.samples_per_sec;
	live_->info.format = AUDIO_FORMAT_FLOAT_PLANAR;
	live_->info.speakers = host.speakers;
	live_->info.input_callback = on_output_input;
	live_->info.input_param = state_.get();
	log_info("Vertical audio follows the active vertical scene (track %u)", track_ + 1);
	return true;
}

SceneAudio::Listener SceneAudio::listen()
{
	if (!live_)
		return {};
	std::lock_guard lock(live_->mutex);
	if (live_->closed || (live_->holders == 0 && !live_->start()))
		return {};
	live_->holders++;
	// The hold's deleter keeps what it stops alive.
	return {live_->audio,
		std::shared_ptr<const void>(live_.get(), [live = live_](const void *) { live->release(); })};
}

bool SceneAudio::running() const
{
	if (!live_)
		return false;
	std::lock_guard lock(live_->mutex);
	return live_->holders > 0;
}

void SceneAudio::set_source(obs_source_t *source, uint32_t fade_ms)
{
	// A fade not finished yet ends here: what was fading out goes.
	drop_fading();
	OBSSource old;
	{
		std::lock_guard lock(state_->mutex);
		OBSSourceAutoRelease current = obs_weak_source_get_source(state_->child);
		if (current.Get() == source)
			return;
		old = current.Get();
		state_->child = source ? obs_source_get_weak_source(source) : nullptr;
		state_->fade_ns = old && fade_ms ? uint64_t(fade_ms) * 1000000ull : 0;
		state_->fade_start = os_gettime_ns();
		state_->fading = state_->fade_ns ? obs_source_get_weak_source(old) : nullptr;
	}
	if (!source_)
		return;
	if (source && !obs_source_add_active_child(source_, source))
		log_warning("Scene audio: '%s' cannot be heard", obs_source_get_name(source));
	// Faded out, it is let go of later.
	if (old && !state_->fade_ns)
		obs_source_remove_active_child(source_, old);
}

void SceneAudio::settle()
{
	bool faded;
	{
		std::lock_guard lock(state_->mutex);
		faded = state_->fading && os_gettime_ns() > state_->fade_start + state_->fade_ns + 1000000000ull;
	}
	if (faded)
		drop_fading();
}

void SceneAudio::drop_fading()
{
	OBSSource fading;
	{
		std::lock_guard lock(state_->mutex);
		fading = strong(state_->fading);
		state_->fading = nullptr;
		state_->fade_ns = 0;
	}
	if (fading && source_)
		obs_source_remove_active_child(source_, fading);
}

void SceneAudio::rejoin()
{
	if (!live_)
		return;
	std::lock_guard lock(live_->mutex);
	if (live_->closed || !live_->holders)
		return;
	OBSSourceAutoRelease current = obs_get_output_source(live_->channel);
	if (current.Get() != source_.Get())
		live_->take_channel();
}

} // namespace cv

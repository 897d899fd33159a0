#pragma once

#include "pipeline.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// What the benchmarks share: the stream they send, and the little arithmetic and
// process readings their figures are made of.
namespace cvbench {

inline constexpr uint32_t kCanvasWidth = 1080;
inline constexpr uint32_t kCanvasHeight = 1920;

// The vertical stream every benchmark sends: 1080x1920 at 30 fps, x264 (ultrafast,
// CBR 6000 kb/s, a keyframe every 2 s) and one AAC track, through the timed copy of
// the plug-in's output.
cvtest::PipelineOptions pipeline_options();

void sleep_s(double seconds);

double median(std::vector<double> values);
double mean(const std::vector<uint64_t> &values);
// The value at `fraction` (0..1) of the sorted values, nearest rank.
double percentile(std::vector<uint64_t> values, double fraction);
// Least-squares slope of y over x; 0 with fewer than two distinct x.
double slope(const std::vector<double> &x, const std::vector<double> &y);

// CPU time (user and system) every thread of this process has used.
uint64_t process_cpu_ns();
// Resident memory of this process.
uint64_t resident_bytes();

// CPU time each thread of this process has used so far, by thread id, with its name.
struct ThreadTimes {
	std::map<int, std::pair<std::string, uint64_t>> threads;
};
ThreadTimes thread_times();
// CPU used between two snapshots by the threads named `name`, or, for an empty name,
// by every thread but the renderer's (the host's graphics thread and Mesa's
// rasterizer threads), whose load the packets do not change.
uint64_t cpu_between(const ThreadTimes &before, const ThreadTimes &after, const std::string &name = {});

// Reads an FLV file as nginx-rtmp records it, while it grows, up to the first complete
// H.264 keyframe tag: a video tag whose first byte says "key frame, AVC" and whose
// second says "NAL units" (not the sequence header that comes before it).
class FlvKeyframeWatch {
public:
	explicit FlvKeyframeWatch(std::string path) : path_(std::move(path)) {}
	bool found();

private:
	std::string path_;
	uint64_t next_tag_ = 0;
};

} // namespace cvbench

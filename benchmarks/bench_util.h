#pragma once

#include "mux_pipeline.h"

#include <cstdint>
#include <vector>

namespace cv {
struct MuxOutput;
}

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
// Payload bytes waiting in an output's write queue (takes its queue lock briefly).
uint64_t queued_bytes(cv::MuxOutput &mux);

} // namespace cvbench

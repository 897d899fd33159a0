#pragma once

// A minimal streaming service ("server" and "key" settings), so the host's own RTMP
// output can be started without the host's service list.
namespace cvbench {

inline constexpr const char *kBenchServiceId = "cv_bench_rtmp_service";

void register_bench_service();

} // namespace cvbench

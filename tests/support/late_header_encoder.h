#pragma once

// An AAC encoder (silence, encoded by FFmpeg) whose codec header is reported only after it has
// produced a number of packets: the situation in which the output has to hold the
// first packets until it can open.
namespace cvtest {

inline constexpr const char *kLateHeaderAacId = "cv_test_late_header_aac";

void register_late_header_aac(int packets_before_header);

} // namespace cvtest

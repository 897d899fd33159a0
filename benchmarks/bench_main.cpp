// Runs the benchmarks against real libobs in this process, with the host's own
// encoders, on a private X server. Google Benchmark's options apply
// (--benchmark_filter, --benchmark_repetitions, --benchmark_format=json, ...).
// The host's log is shown only with CV_BENCH_VERBOSE=1.

#include "side_by_side.h"
#include "replay_encoders.h"
#include "timed_mux_output.h"

#include "stream/mux_output.h"

#include "host.h"

#include <benchmark/benchmark.h>
#include <util/base.h>

extern "C" {
#include <libavutil/log.h>
}

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

namespace {

void quiet_log(int level, const char *format, va_list args, void *)
{
	(void)level;
	if (!getenv("CV_BENCH_VERBOSE"))
		return;
	vfprintf(stderr, format, args);
	fputc('\n', stderr);
}

} // namespace

int main(int argc, char **argv)
{
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv))
		return 1;

	base_set_log_handler(quiet_log, nullptr);
	if (!getenv("CV_BENCH_VERBOSE"))
		av_log_set_level(AV_LOG_QUIET);
	char pattern[] = "/tmp/cv-bench-XXXXXX";
	if (!mkdtemp(pattern)) {
		perror("mkdtemp");
		return 1;
	}

	int result = 0;
	{
		cvtest::HostOptions options;
		options.fps_num = 30;
		options.outputs = true;
		std::string error;
		if (cvtest::start_host(options, pattern, &error)) {
			cv::register_mux_output();
			cvtest::TimedMux::register_type();
			cvbench::register_replay_types();
			benchmark::RunSpecifiedBenchmarks();
		} else {
			fprintf(stderr, "cannot start the host: %s\n", error.c_str());
			result = 1;
		}
		const long outstanding = cvtest::stop_host();
		if (outstanding != 0) {
			fprintf(stderr, "%ld libobs allocations outstanding after shutdown\n", outstanding);
			result = 1;
		}
	}
	benchmark::Shutdown();
	cvtest::stop_process_xvfb();
	std::filesystem::remove_all(pattern);
	fflush(stdout);
	fflush(stderr);
	// As in the host tests: the system's libsrt may crash in its static destructors.
	_exit(result);
}

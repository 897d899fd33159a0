"""The benchmarks' summary: each figure of the plug-in beside the reference measured in
the same run, with their ratio, from Google Benchmark's JSON output.

    python3 scripts/lib/bench_table.py RESULTS.json [MORE.json ...]

Figures are medians over the repetitions that succeeded; the ratio is plug-in median
over reference median. Rows whose benchmark did not run (filtered out) are left out.
"""

import json
import math
import statistics
import sys


def microseconds_from_ns(value):
    return f"{value / 1000:.1f} µs"


def milliseconds_from_us(value):
    return f"{value / 1000:.2f} ms"


def milliseconds(value):
    return f"{value:.0f} ms"


def milliseconds_1(value):
    return f"{value:.1f} ms"


def cpu_seconds_per_minute(value):
    return f"{value:.2f} s/min"


def seconds_per_minute(value):
    return f"{value:.1f} s/min"


def megabytes(value):
    return f"{value:.1f} MB"


def ssim(value):
    return f"{value:.4f}"


def ssim_db(value):
    """SSIM on a logarithmic scale, as FFmpeg prints it beside the index."""
    return f"{-10 * math.log10(1 - value):.2f} dB" if value < 1 else "inf"


# (row, benchmark, argument part of the run name or None, plug-in counter, reference
#  counter, what the figure is, what the reference is, formatter)
ROWS = [
    ("1a", "BM_PacketPath", None, "plugin_cpu_ns", "host_rtmp_cpu_ns",
     "packet path CPU per packet (encoder-thread callback + stream thread)",
     "host rtmp_output, the same packets", microseconds_from_ns),
    ("1b", "BM_PacketPath", None, "plugin_cpu_ns", "bare_ffmpeg_cpu_ns",
     "  the same",
     "bare FFmpeg muxing the same packets", microseconds_from_ns),
    ("2a", "BM_StalledNetwork", None, "stall_max_us", "flowing_max_us",
     "encoder-thread callback, longest (wall), server stalled 60 s",
     "same stream, 10 s before the stall", milliseconds_from_us),
    ("2b", "BM_StalledNetwork", None, "stall_p99_us", "flowing_p99_us",
     "encoder-thread callback, 99th percentile (wall), server stalled",
     "same stream, 10 s before the stall", milliseconds_from_us),
    ("2c", "BM_HungServerCallback", None, "hung_max_us", "goal_us",
     "encoder-thread callback, longest (wall), server never answers",
     "goal", milliseconds_from_us),
    ("3a", "BM_StartToFirstByte", "x264_only:0", "plugin_ms", "host_rtmp_ms",
     "start to first byte at the server, encoder choice \"auto\"",
     "host rtmp_output, same encoders", milliseconds),
    ("3b", "BM_StartToFirstByte", "x264_only:1", "plugin_ms", "host_rtmp_ms",
     "start to first byte at the server, encoder \"x264\"",
     "host rtmp_output, same encoders", milliseconds),
    ("3c", "BM_StartToFirstByte", "x264_only:1", "plugin_keyframe_ms", "host_rtmp_keyframe_ms",
     "start to first keyframe at the server, encoder \"x264\"",
     "host rtmp_output, same encoders", milliseconds),
    ("4", "BM_ReconnectToKeyframe", None, "plugin_ms", "host_rtmp_ms",
     "server listening again to its first new keyframe",
     "host rtmp_output, OBS default reconnect", milliseconds),
    ("5a", "BM_PipelineCpu", None, "plugin_cpu_s_per_min", "host_rtmp_cpu_s_per_min",
     "process CPU per streamed minute: canvas, encoders, output",
     "same canvas + encoders into host rtmp_output", cpu_seconds_per_minute),
    ("5b", "BM_PipelineCpu", None, "plugin_code_s_per_min", "plugin_cpu_s_per_min",
     "  of it the plug-in's code (callback + stream thread)",
     "the whole pipeline (5a)", cpu_seconds_per_minute),
    ("6a", "BM_StalledNetwork", None, "plugin_rss_growth_mb", "host_rss_growth_mb",
     "resident memory growth over a 60 s stall",
     "host rtmp_output, same stall", megabytes),
    ("6b", "BM_StalledNetwork", None, "plugin_rss_growth_mb", "queue_cap_mb",
     "  the same",
     "the queue's cap", megabytes),
    ("7", "BM_DestinationsCpu", None, "three_cpu_s_per_min", "one_cpu_s_per_min",
     "process CPU per streamed minute, three destinations",
     "the same output with one destination", cpu_seconds_per_minute),
    ("8a", "BM_UiStall", None, "plugin_stall_ms", "host_stall_ms",
     "UI event loop's longest stall: vertical start, stop, profile switch, exit",
     "host's own Start/Stop Streaming", milliseconds_1),
    ("8b", "BM_UiStall", None, "plugin_stall_ms", "goal_ms",
     "  the same",
     "goal", milliseconds_1),
    ("8c", "BM_UiStall", None, "live_stall_ms", "host_stall_ms",
     "  profile switch and exit while the vertical stream is live",
     "host's own Start/Stop Streaming", milliseconds_1),
    ("9a", "BM_PictureQuality", None, "new_ssim", "host_ssim",
     "picture quality at the server (SSIM), x264 as the plug-in sets it",
     "the host's own stream's x264 settings", ssim),
    ("9b", "BM_PictureQuality", None, "new_ssim", "old_ssim",
     "  the same",
     "the former settings (tune zerolatency)", ssim),
    ("10a", "BM_LayoutRender", None, "cover_net_cpu_ms", "host_net_cpu_ms",
     "renderer CPU per frame, vertical canvas, cover layout (less the idle host)",
     "the host's canvas, same scene and pixels", milliseconds_1),
    ("10b", "BM_LayoutRender", None, "fit_net_cpu_ms", "cover_net_cpu_ms",
     "  fit layout, blurred background",
     "the cover layout (10a)", milliseconds_1),
    ("10c", "BM_LayoutRender", None, "stack_net_cpu_ms", "cover_net_cpu_ms",
     "  stack layout",
     "the cover layout (10a)", milliseconds_1),
    ("10d", "BM_LayoutRender", None, "fade_net_cpu_ms", "cover_net_cpu_ms",
     "  during a fade between two cover scenes",
     "the cover layout (10a)", milliseconds_1),
    ("11a", "BM_RealProgramCpu", None, "hidden_cpu_s", "host_cpu_s",
     "the real obs idle, CPU per minute: plug-in's dock hidden",
     "the same obs without the plug-in", seconds_per_minute),
    ("11b", "BM_RealProgramCpu", None, "shown_cpu_s", "host_cpu_s",
     "  the same, its dock shown", "the same obs without the plug-in", seconds_per_minute),
    ("11c", "BM_RealProgramCpu", None, "streaming_cpu_s", "host_cpu_s",
     "  the same, streaming the vertical canvas", "the same obs without the plug-in (idle)", seconds_per_minute),
    ("11d", "BM_RealProgramCpu", None, "shown_displays_ms_per_mpx", "host_displays_ms_per_mpx",
     "  drawing the displays, per frame and million pixels shown",
     "the host's preview alone", milliseconds_1),
]

# Rows whose ratios are close to 1 and need more digits.
FINE_RATIOS = {"9a", "9b"}


def base_name(run_name):
    return run_name.split("/")[0]


def load_runs(paths):
    """{run name: (list of counter dicts of the successful repetitions, errors)}."""
    entries = []
    for path in paths:
        with open(path, encoding="utf-8") as file:
            entries += json.load(file).get("benchmarks", [])
    runs = {}
    medians = {}
    for entry in entries:
        name = entry.get("run_name", entry.get("name", ""))
        ok, errors = runs.setdefault(name, ([], []))
        if entry.get("run_type") == "aggregate":
            if entry.get("aggregate_name") == "median":
                medians[name] = entry
            continue
        if entry.get("error_occurred"):
            errors.append(entry.get("error_message", "failed"))
        else:
            ok.append(entry)
    # Only aggregates in the file (--benchmark_report_aggregates_only): use the medians.
    for name, entry in medians.items():
        if not runs[name][0]:
            runs[name][0].append(entry)
    return runs


def find_run(runs, benchmark, argument):
    for name in runs:
        if base_name(name) != benchmark:
            continue
        if argument and argument not in name.split("/"):
            continue
        return name
    return None


def median_of(entries, counter):
    values = [entry[counter] for entry in entries if counter in entry]
    return statistics.median(values) if values else None


def table(runs):
    header = ("#", "figure", "plug-in", "reference", "reference is", "ratio", "runs")
    lines = []
    notes = []
    for row, benchmark, argument, mine, theirs, what, reference, formatter in ROWS:
        name = find_run(runs, benchmark, argument)
        if name is None:
            continue
        entries, errors = runs[name]
        for error in errors:
            notes.append(f"row {row}: a repetition of {name} failed: {error}")
        plugin = median_of(entries, mine)
        ref = median_of(entries, theirs)
        if plugin is None or ref is None:
            lines.append((row, what, "n/a", "n/a", reference, "n/a", str(len(entries))))
            continue
        if ref == 0:
            ratio = "n/a"
        elif row == "5b":
            ratio = f"{plugin / ref * 100:.1f} %"
        else:
            ratio = f"{plugin / ref:.3f}" if row in FINE_RATIOS else f"{plugin / ref:.2f}"
        lines.append((row, what, formatter(plugin), formatter(ref), reference, ratio, str(len(entries))))

    widths = [max(len(line[i]) for line in [header] + lines) for i in range(len(header))]
    right = {2, 3, 5, 6}

    def render(line):
        cells = [cell.rjust(widths[i]) if i in right else cell.ljust(widths[i]) for i, cell in enumerate(line)]
        return "  ".join(cells).rstrip()

    out = [render(header), "  ".join("-" * width for width in widths)]
    out += [render(line) for line in lines]
    return out, notes


def details(runs):
    """Figures that explain a row without being compared."""
    out = []
    name = find_run(runs, "BM_PacketPath", None)
    if name and runs[name][0]:
        entries = runs[name][0]
        out.append("row 1: of the plug-in's cost, its encoder-thread callback "
                   f"{microseconds_from_ns(median_of(entries, 'plugin_callback_cpu_ns'))} and its stream thread "
                   f"{microseconds_from_ns(median_of(entries, 'plugin_thread_cpu_ns'))}; the host's send thread "
                   f"{microseconds_from_ns(median_of(entries, 'host_thread_cpu_ns'))}; the packet-carrying "
                   f"threads with an output that drops every packet: "
                   f"{microseconds_from_ns(median_of(entries, 'null_cpu_ns'))} (subtracted from both)")
    name = find_run(runs, "BM_StalledNetwork", None)
    if name and runs[name][0]:
        entries = runs[name][0]
        out.append("row 2: callback CPU time, longest: "
                   f"{median_of(entries, 'stall_cpu_max_us'):.0f} µs stalled, "
                   f"{median_of(entries, 'flowing_cpu_max_us'):.0f} µs before")
        out.append(f"row 6: the plug-in's queue held at most {median_of(entries, 'plugin_queue_max_mb'):.2f} MB")
    name = find_run(runs, "BM_HungServerCallback", None)
    if name and runs[name][0]:
        entries = runs[name][0]
        out.append("row 2c: 99th percentile "
                   f"{milliseconds_from_us(median_of(entries, 'hung_p99_us'))}, longest callback CPU time "
                   f"{median_of(entries, 'hung_cpu_max_us'):.0f} µs; the same stream flowing to nginx: longest "
                   f"{milliseconds_from_us(median_of(entries, 'flowing_max_us'))}, 99th percentile "
                   f"{milliseconds_from_us(median_of(entries, 'flowing_p99_us'))}")
    name = find_run(runs, "BM_ReconnectToKeyframe", None)
    if name and runs[name][0]:
        entries = runs[name][0]
        out.append("row 4: the plug-in tries again 250 ms after the loss (then 0.25, 0.5, 0.5, 1, 1, 2 ... 5 s) and starts "
                   "the new connection with the newest keyframe it kept; the host waits RetryDelay 2 s "
                   "(x1.5 per further try, MaxRetries 25) and restarts its encoders")
        out.append(f"row 4: the loss was noticed after {median_of(entries, 'plugin_notice_ms'):.0f} ms (plug-in), "
                   f"{median_of(entries, 'host_notice_ms'):.0f} ms (host)")
    name = find_run(runs, "BM_PipelineCpu", None)
    if name and runs[name][0]:
        entries = runs[name][0]
        out.append(f"row 5: the same process with nothing streaming: "
                   f"{median_of(entries, 'idle_cpu_s_per_min'):.2f} s/min")
    name = find_run(runs, "BM_UiStall", None)
    if name and runs[name][0]:
        entries = runs[name][0]

        def ms(counter):
            return milliseconds_1(median_of(entries, counter))

        out.append(f"row 8: longest stall per phase: vertical start {ms('start_ms')}, stop {ms('stop_ms')}, "
                   f"profile switch {ms('switch_ms')} (the whole switch with the host's video reset "
                   f"{ms('switch_loop_ms')}), exit {ms('exit_ms')}; while live: profile switch "
                   f"{ms('switch_live_ms')} (whole {ms('switch_live_loop_ms')}), exit {ms('exit_live_ms')}")
        out.append(f"row 8: the host's Start Streaming {ms('host_start_ms')}, Stop Streaming {ms('host_stop_ms')}; "
                   f"the loop with nothing to do {ms('idle_ms')}; the host's renderer "
                   f"{ms('render_frame_ms')} per frame")
        if "after_loop_ms" in entries[0]:
            out.append(f"row 8: once the host's loop has ended at exit, its docks deleted and the plug-in "
                       f"unloaded: {ms('after_loop_ms')} (while live {ms('after_loop_live_ms')})")
    name = find_run(runs, "BM_PictureQuality", None)
    if name and runs[name][0]:
        entries = runs[name][0]

        def each(suffix, formatter):
            return ", ".join(f"{label} {formatter(median_of(entries, key + suffix))}"
                             for key, label in (("old", "former"), ("new", "plug-in"), ("host", "host's")))

        out.append(f"row 9: SSIM {each('_ssim', ssim_db)}; PSNR {each('_psnr_db', lambda v: f'{v:.2f} dB')}")
        out.append(f"row 9: video received {each('_kbps', lambda v: f'{v:.0f} kb/s')} "
                   f"(asked: {median_of(entries, 'bitrate_kbps'):.0f} kb/s); "
                   f"{median_of(entries, 'frames_compared'):.0f} frames of {median_of(entries, 'width'):.0f} x "
                   f"{median_of(entries, 'height'):.0f} at {median_of(entries, 'fps'):.0f} fps compared")
        repeats = median_of(entries, "canvas_repeats_pct")
        if repeats is not None:
            out.append(f"row 9: the canvas's renderer repeated {repeats:.1f} % of its frames when it fell behind; "
                       "the repeats were left out")
    name = find_run(runs, "BM_LayoutRender", None)
    if name and runs[name][0]:
        entries = runs[name][0]
        configs = ("baseline", "host", "cover", "fit", "stack", "fade")

        def each(suffix, formatter, names=configs):
            return ", ".join(f"{config} {formatter(median_of(entries, config + suffix))}" for config in names)

        def percent(value):
            return f"{value:.0f} %"

        out.append(f"row 10: renderer CPU per frame as measured: {each('_cpu_ms', milliseconds_1)}")
        out.append(f"row 10: the graphics loop's wall time per frame (libobs's average): "
                   f"{each('_frame_ms', milliseconds_1)}; less the baseline: "
                   f"{each('_net_frame_ms', milliseconds_1, configs[1:])}")
        out.append(f"row 10: frames the renderer missed: {each('_lagged_pct', percent)}; frames the output's "
                   f"video dropped for want of room: {each('_skipped_pct', percent, configs[1:])}; "
                   f"load average {median_of(entries, 'load_avg'):.1f}")
    name = find_run(runs, "BM_RealProgramCpu", None)
    if name and runs[name][0]:
        entries = runs[name][0]

        def each(suffix, formatter):
            return ", ".join(f"{case} {formatter(median_of(entries, case + suffix))}"
                             for case in ("host_off", "host", "hidden", "shown", "streaming"))

        out.append(f"row 11: CPU per minute: {each('_cpu_s', seconds_per_minute)} (host_off: without the "
                   "plug-in, the host's preview off)")
        out.append(f"row 11: the host's profiler, render_displays per frame (median): "
                   f"{each('_displays_ms', lambda v: f'{v:.2f} ms')}")
        out.append(f"row 11: pixels shown by the host's preview: {each('_host_px', lambda v: f'{v:.0f}')}; "
                   f"by the plug-in's: {each('_plugin_px', lambda v: f'{v:.0f}')}")
    return out


def main(argv):
    if len(argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    runs = load_runs(argv[1:])
    lines, notes = table(runs)
    print()
    print("==== plug-in beside its reference (medians; ratio = plug-in / reference) ====")
    for line in lines:
        print(line)
    extra = details(runs) + notes
    if extra:
        print()
        for line in extra:
            print(line)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

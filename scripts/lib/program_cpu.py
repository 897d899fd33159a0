"""What the plug-in costs the real obs program while it idles, measured as a user runs it.

    python3 scripts/lib/program_cpu.py --build-dir build/native [--out RESULTS.json]

Each round starts the real obs under a private X server once per case, in an order that
turns from round to round, with the profile the demo makes: the host's canvas 1920x1080 at
30 fps showing a three-colour scene, the vertical canvas 1080x1920 with one vertical scene
showing that scene. After a warm-up it reads the CPU time of the whole obs process (every
thread, the software renderer's included) over the measuring time, then closes obs and
reads the host's own profiler lines from its log. The cases:

  host-off    obs without the plug-in, its preview off
  host        obs without the plug-in (its preview on)
  hidden      with the plug-in, its dock hidden (the host's saved layout has it closed)
  shown       with the plug-in, its dock shown (as on a first start)
  streaming   as shown, streaming the vertical canvas to a local nginx-rtmp

The displays' sizes are read from the X server: every display libobs draws into is a
window of its own without a name.

Results go to stdout and, with --out, to a JSON file in Google Benchmark's layout (one
repetition per round) for scripts/lib/bench_table.py.
"""

import argparse
import base64
import json
import os
import re
import statistics
import sys
import time

from Xlib import X, display as xdisplay  # Debian's python3-xlib

from demo import vendor
from obs_session import PLUGIN, ObsSession
from rtmp_server import RtmpServer

CASES = ("host-off", "host", "hidden", "shown", "streaming")
SCENES = {"Scenes": {"count": 1, "activescene": "Vertical", "scene_0_name": "Vertical", "scene_0_source": "Main"}}
DOCK_TITLE = "Vertical Canvas"


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def displays(session):
    """Pixels of the mapped displays: (the host's, the plug-in's preview's)."""
    d = xdisplay.Display(session.display)
    d.set_error_handler(lambda *_: None)
    host, plugin = 0, 0
    try:
        def walk(window, in_dock):
            nonlocal host, plugin
            try:
                children = window.query_tree().children
                name = window.get_wm_name() or ""
            except Exception:  # gone while we look
                return
            in_dock = in_dock or name == DOCK_TITLE
            # A display's window has no name and no children. Only the topmost of
            # siblings counts: the host's older libobs leaves a display's window behind
            # when the display goes, under the next one's.
            leaves = []
            for child in children:
                try:
                    if not child.query_tree().children and not child.get_wm_class() and \
                            child.get_attributes().map_state == X.IsViewable:
                        leaves.append(child)
                        continue
                except Exception:
                    continue
                walk(child, in_dock)
            if leaves:
                geometry = leaves[-1].get_geometry()
                if in_dock:
                    plugin += geometry.width * geometry.height
                else:
                    host += geometry.width * geometry.height

        main = session.main_window()
        if main:
            walk(d.create_resource_object("window", main), False)
        # A floating dock is a window of its own.
        for wid, cls, title in session._windows(top_level_only=True):
            if title == DOCK_TITLE:
                walk(d.create_resource_object("window", wid), True)
    finally:
        d.close()
    return host, plugin


def profiler_median(log, name):
    """The median (ms) of a line of the host's profiler, e.g. render_displays."""
    # The host puts a no-break space before each unit.
    found = re.findall(rf"{re.escape(name)}: min=[\d.]+\s*ms, median=([\d.]+)\s*ms", log)
    return float(found[-1]) if found else None


def hide_dock(session):
    """Closes the dock in the layout the host saved at its last exit, as a user who closed
    it leaves it: its entry's visible flag (the byte after its name) cleared."""
    name = PLUGIN.encode("utf-16-be")
    for file in ("global.ini", "user.ini"):
        path = session.obs_config / file
        if not path.exists():
            continue
        lines = path.read_text().splitlines()
        for i, line in enumerate(lines):
            if line.startswith("DockState="):
                state = bytearray(base64.b64decode(line.split("=", 1)[1]))
                at = state.find(name)
                if at < 0:
                    raise RuntimeError("the host's saved layout has no dock of the plug-in")
                state[at + len(name)] &= 0xFE
                lines[i] = "DockState=" + base64.b64encode(bytes(state)).decode()
        path.write_text("\n".join(lines) + "\n")


def run_case(build_dir, case, warmup, seconds, server):
    plugin = case not in ("host-off", "host")
    settings = {"rtmpurl": server.app_url, "streamkey": "vertical"}
    with ObsSession(build_dir, base_size=(1920, 1080), global_settings=SCENES, profile_settings=settings) as obs:
        if plugin:
            obs.prepare()
        else:
            obs.write_home()
        if case == "hidden":
            # The host saves its layout, with the dock, at its first exit.
            obs.start()
            obs.wait_ready()
            time.sleep(3)
            obs.close()
            hide_dock(obs)
        if case == "host-off":
            for file in ("global.ini", "user.ini"):
                path = obs.obs_config / file
                path.write_text(path.read_text().replace("PreviewEnabled=true", "PreviewEnabled=false"))
        obs.start()
        obs.wait_ready()
        if case == "streaming":
            if not vendor(obs, "StartStreaming").get("ok"):
                raise RuntimeError("the vertical stream did not start")
        time.sleep(warmup)
        host_px, plugin_px = displays(obs)
        before, started = cpu_seconds(obs.obs.pid), time.monotonic()
        time.sleep(seconds)
        used = cpu_seconds(obs.obs.pid) - before
        elapsed = time.monotonic() - started
        if case == "streaming":
            if not vendor(obs, "GetStatus").get("streaming"):
                raise RuntimeError("the vertical stream was not live while measured")
            vendor(obs, "StopStreaming")
            time.sleep(2)
        obs.close()
        log = obs.log_text()
        return {"cpu": used * 60 / elapsed, "displays_ms": profiler_median(log, "render_displays"),
                "host_px": host_px, "plugin_px": plugin_px}


def counters(results):
    """One repetition's counters from {case: figures}."""
    out = {f"{case.replace('-', '_')}_cpu_s": results[case]["cpu"] for case in CASES}
    # The host's profiler's time per frame for drawing every display, per million pixels
    # they show: the host's preview alone, and with the dock's beside it.
    def per_mpx(case):
        figures = results[case]
        pixels = (figures["host_px"] + figures["plugin_px"]) / 1e6
        return (figures["displays_ms"] or 0.0) / pixels if pixels else 0.0

    out["host_displays_ms_per_mpx"] = per_mpx("host")
    out["shown_displays_ms_per_mpx"] = per_mpx("shown")
    for case in CASES:
        out[f"{case.replace('-', '_')}_displays_ms"] = results[case]["displays_ms"] or 0.0
        out[f"{case.replace('-', '_')}_host_px"] = results[case]["host_px"]
        out[f"{case.replace('-', '_')}_plugin_px"] = results[case]["plugin_px"]
    return out


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--rounds", type=int, default=2)
    parser.add_argument("--warmup", type=float, default=20)
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--out", help="write the results here (Google Benchmark's JSON layout)")
    args = parser.parse_args()

    server = RtmpServer().start()
    repetitions = []
    try:
        for round_number in range(args.rounds):
            # Each round in another order, so that a slow spell of the machine falls on
            # different cases.
            shift = round_number % len(CASES)
            order = CASES[shift:] + CASES[:shift]
            if round_number % 2:
                order = tuple(reversed(order))
            results = {}
            for case in order:
                results[case] = run_case(args.build_dir, case, args.warmup, args.seconds, server)
                figures = results[case]
                print(f"round {round_number + 1} {case:9s}: {figures['cpu']:5.1f} CPU s/min, displays "
                      f"{figures['displays_ms'] or 0:.2f} ms/frame, {figures['host_px']} + {figures['plugin_px']} "
                      "px shown", flush=True)
            repetitions.append(counters(results))
    finally:
        server.stop()

    print("\nmedians over the rounds (CPU s per minute of the obs process):")
    host = statistics.median(r["host_cpu_s"] for r in repetitions)
    for case in CASES:
        value = statistics.median(r[f"{case.replace('-', '_')}_cpu_s"] for r in repetitions)
        print(f"  {case:9s} {value:6.1f}  ({value / host:.2f}x the host without the plug-in)")
    if args.out:
        with open(args.out, "w", encoding="utf-8") as file:
            json.dump({"benchmarks": [dict(name="BM_RealProgramCpu", run_name="BM_RealProgramCpu",
                                           run_type="iteration", repetition_index=i, **r)
                                      for i, r in enumerate(repetitions)]}, file, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())

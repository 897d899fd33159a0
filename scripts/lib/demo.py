"""Runs obs with the freshly built plug-in and streams both canvases (see scripts/demo).

A local nginx RTMP server receives the main stream and, unless --url points elsewhere, the
vertical one (or, with --srt, a local SRT listener does). The main stream is started as a
user would; the vertical stream follows it. Afterwards every stream the local servers
received is probed and summed up."""

import argparse
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import media_probe
from obs_session import LOG_TAG, PLUGIN, ObsError, ObsSession
from rtmp_server import RtmpServer, RtmpServerError


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class SrtListener:
    """ffmpeg as an SRT listener that stores the MPEG-TS it receives."""

    def __init__(self, folder):
        self.port = free_udp_port()
        self.path = Path(folder) / "vertical.ts"
        self.proc = subprocess.Popen(
            ["ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-i",
             f"srt://127.0.0.1:{self.port}?mode=listener", "-map", "0", "-c", "copy", "-f", "mpegts",
             str(self.path)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    @property
    def url(self):
        return f"srt://127.0.0.1:{self.port}"

    def stop(self):
        if self.proc.poll() is None:
            try:
                self.proc.wait(10)  # ends by itself once the caller has gone
            except subprocess.TimeoutExpired:
                self.proc.terminate()
                self.proc.wait()


def on_this_machine(path):
    """A path as it is seen outside the modern host's chroot (CV_DEMO_ROOT names the chroot)."""
    root = os.environ.get("CV_DEMO_ROOT", "")
    path = str(path)
    repo = str(Path(__file__).resolve().parents[2])
    # The repository is mounted at the same path inside; everything else lies under the root.
    return path if not root or path.startswith(repo + "/") or path == repo else root.rstrip("/") + path


def vendor(obs, kind):
    return obs.request("CallVendorRequest", {"vendorName": PLUGIN, "requestType": kind})["responseData"]


def streams_live(obs):
    """Whether the main and the vertical stream are live, as OBS and the plug-in report them."""
    main = obs.request("GetStreamStatus").get("outputActive", False)
    destinations = vendor(obs, "GetStatus").get("destinations", [])
    vertical = any(destination.get("state") == "live" for destination in destinations)
    return main, vertical


def wait_live(obs, timeout):
    deadline = time.monotonic() + timeout
    while True:
        main, vertical = streams_live(obs)
        if (main and vertical) or time.monotonic() > deadline:
            return main, vertical
        time.sleep(0.25)


def summary(title, files, remote=None):
    print(f"{title}:")
    if remote:
        print(f"  sent to {remote} (not checked here)")
        return True
    if not files:
        print("  nothing received")
        return False
    ok = True
    for path in files:
        info = media_probe.probe(path)
        state = "decodes cleanly" if info["ok"] and not info.get("decode_errors") else "DECODE ERRORS"
        ok = ok and state == "decodes cleanly"
        print(f"  {media_probe.describe(info)}; {state}")
        print(f"  {on_this_machine(path)}")
    return ok


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--seconds", type=float, default=20, help="how long both streams run (default 20)")
    parser.add_argument("--width", type=int, default=1080, help="vertical canvas width (default 1080)")
    parser.add_argument("--height", type=int, default=1920, help="vertical canvas height (default 1920)")
    parser.add_argument("--srt", action="store_true", help="send the vertical stream over SRT")
    parser.add_argument("--url", help="send the vertical stream to this ingest URL instead")
    parser.add_argument("--key", default="", help="stream key for --url")
    parser.add_argument("--display", help="X display to show obs on (default: a private Xvfb)")
    parser.add_argument("--out", help="folder for recordings, logs and the screenshot (default: a new one)")
    args = parser.parse_args()

    out = Path(args.out or tempfile.mkdtemp(prefix="cv-demo-"))
    out.mkdir(parents=True, exist_ok=True)
    server = RtmpServer(root=out / "rtmp", keep=True).start()
    srt = SrtListener(out) if args.srt and not args.url else None
    if args.url:
        vertical_url, vertical_key = args.url, args.key
    elif srt:
        vertical_url, vertical_key = srt.url, ""
    else:
        vertical_url, vertical_key = server.app_url, "vertical"

    settings = {"rtmpurl": vertical_url, "streamkey": vertical_key, "canvaswidth": args.width,
                "canvasheight": args.height, "autostartwithmain": "true"}
    # One vertical scene showing the sample scene "Main", so the vertical stream has a picture.
    scenes = {"Scenes": {"count": 1, "activescene": "Vertical", "scene_0_name": "Vertical",
                         "scene_0_source": "Main"}}
    shot = out / "main-window.png"
    try:
        with ObsSession(args.build_dir, root=out / "obs-home", keep=True, use_display=args.display,
                        stream=(server.app_url, "main"), profile_settings=settings,
                        global_settings=scenes) as obs:
            obs.prepare().start()
            version = obs.wait_ready()
            print(f"obs {version.get('obsVersion')} is running on display {obs.display}")
            if not obs.wait_for_log(f"{LOG_TAG} Vertical Canvas dock registered", timeout=30):
                print("The plug-in did not load; its log lines follow.", file=sys.stderr)
            obs.request("StartStream")
            # What OBS and the plug-in report through the websocket, not what their logs say.
            main_live, vertical_live = wait_live(obs, timeout=30)
            print("main stream " + ("live" if main_live else "DID NOT START") + "; vertical stream " +
                  ("live" if vertical_live else "DID NOT START"))
            started = time.monotonic()
            time.sleep(min(5, args.seconds / 2))  # the screenshot is taken well within the time
            try:
                obs.screenshot(shot)
            except Exception as error:  # a screenshot is a nicety, not the job
                print(f"(no screenshot: {error})")
                shot = None
            time.sleep(max(0.0, args.seconds - (time.monotonic() - started)))
            streamed = time.monotonic() - started
            obs.request("StopStream")
            deadline = time.monotonic() + 15
            while any(streams_live(obs)) and time.monotonic() < deadline:
                time.sleep(0.25)
            print(f"both streams ran {streamed:.1f} s")
            code = obs.close()
            print(f"obs closed with exit code {code}\n")
            log = obs.log_text()
            logs = obs.obs_config / "logs"
    finally:
        if srt:
            srt.stop()
        server.stop()

    print("Plug-in log lines:")
    for line in log.splitlines():
        if LOG_TAG in line:
            print("  " + line)
    leaks = [line for line in log.splitlines() if "Number of memory leaks" in line]
    print()
    main_ok = summary("Main stream (nginx-rtmp)", server.recordings("main"))
    if srt:
        vertical_ok = summary("Vertical stream (SRT)", [srt.path] if srt.path.exists() else [])
    else:
        vertical_ok = summary(f"Vertical stream ({args.width}x{args.height})", server.recordings("vertical"),
                              remote=args.url)
    print()
    print("Host: " + (leaks[-1].split(": ", 1)[-1] if leaks else "no shutdown report in the log"))
    print(f"Host log folder: {on_this_machine(logs)}")
    if shot:
        print(f"Screenshot of the main window with the dock: {on_this_machine(shot)}")
    print(f"Everything is kept under {on_this_machine(out)}")
    loaded = f"{LOG_TAG} Loaded successfully" in log and f"{LOG_TAG} Unloaded" in log
    ok = loaded and main_live and vertical_live and main_ok and vertical_ok and code == 0
    if not ok:
        print("demo: " + ", ".join(what for what, good in [
            ("the plug-in did not load and unload", loaded), ("the main stream did not start", main_live),
            ("the vertical stream did not start", vertical_live), ("the main stream does not decode", main_ok),
            ("the vertical stream does not decode", vertical_ok), (f"obs exited with {code}", code == 0)]
            if not good), file=sys.stderr)
    return 0 if ok else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (ObsError, RtmpServerError) as error:
        print(f"demo: {error}", file=sys.stderr)
        sys.exit(1)

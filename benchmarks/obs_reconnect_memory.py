#!/usr/bin/python3
"""obs's resident memory while nginx is killed and started again under its streams: the real
program with the plug-in installed from a build folder, its main stream (640x360) and the
vertical stream (1080x1920, two destinations). Prints the resident memory before the first
kill and 10 s after each restart. A measurement by hand, not a test (docs/reliability.md,
"Memory per reconnect").

  benchmarks/obs_reconnect_memory.py --build-dir build/native
  scripts/modern-host benchmarks/obs_reconnect_memory.py --build-dir build/modern

--main-elsewhere sends the main stream to a second nginx that is never killed, so only the
vertical stream reconnects; --vertical-off leaves the vertical stream stopped; --no-plugin
runs obs without the plug-in.
"""

import argparse
import shutil
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "scripts" / "lib"))

from obs_session import ObsSession  # noqa: E402
from rtmp_server import RtmpServer  # noqa: E402


def resident_mb(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    return 0.0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--kills", type=int, default=15)
    parser.add_argument("--period", type=float, default=12, help="seconds from one kill to the next")
    parser.add_argument("--down", type=float, default=2, help="seconds nginx stays down")
    parser.add_argument("--main-elsewhere", action="store_true")
    parser.add_argument("--vertical-off", action="store_true")
    parser.add_argument("--no-plugin", action="store_true")
    args = parser.parse_args()

    servers = [RtmpServer().start()]
    if args.main_elsewhere:
        servers.append(RtmpServer().start())
    killed, main = servers[0], servers[-1]
    url = killed.app_url
    obs = ObsSession(args.build_dir, stream=(main.app_url, "main"), profile_settings={
        "rtmpurl": url, "streamkey": "one", "autostartwithmain": "false" if args.vertical_off else "true",
        "canvaswidth": 1080, "canvasheight": 1920})
    try:
        obs.prepare()
        with open(obs.profile_dir / "corvane-vertical-canvas.ini", "a") as profile:
            profile.write(f"\n[Destination2]\nname=Two\nurl={url}\nkey=two\nenabled=true\n")
        if args.no_plugin:
            shutil.rmtree(obs.plugins_dir)
        obs.start().wait_ready()
        obs.request("StartStream")
        time.sleep(args.period)
        start = resident_mb(obs.obs.pid)
        print(f"before the first kill: {start:.1f} MB", flush=True)
        for kill in range(1, args.kills + 1):
            killed.proc.kill()
            killed.proc.wait()
            time.sleep(args.down)
            killed.start()
            time.sleep(args.period - args.down)
            reconnects = obs.log_text().count("Vertical stream reconnected")
            print(f"kill {kill}: {resident_mb(obs.obs.pid):.1f} MB, {reconnects} vertical reconnects", flush=True)
        print(f"grew by {resident_mb(obs.obs.pid) - start:.1f} MB", flush=True)
        obs.request("StopStream")
    finally:
        obs.shutdown()
        for server in servers:
            server.stop()


if __name__ == "__main__":
    main()

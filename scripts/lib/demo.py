"""Runs obs with the freshly built plug-in and reports what it did (see scripts/demo)."""

import argparse
import sys
import time

from obs_session import LOG_TAG, ObsError, ObsSession


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--display", help="X display to show obs on (default: a private Xvfb)")
    parser.add_argument("--keep", action="store_true", help="keep the throwaway OBS home")
    args = parser.parse_args()

    with ObsSession(args.build_dir, keep=args.keep, use_display=args.display) as obs:
        print(f"OBS home: {obs.root}" + ("" if args.keep else " (removed afterwards; --keep keeps it)"))
        obs.prepare().start()
        version = obs.wait_ready()
        print(f"obs {version.get('obsVersion')} is running on display {obs.display}")
        if not obs.wait_for_log(f"{LOG_TAG} Loaded successfully", timeout=10):
            print("The plug-in did not load; its log lines follow.", file=sys.stderr)
        time.sleep(args.seconds)
        shot = obs.root / "main-window.png"
        try:
            obs.screenshot(shot)
        except Exception as error:  # a screenshot is a nicety, not the job
            print(f"(no screenshot: {error})")
            shot = None
        code = obs.close()
        print(f"obs closed with exit code {code}\n")
        print("Plug-in log lines:")
        for line in obs.plugin_lines():
            print("  " + line)
        log = obs.log_text()
        leaks = [line for line in log.splitlines() if "Number of memory leaks" in line]
        print()
        print("Host: " + (leaks[-1].split(": ", 1)[-1] if leaks else "no shutdown report in the log"))
        if args.keep:
            print(f"Host log folder: {obs.obs_config / 'logs'}")
            if shot:
                print(f"Screenshot: {shot}")
        loaded = f"{LOG_TAG} Loaded successfully" in log and f"{LOG_TAG} Unloaded" in log
        return 0 if loaded else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except ObsError as error:
        print(f"demo: {error}", file=sys.stderr)
        sys.exit(1)

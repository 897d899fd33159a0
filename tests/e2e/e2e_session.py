"""What the end-to-end tests need on top of the demo's obs session: a ready obs per test,
typing and closing windows as a user does, and telling the newest host's own crashes at
exit apart from ours."""

import argparse
import functools
import json
import os
import resource
import shutil
import signal
import subprocess
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts" / "lib"))

from obs_session import COLLECTION, PLUGIN, ObsError, ObsSession, known_host_crash  # noqa: E402
from Xlib import X, XK, display as xdisplay  # noqa: E402
from Xlib.ext import xtest  # noqa: E402

ARGS = argparse.Namespace(build_dir=None)
KEEP = bool(os.environ.get("CV_TEST_KEEP"))
DOCK = "Vertical Canvas"
VENDOR = "corvane-vertical-canvas"
NOTICE = "Vertical Canvas — Stream Error"


class HostCrash(ObsError):
    """obs ended in one of the host's own crashes at exit, told apart by its backtrace."""


def retry_after_host_crash(test):
    """Runs a test once more when its obs ended in one of the host's own known crashes."""
    @functools.wraps(test)
    def run(self, *args, **kwargs):
        try:
            return test(self, *args, **kwargs)
        except HostCrash as crash:
            print(f"{crash}; the test runs once more", file=sys.stderr)
            return test(self, *args, **kwargs)
    return run


def assignments(scenes):
    """GetStatus's scenes as (vertical scene, OBS scene) pairs, leaving their layouts aside."""
    return [(scene["sceneName"], scene["hostSceneName"]) for scene in scenes]


def wait_until(done, timeout=30):
    deadline = time.monotonic() + timeout
    while not done():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.25)
    return True


def start_obs(test, **kwargs):
    """An obs that answers requests, ended with the test."""
    obs = E2eSession(**kwargs)
    test.addCleanup(obs.shutdown)
    obs.prepare().start().wait_ready()
    return obs


def _allow_core_files():
    _, hard = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (hard, hard))


class E2eSession(ObsSession):
    def __init__(self, **kwargs):
        kwargs.setdefault("keep", KEEP)
        super().__init__(ARGS.build_dir, **kwargs)
        self.preexec = _allow_core_files

    def close(self, *args, **kwargs):
        code = super().close(*args, **kwargs)
        known = self.known_host_crash() if code == -signal.SIGSEGV else None
        if known:
            raise HostCrash(f"obs crashed in its own shutdown: {known} (backtrace in {self.root})")
        return code

    def known_host_crash(self):
        return known_host_crash(self.home, self.root, shutil.which("obs"))

    def vendor(self, kind, data=None, replies=None):
        """One of the plug-in's websocket requests; its reply (kept in `replies` if given)."""
        request = {"vendorName": VENDOR, "requestType": kind}
        if data:  # the server refuses an empty object
            request["requestData"] = data
        reply = self.request("CallVendorRequest", request)["responseData"]
        if replies is not None:
            replies.append(json.dumps(reply))
        return reply

    def saved_vertical_scenes(self):
        """The vertical scenes as the host last saved them in the scene collection (None
        while the host replaces the file)."""
        try:
            collection = json.loads((self.obs_config / "basic" / "scenes" / f"{COLLECTION}.json").read_text())
        except (OSError, ValueError):
            return None
        return collection.get("modules", {}).get(VENDOR)

    def closes_at_once(self, timeout=60):
        """Asks obs to quit as a user does, at its main window only (again every few seconds,
        as the host may miss the first: OBS 32 let requests made in the seconds after a
        stream stopped go unanswered for up to 16 s here, with older builds of the plug-in
        too), and waits: True when it ended with every other window left as it was (nothing
        of the plug-in's held the quit up; a modal box would hold it for good)."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            wid = self.main_window()
            if wid is not None:
                self._send_delete(wid)
            try:
                self.obs.wait(5)
                return True
            except subprocess.TimeoutExpired:
                continue
        return False

    def press_keys(self, *chords, pause=0.3):
        """Types key chords, e.g. ("Alt_L", "t"), ("Up",), into the main window, focused
        first by a click on the empty right end of its menu bar (there is no window manager)."""
        d = xdisplay.Display(self.display)
        try:
            main = self.main_window()
            if main is not None:
                x, y, width, _ = self.window_geometry(main)
                xtest.fake_input(d, X.MotionNotify, x=x + width * 9 // 10, y=y + 8)
                xtest.fake_input(d, X.ButtonPress, 1)
                xtest.fake_input(d, X.ButtonRelease, 1)
                d.create_resource_object("window", main).set_input_focus(X.RevertToParent, X.CurrentTime)
                d.sync()
                time.sleep(pause)
            for chord in chords:
                codes = [d.keysym_to_keycode(XK.string_to_keysym(name)) for name in chord]
                for code in codes:
                    xtest.fake_input(d, X.KeyPress, code)
                for code in reversed(codes):
                    xtest.fake_input(d, X.KeyRelease, code)
                d.sync()
                time.sleep(pause)
        finally:
            d.close()

    def wait_for_window(self, title, timeout=15):
        """The id of a viewable top-level window with exactly this title, or None."""
        def find():
            return next((wid for wid, _, found in self._windows(top_level_only=True) if found == title), None)
        wait_until(lambda: find() is not None, timeout)
        return find()

    def close_window(self, wid, title, timeout=15):
        """Closes a window as a user does (WM_DELETE_WINDOW), asking again every few seconds;
        True once no window of that title is left."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            self._send_delete(wid)
            if wait_until(lambda: self.wait_for_window(title, timeout=0) is None, 3):
                return True
        return False

    def expect_clean_close(self, test):
        """Exit code 0, and the host's own count of what was not freed is 0."""
        test.assertEqual(self.close(), 0)
        test.assertIn("Number of memory leaks: 0", self.log_text())


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build-dir", required=True)
    args, rest = parser.parse_known_args()
    ARGS.build_dir = args.build_dir
    unittest.main(module="__main__", argv=[sys.argv[0]] + rest, verbosity=2)

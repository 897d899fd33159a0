"""What the end-to-end tests need on top of the demo's obs session: typing and closing
windows as a user does, telling the newest host's own shutdown crashes apart from ours,
and running a test file's cases."""

import argparse
import functools
import os
import resource
import shutil
import signal
import subprocess
import sys
import time
import unittest
from pathlib import Path

LIB = Path(__file__).resolve().parents[2] / "scripts" / "lib"
sys.path.insert(0, str(LIB))

from obs_session import LOG_TAG, PLUGIN, ObsError, ObsSession  # noqa: E402,F401
from Xlib import X, XK, display as xdisplay  # noqa: E402
from Xlib.ext import xtest  # noqa: E402

ARGS = argparse.Namespace(build_dir=None)


class HostCrash(ObsError):
    """obs ended in one of the host's own shutdown crashes, told apart by its backtrace."""


def retry_after_host_crash(test):
    """Runs a test once more when its obs run ended in one of the host's own known
    shutdown crashes (see E2eSession.known_host_crash); every other failure stands."""
    @functools.wraps(test)
    def run(self, *args, **kwargs):
        try:
            return test(self, *args, **kwargs)
        except HostCrash as crash:
            print(f"{crash}; the test runs once more", file=sys.stderr)
            return test(self, *args, **kwargs)
    return run


def _allow_core_files():
    _, hard = resource.getrlimit(resource.RLIMIT_CORE)
    resource.setrlimit(resource.RLIMIT_CORE, (hard, hard))


class E2eSession(ObsSession):
    def __init__(self, **kwargs):
        kwargs.setdefault("keep", bool(os.environ.get("CV_TEST_KEEP")))
        super().__init__(ARGS.build_dir, **kwargs)
        self.preexec = _allow_core_files

    def close(self, *args, **kwargs):
        code = super().close(*args, **kwargs)
        known = self.known_host_crash() if code == -signal.SIGSEGV else None
        if known:
            raise HostCrash(f"obs crashed in its own shutdown: {known} (backtrace in {self.root})")
        return code

    def known_host_crash(self):
        """What crashed, when the core file obs left shows one of the newest host's own
        shutdown crashes, each also seen with no plug-in installed: a widget of its source
        list disconnecting from a source freed before it, or its websocket server's
        network thread. None for anything else, for a crash with a frame of the plug-in,
        and when there is no core file (the system may send cores elsewhere) or no gdb.
        The backtrace is kept beside the log; the core itself (hundreds of MB) is not."""
        cores = sorted(self.home.glob("core*"))
        gdb, obs = shutil.which("gdb"), shutil.which("obs")
        if not cores or not gdb or not obs:
            return None
        try:
            out = subprocess.run([gdb, "-batch", "-nx", "-ex", "bt 40", obs, str(cores[-1])],
                                 capture_output=True, text=True, timeout=300).stdout
        except subprocess.TimeoutExpired:
            return None
        frames = list(dict.fromkeys(line for line in out.splitlines() if line.startswith("#")))
        (self.root / "crash-backtrace.txt").write_text("\n".join(frames) + "\n")
        for core in cores:
            core.unlink()
        if not frames or any(PLUGIN in frame for frame in frames):
            return None
        if (any("signal_handler_disconnect" in frame for frame in frames[:3])
                and any("QObjectPrivate::deleteChildren" in frame for frame in frames[:6])):
            return "a source list widget disconnecting from a freed source"
        if "obs-websocket.so" in frames[0]:
            return "the websocket server's network thread"
        return None

    def press_keys(self, *chords, pause=0.3):
        """Types key chords on the X server as a user would, e.g. ("Alt_L", "t"), ("Up",).
        The main window gets the focus first: a click on the empty right end of its
        menu bar (there is no window manager to give it), then the X focus itself."""
        d = xdisplay.Display(self.display)
        try:
            main = self.main_window()
            if main is not None:
                x, y, width, _ = self.window_geometry(main)
                xtest.fake_input(d, X.MotionNotify, x=x + width * 9 // 10, y=y + 8)
                xtest.fake_input(d, X.ButtonPress, 1)
                xtest.fake_input(d, X.ButtonRelease, 1)
                d.sync()
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
        """The id of a viewable window with exactly this title, or None."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            for wid, _, found in self._windows(top_level_only=True):
                if found == title:
                    return wid
            time.sleep(0.2)
        return None

    def close_window(self, wid, title, timeout=15):
        """Closes a window as a user would (WM_DELETE_WINDOW) and waits until no window of
        that title is left; True when it went. The request is repeated every few seconds:
        on a loaded machine the first one has been seen to go unanswered."""
        deadline = time.monotonic() + timeout
        asked = 0.0
        while time.monotonic() < deadline:
            if self.wait_for_window(title, timeout=0.2) is None:
                return True
            if time.monotonic() - asked > 3:
                self._send_delete(wid)
                asked = time.monotonic()
            time.sleep(0.2)
        return self.wait_for_window(title, timeout=0.2) is None

    def expect_clean_close(self, test):
        """Closed as a user closes it: exit code 0, the plug-in unloaded, nothing leaked."""
        test.assertEqual(self.close(), 0)
        log = self.log_text()
        test.assertIn(f"{LOG_TAG} Unloaded", log)
        test.assertIn("Number of memory leaks: 0", log)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build-dir", required=True)
    args, rest = parser.parse_known_args()
    ARGS.build_dir = args.build_dir
    unittest.main(module="__main__", argv=[sys.argv[0]] + rest, verbosity=2)

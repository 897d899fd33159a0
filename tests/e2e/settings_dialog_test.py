#!/usr/bin/env python3
"""The Tools menu item of the real obs opens the settings dialog."""

import argparse
import os
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts" / "lib"))
from obs_session import LOG_TAG, ObsSession, retry_after_host_crash  # noqa: E402

ARGS = None
TITLE = "Vertical Canvas \u2014 Settings"


class SettingsDialog(unittest.TestCase):
    @retry_after_host_crash
    def test_tools_menu_item_opens_the_dialog(self):
        obs = ObsSession(ARGS.build_dir, keep=bool(os.environ.get("CV_TEST_KEEP")))
        self.addCleanup(obs.shutdown)
        obs.prepare().start()
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Loaded successfully"), obs.log_text()[-4000:])
        obs.wait_ready()

        # Tools (Alt+T), then upwards from the bottom of the menu, where the items of
        # plug-ins are: each try that opens another dialog is closed again.
        dialog = None
        for steps in range(1, 8):
            obs.press_keys(("Alt_L", "t"), *[("Up",)] * steps, ("Return",))
            dialog = obs.wait_for_window(TITLE, timeout=3)
            if dialog is not None:
                break
            for wid, _ in obs.dialogs():
                obs._send_delete(wid)
            obs.press_keys(("Escape",))
        artifacts = Path(ARGS.build_dir) / "test-artifacts"
        artifacts.mkdir(exist_ok=True)
        if dialog is None:
            obs.screenshot(artifacts / "settings-dialog-not-found.png")
        self.assertIsNotNone(dialog, f"no window titled {TITLE!r}; windows: {obs.windows()}; "
                             f"screen in {artifacts / 'settings-dialog-not-found.png'}")

        shot = obs.screenshot(artifacts / "settings-dialog.png", window=dialog)
        self.assertGreater(shot.stat().st_size, 1000)
        _, _, width, _ = obs.window_geometry(dialog)
        self.assertGreaterEqual(width, 440)

        # Closing it stores nothing and leaves the host running normally.
        self.assertTrue(obs.close_window(dialog, TITLE))
        self.assertEqual(obs.close(), 0)
        self.assertIn("Number of memory leaks: 0", obs.log_text())


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build-dir", required=True)
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)

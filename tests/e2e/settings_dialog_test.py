#!/usr/bin/env python3
"""The Tools menu item of the real obs opens the settings dialog."""

import unittest
from pathlib import Path

from e2e_session import ARGS, LOG_TAG, E2eSession, main, retry_after_host_crash

TITLE = "Vertical Canvas \u2014 Settings"


class SettingsDialog(unittest.TestCase):
    @retry_after_host_crash
    def test_tools_menu_item_opens_the_dialog(self):
        obs = E2eSession()
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
        self.assertIsNotNone(dialog, f"no window titled {TITLE!r}; windows: {obs.dialogs()}; "
                             f"screen in {artifacts / 'settings-dialog-not-found.png'}")
        shot = obs.screenshot(artifacts / "settings-dialog.png", window=dialog)
        self.assertGreater(shot.stat().st_size, 1000)

        # Closing it leaves the host running normally.
        self.assertTrue(obs.close_window(dialog, TITLE))
        obs.expect_clean_close(self)


if __name__ == "__main__":
    main()

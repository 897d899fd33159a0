#!/usr/bin/env python3
"""The Tools menu item of the real obs opens the settings dialog."""

import unittest
from pathlib import Path

from e2e_session import ARGS, DOCK, main, retry_after_host_crash, start_obs

TITLE = "Vertical Canvas \u2014 Settings"


class SettingsDialog(unittest.TestCase):
    @retry_after_host_crash
    def test_tools_menu_item_opens_the_dialog(self):
        obs = start_obs(self)
        self.assertIsNotNone(obs.wait_for_window(DOCK), "the plug-in did not load")
        # Tools (Alt+T), then upwards from the bottom of the menu, where the items of
        # plug-ins are; whatever else opens is closed again.
        for steps in range(1, 8):
            obs.press_keys(("Alt_L", "t"), *[("Up",)] * steps, ("Return",))
            dialog = obs.wait_for_window(TITLE, timeout=3)
            if dialog is not None:
                break
            for wid, title in obs.dialogs():
                if title != DOCK:
                    obs._send_delete(wid)
            obs.press_keys(("Escape",))
        artifacts = Path(ARGS.build_dir) / "test-artifacts"
        artifacts.mkdir(exist_ok=True)
        shot = obs.screenshot(artifacts / "settings-dialog.png", window=dialog)
        self.assertIsNotNone(dialog, f"no window {TITLE!r}; windows: {obs.dialogs()}; screen in {shot}")
        self.assertTrue(obs.close_window(dialog, TITLE))
        obs.expect_clean_close(self)


if __name__ == "__main__":
    main()

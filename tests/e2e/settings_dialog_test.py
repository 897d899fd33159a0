#!/usr/bin/env python3
"""The Tools menu item of the real obs opens the settings dialog; in German, the dock and
the dialog are German."""

import re
import shutil
import unittest
from pathlib import Path

from e2e_session import ARGS, main, retry_after_host_crash, start_obs

LANGUAGE = "de-DE"
TEXTS = dict(re.findall(r'^([\w.]+)="(.*)"$', (Path(__file__).resolve().parents[2] / "data" / "locale" /
                                               f"{LANGUAGE}.ini").read_text(encoding="utf-8"), re.M))
DOCK, TITLE = TEXTS["Dock.Title"], TEXTS["Settings.Title"]


def tools_menu_key():
    """The key that opens the host's Tools menu in this language ("&Werkzeuge" on newer hosts,
    "Werkzeuge (&T)" on older ones)."""
    host = Path(shutil.which("obs")).resolve().parents[1] / "share/obs/obs-studio/locale" / f"{LANGUAGE}.ini"
    tools = re.search(r'^Basic\.MainMenu\.Tools="(.*)"$', host.read_text(encoding="utf-8"), re.M)[1]
    return tools[tools.index("&") + 1].lower()


class SettingsDialog(unittest.TestCase):
    @retry_after_host_crash
    def test_tools_menu_item_opens_the_dialog(self):
        obs = start_obs(self, language=LANGUAGE)
        artifacts = Path(ARGS.build_dir) / "test-artifacts"
        artifacts.mkdir(exist_ok=True)
        # The dock in its place beside the host's docks, in the host's language.
        obs.screenshot(artifacts / f"dock-{LANGUAGE}.png", window=obs.main_window())
        # Tools (Alt and its key), then upwards from the bottom of the menu, where the items of
        # plug-ins are; whatever else opens is closed again.
        for steps in range(1, 8):
            obs.press_keys(("Alt_L", tools_menu_key()), *[("Up",)] * steps, ("Return",))
            dialog = obs.wait_for_window(TITLE, timeout=3)
            if dialog is not None:
                break
            for wid, title in obs.dialogs():
                if title != DOCK:
                    obs._send_delete(wid)
            obs.press_keys(("Escape",))
        shot = obs.screenshot(artifacts / f"settings-dialog-{LANGUAGE}.png", window=dialog)
        self.assertIsNotNone(dialog, f"no window {TITLE!r}; windows: {obs.dialogs()}; screen in {shot}")
        self.assertTrue(obs.close_window(dialog, TITLE))
        obs.expect_clean_close(self)


if __name__ == "__main__":
    main()

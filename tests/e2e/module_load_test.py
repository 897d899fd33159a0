#!/usr/bin/env python3
"""The real obs loads the plug-in, which keeps the dock's place and the vertical scenes
across a restart; a hand-edited canvas makes it refuse to load while the host carries on."""

import shutil
import unittest

from e2e_session import DOCK, PLUGIN, main, retry_after_host_crash, start_obs

SCENES = {"count": 2, "activescene": "Intro", "scene_0_name": "Intro", "scene_0_source": "Main",
          "scene_1_name": "Outro", "scene_1_source": ""}


class ModuleLoad(unittest.TestCase):
    @retry_after_host_crash
    def test_dock_and_scenes_come_back_after_a_restart(self):
        first = start_obs(self, keep=True)
        self.addCleanup(shutil.rmtree, first.root, ignore_errors=True)
        self.assertIsNotNone(first.wait_for_window(DOCK), "a first start shows the dock floating")
        first.expect_clean_close(self)
        self.assertIn("dockfloating=true", (first.plugin_config_dir / "settings-global.ini").read_text())

        # Docked on the left, and a scene list, as the user left them last time.
        dock = {"dockfloating": "false", "dockvisible": "true", "dockarea": 1, "dockgeometry": ""}
        second = start_obs(self, root=first.root, global_settings={"VerticalCanvas": dock, "Scenes": SCENES})
        self.assertIsNone(second.wait_for_window(DOCK, timeout=2), "the dock should be docked, not floating")
        second.expect_clean_close(self)
        stored = (second.plugin_config_dir / "settings-global.ini").read_text()
        for line in ("dockfloating=false", "dockarea=1", "count=2", "activescene=Intro", "scene_1_name=Outro"):
            self.assertIn(line, stored)

    @retry_after_host_crash
    def test_a_hand_edited_canvas_is_refused_and_kept(self):
        obs = start_obs(self, profile_settings={"canvaswidth": 0})
        self.assertIsNone(obs.wait_for_window(DOCK, timeout=3))
        # A module that refused to load is never unloaded, so the host counts its open
        # settings files as leaks; what matters is a normal shutdown.
        self.assertEqual(obs.close(), 0)
        self.assertIn("canvaswidth=0", (obs.profile_dir / f"{PLUGIN}.ini").read_text())


if __name__ == "__main__":
    main()

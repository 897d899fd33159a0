#!/usr/bin/env python3
"""The real obs loads the plug-in, which keeps the dock's place across a restart and the
vertical scenes in the scene collection, following a host scene the user renamed; a
hand-edited canvas falls back to its default, with a warning, and is kept."""

import shutil
import time
import unittest

from e2e_session import DOCK, PLUGIN, assignments, main, retry_after_host_crash, start_obs, wait_until

import media_probe


class ModuleLoad(unittest.TestCase):
    def green_recording(self, obs):
        """A short vertical recording shows the host scene's green middle, edge to edge."""
        self.assertEqual(obs.vendor("StartRecording"), {"ok": True})
        self.assertTrue(wait_until(lambda: list(obs.recordings_dir.glob("* vertical.*"))))
        self.assertTrue(wait_until(lambda: obs.vendor("GetStatus")["recording"]))
        time.sleep(2.5)
        self.assertEqual(obs.vendor("StopRecording"), {"ok": True})
        self.assertTrue(wait_until(lambda: not obs.vendor("GetStatus")["recording"]))
        (path,) = obs.recordings_dir.glob("* vertical.*")
        pixels = media_probe.frame_pixels(path, 1.0, [(0.02, 0.02), (0.5, 0.5), (0.98, 0.98)])
        self.assertTrue(pixels and all(g > 190 and r < 70 and b < 70 for r, g, b in pixels), pixels)
        path.unlink()

    @retry_after_host_crash
    def test_dock_and_scenes_come_back_after_a_restart(self):
        first = start_obs(self, keep=True)
        self.addCleanup(shutil.rmtree, first.root, ignore_errors=True)
        self.assertIsNotNone(first.wait_for_window(DOCK), "a first start shows the dock floating")
        for kind, data in [("CreateScene", {"sceneName": "Intro"}),
                           ("AssignHostScene", {"sceneName": "Intro", "hostSceneName": "Main"}),
                           ("SetActiveScene", {"sceneName": "Intro"})]:
            self.assertEqual(first.vendor(kind, data), {"ok": True}, kind)
        # The user renames the host scene: the vertical scene follows it, now and after a restart.
        first.request("SetSceneName", {"sceneName": "Main", "newSceneName": "Stage"})
        self.assertTrue(wait_until(lambda: ("Intro", "Stage") in assignments(first.vendor("GetStatus")["scenes"])))
        self.green_recording(first)
        first.expect_clean_close(self)
        self.assertIn("dockfloating=true", (first.plugin_config_dir / "settings-global.ini").read_text())
        saved = first.saved_vertical_scenes()
        self.assertEqual((saved["active"], saved["scenes"][-1]["name"], saved["scenes"][-1]["hostScene"]),
                         ("Intro", "Intro", "Stage"))

        # Docked on the left, as the user left it last time.
        dock = {"dockfloating": "false", "dockvisible": "true", "dockarea": 1, "dockgeometry": ""}
        second = start_obs(self, root=first.root, global_settings={"VerticalCanvas": dock})
        self.assertIsNone(second.wait_for_window(DOCK, timeout=2), "the dock should be docked, not floating")
        status = second.vendor("GetStatus")
        self.assertEqual((status["activeScene"], assignments(status["scenes"])[-1]), ("Intro", ("Intro", "Stage")))
        self.green_recording(second)
        second.expect_clean_close(self)
        stored = (second.plugin_config_dir / "settings-global.ini").read_text()
        for line in ("dockfloating=false", "dockarea=1"):
            self.assertIn(line, stored)

    @retry_after_host_crash
    def test_a_hand_edited_canvas_falls_back_and_is_kept(self):
        obs = start_obs(self, profile_settings={"canvaswidth": 0})
        self.assertIsNotNone(obs.wait_for_window(DOCK), "the plug-in loads all the same")
        self.assertEqual(obs.vendor("GetStatus")["canvas"]["width"], 1080)
        self.assertIn("canvaswidth=0 cannot be used", obs.log_text())
        obs.expect_clean_close(self)
        self.assertIn("canvaswidth=0", (obs.profile_dir / f"{PLUGIN}.ini").read_text())


if __name__ == "__main__":
    main()

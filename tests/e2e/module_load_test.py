#!/usr/bin/env python3
"""The real obs loads the plug-in: its dock starts docked beside the host's docks and comes
back through the host's own saved layout, the vertical scenes are kept in the scene
collection, following a host scene the user renamed; a hand-edited canvas falls back to
its default, with a warning, and is kept."""

import base64
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
        docked = {"visible": True, "floating": False, "area": "right", "covers": []}
        self.assertEqual(first.vendor("GetStatus")["dock"], docked)
        self.assertIsNone(first.wait_for_window(DOCK, timeout=2), "the dock should be docked, not floating")
        for kind, data in [("CreateScene", {"sceneName": "Intro"}),
                           ("AssignHostScene", {"sceneName": "Intro", "hostSceneName": "Main"}),
                           ("SetActiveScene", {"sceneName": "Intro"})]:
            self.assertEqual(first.vendor(kind, data), {"ok": True}, kind)
        # The user renames the host scene: the vertical scene follows it, now and after a restart.
        first.request("SetSceneName", {"sceneName": "Main", "newSceneName": "Stage"})
        self.assertTrue(wait_until(lambda: ("Intro", "Stage") in assignments(first.vendor("GetStatus")["scenes"])))
        self.green_recording(first)
        first.expect_clean_close(self)
        # The host saved the dock with its own layout (global.ini; user.ini from OBS 31).
        name = len(PLUGIN * 2).to_bytes(4, "big") + PLUGIN.encode("utf-16-be")
        layouts = [line.split("=", 1)[1] for f in ("global.ini", "user.ini") if (first.obs_config / f).exists()
                   for line in (first.obs_config / f).read_text().splitlines() if line.startswith("DockState=")]
        self.assertTrue(any(name in base64.b64decode(layout) for layout in layouts), layouts)
        saved = first.saved_vertical_scenes()
        self.assertEqual((saved["active"], saved["scenes"][-1]["name"], saved["scenes"][-1]["hostScene"]),
                         ("Intro", "Intro", "Stage"))

        second = start_obs(self, root=first.root)
        status = second.vendor("GetStatus")
        self.assertEqual(status["dock"], docked)
        self.assertIn("Dock placed by the host's saved layout", second.log_text())
        self.assertEqual((status["activeScene"], assignments(status["scenes"])[-1]), ("Intro", ("Intro", "Stage")))
        self.green_recording(second)
        second.expect_clean_close(self)

    @retry_after_host_crash
    def test_a_hand_edited_canvas_falls_back_and_is_kept(self):
        obs = start_obs(self, profile_settings={"canvaswidth": 0})
        self.assertTrue(obs.vendor("GetStatus")["dock"]["visible"], "the plug-in loads all the same")
        self.assertEqual(obs.vendor("GetStatus")["canvas"]["width"], 1080)
        self.assertIn("canvaswidth=0 cannot be used", obs.log_text())
        obs.expect_clean_close(self)
        self.assertIn("canvaswidth=0", (obs.profile_dir / f"{PLUGIN}.ini").read_text())


if __name__ == "__main__":
    main()

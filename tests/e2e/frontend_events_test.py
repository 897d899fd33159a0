#!/usr/bin/env python3
"""Inside the real obs: the main stream drives the vertical one, profile switches rebuild
the runtime, and the dock and the vertical scenes survive a restart."""

import os
import shutil
import time
import unittest
from pathlib import Path

from e2e_session import ARGS, LOG_TAG, E2eSession, main, retry_after_host_crash

import media_probe
from rtmp_server import RtmpServer

DOCK = "Vertical Canvas"
SCENES = {"Scenes": {"count": 2, "activescene": "Intro", "scene_0_name": "Intro", "scene_0_source": "Main",
                     "scene_1_name": "Outro", "scene_1_source": ""}}


def wait_until(done, timeout=30):
    deadline = time.monotonic() + timeout
    while not done():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.25)
    return True


class FrontendEvents(unittest.TestCase):
    def setUp(self):
        self.artifacts = Path(ARGS.build_dir) / "test-artifacts"
        self.artifacts.mkdir(exist_ok=True)

    def obs(self, **kwargs):
        session = E2eSession(**kwargs)
        self.addCleanup(session.shutdown)
        session.prepare().start()
        self.assertTrue(session.wait_for_log(f"{LOG_TAG} Loaded successfully", 60), session.log_text()[-4000:])
        session.wait_ready()
        return session

    @retry_after_host_crash
    def test_main_stream_drives_the_vertical_stream_across_a_profile_switch(self):
        server = RtmpServer(keep=bool(os.environ.get("CV_TEST_KEEP"))).start()
        self.addCleanup(server.stop)
        keys = {"main": "main-key-7f3a", "vertical": "vertical-key-91c2", "tall": "vertical-key-5d08"}
        obs = self.obs(stream=(server.app_url, keys["main"]), global_settings=SCENES,
                       profile_settings={"rtmpurl": server.app_url, "streamkey": keys["vertical"]},
                       extra_profiles={"Tall": {"rtmpurl": server.app_url, "streamkey": keys["tall"],
                                                "canvaswidth": 720, "canvasheight": 1280}})
        # First start of all: the dock floats, shown.
        self.assertIsNotNone(obs.wait_for_window(DOCK, timeout=10))

        obs.request("StartStream")
        self.assertTrue(wait_until(lambda: server.recordings(keys["vertical"])), obs.log_text()[-3000:])
        time.sleep(6)
        # A profile switch while both run ends the vertical stream (the server logs a
        # publish when it ends) and starts none on the new canvas.
        obs.request("SetCurrentProfile", {"profileName": "Tall"})
        self.assertTrue(wait_until(lambda: keys["vertical"] in server.access_log()))
        time.sleep(2)
        self.assertEqual(server.recordings(keys["tall"]), [])
        obs.screenshot(self.artifacts / "dock-after-profile-switch.png")
        obs.request("StopStream")
        time.sleep(2)
        # The next main stream starts the vertical one on the new canvas.
        obs.request("StartStream")
        self.assertTrue(wait_until(lambda: server.recordings(keys["tall"])), obs.log_text()[-3000:])
        time.sleep(5)
        obs.request("StopStream")
        self.assertTrue(wait_until(lambda: keys["tall"] in server.access_log()))
        obs.expect_clean_close(self)

        logs = "".join(p.read_text(errors="replace") for p in (obs.obs_config / "logs").glob("*.txt"))
        for key in keys.values():
            self.assertNotIn(key, logs, "a stream key is in the host's log")
        vertical = server.recordings(keys["vertical"])
        self.assertEqual(len(vertical), 1)
        info = media_probe.probe(vertical[0])
        self.assertEqual(info["decode_errors"], "", media_probe.describe(info))
        self.assertEqual((info["video"]["codec"], info["video"]["width"], info["video"]["height"]),
                         ("h264", 1080, 1920))
        self.assertAlmostEqual(info["video"]["fps"], 30, delta=1.5)
        self.assertGreaterEqual(info["audio_tracks"], 1)
        # "Intro" shows the host scene "Main" (red | green | blue thirds) covering the 9:16
        # canvas: only its green middle is on the picture, edge to edge.
        pixels = media_probe.frame_pixels(vertical[0], 2.0, [(0.02, 0.02), (0.5, 0.5), (0.98, 0.98),
                                                             (0.02, 0.98), (0.98, 0.02)])
        self.assertTrue(pixels and all(g > 190 and r < 70 and b < 70 for r, g, b in pixels), pixels)
        info = media_probe.probe(server.recordings(keys["tall"])[0])
        self.assertEqual((info["video"]["width"], info["video"]["height"]), (720, 1280))
        self.assertEqual(info["decode_errors"], "")

    @retry_after_host_crash
    def test_a_failed_rebuild_says_so_and_the_next_switch_recovers(self):
        obs = self.obs(extra_profiles={"Broken": {"canvaswidth": 0},
                                       "Good": {"canvaswidth": 540, "canvasheight": 960}})
        obs.request("SetCurrentProfile", {"profileName": "Broken"})
        box = obs.wait_for_window("Corvane Vertical Canvas", timeout=20)
        self.assertIsNotNone(box, obs.dialogs())
        obs.screenshot(self.artifacts / "dock-no-output.png")
        self.assertTrue(obs.close_window(box, "Corvane Vertical Canvas"))
        obs.request("SetCurrentProfile", {"profileName": "Good"})
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Canvas initialised: 540x960"))
        self.assertIsNone(obs.wait_for_window("Corvane Vertical Canvas", timeout=2))
        obs.expect_clean_close(self)

    @retry_after_host_crash
    def test_dock_and_scenes_come_back_after_a_restart(self):
        first = self.obs(keep=True)
        self.addCleanup(shutil.rmtree, first.root, ignore_errors=True)
        self.assertIsNotNone(first.wait_for_window(DOCK, timeout=10), "a first start shows the dock floating")
        first.expect_clean_close(self)
        self.assertIn("dockfloating=true", (first.plugin_config_dir / "settings-global.ini").read_text())

        # Docked on the left, and a scene list, as the user left them last time.
        settings = {"VerticalCanvas": {"dockfloating": "false", "dockvisible": "true", "dockarea": 1,
                                       "dockgeometry": ""}, **SCENES}
        second = self.obs(root=first.root, global_settings=settings)
        time.sleep(1)
        self.assertIsNone(second.wait_for_window(DOCK, timeout=1), "the dock should be docked, not floating")
        second.screenshot(self.artifacts / "dock-docked.png")
        second.expect_clean_close(self)
        stored = (second.plugin_config_dir / "settings-global.ini").read_text()
        for line in ("dockfloating=false", "scene_0_name=Intro", "scene_0_source=Main", "scene_1_name=Outro",
                     "activescene=Intro", "dockarea=1"):
            self.assertIn(line, stored)


if __name__ == "__main__":
    main()

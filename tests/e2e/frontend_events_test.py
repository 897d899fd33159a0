#!/usr/bin/env python3
"""Inside the real obs: the main stream drives the vertical one, profile switches rebuild
the runtime, and the dock and the vertical scenes survive a restart."""

import argparse
import os
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts" / "lib"))
import media_probe  # noqa: E402
from obs_session import LOG_TAG, ObsSession, retry_after_host_crash  # noqa: E402
from rtmp_server import RtmpServer  # noqa: E402

ARGS = None
DOCK = "Vertical Canvas"
SCENES = {"Scenes": {"count": 2, "activescene": "Intro", "scene_0_name": "Intro", "scene_0_source": "Main",
                     "scene_1_name": "Outro", "scene_1_source": ""}}


def green(rgb):
    r, g, b = rgb
    return g > 190 and r < 70 and b < 70


class FrontendEvents(unittest.TestCase):
    def setUp(self):
        self.keep = bool(os.environ.get("CV_TEST_KEEP"))
        self.artifacts = Path(ARGS.build_dir) / "test-artifacts"
        self.artifacts.mkdir(exist_ok=True)

    def server(self):
        server = RtmpServer(keep=self.keep).start()
        self.addCleanup(server.stop)
        return server

    def obs(self, **kwargs):
        session = ObsSession(ARGS.build_dir, keep=kwargs.pop("keep", self.keep), **kwargs)
        self.addCleanup(session.shutdown)
        session.prepare().start()
        self.assertTrue(session.wait_for_log(f"{LOG_TAG} Vertical Canvas dock registered", 60),
                        session.log_text()[-4000:])
        session.wait_ready()
        return session

    def all_logs(self, obs):
        return "".join(p.read_text(errors="replace") for p in (obs.obs_config / "logs").glob("*.txt"))

    def expect_clean_close(self, obs):
        self.assertEqual(obs.close(), 0)
        log = obs.log_text()
        self.assertIn(f"{LOG_TAG} Unloaded", log)
        self.assertIn("Number of memory leaks: 0", log)

    @retry_after_host_crash
    def test_main_stream_drives_the_vertical_stream_across_a_profile_switch(self):
        server = self.server()
        keys = {"main": "main-key-7f3a", "vertical": "vertical-key-91c2", "tall": "vertical-key-5d08"}
        obs = self.obs(stream=(server.app_url, keys["main"]), global_settings=SCENES,
                       profile_settings={"rtmpurl": server.app_url, "streamkey": keys["vertical"]},
                       extra_profiles={"Tall": {"rtmpurl": server.app_url, "streamkey": keys["tall"],
                                                "canvaswidth": 720, "canvasheight": 1280}})
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Restored 2 scene(s), active: Intro"))
        # First start: the dock floats, visible.
        self.assertIsNotNone(obs.wait_for_window(DOCK, timeout=10))

        obs.request("StartStream")
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Main stream starting — auto-starting vertical output", 30))
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Vertical stream connected to", 30), obs.log_text()[-3000:])
        time.sleep(6)

        # Switching profile while both run: the vertical output stops and stays off; the
        # runtime comes back at the new size with the same scenes.
        obs.request("SetCurrentProfile", {"profileName": "Tall"})
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Runtime created: 720x1280 @ 30/1 fps", 30))
        time.sleep(2)
        after_switch = obs.log_text().split("Profile change — rebuilding vertical runtime", 1)[1]
        self.assertIn("Vertical output stop requested (obs_x264)", after_switch)
        self.assertNotIn("Vertical output started", after_switch)
        self.assertIn("Restored 2 scene(s), active: Intro", after_switch)
        obs.screenshot(self.artifacts / "dock-after-profile-switch.png")
        obs.screenshot(self.artifacts / "dock.png", window=obs.wait_for_window(DOCK))
        obs.request("StopStream")
        time.sleep(2)

        # The next main stream starts the vertical one on the new canvas; stopping stops it.
        obs.request("StartStream")
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Main stream starting — auto-starting vertical output", 30))
        time.sleep(5)
        obs.request("StopStream")
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Main stream stopped — stopping vertical output", 30))
        time.sleep(1)
        self.expect_clean_close(obs)

        logs = self.all_logs(obs)
        for key in keys.values():
            self.assertNotIn(key, logs, "a stream key is in the host's log")
        access = server.access_log()
        for key in keys.values():
            self.assertIn(f'PUBLISH "live" "{key}"', access)

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
        self.assertTrue(pixels and all(green(p) for p in pixels), pixels)

        tall = server.recordings(keys["tall"])
        self.assertEqual(len(tall), 1)
        info = media_probe.probe(tall[0])
        self.assertEqual((info["video"]["width"], info["video"]["height"]), (720, 1280))
        self.assertEqual(info["decode_errors"], "")

    @retry_after_host_crash
    def test_without_autostart_the_vertical_stream_stays_off(self):
        server = self.server()
        obs = self.obs(stream=(server.app_url, "main"),
                       profile_settings={"rtmpurl": server.app_url, "streamkey": "vertical",
                                         "autostartwithmain": "false"})
        obs.request("StartStream")
        time.sleep(5)
        obs.request("StopStream")
        time.sleep(1)
        self.expect_clean_close(obs)
        self.assertNotIn("auto-starting vertical output", obs.log_text())
        self.assertEqual(server.recordings("vertical"), [])
        self.assertEqual(len(server.recordings("main")), 1)

    @retry_after_host_crash
    def test_a_failed_rebuild_says_so_once_and_the_next_switch_recovers(self):
        obs = self.obs(extra_profiles={"Broken": {"canvaswidth": 0}, "Good": {"canvaswidth": 540,
                                                                              "canvasheight": 960}})
        obs.request("SetCurrentProfile", {"profileName": "Broken"})
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Failed to rebuild vertical runtime after profile change"))
        box = obs.wait_for_window("Corvane Vertical Canvas", timeout=10)
        self.assertIsNotNone(box, obs.dialogs())
        obs.screenshot(self.artifacts / "dock-no-output.png")
        self.assertTrue(obs.close_window(box, "Corvane Vertical Canvas"))

        obs.request("SetCurrentProfile", {"profileName": "Good"})
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Runtime created: 540x960 @ 30/1 fps"))
        self.expect_clean_close(obs)
        log = obs.log_text()
        self.assertEqual(log.count("Failed to rebuild vertical runtime after profile change"), 1)

    @retry_after_host_crash
    def test_dock_and_scenes_come_back_after_a_restart(self):
        first = self.obs(keep=True)
        self.assertIsNotNone(first.wait_for_window(DOCK, timeout=10), "a first start shows the dock floating")
        self.expect_clean_close(first)
        self.assertIn(f"{LOG_TAG} Dock state saved (floating=yes, visible=yes)", first.log_text())
        stored = (first.plugin_config_dir / "settings-global.ini").read_text()
        self.assertIn("dockfloating=true", stored)

        # Docked on the left and a scene list, as the user left them last time.
        root = first.root
        settings = {"VerticalCanvas": {"dockfloating": "false", "dockvisible": "true", "dockarea": 1,
                                       "dockgeometry": ""}, **SCENES}
        second = self.obs(root=root, global_settings=settings)
        self.addCleanup(lambda: __import__("shutil").rmtree(root, ignore_errors=True))
        self.assertTrue(second.wait_for_log(f"{LOG_TAG} Restored 2 scene(s), active: Intro"))
        time.sleep(1)
        self.assertIsNone(second.wait_for_window(DOCK, timeout=1), "the dock should be docked, not floating")
        second.screenshot(self.artifacts / "dock-docked.png")
        self.expect_clean_close(second)
        self.assertIn(f"{LOG_TAG} Dock state saved (floating=no, visible=yes)", second.log_text())
        stored = (second.plugin_config_dir / "settings-global.ini").read_text()
        for line in ("scene_0_name=Intro", "scene_0_source=Main", "scene_1_name=Outro", "activescene=Intro",
                     "dockarea=1"):
            self.assertIn(line, stored)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build-dir", required=True)
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)

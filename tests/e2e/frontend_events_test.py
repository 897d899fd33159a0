#!/usr/bin/env python3
"""Inside the real obs the main stream drives the vertical one, and a profile switch
rebuilds the vertical canvas: a canvas that cannot be built says so, the next switch
recovers."""

import time
import unittest

from e2e_session import KEEP, main, retry_after_host_crash, start_obs, wait_until

import media_probe
from rtmp_server import RtmpServer

BOX = "Corvane Vertical Canvas"
SCENES = {"Scenes": {"count": 1, "activescene": "Intro", "scene_0_name": "Intro", "scene_0_source": "Main"}}


class FrontendEvents(unittest.TestCase):
    @retry_after_host_crash
    def test_main_stream_drives_the_vertical_stream_across_profile_switches(self):
        server = RtmpServer(keep=KEEP).start()
        self.addCleanup(server.stop)
        url, keys = server.app_url, {"main": "main-key-7f3a", "vertical": "vertical-key-91c2",
                                     "tall": "vertical-key-5d08"}
        obs = start_obs(self, stream=(url, keys["main"]), global_settings=SCENES,
                        profile_settings={"rtmpurl": url, "streamkey": keys["vertical"]},
                        extra_profiles={"Broken": {"canvaswidth": 0},
                                        "Tall": {"rtmpurl": url, "streamkey": keys["tall"],
                                                 "canvaswidth": 720, "canvasheight": 1280}})
        obs.request("StartStream")
        self.assertTrue(wait_until(lambda: server.recordings(keys["vertical"])), obs.log_text()[-3000:])
        time.sleep(6)
        # A switch while both run ends the vertical stream (nginx logs a publish once it
        # ends); one to a canvas that cannot be built says so in a box.
        obs.request("SetCurrentProfile", {"profileName": "Broken"})
        self.assertTrue(wait_until(lambda: keys["vertical"] in server.access_log()))
        box = obs.wait_for_window(BOX, timeout=20)
        self.assertIsNotNone(box, obs.dialogs())
        self.assertTrue(obs.close_window(box, BOX))
        # The next switch builds the new canvas, silently; its stream waits for the next main one.
        obs.request("SetCurrentProfile", {"profileName": "Tall"})
        self.assertIsNone(obs.wait_for_window(BOX, timeout=3))
        self.assertEqual(server.recordings(keys["tall"]), [])
        obs.request("StopStream")
        time.sleep(2)
        obs.request("StartStream")
        self.assertTrue(wait_until(lambda: server.recordings(keys["tall"])), obs.log_text()[-3000:])
        time.sleep(5)
        obs.request("StopStream")
        self.assertTrue(wait_until(lambda: keys["tall"] in server.access_log()))
        obs.expect_clean_close(self)

        logs = "".join(p.read_text(errors="replace") for p in (obs.obs_config / "logs").glob("*.txt"))
        for key in keys.values():
            self.assertNotIn(key, logs, "a stream key is in the host's log")
        (vertical,), (tall,) = server.recordings(keys["vertical"]), server.recordings(keys["tall"])
        for path, size in ((vertical, (1080, 1920)), (tall, (720, 1280))):
            info = media_probe.probe(path)
            self.assertEqual(info["decode_errors"], "", media_probe.describe(info))
            video = info["video"]
            self.assertEqual((video["codec"], video["width"], video["height"]), ("h264",) + size)
            self.assertAlmostEqual(video["fps"], 30, delta=1.5)
            self.assertGreaterEqual(info["audio_tracks"], 1)
        # "Intro" shows the host scene "Main" (red | green | blue thirds) covering the 9:16
        # canvas: only its green middle is on the picture, edge to edge.
        pixels = media_probe.frame_pixels(vertical, 2.0, [(0.02, 0.02), (0.5, 0.5), (0.98, 0.98),
                                                          (0.02, 0.98), (0.98, 0.02)])
        self.assertTrue(pixels and all(g > 190 and r < 70 and b < 70 for r, g, b in pixels), pixels)


if __name__ == "__main__":
    main()

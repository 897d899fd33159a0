#!/usr/bin/env python3
"""Inside the real obs the main stream drives the vertical one, and a profile switch
rebuilds the vertical canvas; with only the vertical stream running, the switch stops it
and the new profile's video settings apply once it has stopped."""

import time
import unittest

from e2e_session import KEEP, main, retry_after_host_crash, start_obs, wait_until

import media_probe
from rtmp_server import RtmpServer

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
                        extra_profiles={"Tall": ({"rtmpurl": url, "streamkey": keys["tall"],
                                                  "canvaswidth": 720, "canvasheight": 1280}, (960, 540))})
        obs.request("StartStream")
        self.assertTrue(wait_until(lambda: server.recordings(keys["vertical"])), obs.log_text()[-3000:])
        time.sleep(6)
        obs.request("StopStream")
        self.assertTrue(wait_until(lambda: keys["vertical"] in server.access_log()))
        # The vertical stream alone: a switch ends it (nginx logs a publish once it ends)
        # and the new profile's video settings apply once it has; the new canvas waits for
        # the next start.
        self.assertEqual(obs.vendor("StartStreaming"), {"ok": True})
        self.assertTrue(wait_until(lambda: len(server.recordings(keys["vertical"])) == 2))
        obs.request("SetCurrentProfile", {"profileName": "Tall"})
        self.assertTrue(wait_until(lambda: server.access_log().count(keys["vertical"]) == 2))
        video = lambda: obs.request("GetVideoSettings")
        self.assertTrue(wait_until(lambda: (video()["baseWidth"], video()["baseHeight"]) == (960, 540)), video())
        self.assertTrue(wait_until(lambda: obs.vendor("GetStatus")["canvas"]["width"] == 720))
        self.assertEqual(server.recordings(keys["tall"]), [])
        obs.request("StartStream")
        self.assertTrue(wait_until(lambda: server.recordings(keys["tall"])), obs.log_text()[-3000:])
        time.sleep(5)
        obs.request("StopStream")
        self.assertTrue(wait_until(lambda: keys["tall"] in server.access_log()))
        obs.expect_clean_close(self)

        logs = "".join(p.read_text(errors="replace") for p in (obs.obs_config / "logs").glob("*.txt"))
        for key in keys.values():
            self.assertNotIn(key, logs, "a stream key is in the host's log")
        (vertical, _), (tall,) = server.recordings(keys["vertical"]), server.recordings(keys["tall"])
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

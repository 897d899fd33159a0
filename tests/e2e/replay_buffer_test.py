#!/usr/bin/env python3
"""The vertical replay buffer inside the real obs: started, saved and stopped by request,
by hotkey and with the host's own replay buffer; each saved clip starts on a keyframe,
decodes, and holds the seconds asked or as long as the buffer ran."""

import re
import subprocess
import time
import unittest
from pathlib import Path

from automation_test import VENDOR, VendorEvents
from e2e_session import E2eSession, main, retry_after_host_crash

from media_probe import probe

SECONDS = 5
NAME = re.compile(r"^\d{4}-\d\d-\d\d \d\d-\d\d-\d\d vertical replay\.(mkv|mp4|mov|flv|ts)$")


def first_video_packet_flags(path):
    out = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v:0", "-read_intervals", "%+#1",
                          "-show_entries", "packet=flags", "-of", "csv=p=0", str(path)],
                         capture_output=True, text=True, timeout=60)
    return out.stdout.strip().splitlines()[0] if out.stdout.strip() else ""


class ReplayBuffer(unittest.TestCase):
    def call(self, kind):
        return self.obs.request("CallVendorRequest", {"vendorName": VENDOR, "requestType": kind})["responseData"]

    def saved_clip(self, events, ran_for):
        """The clip named by the next ReplaySaved event, checked against how long the
        buffer ran (`ran_for` seconds) and the seconds it keeps."""
        saved = [e for e in events.until("ReplaySaved", timeout=30) if e[0] == "ReplaySaved"][-1][1]
        path = Path(saved["path"])
        self.assertEqual(path.parent.resolve(), self.obs.recordings_dir.resolve())
        self.assertRegex(path.name, NAME)
        info = probe(path)
        self.assertTrue(info["ok"], info)
        self.assertEqual(info["decode_errors"], "", path)
        self.assertEqual((info["video"]["codec"], info["video"]["width"], info["video"]["height"]),
                         ("h264", 360, 640))
        self.assertEqual(info["audio_tracks"], 1)
        self.assertTrue(first_video_packet_flags(path).startswith("K"), path)
        # Keyframes every second: the clip loses at most the part before the oldest one.
        expected = min(ran_for, SECONDS)
        self.assertGreaterEqual(info["duration"], expected - 1.5, info)
        self.assertLessEqual(info["duration"], expected + 0.5, info)
        return path

    @retry_after_host_crash
    def test_replay_buffer_saves_clips_of_the_vertical_canvas(self):
        obs = self.obs = E2eSession(profile_settings={"canvaswidth": 360, "canvasheight": 640, "keyintsec": 1,
                                                      "replayseconds": SECONDS})
        self.addCleanup(obs.shutdown)
        obs.prepare()
        # The host's own replay buffer, switched on in its simple output mode.
        basic = obs.profile_dir / "basic.ini"
        basic.write_text(basic.read_text().replace("[SimpleOutput]\n", "[SimpleOutput]\nRecRB=true\nRecRBTime=20\n"))
        obs.start().wait_ready()
        events = VendorEvents(obs.port)
        self.addCleanup(events.ws.close)

        self.assertFalse(self.call("GetStatus")["replayBuffer"])
        self.assertEqual(self.call("SaveReplay")["errorCode"], "ReplayNotRunning")

        # By request: a clip as long as the buffer ran, then one of the seconds asked.
        self.assertEqual(self.call("StartReplayBuffer"), {"ok": True})
        events.until("ReplayBufferStateChanged", replayBuffer=True)
        began = time.monotonic()
        self.assertTrue(self.call("GetStatus")["replayBuffer"])
        time.sleep(3)
        self.assertEqual(self.call("SaveReplay"), {"ok": True})
        short = self.saved_clip(events, time.monotonic() - began)
        time.sleep(max(0.0, SECONDS + 3 - (time.monotonic() - began)))
        obs.request("TriggerHotkeyByName", {"hotkeyName": "CorvaneVertical.SaveReplay"})
        full = self.saved_clip(events, time.monotonic() - began)
        self.assertNotEqual(short, full)
        obs.request("TriggerHotkeyByName", {"hotkeyName": "CorvaneVertical.StopReplayBuffer"})
        events.until("ReplayBufferStateChanged", replayBuffer=False)

        # Linked to the host's: it starts, saves and stops with it.
        obs.request("StartReplayBuffer")
        events.until("ReplayBufferStateChanged", replayBuffer=True)
        time.sleep(SECONDS + 2)
        obs.request("SaveReplayBuffer")
        self.saved_clip(events, SECONDS + 2)
        obs.request("StopReplayBuffer")
        events.until("ReplayBufferStateChanged", replayBuffer=False)
        host_clips = [p for p in obs.recordings_dir.iterdir() if p.name.startswith("Replay")]
        self.assertEqual(len(host_clips), 1, sorted(obs.recordings_dir.iterdir()))
        obs.expect_clean_close(self)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Inside the real obs the plug-in is driven without the mouse: its hotkeys, triggered by
name through the host's websocket server or by a key bound in the host's own settings,
and its vendor requests and events, whose figures agree with what the server received."""

import json
import queue
import threading
import time
import unittest

import websocket

from e2e_session import KEEP, main, retry_after_host_crash, start_obs, wait_until

from obs_session import ObsError
from rtmp_server import RtmpServer

VENDOR = "corvane-vertical-canvas"
KEY = "vertical-key-3e9b"
SCENES = {"count": 2, "activescene": "Intro", "scene_0_name": "Intro", "scene_0_source": "Main",
          "scene_1_name": "Outro", "scene_1_source": ""}


class VendorEvents:
    """A second websocket client, subscribed to vendor events only."""

    def __init__(self, port):
        self.ws = websocket.create_connection(f"ws://127.0.0.1:{port}", timeout=10)
        self.ws.recv()
        self.ws.send(json.dumps({"op": 1, "d": {"rpcVersion": 1, "eventSubscriptions": 1 << 9}}))
        self.ws.recv()
        self.events, self.texts = queue.Queue(), []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        try:
            while True:
                text = self.ws.recv()
                self.texts.append(text)
                data = json.loads(text)["d"].get("eventData", {})
                if data.get("vendorName") == VENDOR:
                    self.events.put((data["eventType"], data["eventData"]))
        except (OSError, ValueError, websocket.WebSocketException):
            pass

    def until(self, kind, timeout=20, **fields):
        """Takes events until one of this kind with these fields; the ones before it."""
        seen, deadline = [], time.monotonic() + timeout
        while time.monotonic() < deadline:
            try:
                event = self.events.get(timeout=0.2)
            except queue.Empty:
                continue
            seen.append(event)
            if event[0] == kind and all(event[1].get(k) == v for k, v in fields.items()):
                return seen
        raise AssertionError(f"no {kind} {fields}; saw {seen}")


class Automation(unittest.TestCase):
    def call(self, kind, data=None):
        request = {"vendorName": VENDOR, "requestType": kind}
        if data:  # the server refuses an empty object
            request["requestData"] = data
        reply = self.obs.request("CallVendorRequest", request)["responseData"]
        self.replies.append(json.dumps(reply))
        return reply

    def hotkey(self, name):
        self.obs.request("TriggerHotkeyByName", {"hotkeyName": f"CorvaneVertical.{name}"})

    @retry_after_host_crash
    def test_hotkeys_and_vendor_requests_drive_the_vertical_canvas(self):
        server = RtmpServer(keep=KEEP).start()
        self.addCleanup(server.stop)
        self.obs = obs = start_obs(self, profile_settings={"rtmpurl": server.app_url, "streamkey": KEY,
                                                         "canvaswidth": 360, "canvasheight": 640},
                                   global_settings={"Scenes": SCENES},
                                   hotkeys={"CorvaneVertical.NextScene": ["OBS_KEY_F9"]})
        self.replies, events = [], VendorEvents(obs.port)
        self.addCleanup(events.ws.close)

        status = self.call("GetStatus")
        self.assertEqual({k: status[k] for k in ("ok", "streaming", "recording", "activeScene", "canvas")},
                         {"ok": True, "streaming": False, "recording": False, "activeScene": "Intro",
                          "canvas": {"width": 360, "height": 640, "fpsNum": 30, "fpsDen": 1}})
        self.assertEqual(status["scenes"], [{"sceneName": "Intro", "hostSceneName": "Main"},
                                            {"sceneName": "Outro", "hostSceneName": ""}])
        self.assertEqual([(d["name"], d["state"]) for d in status["destinations"]], [("Destination 1", "stopped")])
        self.assertEqual(len(status["destinations"][0]["id"]), 16)

        # Bad requests are answered, never fatal.
        with self.assertRaises(ObsError):
            self.call("NoSuchRequest")
        for kind, data, code, error in [
            ("SetActiveScene", {}, "MissingField", 'Missing field "sceneName"'),
            ("SetActiveScene", {"sceneName": 5}, "FieldNotString", 'Field "sceneName" must be a string'),
            ("SetActiveScene", {"sceneName": ["Intro"]}, "FieldNotString", 'Field "sceneName" must be a string'),
            ("SetActiveScene", {"sceneName": "Nowhere"}, "NoSuchScene", 'No vertical scene is named "Nowhere"'),
            ("CreateScene", {"sceneName": "  "}, "SceneNameEmpty", "A scene name cannot be empty"),
            ("CreateScene", {"sceneName": " Intro "}, "SceneExists", 'A scene named "Intro" already exists'),
            ("RemoveScene", {"sceneName": "intro"}, "NoSuchScene", 'No vertical scene is named "intro"'),
            ("AssignHostScene", {"sceneName": "Outro"}, "MissingField", 'Missing field "hostSceneName"'),
            ("AssignHostScene", {"sceneName": "Outro", "hostSceneName": "Nowhere"}, "NoSuchHostScene",
             'No OBS scene is named "Nowhere"'),
            ("StartStreaming", {"destination": "Nowhere"}, "NoSuchDestination", 'No destination is named "Nowhere"'),
        ]:
            self.assertEqual(self.call(kind, data), {"ok": False, "errorCode": code, "error": error}, (kind, data))

        # Scene edits are kept at once, as the dock's are.
        for kind, data in [("CreateScene", {"sceneName": " Talk "}), ("AssignHostScene",
                           {"sceneName": "Talk", "hostSceneName": "Main"}), ("RemoveScene", {"sceneName": "Outro"}),
                           ("SetActiveScene", {"sceneName": "Talk"})]:
            self.assertEqual(self.call(kind, data), {"ok": True}, kind)
        events.until("ActiveSceneChanged", sceneName="Talk")
        # Kept in the scene collection, which the host saves a moment later.
        expected = {"active": "Talk", "scenes": [{"name": "Intro", "hostScene": "Main"},
                                                 {"name": "Talk", "hostScene": "Main"}]}
        self.assertTrue(wait_until(lambda: obs.saved_vertical_scenes() == expected), obs.saved_vertical_scenes())

        # Scene hotkeys wrap around the list [Intro, Talk]; a key bound in the host's
        # settings works as well.
        for name, active in (("NextScene", "Intro"), ("PreviousScene", "Talk"), ("PreviousScene", "Intro")):
            self.hotkey(name)
            events.until("ActiveSceneChanged", sceneName=active)
        obs.press_keys(("F9",))
        events.until("ActiveSceneChanged", sceneName="Talk")

        # The stream by hotkey: its states as events, its figures as the server sees them.
        self.hotkey("StartStreaming")
        states = [e[1]["state"] for e in events.until("StreamingStateChanged", state="live")
                  if e[0] == "StreamingStateChanged"]
        self.assertEqual(states, ["connecting", "live"])
        self.assertTrue(wait_until(lambda: server.recordings(KEY)))
        flv, began = server.recordings(KEY)[0], time.monotonic()
        time.sleep(3)
        size0, rates = flv.stat().st_size, []
        for _ in range(6):
            time.sleep(1)
            rates.append(self.call("GetStatus")["destinations"][0]["kbps"])
        received_kbps = (flv.stat().st_size - size0) * 8 / 1000 / 6
        destination = self.call("GetStatus")["destinations"][0]
        self.assertAlmostEqual(sum(rates) / len(rates), received_kbps, delta=received_kbps * 0.25)
        self.assertEqual((destination["state"], destination["droppedFrames"], destination["reconnects"]),
                         ("live", 0, 0))
        self.assertAlmostEqual(destination["uptimeSeconds"], time.monotonic() - began, delta=2)

        # The recording by request, beside the stream.
        self.assertEqual(self.call("StartRecording"), {"ok": True})
        events.until("RecordingStateChanged", recording=True)
        time.sleep(3)
        self.assertEqual(self.call("StopRecording"), {"ok": True})
        events.until("RecordingStateChanged", recording=False)
        self.assertTrue(wait_until(lambda: list(obs.recordings_dir.glob("* vertical.*"))))

        self.hotkey("StopStreaming")
        events.until("StreamingStateChanged", state="stopped")
        self.assertTrue(wait_until(lambda: KEY in server.access_log()))
        # And by request, once more.
        self.assertEqual(self.call("StartStreaming"), {"ok": True})
        events.until("StreamingStateChanged", state="live")
        self.assertEqual(self.call("StopStreaming"), {"ok": True})
        events.until("StreamingStateChanged", state="stopped")
        self.assertFalse(self.call("GetStatus")["streaming"])

        for text in self.replies + events.texts:
            self.assertNotIn(KEY, text)
        obs.expect_clean_close(self)


if __name__ == "__main__":
    main()

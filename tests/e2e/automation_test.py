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
    """A second websocket client, subscribed to vendor events and to the host's program
    scene switches."""

    def __init__(self, port):
        self.ws = websocket.create_connection(f"ws://127.0.0.1:{port}", timeout=10)
        self.ws.recv()
        self.ws.send(json.dumps({"op": 1, "d": {"rpcVersion": 1, "eventSubscriptions": 1 << 9 | 1 << 2}}))
        self.ws.recv()
        self.events, self.texts = queue.Queue(), []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        try:
            while True:
                text = self.ws.recv()
                self.texts.append(text)
                message = json.loads(text)["d"]
                data = message.get("eventData", {})
                if data.get("vendorName") == VENDOR:
                    self.events.put((data["eventType"], data["eventData"]))
                elif message.get("eventType") == "CurrentProgramSceneChanged":
                    self.events.put((message["eventType"], data))
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
        self.assertEqual([(s["sceneName"], s["hostSceneName"]) for s in status["scenes"]],
                         [("Intro", "Main"), ("Outro", "")])
        # Regions not drawn yet are the halves of the 640x360 OBS scene the scene shows.
        default_layout = {"layout": "cover", "focusX": 0.5, "focusY": 0.5, "zoom": 1, "background": "blur",
                          "top": {"x": 0, "y": 0, "width": 320, "height": 360},
                          "bottom": {"x": 320, "y": 0, "width": 320, "height": 360}, "split": 0.5}
        self.assertEqual(status["scenes"][0]["layout"], default_layout)
        self.assertEqual((status["transition"], status["followMainScene"]),
                         ({"transitionKind": "fade_transition", "transitionDuration": 300}, False))
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
            ("SetSceneLayout", {"sceneName": "Nowhere", "zoom": 2}, "NoSuchScene",
             'No vertical scene is named "Nowhere"'),
            ("SetSceneLayout", {"sceneName": "Intro", "layout": "grid"}, "NoSuchLayout",
             'No layout is named "grid": use cover, fit or stack'),
            ("SetSceneLayout", {"sceneName": "Intro", "zoom": "2"}, "FieldNotNumber", 'Field "zoom" must be a number'),
            # Nothing of a refused request is kept: its good fields neither.
            ("SetSceneLayout", {"sceneName": "Intro", "layout": "fit", "zoom": 5}, "OutOfRange",
             "Out of range: zoom [1, 4]"),
            ("SetSceneLayout", {"sceneName": "Intro", "focusX": -0.1}, "OutOfRange", "Out of range: focusX [0, 1]"),
            # A field of another layout than the scene's is checked all the same.
            ("SetSceneLayout", {"sceneName": "Intro", "split": 0.9}, "OutOfRange", "Out of range: split [0.2, 0.8]"),
            ("SetSceneLayout", {"sceneName": "Intro", "background": "#12345"}, "BadColour",
             '"#12345" is not a background: use blur or a colour #RRGGBB'),
            ("SetSceneLayout", {"sceneName": "Intro", "background": "red"}, "BadColour",
             '"red" is not a background: use blur or a colour #RRGGBB'),
            ("SetSceneLayout", {"sceneName": "Intro", "top": {"x": 400, "y": 0, "width": 320, "height": 360}},
             "RegionOutsideScene", "The top region must lie inside the OBS scene and have an area"),
            ("SetSceneLayout", {"sceneName": "Intro", "bottom": "left half"}, "FieldNotObject",
             'Field "bottom" must be an object'),
            ("SetSceneLayout", {"sceneName": "Intro", "top": {"x": 0, "y": 0, "width": "all", "height": 9}},
             "FieldNotNumber", 'Field "top.width" must be a number'),
            ("SetTransition", {"transitionKind": "no_such_transition"}, "NoSuchTransition",
             'OBS has no transition type "no_such_transition"'),
            ("SetTransition", {"transitionDuration": 10}, "OutOfRange", "Out of range: transitionDuration [50, 20000]"),
            ("SetTransition", {"transitionKind": "cut_transition", "transitionDuration": 30000}, "OutOfRange",
             "Out of range: transitionDuration [50, 20000]"),
            ("SetTransition", {"transitionDuration": 300.5}, "OutOfRange",
             "Out of range: transitionDuration [50, 20000]"),
            ("SetFollowMainScene", {}, "MissingField", 'Missing field "enabled"'),
            ("SetFollowMainScene", {"enabled": "yes"}, "FieldNotBool", 'Field "enabled" must be true or false'),
        ]:
            self.assertEqual(self.call(kind, data), {"ok": False, "errorCode": code, "error": error}, (kind, data))
        status = self.call("GetStatus")
        self.assertEqual((status["scenes"][0]["layout"], status["transition"], status["followMainScene"]),
                         (default_layout, {"transitionKind": "fade_transition", "transitionDuration": 300}, False))

        # A layout and a transition, field by field: what a request leaves out stays.
        top = {"x": 40, "y": 20, "width": 200, "height": 150}
        for data in ({"sceneName": "Intro", "layout": "stack", "top": top, "split": 0.6},
                     {"sceneName": "Intro", "zoom": 2.5, "background": "#1a2B3c"}):
            self.assertEqual(self.call("SetSceneLayout", data), {"ok": True}, data)
        for data in ({"transitionKind": "cut_transition"}, {"transitionDuration": 800}):
            self.assertEqual(self.call("SetTransition", data), {"ok": True}, data)
        intro_layout = dict(default_layout, layout="stack", top=top, split=0.6, zoom=2.5, background="#1a2B3c")
        cut = {"transitionKind": "cut_transition", "transitionDuration": 800}
        status = self.call("GetStatus")
        self.assertEqual((status["scenes"][0]["layout"], status["scenes"][1]["layout"]["layout"],
                          status["transition"]), (intro_layout, "cover", cut))

        # Scene edits are kept at once, as the dock's are.
        for kind, data in [("CreateScene", {"sceneName": " Talk "}), ("AssignHostScene",
                           {"sceneName": "Talk", "hostSceneName": "Main"}), ("RemoveScene", {"sceneName": "Outro"}),
                           ("SetActiveScene", {"sceneName": "Talk"})]:
            self.assertEqual(self.call(kind, data), {"ok": True}, kind)
        events.until("ActiveSceneChanged", sceneName="Talk")
        # Kept in the scene collection, which the host saves a moment later; a region not
        # drawn is left out, to follow the OBS scene's size.
        def saved():
            found = obs.saved_vertical_scenes() or {"scenes": []}
            return (found.get("active"), [(e["name"], e["hostScene"], e["layout"]) for e in found["scenes"]],
                    found.get("transition"))

        talk_layout = {k: v for k, v in default_layout.items() if k not in ("top", "bottom")}
        intro_saved = {k: v for k, v in intro_layout.items() if k != "bottom"}
        expected = ("Talk", [("Intro", "Main", intro_saved), ("Talk", "Main", talk_layout)], cut)
        self.assertTrue(wait_until(lambda: saved() == expected), saved())

        # Scene hotkeys wrap around the list [Intro, Talk]; a key bound in the host's
        # settings works as well.
        for name, active in (("NextScene", "Intro"), ("PreviousScene", "Talk"), ("PreviousScene", "Intro")):
            self.hotkey(name)
            events.until("ActiveSceneChanged", sceneName=active)
        obs.press_keys(("F9",))
        events.until("ActiveSceneChanged", sceneName="Talk")

        # Following OBS's program scene: the first vertical scene showing it, at once and at
        # each switch; a scene none shows leaves the canvas where it is.
        for name in ("Side", "Empty"):
            obs.request("CreateScene", {"sceneName": name})
        for kind, data in [("CreateScene", {"sceneName": "Side cam"}),
                           ("AssignHostScene", {"sceneName": "Side cam", "hostSceneName": "Side"}),
                           ("SetFollowMainScene", {"enabled": True})]:
            self.assertEqual(self.call(kind, data), {"ok": True}, kind)
        events.until("ActiveSceneChanged", sceneName="Intro")
        self.assertTrue(self.call("GetStatus")["followMainScene"])
        obs.request("SetCurrentProgramScene", {"sceneName": "Side"})
        events.until("ActiveSceneChanged", sceneName="Side cam")
        # The plug-in follows in the host's own handling of the switch, which tells the
        # websocket server of it too: asked after that, the canvas has to have stayed.
        obs.request("SetCurrentProgramScene", {"sceneName": "Empty"})
        events.until("CurrentProgramSceneChanged", sceneName="Empty")
        self.assertEqual(self.call("GetStatus")["activeScene"], "Side cam")
        obs.request("SetCurrentProgramScene", {"sceneName": "Main"})
        moves = [e[1]["sceneName"] for e in events.until("ActiveSceneChanged", sceneName="Intro")
                 if e[0] == "ActiveSceneChanged"]
        self.assertEqual(moves, ["Intro"])

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

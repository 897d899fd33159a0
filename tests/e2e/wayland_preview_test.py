#!/usr/bin/env python3
"""The real obs, running natively on Wayland under a headless weston, shows the vertical
canvas in the dock's preview: the compositor's own screenshot has the canvas's picture,
9:16 and upright, in colours only the plug-in's preview can draw."""

import json
import shutil
import subprocess
import sys
import unittest

from e2e_session import COLLECTION, E2eSession, main, retry_after_host_crash, wait_until

from obs_session import colour_abgr, three_band_collection

# The vertical scene "Phone" fits OBS's scene on a magenta background, a colour that shows
# nowhere on screen but in the plug-in's preview. The scene's top half is red on the left
# and green on the right, its bottom half blue, so a mirrored or upside-down picture shows.
RED, GREEN, BLUE, MAGENTA = (255, 0, 0), (0, 255, 0), (0, 0, 255), (255, 0, 255)
SCENES = {"Scenes": {"count": 1, "activescene": "Phone", "scene_0_name": "Phone", "scene_0_source": "Main"},
          "VerticalCanvas": {"dockfloating": "false", "dockvisible": "true", "dockarea": 1, "dockgeometry": ""}}
FIT_ON_MAGENTA = {"sceneName": "Phone", "layout": "fit", "background": "#FF00FF"}
# Where in the canvas (fractions of its width and height) which colour shows.
SAMPLES = [((0.5, 0.1), MAGENTA), ((0.25, 0.43), RED), ((0.75, 0.43), GREEN), ((0.5, 0.57), BLUE),
           ((0.5, 0.9), MAGENTA)]


def quarters_collection(width, height):
    """OBS's scene "Main": red top left, green top right, blue bottom half."""
    collection = three_band_collection(width, height)
    boxes = [(RED, 0, 0, width // 2, height // 2), (GREEN, width // 2, 0, width - width // 2, height // 2),
             (BLUE, 0, height // 2, width, height - height // 2)]
    sources = [source for source in collection["sources"] if source["id"] != "scene"]
    items = next(source for source in collection["sources"] if source["id"] == "scene")["settings"]["items"]
    for source, item, (rgb, x, y, w, h) in zip(sources, items, boxes):
        source["settings"] = {"color": colour_abgr(rgb[0] << 16 | rgb[1] << 8 | rgb[2]), "width": w, "height": h}
        item["pos"] = {"x": float(x), "y": float(y)}
    return collection


def rgb_pixels(png):
    """(width, height, rows of RGB bytes) of a PNG, through ffmpeg."""
    probe = subprocess.run(["ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                            "stream=width,height", "-of", "json", str(png)], capture_output=True, text=True,
                           timeout=30, check=True)
    stream = json.loads(probe.stdout)["streams"][0]
    width, height = stream["width"], stream["height"]
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", str(png), "-f", "rawvideo", "-pix_fmt", "rgb24", "-"],
                         capture_output=True, timeout=30, check=True).stdout
    return width, height, raw


def pixel(image, x, y):
    width, _, raw = image
    return tuple(raw[(y * width + x) * 3:(y * width + x) * 3 + 3])


def near(rgb, colour, tolerance=40):
    return all(abs(a - b) <= tolerance for a, b in zip(rgb, colour))


def area_of(image, colour, tolerance=40):
    """Bounding box (left, top, right, bottom) and pixel count of the pixels near a colour."""
    width, height, raw = image
    near = -1
    for channel, value in enumerate(colour):
        table = bytes(int(abs(v - value) <= tolerance) for v in range(256))
        near &= int.from_bytes(raw[channel::3].translate(table), "big")
    flags = near.to_bytes(width * height, "big")
    left = top = 1 << 30
    right = bottom = -1
    count = 0
    for y in range(height):
        row = flags[y * width:(y + 1) * width]
        n = row.count(1)
        if n:
            count += n
            left, right = min(left, row.find(1)), max(right, row.rfind(1))
            top, bottom = min(top, y), max(bottom, y)
    return (left, top, right, bottom), count


class WaylandPreview(unittest.TestCase):
    @retry_after_host_crash
    def test_the_dock_preview_draws_the_vertical_canvas_on_wayland(self):
        if not shutil.which("weston"):
            self.skipTest("weston is not installed (scripts/setup installs it)")
        obs = E2eSession(wayland=True, global_settings=SCENES,
                         profile_settings={"canvaswidth": 360, "canvasheight": 640})
        self.addCleanup(obs.shutdown)
        scenes = obs.obs_config / "basic" / "scenes"
        scenes.mkdir(parents=True)
        (scenes / f"{COLLECTION}.json").write_text(json.dumps(quarters_collection(*obs.base_size)))
        obs.prepare().start().wait_ready()
        self.assertEqual(obs.vendor("SetSceneLayout", FIT_ON_MAGENTA), {"ok": True})

        shot = obs.root / "wayland-screen.png"
        found = {}

        def at(fx, fy):
            """The screenshot's pixel at a fraction of the magenta's box."""
            (left, top, right, bottom), _ = found["magenta"]
            return pixel(found["image"], left + int(fx * (right - left + 1)), top + int(fy * (bottom - top + 1)))

        def drawn():
            obs.screenshot(shot)
            found["image"] = rgb_pixels(shot)
            found["magenta"] = area_of(found["image"], MAGENTA)
            return found["magenta"][1] > 0 and all(near(at(*point), colour) for point, colour in SAMPLES)

        # Until the first frames of the new layout are drawn.
        wait_until(drawn, timeout=15)
        print(f"screenshot: {shot}", file=sys.stderr)
        try:
            self.assertGreater(found["magenta"][1], 0, f"no vertical canvas on screen; log:\n{obs.log_text()[-3000:]}")
            # The whole canvas, 9:16, in the preview: the scene, as wide as the canvas and
            # 9:16 of that high, upright in the middle of it, magenta above and below.
            (left, top, right, bottom), magenta = found["magenta"]
            width, height = right - left + 1, bottom - top + 1
            self.assertGreaterEqual(width, 100, found["magenta"])
            self.assertAlmostEqual(width / height, 9 / 16, delta=0.03, msg=found["magenta"])
            scene_height = width * 9 / 16
            self.assertAlmostEqual(magenta / (width * (height - scene_height)), 1, delta=0.05, msg=found["magenta"])
            for (fx, fy), colour in SAMPLES:
                self.assertTrue(near(at(fx, fy), colour), f"at {fx}, {fy} of the canvas: {at(fx, fy)}, not {colour}")
            self.assertNotIn("Display widget:", obs.log_text())
        except AssertionError:
            obs.keep = True  # the screenshot and the logs stay for a look
            print(f"kept {obs.root}", file=sys.stderr)
            raise

        obs.expect_clean_close(self)


if __name__ == "__main__":
    main()

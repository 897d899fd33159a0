#!/usr/bin/env python3
"""The real obs, running natively on Wayland under a headless weston, shows the vertical
canvas in the dock's preview: the compositor's own screenshot has the canvas's picture,
upright and 9:16, where only the plug-in's preview can draw it."""

import json
import shutil
import subprocess
import sys
import unittest

from e2e_session import COLLECTION, KEEP, E2eSession, main, retry_after_host_crash, wait_until

from obs_session import colour_abgr, three_band_collection

# The vertical scene shows an OBS scene that is not on air, magenta above yellow, so its
# colours show nowhere on screen but in the plug-in's preview (OBS's own shows "Main").
MAGENTA, YELLOW = (255, 0, 255), (255, 255, 0)
SCENES = {"Scenes": {"count": 1, "activescene": "Phone", "scene_0_name": "Phone", "scene_0_source": "Phone"},
          "VerticalCanvas": {"dockfloating": "false", "dockvisible": "true", "dockarea": 1, "dockgeometry": ""}}


def phone_collection(width, height):
    """OBS's "Main" (three bands) and "Phone": its top third magenta, its bottom third
    yellow, nothing between them."""
    collection = three_band_collection(width, height)
    band = height // 3
    items = []
    for i, (name, rgb, y) in enumerate((("Top", MAGENTA, 0), ("Bottom", YELLOW, height - band))):
        collection["sources"].append({
            "id": "color_source_v3", "versioned_id": "color_source_v3", "name": name,
            "settings": {"color": colour_abgr(rgb[0] << 16 | rgb[1] << 8 | rgb[2]), "width": width, "height": band}})
        items.append({"name": name, "id": i + 1, "visible": True, "locked": False,
                      "pos": {"x": 0.0, "y": float(y)}, "scale": {"x": 1.0, "y": 1.0},
                      "rot": 0.0, "align": 5, "bounds_type": 0, "bounds_align": 0, "bounds": {"x": 0.0, "y": 0.0}})
    collection["sources"].append({"id": "scene", "versioned_id": "scene", "name": "Phone",
                                  "settings": {"items": items, "id_counter": 2, "custom_size": False}})
    collection["scene_order"].append({"name": "Phone"})
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
        (scenes / f"{COLLECTION}.json").write_text(json.dumps(phone_collection(*obs.base_size)))
        obs.prepare().start().wait_ready()

        self.assertEqual(obs.vendor("GetStatus")["activeScene"], "Phone")
        shot = obs.root / "wayland-screen.png"
        found, image = {}, None

        def drawn():
            nonlocal image
            obs.screenshot(shot)
            image = rgb_pixels(shot)
            found.update(magenta=area_of(image, MAGENTA), yellow=area_of(image, YELLOW))
            return found["magenta"][1] > 0 and found["yellow"][1] > 0

        shown = wait_until(drawn, timeout=15)
        print(f"screenshot: {shot}", file=sys.stderr)
        try:
            self.assertTrue(shown, f"no vertical canvas on screen; {found}; log:\n{obs.log_text()[-3000:]}")
            # The canvas, upright in the preview: a filled magenta box, a yellow one of its
            # size a box's height below it, together 9:16, and between them, where the
            # scene has nothing, the preview's own background (0x080808).
            (ml, mt, mr, mb), magenta = found["magenta"]
            (yl, yt, yr, yb), yellow = found["yellow"]
            width, third = mr - ml + 1, mb - mt + 1
            self.assertGreaterEqual(width, 100, found)
            self.assertGreaterEqual(magenta, 0.97 * width * third, found)
            self.assertGreaterEqual(yellow, 0.97 * width * (yb - yt + 1), found)
            self.assertLessEqual(max(abs(yl - ml), abs(yr - mr), abs(yb - yt + 1 - third)), 2, found)
            self.assertLessEqual(abs(yt - mb - 1 - third), 3, found)
            self.assertAlmostEqual(width / (yb - mt + 1), 9 / 16, delta=0.03, msg=found)
            gap = pixel(image, (ml + mr) // 2, (mb + yt) // 2)
            self.assertTrue(all(abs(c - 8) <= 3 for c in gap), f"between the bands: {gap}")
            self.assertNotIn("Display widget:", obs.log_text())
        except AssertionError:
            obs.keep = True  # the screenshot and the logs stay for a look
            print(f"kept {obs.root}", file=sys.stderr)
            raise

        obs.expect_clean_close(self)


if __name__ == "__main__":
    main()

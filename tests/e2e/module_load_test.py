#!/usr/bin/env python3
"""The real obs program loads the plug-in, and unloads it cleanly when closed."""

import argparse
import os
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts" / "lib"))
from obs_session import LOG_TAG, PLUGIN, ObsSession, retry_after_host_crash  # noqa: E402

ARGS = None


class ModuleLoad(unittest.TestCase):
    def run_obs(self, **kwargs):
        session = ObsSession(ARGS.build_dir, keep=bool(os.environ.get("CV_TEST_KEEP")), **kwargs)
        self.addCleanup(session.shutdown)
        session.prepare().start()
        return session

    @retry_after_host_crash
    def test_loads_and_unloads_cleanly(self):
        obs = self.run_obs()
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Loaded successfully"), obs.log_text()[-4000:])
        version = obs.wait_ready()
        self.assertIn("obsVersion", version)

        log = obs.log_text()
        for line in (f"{LOG_TAG} Loading version 1.0.0",
                     f"{LOG_TAG} Registered output type: cv_vertical_mux_rtmp",
                     f"{LOG_TAG} Canvas initialised: 1080x1920 @ 30/1 fps",
                     f"{LOG_TAG} Runtime created: 1080x1920 @ 30/1 fps",
                     f"{LOG_TAG} Canvas : 1080x1920 @ 30/1 fps",
                     f"{LOG_TAG} RTMP : ",
                     f"{LOG_TAG} Bitrate: 4000 kbps",
                     f"{LOG_TAG} Auto-start with main: yes"):
            self.assertIn(line, log)

        self.assertEqual(obs.close(), 0)
        log = obs.log_text()
        self.assertIn(f"{LOG_TAG} Unloading", log)
        self.assertIn(f"{LOG_TAG} Unloaded", log)
        self.assertLess(log.index(f"{LOG_TAG} Unloading"), log.index(f"{LOG_TAG} Unloaded"))
        self.assertIn("Number of memory leaks: 0", log)
        self.assertNotIn("Failed to save", log)
        self.assertTrue((obs.plugin_config_dir / "settings-global.ini").is_file())
        self.assertTrue((obs.profile_dir / f"{PLUGIN}.ini").is_file())

    @retry_after_host_crash
    def test_hand_edited_canvas_is_refused_with_a_clear_line(self):
        obs = self.run_obs(profile_settings={"canvaswidth": 0})
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Runtime init failed — plugin will not load"),
                        obs.log_text()[-4000:])
        obs.wait_ready()  # the host itself carries on
        log = obs.log_text()
        self.assertIn(f"{LOG_TAG} Invalid canvas format 0x1920 @ 30/1 fps", log)
        self.assertNotIn(f"{LOG_TAG} Loaded successfully", log)
        self.assertEqual(obs.close(), 0)
        # The host does not unload a module that refused to load, so it reports the
        # module's still-open settings files at exit; what matters is a normal shutdown.
        self.assertIn("Freeing OBS context data", obs.log_text())


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build-dir", required=True)
    ARGS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)

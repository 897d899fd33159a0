#!/usr/bin/env python3
"""The real obs program loads the plug-in and unloads it cleanly when closed; a hand-edited
canvas makes the plug-in refuse to load while the host carries on."""

import unittest

from e2e_session import LOG_TAG, PLUGIN, E2eSession, main, retry_after_host_crash


class ModuleLoad(unittest.TestCase):
    def run_obs(self, **kwargs):
        session = E2eSession(**kwargs)
        self.addCleanup(session.shutdown)
        session.prepare().start()
        return session

    @retry_after_host_crash
    def test_loads_and_unloads_cleanly(self):
        obs = self.run_obs()
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Loaded successfully"), obs.log_text()[-4000:])
        self.assertIn("obsVersion", obs.wait_ready())
        obs.expect_clean_close(self)
        self.assertNotIn("Failed to save", obs.log_text())
        self.assertTrue((obs.plugin_config_dir / "settings-global.ini").is_file())
        self.assertTrue((obs.profile_dir / f"{PLUGIN}.ini").is_file())

    @retry_after_host_crash
    def test_a_hand_edited_canvas_is_refused_and_kept(self):
        obs = self.run_obs(profile_settings={"canvaswidth": 0})
        self.assertTrue(obs.wait_for_log(f"{LOG_TAG} Runtime init failed — plugin will not load"),
                        obs.log_text()[-4000:])
        obs.wait_ready()  # the host itself carries on
        # The host does not unload a module that refused to load, so it reports the
        # module's still-open settings files at exit; what matters is a normal shutdown.
        self.assertEqual(obs.close(), 0)
        self.assertIn("Freeing OBS context data", obs.log_text())
        self.assertIn("canvaswidth=0", (obs.profile_dir / f"{PLUGIN}.ini").read_text())


if __name__ == "__main__":
    main()

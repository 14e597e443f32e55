"""What the user sees and does: the tray icon and the balloon asking for
permission, clicks on them and on the icon's menu, a second start while the
first waits, and the progress dialog with its Cancel button."""

import unittest

import harness
from systemcase import MIB, PACK, SystemTestCase, partial_path


class TrayTest(SystemTestCase):
    # Slow enough for an emulated i386 desktop to show and click the dialog
    # first; a resumed request is not held back.
    nginx_directives = ("location /slow/ { limit_rate 256k; "
                        "if ($http_range) { set $limit_rate 0; } }")

    def test_permission(self):
        """However the user agrees, the updater starts exactly once. A right
        press while the balloon shows only opens the menu, whose Exit ends the
        run with 0; a second start stops both (32 and 0)."""
        for action, lang, starts in [("icon while the balloon shows", "en_US.UTF-8", 1),
                                     ("icon after the balloon closed", "en_US.UTF-8", 1),
                                     ("balloon, in Japanese", "ja_JP.UTF-8", 1),
                                     ("right press while the balloon shows", "en_US.UTF-8", 0),
                                     ("second start", "en_US.UTF-8", 0)]:
            with self.subTest(action):
                site, installation, record = self.offer(permit=True)
                process = self.start(installation, lang=lang)

                def windows():
                    return self.desktop.visible_windows("--pid", process.pid)

                def asking():  # the icon docked and the balloon drawn
                    self.assertTrue(process.running(), installation.log_text())
                    icons = [w for w, g in windows().items() if g[2] <= 64 and g[3] <= 64]
                    balloons = [(w, g) for w, g in windows().items()
                                if g[2] >= 100 and self.desktop.painted(g)]
                    return icons and balloons and (icons[0], *balloons[0])
                icon, balloon, (x, y, w, h) = harness.wait_for(asking, 30, "the balloon")
                self.assertNotIn("Start running updater.", installation.log_messages())

                if action.startswith("icon after"):
                    self.desktop.click_drawing((x + w - 34, y + 5, 28, 26))  # its close button
                    harness.wait_for(lambda: balloon not in windows(), 10, "the balloon to go")
                if action.startswith("icon"):
                    self.desktop.click(icon)
                elif action.startswith("balloon"):
                    self.desktop.click(balloon)
                elif action.startswith("right"):
                    before = set(windows())
                    self.desktop.click(icon, button=3)
                    menu, (_, _, w, h) = harness.wait_for(lambda: [
                        (m, g) for m, g in windows().items()
                        if m not in before and self.desktop.painted(g)], 20, "the menu")[0]
                    # "Upgrade" above, "Exit" below: the lower quarter is inside "Exit".
                    self.desktop.click(menu, at=(w // 2, h * 3 // 4))
                else:
                    self.assertEqual(self.start(installation).wait(30), 32)

                self.assertEqual(process.wait(30), 0, installation.log_text())
                self.assertEqual(installation.log_messages().count("Start running updater."),
                                 starts)
                self.assertLogged(installation, "Auto updater finished.")
                self.assertHandedOff(installation, record, starts=starts)
                if action == "second start":
                    self.assertLogged(installation, "auto updater is already running, stop "
                                      "both.", "Auto updater finished.")
                if lang.startswith("ja"):  # the language it chose, from its start-up trace
                    self.assertIn("qPrintable(qstrDef)=[jpn]", process.output_text())

    def test_dialog_shows_pack_until_cancelled_then_next_run_resumes(self):
        site, installation, record = self.offer(harness.pack_bytes(2 * MIB), under="slow/")
        pack, saved = (site.folder / PACK).read_bytes(), installation.save_path(PACK)
        process = self.start(installation, installation.client_arguments(show_dialog=True))

        def dialog():
            self.assertTrue(process.running(), installation.log_text())
            return partial_path(saved).exists() and [g for g in self.desktop.visible_windows(
                "--all", "--pid", process.pid, "--name", "^Quillon$").values()
                if self.desktop.painted(g)]
        x, y, w, h = harness.wait_for(dialog, 30, "the progress dialog")[0]
        self.assertEqual(w, 400)  # pixels at the standard density the desktop runs at
        self.desktop.click_drawing((x + w - 150, y + h - 40, 140, 34))  # Cancel

        self.assertEqual(process.wait(30), 0, installation.log_text())
        self.assertNotIn("Start running updater.", installation.log_messages())
        kept = partial_path(saved).read_bytes()
        self.assertTrue(0 < len(kept) < len(pack) and kept == pack[:len(kept)])

        self.run_program(installation)
        self.assertEqual(saved.read_bytes(), pack)
        self.assertEqual([(r["range"], r["status"]) for r in site.requests(PACK)],
                         [("", 200), (f"bytes={len(kept)}-", 206)])
        self.assertHandedOff(installation, record, b"--update-pack-path", bytes(saved))


if __name__ == "__main__":
    unittest.main()

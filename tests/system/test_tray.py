"""What the user sees and does: the tray icon and the balloon asking for
permission, clicks on them and on the icon's menu, a second start while the
first waits, and the progress dialog with its Cancel button."""

import unittest

import harness
from systemcase import MIB, PACK, SystemTestCase, partial_path


class TrayTest(SystemTestCase):
    nginx_directives = "        location /slow/ { limit_rate 1m; }"

    def wait_for_permission_request(self, installation, process):
        """(icon, balloon window, balloon geometry) once the program waits with
        its icon docked and its balloon drawn; nothing is started before."""
        def shown():
            if not process.running():
                self.fail("program ended before asking:\n" + installation.log_text())
            windows = self.desktop.visible_windows(process.pid).items()
            icons = [w for w, g in windows if g[2] <= 64 and g[3] <= 64]
            balloons = [(w, g) for w, g in windows if g[2] >= 100 and self.desktop.painted(g)]
            return icons and balloons and (icons[0], *balloons[0])
        found = harness.wait_for(shown, 30, "the tray icon and its balloon")
        self.assertNotIn("Start running updater.", installation.log_messages())
        return found

    def open_menu_and_exit(self, process, icon):
        before = set(self.desktop.visible_windows(process.pid))
        self.desktop.click(icon, button=3)

        def menu():
            self.assertTrue(process.running(), "program ended on a right press")
            return [(w, g) for w, g in self.desktop.visible_windows(process.pid).items()
                    if w not in before and self.desktop.painted(g)]
        window, geometry = harness.wait_for(menu, 20, "the icon's menu")[0]
        # "Upgrade" above, "Exit" below: the lower quarter is inside "Exit".
        self.desktop.click(window, at=(geometry[2] // 2, geometry[3] * 3 // 4))

    def test_permission(self):
        """However the user agrees, the updater starts exactly once; a right
        press while the balloon shows only opens the menu, whose Exit ends
        the run with 0; a second start stops both (32 and 0)."""
        rows = [("icon while the balloon shows", "en_US.UTF-8", 1),
                ("icon after the balloon closed", "en_US.UTF-8", 1),
                ("balloon, in Japanese", "ja_JP.UTF-8", 1),
                ("right press while the balloon shows, then Exit", "en_US.UTF-8", 0),
                ("second start", "en_US.UTF-8", 0)]
        for action, lang, starts in rows:
            with self.subTest(action):
                site, installation, record = self.offer(permit=True)
                process = self.start(installation, lang=lang)
                icon, balloon, geometry = self.wait_for_permission_request(installation, process)

                if action.startswith("icon after"):
                    x, y, w, _ = geometry
                    self.desktop.click_drawing((x + w - 34, y + 5, 28, 26))  # its close button
                    harness.wait_for(lambda: balloon not in self.desktop.visible_windows(
                        process.pid), 10, "the balloon to close")
                    self.assertEqual(record.starts(), 0)
                if action.startswith("icon"):
                    self.desktop.click(icon)
                elif action.startswith("balloon"):
                    self.desktop.click(balloon)
                elif action.startswith("right"):
                    self.open_menu_and_exit(process, icon)
                else:
                    second = self.start(installation)
                    self.assertEqual(second.wait(30), 32, installation.log_text())

                self.assertEqual(process.wait(30), 0, installation.log_text())
                self.assertEqual(installation.log_messages().count("Start running updater."),
                                 starts)
                self.assertLogged(installation, "Auto updater finished.")
                if starts:
                    self.assertHandedOff(installation, record)
                harness.reap_orphans()
                self.assertEqual(record.starts(), starts)
                if lang.startswith("ja"):
                    self.assertIn("qPrintable(qstrDef)=[jpn]", process.output_text())
                if action == "second start":
                    self.assertLogged(installation, "auto updater is already running, stop "
                                      "both.", "Auto updater finished.")

    def test_dialog_shows_pack_until_cancelled_then_next_run_resumes(self):
        site, installation, record = self.offer(harness.pack_bytes(2 * MIB, seed=5),
                                                under="slow/")
        saved = installation.save_path(PACK)
        process = self.start(installation, installation.client_arguments(show_dialog=True))

        def dialog():
            for window in self.desktop.search("--all", "--onlyvisible", "--pid", process.pid,
                                              "--name", "^Quillon$"):
                geometry = self.desktop.geometry(window)
                if geometry and self.desktop.painted(geometry) and partial_path(saved).exists():
                    return geometry
            self.assertTrue(process.running(), installation.log_text())
        x, y, w, h = harness.wait_for(dialog, 30, "the progress dialog")
        # 400 pixels at the standard density the desktop runs at (96 dpi).
        self.assertEqual(w, 400)
        self.desktop.click_drawing((x + w - 150, y + h - 40, 140, 34))  # Cancel

        self.assertEqual(process.wait(30), 0, installation.log_text())
        self.assertNotIn("Start running updater.", installation.log_messages())
        kept = partial_path(saved).read_bytes()
        self.assertTrue(0 < len(kept) < 2 * MIB)
        self.assertEqual(kept, (site.folder / PACK).read_bytes()[:len(kept)])

        self.assertStatus(installation, self.run_program(installation), 0)
        self.assertEqual(saved.read_bytes(), (site.folder / PACK).read_bytes())
        self.assertEqual([(r["range"], r["status"]) for r in site.requests() if r["name"] == PACK],
                         [("", 200), (f"bytes={len(kept)}-", 206)])
        self.assertHandedOff(installation, record, b"--update-pack-path", bytes(saved))


if __name__ == "__main__":
    unittest.main()

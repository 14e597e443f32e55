"""What the user sees and does: the tray icon and its balloon asking for
permission, clicks on them and the icon's context menu, a second start while
the first waits, and the progress dialog. Screenshots go to
<build>/tests/system/screenshots/ for a person to look at."""

import unittest

import harness
from systemcase import SystemTestCase


class TrayTestCase(SystemTestCase):

    def handed_off_once(self, installation, process, record):
        """The run ended normally after starting the updater exactly once."""
        self.assertEqual(process.wait(30), 0, self.log_text(installation))
        cwd, args = record.wait()
        self.assertEqual(cwd, b"/")
        self.assertEqual(args[:2], [b"--root-path", bytes(installation.app)])
        self.assertLogged(installation, "Start running updater.", "Auto updater finished.")
        harness.reap_orphans()
        self.assertEqual(record.starts(), 1)
        return args

    def ended_without_hand_off(self, installation, process, record):
        self.assertEqual(process.wait(30), 0, self.log_text(installation))
        self.assertLogged(installation, "Auto updater finished.")
        self.assertNotLogged(installation, "Start running updater.")
        harness.reap_orphans()
        self.assertEqual(record.starts(), 0)


class PermissionTest(TrayTestCase):
    """An answer with "need_user_permit" makes the program wait, without
    limit, for the user; nothing is started before the user agrees."""

    def offer_update(self):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        site.answer({"updater": dict(updater, need_user_permit=True)})
        self.serve(installation, site)
        return installation, record

    def wait_for_permission_request(self, installation, process):
        """(icon window, balloon window, balloon geometry) once the program
        waits, with its icon docked and its balloon drawn."""
        installation.wait_log("Download updater done.", process=process)

        def shown():
            icon = self.desktop.tray_icon(process.pid)
            for window, geometry in self.desktop.visible_windows(process.pid).items():
                if geometry[2] >= 100 and icon and self.desktop.painted(geometry):
                    return icon, window, geometry
            return None
        found = harness.wait_for(shown, 20, "the tray icon and its balloon")
        # The balloon is up, so the program has decided to wait: had it
        # started the updater, that would have come first.
        self.assertNotIn("Start running updater.", installation.log_messages())
        return found

    def balloon_screenshot(self, name, balloon):
        # From the balloon down to the corner, with the icon it points at.
        x, y, _, _ = balloon
        area = (x, y, self.desktop.size[0] - x, self.desktop.size[1] - y)
        return self.desktop.screenshot(self.screenshot_path(name), area, margin=8)

    def close_balloon(self, process, balloon):
        """Clicks the balloon's close button, found as the only drawing in
        its top-right corner, and waits until the balloon is gone."""
        x, y, w, h = balloon
        bx, by, bw, bh = self.desktop.content_box((x + w - 34, y + 5, 28, 26))
        self.desktop.x("xdotool", "mousemove", bx + bw // 2, by + bh // 2, "click", 1)
        harness.wait_for(
            lambda: balloon not in self.desktop.visible_windows(process.pid).values(), 10,
            "the balloon to close")

    def open_tray_menu(self, process, icon):
        """Right-clicks the icon; returns the menu's window and geometry."""
        before = set(self.desktop.visible_windows(process.pid))
        self.desktop.click(icon, button=3)

        def menu_shown():
            if not process.running():
                self.fail("program ended on a right click")
            for window, geometry in self.desktop.visible_windows(process.pid).items():
                if window not in before and self.desktop.painted(geometry):
                    return window, geometry
            return None
        return harness.wait_for(menu_shown, 20, "the tray icon's context menu")

    def choose_exit(self, menu, geometry):
        # "Upgrade" above, "Exit" below: the lower quarter is inside "Exit".
        self.desktop.click(menu, at=(geometry[2] // 2, geometry[3] * 3 // 4))

    def test_click_on_icon_starts_updater(self):
        installation, record = self.offer_update()
        process = self.start(installation, installation.client_arguments())
        icon, _, balloon = self.wait_for_permission_request(installation, process)
        self.balloon_screenshot("balloon-en.png", balloon)
        self.close_balloon(process, balloon)
        self.assertTrue(process.running())
        self.assertEqual(record.starts(), 0)

        self.desktop.click(icon)

        self.handed_off_once(installation, process, record)

    def test_click_on_icon_while_balloon_shows_starts_updater_once(self):
        # The press reaches the program twice, as a click on the balloon and
        # as a click on the icon.
        installation, record = self.offer_update()
        process = self.start(installation, installation.client_arguments())
        icon, _, _ = self.wait_for_permission_request(installation, process)

        self.desktop.click(icon)

        self.handed_off_once(installation, process, record)
        self.assertEqual(installation.log_messages().count("Start running updater."), 1)

    def test_click_on_balloon_starts_updater_in_japanese(self):
        installation, record = self.offer_update()
        process = self.start(installation, installation.client_arguments(),
                             lang="ja_JP.UTF-8")
        _, balloon_window, balloon = self.wait_for_permission_request(installation, process)
        self.balloon_screenshot("balloon-ja.png", balloon)

        self.desktop.click(balloon_window)

        self.handed_off_once(installation, process, record)
        # The language the program chose for itself, from its start-up trace.
        self.assertIn("qPrintable(qstrDef)=[jpn]", process.output_text())

    def test_menu_exit_ends_without_starting_updater(self):
        installation, record = self.offer_update()
        process = self.start(installation, installation.client_arguments())
        icon, _, balloon = self.wait_for_permission_request(installation, process)
        self.close_balloon(process, balloon)

        menu, geometry = self.open_tray_menu(process, icon)
        self.desktop.screenshot(self.screenshot_path("tray-menu-en.png"), geometry, margin=40)
        self.choose_exit(menu, geometry)

        self.ended_without_hand_off(installation, process, record)

    # Qt's X11 tray icon reports any press on the icon while the balloon is up
    # as a click on the balloon too, and a balloon click means "go ahead". A
    # user who right-clicks to reach "Exit" in the first minute must still get
    # the menu, not the update.
    def test_right_click_while_balloon_shows_only_opens_menu(self):
        installation, record = self.offer_update()
        process = self.start(installation, installation.client_arguments())
        icon, _, _ = self.wait_for_permission_request(installation, process)

        menu, geometry = self.open_tray_menu(process, icon)
        self.choose_exit(menu, geometry)

        self.ended_without_hand_off(installation, process, record)

    def test_second_start_stops_both(self):
        installation, record = self.offer_update()
        first = self.start(installation, installation.client_arguments())
        self.wait_for_permission_request(installation, first)

        second = self.start(installation, installation.client_arguments())

        self.assertEqual(second.wait(30), 32, self.log_text(installation))
        self.ended_without_hand_off(installation, first, record)
        self.assertLogged(installation, "auto updater is already running, stop both.",
                          level="WARNING")
        self.assertLogged(installation, "auto updater is already running, stop both.",
                          "Auto updater finished.")


class ProgressDialogTest(TrayTestCase):
    # Slow enough that the dialog stays up for a few seconds.
    nginx_directives = "        location /slow/ { limit_rate 1m; }"

    def offer_update(self, pack_size):
        site = self.new_site(under="slow/")
        installation, record = self.new_installation(), self.new_record()
        site.answer({"updater": site.put_updater(record),
                     "update_pack": site.put("quillon-2.0.0.deb",
                                             harness.pack_bytes(pack_size, seed=5))})
        self.serve(installation, site)
        return site, installation, record

    def wait_for_dialog(self, installation, process):
        """The dialog's window and geometry once it is drawn."""
        def shown():
            for window in self.desktop.search("--all", "--onlyvisible", "--pid", process.pid,
                                              "--name", "^Quillon$"):
                geometry = self.desktop.geometry(window)
                if geometry and self.desktop.painted(geometry):
                    return window, geometry
            if not process.running():
                self.fail("program ended before its dialog showed:\n"
                          + self.log_text(installation))
            return None
        return harness.wait_for(shown, 30, "the progress dialog")

    def test_dialog_shows_pack_download(self):
        site, installation, record = self.offer_update(3 * 1024 * 1024)
        process = self.start(installation, installation.client_arguments(show_dialog=True))

        _, geometry = self.wait_for_dialog(installation, process)
        self.desktop.screenshot(self.screenshot_path("progress-dialog.png"))
        self.desktop.screenshot(self.screenshot_path("progress-dialog-crop.png"), geometry,
                                margin=20)
        # 400 pixels at the standard density the desktop runs at (96 dpi).
        self.assertEqual(geometry[2], 400)
        self.assertNotIn("Download update pack done.", installation.log_messages())

        args = self.handed_off_once(installation, process, record)
        saved_pack = installation.save_path("quillon-2.0.0.deb")
        self.assertEqual(saved_pack.read_bytes(),
                         (site.folder / "quillon-2.0.0.deb").read_bytes())
        self.assertEqual(args[4:], [b"--update-pack-path", bytes(saved_pack)])

    def test_cancel_keeps_partial_pack_for_next_run(self):
        site, installation, record = self.offer_update(2 * 1024 * 1024)
        pack = (site.folder / "quillon-2.0.0.deb").read_bytes()
        saved_pack = installation.save_path("quillon-2.0.0.deb")
        partial = saved_pack.with_name(saved_pack.name + ".download")
        process = self.start(installation, installation.client_arguments(show_dialog=True))
        _, geometry = self.wait_for_dialog(installation, process)
        harness.wait_for(lambda: partial.exists() and partial.stat().st_size > 0, 20,
                         "part of the pack to arrive")

        # The Cancel button: the only drawing in the dialog's lower right.
        x, y, w, h = geometry
        bx, by, bw, bh = self.desktop.content_box((x + w - 150, y + h - 40, 140, 34))
        self.desktop.x("xdotool", "mousemove", bx + bw // 2, by + bh // 2, "click", 1)

        self.ended_without_hand_off(installation, process, record)
        kept = partial.read_bytes()
        self.assertFalse(saved_pack.exists())
        self.assertGreater(len(kept), 0)
        self.assertLess(len(kept), len(pack))
        self.assertEqual(kept, pack[:len(kept)])

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 0)
        self.assertEqual(saved_pack.read_bytes(), pack)
        pack_requests = [r for r in site.requests() if r["path"].endswith(".deb")]
        self.assertEqual([(r["range"], r["status"]) for r in pack_requests],
                         [("", 200), (f"bytes={len(kept)}-", 206)])
        record.wait()


if __name__ == "__main__":
    unittest.main()

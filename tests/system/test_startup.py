"""Start-up on a desktop without a system tray: the program cannot show
anything there, so it gives up before touching the network, while --help
still answers."""

import re
import unittest

from systemcase import SystemTestCase

# Every option the desktop client may pass, in the order --help lists them.
OPTIONS = [
    ("--root-path", "<path>", "Root path of Quillon installed."),
    ("--portable-path", "<path>", "Portable path (per user path) of Quillon installed."),
    ("--temp-path", "<path>", "temp path to download files. (default: system temp folder)"),
    ("--client-version", "<version>", "Current Quillon version."),
    ("--server-version", "<version>",
     "Connected Quillon server version. (repeat this option for multiple servers)"),
    ("--installer", "<installer>", "Installer type of current installation. e.g. deb"),
    ("--arch", "<arch>", "Type of system architecture."),
    ("--identify", "<id>", "Identity of product."),
    ("--os", "<os>", "Type of operation system."),
    ("--osversion", "<osversion>", "Version of operation system."),
    ("--proxy-server", "<address>", "Proxy server address."),
    ("--proxy-port", "<port>", "Proxy server port."),
    ("--proxy-username", "<username>", "Username to connect proxy server."),
    ("--proxy-password", "<password>", "Password to connect proxy server."),
    ("--show-dialog", "", "Show download progress bar."),
]


def parse_help(text):
    """[(names, value name, help text)] of the Options section, with help
    texts that wrap over several lines joined again."""
    options = []
    in_options = False
    for line in text.splitlines():
        if line == "Options:":
            in_options = True
            continue
        if not in_options or not line.strip():
            continue
        match = re.match(r"^  (-\S+(?:, -\S+)*)(?: (<[^>]+>))?\s{2,}(.*)$", line)
        if match:
            options.append([match.group(1), match.group(2) or "", match.group(3)])
        elif line.startswith("   ") and options:
            options[-1][2] += " " + line.strip()
        else:
            in_options = False
    return [tuple(o) for o in options]


class NoTrayTest(SystemTestCase):
    tray = False

    def test_desktop_without_tray_ends_with_status_1_before_any_query(self):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        site.answer({"updater": site.put_updater(record)})
        self.serve(installation, site)

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 1)
        self.assertEqual(installation.log_entries()[-1][0::2],
                         ("WARNING", "Does not detect any system tray on this system."))
        self.assertNotLogged(installation, "Start auto updater.")
        self.assertEqual(site.requests(), [])
        self.assertFalse(record.started())

    def test_help_lists_every_option_without_a_tray(self):
        installation = self.new_installation()
        process = self.start(installation, ["--help"])
        status = process.wait(30)

        self.assertEqual(status, 0, process.output_text())
        options = parse_help(process.output_text())
        self.assertEqual(options[:len(OPTIONS)], OPTIONS)
        # Then only the parser's own help options.
        self.assertTrue(all("help" in names for names, _, _ in options[len(OPTIONS):]),
                        options)
        self.assertNotIn("Does not detect any system tray on this system.",
                         installation.log_messages())


if __name__ == "__main__":
    unittest.main()

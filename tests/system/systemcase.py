"""Common ground of the system tests: where the installed program is, a shared
desktop and update server per test class, and a fresh installation per test.

CTest passes, through the environment:
  QUILLON_SYSTEM_PREFIX     the prefix the program was installed into
  QUILLON_TRAY_PROBE        the tray-probe program
  QUILLON_SYSTEM_ARTIFACTS  a folder of the build tree for screenshots
"""

import os
import shutil
import tempfile
import unittest
from pathlib import Path

import harness


def _setting(name):
    value = os.environ.get(name)
    if not value:
        raise harness.HarnessError(f"{name} is not set; run the system tests through ctest")
    return value


class SystemTestCase(unittest.TestCase):
    """Subclasses set `tray` (whether the desktop has a system tray),
    `nginx_directives` and `nginx_listen_options`; the class's desktop and
    nginx are shared by its tests, which keep apart by each using their own
    UpdateSite and Installation."""

    tray = True
    nginx_directives = ""
    nginx_listen_options = ""

    @classmethod
    def setUpClass(cls):
        harness.adopt_orphans()
        cls.prefix = Path(_setting("QUILLON_SYSTEM_PREFIX"))
        if not (cls.prefix / "bin" / "autoupdater").exists():
            raise harness.HarnessError(f"no installed program under {cls.prefix}")
        cls.screenshots = Path(_setting("QUILLON_SYSTEM_ARTIFACTS")) / "screenshots"
        cls.class_dir = Path(tempfile.mkdtemp(prefix=f"quillon-{cls.__name__}-"))
        cls.addClassCleanup(shutil.rmtree, cls.class_dir, ignore_errors=True)
        cls.desktop = harness.Desktop(cls.class_dir / "desktop", _setting("QUILLON_TRAY_PROBE"),
                                      tray=cls.tray)
        cls.addClassCleanup(cls.desktop.stop)
        cls.desktop.start()
        docroot = cls.class_dir / "www"
        docroot.mkdir()
        cls.nginx = harness.Nginx(cls.class_dir / "nginx", docroot, cls.nginx_directives,
                                  cls.nginx_listen_options)
        cls.addClassCleanup(cls.nginx.stop)
        cls.nginx.start()

    def setUp(self):
        self.test_dir = Path(tempfile.mkdtemp(prefix="t-", dir=self.class_dir))
        self.addCleanup(shutil.rmtree, self.test_dir, ignore_errors=True)
        # Runs after every process of the test is stopped (clean-ups run in
        # reverse): whatever the program left running is ended here.
        self.addCleanup(harness.reap_orphans)

    # -- building blocks

    def new_installation(self, **kwargs):
        workdir = tempfile.mkdtemp(prefix="install-", dir=self.test_dir)
        return harness.Installation(self.prefix, workdir, **kwargs)

    def new_site(self, under=""):
        """A folder of its own on the class's server; `under` puts it below a
        location with its own settings."""
        self.sites = getattr(self, "sites", 0) + 1
        return harness.UpdateSite(self.nginx, f"{under}{self.test_dir.name}-{self.sites}")

    def serve(self, installation, site):
        """Points the installation's shipped settings at the site's answer."""
        installation.configure_server(self.nginx.url(), site.answer_path)

    def new_record(self):
        self.records = getattr(self, "records", 0) + 1
        return harness.UpdaterRecord(self.test_dir / f"updater-started-{self.records}")

    def start(self, installation, argv, **kwargs):
        process = installation.start(argv, self.desktop, **kwargs)
        self.addCleanup(process.stop)
        return process

    def run_program(self, installation, argv, timeout=60, **kwargs):
        process = self.start(installation, argv, **kwargs)
        try:
            process.wait(timeout)
        except TimeoutError:
            self.fail(f"program still running after {timeout} s; log:\n"
                      + self.log_text(installation))
        return process.popen.returncode

    # -- checks

    @staticmethod
    def log_text(installation):
        path = installation.log_path
        return path.read_text(errors="replace") if path.exists() else "(no log)"

    def assertStatus(self, installation, status, expected):
        self.assertEqual(status, expected,
                         "unexpected exit status; log:\n" + self.log_text(installation))

    def assertLogged(self, installation, *messages, level=None):
        """Each message is in the log (at the level, when given), in this order."""
        entries = [(lvl, msg) for lvl, _, msg in installation.log_entries()]
        position = 0
        for message in messages:
            for index in range(position, len(entries)):
                lvl, msg = entries[index]
                if msg == message and (level is None or lvl == level):
                    position = index + 1
                    break
            else:
                self.fail(f"log lacks {message!r} (in order, level {level}):\n"
                          + self.log_text(installation))

    def assertNotLogged(self, installation, message):
        self.assertNotIn(message, installation.log_messages(),
                         "log:\n" + self.log_text(installation))

    def screenshot_path(self, name):
        return self.screenshots / name

"""A desktop and an nginx per test class; per case a site of its own on that
server and a fresh installation pointed at it. CTest passes
QUILLON_SYSTEM_PREFIX (where the program was installed) and QUILLON_TRAY_PROBE."""

import os, shutil, tempfile, unittest
from pathlib import Path

import harness

UPDATER = "quillon-updater.sh"
PACK = "quillon-2.0.0.deb"
KIB, MIB = 1024, 1024 * 1024


def setting(name):
    if not os.environ.get(name):
        raise harness.HarnessError(f"{name} is not set; run the system tests through ctest")
    return os.environ[name]


def partial_path(saved):
    return saved.with_name(saved.name + ".download")


def started(cleanup, server):  # a Server or Desktop, stopped by the cleanup whatever happens
    cleanup(server.stop)
    return server.start()


class SystemTestCase(unittest.TestCase):
    nginx_directives = nginx_listen_options = ""

    @classmethod
    def setUpClass(cls):
        harness.adopt_orphans()
        cls.prefix = Path(setting("QUILLON_SYSTEM_PREFIX"))
        cls.class_dir = Path(tempfile.mkdtemp(prefix=f"quillon-{cls.__name__}-"))
        cls.addClassCleanup(shutil.rmtree, cls.class_dir, ignore_errors=True)
        cls.desktop = cls.new_desktop(cls.addClassCleanup, cls.class_dir / "desktop")
        cls.nginx = started(cls.addClassCleanup, harness.Nginx(
            cls.class_dir / "nginx", cls.class_dir / "www", cls.nginx_directives,
            cls.nginx_listen_options))

    @staticmethod
    def new_desktop(cleanup, folder, tray=True):
        return started(cleanup, harness.Desktop(folder, setting("QUILLON_TRAY_PROBE"), tray))

    def new_proxy(self):
        return started(self.addCleanup, harness.TinyProxy(self.test_dir / "tinyproxy"))

    def setUp(self):
        self.test_dir = Path(tempfile.mkdtemp(prefix="t-", dir=self.class_dir))
        self.addCleanup(harness.reap_orphans)  # last: after the test's processes stop
        self.cases = 0

    def new_case(self, under=""):  # (site, installation, the stand-in updater's record)
        self.cases += 1
        name = f"{self.test_dir.name}-{self.cases}"
        site = harness.UpdateSite(self.nginx, under + name)
        installation = harness.Installation(self.prefix, self.test_dir / name)
        installation.configure_server(self.nginx.url(), site.answer_path)
        return site, installation, harness.UpdaterRecord(self.test_dir / f"{name}.record")

    def offer(self, pack=None, under="", permit=False, **extra):
        """A case whose answer names the stand-in updater and, given, a pack."""
        site, installation, record = self.new_case(under)
        answer = {"updater": dict(site.put_updater(record), need_user_permit=permit), **extra}
        if pack is not None:
            answer["update_pack"] = site.put(PACK, pack)
        site.answer(answer)
        return site, installation, record

    def start(self, installation, argv=None, **kwargs):
        process = installation.start(argv or installation.client_arguments(), self.desktop,
                                     **kwargs)
        self.addCleanup(process.stop)
        return process

    def run_program(self, installation, argv=None, status=0, timeout=60, **kwargs):
        """Runs to the end, which must come with this exit status."""
        process = self.start(installation, argv, **kwargs)
        try:
            self.assertEqual(process.wait(timeout), status, "log:\n" + installation.log_text())
        except TimeoutError:
            self.fail(f"still running after {timeout} s; log:\n" + installation.log_text())

    def assertLogged(self, installation, *messages, level=None):
        """Each message is in the log (at the level, when given), in this order."""
        entries = iter(installation.log_messages(level))
        for message in messages:
            self.assertIn(message, entries, "log, in order:\n" + installation.log_text())

    def assertFailed(self, installation, record, status, reason):  # at once, nothing started
        self.assertLogged(installation, f"Fail to run auto update. (error code: {status}, "
                          f"reason: {reason})", level="ERROR")
        self.assertNotIn("Download failed, try again.", installation.log_text())
        self.assertFalse(record.started())

    def assertHandedOff(self, installation, record, *tail, starts=1):  # from "/", with the paths
        paths = [b"--root-path", bytes(installation.app),
                 b"--portable-path", bytes(installation.portable)]
        if starts:
            self.assertEqual(record.wait(), (b"/", paths + list(tail)))
        harness.reap_orphans()
        self.assertEqual(record.starts(), starts)

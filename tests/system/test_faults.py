"""Faults a user's machine and network really have, and objects a hostile
neighbour plants in a shared temporary folder. Each run ends with the status
that says what happened and leaves on disk only what the next run can use."""

import glob, os, pwd, shutil, signal, socket, subprocess, tempfile, unittest
from datetime import datetime
from pathlib import Path

import harness
from systemcase import KIB, MIB, PACK, UPDATER, SystemTestCase, partial_path


class FaultTest(SystemTestCase):
    nginx_directives = "location /slow/ { limit_rate 1m; } location /trickle/ { limit_rate 2k; }"

    def test_full_disk_and_read_only_temp_folder(self):
        """Status 6 at the first write that fails, not retried: no partial
        file is left and nothing is started."""
        if os.geteuid() != 0:
            self.skipTest("needs root to mount a small tmpfs")
        for options, reason, left in [
                ("size=1m", "write temp file", [UPDATER]),
                ("ro,size=64k", "open temp file in write only mode", [])]:
            with self.subTest(options):
                site, installation, record = self.offer(harness.pack_bytes(2 * MIB))
                temp = installation.workdir / "small"
                temp.mkdir()
                subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", temp], check=True)
                self.addCleanup(subprocess.run, ["umount", "-l", temp], check=True)

                self.run_program(installation, installation.client_arguments(temp_path=temp), 6)
                self.assertFailed(installation, record, 6, f"fail to {reason}")
                self.assertEqual(os.listdir(temp), [installation.save_path(f).name for f in left])

    def test_proxy_killed_mid_transfer(self):
        """Status 0: after the cut and ten retries on the proxy, the download
        goes direct and resumes the partial file with a Range."""
        proxy = self.new_proxy()
        data = harness.pack_bytes(4 * MIB, seed=5)
        site, installation, record = self.offer(data, under="slow/")
        saved = installation.save_path(PACK)
        partial = partial_path(saved)
        process = self.start(installation, installation.client_arguments(
            proxy_server="127.0.0.1", proxy_port=proxy.port))
        harness.wait_for(lambda: partial.exists() and partial.stat().st_size, 30, "the pack")

        os.kill(proxy.process.pid, signal.SIGKILL)

        self.assertEqual(process.wait(60), 0, installation.log_text())
        self.assertEqual(saved.read_bytes(), data)
        self.assertHandedOff(installation, record, b"--update-pack-path", bytes(saved))
        self.assertEqual(installation.log_messages().count(
            "Download failed, try again. (code: 2, reason: Download failed since proxy error)"), 10)
        # nginx logs the proxied transfer once it notices its end.
        proxied, direct = harness.wait_for(lambda: site.requests(PACK)[1:] and
                                           site.requests(PACK), 30, "both pack requests")
        self.assertIn("tinyproxy", proxied["via"])
        self.assertEqual((direct["via"], direct["status"]), ("", 206))
        self.assertLess(direct["bytes"], len(data) - int(direct["range"].strip("bytes=-")) + KIB)

    def run_on_fast_clock(self, installation, speed, status):
        """libfaketime makes the program's two-minute stall time-out seconds."""
        library = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
        if not library:
            self.skipTest("libfaketime is not installed (tools/install-deps.sh installs it)")
        self.run_program(installation, status=status, timeout=90, extra_env={
            "LD_PRELOAD": library[0], "FAKETIME": f"+0 x{speed}"})

    def logged_seconds(self, installation, first, last):  # on the program's clock
        times = {m: datetime.strptime(line[:15], "%b %d %H:%M:%S") for line in
                 installation.log_text().splitlines() for m in (first, last)
                 if line.endswith("): " + m)}
        return (times[last] - times[first]).total_seconds() % 86400

    def test_trickling_server_is_not_timed_out_but_silent_one_is(self):
        """A pack that trickles for longer than the time-out but never stalls
        that long arrives (status 0); a server that accepts and never answers
        is given up after eleven stalls of two minutes (status 1)."""
        data = harness.pack_bytes(12 * KIB, seed=2)
        site, installation, record = self.offer(data, under="trickle/")

        self.run_on_fast_clock(installation, 50, 0)
        self.assertEqual(installation.save_path(PACK).read_bytes(), data)
        # Else the clock was not sped up and the row proves nothing.
        self.assertGreater(self.logged_seconds(installation, "Start download update pack.",
                                               "Download update pack done."), 150)

        silent = socket.create_server(("127.0.0.1", 0), backlog=32)
        self.addCleanup(silent.close)
        url = f"http://127.0.0.1:{silent.getsockname()[1]}/{PACK}"
        site, installation, record = self.new_case()
        site.answer({"updater": site.put_updater(record),
                     "update_pack": {"name": PACK, "url": url, "checksum": "0" * 32}})

        self.run_on_fast_clock(installation, 200, 1)
        self.assertEqual(installation.log_messages("ERROR").count(
            f"Fail to download file '{url}'. (reason: timeout)"), 11)
        self.assertGreater(self.logged_seconds(
            installation, "Start download update pack.", "Fail to run auto update. (error code: "
            "1, reason: Download failed since network error)"), 11 * 120 - 1)
        self.assertFalse(installation.save_path(PACK).exists() or record.started())


class PlantedFileTest(SystemTestCase):
    """Another user's objects under the predictable names in a shared sticky
    folder are never written through or run, and stay as they were."""

    @classmethod
    def setUpClass(cls):
        try:
            cls.planter = pwd.getpwnam("quillon-planter").pw_uid
        except KeyError:
            raise unittest.SkipTest("no user quillon-planter (tools/test.sh adds it as root)")
        if os.geteuid() != 0:
            raise unittest.SkipTest("needs root to plant files as a second user")
        super().setUpClass()

    @staticmethod
    def snapshot(path):  # the file, its folder and its content
        return (tuple(os.lstat(path))[:7], os.lstat(path).st_mtime_ns,
                sorted(os.listdir(path.parent)), path.read_bytes())

    def test_planted_files(self):
        """A partial file is refused and left as it is; a complete one at the
        save name is not run but fetched again. Links and FIFOs are refused by
        the same checks as in the downloader's own tests."""
        for at_save_name in (False, True):
            with self.subTest(at_save_name=at_save_name):
                shared = Path(tempfile.mkdtemp(prefix="quillon-shared-", dir="/tmp"))
                self.addCleanup(shutil.rmtree, shared)
                shared.chmod(0o1777)
                site, installation, record = self.offer()
                saved = installation.save_path(UPDATER, shared)
                planted = saved if at_save_name else partial_path(saved)
                updater = (site.folder / UPDATER).read_bytes()
                subprocess.run(["runuser", "-u", "quillon-planter", "--", "sh", "-c",
                                'umask 022; cat > "$1"', "plant", planted], check=True, cwd="/",
                               input=updater if at_save_name else updater[:40])
                before = self.snapshot(planted)
                self.assertEqual(before[0][4], self.planter)

                self.run_program(installation, installation.client_arguments(temp_path=shared),
                                 0 if at_save_name else 6)

                if at_save_name:
                    self.assertLogged(installation, f"File '{saved}' is not a private file of "
                                      "this user, do not use it.", level="WARNING")
                    self.assertEqual(os.lstat(saved).st_uid, os.geteuid())
                    self.assertEqual([r["name"] for r in site.requests()][2:], [UPDATER])
                    self.assertHandedOff(installation, record)
                    continue
                self.assertFailed(installation, record, 6, "fail to open temp file in append mode")
                self.assertEqual(self.snapshot(planted), before)


if __name__ == "__main__":
    unittest.main()

"""Faults a user's machine and network really have: a full disk, a read-only
temporary folder, a proxy that dies mid-transfer, a server that keeps cutting
connections, one that trickles and one that falls silent. Each ends with the
status that says what happened and leaves on disk exactly what the next run
can use, and nothing it could mistake for a finished file."""

import glob
import json
import os
import re
import resource
import signal
import subprocess
import unittest
from datetime import datetime

import harness
from systemcase import SystemTestCase

KIB = 1024
MIB = 1024 * KIB
PACK_NAME = "quillon-2.0.0.deb"


def partial_path(saved):
    return saved.with_name(saved.name + ".download")


def mount_tmpfs(test, folder, options):
    """Mounts an empty tmpfs on the folder and unmounts it when the test ends;
    False where this user may not mount."""
    if os.geteuid() != 0:
        return False
    result = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", str(folder)],
                            capture_output=True, text=True)
    if result.returncode != 0:
        return False
    test.addCleanup(subprocess.run, ["umount", "-l", str(folder)], check=True)
    return True


def faketime_library():
    """libfaketime, which runs the program's clocks and timers faster, so that
    its two-minute stall time-out passes in seconds; None when not installed."""
    found = sorted(glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
                   + glob.glob("/usr/lib/faketime/libfaketimeMT.so.1"))
    return found[0] if found else None


class LocalFileFaultTest(SystemTestCase):

    def offer_update(self, pack_size):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        pack = site.put(PACK_NAME, harness.pack_bytes(pack_size, seed=11))
        site.answer({"updater": updater, "update_pack": pack})
        self.serve(installation, site)
        return installation, record, updater, pack

    def test_full_disk(self):
        """Status 6 when the temporary folder fills up during the pack. The
        pack's ".download" is removed and no pack is saved; the updater,
        finished before, stays complete under its save name. A small tmpfs
        is the full disk; a file size limit on the program makes the same
        write failure wherever mounting is not allowed."""
        for case in ("tmpfs", "file size limit"):
            with self.subTest(case):
                installation, record, updater, pack = self.offer_update(2 * MIB)
                temp = installation.workdir / "small-disk"
                temp.mkdir()
                kwargs = {}
                if case == "tmpfs":
                    if not mount_tmpfs(self, temp, "size=1m,mode=0700"):
                        self.skipTest("this user may not mount a tmpfs; the file size "
                                      "limit case makes the same failure")
                else:
                    def limit_file_size():
                        resource.setrlimit(resource.RLIMIT_FSIZE, (MIB, MIB))
                        # Ignored, the signal turns into a failed write (EFBIG).
                        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
                    kwargs["preexec_fn"] = limit_file_size

                status = self.run_program(installation,
                                          installation.client_arguments(temp_path=temp),
                                          **kwargs)

                self.assertStatus(installation, status, 6)
                saved_updater = installation.save_path(updater["name"], temp)
                saved_pack = installation.save_path(pack["name"], temp)
                failures = [m for m in installation.log_messages("ERROR") if m.startswith(
                    f"Fail to write temp file '{partial_path(saved_pack)}'. (reason: ")]
                self.assertEqual(len(failures), 1, self.log_text(installation))
                self.assertLogged(installation, "Download updater done.",
                                  "Fail to run auto update. (error code: 6, reason: fail to "
                                  "write temp file)")
                # Not retried: a full disk does not empty itself.
                self.assertNotIn("Download failed, try again.",
                                 " ".join(installation.log_messages()))
                self.assertEqual(os.listdir(temp), [saved_updater.name])
                self.assertEqual(harness.file_md5(saved_updater), updater["checksum"])
                self.assertFalse(record.started())

    def test_read_only_temp_folder(self):
        """Status 6 at the first file: its ".download" cannot be created in a
        read-only folder. Nothing is created there and nothing is started."""
        installation, record, updater, pack = self.offer_update(64 * KIB)
        temp = installation.workdir / "read-only"
        temp.mkdir()
        if not mount_tmpfs(self, temp, "ro,size=64k"):
            if os.geteuid() == 0:
                self.skipTest("root may write into any folder and may not mount here: no "
                              "read-only folder to offer")
            temp.chmod(0o555)
            self.addCleanup(temp.chmod, 0o755)

        status = self.run_program(installation, installation.client_arguments(temp_path=temp))

        self.assertStatus(installation, status, 6)
        partial = partial_path(installation.save_path(updater["name"], temp))
        failures = [m for m in installation.log_messages("ERROR") if m.startswith(
            f"Fail to open temp file '{partial}' in write only mode. (reason: ")]
        self.assertEqual(len(failures), 1, self.log_text(installation))
        self.assertLogged(installation, "Fail to run auto update. (error code: 6, reason: fail "
                          "to open temp file in write only mode)", level="ERROR")
        self.assertEqual(os.listdir(temp), [])
        self.assertFalse(record.started())


class DyingProxyTest(SystemTestCase):

    nginx_directives = """
        location /slow/ { limit_rate 1m; }
"""

    def test_proxy_dies_mid_transfer(self):
        """Status 0. The pack comes through tinyproxy until tinyproxy is
        killed; the cut transfer and ten retries fail on the proxy, then the
        download goes direct ("Downlaoder connect proxy failed, fallback to
        no proxy.") and resumes the partial file with a Range. The pack is
        saved whole, and no ".download" is left."""
        proxy = harness.TinyProxy(self.test_dir / "tinyproxy")
        self.addCleanup(proxy.stop)
        proxy.start()
        site = self.new_site(under="slow/")
        installation, record = self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        data = harness.pack_bytes(4 * MIB, seed=5)
        pack = site.put(PACK_NAME, data)
        site.answer({"updater": updater, "update_pack": pack})
        self.serve(installation, site)
        saved_pack = installation.save_path(pack["name"])
        partial = partial_path(saved_pack)

        process = self.start(installation, installation.client_arguments(
            proxy_server="127.0.0.1", proxy_port=proxy.port))
        harness.wait_for(lambda: (partial.exists() and partial.stat().st_size > 0)
                         or not process.running(), 30, "the pack to start arriving")
        self.assertTrue(process.running(), "the pack arrived before the proxy could die; log:\n"
                        + self.log_text(installation))
        os.kill(proxy.process.pid, signal.SIGKILL)
        proxy.process.wait(10)
        try:
            status = process.wait(60)
        except TimeoutError:
            self.fail("program still running; log:\n" + self.log_text(installation))

        self.assertStatus(installation, status, 0)
        self.assertEqual(saved_pack.read_bytes(), data)
        self.assertFalse(partial.exists())
        messages = installation.log_messages()
        self.assertEqual(messages.count("Download failed, try again. (code: 2, reason: Download "
                                        "failed since proxy error)"), 10)
        self.assertLogged(installation, "Start download update pack.",
                          "Downlaoder connect proxy failed, fallback to no proxy.",
                          "Download update pack done.", "Start running updater.")
        # nginx logs the proxied transfer once it notices its end.
        pack_path = site.prefix + "/" + pack["name"]

        def pack_requests():
            found = [r for r in site.requests() if r["path"] == pack_path]
            return found if len(found) >= 2 else None
        requests = harness.wait_for(pack_requests, 30, "nginx to log both pack requests")
        self.assertEqual(len(requests), 2, requests)
        through_proxy, direct = requests
        self.assertIn("tinyproxy", through_proxy["via"])
        self.assertEqual(through_proxy["range"], "")
        self.assertEqual(direct["via"], "")
        self.assertEqual(direct["status"], 206)
        resumed_from = int(re.fullmatch(r"bytes=(\d+)-", direct["range"]).group(1))
        self.assertGreater(resumed_from, 0)
        # Only the rest came the second time.
        self.assertLess(direct["bytes"], len(data) - resumed_from + KIB)
        self.assertEqual(record.wait()[1][-1], bytes(saved_pack))


class BrokenServerTest(SystemTestCase):
    """The files come from harness.FaultServer, which misbehaves on cue."""

    def offer_update(self, data, latency=0.05, **fault):
        server = harness.FaultServer(latency=latency)
        self.addCleanup(server.stop)
        server.start()
        installation, record = self.new_installation(), self.new_record()
        updater = server.put_updater(record)
        pack = server.put(PACK_NAME, data)
        server.misbehave(PACK_NAME, **fault)
        server.put("answer.json", json.dumps({"updater": updater,
                                              "update_pack": pack}).encode())
        installation.configure_server(f"http://127.0.0.1:{server.port}", "/answer.json")
        return server, installation, record, pack

    def test_cut_connections_resumed_within_retry_limit(self):
        """Status 0 for a pack that takes eleven connections of 64 KiB each:
        the first attempt and ten retries, each resuming exactly where the
        last one was cut. The pack is saved whole, no ".download" is left."""
        data = harness.pack_bytes(10 * 64 * KIB + 1000, seed=21)
        server, installation, record, pack = self.offer_update(data, cut_after=64 * KIB)

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 0)
        saved_pack = installation.save_path(pack["name"])
        self.assertEqual(saved_pack.read_bytes(), data)
        self.assertFalse(partial_path(saved_pack).exists())
        requests = server.requests(PACK_NAME)
        self.assertEqual([r["range"] for r in requests],
                         [""] + [f"bytes={k * 64 * KIB}-" for k in range(1, 11)])
        self.assertEqual([r["end"] for r in requests], ["cut"] * 10 + ["complete"])
        self.assertEqual(installation.log_messages().count(
            "Download failed, try again. (code: 1, reason: Download failed since network "
            "error)"), 10)
        record.wait()

    def test_cut_answers_arriving_at_once_are_resumed(self):
        """Status 0, three times over, when each cut answer reaches the program
        in one piece the moment it is asked for. Qt may then send the request
        again on its own and end that reply early without an error; the short
        file must count as an interrupted transfer and be resumed, not be
        taken as finished and fail the checksum (status 6)."""
        for attempt in range(3):
            with self.subTest(attempt=attempt):
                data = harness.pack_bytes(8 * 64 * KIB + 1000, seed=30 + attempt)
                server, installation, record, pack = self.offer_update(
                    data, latency=0, cut_after=64 * KIB)

                status = self.run_program(installation, installation.client_arguments())

                self.assertStatus(installation, status, 0)
                self.assertEqual(installation.save_path(pack["name"]).read_bytes(), data)
                record.wait()

    def test_cut_connections_beyond_retry_limit_keep_partial_file(self):
        """Status 1 for a pack that would take twelve connections: after
        eleven the run gives up, keeping the ".download" with the eleven
        pieces it got (11 x 64 KiB, the pack's first bytes) and saving no
        pack. A later run against a server that behaves resumes it from
        there and ends with status 0."""
        data = harness.pack_bytes(11 * 64 * KIB + 1000, seed=22)
        server, installation, record, pack = self.offer_update(data, cut_after=64 * KIB)
        saved_pack = installation.save_path(pack["name"])
        partial = partial_path(saved_pack)

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 1)
        self.assertLogged(installation, "Fail to run auto update. (error code: 1, reason: "
                          "Download failed since network error)", level="ERROR")
        self.assertEqual(len(server.requests(PACK_NAME)), 11)
        self.assertEqual(partial.read_bytes(), data[:11 * 64 * KIB])
        self.assertFalse(saved_pack.exists())
        self.assertFalse(record.started())

        server.misbehave(PACK_NAME)
        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 0)
        self.assertEqual(saved_pack.read_bytes(), data)
        self.assertFalse(partial.exists())
        last = server.requests(PACK_NAME)[11:]
        self.assertEqual([(r["range"], r["status"], r["bytes"]) for r in last],
                         [(f"bytes={11 * 64 * KIB}-", 206, 1000)])
        record.wait()

    # -- the stall time-out, two minutes, passes in seconds on a faster clock

    def run_on_fast_clock(self, installation, speed):
        library = faketime_library()
        if not library:
            self.skipTest("libfaketime is not installed (tools/install-deps.sh installs it)")
        return self.run_program(installation, installation.client_arguments(), timeout=90,
                                extra_env={"LD_PRELOAD": library, "FAKETIME": f"+0 x{speed}"})

    @staticmethod
    def logged_seconds(installation, first, last):
        """Seconds of the program's clock between two log lines."""
        times = {}
        for line in installation.log_path.read_text().splitlines():
            for message in (first, last):
                if line.endswith("): " + message):
                    times[message] = datetime.strptime(line[:15], "%b %d %H:%M:%S")
        return (times[last] - times[first]).total_seconds() % 86400

    def test_slow_but_live_transfer_is_not_timed_out(self):
        """Status 0 for a pack that arrives a byte at a time, far slower than
        its two-minute time-out in all but never stalling that long: the
        time-out limits a stall, not the whole transfer. The pack is saved
        whole, no ".download" is left."""
        data = b"slowly, but!"
        # On a clock fifty times as fast, a byte every half second is a byte
        # every 25 s, and the transfer takes longer than the time-out.
        server, installation, record, pack = self.offer_update(data, trickle=0.5)

        status = self.run_on_fast_clock(installation, speed=50)

        self.assertStatus(installation, status, 0)
        saved_pack = installation.save_path(pack["name"])
        self.assertEqual(saved_pack.read_bytes(), data)
        self.assertFalse(partial_path(saved_pack).exists())
        self.assertEqual(len(server.requests(PACK_NAME)), 1)
        self.assertNotIn("timeout", self.log_text(installation))
        # Else the clock was not sped up and the test proves nothing.
        self.assertGreater(self.logged_seconds(installation, "Start download update pack.",
                                               "Download update pack done."), 150)
        record.wait()

    def test_silent_server_is_given_up_after_stall_timeout(self):
        """Status 1 when the server sends headers and then nothing: each of
        the eleven attempts is aborted by the stall time-out. The empty
        ".download" stays for a later run; no pack is saved and nothing is
        started."""
        data = harness.pack_bytes(4 * KIB, seed=23)
        server, installation, record, pack = self.offer_update(data, stall=True)
        url = server.url(PACK_NAME)

        status = self.run_on_fast_clock(installation, speed=200)

        self.assertStatus(installation, status, 1)
        self.assertEqual(installation.log_messages("ERROR").count(
            f"Fail to download file '{url}'. (reason: timeout)"), 11)
        self.assertLogged(installation, "Fail to run auto update. (error code: 1, reason: "
                          "Download failed since network error)", level="ERROR")
        # The server notices the last hang-up a moment after the program's end.
        harness.wait_for(lambda: all(r["end"] == "client gone"
                                     for r in server.requests(PACK_NAME)), 10,
                         "the server to see every attempt given up")
        self.assertEqual([r["range"] for r in server.requests(PACK_NAME)], [""] * 11)
        saved_pack = installation.save_path(pack["name"])
        self.assertEqual(partial_path(saved_pack).stat().st_size, 0)
        self.assertFalse(saved_pack.exists())
        self.assertFalse(record.started())
        # Each attempt waited the full two minutes of the program's clock.
        self.assertGreater(self.logged_seconds(installation, "Start download update pack.",
                                               "Fail to run auto update. (error code: 1, "
                                               "reason: Download failed since network error)"),
                           11 * 120 - 1)


if __name__ == "__main__":
    unittest.main()

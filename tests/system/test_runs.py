"""Whole update runs against nginx, each checked by everything it leaves
behind: exit status, log, the requests nginx saw, the temporary folder and how
the downloaded updater was started."""

import os, re, shutil, stat, unittest
from urllib.parse import parse_qsl

import harness
from systemcase import KIB, PACK, UPDATER, SystemTestCase, partial_path

QUERY = [("identify", "quillon-desktop"), ("type", "updater"), ("client", "1450"),
         ("server", "2,5"), ("os", "linux"), ("arch", "x86"), ("osversion", "Debian 12"),
         ("installer", "deb")]
OPTIONS = ("--root-path --portable-path --temp-path --client-version --server-version "
           "--installer --arch --identify --os --osversion --proxy-server --proxy-port "
           "--proxy-username --proxy-password --show-dialog").split()


def fetched(site):
    """(name, range, status) of each request but the queries."""
    return [(r["name"], r["range"], r["status"]) for r in site.requests()
            if r["name"] != "answer.json"]


class UpdateRunTest(SystemTestCase):

    def test_empty_answer_at_each_server_address(self):
        """Status 0, nothing fetched. The query goes twice, alike, with the
        eight items, to update.conf's host + path or the user's host or path."""
        dead = f"http://127.0.0.1:{harness.free_port()}"
        for user_host, user_path in [(False, False), (True, False), (False, True)]:
            with self.subTest(user_host=user_host, user_path=user_path):
                site, installation, _ = self.new_case()
                site.answer("{}")
                installation.configure_server(dead if user_host else self.nginx.url(),
                                              site.prefix + ("x" if user_path else "answer.json"))
                installation.configure_user_server(user_host and self.nginx.url(),
                                                   user_path and site.answer_path)

                self.run_program(installation)
                queries = site.requests()
                self.assertEqual([(r["name"], r["uri"]) for r in queries],
                                 [("answer.json", queries[0]["uri"])] * 2)
                self.assertEqual(parse_qsl(queries[0]["query"], strict_parsing=True), QUERY)
                self.assertEqual(os.listdir(installation.temp_dir), [])
                self.assertLogged(installation, "Start auto updater.",
                                  "Start query update server.", "Query update server done.",
                                  "Updater return empty response. No need to update.",
                                  "Auto updater finished.", level="INFO")

    def test_updater_pack_and_arguments_then_reuse(self):
        """A partial pack is resumed and a group-writable updater fetched
        again; updater_args arrive byte for byte, a non-text one as an empty
        argument, to an updater started from "/" though the client ran the
        program in its own folder; the next run fetches nothing."""
        data = harness.pack_bytes(1024 * KIB, seed=7)
        args = ["it's \"quoted\"", "$HOME; rm -rf ~", "two\nlines"]
        site, installation, record = self.offer(data, updater_args=args + [42])
        # The client may choose the folder; a blank in its name must survive.
        temp = installation.workdir / "client temp"
        temp.mkdir()
        argv = installation.client_arguments(temp_path=temp)
        saved = installation.save_path(PACK, temp)
        partial_path(saved).write_bytes(data[:400000])
        updater = installation.save_path(UPDATER, temp)
        shutil.copy(site.folder / UPDATER, updater)
        updater.chmod(0o664)  # others could change it
        tail = [b"--update-pack-path", bytes(saved)] + [a.encode() for a in args] + [b""]

        self.run_program(installation, argv, cwd=installation.app)
        self.assertHandedOff(installation, record, *tail)
        self.assertEqual(saved.read_bytes(), data)
        self.assertEqual(sorted(os.listdir(temp)), sorted([saved.name, updater.name]))
        self.assertEqual(stat.S_IMODE(updater.stat().st_mode), 0o700)
        self.assertEqual(fetched(site), [(UPDATER, "", 200), (PACK, "bytes=400000-", 206)])
        self.assertLess(site.requests()[-1]["bytes"], len(data) - 400000 + KIB)

        record.path.unlink()
        self.run_program(installation, argv)
        self.assertHandedOff(installation, record, *tail, starts=2)
        self.assertEqual(len(fetched(site)), 2)

    def test_failures(self):
        """Each ends with its status, not retried, starting nothing and leaving
        no partial file; a corrupt partial file goes, so the next run recovers."""
        def pack_gone(site, record):
            return {"updater": site.put_updater(record), "update_pack": dict(
                site.put_updater(record), name=PACK, url=site.nginx.url(site.prefix + PACK))}
        rows = [
            ("no updater", lambda s, r: {"update_pack": s.put(PACK, b"p")}, 4,
             "No updater information in response.", [], []),
            ("not JSON", lambda s, r: "<html>Down for maintenance</html>", 4,
             "Response is not in Json format.", [], []),
            ("hostile name", lambda s, r: {"updater": dict(s.put_updater(r), name="../x")}, 4,
             "Unsafe update information in response.", [], []),
            ("pack 404", pack_gone, 3, "Download failed since http error",
             [(UPDATER, "", 200), (PACK, "", 404)], [UPDATER]),
            ("corrupt partial file", lambda s, r: {"updater": s.put_updater(r), "update_pack":
                                                   s.put(PACK, harness.pack_bytes(300 * KIB))},
             6, "File checksum not matched", [(UPDATER, "", 200), (PACK, "bytes=5000-", 206)],
             [UPDATER]),
        ]
        for name, answer, status, reason, requests, files in rows:
            with self.subTest(name):
                site, installation, record = self.new_case()
                site.answer(answer(site, record))
                if name.startswith("corrupt"):
                    partial_path(installation.save_path(PACK)).write_bytes(bytes(5000))

                self.run_program(installation, status=status)
                self.assertFailed(installation, record, status, reason)
                self.assertEqual(fetched(site), requests)
                self.assertEqual(os.listdir(installation.temp_dir),
                                 [installation.save_path(f).name for f in files])
                if name.startswith("corrupt"):
                    self.run_program(installation)
                    self.assertEqual(fetched(site)[-1], (PACK, "", 200))

    def test_proxy_carries_every_request_or_is_given_up(self):
        """A dead proxy gets the first attempt and ten retries of the query and
        of the download, then they go direct: status 0 either way."""
        proxy = self.new_proxy()
        for name, port, dead in [("working proxy", proxy.port, 0),
                                 ("dead proxy", harness.free_port(), 1)]:
            with self.subTest(name):
                data = harness.pack_bytes(200 * KIB, seed=3)
                site, installation, record = self.offer(data)
                argv = installation.client_arguments(proxy_server="127.0.0.1", proxy_port=port)

                self.run_program(installation, argv)
                saved = installation.save_path(PACK)
                self.assertEqual(saved.read_bytes(), data)
                self.assertHandedOff(installation, record, b"--update-pack-path", bytes(saved))
                self.assertEqual([("tinyproxy" in r["via"]) for r in site.requests()],
                                 [not dead] * 4)
                messages = installation.log_messages()
                self.assertEqual([messages.count(m) for m in (
                    "Query failed, try again. (code: 2, reason: Request failed since proxy "
                    "error.)", "Querier connect proxy failed, fallback to no proxy.",
                    "Download failed, try again. (code: 2, reason: Download failed since proxy "
                    "error)", "Downlaoder connect proxy failed, fallback to no proxy.")],
                    [10 * dead, dead] * 2)

    def test_no_tray_ends_before_any_query_while_help_answers(self):
        self.desktop = self.new_desktop(self.addCleanup, self.test_dir / "bare", tray=False)
        site, installation, record = self.offer()

        self.run_program(installation, status=1)
        self.assertEqual(installation.log_messages("WARNING"),
                         ["Does not detect any system tray on this system."])
        self.assertEqual(len(installation.log_messages()), 1)
        self.assertEqual(site.requests(), [])

        process = self.start(installation, ["--help"])
        self.assertEqual(process.wait(30), 0)
        self.assertEqual(re.findall(r"^ +(--[\w-]+)(?: <\w+>)? {2,}\S", process.output_text(),
                                    re.M)[:len(OPTIONS)], OPTIONS)
        self.assertIn("tesslocale.cpp:", process.output_text())  # traces name the file alone,
        self.assertNotIn("/ui-client/", process.output_text())  # not the build machine's path
        self.assertEqual(len(installation.log_messages()), 1)


if __name__ == "__main__":
    unittest.main()

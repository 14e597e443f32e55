"""The update run end to end: the installed program asks nginx for an answer,
downloads what it names into the temporary folder, checks it and starts the
downloaded updater, or ends with the status that says what went wrong."""

import os
import unittest
from urllib.parse import parse_qsl

import harness
from systemcase import SystemTestCase

QUERY_ITEMS = ["identify", "type", "client", "server", "os", "arch", "osversion", "installer"]


class UpdateRunTest(SystemTestCase):

    def assertQueried(self, site, installation):
        """The run asked twice, identically, with the client's description."""
        queries = [r for r in site.requests() if r["path"] == site.answer_path]
        self.assertEqual(len(queries), 2, queries)
        self.assertEqual(queries[0]["uri"], queries[1]["uri"])
        items = parse_qsl(queries[0]["query"], keep_blank_values=True, strict_parsing=True)
        self.assertEqual(items, [("identify", "quillon-desktop"), ("type", "updater"),
                                 ("client", "1450"), ("server", "2,5"), ("os", "linux"),
                                 ("arch", "x86"), ("osversion", "Debian 12"),
                                 ("installer", "deb")])

    def downloads(self, site):
        return [r for r in site.requests() if r["path"] != site.answer_path]

    def test_empty_answer_means_nothing_to_do(self):
        site, installation = self.new_site(), self.new_installation()
        site.answer("{}")
        self.serve(installation, site)

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 0)
        self.assertQueried(site, installation)
        self.assertEqual(self.downloads(site), [])
        self.assertEqual(os.listdir(installation.temp_dir), [])
        self.assertLogged(installation, "Start auto updater.", "Start query update server.",
                          "Query update server done.",
                          "Updater return empty response. No need to update.",
                          "Auto updater finished.", level="INFO")

    def test_updater_alone_is_downloaded_and_started(self):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        site.answer({"updater": dict(updater, need_user_permit=False)})
        self.serve(installation, site)

        # Started from the client's folder: the updater must not inherit it.
        status = self.run_program(installation, installation.client_arguments(),
                                  cwd=installation.app)

        self.assertStatus(installation, status, 0)
        cwd, args = record.wait()
        self.assertEqual(cwd, b"/")
        self.assertEqual(args, [b"--root-path", bytes(installation.app),
                                b"--portable-path", bytes(installation.portable)])
        saved = installation.save_path(updater["name"])
        self.assertEqual(os.listdir(installation.temp_dir), [saved.name])
        self.assertEqual(harness.file_md5(saved), updater["checksum"])
        self.assertTrue(os.stat(saved).st_mode & 0o100, "updater not made executable")
        self.assertQueried(site, installation)
        self.assertEqual([(r["path"], r["status"], r["range"]) for r in self.downloads(site)],
                         [(site.prefix + "/" + updater["name"], 200, "")])
        self.assertLogged(installation, "Start download updater.", "Download updater done.",
                          "Start running updater.", "Auto updater finished.", level="INFO")

    def test_updater_and_pack_then_second_run_reuses_them(self):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        pack = site.put("quillon-2.0.0.deb", harness.pack_bytes(700 * 1024))
        site.answer({"updater": updater, "update_pack": pack,
                     "updater_args": ["--channel=stable beta", 42]})
        self.serve(installation, site)
        # The client may choose the folder; a name with a blank must survive.
        temp = installation.workdir / "client temp"
        temp.mkdir()
        argv = installation.client_arguments(temp_path=temp)

        status = self.run_program(installation, argv)

        self.assertStatus(installation, status, 0)
        saved_updater = installation.save_path(updater["name"], temp)
        saved_pack = installation.save_path(pack["name"], temp)
        self.assertEqual(sorted(os.listdir(temp)), sorted([saved_updater.name, saved_pack.name]))
        self.assertEqual(os.listdir(installation.temp_dir), [])
        self.assertEqual(harness.file_md5(saved_updater), updater["checksum"])
        self.assertEqual(harness.file_md5(saved_pack), pack["checksum"])
        cwd, args = record.wait()
        self.assertEqual(cwd, b"/")
        # The number in updater_args is not text: it still takes its place,
        # as an empty argument.
        self.assertEqual(args, [b"--root-path", bytes(installation.app),
                                b"--portable-path", bytes(installation.portable),
                                b"--update-pack-path", bytes(saved_pack),
                                b"--channel=stable beta", b""])
        self.assertEqual([r["path"] for r in self.downloads(site)],
                         [site.prefix + "/" + updater["name"], site.prefix + "/" + pack["name"]])
        self.assertLogged(installation, "Download updater done.",
                          "Updater requires update pack, download it.",
                          "Start download update pack.", "Download update pack done.",
                          "Start running updater.", level="INFO")

        # The updater may fail before it installs anything; the next run
        # finds both files complete and must not fetch them again.
        record.path.unlink()
        requests_before = len(site.requests())
        status = self.run_program(installation, argv)

        self.assertStatus(installation, status, 0)
        _, again = record.wait()
        self.assertEqual(again, args)
        later = site.requests()[requests_before:]
        self.assertEqual([r["path"] for r in later], [site.answer_path] * 2)
        self.assertLogged(installation, "Updater file exists, use local file.",
                          "Update pack file exists, use local file.", level="INFO")

    def test_partial_download_is_resumed(self):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        data = harness.pack_bytes(1024 * 1024, seed=7)
        pack = site.put("quillon-2.0.0.deb", data)
        site.answer({"updater": updater, "update_pack": pack})
        self.serve(installation, site)
        # What an earlier run left when the connection dropped.
        saved_pack = installation.save_path(pack["name"])
        partial = saved_pack.with_name(saved_pack.name + ".download")
        partial.write_bytes(data[:400000])

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 0)
        self.assertEqual(saved_pack.read_bytes(), data)
        self.assertFalse(partial.exists())
        pack_requests = [r for r in self.downloads(site) if r["path"].endswith(pack["name"])]
        self.assertEqual(len(pack_requests), 1, pack_requests)
        self.assertEqual(pack_requests[0]["range"], "bytes=400000-")
        self.assertEqual(pack_requests[0]["status"], 206)
        self.assertLess(pack_requests[0]["bytes"], len(data) - 400000 + 1024)
        self.assertLogged(installation, "Resume download start from byte: 400000.",
                          level="DEBUG")
        record.wait()

    def test_corrupt_partial_download_fails_once_then_recovers(self):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        data = harness.pack_bytes(300 * 1024, seed=9)
        pack = site.put("quillon-2.0.0.deb", data)
        site.answer({"updater": updater, "update_pack": pack})
        self.serve(installation, site)
        saved_pack = installation.save_path(pack["name"])
        partial = saved_pack.with_name(saved_pack.name + ".download")
        partial.write_bytes(b"\0" * 5000)

        status = self.run_program(installation, installation.client_arguments())

        # The resumed file cannot match; it must go, so the next run starts over.
        self.assertStatus(installation, status, 6)
        self.assertFalse(partial.exists())
        self.assertFalse(saved_pack.exists())
        self.assertFalse(record.started())

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 0)
        self.assertEqual(saved_pack.read_bytes(), data)
        pack_requests = [r for r in self.downloads(site) if r["path"].endswith(pack["name"])]
        self.assertEqual([(r["range"], r["status"]) for r in pack_requests],
                         [("bytes=5000-", 206), ("", 200)])
        record.wait()

    def test_complete_file_others_could_have_changed_is_fetched_again(self):
        # The temporary folder is shared; a file under our save name that
        # someone else could have written is not trusted, however it hashes.
        for case in ("group-writable", "symbolic link"):
            with self.subTest(case):
                site, installation = self.new_site(), self.new_installation()
                record = self.new_record()
                updater = site.put_updater(record)
                site.answer({"updater": updater})
                self.serve(installation, site)
                saved = installation.save_path(updater["name"])
                planted = (site.folder / updater["name"]).read_bytes()
                if case == "group-writable":
                    saved.write_bytes(planted)
                    saved.chmod(0o664)
                else:
                    target = installation.workdir / "elsewhere.sh"
                    target.write_bytes(planted)
                    saved.symlink_to(target)

                status = self.run_program(installation, installation.client_arguments())

                self.assertStatus(installation, status, 0)
                self.assertLogged(installation, f"File '{saved}' is not a private file of this "
                                  "user, do not use it.", level="WARNING")
                self.assertNotLogged(installation, "Updater file exists, use local file.")
                self.assertEqual([r["path"] for r in self.downloads(site)],
                                 [site.prefix + "/" + updater["name"]])
                self.assertFalse(saved.is_symlink())
                self.assertEqual(saved.stat().st_mode & 0o022, 0)
                record.wait()


class FailedRunTest(SystemTestCase):
    """Each failure ends the run with its own status and a log line that says
    why, starts nothing and leaves nothing half-written under a final name."""

    def run_failing(self, build_answer, expected_status, reason):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        site.answer(build_answer(site, record))
        self.serve(installation, site)

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, expected_status)
        self.assertLogged(installation, f"Fail to run auto update. (error code: "
                          f"{expected_status}, reason: {reason})", level="ERROR")
        self.assertNotLogged(installation, "Start running updater.")
        self.assertFalse(record.started())
        leftovers = [n for n in os.listdir(installation.temp_dir) if n.endswith(".download")]
        self.assertEqual(leftovers, [])
        return site, installation

    def test_answer_without_updater(self):
        def answer(site, record):
            return {"update_pack": site.put("pack.deb", b"pack")}
        site, installation = self.run_failing(answer, 4, "No updater information in response.")
        self.assertLogged(installation, "Updater server provide invalid response.",
                          level="ERROR")
        self.assertEqual([r["path"] for r in site.requests()], [site.answer_path] * 2)

    def test_answer_not_json(self):
        body = "<html><body>Down for maintenance</body></html>\n"
        site, installation = self.run_failing(lambda site, record: body, 4,
                                              "Response is not in Json format.")
        self.assertLogged(installation, f"Response is not in Json format. (receive: '{body}')",
                          level="ERROR")

    def test_answer_naming_a_file_outside_temp_folder(self):
        def answer(site, record):
            return {"updater": dict(site.put_updater(record), name="../quillon-updater.sh")}
        site, installation = self.run_failing(answer, 4, "Unsafe update information in response.")
        self.assertEqual([r["path"] for r in site.requests()], [site.answer_path] * 2)
        self.assertEqual(os.listdir(installation.temp_dir), [])
        self.assertFalse(installation.save_path("../quillon-updater.sh").exists())

    def test_pack_missing_on_server(self):
        def answer(site, record):
            pack = site.put("quillon-2.0.0.deb", b"gone")
            os.remove(site.folder / "quillon-2.0.0.deb")
            return {"updater": site.put_updater(record), "update_pack": pack}
        site, installation = self.run_failing(answer, 3, "Download failed since http error")
        statuses = [(r["path"].rsplit("/", 1)[1], r["status"]) for r in site.requests()
                    if r["path"] != site.answer_path]
        self.assertEqual(statuses, [("quillon-updater.sh", 200), ("quillon-2.0.0.deb", 404)])
        # An HTTP refusal is not retried.
        self.assertNotIn("Download failed, try again.", " ".join(installation.log_messages()))

    def test_wrong_checksum(self):
        def answer(site, record):
            updater = site.put_updater(record)
            return {"updater": dict(updater, checksum="0" * 32)}
        site, installation = self.run_failing(answer, 6, "File checksum not matched")
        self.assertLogged(installation, "Fail to download file. (reason: checksum not matched)",
                          level="ERROR")
        self.assertEqual(os.listdir(installation.temp_dir), [])


if __name__ == "__main__":
    unittest.main()

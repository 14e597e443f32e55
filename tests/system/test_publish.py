"""Releases published by quillon-publish and served through its nginx snippets. CTest sets
QUILLON_SIGNED_KEY_DIR, holding update.key, only for a program built with its public key."""

import contextlib, os, shutil, socketserver, subprocess, sys, tempfile, threading, time, unittest
from pathlib import Path

import harness
from systemcase import KIB, PACK, UPDATER, SystemTestCase, started

PUBLISH = Path(__file__).resolve().parents[2] / "publisher" / "quillon-publish"
KEYS = os.environ.get("QUILLON_SIGNED_KEY_DIR")
KEY = ["--key", f"{KEYS}/update.key"] if KEYS else []
RELEASE = ('product = "quillon-desktop"\nquery_path = "/quillon/update"\nfiles_url = "%s"\n'
           f'release = [{{version = 1500, updater = "www/dist/{UPDATER}", pack = '
           f'"www/dist/{PACK}", updater_args = ["--quiet"], clients = [1450], os = ["linux"], '
           'arch = ["x86"]}]\n')


def publish(*args):
    subprocess.run([sys.executable, PUBLISH, *map(str, args)], check=True, capture_output=True)


class Tree(harness.Nginx):
    """nginx serving a tree published once nginx has the port the files' URL names."""

    def __init__(self, workdir, record, args, files_url=None):
        self.tree, self.args, self.files_url = workdir / "tree", args, files_url
        super().__init__(workdir, workdir / "www", f"include {self.tree}/nginx/locations.conf;",
                         http_directives=f"include {self.tree}/nginx/maps.conf;")
        harness.UpdateSite(self, "dist").put_updater(record)
        harness.UpdateSite(self, "dist").put(PACK, harness.pack_bytes(300 * KIB))

    def configure(self, port):
        shutil.rmtree(self.tree, ignore_errors=True)
        (self.workdir / "release.toml").write_text(
            RELEASE % (self.files_url or f"http://127.0.0.1:{port}/files"))
        publish("build", self.workdir / "release.toml", "--out", self.tree, *self.args)
        return super().configure(port)


class Endless(socketserver.StreamRequestHandler):  # a 200 of no length, then up to 256 MiB
    def handle(self):
        with contextlib.suppress(OSError):  # until the client hangs up
            self.wfile.writelines([b"HTTP/1.0 200 OK\r\n\r\n"] + [bytes(64 * KIB)] * 4096)


class PublishTest(SystemTestCase):

    def serve(self, args, files_url=None):  # (tree's nginx, installation, record)
        work = Path(tempfile.mkdtemp(dir=self.test_dir))
        tree = started(self.addCleanup, Tree(work, record := harness.UpdaterRecord(work / "record"),
                                             args, files_url))
        installation = harness.Installation(self.prefix, tree.workdir / "installation")
        installation.configure_server(tree.url(), "/quillon/update")
        return tree, installation, record

    def test_only_older_clients_of_the_product_update(self):
        tree, installation, record = self.serve(KEY)
        for client, product, updates in [("1500", "quillon-desktop", 0), ("1450", "quillon", 0),
                                         ("1450", "quillon-desktop", 1)]:  # newest, other, older
            with self.subTest(client=client, product=product):
                argv = installation.client_arguments(client_version=client, identify=product)
                self.run_program(installation, argv)
                self.assertEqual([r["name"] for r in tree.requests("/files/1500/")],
                                 [UPDATER, PACK] if updates else [])
        self.assertHandedOff(installation, record, b"--update-pack-path",
                             bytes(installation.save_path(PACK)), b"--quiet")

    @unittest.skipUnless(KEYS, "built without a key: QUILLON_SIGNED_KEY_DIR is not set")
    def test_forged_answers_and_files_refused(self):
        publish("keygen", other := self.test_dir / "other.key")
        endless = socketserver.ThreadingTCPServer(("127.0.0.1", 0), Endless)
        threading.Thread(target=endless.serve_forever, daemon=True).start()
        self.addCleanup(lambda: (endless.shutdown(), endless.server_close()))
        endless_url = f"http://127.0.0.1:{endless.server_address[1]}/files"
        answer, pack = "answers/1500-*.json", f"files/1500/{PACK}"
        rows = [  # name, publish arguments, files' URL, file changed: (name, cut, added), ERROR
            ("tampered answer", KEY, None, (answer, 0, b" "), "no valid signature)"),
            ("another key", ["--key", other], None, None, "no valid signature)"),
            ("unsigned answer", [], None, None, "no signature)"),
            ("expired", KEY + ["--expires-at", int(time.time()) - 1], None, None, "expired)"),
            ("pack grown", KEY, None, (pack, 0, b"x"), "announced size 307201 exceeds"),
            ("pack cut", KEY, None, (pack, 1, b""), "size not matched)"),
            ("endless body", KEY, endless_url, None, "body goes on past the expected"),
        ]
        for name, args, files_url, edit, reason in rows:
            with self.subTest(name):
                tree, installation, record = self.serve(args, files_url)
                if edit:
                    path = next(tree.tree.glob(edit[0]))
                    path.write_bytes(path.read_bytes()[edit[1]:] + edit[2])
                on_server = edit and edit[0] == pack  # the answer passes, a file does not

                self.run_program(installation, status=6 if on_server or files_url else 4)
                self.assertIn("(reason: " + reason, str(installation.log_messages("ERROR")))
                self.assertEqual([r["name"] for r in tree.requests("/files/1500/")],
                                 [UPDATER, PACK] if on_server else [])
                self.assertEqual(os.listdir(installation.temp_dir),
                                 [installation.save_path(UPDATER).name] if on_server else [])
                self.assertFalse(record.started())


if __name__ == "__main__":
    unittest.main()

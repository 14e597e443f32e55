"""Update servers over HTTPS, with a private certificate authority and server
certificates that openssl makes at run time. The CA is trusted only through
SSL_CERT_FILE or SSL_CERT_DIR in the program's own environment, never through
the system store; every certificate problem is refused."""

import shutil, subprocess, tempfile, unittest
from pathlib import Path

import harness
from systemcase import KIB, PACK, UPDATER, SystemTestCase, partial_path, started
from test_runs import fetched

LOCAL = "IP:127.0.0.1"
# name, issuer (None: self-signed), subjectAltName, days valid (-1: expired yesterday)
CERTIFICATES = [("ca", None, "DNS:ca.invalid", 2), ("self-signed", None, LOCAL, 2),
                ("server", "ca", LOCAL, 2), ("expired", "ca", LOCAL, -1),
                ("other-host", "ca", "DNS:updates.example.com", 2)]


def make_certificates(folder):
    def openssl(*argv):
        subprocess.run(["openssl", *map(str, argv)], cwd=folder, check=True, capture_output=True)
    for name, issuer, alt_name, days in CERTIFICATES:
        request = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                   f"{name}.key", "-subj", f"/CN={name}", "-addext", f"subjectAltName={alt_name}"]
        if issuer:  # `req -x509` takes no past end date; `x509 -req` does
            openssl("req", *request, "-out", f"{name}.csr")
            openssl("x509", "-req", "-in", f"{name}.csr", "-CA", f"{issuer}.pem", "-CAkey",
                    f"{issuer}.key", "-copy_extensions", "copy", "-days", days, "-out",
                    f"{name}.pem")
        else:
            openssl("req", "-x509", *request, "-days", days, "-out", f"{name}.pem")


def tls(folder, name):
    return f"ssl_certificate {folder / name}.pem; ssl_certificate_key {folder / name}.key;"


class HttpsTest(SystemTestCase):
    nginx_listen_options = "ssl"

    @classmethod
    def setUpClass(cls):
        cls.certs = Path(tempfile.mkdtemp(prefix="quillon-certs-"))
        cls.addClassCleanup(shutil.rmtree, cls.certs)
        make_certificates(cls.certs)
        cls.nginx_directives = tls(cls.certs, "server")
        cls.by_file = {"SSL_CERT_FILE": str(cls.certs / "ca.pem")}
        super().setUpClass()

    def test_updates_with_the_private_ca(self):
        """Updater and pack arrive and are handed off; a missing folder in
        SSL_CERT_DIR is only warned about, and a partial pack is resumed over
        TLS; through tinyproxy, with the CA in SSL_CERT_FILE, every connection
        is a CONNECT tunnel."""
        (self.certs / "cas").mkdir(exist_ok=True)
        shutil.copy(self.certs / "ca.pem", self.certs / "cas")
        missing = self.test_dir / "no-cas"
        proxy = self.new_proxy()
        for env, proxy_args in [({"SSL_CERT_DIR": f"{missing}:{self.certs / 'cas'}"}, {}),
                                (self.by_file, {"proxy_server": "127.0.0.1",
                                                "proxy_port": proxy.port})]:
            with self.subTest(next(iter(env))):
                data = harness.pack_bytes(700 * KIB, seed=11)
                site, installation, record = self.offer(data)
                saved = installation.save_path(PACK)
                resume = "" if proxy_args else "bytes=300000-"
                if resume:
                    partial_path(saved).write_bytes(data[:300000])

                self.run_program(installation, installation.client_arguments(**proxy_args),
                                 extra_env=env)
                self.assertHandedOff(installation, record, b"--update-pack-path", bytes(saved))
                self.assertEqual(saved.read_bytes(), data)
                self.assertEqual(fetched(site), [(UPDATER, "", 200),
                                                 (PACK, resume, 206 if resume else 200)])
                self.assertEqual(installation.log_messages("WARNING"), [
                    f"No certificate read from SSL_CERT_DIR '{missing}', ignored."] * (
                    not proxy_args))
                if proxy_args:
                    self.assertEqual(len({r["connection"] for r in site.requests()}),
                                     proxy.process.output_text().count(
                                         f"CONNECT 127.0.0.1:{self.nginx.port} "))

    def test_certificate_problems_are_refused(self):
        """Status 1 after the first try and ten retries, each refusal logged as
        an ERROR naming the problem; nothing started, and the updater's partial
        file, kept for a resume as after any network error, holds no byte."""
        for cert, reason in [  # "server" with its CA not given: the query is refused
                ("server", "The issuer certificate of a locally looked up certificate could "
                 "not be found"), ("expired", "The certificate has expired"),
                ("other-host", "The host name did not match any of the valid hosts for this "
                 "certificate"), ("self-signed", "The certificate is self-signed, and untrusted")]:
            with self.subTest(cert):
                server = started(self.addCleanup, harness.Nginx(
                    self.test_dir / cert, self.nginx.docroot, tls(self.certs, cert), "ssl"))
                site, installation, record = self.new_case()
                site.answer({"updater": dict(site.put_updater(record),
                                             url=server.url(site.prefix + UPDATER))})
                given = cert != "server"  # the CA

                self.run_program(installation, status=1, extra_env=self.by_file if given else {})
                self.assertEqual(installation.log_messages("ERROR").count(
                    f"Certificate of '127.0.0.1' refused. (reason: {reason})"), 11)
                self.assertEqual([(p.name, p.stat().st_size) for p in
                                  installation.temp_dir.iterdir()],
                                 [(partial_path(installation.save_path(UPDATER)).name, 0)] * given)
                self.assertEqual(fetched(site), [])
                self.assertFalse(record.started())

if __name__ == "__main__":
    unittest.main()

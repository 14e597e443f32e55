"""Reaching the update server: through the proxy the client names, around a
proxy that is down, and at the address the settings give."""

import unittest

import harness
from systemcase import SystemTestCase


class ProxyTest(SystemTestCase):

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.proxy = harness.TinyProxy(cls.class_dir / "tinyproxy")
        cls.addClassCleanup(cls.proxy.stop)
        cls.proxy.start()

    def offer_update(self):
        site, installation, record = self.new_site(), self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        pack = site.put("quillon-2.0.0.deb", harness.pack_bytes(200 * 1024, seed=3))
        site.answer({"updater": updater, "update_pack": pack})
        self.serve(installation, site)
        return site, installation, record, updater, pack

    def test_dead_proxy_falls_back_to_direct_connection(self):
        site, installation, record, updater, pack = self.offer_update()
        # Nothing listens there: every connection to the proxy is refused.
        closed_port = harness.free_port()
        argv = installation.client_arguments(proxy_server="127.0.0.1", proxy_port=closed_port)

        status = self.run_program(installation, argv)

        self.assertStatus(installation, status, 0)
        messages = installation.log_messages()
        # The first attempt and ten retries go to the proxy, then it is given up.
        self.assertEqual(messages.count("Query failed, try again. (code: 2, reason: Request "
                                        "failed since proxy error.)"), 10)
        self.assertEqual(messages.count("Download failed, try again. (code: 2, reason: "
                                        "Download failed since proxy error)"), 10)
        self.assertLogged(installation, "Querier connect proxy failed, fallback to no proxy.",
                          "Query update server done.",
                          "Downlaoder connect proxy failed, fallback to no proxy.",
                          "Download updater done.", "Download update pack done.",
                          "Start running updater.")
        # The pack, fetched after the fallback, goes straight to the server.
        self.assertEqual(messages.count(
            "Downlaoder connect proxy failed, fallback to no proxy."), 1)
        requests = site.requests()
        self.assertEqual([r["path"].rsplit("/", 1)[1] for r in requests],
                         ["answer.json", "answer.json", updater["name"], pack["name"]])
        self.assertEqual([r["via"] for r in requests], [""] * 4)
        self.assertEqual(harness.file_md5(installation.save_path(pack["name"])),
                         pack["checksum"])
        record.wait()

    def test_requests_pass_through_working_proxy(self):
        site, installation, record, updater, pack = self.offer_update()
        argv = installation.client_arguments(proxy_server="127.0.0.1",
                                             proxy_port=self.proxy.port)

        status = self.run_program(installation, argv)

        self.assertStatus(installation, status, 0)
        self.assertNotLogged(installation, "Querier connect proxy failed, fallback to no proxy.")
        self.assertNotLogged(installation,
                             "Downlaoder connect proxy failed, fallback to no proxy.")
        requests = site.requests()
        self.assertEqual(len(requests), 4, requests)
        for request in requests:
            self.assertIn("tinyproxy", request["via"], request)
        through_proxy = [u for u in self.proxy.requested_urls() if site.prefix + "/" in u]
        self.assertEqual(through_proxy, [self.nginx.url(r["uri"]) for r in requests])
        self.assertEqual(harness.file_md5(installation.save_path(pack["name"])),
                         pack["checksum"])
        record.wait()


class ServerAddressTest(SystemTestCase):
    """The address is host + path from the installation's update.conf; the
    user's settings store may replace either part on its own."""

    def check_queries_reach_answer(self, installation_setup):
        site, installation = self.new_site(), self.new_installation()
        site.answer("{}")
        installation_setup(site, installation)

        status = self.run_program(installation, installation.client_arguments())

        self.assertStatus(installation, status, 0)
        self.assertLogged(installation, "Updater return empty response. No need to update.")
        # Both queries reached the answer the test set up, and nothing else.
        self.assertEqual([r["path"] for r in site.requests()], [site.answer_path] * 2)

    def test_installed_settings(self):
        def setup(site, installation):
            installation.configure_server(self.nginx.url(), site.answer_path)
        self.check_queries_reach_answer(setup)

    def test_user_overrides_host_only(self):
        def setup(site, installation):
            # The shipped host is dead; only the user's host can answer.
            installation.configure_server(f"http://127.0.0.1:{harness.free_port()}",
                                          site.answer_path)
            installation.configure_user_server(host=self.nginx.url())
        self.check_queries_reach_answer(setup)

    def test_user_overrides_path_only(self):
        def setup(site, installation):
            installation.configure_server(self.nginx.url(), site.prefix + "/shipped.json")
            installation.configure_user_server(path=site.answer_path)
        self.check_queries_reach_answer(setup)

    def test_user_overrides_both(self):
        def setup(site, installation):
            installation.configure_server(f"http://127.0.0.1:{harness.free_port()}",
                                          site.prefix + "/shipped.json")
            installation.configure_user_server(host=self.nginx.url(), path=site.answer_path)
        self.check_queries_reach_answer(setup)


if __name__ == "__main__":
    unittest.main()

"""Crash and resume: the program is killed at random moments during a pack
download and started again, until a run ends. It must hand over the exact pack
once, with little more than the pack sent. QUILLON_SOAK_SEED repeats a run."""

import os, random, re, signal, sys, time, unittest, urllib.request

import harness
from systemcase import MIB, PACK, UPDATER, SystemTestCase, partial_path

# A restart gets about a second's worth at once, then the rate: low enough
# that the kills cannot finish the pack between them.
PACK_SIZE, RATE, KILLS = 30 * MIB, MIB, 16


class SoakTest(SystemTestCase):
    nginx_directives = f"""
        location /soak/ {{ limit_rate {RATE}; }}
        location = /status {{ stub_status; }}"""
    # Little in flight: what nginx counts as sent has nearly all arrived.
    nginx_listen_options = "sndbuf=32k"

    def test_killed_at_random_moments_until_done(self):
        seed = int(os.environ.get("QUILLON_SOAK_SEED") or random.SystemRandom().randrange(2**32))
        print(f"\nsoak seed {seed}", file=sys.stderr)
        rng = random.Random(seed)
        data = harness.pack_bytes(PACK_SIZE, seed)
        site, installation, record = self.offer(data, under="soak/")
        saved = installation.save_path(PACK)

        def size():
            return partial_path(saved).stat().st_size if partial_path(saved).exists() else 0

        for kill in range(KILLS):
            before = size()
            process = self.start(installation)
            # One kill in five may land anywhere from the start (the queries,
            # the updater); the others once this run has added to the pack.
            if rng.randrange(5):
                harness.wait_for(lambda: size() > before or not process.running(), 30,
                                 "the pack to go on", interval=0.005)
            moment = time.monotonic() + rng.uniform(0, 0.5)
            while process.running() and time.monotonic() < moment:
                time.sleep(0.002)  # the moment is the experiment, not a wait for a result
            self.assertTrue(process.running(), f"done before kill {kill} (seed {seed})")
            os.kill(process.pid, signal.SIGKILL)
            process.wait(10)
        self.run_program(installation, timeout=90)

        self.assertTrue(saved.read_bytes() == data)
        self.assertEqual(sorted(os.listdir(installation.temp_dir)),
                         sorted([saved.name, installation.save_path(UPDATER).name]))
        self.assertHandedOff(installation, record, b"--update-pack-path", bytes(saved))
        # nginx logs a killed connection once it notices, which may wait for
        # the rate limit to let it write again.
        harness.wait_for(lambda: b"connections: 1 " in urllib.request.urlopen(
            self.nginx.url("/status")).read(), 30, "nginx to close the killed connections")
        requests = site.requests(PACK)
        sent = sum(r["bytes"] for r in requests)
        self.assertLessEqual(sent, 1.1 * PACK_SIZE, f"seed {seed}: {requests}")
        # Every run went on from where the last one stopped.
        starts = [int(re.sub(r"\D", "", r["range"]) or 0) for r in requests]
        self.assertEqual(starts, sorted(starts), f"seed {seed}")


if __name__ == "__main__":
    unittest.main()

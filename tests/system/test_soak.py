"""Crash and resume: the updater is killed at random moments while it
downloads a large pack and started again each time, as a desktop session that
crashes or is logged out over and over would do. Whatever moment the kill
hits, the next run must carry on from what is on disk, and the run that
finally ends must hand over exactly the served files, once, having fetched
little more than the pack's size in all.

The seed of the kill moments is printed; QUILLON_SOAK_SEED repeats a run."""

import os
import random
import re
import signal
import sys
import time
import unittest
import urllib.request

import harness
from systemcase import SystemTestCase

PACK_SIZE = 50 * 1024 * 1024
# nginx lets a request have one second's worth at once and then holds it to
# the rate, so every restart gets about this much before it is slowed down.
# Low enough that the kills below cannot finish the pack between them.
RATE = 1280 * 1024
KILLS = 24
ENOUGH_KILLS = 20
# One kill in this many lands at any moment of the run, from its start (the
# queries, the updater, the pack's first bytes); the others once the pack is
# under way, within this many seconds.
EARLY_ONE_IN = 5
EARLY_WINDOW = 0.6
PACK_WINDOW = 0.5
# Bounds of the whole experiment, so that a hang fails rather than stalls.
SOAK_DEADLINE = 170
LAST_RUN_TIMEOUT = 90
STATUS_PATH = "/.soak-status"


class CrashResumeSoakTest(SystemTestCase):

    nginx_directives = f"""
        location /soak/ {{ limit_rate {RATE}; }}
        location = {STATUS_PATH} {{ stub_status; }}
"""
    # Little in flight: what nginx counts as sent has nearly all reached the
    # program when it is killed.
    nginx_listen_options = "sndbuf=32k"

    def active_connections(self):
        with urllib.request.urlopen(self.nginx.url(STATUS_PATH), timeout=10) as answer:
            text = answer.read().decode()
        return int(re.search(r"Active connections:\s*(\d+)", text).group(1))

    @staticmethod
    def describe_end(last_status, left_by_kills):
        if last_status is None:
            return "a kill came after the hand-off"
        if left_by_kills is None:
            return "a run ended by itself before its kill"
        return f"the kills left {left_by_kills / PACK_SIZE:.0%} of the pack for the last run"

    def test_killed_at_random_moments_until_done(self):
        seed = int(os.environ.get("QUILLON_SOAK_SEED") or random.SystemRandom().randrange(2**32))
        print(f"\nsoak seed: {seed} (QUILLON_SOAK_SEED={seed} repeats it)", file=sys.stderr)
        rng = random.Random(seed)

        site = self.new_site(under="soak/")
        installation, record = self.new_installation(), self.new_record()
        updater = site.put_updater(record)
        data = harness.pack_bytes(PACK_SIZE, seed=seed)
        pack = site.put("quillon-2.0.0.deb", data)
        site.answer({"updater": updater, "update_pack": pack})
        self.serve(installation, site)
        argv = installation.client_arguments()
        saved_updater = installation.save_path(updater["name"])
        saved_pack = installation.save_path(pack["name"])
        partial = saved_pack.with_name(saved_pack.name + ".download")

        def partial_size():
            try:
                return partial.stat().st_size
            except FileNotFoundError:
                return -1

        def handoffs_logged():
            return installation.log_messages().count("Start running updater.")

        started = time.monotonic()
        kills = 0
        kills_in_pack = 0
        last_status = None
        left_by_kills = None
        while True:
            self.assertLess(time.monotonic() - started, SOAK_DEADLINE,
                            f"soak still going after {SOAK_DEADLINE} s (seed {seed}, "
                            f"{kills} kills)")
            handoffs_before = handoffs_logged()
            size_before = partial_size()
            process = self.start(installation, argv)
            if kills == KILLS:
                left_by_kills = max(size_before, 0)
                try:
                    last_status = process.wait(LAST_RUN_TIMEOUT)
                except TimeoutError:
                    self.fail(f"last run still going after {LAST_RUN_TIMEOUT} s (seed "
                              f"{seed}); log:\n" + self.log_text(installation))
                break

            run_start = time.monotonic()
            if rng.randrange(EARLY_ONE_IN) == 0:
                moment = run_start + rng.uniform(0, EARLY_WINDOW)
            else:
                # Once this run has added to the pack, a moment within the window.
                try:
                    harness.wait_for(lambda: partial_size() > size_before
                                     or not process.running(), 30,
                                     "the pack download to go on", interval=0.005)
                except TimeoutError:
                    self.fail(f"run {kills + 1} did not go on with the pack (seed {seed}); "
                              "log:\n" + self.log_text(installation))
                moment = time.monotonic() + rng.uniform(0, PACK_WINDOW)
            # The kill moment is the experiment itself, not a wait for a result.
            while process.running() and time.monotonic() < moment:
                time.sleep(0.002)
            if not process.running():
                # The pack was finished before this kill came.
                last_status = process.popen.returncode
                break
            os.kill(process.pid, signal.SIGKILL)
            process.wait(10)
            kills += 1
            if partial_size() > max(size_before, 0):
                kills_in_pack += 1

            # The kill may have come just after the updater was handed over: the
            # log line comes first and is on disk before the start. Restarting
            # then would hand over a second time.
            if handoffs_logged() > handoffs_before:
                try:
                    harness.wait_for(record.started, 10, "the updater to start")
                    break
                except TimeoutError:
                    pass
            harness.reap_orphans()

        run_time = time.monotonic() - started
        # The updater the last run started has ended before it is counted.
        harness.reap_orphans()

        self.assertGreaterEqual(kills, ENOUGH_KILLS,
                                f"the pack was done after {kills} kills (seed {seed}): the "
                                "rate lets runs get too far")
        if last_status is not None:
            self.assertStatus(installation, last_status, 0)
        self.assertEqual(harness.file_md5(saved_pack), pack["checksum"])
        self.assertEqual(harness.file_md5(saved_updater), updater["checksum"])
        self.assertEqual(sorted(os.listdir(installation.temp_dir)),
                         sorted([saved_updater.name, saved_pack.name]))
        self.assertEqual(record.starts(), 1)
        _, args = record.wait()
        self.assertEqual(args, [b"--root-path", bytes(installation.app),
                                b"--portable-path", bytes(installation.portable),
                                b"--update-pack-path", bytes(saved_pack)])

        # A killed connection is logged once nginx notices the program is
        # gone, which may wait for its rate limit to let it write again.
        harness.wait_for(lambda: self.active_connections() == 1, 30,
                         "nginx to close every connection of the killed runs")
        pack_requests = [r for r in site.requests() if r["path"].endswith("/" + pack["name"])]
        sent = sum(r["bytes"] for r in pack_requests)
        ratio = sent / PACK_SIZE
        print(f"soak: seed {seed}, {kills} kills ({kills_in_pack} during the pack transfer), "
              f"{len(pack_requests)} pack requests, nginx sent {sent} bytes for a "
              f"{PACK_SIZE}-byte pack = {ratio:.4f} x, "
              f"{self.describe_end(last_status, left_by_kills)}, {run_time:.1f} s",
              file=sys.stderr)
        self.assertLessEqual(sent, 1.1 * PACK_SIZE,
                             f"{ratio:.3f} times the pack's size sent (seed {seed}): "
                             f"{pack_requests}")
        # Every run went on from where the last one stopped: the ranges never
        # go back.
        starts = [int(re.match(r"bytes=(\d+)-$", r["range"]).group(1)) if r["range"] else 0
                  for r in pack_requests]
        self.assertEqual(starts, sorted(starts), "a run fetched bytes it already had")


if __name__ == "__main__":
    unittest.main()

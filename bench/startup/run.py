#!/usr/bin/env python3
"""Start-up benchmark: a whole no-update run of the installed updater against
a bare Qt program that only checks for a tray.

The updater is installed from the build tree into a temporary prefix and run
as the desktop client runs it, on an Xvfb display with trayer as its tray,
against nginx answering "{}" (so it starts, asks twice, logs and exits with
0). The baseline (startup-baseline, built with the benchmarks) starts a
QApplication on the same display, asks for the tray and exits. The two
alternate, N times each (20 by default), and the script reports the median wall time of
each, the ratio of the medians and the median of the per-round ratios
(target: at most 2.0).

  bench/startup/run.py [--build BUILD_DIR] [--rounds N] [--verbose]

BUILD_DIR defaults to ./build; the targets autoupdater and startup-baseline
must be built. Run it by hand on a quiet machine: the figures are wall times.
"""

import argparse
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(TOP / "tests" / "system"))
import harness  # noqa: E402


def timed(argv, env, cwd):
    """Wall time from start to exit, and the exit status.

    The wait must block in waitpid: a wait with a time-out polls with sleeps
    that double from 0.5 ms and would round every figure up to the next
    step (31.5 ms, 63.5 ms, ...). A timer kills a program that hangs."""
    start = time.perf_counter()
    process = subprocess.Popen(argv, env=env, cwd=cwd, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    watchdog = threading.Timer(120, process.kill)
    watchdog.start()
    try:
        status = process.wait()
    finally:
        watchdog.cancel()
    return time.perf_counter() - start, status


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build", type=Path, default=TOP / "build")
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--verbose", action="store_true", help="print every round's times")
    args = parser.parse_args()
    build = args.build.resolve()
    baseline = build / "bench" / "startup" / "startup-baseline"
    if not baseline.exists():
        sys.exit(f"{baseline} not found: build the startup-baseline target")

    harness.adopt_orphans()
    work = Path(tempfile.mkdtemp(prefix="quillon-startup-bench-"))
    started = []
    try:
        prefix = work / "prefix"
        subprocess.run(["cmake", "--install", str(build), "--prefix", str(prefix)], check=True,
                       stdout=subprocess.DEVNULL)
        # The baseline answers the same question the harness asks of a tray.
        desktop = harness.Desktop(work / "desktop", baseline)
        started.append(desktop)
        desktop.start()
        www = work / "www"
        www.mkdir()
        nginx = harness.Nginx(work / "nginx", www)
        started.append(nginx)
        nginx.start()
        site = harness.UpdateSite(nginx, "bench")
        site.answer("{}")
        # As shipped: the installed log level, not the tests' debug level.
        installation = harness.Installation(prefix, work / "install", log_level=None)
        installation.configure_server(nginx.url(), site.answer_path)
        env = installation.environment(desktop)
        updater = [str(installation.program)] + installation.client_arguments()

        # One of each first, unmeasured: the page cache and fontconfig's cache.
        for argv in (updater, [str(baseline)]):
            _, status = timed(argv, env, installation.home)
            if status != 0:
                sys.exit(f"{argv[0]} exited with {status} in the warm-up run")

        updater_times, baseline_times, ratios = [], [], []
        for round_ in range(args.rounds):
            u, u_status = timed(updater, env, installation.home)
            b, b_status = timed([str(baseline)], env, installation.home)
            if u_status != 0 or b_status != 0:
                sys.exit(f"round {round_ + 1}: updater {u_status}, baseline {b_status}")
            updater_times.append(u)
            baseline_times.append(b)
            ratios.append(u / b)

        queries = [r for r in site.requests() if r["name"] == "answer.json"]
        if len(queries) != 2 * (args.rounds + 1):
            sys.exit(f"expected two queries per run, nginx saw {len(queries)}")

        if args.verbose:
            for name, times in (("updater", updater_times), ("baseline", baseline_times)):
                print(f"{name} ms:", " ".join(f"{t * 1000:.1f}" for t in times))
        u_med = statistics.median(updater_times)
        b_med = statistics.median(baseline_times)
        print(f"rounds: {args.rounds} (alternating, after one warm-up run each)")
        print(f"updater, no-update run: median {u_med * 1000:7.1f} ms "
              f"(min {min(updater_times) * 1000:.1f}, max {max(updater_times) * 1000:.1f})")
        print(f"baseline QApplication:  median {b_med * 1000:7.1f} ms "
              f"(min {min(baseline_times) * 1000:.1f}, max {max(baseline_times) * 1000:.1f})")
        print(f"ratio of medians:       {u_med / b_med:.2f}")
        print(f"median per-round ratio: {statistics.median(ratios):.2f} (target <= 2.0)")
        return 0 if statistics.median(ratios) <= 2.0 else 1
    finally:
        for thing in reversed(started):
            thing.stop()
        harness.reap_orphans()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""Benchmarks of the installed program, run as the desktop client runs it, on
an Xvfb display with trayer as its tray, against nginx on loopback.

  start   a whole no-update run (nginx answers "{}") against startup-baseline,
          a bare QApplication that checks for a tray and exits;
          target: median per-round ratio at most 1.3.
  update  a whole update with a pack of --pack-mib MiB (default 1024) served
          by nginx, against `curl -o FILE URL && md5sum FILE` of the same pack;
          targets: median ratio of wall times at most 0.70, and the program's
          peak resident memory at most 40 MiB (as GNU time reports it).

Program and reference alternate, round by round, after one unmeasured run of
each; the medians are reported. The program is installed from BUILD_DIR into
a temporary prefix (the targets autoupdater, tray-probe and startup-baseline
must be built).

  bench/program/run.py [start|update ...] [--build BUILD_DIR] [--rounds N]
                       [--pack-mib M] [--verbose] [--emulated]
                       [--heaptrack FILE]

The figures are wall times: run it by hand, on a quiet machine.

--heaptrack FILE first runs the update once under heaptrack, recording to
FILE.zst (or .gz), and prints the peak of its heap. That is a small part of
the peak resident memory: the rest is mapped libraries, which /proc/PID/smaps
lists with what each one holds.

--emulated is for programs that run under qemu's user-mode emulator, as in
the 32-bit root of `tools/i386.sh --bench`. There GNU time's peak would be
the emulator's, its translated code included, so the programs are placed at
a fixed guest address (QEMU_GUEST_BASE) and their peak is the resident part
of that 4 GiB range, sampled from /proc/PID/smaps every few milliseconds:
what the 32-bit program itself holds. The times then measure the emulator.
"""

import argparse
import os
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


GUEST_BASE = 0x100000000  # where --emulated places the 32-bit programs
GUEST_END = GUEST_BASE + (1 << 32)


def guest_resident_kib(pid):
    """Resident KiB of an emulated process's guest address range."""
    total, inside = 0, False
    with open(f"/proc/{pid}/smaps") as smaps:
        for line in smaps:
            if line[0] in "0123456789abcdef" and "-" in line.split(" ", 1)[0]:
                inside = GUEST_BASE <= int(line.split("-", 1)[0], 16) < GUEST_END
            elif inside and line.startswith("Rss:"):
                total += int(line.split()[1])
    return total


def sample_guest_peak(time_pid, done, peak):
    """Follows the program GNU time started until it ends; peak[0] := its
    highest guest-range resident KiB."""
    child = None
    while not done.is_set():
        try:
            if child is None:
                children = Path(f"/proc/{time_pid}/task/{time_pid}/children").read_text().split()
                child = children[0] if children else None
            if child is not None:
                peak[0] = max(peak[0], guest_resident_kib(child))
        except (OSError, ValueError):
            pass  # between fork and exec, or already gone
        done.wait(0.005)


def timed(argv, env, cwd, scratch, emulated=False):
    """Wall time, exit status and peak resident memory (KiB) of one run.

    GNU time reports the peak: a child forked from this Python process would
    carry the interpreter's high-water mark across exec into wait4's figure.
    The wait blocks in waitpid, since a wait with a time-out polls with sleeps
    that would round every figure up; a timer kills a program that hangs.
    emulated: the peak of the guest range instead (see --emulated)."""
    report = scratch / "peak-kib"
    start = time.perf_counter()
    process = subprocess.Popen(["/usr/bin/time", "-f", "%M", "-o", str(report), *argv],
                               env=env, cwd=cwd, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    watchdog = threading.Timer(600, process.kill)
    watchdog.start()
    done, guest_peak = threading.Event(), [0]
    if emulated:
        sampler = threading.Thread(target=sample_guest_peak, args=(process.pid, done, guest_peak))
        sampler.start()
    try:
        status = process.wait()
    finally:
        watchdog.cancel()
        done.set()
    seconds = time.perf_counter() - start
    if emulated:
        sampler.join()
        return seconds, status, guest_peak[0]
    return seconds, status, int(report.read_text().split()[-1])


def alternate(name, runs, rounds, verbose, scratch, emulated=()):
    """runs: {label: (argv, env, cwd, before_each)}, program first; emulated:
    the labels whose peak is sampled from the guest range."""
    results = {label: [] for label in runs}
    for round_ in range(rounds + 1):
        for label, (argv, env, cwd, before) in runs.items():
            before()
            seconds, status, peak = timed(argv, env, cwd, scratch, label in emulated)
            if status != 0:
                sys.exit(f"{name}, round {round_}: {label} exited with {status}")
            if round_:  # the first round only warms caches up
                results[label].append((seconds, peak))
    labels = list(runs)
    ratios = [p[0] / r[0] for p, r in zip(results[labels[0]], results[labels[1]])]
    print(f"{name}: {rounds} alternating rounds after one warm-up round each")
    for label in labels:
        times = [s for s, _ in results[label]]
        peaks = [k for _, k in results[label]]
        if verbose:
            print(f"  {label} ms:", " ".join(f"{t * 1000:.1f}" for t in times))
        print(f"  {label:<24} median {statistics.median(times) * 1000:9.1f} ms   "
              f"peak RSS median {statistics.median(peaks) / 1024:6.1f} MiB "
              f"(max {max(peaks) / 1024:.1f})"
              + (" with the emulator's own" if emulated and label not in emulated else ""))
    print(f"  median per-round ratio   {statistics.median(ratios):.2f}")
    return statistics.median(ratios), max(k for _, k in results[labels[0]]) / 1024


def heap_peak(argv, env, cwd, record, before):
    """Runs the program once under heaptrack, recording to RECORD.zst (or .gz), and
    prints the peak of its heap as heaptrack_print reports it."""
    before()
    files = [record.with_name(record.name + suffix) for suffix in (".zst", ".gz")]
    for stale in files:  # which one heaptrack writes depends on how it was built
        stale.unlink(missing_ok=True)
    status = subprocess.run(["heaptrack", "-o", str(record), *argv], env=env, cwd=cwd,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode
    if status != 0:
        sys.exit(f"under heaptrack the program exited with {status}")
    data = next((path for path in files if path.exists()), None)
    if data is None:
        sys.exit(f"heaptrack wrote no {files[0]} nor {files[1]}")
    report = subprocess.run(["heaptrack_print", str(data)], check=True, capture_output=True,
                            text=True).stdout
    heap = [line.split(":")[1].strip() for line in report.splitlines()
            if line.startswith("peak heap memory consumption:")]
    print(f"under heaptrack: peak heap {heap[0] if heap else '?'}, recorded in {data}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("what", nargs="*", help="start, update, or both (the default)")
    parser.add_argument("--build", type=Path, default=TOP / "build")
    parser.add_argument("--rounds", type=int, default=None,
                        help="default: 20 for start, 5 for update")
    parser.add_argument("--pack-mib", type=int, default=1024)
    parser.add_argument("--verbose", action="store_true", help="print every round's times")
    parser.add_argument("--emulated", action="store_true",
                        help="the programs run under qemu-user: report their own peak")
    parser.add_argument("--heaptrack", type=Path, metavar="FILE",
                        help="record one update under heaptrack to FILE.zst (or .gz) first")
    args = parser.parse_args()
    args.what = args.what or ["start", "update"]
    if set(args.what) - {"start", "update"}:
        parser.error("measure start, update, or both")
    if args.heaptrack and (args.emulated or not shutil.which("heaptrack")):
        parser.error("--heaptrack needs heaptrack (apt-get install heaptrack), and no --emulated")
    build = args.build.resolve()
    baseline = build / "bench" / "program" / "startup-baseline"
    if not baseline.exists():
        sys.exit(f"{baseline} not found: build the startup-baseline target")

    harness.adopt_orphans()
    work = Path(tempfile.mkdtemp(prefix="quillon-program-bench-"))
    started, verdict = [], 0
    try:
        prefix = work / "prefix"
        subprocess.run(["cmake", "--install", str(build), "--prefix", str(prefix)], check=True,
                       stdout=subprocess.DEVNULL)
        desktop = harness.Desktop(work / "desktop", baseline)  # it asks what the probe asks
        started.append(desktop)
        desktop.start()
        www = work / "www"
        www.mkdir()
        nginx = harness.Nginx(work / "nginx", www)
        started.append(nginx)
        nginx.start()
        # As shipped: the installed log level, not the tests' debug level.
        installation = harness.Installation(prefix, work / "install", log_level=None)
        env = installation.environment(desktop)
        if args.emulated:
            env["QEMU_GUEST_BASE"] = hex(GUEST_BASE)
        program = [str(installation.program)] + installation.client_arguments()
        nothing = lambda: None  # noqa: E731

        if "start" in args.what:
            site = harness.UpdateSite(nginx, "start")
            site.answer("{}")
            installation.configure_server(nginx.url(), site.answer_path)
            both = ("updater, no update", "bare tray application")
            ratio, _ = alternate("no-update start", {
                both[0]: (program, env, installation.home, nothing),
                both[1]: ([str(baseline)], env, installation.home, nothing),
            }, args.rounds or 20, args.verbose, work, both if args.emulated else ())
            verdict |= not args.emulated and ratio > 1.3

        if "update" in args.what:
            site = harness.UpdateSite(nginx, "update")
            record = harness.UpdaterRecord(work / "started")
            updater = site.put_updater(record)
            pack_path = site.folder / "pack.bin"
            with open(pack_path, "wb") as out:  # random, so nothing compresses it
                for _ in range(args.pack_mib):
                    out.write(os.urandom(1 << 20))
            pack = {"name": "pack.bin", "url": nginx.url(site.prefix + "pack.bin"),
                    "checksum": harness.file_md5(pack_path)}
            site.answer({"updater": dict(updater, need_user_permit=False), "update_pack": pack})
            installation.configure_server(nginx.url(), site.answer_path)
            fetched = work / "curl.bin"

            def clean():  # every round downloads both files from scratch
                for path in (installation.save_path("pack.bin"),
                             installation.save_path(updater["name"]), fetched):
                    path.unlink(missing_ok=True)
            reference = ["sh", "-c", 'curl -s -o "$1" "$2" && md5sum "$1" >/dev/null', "ref",
                         str(fetched), pack["url"]]
            rounds = args.rounds or 5
            if args.heaptrack:
                heap_peak(program, env, installation.home, args.heaptrack.resolve(), clean)
            ratio, peak = alternate(f"update with a {args.pack_mib} MiB pack", {
                "updater, full update": (program, env, installation.home, clean),
                "curl -o && md5sum": (reference, env, installation.home, clean),
            }, rounds, args.verbose, work, ("updater, full update",) if args.emulated else ())
            runs = rounds + 1 + bool(args.heaptrack)
            if record.starts() != runs:  # each run must really have ended in a hand-off
                sys.exit(f"the updater was started {record.starts()} times in {runs} runs")
            verdict |= (not args.emulated and ratio > 0.70) or peak > 40
        return verdict
    finally:
        for thing in reversed(started):
            thing.stop()
        harness.reap_orphans()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())

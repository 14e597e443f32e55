#!/usr/bin/env python3
"""Runs one update of the installed updater against a local demo update server
and reports what happened. Called by tools/demo.sh after the build and install;
see there for the whole picture.

What it sets up, all on this machine and all stopped at the end:
  - the update server: nginx on a free 127.0.0.1 port serving <work>/server/www.
    The update query goes to /quillon/update, a static JSON answer (nginx
    ignores the query string the updater appends). The answer names
      files/quillon-updater.sh     a stand-in updater: it writes how it was
                                   started to <work>/updater-started.txt
      files/packs/<pack>           a few MiB of data, sent at a limited rate
                                   so that the progress dialog stays up
    with their MD5 digests, and "updater_args" for the updater.
  - the installation's conf/update.conf, pointed at that server
    (host=http://127.0.0.1:<port>, path=/quillon/update).
  - a desktop: the user's own ($DISPLAY) when it has a system tray, otherwise
    a private Xvfb display with trayer as the tray.
  - per-user folders under <work>/user: home and settings, the runtime folder
    for the single-instance lock, and the temporary folder the downloads go to.
"""

import argparse
import json
import os
import shlex
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "system"))
import harness  # noqa: E402

QUERY_PATH = "/quillon/update"


def log(text=""):
    print(text, flush=True)


def choose_desktop(work, probe, display):
    if display:
        desktop = harness.Desktop.existing(work / "desktop", probe, display)
        if desktop.tray_available():
            return desktop, f"your desktop (DISPLAY={display})"
        log(f"DISPLAY={display} has no system tray; using a private Xvfb display instead.")
    desktop = harness.Desktop(work / "desktop", probe).start()
    return desktop, f"Xvfb display {desktop.display} with trayer as the system tray"


def update_server(work, rate):
    www = work / "server" / "www"
    www.mkdir(parents=True)
    directives = f"""        location = {QUERY_PATH} {{
            default_type application/json;
            alias {www / 'answer.json'};
        }}
        location /files/packs/ {{ limit_rate {rate}; }}"""
    return harness.Nginx(work / "server", www, directives)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--app", required=True, type=Path,
                        help="the installed program's prefix (<root>/app)")
    parser.add_argument("--probe", required=True, help="the tray-probe program")
    parser.add_argument("--work", required=True, type=Path, help="folder for everything else")
    parser.add_argument("--display", default=None, help="X display to use (default: $DISPLAY)")
    parser.add_argument("--pack-mib", type=int, default=4)
    parser.add_argument("--rate", default="512k", help="nginx limit_rate for the pack")
    args = parser.parse_args()

    display = args.display if args.display is not None else os.environ.get("DISPLAY")
    work = args.work.resolve()
    harness.adopt_orphans()
    started = []
    try:
        desktop, desktop_text = choose_desktop(work, args.probe, display)
        started.append(desktop)
        nginx = update_server(work, args.rate)
        started.append(nginx)
        nginx.start()

        record = harness.UpdaterRecord(work / "updater-started.txt")
        updater = harness.UpdateSite(nginx, "files").put_updater(record)
        pack = harness.UpdateSite(nginx, "files/packs").put(
            "quillon-2.0.0-demo.pack", harness.pack_bytes(args.pack_mib * 1024 * 1024))
        answer = {"updater": dict(updater, need_user_permit=False), "update_pack": pack,
                  "updater_args": ["--lang=en", "--silent"]}
        (nginx.docroot / "answer.json").write_text(json.dumps(answer, indent=2) + "\n")

        # The installation as cmake --install laid it out, with its shipped
        # log level; only the server address is changed.
        installation = harness.Installation(None, work / "user", log_level=None, app=args.app)
        installation.configure_server(nginx.url(), QUERY_PATH)
        argv = installation.client_arguments(show_dialog=True)

        log("Quillon auto-updater demo")
        log(f"  installation   {installation.app}")
        log(f"  update.conf    host={nginx.url()}  path={QUERY_PATH}")
        log(f"  update server  nginx at {nginx.url()}, files in {nginx.docroot}")
        log(f"  pack           {pack['name']}, {args.pack_mib} MiB, sent at most "
            f"{args.rate} bytes/s")
        log(f"  desktop        {desktop_text}")
        log(f"  downloads to   {installation.temp_dir}")
        log()
        log("$ " + shlex.join([str(installation.program)] + argv))
        log_start = installation.log_path.stat().st_size if installation.log_path.exists() else 0
        process = installation.start(argv, desktop)
        started.append(process)

        # The screenshot is taken once the dialog is up and about a third of
        # the pack has arrived, so that there is progress to see.
        shot = work / "screenshot.png"
        saved_pack = installation.save_path(pack["name"])
        partial = saved_pack.with_name(saved_pack.name + ".download")
        third = args.pack_mib * 1024 * 1024 // 3

        def dialog_with_progress():
            if not process.running():
                return "ended"
            arrived = partial.stat().st_size if partial.exists() else 0
            if arrived < third and not saved_pack.exists():
                return None
            windows = desktop.visible_windows("--all", "--pid", process.pid, "--name", "^Quillon$")
            return "shown" if any(desktop.painted(g) for g in windows.values()) else None
        try:
            dialog = harness.wait_for(dialog_with_progress, 60, "the progress dialog") == "shown"
        except TimeoutError:
            dialog = False
        if dialog:
            desktop.screenshot(shot)

        try:
            status = process.wait(180)
        except TimeoutError:
            log("The updater did not finish within 3 minutes; stopping it.")
            status = None

        log(f"Exit status: {status}")
        log(f"Screenshot of the progress dialog: {shot}" if dialog else
            "The progress dialog was not seen (no screenshot).")
        log()
        log(f"Log of this run ({installation.log_path}):")
        text = b""
        if installation.log_path.exists():
            text = installation.log_path.read_bytes()[log_start:]
        for line in text.decode(errors="replace").splitlines() or ["(nothing logged)"]:
            log("  " + line)
        log()
        ok = status == 0
        try:
            cwd, handed = record.wait(10)
            log(f"Hand-off: the downloaded updater was started in {cwd.decode()} as")
            log("  " + shlex.join([str(installation.save_path(updater["name"]))]
                                  + [a.decode(errors="replace") for a in handed]))
        except TimeoutError:
            log("Hand-off: the updater was not started.")
            ok = False
        log()
        log("Downloaded files:")
        for path in sorted(installation.temp_dir.iterdir()):
            log(f"  {path}  ({path.stat().st_size} bytes, md5 {harness.file_md5(path)})")
        return 0 if ok else 1
    finally:
        for thing in reversed(started):
            thing.stop()
        harness.reap_orphans()


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env bash
# The updater's main job on this machine, end to end: install what is needed,
# build, install, and run one update against a local demo update server.
#
#   tools/demo.sh
#
# What each step does and where things end up:
#   1. tools/install-deps.sh installs the Debian packages (compiler, CMake, Qt 5,
#      SQLite, ICU, nginx, Xvfb, trayer, ImageMagick, ...).
#   2. A Release build, out of tree, in build-demo/.
#   3. `cmake --install build-demo --prefix _demo/root/app` lays the program out
#      as the desktop client's installation has it:
#        _demo/root/app/bin/autoupdater                   the updater
#        _demo/root/app/conf/update.conf                  its update server
#        _demo/root/app/log_template/syncfolder_c.debug   its log levels
#      and beside the app folder, made here as the client's installer would:
#        _demo/root/log/auto_updater.log                  the log
#        _demo/root/data/db/sys.sqlite                    the client's database
#   4. tools/demo.py starts nginx on a free 127.0.0.1 port as the update server
#      (files in _demo/server/www): the query path /quillon/update answers with
#      a JSON object naming a stand-in updater script and a 4 MiB update pack
#      sent at 512 KiB/s. It writes that server into _demo/root/app/conf/
#      update.conf and runs
#        autoupdater --show-dialog --root-path ... --portable-path ... (the
#        client's usual options)
#      on your desktop when $DISPLAY has a system tray, otherwise on a private
#      Xvfb display with trayer as the tray. It saves _demo/screenshot.png of
#      the progress dialog and prints the exit status, the log, and the command
#      line the downloaded updater was started with. It stops everything it
#      started; _demo/ stays for a look until the next run.
#
# A real installation is pointed at a real update server in
# <prefix>/conf/update.conf, or at build time with
# -DQUILLON_UPDATE_SERVER_HOST=https://updates.example.org
# -DQUILLON_UPDATE_SERVER_PATH=/quillon/update; each user may override host or
# path in ~/.config/Tessaril/QuillonClient.ini ([autoupdate] server_host,
# server_path).
#
# Environment: DEMO_JOBS (parallel build jobs, default: all cores).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
build=$top/build-demo
demo=$top/_demo

"$top/tools/install-deps.sh"

cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j "${DEMO_JOBS:-$(nproc)}" --target autoupdater tray-probe

# A fresh installation and fresh user folders each time: downloads left by an
# earlier run would be reused, and there would be no progress to see.
rm -rf "$demo/root" "$demo/user" "$demo/server" "$demo/desktop" \
    "$demo/screenshot.png" "$demo/updater-started.txt"
cmake --install "$build" --prefix "$demo/root/app"

exec python3 "$top/tools/demo.py" --app "$demo/root/app" \
    --probe "$build/tests/system/tray-probe" --work "$demo"

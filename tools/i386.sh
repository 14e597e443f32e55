#!/usr/bin/env bash
# Builds the updater for 32-bit x86 with warnings as errors and runs every
# CTest suite there, end-to-end tests included, inside a Debian 12 i386 root
# made with debootstrap. The updater ships for 32-bit desktops, where off_t,
# long and pointers are narrower than on the machine it is developed on.
#
#   tools/i386.sh
#   tools/i386.sh --bench [bench/program/run.py's arguments]
#
# With --bench it builds the same way but runs the program benchmarks
# (bench/program/run.py) in the root instead of the suites, with --emulated
# when the programs run under qemu.
#
# Needs root (debootstrap, chroot, mount) and debootstrap. Where the kernel
# cannot run 32-bit programs itself (no IA-32 emulation, or switched off at
# boot), they run under qemu-user-static, registered with binfmt_misc for the
# run, with tools/qemu-i386-tls.c preloaded (tools/install-deps.sh installs
# debootstrap and qemu-user-static). Environment:
#   QUILLON_I386_ROOT_CACHE  a folder outside the clone that keeps the root,
#                            its packages and the build between runs; without
#                            it a new root is made and removed afterwards
#   QUILLON_I386_MIRROR      the Debian mirror; by default the one the
#                            machine's apt sources use for bookworm
set -euo pipefail
# Read whole before it runs, so that editing the file meanwhile cannot change
# what a running build does next.
# shellcheck disable=SC2317 # the functions run from traps
{
top=$(cd "$(dirname "$0")/.." && pwd)

bench=0
if [ "${1:-}" = --bench ]; then
    bench=1
    shift
fi
[ "$bench" = 1 ] || [ $# -eq 0 ] || { echo "usage: tools/i386.sh [--bench [ARGS...]]" >&2; exit 2; }

die() {
    echo "tools/i386.sh: $*" >&2
    exit 1
}
[ "$(id -u)" -eq 0 ] ||
    die "needs root (debootstrap, chroot, mount); run it as root, or skip it in tools/test.sh with QUILLON_SKIP_I386=1"
command -v debootstrap >/dev/null || die "needs debootstrap (apt-get install debootstrap)"

# The first bookworm mirror of the machine's apt sources, one-line or deb822.
apt_mirror() {
    local f
    {
        for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
            [ -r "$f" ] || continue
            sed -E 's/^deb[[:space:]]+\[[^]]*\]/deb/' "$f" |
                awk '$1 == "deb" && $3 == "bookworm" { print $2 }'
        done
        for f in /etc/apt/sources.list.d/*.sources; do
            [ -r "$f" ] || continue
            awk 'BEGIN { RS = ""; FS = "\n" }
                 { uri = ""; deb = 0; suite = 0
                   for (i = 1; i <= NF; i++) {
                       if ($i ~ /^URIs:/) { split(substr($i, 6), u, " "); uri = u[1] }
                       if ($i ~ /^Types:/ && (substr($i, 7) " ") ~ / deb /) deb = 1
                       if ($i ~ /^Suites:/ && (substr($i, 8) " ") ~ / bookworm /) suite = 1
                   }
                   if (uri != "" && deb && suite) print uri }' "$f"
        done
    } | head -n1
}
mirror=${QUILLON_I386_MIRROR:-$(apt_mirror)}
[ -n "$mirror" ] || die "no bookworm mirror in /etc/apt/sources.list*; set QUILLON_I386_MIRROR"

base=
root=
mounted=()
binfmt_entry=
binfmt_mounted=
made_root=

# Processes a failed or interrupted test left running inside the root (nginx,
# Xvfb) would keep its mounts busy: they are found by their root folder.
stop_root_processes() {
    local p link found
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        found=
        for p in /proc/[0-9]*; do
            link=$(readlink "$p/root" 2>/dev/null) || continue
            if [ "$link" = "$root" ]; then
                kill -KILL "${p#/proc/}" 2>/dev/null || true
                found=1
            fi
        done
        [ -n "$found" ] || return 0
        sleep 0.2
    done
}

# Whatever is mounted under the folder that holds the root, deepest first:
# a failed debootstrap leaves its own /proc and /sys mounts behind.
still_mounted() {
    [ -n "$base" ] && awk -v b="$base" 'index($2, b "/") == 1 { print $2 }' /proc/mounts | sort -r
}

cleanup() {
    local status=$? i
    trap - EXIT HUP INT TERM
    if [ -n "$root" ]; then
        stop_root_processes
        for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
            umount "${mounted[i]}" 2>/dev/null || umount -l "${mounted[i]}" ||
                echo "tools/i386.sh: cannot unmount ${mounted[i]}" >&2
        done
    fi
    local m
    for m in $(still_mounted); do
        umount "$m" 2>/dev/null || umount -l "$m" || true
    done
    if [ -n "$binfmt_entry" ]; then
        echo -1 >"/proc/sys/fs/binfmt_misc/$binfmt_entry" || true
    fi
    # Unmounted again only if no one else registered anything meanwhile.
    if [ -n "$binfmt_mounted" ] && [ "$(find /proc/sys/fs/binfmt_misc -mindepth 1 | wc -l)" -le 2 ]; then
        umount /proc/sys/fs/binfmt_misc || true
    fi
    local left
    left=$(still_mounted)
    if [ -n "$left" ]; then
        echo "tools/i386.sh: still mounted:" >&2
        echo "$left" >&2
        exit 1
    fi
    if [ -n "$made_root" ]; then
        rm -rf --one-file-system "$made_root"
    fi
    exit "$status"
}
trap cleanup EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

if [ -n "${QUILLON_I386_ROOT_CACHE:-}" ]; then
    cache=$(realpath -m "$QUILLON_I386_ROOT_CACHE")
    case "$cache/" in
    "$top"/*) die "QUILLON_I386_ROOT_CACHE must be outside the clone" ;;
    esac
    mkdir -p "$cache"
    # One run at a time per root: a second would unmount the first's folders.
    exec 9>"$cache/lock"
    flock -n 9 || {
        echo "waiting for another run that uses $cache..." >&2
        flock 9
    }
    base=$cache
    root=$cache/root
else
    made_root=$(mktemp -d /var/tmp/quillon-i386.XXXXXX)
    base=$made_root
    root=$made_root/root
fi

# Where the kernel has no IA-32 emulation (or it is switched off, as on some
# virtual machines), qemu's user-mode emulator runs the root's programs. The
# registration opens the emulator at once (flag F), so it works in the chroot
# without a copy inside it, and is removed again at the end. An emulator that
# someone else registered may be removed at any moment: then this run
# registers its own.
i386_runs() {
    ! grep -qs '^magic 7f454c4601010100000000000000000002000300' /proc/sys/fs/binfmt_misc/* &&
        chroot "$1" /bin/true 2>/dev/null
}
register_qemu() {
    local qemu=/usr/bin/qemu-i386-static
    [ -x "$qemu" ] ||
        die "this kernel cannot run 32-bit programs and $qemu is missing (apt-get install qemu-user-static)"
    if [ ! -e /proc/sys/fs/binfmt_misc/register ]; then
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
        binfmt_mounted=1
    fi
    binfmt_entry=quillon-i386-$$
    printf '%s' ":$binfmt_entry:M::\\x7fELF\\x01\\x01\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x02\\x00\\x03\\x00:\\xff\\xff\\xff\\xff\\xff\\xfe\\xfe\\x00\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xfe\\xff\\xff\\xff:$qemu:OCF" \
        >/proc/sys/fs/binfmt_misc/register
}

if [ ! -x "$root/usr/bin/apt-get" ]; then
    partial=$root.partial
    rm -rf --one-file-system "$partial"
    echo "making a Debian 12 i386 root in $root from $mirror..."
    # In two stages: the second runs the root's own programs, which may need
    # the emulator registered first.
    debootstrap --arch=i386 --variant=minbase --foreign bookworm "$partial" "$mirror"
    i386_runs "$partial" || register_qemu
    linux32 chroot "$partial" /debootstrap/debootstrap --second-stage
    mv "$partial" "$root"
elif ! i386_runs "$root"; then
    register_qemu
fi

bind() {
    mkdir -p "$root$2"
    mount --bind "$1" "$root$2"
    mounted+=("$root$2")
}
bind /proc /proc
bind /sys /sys
bind /dev /dev
bind /dev/pts /dev/pts
bind /dev/shm /dev/shm
bind "$top" /src

# Each command runs in a PID namespace of its own: nothing in the root can
# signal the machine's other processes (a QProcess that never started kills
# pid -1, which is every process as root), and what it leaves running ends
# with it.
in_root() {
    unshare --pid --fork --kill-child --mount --mount-proc="$root/proc" \
        linux32 chroot "$root" /usr/bin/env -i \
        PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" "$@" &
    # Waited for in the background: the command is the namespace's init, which
    # ignores Ctrl-C, and a trap runs at once only while the shell waits.
    wait $!
}

cp -L /etc/resolv.conf "$root/etc/resolv.conf"
# Package scripts must not start nginx or tinyproxy in the root: the tests
# start their own on free ports.
printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
chmod 755 "$root/usr/sbin/policy-rc.d"
# A kept root may hold packages an interrupted run left half set up.
in_root dpkg --configure -a
in_root /src/tools/install-deps.sh
# Under the emulator, programs need the fixes of tools/qemu-i386-tls.c
# preloaded (thread identity after a signal, QProcess); natively, nothing.
if [ -n "$binfmt_entry" ]; then
    in_root gcc -O2 -Wall -Werror -shared -fPIC -o /usr/local/lib/qemu-i386-tls.so \
        /src/tools/qemu-i386-tls.c -ldl
    echo /usr/local/lib/qemu-i386-tls.so >"$root/etc/ld.so.preload"
else
    rm -f "$root/etc/ld.so.preload"
fi
# The system tests plant files as a second local user, as on the host.
in_root sh -c 'id quillon-planter >/dev/null 2>&1 ||
    useradd --system --no-create-home --shell /usr/sbin/nologin quillon-planter'

jobs=$(nproc)
in_root cmake -S /src -B /build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUILLON_WERROR=ON
in_root cmake --build /build -j "$jobs"
if [ "$bench" = 1 ]; then
    in_root python3 /src/bench/program/run.py --build /build ${binfmt_entry:+--emulated} "$@"
    exit
fi
in_root ctest --test-dir /build --output-on-failure -j "$jobs"
echo "i386: every test passed"
exit
}

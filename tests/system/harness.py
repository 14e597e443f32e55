"""Runs the installed updater the way the desktop client starts it.

Everything a run meets is real and private to the caller: nginx as the update
server and tinyproxy as the proxy, both on free loopback ports; an Xvfb
display, with trayer as the desktop's system tray when one is wanted; and a
copy of the installation laid out as the client installs it
(<root>/app/{bin,conf,log_template} with <root>/log and <root>/data beside
it), with its own home, settings, runtime and temporary folders.

Every object here that starts a process stops it again in stop(), which is
safe to call twice and is what the callers register for clean-up. Waiting is
always for a condition (a process ending, a file or log line appearing, a
window being mapped), polled with a deadline.

Shared by the system tests, tools/demo.py and bench/startup. Standard library
only, so that it runs wherever the program itself can be built.
"""

import ctypes
import hashlib
import http.server
import json
import os
import re
import select
import shutil
import signal
import socket
import socketserver
import subprocess
import threading
import time
import urllib.error
import urllib.request
from pathlib import Path

# Daemons that live in sbin are not on every user's PATH.
_SEARCH_PATH = os.pathsep.join(
    [os.environ.get("PATH", ""), "/usr/local/sbin", "/usr/sbin", "/sbin"])


class HarnessError(RuntimeError):
    """Something the harness needs did not come up; the message says what."""


def find_program(name):
    path = shutil.which(name, path=_SEARCH_PATH)
    if not path:
        raise HarnessError(f"{name} is not installed (tools/install-deps.sh installs it)")
    return path


def free_port():
    """A TCP port on 127.0.0.1 that nobody listened on a moment ago.

    Someone may take it before it is used, which is why the servers below try
    again on another port when theirs will not bind."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(condition, timeout, what, interval=0.05):
    """Polls condition() until it returns something true and returns that."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise TimeoutError(f"gave up after {timeout:g} s waiting for {what}")
        time.sleep(interval)


def md5_hex(data):
    return hashlib.md5(data).hexdigest()


def file_md5(path):
    return md5_hex(Path(path).read_bytes())


# ---------------------------------------------------------------- processes

# Process ids of the children the harness started and still has to wait for.
# Whatever else turns up as our child is an orphan we adopted (see below).
_owned = set()


def adopt_orphans():
    """Makes this process the reaper of everything its children leave behind.

    The updater starts the downloaded updater detached, so that program is
    nobody's child once the updater has exited. As a subreaper we inherit it,
    can tell when it has ended and can stop it if it has not."""
    PR_SET_CHILD_SUBREAPER = 36
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise HarnessError("prctl(PR_SET_CHILD_SUBREAPER) failed: "
                           + os.strerror(ctypes.get_errno()))


def _adopted_children():
    me = os.getpid()
    children = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit() or int(entry) in _owned:
            continue
        try:
            stat = Path("/proc", entry, "stat").read_text()
        except OSError:
            continue
        # The command name in parentheses may itself hold blanks.
        fields = stat[stat.rindex(")") + 2:].split()
        if int(fields[1]) == me:
            children.append(int(entry))
    return children


def reap_orphans(timeout=5.0):
    """Waits for the adopted orphans to end, kills those that do not, and
    returns their exit statuses (pid -> status) for whoever wants to know."""
    statuses = {}
    deadline = time.monotonic() + timeout
    for pid in _adopted_children():
        while True:
            try:
                done, status = os.waitpid(pid, os.WNOHANG)
            except ChildProcessError:
                break
            if done:
                statuses[pid] = os.waitstatus_to_exitcode(status)
                break
            if time.monotonic() >= deadline:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
                statuses[pid] = -signal.SIGKILL
                break
            time.sleep(0.02)
    return statuses


class Process:
    """A child process with its output in a file; stop() ends it for good."""

    def __init__(self, argv, output, env=None, cwd=None, pass_fds=(), preexec_fn=None):
        """preexec_fn runs in the child before the program (resource limits,
        signal dispositions the program inherits)."""
        self.argv = [str(a) for a in argv]
        self.output = Path(output)
        with open(self.output, "wb") as out:
            self.popen = subprocess.Popen(
                self.argv, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT,
                env=env, cwd=cwd, pass_fds=pass_fds, start_new_session=True,
                preexec_fn=preexec_fn)
        _owned.add(self.popen.pid)

    @property
    def pid(self):
        return self.popen.pid

    def running(self):
        return self.popen.poll() is None

    def wait(self, timeout):
        """The exit status; TimeoutError while the process still runs."""
        try:
            return self.popen.wait(timeout)
        except subprocess.TimeoutExpired:
            raise TimeoutError(f"{Path(self.argv[0]).name} still running after {timeout:g} s")

    def output_text(self):
        return self.output.read_text(errors="replace") if self.output.exists() else ""

    def stop(self, timeout=5.0):
        if self.popen.poll() is None:
            self.popen.terminate()
            try:
                self.popen.wait(timeout)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()
        _owned.discard(self.popen.pid)
        return self.popen.returncode


def _quote(path):
    return '"' + str(path).replace("\\", "\\\\").replace('"', '\\"') + '"'


# ---------------------------------------------------------------- desktop

class Desktop:
    """An Xvfb display, optionally with trayer as its system tray.

    The display number is chosen by Xvfb itself (-displayfd), so several
    desktops can run side by side. tray_probe is a program that exits with 0
    when the display offers a system tray (tests/system/tray-probe)."""

    def __init__(self, workdir, tray_probe, tray=True, width=1280, height=1024, dpi=96):
        self.workdir = Path(workdir)
        self.workdir.mkdir(parents=True, exist_ok=True)
        self.tray_probe = str(tray_probe)
        self.with_tray = tray
        self.size = (width, height)
        self.dpi = dpi
        self.display = None
        self.xvfb = None
        self.trayer = None
        self.session = {}

    @classmethod
    def existing(cls, workdir, tray_probe, display):
        """The user's own desktop, used as it is: stop() leaves it alone.
        Programs get what they need to reach its X server and session bus."""
        desktop = cls(workdir, tray_probe, tray=False)
        desktop.display = display
        desktop.session = {k: os.environ[k] for k in
                           ("XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS", "XDG_CURRENT_DESKTOP",
                            "XDG_SESSION_TYPE") if k in os.environ}
        root = desktop.x("xwininfo", "-root").stdout
        desktop.size = (int(re.search(r"Width: (\d+)", root).group(1)),
                        int(re.search(r"Height: (\d+)", root).group(1)))
        return desktop

    def start(self):
        read_fd, write_fd = os.pipe()
        try:
            self.xvfb = Process(
                [find_program("Xvfb"), "-displayfd", write_fd, "-screen", "0",
                 f"{self.size[0]}x{self.size[1]}x24", "-dpi", self.dpi, "-nolisten", "tcp",
                 "-noreset"],
                self.workdir / "xvfb.log", pass_fds=(write_fd,))
            os.close(write_fd)
            write_fd = -1
            # Xvfb writes the display number once it accepts clients.
            number = b""
            deadline = time.monotonic() + 30
            while not number.endswith(b"\n"):
                left = deadline - time.monotonic()
                if left <= 0 or not select.select([read_fd], [], [], left)[0]:
                    raise HarnessError("Xvfb did not report a display: " + self.xvfb.output_text())
                chunk = os.read(read_fd, 16)
                if not chunk:
                    raise HarnessError("Xvfb exited: " + self.xvfb.output_text())
                number += chunk
        finally:
            os.close(read_fd)
            if write_fd >= 0:
                os.close(write_fd)
        self.display = ":" + number.decode().strip()
        if self.with_tray:
            self.start_tray()
        return self

    def start_tray(self):
        """Starts trayer at the bottom right, where a desktop panel has its
        notification area, and waits until applications can see the tray."""
        self.trayer = Process(
            [find_program("trayer"), "--edge", "bottom", "--align", "right", "--widthtype",
             "request", "--height", "32", "--SetDockType", "true", "--transparent", "true",
             "--alpha", "0", "--tint", "0xc8ccd0"],
            self.workdir / "trayer.log", env=self.env())
        wait_for(lambda: self.tray_available() or not self.trayer.running(), 30,
                 "trayer to provide a system tray")
        if not self.trayer.running():
            raise HarnessError("trayer exited: " + self.trayer.output_text())

    def env(self):
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "DISPLAY": self.display,
               "HOME": str(self.workdir)}
        env.update(self.session)
        return env

    def tray_available(self):
        probe = subprocess.run([self.tray_probe], env=self.env(), capture_output=True,
                               timeout=30)
        return probe.returncode == 0

    def stop(self):
        for process in (self.trayer, self.xvfb):
            if process:
                process.stop()

    # -- looking at and working the screen

    def x(self, *argv, check=True):
        result = subprocess.run([str(a) for a in argv], env=self.env(), capture_output=True,
                                text=True, timeout=30)
        if check and result.returncode != 0:
            raise HarnessError(f"{argv[0]} failed ({result.returncode}): {result.stderr}")
        return result

    def search(self, *criteria):
        """Window ids found by `xdotool search <criteria>`, oldest first."""
        result = self.x("xdotool", "search", *criteria, check=False)
        return [int(w) for w in result.stdout.split()]

    def geometry(self, window):
        """(x, y, width, height) on the screen, or None once the window is gone
        or unmapped."""
        result = self.x("xwininfo", "-id", window, check=False)
        if result.returncode != 0:
            return None
        info = dict(re.findall(r"^\s*([^:\n]+):\s+(.*)$", result.stdout, re.M))
        if info.get("Map State") != "IsViewable":
            return None
        return tuple(int(info[k]) for k in ("Absolute upper-left X", "Absolute upper-left Y",
                                           "Width", "Height"))

    def visible_windows(self, pid):
        """{window: geometry} of the viewable windows a process owns."""
        found = {}
        for window in self.search("--onlyvisible", "--pid", pid):
            geometry = self.geometry(window)
            if geometry:
                found[window] = geometry
        return found

    def tray_icon(self, pid):
        """The icon a process docked in the tray: its small window inside
        trayer's panel."""
        for window, (_, _, w, h) in self.visible_windows(pid).items():
            if w <= 64 and h <= 64:
                return window
        return None

    def painted(self, geometry):
        """Whether the area shows more than a flat fill, i.e. has been drawn."""
        x, y, w, h = geometry
        result = self.x("import", "-silent", "-window", "root", "-crop", f"{w}x{h}+{x}+{y}",
                        "+repage", "-format", "%k", "info:", check=False)
        return result.returncode == 0 and result.stdout.strip().isdigit() and \
            int(result.stdout.strip()) > 4

    def content_box(self, geometry):
        """The part of an area that differs from the colour of its top-left
        pixel, as (x, y, width, height) on the screen: where something is
        drawn on a plain background."""
        shot = self.workdir / "content-box.png"
        self.screenshot(shot, geometry)
        result = self.x("convert", shot, "-fuzz", "10%", "-trim", "-format", "%w %h %X %Y",
                        "info:")
        w, h, dx, dy = (int(v) for v in result.stdout.split())
        return geometry[0] + dx, geometry[1] + dy, w, h

    def screenshot(self, path, geometry=None, margin=0):
        """Saves the screen, or a margin around one area of it, as a PNG."""
        path = Path(path)
        path.parent.mkdir(parents=True, exist_ok=True)
        argv = ["import", "-silent", "-window", "root"]
        if geometry:
            x, y, w, h = geometry
            x0, y0 = max(0, x - margin), max(0, y - margin)
            x1 = min(self.size[0], x + w + margin)
            y1 = min(self.size[1], y + h + margin)
            argv += ["-crop", f"{x1 - x0}x{y1 - y0}+{x0}+{y0}", "+repage"]
        self.x(*argv, path)
        return path

    def click(self, window, button=1, at=None):
        """Moves the pointer onto the window (its centre unless `at` gives a
        point inside it) and clicks there."""
        if at is None:
            geometry = self.geometry(window)
            if not geometry:
                raise HarnessError(f"window {window} is not on the screen")
            at = (geometry[2] // 2, geometry[3] // 2)
        self.x("xdotool", "mousemove", "--window", window, at[0], at[1], "click", button)


# ---------------------------------------------------------------- servers

class Nginx:
    """nginx serving a folder on a free loopback port, as people run it.

    The access log has one line per request, fields separated by tabs: the
    request URI as sent, the Range header, the status, the bytes sent and the
    Via header a proxy added. `directives` go into the server block (locations,
    limit_rate)."""

    LOG_FORMAT = "$request_uri\\t$http_range\\t$status\\t$bytes_sent\\t$http_via"
    SYNC_PATH = "/.harness-sync"

    def __init__(self, workdir, docroot, directives="", listen_options=""):
        self.workdir = Path(workdir)
        self.workdir.mkdir(parents=True, exist_ok=True)
        self.docroot = Path(docroot).resolve()
        self.directives = directives
        # Socket options of the listen directive, such as "sndbuf=32k".
        self.listen_options = listen_options
        self.port = None
        self.process = None
        self._syncs = 0

    @property
    def access_log(self):
        return self.workdir / "access.log"

    def url(self, path=""):
        return f"http://127.0.0.1:{self.port}{path}"

    def _configuration(self, port):
        temp = "\n".join(f"    {kind}_temp_path {_quote(self.workdir / (kind + '_temp'))};"
                         for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        # One process and no master: it runs as whoever runs the caller, reads
        # the caller's private folders and leaves no worker behind.
        return f"""daemon off;
master_process off;
pid {_quote(self.workdir / 'nginx.pid')};
error_log {_quote(self.workdir / 'error.log')} info;
events {{ worker_connections 256; }}
http {{
    default_type application/octet-stream;
    types {{ application/json json; text/plain sh; }}
    log_format harness "{self.LOG_FORMAT}";
    access_log {_quote(self.access_log)} harness;
{temp}
    server {{
        listen 127.0.0.1:{port} {self.listen_options};
        root {_quote(self.docroot)};
{self.directives}
    }}
}}
"""

    def start(self, attempts=5):
        nginx = find_program("nginx")
        for _ in range(attempts):
            port = free_port()
            config = self.workdir / "nginx.conf"
            config.write_text(self._configuration(port))
            (self.workdir / "nginx.pid").unlink(missing_ok=True)
            self.process = Process([nginx, "-p", f"{self.workdir}/", "-e",
                                    self.workdir / "error.log", "-c", config],
                                   self.workdir / "nginx.out")
            if _wait_listening(self.process, port, self.workdir / "nginx.pid"):
                self.port = port
                return self
            self.process.stop()
        raise HarnessError("nginx would not start: " + self.process.output_text()
                           + _tail(self.workdir / "error.log"))

    def stop(self):
        if self.process:
            self.process.stop()

    def sync(self, timeout=10):
        """Returns once every request nginx finished so far is in the log.

        nginx logs a request after its last byte has gone out, which may be a
        moment after the client has it. One process handles requests in turn,
        so once a request of our own shows up, all earlier ones have too."""
        self._syncs += 1
        marker = f"{self.SYNC_PATH}?{self._syncs}"
        try:
            urllib.request.urlopen(self.url(marker), timeout=timeout).read()
        except urllib.error.HTTPError:
            pass
        wait_for(lambda: marker in self._read_log(), timeout, "nginx to log its requests")

    def _read_log(self):
        return self.access_log.read_text() if self.access_log.exists() else ""

    def requests(self, prefix=""):
        """The logged requests whose path starts with prefix, in order, as
        dicts with uri, path, query, range, status, bytes and via."""
        self.sync()
        found = []
        for line in self._read_log().splitlines():
            uri, range_, status, sent, via = line.split("\t")
            path, _, query = uri.partition("?")
            if path == self.SYNC_PATH or not path.startswith(prefix):
                continue
            found.append({"uri": uri, "path": path, "query": query,
                          "range": "" if range_ == "-" else range_, "status": int(status),
                          "bytes": int(sent), "via": "" if via == "-" else via})
        return found


class TinyProxy:
    """tinyproxy on a free loopback port; its log names every request."""

    def __init__(self, workdir):
        self.workdir = Path(workdir)
        self.workdir.mkdir(parents=True, exist_ok=True)
        self.port = None
        self.process = None

    @property
    def log(self):
        return self.workdir / "tinyproxy.log"

    def start(self, attempts=5):
        tinyproxy = find_program("tinyproxy")
        for _ in range(attempts):
            port = free_port()
            config = self.workdir / "tinyproxy.conf"
            # Running as root, tinyproxy would switch to nobody, who cannot
            # write the log in our folder: keep the current user.
            user = ""
            if os.geteuid() == 0:
                user = "User root\nGroup root\n"
            config.write_text(f"""Port {port}
Listen 127.0.0.1
Timeout 30
Allow 127.0.0.1
MaxClients 32
LogLevel Info
LogFile {_quote(self.log)}
PidFile {_quote(self.workdir / 'tinyproxy.pid')}
{user}""")
            self.process = Process([tinyproxy, "-d", "-c", config], self.workdir / "tinyproxy.out")
            if _wait_listening(self.process, port, None):
                self.port = port
                return self
            self.process.stop()
        raise HarnessError("tinyproxy would not start: " + self.process.output_text()
                           + _tail(self.log))

    def stop(self):
        if self.process:
            self.process.stop()

    def requested_urls(self):
        """The absolute URLs of the requests that went through, in order."""
        text = self.log.read_text(errors="replace") if self.log.exists() else ""
        return re.findall(r"Request \(file descriptor \d+\): GET (\S+) HTTP/", text)


class FaultServer:
    """A small HTTP server for the faults nginx does not make on cue.

    It serves files from memory on a free loopback port, in a thread of the
    caller, and honours "Range: bytes=first-[last]". Each file may be told to
    misbehave (see misbehave()): close the connection after so many body
    bytes, send its body one byte at a time, or send nothing at all after
    the headers. Every request is recorded, in order, as a dict with path,
    range, status, bytes (body bytes sent) and end ("complete", "cut",
    "stalled" or "client gone").

    Each answer starts `latency` seconds after its request, as across a
    network. On loopback an answer cut short can otherwise arrive whole, end
    of connection included, before Qt's HTTP code has moved on from sending
    its request; Qt then sends the request again by itself and may end that
    reply early without an error. The downloader tells such a short file by
    its announced length and resumes it, but the extra requests make the
    exact request sequences the cut-connection tests check unpredictable;
    latency=0 is for the test of that case itself."""

    def __init__(self, latency=0.05):
        self.latency = latency
        self.files = {}
        self.faults = {}
        self.records = []
        self._lock = threading.Lock()
        self._stopping = threading.Event()
        self._server = None
        self._thread = None

    @property
    def port(self):
        return self._server.server_address[1]

    def url(self, name):
        return f"http://127.0.0.1:{self.port}/{name}"

    def put(self, name, data):
        """Serves data as /name; returns the entry an answer names it by."""
        self.files[name] = bytes(data)
        return {"name": name, "url": self.url(name), "checksum": md5_hex(data)}

    def put_updater(self, record, name="quillon-updater.sh"):
        script = UPDATER_SCRIPT.format(record=_shell_quote(str(record.path)))
        return self.put(name, script.encode())

    def misbehave(self, name, cut_after=None, trickle=None, stall=False):
        """cut_after: close each connection once that many body bytes of the
        file went out. trickle: seconds between single body bytes. stall:
        headers only, then silence until the client gives up. No argument
        makes the file behave again."""
        with self._lock:
            self.faults[name] = {"cut_after": cut_after, "trickle": trickle, "stall": stall}

    def requests(self, name=None):
        with self._lock:
            return [dict(r) for r in self.records if name is None or r["path"] == "/" + name]

    def start(self):
        owner = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *args):
                pass

            def do_GET(self):
                owner._answer(self)

        class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
            daemon_threads = True
            allow_reuse_address = False

        # Port 0: the kernel picks a free port as it binds, so nobody can take it first.
        self._server = Server(("127.0.0.1", 0), Handler)
        self._thread = threading.Thread(target=self._server.serve_forever,
                                        kwargs={"poll_interval": 0.05}, daemon=True)
        self._thread.start()
        return self

    def stop(self):
        if not self._server:
            return
        self._stopping.set()
        self._server.shutdown()
        self._server.server_close()
        self._thread.join(10)
        self._server = None

    def _answer(self, handler):
        name = handler.path.split("?", 1)[0].lstrip("/")
        header = handler.headers.get("Range", "")
        with self._lock:
            fault = dict(self.faults.get(name) or {})
            record = {"path": "/" + name, "range": header, "status": 404, "bytes": 0,
                      "end": "stalled" if fault.get("stall") else "complete"}
            self.records.append(record)
        handler.close_connection = True
        if self._stopping.wait(self.latency):
            return
        data = self.files.get(name)
        if data is None:
            handler.send_response(404)
            handler.send_header("Content-Length", "0")
            handler.send_header("Connection", "close")
            handler.end_headers()
            return
        first, status = 0, 200
        match = re.fullmatch(r"bytes=(\d+)-(\d*)", header.strip())
        if match:
            first = int(match.group(1))
            last = int(match.group(2)) if match.group(2) else len(data) - 1
            if first >= len(data) or last < first:
                record["status"] = 416
                handler.send_response(416)
                handler.send_header("Content-Range", f"bytes */{len(data)}")
                handler.send_header("Content-Length", "0")
                handler.send_header("Connection", "close")
                handler.end_headers()
                return
            body = data[first:min(last, len(data) - 1) + 1]
            status = 206
        else:
            body = data
        record["status"] = status
        handler.send_response(status)
        if status == 206:
            handler.send_header("Content-Range",
                                f"bytes {first}-{first + len(body) - 1}/{len(data)}")
        handler.send_header("Content-Type", "application/octet-stream")
        handler.send_header("Content-Length", str(len(body)))
        handler.send_header("Connection", "close")
        handler.end_headers()
        handler.wfile.flush()
        try:
            self._send_body(handler, body, fault, record)
        except OSError:
            record["end"] = "client gone"

    def _send_body(self, handler, body, fault, record):
        if fault.get("stall"):
            # Nothing more: wait until the client hangs up (or we stop).
            connection = handler.connection
            while not self._stopping.is_set():
                if select.select([connection], [], [], 0.1)[0] and not connection.recv(1024):
                    record["end"] = "client gone"
                    return
            return
        cut_after = fault.get("cut_after")
        if cut_after is not None and cut_after < len(body):
            body = body[:cut_after]
            record["end"] = "cut"
        step = 1 if fault.get("trickle") else 64 * 1024
        for offset in range(0, len(body), step):
            if offset and fault.get("trickle") and self._stopping.wait(fault["trickle"]):
                return
            handler.wfile.write(body[offset:offset + step])
            record["bytes"] = offset + len(body[offset:offset + step])
        # What was sent arrives before the end of the stream: the connection is
        # shut down for writing and closed, not reset.


def _wait_listening(process, port, ready_file, timeout=15):
    """True once the process accepts connections on the port (and has written
    its ready file); False when it exits first, e.g. because the port was
    taken meanwhile."""
    def ready():
        if not process.running():
            return "exited"
        if ready_file and not Path(ready_file).exists():
            return None
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.5):
                return "listening"
        except OSError:
            return None
    try:
        return wait_for(ready, timeout, f"a server on port {port}") == "listening"
    except TimeoutError:
        return False


def _tail(path, lines=20):
    path = Path(path)
    if not path.exists():
        return ""
    return "\n" + "\n".join(path.read_text(errors="replace").splitlines()[-lines:])


# ---------------------------------------------------------------- what the server offers

UPDATER_SCRIPT = """#!/bin/sh
# Stands in for the client's real updater: records how it was started, its
# working directory and then its arguments, one per line, and nothing more.
# The file appears under its final name only once it is complete. Every start
# also adds a line to <record>.starts, so that a second start shows.
record={record}
echo $$ >> "$record.starts"
pwd -P > "$record.$$"
printf '%s\\n' "$@" >> "$record.$$"
mv "$record.$$" "$record"
"""


class UpdaterRecord:
    """Where the stand-in updater writes how it was started."""

    def __init__(self, path):
        self.path = Path(path)

    def started(self):
        return self.path.exists()

    def starts(self):
        """How many times the updater has been started so far."""
        starts = Path(str(self.path) + ".starts")
        return len(starts.read_text().split()) if starts.exists() else 0

    def wait(self, timeout=20):
        """(working directory, [arguments]) as bytes, exactly as received."""
        wait_for(self.started, timeout, f"the updater to write {self.path}")
        lines = self.path.read_bytes().split(b"\n")
        # printf ends every argument with a newline, so the text ends with one.
        assert lines[-1] == b"", "record not terminated"
        return lines[0], lines[1:-1]


class UpdateSite:
    """One folder of the served tree holding an answer and the files it names.

    Each test gets its own folder, so its requests can be told apart in the
    shared server's log by their path prefix."""

    def __init__(self, nginx, name):
        self.nginx = nginx
        self.prefix = f"/{name}"
        self.folder = nginx.docroot / name
        self.folder.mkdir(parents=True, exist_ok=True)
        self.answer_path = self.prefix + "/answer.json"

    def url(self, name):
        return self.nginx.url(f"{self.prefix}/{name}")

    def put(self, name, data):
        (self.folder / name).write_bytes(data)
        return {"name": name, "url": self.url(name), "checksum": md5_hex(data)}

    def put_updater(self, record, name="quillon-updater.sh"):
        script = UPDATER_SCRIPT.format(record=_shell_quote(str(record.path)))
        return self.put(name, script.encode())

    def answer(self, body):
        """The answer, as a JSON value or as raw text."""
        text = body if isinstance(body, (str, bytes)) else json.dumps(body, indent=2)
        data = text.encode() if isinstance(text, str) else text
        (self.folder / "answer.json").write_bytes(data)

    def requests(self):
        return self.nginx.requests(self.prefix + "/")


def _shell_quote(text):
    return "'" + text.replace("'", "'\\''") + "'"


def pack_bytes(size, seed=1):
    """Deterministic bytes that do not compress, standing in for a pack."""
    import random
    return random.Random(seed).randbytes(size)


# ---------------------------------------------------------------- the installation

# "Nov 22 02:39:33 [INFO] autoupdater.cpp(92): Start auto updater."
LOG_LINE = re.compile(r"^[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d "
                      r"\[([A-Z]+)\] ([^(\s]+)\((\d+)\): ?(.*)$")


class Installation:
    """A copy of an installed prefix, set up as the desktop client installs it,
    with the per-user folders the program touches kept private.

    The log template is raised to debug level (7) unless told otherwise, so
    that the log shows every step of a run."""

    def __init__(self, prefix, workdir, log_level=7, app=None):
        """Copies the installed prefix to <workdir>/root/app, or, given app,
        uses that installation where it is."""
        self.workdir = Path(workdir)
        self.workdir.mkdir(parents=True, exist_ok=True)
        if app is None:
            self.root = self.workdir / "root"
            self.app = self.root / "app"
            shutil.copytree(prefix, self.app, symlinks=True)
        else:
            self.app = Path(app).resolve()
            self.root = self.app.parent
        # The program creates neither: the client installs them.
        (self.root / "log").mkdir(exist_ok=True)
        (self.root / "data" / "db").mkdir(parents=True, exist_ok=True)
        self.home = self.workdir / "home"
        self.config_home = self.home / ".config"
        self.config_home.mkdir(parents=True)
        self.runtime_dir = self.workdir / "run"
        self.runtime_dir.mkdir(mode=0o700)
        self.temp_dir = self.workdir / "tmp"
        self.temp_dir.mkdir()
        self.portable = self.home / ".quillon"
        self.portable.mkdir()
        self._runs = 0
        if log_level is not None:
            template = self.app / "log_template" / "syncfolder_c.debug"
            text = re.sub(r"^auto_updater=\d+$", f"auto_updater={log_level}",
                          template.read_text(), flags=re.M)
            template.write_text(text)

    @property
    def program(self):
        return self.app / "bin" / "autoupdater"

    @property
    def log_path(self):
        return self.root / "log" / "auto_updater.log"

    def configure_server(self, host, path):
        """The update server the installation was shipped with."""
        (self.app / "conf" / "update.conf").write_text(
            f"[server]\nhost={host}\npath={path}\n")

    def configure_user_server(self, host=None, path=None):
        """The user's own override, in the client's per-user settings store."""
        store = self.config_home / "Tessaril" / "QuillonClient.ini"
        store.parent.mkdir(parents=True, exist_ok=True)
        lines = ["[autoupdate]"]
        if host is not None:
            lines.append(f"server_host={host}")
        if path is not None:
            lines.append(f"server_path={path}")
        store.write_text("\n".join(lines) + "\n")

    def client_arguments(self, **extra):
        """The command line the desktop client passes for this installation."""
        argv = ["--root-path", self.app, "--portable-path", self.portable,
                "--client-version", "1450", "--server-version", "2", "--server-version", "5",
                "--identify", "quillon-desktop", "--os", "linux", "--arch", "x86",
                "--osversion", "Debian 12", "--installer", "deb"]
        for name, value in extra.items():
            argv += ["--" + name.replace("_", "-")] + ([] if value is True else [value])
        return [str(a) for a in argv]

    def environment(self, desktop, lang="en_US.UTF-8"):
        """What a user's session would hand the program, and nothing of ours:
        no proxy variables, no Qt settings. On our own desktops there is no
        session bus either: a bus would route the tray and balloons elsewhere
        than to trayer."""
        env = {"DBUS_SESSION_BUS_ADDRESS": f"unix:path={self.workdir / 'no-session-bus'}"}
        env.update(desktop.env())
        env.update({
            "HOME": str(self.home),
            "USER": os.environ.get("USER", "user"),
            "LANG": lang,
            "XDG_CONFIG_HOME": str(self.config_home),
            "XDG_RUNTIME_DIR": str(self.runtime_dir),
            "TMPDIR": str(self.temp_dir),
        })
        return env

    def start(self, argv, desktop, lang="en_US.UTF-8", cwd=None, extra_env=None,
              preexec_fn=None):
        """extra_env is added to the user's environment (a preloaded library,
        say); preexec_fn runs in the child before the program."""
        self._runs += 1
        env = self.environment(desktop, lang)
        env.update(extra_env or {})
        return Process([self.program] + [str(a) for a in argv],
                       self.workdir / f"run{self._runs}.out",
                       env=env, cwd=cwd or self.home, preexec_fn=preexec_fn)

    def run(self, argv, desktop, timeout=60, **kwargs):
        """Runs the program to its end; returns the finished Process."""
        process = self.start(argv, desktop, **kwargs)
        try:
            process.wait(timeout)
        finally:
            process.stop()
        return process

    def save_path(self, name, temp_dir=None):
        return Path(temp_dir or self.temp_dir) / f"qlln_{os.getuid()}_{name}"

    def log_entries(self):
        """(level, source, message) for every log line; a message that runs
        over several lines (a quoted server answer, say) is kept whole."""
        if not self.log_path.exists():
            return []
        entries = []
        for line in self.log_path.read_text(errors="replace").split("\n"):
            match = LOG_LINE.match(line)
            if match:
                entries.append([match.group(1), match.group(2), match.group(4)])
            elif entries:
                entries[-1][2] += "\n" + line
        if entries and entries[-1][2].endswith("\n"):
            entries[-1][2] = entries[-1][2][:-1]
        return [tuple(e) for e in entries]

    def log_messages(self, level=None):
        return [m for lvl, _, m in self.log_entries() if level is None or lvl == level]

    def wait_log(self, message, timeout=30, process=None):
        """Waits until the log holds the message; fails early when the process
        it is expected from has ended."""
        def seen():
            if message in self.log_messages():
                return True
            if process and not process.running() and message not in self.log_messages():
                raise AssertionError(f"program ended ({process.popen.returncode}) before "
                                     f"logging {message!r}:\n" + self.log_path.read_text())
            return False
        wait_for(seen, timeout, f"the log line {message!r}")

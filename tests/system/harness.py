"""Runs the installed updater as the desktop client does, against nginx and
tinyproxy on free loopback ports and Xvfb with trayer as its tray. What starts
a process stops it in stop(); every wait has a condition and a deadline."""

import ctypes, hashlib, json, os, random, re, select, shutil, signal, socket, ssl, subprocess, time
import urllib.error, urllib.request
from pathlib import Path


class HarnessError(RuntimeError):
    pass


def find_program(name):
    # Daemons that live in sbin are not on every user's PATH.
    path = shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/local/sbin:/usr/sbin")
    if not path:
        raise HarnessError(f"{name} is not installed (tools/install-deps.sh installs it)")
    return path


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(condition, timeout, what, interval=0.05):
    deadline = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() >= deadline:
            raise TimeoutError(f"gave up after {timeout:g} s waiting for {what}")
        time.sleep(interval)
    return value


def file_md5(path):  # read in steps: a pack may be larger than memory
    with open(path, "rb") as data:
        return hashlib.file_digest(data, "md5").hexdigest()


def pack_bytes(size, seed=1):  # bytes that do not compress
    return random.Random(seed).randbytes(size)


def _quote(text):
    return '"' + str(text).replace("\\", "\\\\").replace('"', '\\"') + '"'


_owned = set()  # our own children; any other child is an orphan we adopted


def adopt_orphans():
    """As a subreaper we inherit the updater's detached child and see it end."""
    if ctypes.CDLL(None).prctl(36, 1, 0, 0, 0) != 0:  # PR_SET_CHILD_SUBREAPER
        raise HarnessError("prctl(PR_SET_CHILD_SUBREAPER) failed")


def reap_orphans(timeout=5.0):
    deadline, me = time.monotonic() + timeout, os.getpid()
    for pid in map(int, Path(f"/proc/{me}/task/{me}/children").read_text().split()):
        while pid not in _owned and not os.waitpid(pid, os.WNOHANG)[0]:
            if time.monotonic() >= deadline:
                os.kill(pid, signal.SIGKILL)
            time.sleep(0.02)


class Process:

    def __init__(self, argv, output, **popen_args):
        self.argv, self.output = [str(a) for a in argv], Path(output)
        with open(self.output, "wb") as out:
            self.popen = subprocess.Popen(self.argv, stdin=subprocess.DEVNULL, stdout=out,
                                          stderr=subprocess.STDOUT, start_new_session=True,
                                          **popen_args)
        self.pid = self.popen.pid
        _owned.add(self.pid)

    def running(self):
        return self.popen.poll() is None

    def wait(self, timeout):
        try:
            return self.popen.wait(timeout)
        except subprocess.TimeoutExpired:
            raise TimeoutError(f"{Path(self.argv[0]).name} still running after {timeout:g} s")

    def output_text(self):
        return self.output.read_text(errors="replace")

    def stop(self):
        if self.running():
            self.popen.terminate()
            try:
                self.popen.wait(5)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()


class Server:
    """A daemon on a free port; configure(port) writes settings, returns argv."""

    ready_file = None

    def __init__(self, workdir):
        self.workdir, self.process, self.port = Path(workdir), None, 0
        self.workdir.mkdir(parents=True, exist_ok=True)

    def start(self):
        for _ in range(5):
            self.port = free_port()
            self.process = Process(self.configure(self.port), self.workdir / "server.out")

            def ready():
                try:
                    socket.create_connection(("127.0.0.1", self.port), timeout=0.5).close()
                    return (not self.ready_file or self.ready_file.exists()) and "listening"
                except OSError:
                    return not self.process.running() and "exited"
            if wait_for(ready, 15, f"{self.process.argv[0]} on port {self.port}") == "listening":
                return self
            self.process.stop()
        raise HarnessError(f"{self.process.argv[0]} would not start: "
                           + self.process.output_text())

    def stop(self):
        if self.process:
            self.process.stop()


class Desktop:
    """Xvfb, numbered by itself so that several run side by side, with trayer
    as its tray unless told; tray_probe exits with 0 when there is a tray."""

    def __init__(self, workdir, tray_probe, tray=True):
        self.workdir = Path(workdir)
        self.workdir.mkdir(parents=True, exist_ok=True)
        self.tray_probe, self.with_tray = str(tray_probe), tray
        self.display, self.session, self.processes = None, {}, []

    @classmethod
    def existing(cls, workdir, tray_probe, display):
        """The user's own desktop, used as it is: stop() leaves it alone."""
        desktop = cls(workdir, tray_probe, tray=False)
        desktop.display = display
        desktop.session = {k: os.environ[k] for k in ("XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS",
                           "XDG_CURRENT_DESKTOP", "XDG_SESSION_TYPE") if k in os.environ}
        return desktop

    def start(self):
        read_fd, write_fd = os.pipe()
        self.processes.append(Process([find_program("Xvfb"), "-displayfd", write_fd, "-noreset",
                                       "-screen", "0", "1280x1024x24", "-dpi", 96, "-nolisten",
                                       "tcp"], self.workdir / "xvfb.log", pass_fds=(write_fd,)))
        os.close(write_fd)
        # Xvfb writes the display number once it accepts clients.
        with os.fdopen(read_fd, "rb") as pipe:
            number = select.select([pipe], [], [], 30)[0] and pipe.readline().strip()
        if not number:
            raise HarnessError("Xvfb did not start: " + self.processes[0].output_text())
        self.display = ":" + number.decode()
        if self.with_tray:
            # At the bottom right, where a desktop panel has its notification area.
            trayer = Process([find_program("trayer"), "--edge", "bottom", "--align", "right",
                              "--widthtype", "request", "--height", 32, "--SetDockType", "true",
                              "--transparent", "true", "--alpha", 0, "--tint", "0xc8ccd0"],
                             self.workdir / "trayer.log", env=self.env())
            self.processes.append(trayer)
            wait_for(lambda: self.tray_available() or not trayer.running(), 30, "a tray")
            if not trayer.running():
                raise HarnessError("trayer exited: " + trayer.output_text())
        return self

    def tray_available(self):
        return self.x(self.tray_probe, check=False).returncode == 0

    def env(self):
        return {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "DISPLAY": self.display,
                "HOME": str(self.workdir), **self.session}

    def stop(self):
        for process in reversed(self.processes):
            process.stop()

    def x(self, *argv, check=True):
        result = subprocess.run([str(a) for a in argv], env=self.env(), capture_output=True,
                                text=True, timeout=30)
        if check and result.returncode != 0:
            raise HarnessError(f"{argv[0]} failed ({result.returncode}): {result.stderr}")
        return result

    def geometry(self, window):  # (x, y, width, height); None unless mapped
        info = dict(re.findall(r"^\s*([^:\n]+):\s+(.*)$", self.x("xwininfo", "-id", window,
                                                                check=False).stdout, re.M))
        if info.get("Map State") == "IsViewable":
            return tuple(int(info[k]) for k in ("Absolute upper-left X", "Absolute upper-left Y",
                                                "Width", "Height"))

    def visible_windows(self, *criteria):
        """{window: geometry} of the viewable windows `xdotool search` finds."""
        found = self.x("xdotool", "search", "--onlyvisible", *criteria, check=False).stdout
        return {w: g for w in map(int, found.split()) if (g := self.geometry(w))}

    def painted(self, geometry):  # more than a flat fill: drawn
        colours = self.x("import", "-silent", "-window", "root", "-crop",
                         "{2}x{3}+{0}+{1}".format(*geometry), "-format", "%k", "info:",
                         check=False).stdout.strip()
        return colours.isdigit() and int(colours) > 4

    def screenshot(self, path, geometry=None):
        crop = ["-crop", "{2}x{3}+{0}+{1}".format(*geometry), "+repage"] if geometry else []
        self.x("import", "-silent", "-window", "root", *crop, path)
        return path

    def click(self, window, button=1, at=None):  # at the centre unless told
        at = at or [v // 2 for v in self.geometry(window)[2:]]
        self.x("xdotool", "mousemove", "--window", window, *at, "click", button)

    def click_drawing(self, geometry):
        """Clicks the middle of what is drawn on the area's plain background:
        a close or Cancel button alone in a corner."""
        shot = self.screenshot(self.workdir / "area.png", geometry)
        w, h, dx, dy = map(int, self.x("convert", shot, "-fuzz", "10%", "-trim", "-format",
                                       "%w %h %X %Y", "info:").stdout.split())
        self.x("xdotool", "mousemove", geometry[0] + dx + w // 2, geometry[1] + dy + h // 2,
               "click", 1)


class Nginx(Server):
    """nginx serving a folder; `directives` go into its server block, `http_directives` in http."""

    def __init__(self, workdir, docroot, directives="", listen_options="", http_directives=""):
        super().__init__(workdir)
        self.docroot = Path(docroot).resolve()
        self.docroot.mkdir(parents=True, exist_ok=True)
        self.directives, self.listen_options = directives, listen_options
        self.http_directives = http_directives
        self.scheme = "https" if "ssl" in listen_options.split() else "http"
        self.log, self.ready_file, self._syncs = self.workdir / "access.log", None, 0

    def url(self, path=""):
        return f"{self.scheme}://127.0.0.1:{self.port}{path}"

    def configure(self, port):
        self.ready_file = self.workdir / "nginx.pid"
        self.ready_file.unlink(missing_ok=True)
        # One process and no master: it runs as the caller, reads the caller's
        # private folders and leaves no worker behind.
        (self.workdir / "nginx.conf").write_text(f"""daemon off; master_process off;
pid {_quote(self.workdir / 'nginx.pid')}; error_log {_quote(self.workdir / 'error.log')};
events {{ }}
http {{
    types {{ application/json json; }}
    log_format t "$request_uri\\t$http_range\\t$status\\t$bytes_sent\\t$http_via\\t$connection";
    access_log {_quote(self.log)} t; {self.http_directives}
    {"".join(f"{k}_temp_path {_quote(self.workdir / k)}; " for k in
             ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))}
    server {{
        listen 127.0.0.1:{port} {self.listen_options}; root {_quote(self.docroot)};
        {self.directives}
    }}
}}""")
        return [find_program("nginx"), "-p", f"{self.workdir}/", "-e", self.workdir / "error.log",
                "-c", self.workdir / "nginx.conf"]

    def requests(self, prefix=""):
        """Logged requests below prefix. nginx logs each after its last byte and
        serves them in turn: once one of ours shows, all earlier ones have."""
        self._syncs += 1
        marker = f"/.sync?{self._syncs}"
        try:
            # Our own marker, also to servers whose certificate a test wants refused.
            urllib.request.urlopen(self.url(marker), timeout=10,
                                   context=ssl._create_unverified_context())
        except urllib.error.HTTPError:
            pass
        wait_for(lambda: marker in self.log.read_text(), 10, "nginx to log")
        found = []
        for line in self.log.read_text().splitlines():
            uri, range_, status, sent, via, connection = [v if v != "-" else ""
                                                          for v in line.split("\t")]
            path, _, query = uri.partition("?")
            if path.startswith(prefix) and path != "/.sync":
                found.append({"uri": uri, "name": path[len(prefix):], "query": query,
                              "range": range_, "status": int(status), "bytes": int(sent),
                              "via": via, "connection": connection})
        return found


class TinyProxy(Server):
    """tinyproxy, which names itself in the Via header of what it forwards."""

    def configure(self, port):
        # As root tinyproxy would switch to nobody: keep the current user.
        (self.workdir / "tinyproxy.conf").write_text(
            f"Port {port}\nListen 127.0.0.1\nTimeout 30\nAllow 127.0.0.1\n"
            + ("User root\nGroup root\n" if os.geteuid() == 0 else ""))
        return [find_program("tinyproxy"), "-d", "-c", self.workdir / "tinyproxy.conf"]


# Stands in for the client's real updater: records its working directory and
# arguments, each ended by a NUL so that every other byte survives, under the
# final name once complete; each start adds a line to <record>.starts.
UPDATER_SCRIPT = """#!/bin/bash
record={record}
echo $$ >> "$record.starts"
policy=$(chrt -p $$ | sed -n 's/.*policy: //p')
printf '%s\\0' "$policy" "$(pwd -P)" "$@" > "$record.$$"
mv "$record.$$" "$record"
"""


class UpdaterRecord:
    def __init__(self, path):
        self.path = Path(path)
        self.started = self.path.exists

    def starts(self):
        starts = Path(f"{self.path}.starts")
        return len(starts.read_text().split()) if starts.exists() else 0

    def wait(self, timeout=20):
        """(working directory, [arguments]) as bytes, exactly as received."""
        wait_for(self.started, timeout, f"the updater to write {self.path}")
        policy, cwd, *args = self.path.read_bytes()[:-1].split(b"\0")
        # The updater, and the client it starts, run as the client did.
        assert policy == b"SCHED_OTHER", f"the updater runs under {policy}"
        return cwd, args


class UpdateSite:
    """A folder of the served tree holding an answer and the files it names;
    its requests are told apart in the shared log by the folder's prefix."""

    def __init__(self, nginx, name):
        self.nginx, self.prefix, self.folder = nginx, f"/{name}/", nginx.docroot / name
        self.folder.mkdir(parents=True, exist_ok=True)
        self.answer_path = self.prefix + "answer.json"

    def put(self, name, data):
        (self.folder / name).write_bytes(data)
        return {"name": name, "url": self.nginx.url(self.prefix + name),
                "checksum": hashlib.md5(data).hexdigest()}

    def put_updater(self, record, name="quillon-updater.sh"):
        return self.put(name, UPDATER_SCRIPT.format(record=_quote(record.path)).encode())

    def answer(self, body):  # a JSON value, or raw text
        (self.folder / "answer.json").write_text(body if type(body) is str else json.dumps(body))

    def requests(self, name=None):
        return [r for r in self.nginx.requests(self.prefix) if name in (None, r["name"])]


class Installation:
    """A copy of an installed prefix at <workdir>/root/app (or app where it is)
    with private per-user folders, logging at log_level unless None."""

    def __init__(self, prefix, workdir, log_level=7, app=None):
        self.workdir = Path(workdir)
        self.app = Path(app).resolve() if app else self.workdir / "root" / "app"
        if not app:
            shutil.copytree(prefix, self.app, symlinks=True)
        self.program, self.root = self.app / "bin" / "autoupdater", self.app.parent
        self.log_path = self.root / "log" / "auto_updater.log"
        self.home, self.temp_dir = self.workdir / "home", self.workdir / "tmp"
        self.portable = self.home / ".quillon"
        # The client, not the program, makes the log and data folders.
        for folder in (self.portable, self.temp_dir, self.workdir / "run", self.root / "log",
                       self.root / "data" / "db"):
            folder.mkdir(mode=0o700, parents=True, exist_ok=True)
        self._runs = 0
        if log_level is not None:
            template = self.app / "log_template" / "syncfolder_c.debug"
            template.write_text(re.sub(r"^auto_updater=\d+$", f"auto_updater={log_level}",
                                       template.read_text(), flags=re.M))

    def configure_server(self, host, path):  # as shipped
        (self.app / "conf" / "update.conf").write_text(f"[server]\nhost={host}\npath={path}\n")

    def configure_user_server(self, host=None, path=None):  # the user's own override
        store = self.home / ".config" / "Tessaril" / "QuillonClient.ini"
        store.parent.mkdir(parents=True, exist_ok=True)
        store.write_text("[autoupdate]\n" + (f"server_host={host}\n" if host else "")
                         + (f"server_path={path}\n" if path else ""))

    def client_arguments(self, **extra):  # as the desktop client passes them
        argv = ["--root-path", self.app, "--portable-path", self.portable,
                "--client-version", "1450", "--server-version", "2", "--server-version", "5",
                "--identify", "quillon-desktop", "--os", "linux", "--arch", "x86",
                "--osversion", "Debian 12", "--installer", "deb"]
        for name, value in extra.items():
            argv += ["--" + name.replace("_", "-")] + ([] if value is True else [value])
        return [str(a) for a in argv]

    def environment(self, desktop, lang="en_US.UTF-8"):
        # No session bus: it would route the tray elsewhere than to trayer.
        return {**desktop.env(), "HOME": str(self.home), "USER": os.environ.get("USER", "user"),
                "LANG": lang, "DBUS_SESSION_BUS_ADDRESS": f"unix:path={self.workdir}/no-bus",
                "XDG_CONFIG_HOME": str(self.home / ".config"), "TMPDIR": str(self.temp_dir),
                "XDG_RUNTIME_DIR": str(self.workdir / "run")}

    def start(self, argv, desktop, lang="en_US.UTF-8", cwd=None, extra_env=None, **popen_args):
        self._runs += 1
        return Process([self.program, *argv], self.workdir / f"run{self._runs}.out",
                       env={**self.environment(desktop, lang), **(extra_env or {})},
                       cwd=cwd or self.home, **popen_args)

    def save_path(self, name, temp_dir=None):
        return Path(temp_dir or self.temp_dir) / f"qlln_{os.getuid()}_{name}"

    def log_text(self):
        return self.log_path.read_text(errors="replace") if self.log_path.exists() else ""

    def log_messages(self, level=None):
        # "Nov 22 02:39:33 [INFO] autoupdater.cpp(92): Start auto updater."
        return [m for lvl, m in re.findall(r"^.{15} \[([A-Z]+)\] \S+\(\d+\): ?(.*)$",
                                           self.log_text(), re.M) if level in (None, lvl)]

"""What the GIMP tests and benchmarks share: finding gimp-console, a private GIMP folder under the
build tree that shows GIMP only the plug-ins a run needs, script-fu text helpers, a client of
script-fu's server, and GimpSession, which starts GIMP (headless or under a private Xvfb) with
all of these and stops it again."""
import os
import shutil
import socket
import struct
import subprocess
import time

SKIP = 77


def gimp_console():
    return shutil.which("gimp-console") or shutil.which("gimp-console-2.10")


def run(args, **kw):
    return subprocess.run(args, capture_output=True, text=True, **kw)


def scheme_string(s):
    return '"' + s.replace("\\", "\\\\").replace('"', '\\"') + '"'


def make_profile(folder, gimp, plugin_dir):
    """A fresh private GIMP2_DIRECTORY in `folder`, so that nothing touches the user's own. It
    holds our plug-in and only the system plug-ins a run needs (script-fu for the batch, PNG for
    the files) and none of GIMP's scripts: a fresh folder makes GIMP query every plug-in it is
    shown, which would cost most of the run."""
    profile = os.path.join(folder, "profile")
    for d in ("plug-ins", "brushes", "dynamics", "fonts", "gradients", "palettes", "patterns", "tool-presets",
              "scripts"):
        os.makedirs(os.path.join(profile, d), exist_ok=True)
    os.symlink(plugin_dir, os.path.join(profile, "plug-ins", "qvfilter-gimp"))
    system_plugins = os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(gimp))), "lib", "gimp", "2.0",
                                  "plug-ins")
    for name in ("script-fu", "file-png"):
        os.symlink(os.path.join(system_plugins, name), os.path.join(profile, "plug-ins", name))
    with open(os.path.join(profile, "gimprc"), "w") as f:
        f.write('(plug-in-path "%s")\n(script-path "%s")\n' % (os.path.join(profile, "plug-ins"),
                                                                os.path.join(profile, "scripts")))
    return profile


def procedure_name(filter_name):
    """The plug-in's procedure for a filter: QVFilterShineCurved -> plug-in-qvfilter-shine-curved."""
    base = filter_name[len("QVFilter"):] if filter_name.startswith("QVFilter") else filter_name
    out = ""
    for i, ch in enumerate(base):
        if i and ch.isupper() and (base[i - 1].islower() or base[i - 1].isdigit()):
            out += "-"
        out += ch.lower()
    return "plug-in-qvfilter-" + out


class ScriptFu:
    """A client of script-fu's server: 'G', a 16-bit length and the command; the answer is 'G',
    an error byte, a 16-bit length and the text."""

    def __init__(self, port, deadline, timeout=120):
        while True:
            try:
                self.sock = socket.create_connection(("127.0.0.1", port), timeout=timeout)
                return
            except OSError:
                if time.time() > deadline:
                    raise
                time.sleep(0.5)

    def __call__(self, command):
        data = command.encode()
        self.sock.sendall(b"G" + struct.pack(">H", len(data)) + data)
        head = self._read(4)
        if head[:1] != b"G":
            raise RuntimeError("script-fu server answered %r" % head)
        text = self._read(struct.unpack(">H", head[2:4])[0]).decode(errors="replace")
        if head[1]:
            raise RuntimeError("script-fu: %s -> %s" % (command, text))
        return text

    def _read(self, n):
        out = b""
        while len(out) < n:
            chunk = self.sock.recv(n - len(out))
            if not chunk:
                raise RuntimeError("script-fu server closed the connection")
            out += chunk
        return out


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start_xvfb(timeout=30):
    """A private Xvfb on a display number nobody holds, tried at random among many so that tests
    running side by side do not race for one (Xvfb refuses a number whose lock is taken).
    Returns (process, ":N")."""
    import random
    for number in random.sample(range(100, 1000), 20):
        if os.path.exists("/tmp/.X%d-lock" % number) or os.path.exists("/tmp/.X11-unix/X%d" % number):
            continue
        display = ":%d" % number
        proc = subprocess.Popen(["Xvfb", display, "-screen", "0", "1280x900x24", "-nolisten", "tcp"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.time() + timeout
        while proc.poll() is None and time.time() < deadline:
            if run(["xwininfo", "-display", display, "-root"]).returncode == 0:
                return proc, display
            time.sleep(0.2)
        if proc.poll() is None:
            proc.kill()
        proc.wait()
    raise RuntimeError("Xvfb did not start on any display tried")


class GimpSession:
    """One GIMP run of a test or a benchmark, as a context manager.

    GIMP sees a fresh private folder made in `folder` (make_profile) with our plug-in from
    `plugin_dir`. `console`: gimp-console, else the full GIMP (image windows, under a display).
    `display`: a private Xvfb (self.display) that GIMP and the tools a test runs show on.
    `batch`: script-fu commands run in order (-b). `server`: script-fu's server on a free
    loopback port, with self.sf its connected client. `env`: more environment for GIMP (and
    for the plug-in it starts). GIMP's output goes to folder/gimp.log (self.log_path).

    On leaving, GIMP is asked to quit through the server (a batch ends with its own
    (gimp-quit 0)), given `quit_timeout` seconds and killed after them, and the Xvfb stopped."""

    def __init__(self, folder, plugin_dir, console=True, display=False, batch=(), server=False, env=None,
                 connect_timeout=180, call_timeout=120, quit_timeout=60):
        self.gimp = gimp_console() if console else shutil.which("gimp")
        if not self.gimp:
            raise RuntimeError("%s is not installed" % ("gimp-console" if console else "gimp"))
        self.folder = folder
        self.plugin_dir = plugin_dir
        self.console = console
        self.want_display = display
        self.batch = list(batch)
        self.server = server
        self.extra_env = dict(env or {})
        self.connect_timeout = connect_timeout
        self.call_timeout = call_timeout
        self.quit_timeout = quit_timeout
        self.log_path = os.path.join(folder, "gimp.log")
        self.xvfb = self.display = self.proc = self.sf = self._log = None

    def __enter__(self):
        profile = make_profile(self.folder, self.gimp, self.plugin_dir)
        self.env = dict(os.environ, GIMP2_DIRECTORY=profile, LC_ALL="C", **self.extra_env)
        try:
            if self.want_display:
                self.xvfb, self.display = start_xvfb()
                self.env["DISPLAY"] = self.display
            argv = [self.gimp, "-d", "-f", "--no-splash"] + (["-i"] if self.console else [])
            port = free_port() if self.server else None
            if self.server:
                argv += ["-b", '(plug-in-script-fu-server RUN-NONINTERACTIVE "127.0.0.1" %d "")' % port]
            for command in self.batch:
                argv += ["-b", command]
            self._log = open(self.log_path, "w")
            self.proc = subprocess.Popen(argv, env=self.env, cwd=self.folder, stdout=self._log,
                                         stderr=subprocess.STDOUT)
            if self.server:
                self.sf = ScriptFu(port, time.time() + self.connect_timeout, timeout=self.call_timeout)
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def wait(self, timeout):
        """Waits for GIMP to end by itself (a batch that quits); kills it after `timeout` seconds."""
        try:
            self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            raise

    def log(self):
        """What GIMP and its plug-ins printed so far."""
        if self._log and not self._log.closed:
            self._log.flush()
        with open(self.log_path, errors="replace") as f:
            return f.read()

    def __exit__(self, *exc):
        if self.proc:
            if self.sf and self.proc.poll() is None:
                try:
                    self.sf("(gimp-quit 1)")
                except (RuntimeError, OSError):
                    pass  # GIMP ends without answering
            try:
                self.proc.wait(timeout=self.quit_timeout)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        if self._log:
            self._log.close()
        if self.xvfb:
            self.xvfb.terminate()
            self.xvfb.wait()
        return False

"""What the GIMP tests and benchmarks share: finding gimp-console, a private GIMP folder under the
build tree that shows GIMP only the plug-ins a run needs, script-fu text helpers and a client of
script-fu's server."""
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

"""What the GIMP tests share: finding gimp-console, a private GIMP folder under the build tree
that shows GIMP only the plug-ins a run needs, and script-fu text helpers."""
import os
import shutil
import subprocess

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

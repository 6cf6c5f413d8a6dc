#!/usr/bin/env python3
"""GIMP's undo after a filter of the plug-in: a full GIMP under Xvfb (no window manager) serves
script-fu on a loopback port; the test opens a picture in an image window at 8-bit and at 16-bit,
runs a filter procedure on it, presses Ctrl+Z in the image window with xdotool, and checks that
the pixels saved afterwards are exactly the ones saved before the filter (and that the filter
had changed them). One case resizes the layer (an outside border), one works on a selection.

Skipped, saying why, when GIMP, Xvfb, xwininfo or xdotool is missing. Environment as for
gimp_filters.py."""
import json
import os
import re
import shutil
import sys
import time

from gimp_support import SKIP, GimpSession, run, scheme_string

QVFILTER = os.environ["QVFILTER"]
PLUGIN_DIR = os.environ["QV_GIMP_PLUGIN_DIR"]
TMP = os.path.join(os.environ["QV_TEST_TMP"], "gimp-undo")


def window_for(display, pattern, deadline):
    """A mapped top-level window whose name matches `pattern`."""
    while time.time() < deadline:
        tree = run(["xwininfo", "-display", display, "-root", "-children"]).stdout
        for line in tree.splitlines():
            m = re.match(r'\s*(0x[0-9a-f]+) "(.*)"', line)
            if m and re.search(pattern, m.group(2)):
                if "Map State: IsViewable" in run(["xwininfo", "-display", display, "-id", m.group(1)]).stdout:
                    return m.group(1)
        time.sleep(0.5)
    return None


def size(png):
    return run(["identify", "-format", "%wx%h", png]).stdout.strip()


def differing_pixels(a, b):
    """How many pixels differ between two files at their full depth; "all" when the sizes differ."""
    if size(a) != size(b):
        return "all (%s against %s)" % (size(a), size(b))
    r = run(["compare", "-metric", "AE", a, b, "null:"])
    try:
        return int(float(r.stderr.split()[0]))
    except (IndexError, ValueError):
        return "unknown (%s)" % r.stderr.strip()


def main():
    tools = {t: shutil.which(t) for t in ("gimp", "Xvfb", "xwininfo", "xdotool", "compare", "identify")}
    missing = [t for t, path in tools.items() if not path]
    if missing:
        print("SKIP: %s missing (scripts/bootstrap installs Debian's gimp, xvfb, x11-utils, xdotool and imagemagick)"
              % ", ".join(missing))
        return SKIP
    shutil.rmtree(TMP, ignore_errors=True)
    os.makedirs(os.path.join(TMP, "out"))
    picture = os.path.join(TMP, "in.png")
    r = run([QVFILTER, "sample", picture, "--width", "200", "--height", "150"])
    if r.returncode:
        print(r.stdout, r.stderr)
        return 1

    failures = []
    # (case, precision conversion, set-up before the filter, filter call)
    cases = [
        ("exposure-u8", "", "", "(plug-in-qvfilter-exposure-adjust RUN-NONINTERACTIVE img drw 1.5)"),
        ("exposure-u16", "(gimp-image-convert-precision img PRECISION-U16-LINEAR)", "",
         "(plug-in-qvfilter-exposure-adjust RUN-NONINTERACTIVE img drw 1.5)"),
        ("selection-u8", "", "(gimp-image-select-rectangle img CHANNEL-OP-REPLACE 40 30 60 50)",
         "(plug-in-qvfilter-exposure-adjust RUN-NONINTERACTIVE img drw -1.0)"),
    ]
    # The border around the picture (type 1) makes the layer larger: its undo restores the size.
    from gimp_filters import pdb_inputs
    info = json.loads(run([QVFILTER, "info", "QVFilterBorder", "--json"]).stdout)
    values = {"inputWidth": 12.0, "inputBorderType": 1, "inputColor": [0.8, 0.2, 0.2, 1]}
    args = " ".join(inp.args(values.get(inp.key, inp.default))[0] for inp in pdb_inputs(info))
    cases.append(("outside-border-u8", "", "", "(plug-in-qvfilter-border RUN-NONINTERACTIVE img drw %s)" % args))
    try:
        with GimpSession(TMP, PLUGIN_DIR, console=False, display=True, server=True) as session:
            sf, display, env = session.sf, session.display, session.env
            for case, convert, setup, call in cases:
                before = os.path.join(TMP, "out", case + "-before.png")
                after = os.path.join(TMP, "out", case + "-after.png")
                undone = os.path.join(TMP, "out", case + "-undone.png")
                save = "(file-png-save2 RUN-NONINTERACTIVE img (car (gimp-image-get-active-drawable img)) %s \"x.png\"" \
                       " 0 9 0 0 0 0 0 0 0)"
                # The image starts clean (its loading and conversion are not the user's edits), so
                # that once the filter's step is undone, GIMP calls it clean again.
                image = sf("(let* ((img (car (gimp-file-load RUN-NONINTERACTIVE %s \"in.png\")))"
                           " (drw (car (gimp-image-get-active-drawable img))))"
                           " %s %s (gimp-image-clean-all img) %s (gimp-display-new img) img)"
                           % (scheme_string(picture), convert, setup, save % scheme_string(before)))
                image = image.strip()
                window = window_for(display, r"^\[?in\]? .*%s|in\.png-%s" % (image, image), time.time() + 60) \
                    or window_for(display, r"in", time.time() + 5)
                if not window:
                    failures.append("%s: no image window appeared" % case)
                    continue
                sf("(let* ((img %s) (drw (car (gimp-image-get-active-drawable img)))) %s %s)"
                   % (image, call, save % scheme_string(after)))
                if sf("(car (gimp-image-is-dirty %s))" % image).strip() != "1":
                    failures.append("%s: the filter left the image clean" % case)
                # Ctrl+Z in the image window. No window manager: focus it directly, then type.
                deadline = time.time() + 30
                clean = False
                while time.time() < deadline and not clean:
                    run(["xdotool", "windowfocus", "--sync", window], env=env, timeout=10)
                    run(["xdotool", "key", "--clearmodifiers", "ctrl+z"], env=env, timeout=10)
                    for _ in range(10):
                        time.sleep(0.3)
                        if sf("(car (gimp-image-is-dirty %s))" % image).strip() == "0":
                            clean = True
                            break
                if not clean:
                    failures.append("%s: Ctrl+Z in the image window undid nothing within 30 s" % case)
                    continue
                sf("(let* ((img %s)) %s)" % (image, save % scheme_string(undone)))
                changed, restored = differing_pixels(before, after), differing_pixels(before, undone)
                print("%-20s %s -> %s -> %s; pixels changed by the filter: %s, differing after the undo: %s"
                      % (case, size(before), size(after), size(undone), changed, restored))
                if changed == 0:
                    failures.append("%s: the filter changed nothing, so the undo is not tested" % case)
                if restored != 0:
                    failures.append("%s: after the undo %s pixels differ from the original (%s, %s)"
                                    % (case, restored, before, undone))
    except (RuntimeError, OSError) as e:
        failures.append("script-fu server: %s" % e)
    for f in failures:
        print("FAIL:", f)
    if failures:
        print("GIMP's log:", os.path.join(TMP, "gimp.log"))
        return 1
    print("undo restored the original pixels in all %d cases" % len(cases))
    return 0


if __name__ == "__main__":
    sys.exit(main())

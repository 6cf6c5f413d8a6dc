#!/usr/bin/env python3
"""The plug-in's dialogs under Xvfb: one gimp-console run opens the dialog of a filter with its
own parameter view (the texture composite where the bundle has it, else the blur), of a filter
with generic controls (the border) and of one with an image input (the watermark, whose file
chooser is then used with xdotool to pick a watermark), over a picture larger than the preview
(which is drawn from a scaled-down copy); each dialog window must appear with its preview drawn,
and a screenshot of each is kept in the test's folder (dialogs/*.png) to be looked at.
Last, the watermark's dialog once more, where the layer choice beside the file chooser picks
the layer of another open image and OK applies the filter: the result must equal
`qvfilter apply` with that layer's file as the watermark.

Environment as for gimp_filters.py."""
import json
import os
import re
import shutil
import signal
import sys
import time

from gimp_support import SKIP, GimpSession, gimp_console, procedure_name, run, scheme_string

QVFILTER = os.environ["QVFILTER"]
PLUGIN_DIR = os.environ["QV_GIMP_PLUGIN_DIR"]
COMPARE = os.environ["QV_COMPARE"]
TMP = os.path.join(os.environ["QV_TEST_TMP"], "gimp-dialogs")


def find_window(display, title, deadline):
    """The id of the top-level window whose name starts with `title`, or None by the deadline."""
    while time.time() < deadline:
        tree = run(["xwininfo", "-display", display, "-root", "-tree"]).stdout
        for line in tree.splitlines():
            m = re.match(r'\s*(0x[0-9a-f]+) "%s' % re.escape(title), line)
            if m:
                return m.group(1)
        time.sleep(0.5)
    return None


def distinct_colours(png):
    r = run(["identify", "-format", "%k", png])
    return int(r.stdout.strip() or 0)


def differing_pixels(a, b):
    r = run(["compare", "-metric", "AE", a, b, "null:"])
    try:
        return int(float(r.stderr.split()[0]))
    except (IndexError, ValueError):
        return 0


def choose_watermark(display, window, mark, shot, failures):
    """Picks `mark` with the image input's file chooser button, as a user would: the button is
    the dialog's first control and so has the focus when the dialog opens (there is no window
    manager: the window is focused directly); Space opens the chooser (in the picture's folder),
    where Ctrl+L, the file's name and Return choose it. The preview must then change; a screenshot is kept."""
    env = dict(os.environ, DISPLAY=display)
    run(["xdotool", "windowfocus", "--sync", window], env=env, timeout=10)
    run(["xdotool", "key", "space"], env=env, timeout=10)
    chooser = find_window(display, "Choose an image file", time.time() + 30)
    if not chooser:
        failures.append("the image input's file chooser did not open")
        return
    run(["xdotool", "windowfocus", "--sync", chooser], env=env, timeout=10)
    time.sleep(1)
    run(["xdotool", "key", "ctrl+l"], env=env, timeout=10)  # the location entry
    time.sleep(2)
    # The chooser starts in the picture's folder, which holds the watermark too.
    run(["xdotool", "type", "--clearmodifiers", "--delay", "60", os.path.basename(mark)], env=env, timeout=60)
    time.sleep(1)
    run(["xdotool", "key", "Return"], env=env, timeout=10)
    time.sleep(4)  # the file is read and the preview drawn again
    # The watermark covers a corner of the preview: thousands of pixels.
    expect_preview_changed(display, window, shot, os.path.basename(mark), "a watermark file", failures)


def expect_preview_changed(display, window, shot, chosen_name, what, failures):
    """Takes the dialog's screenshot again after `chosen_name` was chosen and records a failure
    unless the preview changed by at least 500 pixels against `shot`."""
    chosen = shot.replace(".png", "-chosen.png")
    run(["import", "-display", display, "-window", window, chosen])
    changed = differing_pixels(shot, chosen) if os.path.exists(chosen) else 0
    print("after choosing %s: %s (%d pixels changed)" % (chosen_name, chosen, changed))
    if changed < 500:
        failures.append("choosing %s did not change the preview (%d pixels)" % (what, changed))


def choose_layer(display, window, shot, failures):
    """Picks the first layer of the image input's layer choice with the keyboard, as a user
    would: Tab moves from the file chooser (which has the focus) to the layer choice, whose
    first row only says what it is for; Down selects the next row, the first layer listed. The
    preview must then change. Then Alt+O presses OK."""
    env = dict(os.environ, DISPLAY=display)
    run(["xdotool", "windowfocus", "--sync", window], env=env, timeout=10)
    run(["xdotool", "key", "Tab"], env=env, timeout=10)
    time.sleep(1)
    run(["xdotool", "key", "Down"], env=env, timeout=10)
    time.sleep(4)  # the layer is read and the preview drawn again
    expect_preview_changed(display, window, shot, "the first layer", "a layer", failures)
    run(["xdotool", "key", "alt+o"], env=env, timeout=10)


def close_dialogs(gimp_pid):
    """Closes the open dialog by ending its plug-in process (a child of GIMP); GIMP's batch
    goes on to the next command."""
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % pid) as f:
                stat = f.read()
        except OSError:
            continue
        fields = stat[stat.rindex(")") + 2:].split()
        if "(qvfilter-gimp)" in stat and int(fields[1]) == gimp_pid:
            os.kill(int(pid), signal.SIGTERM)


def main():
    gimp = gimp_console()
    tools = [shutil.which(t) for t in ("Xvfb", "xwininfo", "import", "identify", "compare", "xdotool")]
    if not gimp or not all(tools):
        print("SKIP: gimp-console, Xvfb, xwininfo, xdotool or ImageMagick is missing (scripts/bootstrap installs them)")
        return SKIP
    shutil.rmtree(TMP, ignore_errors=True)
    os.makedirs(os.path.join(TMP, "dialogs"))
    picture = os.path.join(TMP, "in.png")
    run([QVFILTER, "sample", picture, "--width", "2400", "--height", "1600"])
    mark = os.path.join(TMP, "mark.png")
    run([QVFILTER, "sample", mark, "--width", "900", "--height", "300"])
    filters = {f["name"]: f for f in json.loads(run([QVFILTER, "list", "--json"]).stdout)}
    provided = "QVFilterTextureComposite" if "QVFilterTextureComposite" in filters else "QVFilterBlur"
    if provided != "QVFilterTextureComposite":
        print("NOTE: the bundle has no QVFilterTextureComposite; showing the blur's own view instead")
    cases = [(provided, "provided"), ("QVFilterBorder", "generic")]
    if "QVFilterWatermark" in filters:
        cases.append(("QVFilterWatermark", "image-input"))
        cases.append(("QVFilterWatermark", "layer-input"))
    layer_result = os.path.join(TMP, "layer-input-result.png")

    # Interactive calls still pass every argument; the dialog starts from the remembered values
    # (none yet: the defaults).
    commands = []
    for name, kind in cases:
        info = json.loads(run([QVFILTER, "info", name, "--json"]).stdout)
        from gimp_filters import pdb_inputs  # the PDB parameters as the plug-in derives them
        args = []
        for inp in pdb_inputs(info):
            args.append(inp.args(picture if inp.kind == "image" else inp.default)[0])
        call = "(%s RUN-INTERACTIVE img drw %s)" % (procedure_name(name), " ".join(args))
        if kind == "layer-input":
            # The only other open image is the watermark's, whose layer is listed first; the
            # result is saved once OK is pressed.
            commands.append("(begin (for-each gimp-image-delete (vector->list (cadr (gimp-image-list))))"
                            " (let* ((img (car (gimp-file-load RUN-NONINTERACTIVE %s \"in.png\")))"
                            " (drw (car (gimp-image-get-active-drawable img))))"
                            " (gimp-file-load RUN-NONINTERACTIVE %s \"mark.png\") %s"
                            " (file-png-save2 RUN-NONINTERACTIVE img drw %s \"out.png\" 0 9 0 0 0 0 0 0 0)))"
                            % (scheme_string(picture), scheme_string(mark), call, scheme_string(layer_result)))
            continue
        commands.append("(let* ((img (car (gimp-file-load RUN-NONINTERACTIVE %s \"in.png\")))"
                        " (drw (car (gimp-image-get-active-drawable img)))) %s)" % (scheme_string(picture), call))

    failures = []
    with GimpSession(TMP, PLUGIN_DIR, display=True, batch=commands + ["(gimp-quit 0)"]) as session:
        display = session.display
        for name, kind in cases:
            title = "QVFilter " + filters[name]["displayName"]
            window = find_window(display, title, time.time() + 120)
            if not window:
                failures.append("the dialog \"%s\" did not appear" % title)
                break
            time.sleep(3)  # the preview is drawn shortly after every change
            shot = os.path.join(TMP, "dialogs", "%s-%s.png" % (kind, name))
            r = run(["import", "-display", display, "-window", window, shot])
            if r.returncode or not os.path.exists(shot):
                failures.append("no screenshot of \"%s\": %s" % (title, r.stderr.strip()))
                continue
            colours = distinct_colours(shot)
            print("%s: %s (%d colours)" % (title, shot, colours))
            # Controls alone have a few dozen colours; the preview of the photo-like picture
            # brings thousands.
            if colours < 1000:
                failures.append("the dialog \"%s\" shows no preview (%d colours)" % (title, colours))
            if kind == "image-input":
                choose_watermark(display, window, mark, shot, failures)
            if kind == "layer-input":
                choose_layer(display, window, shot, failures)
                deadline = time.time() + 120
                while not os.path.exists(layer_result) and time.time() < deadline:
                    time.sleep(0.5)
                continue
            close_dialogs(session.proc.pid)
            # The next dialog may have the same title: wait until this one is gone.
            deadline = time.time() + 30
            while run(["xwininfo", "-display", display, "-id", window]).returncode == 0 and time.time() < deadline:
                time.sleep(0.3)
    if ("QVFilterWatermark", "layer-input") in cases:
        # The filter's watermark must be the chosen layer's pixels: those of mark.png.
        ref = os.path.join(TMP, "layer-input-ref.png")
        r = run([QVFILTER, "apply", picture, ref, "-f", "QVFilterWatermark", "-s", "inputWatermarkImage=" + mark])
        if r.returncode:
            failures.append("qvfilter apply failed: " + r.stderr.strip())
        elif not os.path.exists(layer_result):
            failures.append("OK in the dialog with a layer chosen saved no result")
        else:
            c = run([COMPARE, ref, layer_result])
            print("layer chosen as the watermark, against qvfilter apply with its file:", c.stdout.strip())
            if c.returncode:
                failures.append("the chosen layer is not the watermark: " + c.stdout.strip() + c.stderr.strip())
    for f in failures:
        print("FAIL:", f)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
"""The body of bench/gimp.sh (see there)."""
import argparse
import os
import shutil
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "gimp"))
from gimp_support import GimpSession, gimp_console, run, scheme_string  # noqa: E402

# GIMP's Gaussian blur takes a "size" that it turns into the standard deviation of GEGL's
# gaussian-blur as size / sqrt(-2 ln(1/255)); the blur's radius is that standard deviation.
SIZE_PER_STD_DEV = 3.3290


def best(times):
    return min(times) if times else float("nan")


def time_in_gimp(folder, plugin_dir, picture, tiny_picture, args, rows, prefix=""):
    """The GIMP rows: each call on a fresh copy of the picture's layer, inside one gimp-console
    with the plug-in of `plugin_dir`. QV_GIMP_TIMING=1 makes the plug-in print where each of its
    calls' time goes into folder/gimp.log, QV_ROW_BANDS_STATS=1 how it read the layer's rows."""
    os.makedirs(folder, exist_ok=True)
    timing = {k: os.environ[k] for k in ("QV_GIMP_TIMING", "QV_ROW_BANDS_STATS") if k in os.environ}
    with GimpSession(folder, plugin_dir, server=True, env=timing, call_timeout=1200) as session:
        sf = session.sf
        image = sf("(car (gimp-file-load RUN-NONINTERACTIVE %s \"in.png\"))" % scheme_string(picture)).strip()
        sf("(gimp-image-undo-disable %s)" % image)
        size = args.radius * SIZE_PER_STD_DEV
        calls = {
            "plug-in: plug-in-qvfilter-blur":
                (image, '(plug-in-qvfilter-blur RUN-NONINTERACTIVE img drw %g "CIGaussianBlur")' % args.radius),
            "GIMP: plug-in-gauss (std dev %g, size %.1f)" % (args.radius, size):
                (image, "(plug-in-gauss RUN-NONINTERACTIVE img drw %g %g 0)" % (size, size)),
            "plug-in: no-op (exposure 0)": (image, "(plug-in-qvfilter-exposure-adjust RUN-NONINTERACTIVE img drw 0.0)"),
        }
        # The plug-in's fixed cost alone (its process, GEGL and babl, the bundle): the no-op on
        # a layer of 16x16 pixels.
        tiny = sf("(car (gimp-file-load RUN-NONINTERACTIVE %s \"tiny.png\"))" % scheme_string(tiny_picture)).strip()
        sf("(gimp-image-undo-disable %s)" % tiny)
        calls["plug-in: no-op on a 16x16 layer (start-up alone)"] = (tiny, calls["plug-in: no-op (exposure 0)"][1])
        for label, (img, call) in calls.items():
            times = []
            for _ in range(args.runs):
                # A fresh copy of the picture's layer, made outside the timing.
                layer = sf("(let* ((img %s) (src (vector-ref (cadr (gimp-image-get-layers img)) 0))"
                           " (cp (car (gimp-layer-copy src FALSE)))) (gimp-image-insert-layer img cp 0 0) cp)"
                           % img).strip()
                start = time.perf_counter()
                sf("(let* ((img %s) (drw %s)) %s)" % (img, layer, call))
                times.append(time.perf_counter() - start)
                sf("(gimp-image-remove-layer %s %s)" % (img, layer))
            rows[prefix + label] = best(times)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--width", type=int, default=6000)
    ap.add_argument("--height", type=int, default=4000)
    ap.add_argument("--radius", type=float, default=20.0)
    ap.add_argument("--baseline", metavar="DIR",
                    help="a qvfilter-gimp folder of another build, whose plug-in rows are timed too")
    args = ap.parse_args()
    build = os.environ.get("BUILD", "build/release")
    qvfilter = os.path.abspath(os.path.join(build, "bin", "qvfilter"))
    plugin_dir = os.path.abspath(os.path.join(build, "qvfilter-gimp"))
    gimp = gimp_console()
    if not (os.path.exists(qvfilter) and os.path.exists(os.path.join(plugin_dir, "qvfilter-gimp")) and gimp):
        sys.exit("needs %s, %s/qvfilter-gimp and gimp-console (cmake --build %s --target qvfilter qvfilter-gimp)"
                 % (qvfilter, plugin_dir, build))
    tmp = os.environ.get("QV_BENCH_TMP", "/tmp/qv-gimp-bench")
    shutil.rmtree(tmp, ignore_errors=True)
    os.makedirs(tmp)
    picture = os.path.join(tmp, "in.png")
    run([qvfilter, "sample", picture, "--width", str(args.width), "--height", str(args.height)], check=True)
    tiny_picture = os.path.join(tmp, "tiny.png")
    run([qvfilter, "sample", tiny_picture, "--width", "16", "--height", "16"], check=True)
    print("load: %s" % open("/proc/loadavg").read().strip())
    print("picture: %dx%d, blur radius %g, best of %d" % (args.width, args.height, args.radius, args.runs))

    # qvfilter apply: PNG in, JPEG out (the fastest file pair it writes); the exposure change of 0
    # is the same reading and writing with a filter that costs next to nothing.
    rows = {}
    for name, filt in (("qvfilter apply, blur", ["-f", "QVFilterBlur", "-s", "inputRadius=%g" % args.radius]),
                       ("qvfilter apply, no-op (I/O only)", ["-f", "QVFilterExposureAdjust", "-s", "inputEV=0"])):
        times = []
        for _ in range(args.runs):
            start = time.perf_counter()
            run([qvfilter, "apply", picture, os.path.join(tmp, "out.jpg")] + filt, check=True)
            times.append(time.perf_counter() - start)
        rows[name] = best(times)

    time_in_gimp(os.path.join(tmp, "gimp"), plugin_dir, picture, tiny_picture, args, rows)
    if args.baseline:
        # Another build of the plug-in (an earlier commit's), timed in the same run.
        time_in_gimp(os.path.join(tmp, "gimp-baseline"), os.path.abspath(args.baseline), picture, tiny_picture, args,
                     rows, prefix="baseline ")

    ours = rows["qvfilter apply, blur"]
    plugin = rows["plug-in: plug-in-qvfilter-blur"]
    print("\n| case | seconds | x qvfilter apply blur |")
    print("|---|---|---|")
    for label, t in rows.items():
        print("| %s | %.2f | %.2f |" % (label, t, t / ours))
    gauss = next(t for label, t in rows.items() if label.startswith("GIMP"))
    print("\nplug-in / qvfilter apply: %.2f (target <= 1.3); plug-in / GIMP's blur: %.2f (target <= 1)"
          % (plugin / ours, plugin / gauss))
    if args.baseline:
        # Against GIMP's blur timed in the baseline's own session, as the load then was.
        base = rows["baseline plug-in: plug-in-qvfilter-blur"]
        base_gauss = next(t for label, t in rows.items() if label.startswith("baseline GIMP"))
        print("baseline plug-in / qvfilter apply: %.2f; baseline plug-in / GIMP's blur: %.2f"
              % (base / ours, base / base_gauss))
    print("load: %s" % open("/proc/loadavg").read().strip())


if __name__ == "__main__":
    main()

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
from gimp_support import ScriptFu, free_port, gimp_console, make_profile, run, scheme_string  # noqa: E402

# GIMP's Gaussian blur takes a "size" that it turns into the standard deviation of GEGL's
# gaussian-blur as size / sqrt(-2 ln(1/255)); the blur's radius is that standard deviation.
SIZE_PER_STD_DEV = 3.3290


def best(times):
    return min(times) if times else float("nan")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--width", type=int, default=6000)
    ap.add_argument("--height", type=int, default=4000)
    ap.add_argument("--radius", type=float, default=20.0)
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

    profile = make_profile(tmp, gimp, plugin_dir)
    port = free_port()
    env = dict(os.environ, GIMP2_DIRECTORY=profile, LC_ALL="C")
    log = open(os.path.join(tmp, "gimp.log"), "w")
    proc = subprocess.Popen([gimp, "-i", "-d", "-f", "-b",
                             '(plug-in-script-fu-server RUN-NONINTERACTIVE "127.0.0.1" %d "")' % port],
                            env=env, cwd=tmp, stdout=log, stderr=subprocess.STDOUT)
    try:
        sf = ScriptFu(port, time.time() + 120, timeout=1200)
        image = sf("(car (gimp-file-load RUN-NONINTERACTIVE %s \"in.png\"))" % scheme_string(picture)).strip()
        sf("(gimp-image-undo-disable %s)" % image)
        size = args.radius * SIZE_PER_STD_DEV
        calls = {
            "plug-in: plug-in-qvfilter-blur": '(plug-in-qvfilter-blur RUN-NONINTERACTIVE img drw %g "CIGaussianBlur")'
                                              % args.radius,
            "GIMP: plug-in-gauss (std dev %g, size %.1f)" % (args.radius, size):
                "(plug-in-gauss RUN-NONINTERACTIVE img drw %g %g 0)" % (size, size),
            "plug-in: no-op (exposure 0)": "(plug-in-qvfilter-exposure-adjust RUN-NONINTERACTIVE img drw 0.0)",
        }
        for label, call in calls.items():
            times = []
            for _ in range(args.runs):
                # A fresh copy of the picture's layer, made outside the timing.
                layer = sf("(let* ((img %s) (src (vector-ref (cadr (gimp-image-get-layers img)) 0))"
                           " (cp (car (gimp-layer-copy src FALSE)))) (gimp-image-insert-layer img cp 0 0) cp)"
                           % image).strip()
                start = time.perf_counter()
                sf("(let* ((img %s) (drw %s)) %s)" % (image, layer, call))
                times.append(time.perf_counter() - start)
                sf("(gimp-image-remove-layer %s %s)" % (image, layer))
            rows[label] = best(times)
        try:
            sf("(gimp-quit 1)")
        except (RuntimeError, OSError):
            pass
    finally:
        try:
            proc.wait(timeout=60)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
        log.close()

    ours = rows["qvfilter apply, blur"]
    plugin = rows["plug-in: plug-in-qvfilter-blur"]
    print("\n| case | seconds | x qvfilter apply blur |")
    print("|---|---|---|")
    for label, t in rows.items():
        print("| %s | %.2f | %.2f |" % (label, t, t / ours))
    gauss = next(t for label, t in rows.items() if label.startswith("GIMP"))
    print("\nplug-in / qvfilter apply: %.2f (target <= 1.3); plug-in / GIMP's blur: %.2f (target <= 1)"
          % (plugin / ours, plugin / gauss))
    print("load: %s" % open("/proc/loadavg").read().strip())


if __name__ == "__main__":
    main()

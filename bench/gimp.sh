#!/usr/bin/env bash
# bench/gimp.sh: the blur of radius 20 on a 6000x4000 layer through the GIMP plug-in, against
# `qvfilter apply` of the same filter on the same pixels and against GIMP's own Gaussian blur
# (plug-in-gauss, which runs gegl:gaussian-blur) of the same size, in one run.
#
#   bench/gimp.sh [--runs N] [--width W --height H] [--radius R] [--baseline DIR]
#   env: BUILD (default build/release), QV_BENCH_TMP (scratch, default /tmp/qv-gimp-bench)
#
# GIMP times are of the procedure call alone: gimp-console serves script-fu on a loopback port,
# the picture is loaded once, and each call is timed around its round trip (a copy of the layer
# is made before each call, outside the timing). Best of N. --baseline DIR times the plug-in of
# another build (its qvfilter-gimp folder) too, in a second gimp-console of the same run.
set -euo pipefail
cd "$(dirname "$0")/.."
exec python3 bench/gimp_blur.py "$@"

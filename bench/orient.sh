#!/usr/bin/env bash
# bench/orient.sh: a JPEG tagged with each of the eight EXIF orientations, copied upright by
# `qvfilter convert` (the orientation applied as the strips are rendered: rows of the file for
# 1 to 4, bands of its columns for the quarter turns 5 to 8): wall time (best of N) and peak
# resident memory of each, and the time against orientation 1 in the same run.
#
#   bench/orient.sh [--runs N] [--size WxH]   (default 6000x4000, 3 runs)
#   env: QVFILTER (default: build/release/bin/qvfilter), QV_STREAM_TMP (default /tmp/qv-stream)
#
# The input is made by `qvfilter sample` and `qvfilter convert --quality 90`; the orientation
# tag is an EXIF segment written into a copy of it.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh

runs=3
size=6000x4000
bench_parse_args "$0" runs size -- "$@"
bench_sample_jpeg "$0"
for o in 1 2 3 4 5 6 7 8; do
  /usr/bin/python3 - "$IN" "$WORK/oriented-$o.jpg" "$o" <<'PY'
import struct, sys
data = open(sys.argv[1], "rb").read()
o = int(sys.argv[3])
tiff = b"MM\x00\x2a" + struct.pack(">I", 8) + struct.pack(">H", 1) + struct.pack(">HHIHH", 0x0112, 3, 1, o, 0) + struct.pack(">I", 0)
app1 = b"Exif\x00\x00" + tiff
open(sys.argv[2], "wb").write(data[:2] + b"\xff\xe1" + struct.pack(">H", len(app1) + 2) + app1 + data[2:])
PY
done

echo "load: $(uptime | sed 's/.*load average: //')"
echo "| orientation | seconds | peak MB | vs orientation 1 |"
echo "|---|---|---|---|"
t1=""
for o in 1 2 3 4 5 6 7 8; do
  read -r t m <<<"$(bench_measure "$QVFILTER" convert "$WORK/oriented-$o.jpg" "$WORK/upright.jpg" --quality 90)"
  [ -z "$t1" ] && t1=$t
  awk -v o="$o" -v t="$t" -v m="$m" -v t1="$t1" 'BEGIN{
    if (t == "-") { printf "| %s | failed | | |\n", o; exit }
    printf "| %s | %.2f s | %d | %.2fx |\n", o, t, m, t / t1 }'
done
echo "load: $(uptime | sed 's/.*load average: //')"

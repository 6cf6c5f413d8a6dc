#!/usr/bin/env bash
# bench/batch.sh: a batch of photos through `qvfilter batch` (at --jobs 1 and 2), through the
# Python module (two threads, one file each), and through a shell loop of `vips` commands doing
# the same work: a colour adjustment (a linear scale and offset per channel) and a 12-pixel
# white border outside the picture, JPEG Q90 out. Prints wall times (best of N) and ratios.
#
#   bench/batch.sh [--runs N] [--count N] [--size WxH]
#   env: QVFILTER (default build/release/bin/qvfilter), QV_PYTHONPATH (default
#        build/release/python), QV_BATCH_TMP (scratch directory, default /tmp/qv-batch)
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh

runs=1
count=200
size=2000x1500
bench_parse_args "$0" runs count size -- "$@"
width=${size%x*}
height=${size#*x}

QVFILTER=${QVFILTER:-$(realpath build/release/bin/qvfilter 2>/dev/null || true)}
[ -n "$QVFILTER" ] && [ -x "$QVFILTER" ] || { echo "batch.sh: build qvfilter first (or set QVFILTER)" >&2; exit 1; }
PYPATH=${QV_PYTHONPATH:-$(realpath build/release/python 2>/dev/null || true)}
command -v vips >/dev/null || { echo "batch.sh: vips (libvips-tools) is needed" >&2; exit 1; }

WORK=${QV_BATCH_TMP:-/tmp/qv-batch}
IN="$WORK/in-$size-$count"
mkdir -p "$WORK"
if [ ! -d "$IN" ] || [ "$(ls "$IN" | wc -l)" -ne "$count" ]; then
  rm -rf "$IN" && mkdir -p "$IN"
  "$QVFILTER" sample "$WORK/photo.png" --width "$width" --height "$height" >/dev/null
  "$QVFILTER" convert "$WORK/photo.png" "$IN/photo-000.jpg" --quality 90 >/dev/null
  for i in $(seq -f %03g 1 $((count - 1))); do cp "$IN/photo-000.jpg" "$IN/photo-$i.jpg"; done
fi

cat >"$WORK/recipe.json" <<'JSON'
{"chain": [
  {"filter": "CIColorMatrix", "inputs": {"inputRVector": {"vector": [1.1, 0, 0, 0]}, "inputGVector": {"vector": [0, 1.1, 0, 0]},
                                         "inputBVector": {"vector": [0, 0, 1.1, 0]}, "inputBiasVector": {"vector": [0.04, 0.04, 0.04, 0]}}},
  {"filter": "QVFilterBorder", "inputs": {"inputBorderType": 1, "inputWidth": 12, "inputColor": {"color": [1, 1, 1, 1]}}}],
 "output": {"quality": 0.9}}
JSON

cat >"$WORK/batch.py" <<'PY'
import concurrent.futures, glob, os, sys
import qvfilter
inputs, out = sorted(glob.glob(os.path.join(sys.argv[1], "*.jpg"))), sys.argv[2]
os.makedirs(out, exist_ok=True)
def one(path):
    m = qvfilter.Filter("CIColorMatrix", inputImage=qvfilter.Image.open(path), inputRVector=(1.1, 0, 0, 0),
                        inputGVector=(0, 1.1, 0, 0), inputBVector=(0, 0, 1.1, 0), inputBiasVector=(0.04, 0.04, 0.04, 0))
    b = qvfilter.Filter("QVFilterBorder", inputImage=m.output, inputBorderType=1, inputWidth=12, inputColor=(1, 1, 1, 1))
    b.output.save(os.path.join(out, os.path.basename(path)), quality=90, threads=1)
with concurrent.futures.ThreadPoolExecutor(int(sys.argv[3])) as pool:
    list(pool.map(one, inputs))
PY

vips_loop() {
  local out=$1 f
  mkdir -p "$out"
  for f in "$IN"/*.jpg; do
    vips linear "$f" "$out/t.v" 1.1 10
    vips embed "$out/t.v" "$out/$(basename "$f")[Q=90]" 12 12 $((width + 24)) $((height + 24)) --extend white
  done
  rm -f "$out/t.v"
}

# best COMMAND...: the fastest wall time of $runs runs, in seconds.
best() {
  local b="" t
  for _ in $(seq "$runs"); do
    rm -rf "$WORK/out"
    local s; s=$(date +%s.%N)
    "$@" >/dev/null 2>&1
    t=$(awk -v s="$s" -v e="$(date +%s.%N)" 'BEGIN{print e - s}')
    if [ -z "$b" ] || awk -v t="$t" -v b="$b" 'BEGIN{exit !(t < b)}'; then b=$t; fi
  done
  printf "%.2f" "$b"
}

echo "batch.sh: $count photos of $size, best of $runs, load $(cut -d' ' -f1-3 /proc/loadavg)" >&2
j1=$(best "$QVFILTER" batch "$WORK/recipe.json" "$IN" -o "$WORK/out" --jobs 1 -q)
j2=$(best "$QVFILTER" batch "$WORK/recipe.json" "$IN" -o "$WORK/out" --jobs 2 -q)
py=-
if [ -n "$PYPATH" ] && PYTHONPATH=$PYPATH /usr/bin/python3 -c "import qvfilter" 2>/dev/null; then
  py=$(best env PYTHONPATH="$PYPATH" /usr/bin/python3 "$WORK/batch.py" "$IN" "$WORK/out" 2)
fi
vl=$(best vips_loop "$WORK/out")
ratio() { awk -v a="$1" -v b="$2" 'BEGIN{ if (a == "-" || b == "-" || b == 0) print "-"; else printf "%.2fx", a / b }'; }
echo "| run | seconds | files/s | ratio |"
echo "|---|---|---|---|"
echo "| qvfilter batch --jobs 1 | $j1 | $(awk -v t="$j1" -v n="$count" 'BEGIN{printf "%.1f", n/t}') | jobs 1 / jobs 2: $(ratio "$j1" "$j2") |"
echo "| qvfilter batch --jobs 2 | $j2 | $(awk -v t="$j2" -v n="$count" 'BEGIN{printf "%.1f", n/t}') | vips loop / jobs 2: $(ratio "$vl" "$j2") |"
echo "| Python, 2 threads | $py | $( [ "$py" = - ] && echo - || awk -v t="$py" -v n="$count" 'BEGIN{printf "%.1f", n/t}') | Python / jobs 2: $(ratio "$py" "$j2") |"
echo "| shell loop of vips linear + vips embed | $vl | $(awk -v t="$vl" -v n="$count" 'BEGIN{printf "%.1f", n/t}') | |"
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"

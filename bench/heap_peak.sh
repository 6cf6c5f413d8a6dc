#!/usr/bin/env bash
# bench/heap_peak.sh: where a one-filter pipeline's peak memory goes. Runs
# `qvfilter apply IN.jpg OUT.jpg -f FILTER --threads T --quality 90` on the stream.sh picture and
# prints the heap's peak (every malloc and free counted by bench/heap_peak.c, preloaded), the
# strip cache's own peak (QV_STRIP_CACHE_STATS=1) and the peak resident memory (GNU time), then
# the same for `qvfilter list` (the process alone) and `qvfilter convert` (the streamed copy).
#
#   bench/heap_peak.sh [--filter NAME] [--threads T] [--size WxH]   (default QVFilterTextureComposite, 2, 6000x4000)
#   env: QVFILTER (default: build/release/bin/qvfilter), QV_STREAM_TMP (default /tmp/qv-stream), CC (default cc)
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh

filter=QVFilterTextureComposite
threads=2
size=6000x4000
bench_parse_args "$0" filter threads size -- "$@"
bench_sample_jpeg "$0"
lib="$WORK/heap_peak.so"
"${CC:-cc}" -O2 -shared -fPIC -o "$lib" bench/heap_peak.c

echo "load: $(uptime | sed 's/.*load average: //')"
measure() {
  local what=$1
  shift
  echo "$what:"
  QV_STRIP_CACHE_STATS=1 LD_PRELOAD="$lib" "$@" 2>&1 >/dev/null | sed -n 's/^/  /; /heap peak\|strip cache/p'
  "$TIME" -f "  peak resident %M KB" "$@" 2>&1 >/dev/null | grep 'peak resident'
}
measure "qvfilter list" "$QVFILTER" list
measure "qvfilter convert" "$QVFILTER" convert "$IN" "$WORK/copy.jpg" --quality 90
measure "$filter, $threads threads" "$QVFILTER" apply "$IN" "$WORK/out.jpg" -f "$filter" --threads "$threads" --quality 90

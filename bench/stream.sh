#!/usr/bin/env bash
# bench/stream.sh: every filter of the bundle with its defaults as a one-filter pipeline
# (JPEG Q90 in and out), on one thread and on two: wall time (best of N), peak resident memory,
# the two-thread speed-up, and the time against `qvfilter convert` of the same picture (the
# streamed decode + encode alone) in the same run.
#
#   bench/stream.sh [--runs N] [--only PATTERN] [--size WxH]   (default 6000x4000)
#   env: QVFILTER (default: build/release/bin/qvfilter), QV_STREAM_TMP (default /tmp/qv-stream)
#
# The input is made by `qvfilter sample` and `qvfilter convert --quality 90`.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh

runs=3
only=.
size=6000x4000
bench_parse_args "$0" runs only size -- "$@"
bench_sample_jpeg "$0"

echo "load: $(uptime | sed 's/.*load average: //')"
read -r ct cm <<<"$(bench_measure "$QVFILTER" convert "$IN" "$WORK/copy.jpg" --quality 90)"
echo "convert: $ct s, $cm MB"
echo "| filter | 1 thread | 2 threads | 2 vs 1 | peak MB | vs convert |"
echo "|---|---|---|---|---|---|"
for f in $("$QVFILTER" list | grep '^QVFilter'); do
  grep -q -- "$only" <<<"$f" || continue
  read -r t1 m1 <<<"$(bench_measure "$QVFILTER" apply "$IN" "$WORK/out.jpg" -f "$f" --threads 1 --quality 90)"
  read -r t2 m2 <<<"$(bench_measure "$QVFILTER" apply "$IN" "$WORK/out.jpg" -f "$f" --threads 2 --quality 90)"
  awk -v f="$f" -v t1="$t1" -v t2="$t2" -v m1="$m1" -v m2="$m2" -v ct="$ct" 'BEGIN{
    if (t1 == "-" || t2 == "-") { printf "| %s | failed | | | | |\n", f; exit }
    m = m1 > m2 ? m1 : m2
    printf "| %s | %.3f s | %.3f s | %.2fx | %d | %.2fx |\n", f, t1, t2, t1 / t2, m, t2 / ct }'
done
echo "load: $(uptime | sed 's/.*load average: //')"

#!/usr/bin/env bash
# bench/cpu_ab.sh: two builds of qvfilter on the same one-filter pipelines, compared by the CPU
# they spend (user + system seconds of all its threads) rather than by wall time, which a machine shared with other work does not give reliably. Runs
# alternate between the builds (A, B, A, B, ...); the best of N of each is shown, with the
# wall time of that run and the machine's load.
#
#   bench/cpu_ab.sh --a DIR_A --b DIR_B [--runs N] [--only PATTERN] [--threads T] [--size WxH]
#                   [--set "KEY=VALUE ..."]
#
# --set gives the filters these inputs instead of their defaults (space-separated; pick the
# filters that have them with --only), e.g. the blur of radius 20 that the GIMP plug-in
# benchmark runs: --only 'QVFilterBlur$' --set inputRadius=20.
#
# DIR_A and DIR_B are build directories (or copies of their bin/ and lib/): DIR/bin/qvfilter is
# run with DIR/lib first on the library path. The input is the stream.sh picture (JPEG Q90 of
# `qvfilter sample`), made in QV_STREAM_TMP (default /tmp/qv-stream) if it is not there.
set -euo pipefail
cd "$(dirname "$0")/.."
. bench/lib.sh

a=
b=
runs=3
only=.
threads=1
size=6000x4000
set=
bench_parse_args "$0" a b runs only threads size set -- "$@"
settings=()
for kv in $set; do settings+=(-s "$kv"); done
[ -n "$a" ] && [ -n "$b" ] || { echo "cpu_ab.sh: --a DIR and --b DIR are required" >&2; exit 1; }
for d in "$a" "$b"; do
  [ -x "$d/bin/qvfilter" ] || { echo "cpu_ab.sh: no $d/bin/qvfilter" >&2; exit 1; }
done
# The input is made by build A.
QVFILTER="$a/bin/qvfilter"
export LD_LIBRARY_PATH="$a/lib"
bench_sample_jpeg "$0"
unset LD_LIBRARY_PATH

# one DIR FILTER -> "cpu_seconds wall_seconds" of one run ("- -" if it failed).
one() {
  local dir=$1 f=$2
  LD_LIBRARY_PATH="$dir/lib" "$TIME" -f "%U %S %e" -o "$WORK/ab-time.txt" \
    "$dir/bin/qvfilter" apply "$IN" "$WORK/ab.jpg" -f "$f" "${settings[@]}" --threads "$threads" --quality 90 >/dev/null 2>&1 ||
    { echo "- -"; return; }
  awk '{printf "%.2f %.2f\n", $1 + $2, $3}' "$WORK/ab-time.txt"
}

echo "load: $(uptime | sed 's/.*load average: //')"
LD_LIBRARY_PATH="$b/lib" "$TIME" -f "%U %S %e" -o "$WORK/ab-time.txt" \
  "$b/bin/qvfilter" convert "$IN" "$WORK/ab.jpg" --quality 90 >/dev/null 2>&1
echo "convert (B): $(awk '{printf "%.2f s cpu, %.2f s wall", $1 + $2, $3}' "$WORK/ab-time.txt")"
echo "threads: $threads; A = $a, B = $b; best of $runs by CPU time${set:+; inputs: $set}"
echo "| filter | A cpu s | B cpu s | A / B (cpu) | A wall s | B wall s |"
echo "|---|---|---|---|---|---|"
for f in $(LD_LIBRARY_PATH="$b/lib" "$b/bin/qvfilter" list | grep '^QVFilter'); do
  grep -q -- "$only" <<<"$f" || continue
  best_a="" best_b=""
  for _ in $(seq "$runs"); do
    for side in a b; do
      dir=$a
      [ "$side" = b ] && dir=$b
      r=$(one "$dir" "$f")
      read -r c _ <<<"$r"
      [ "$c" = - ] && continue
      cur=best_$side
      held=${!cur}
      if [ -z "$held" ] || awk -v x="$c" -v y="${held%% *}" 'BEGIN{exit !(x < y)}'; then
        printf -v "best_$side" '%s' "$r"
      fi
    done
  done
  [ -n "$best_a" ] && [ -n "$best_b" ] || { echo "| $f | failed | | | | |"; continue; }
  read -r ca wa <<<"$best_a"
  read -r cb wb <<<"$best_b"
  awk -v f="$f" -v ca="$ca" -v cb="$cb" -v wa="$wa" -v wb="$wb" \
    'BEGIN{printf "| %s | %.2f | %.2f | %.2fx | %.2f | %.2f |\n", f, ca, cb, ca / cb, wa, wb}'
done
echo "load: $(uptime | sed 's/.*load average: //')"

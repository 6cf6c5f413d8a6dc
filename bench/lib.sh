# bench/lib.sh: shell functions shared by the benchmark scripts. A script sources it once it has
# changed to the repository's root ("cd "$(dirname "$0")/.." && . bench/lib.sh").

# bench_parse_args SCRIPT NAME... -- ARG...
# Reads the options "--NAME VALUE" of the script SCRIPT from ARG... into the shell variables of
# the same names (the script sets their defaults first). -h/--help prints the opening comment
# of bench/SCRIPT (its file name; $0 will do) and exits 0; an unknown option, or one without
# its value, stops the script with a message and exit status 2.
bench_parse_args() {
  local script=$1 me name n
  local known=()
  shift
  while [ $# -gt 0 ] && [ "$1" != -- ]; do known+=("$1"); shift; done
  [ $# -gt 0 ] && shift
  me=$(basename "$script")
  while [ $# -gt 0 ]; do
    if [ "$1" = -h ] || [ "$1" = --help ]; then
      awk 'NR == 1 { next } /^#/ { sub(/^# ?/, ""); print; next } { exit }' "bench/$me"
      exit 0
    fi
    name=
    for n in "${known[@]}"; do [ "$1" = "--$n" ] && name=$n; done
    if [ -z "$name" ]; then echo "$me: unknown argument $1" >&2; exit 2; fi
    if [ $# -lt 2 ]; then echo "$me: $1 needs a value" >&2; exit 2; fi
    printf -v "$name" '%s' "$2"
    shift 2
  done
}

# bench_sample_jpeg SCRIPT
# For the scripts that time `qvfilter` on the sample picture: checks QVFILTER (default
# build/release/bin/qvfilter) and GNU time, and sets W and H from $size (WxH), WORK
# (QV_STREAM_TMP, default /tmp/qv-stream) and IN, the `qvfilter sample` picture of that size as a
# JPEG of quality 90 in WORK, made on the first run and kept for the next.
bench_sample_jpeg() {
  local me
  me=$(basename "$1")
  QVFILTER=${QVFILTER:-build/release/bin/qvfilter}
  [ -x "$QVFILTER" ] || { echo "$me: build qvfilter first (or set QVFILTER)" >&2; exit 1; }
  TIME=/usr/bin/time
  [ -x "$TIME" ] || { echo "$me: GNU time (/usr/bin/time) is needed" >&2; exit 1; }
  W=${size%x*} H=${size#*x}
  WORK=${QV_STREAM_TMP:-/tmp/qv-stream}
  mkdir -p "$WORK"
  IN="$WORK/sample-${W}x${H}-q90.jpg"
  if [ ! -s "$IN" ]; then
    "$QVFILTER" sample "$WORK/sample.png" --width "$W" --height "$H" >/dev/null
    "$QVFILTER" convert "$WORK/sample.png" "$IN" --quality 90 >/dev/null
    rm -f "$WORK/sample.png"
  fi
}

# bench_run_timed TIMEFILE COMMAND...
# Runs COMMAND once under GNU time ($TIME) with its output discarded (stderr to $WORK/stderr.txt)
# and writes "seconds kilobytes" to TIMEFILE: the wall time to the millisecond, taken around the
# run (GNU time's own %e has 10 ms steps, as coarse as a tenth of the shortest cases), and the
# peak resident memory GNU time reports. Fails as COMMAND does.
bench_run_timed() {
  local file=$1 start end
  shift
  start=$(date +%s%N)
  "$TIME" -f "%M" -o "$file.kb" "$@" >/dev/null 2>"$WORK/stderr.txt" || return 1
  end=$(date +%s%N)
  awk -v s="$start" -v e="$end" -v kb="$(tail -n 1 "$file.kb")" 'BEGIN{printf "%.3f %d\n", (e - s) / 1e9, kb}' >"$file"
}

# bench_measure COMMAND...
# Runs COMMAND $runs times (bench_run_timed) and prints "seconds megabytes" of the fastest run
# (wall time, peak resident memory), or "- -" if it failed.
bench_measure() {
  local best_t="" best_m="" t m
  for _ in $(seq "$runs"); do
    bench_run_timed "$WORK/time.txt" "$@" || { echo "- -"; return; }
    read -r t m <"$WORK/time.txt"
    if [ -z "$best_t" ] || awk "BEGIN{exit !($t < $best_t)}"; then best_t=$t; best_m=$m; fi
  done
  awk -v t="$best_t" -v m="$best_m" 'BEGIN{printf "%.3f %.0f\n", t, m / 1024}'
}

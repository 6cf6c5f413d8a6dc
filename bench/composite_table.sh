#!/usr/bin/env bash
# The composite table: every case of composite_bench in a process of its own (so that each
# peak is that case's alone), cases interleaved over N rounds, best wall time, median CPU time
# and largest peak of each, with ratios to the streamed copy and to the engine's copy of the
# same run. Prints a Markdown table and the load average before and after.
#
#   bench/composite_table.sh [--rounds N] [--build DIR]     # default: 3 rounds, build/release
#
# Build first: cmake --build build/release --target QVFilterImageUnitsBundle composite_bench
set -euo pipefail

rounds=3
build="$(cd "$(dirname "$0")/.." && pwd)/build/release"
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds="$2"; shift 2 ;;
    --build) build="$2"; shift 2 ;;
    *) echo "usage: $0 [--rounds N] [--build DIR]" >&2; exit 2 ;;
  esac
done
bench="$build/bin/composite_bench"
[ -x "$bench" ] || { echo "no $bench: build the composite_bench target" >&2; exit 1; }

cases=$("$bench" --benchmark_list_tests | sed 's|/.*||')
results=$(mktemp)
trap 'rm -f "$results"' EXIT

echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)" >&2
for ((r = 1; r <= rounds; r++)); do
  for c in $cases; do
    # One line per case: name wall_ms cpu_s peak_MB
    "$bench" --benchmark_filter="^$c/" --benchmark_format=json 2>/dev/null |
      python3 -c '
import json, sys
for b in json.load(sys.stdin)["benchmarks"]:
    print(b["name"].split("/")[0], b["real_time"], b.get("cpu_s", 0), b.get("peak_MB", 0))
' >>"$results"
  done
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)" >&2

python3 - "$results" <<'EOF'
import statistics, sys
rows = {}
order = []
for line in open(sys.argv[1]):
    name, wall, cpu, peak = line.split()
    if name not in rows:
        rows[name] = []
        order.append(name)
    rows[name].append((float(wall), float(cpu), float(peak)))
def summary(name):
    r = rows[name]
    return min(w for w, _, _ in r), statistics.median(c for _, c, _ in r), max(p for _, _, p in r)
sw, sc, sp = summary("BM_StreamCopy")
cw, cc, cp = summary("BM_Copy")
print("| case | wall (best) | CPU (median) | peak MB | wall / stream copy | CPU / stream copy | CPU / engine copy | peak / stream copy |")
print("|---|---:|---:|---:|---:|---:|---:|---:|")
for name in order:
    w, c, p = summary(name)
    print(f"| {name[3:]} | {w:.0f} ms | {c:.2f} s | {p:.0f} | {w / sw:.2f}x | {c / sc:.2f}x | {c / cc:.2f}x | {p / sp:.2f}x |")
EOF

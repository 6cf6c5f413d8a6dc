#!/usr/bin/env bash
# Peak resident memory and time of chains of blurs under a --max-memory budget: the budget
# holds whatever the chain length, and a chain that cannot fit is refused at once.
# Usage: bench/render_budget.sh [QVFILTER] [BUDGET]   (default build/release/bin/qvfilter, 1G)
set -u
q="${1:-build/release/bin/qvfilter}"
budget="${2:-1G}"
in="$(dirname "$0")/../tests/data/photo.png"
out="$(mktemp -d)"
uptime
printf '%-8s %-10s %-10s %s\n' steps seconds peakMB result
for n in 5 10 20 40 67 100; do
  args=()
  for _ in $(seq "$n"); do args+=(-f CIGaussianBlur -s inputRadius=20); done
  /usr/bin/time -o "$out/t" -f "%e %M" "$q" apply "$in" "$out/o.png" "${args[@]}" --max-memory "$budget" \
    >/dev/null 2>"$out/err"
  rc=$?
  read -r secs kb < <(tail -1 "$out/t")
  printf '%-8s %-10s %-10s %s\n' "$n" "$secs" "$((kb / 1024))" "$([ $rc -eq 0 ] && echo rendered || head -c 60 "$out/err")"
done
rm -rf "$out"

#!/usr/bin/env bash
# A JPEG whose data breaks off part way passes the header check, so the render starts; the
# rows are decoded as the tiles read them, and the render fails at the strip where the data
# ends: the message names the file and those rows, the exit status is non-zero, and neither
# the output nor its temporary file is left behind. The intact part of the same file still
# renders when only it is asked for (a crop of the top rows).
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh" || exit 1
tmp=$(scratch truncated_input)
cd "$tmp" || exit 1

"$QVFILTER" sample whole.png --width 640 --height 480 >/dev/null || fail "sample failed"
"$QVFILTER" convert whole.png whole.jpg --quality 90 >/dev/null || fail "convert failed"
size=$(stat -c %s whole.jpg)
head -c $((size / 2)) whole.jpg > cut.jpg

for out in out.jpg out.png out.webp; do
  rm -f "$out" "$out".partial-*
  if "$QVFILTER" apply cut.jpg "$out" -f QVFilterBlur >stdout.txt 2>stderr.txt; then
    fail "apply of a truncated JPEG to $out succeeded"
  fi
  grep -q "cut.jpg" stderr.txt || fail "$out: the message does not name the file: $(cat stderr.txt)"
  grep -Eq "corrupt JPEG: .*\(in rows [0-9]+-[0-9]+ of 480\)" stderr.txt ||
    fail "$out: the message does not name the rows where the data breaks: $(cat stderr.txt)"
  leftovers=$(ls | grep -c "^$out")
  [ "$leftovers" -eq 0 ] || fail "$out: a failed render left $(ls | grep "^$out")"
done

# The rows before the break: the message's first row bounds them.
first=$(grep -Eo "in rows [0-9]+" stderr.txt | grep -Eo "[0-9]+$")
[ "${first:-0}" -gt 16 ] || { fail "the data broke at row ${first:-?}, expected a later strip"; finish; }
keep=$((first - 16))
"$QVFILTER" apply cut.jpg top.png -f CICrop -s "inputRectangle=0 $((480 - keep)) 640 $keep" >/dev/null 2>stderr.txt ||
  fail "the intact top rows did not render: $(cat stderr.txt)"
[ -s top.png ] || fail "top.png missing"
finish

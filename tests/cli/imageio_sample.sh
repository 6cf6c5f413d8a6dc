#!/usr/bin/env bash
# qvfilter sample OUT [--width W --height H]: a deterministic photo-like picture, 1200x800 by
# default, in any output format; clear errors for bad sizes and unknown extensions.
set -u
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
tmp="${QV_TEST_TMP:-/tmp}/imageio_sample"
rm -rf "$tmp" && mkdir -p "$tmp"
PY=/usr/bin/python3; [ -x "$PY" ] || PY=python3
bad() {
  local what=$1 want=$2; shift 2
  local o; if o=$("$@" 2>"$tmp/err"); then fail "$what: succeeded"; return; fi
  [ -z "$o" ] || fail "$what: stdout not empty: $o"
  grep -qF -- "$want" "$tmp/err" || fail "$what: expected \"$want\", got: $(cat "$tmp/err")"
  [ "$(wc -l <"$tmp/err")" -eq 1 ] || fail "$what: message is not one line: $(cat "$tmp/err")"
}

out=$("$QVFILTER" sample "$tmp/default.png") || fail "default sample"
[ "$out" = "$tmp/default.png (1200x800 PNG)" ] || fail "description: $out"
"$QVFILTER" info "$tmp/default.png" --json | grep -q '"width": 1200' || fail "default width"
# Deterministic: the same size gives the same bytes.
"$QVFILTER" sample "$tmp/again.png" >/dev/null || fail "second sample"
cmp -s "$tmp/default.png" "$tmp/again.png" || fail "two samples differ"
for ext in jpg jpeg webp; do
  out=$("$QVFILTER" sample "$tmp/s.$ext" --width 320 --height 200) || fail "sample .$ext"
  "$QVFILTER" info "$tmp/s.$ext" --json | grep -q '"height": 200' || fail "sample .$ext height"
done
# Photo-like: a blue sky above, green land below, a bright sun, and varied (textured) pixels.
"$PY" - "$tmp/default.png" <<'PY' || fail "the sample does not look like a landscape"
import sys
from PIL import Image, ImageStat
im = Image.open(sys.argv[1]).convert("RGB")
w, h = im.size
sky = ImageStat.Stat(im.crop((0, 0, w, h // 5))).mean
land = ImageStat.Stat(im.crop((0, h * 9 // 10, w, h))).mean
assert sky[2] > sky[0] + 40, sky
assert land[1] > land[0] and land[1] > land[2], land
assert max(im.crop((w // 2, 0, w, h // 2)).convert("L").getdata()) > 240
assert len(set(im.crop((0, h * 9 // 10, 200, h)).getdata())) > 400
PY

bad "zero width" "--width must be a whole number from 1 to 65500: 0" "$QVFILTER" sample "$tmp/z.png" --width 0
bad "text height" "--height must be a whole number from 1 to 65500: tall" "$QVFILTER" sample "$tmp/z.png" --height tall
bad "empty width" "--width must be a whole number from 1 to 65500: " "$QVFILTER" sample "$tmp/z.png" --width ""
bad "negative" "--width must be a whole number from 1 to 65500: -3" "$QVFILTER" sample "$tmp/z.png" --width=-3
bad "unknown extension" "unknown output format: $tmp/z.tif" "$QVFILTER" sample "$tmp/z.tif"
bad "too many pixels" "sample of 65500x65500 pixels is over the pixel limit" "$QVFILTER" sample "$tmp/z.png" --width 65500 --height 65500
bad "webp too wide" "WebP images are limited to 16383 pixels per side" "$QVFILTER" sample "$tmp/z.webp" --width 20000 --height 10
bad "unwritable" "cannot create $tmp/nodir/z.png" "$QVFILTER" sample "$tmp/nodir/z.png"
[ ! -e "$tmp/z.png" ] && [ ! -e "$tmp/z.webp" ] || fail "a failed sample left a file"

[ "$failures" -eq 0 ] || { echo "$failures failure(s)" >&2; exit 1; }
echo "imageio_sample: all passed"

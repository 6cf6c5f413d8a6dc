#!/usr/bin/env bash
# qvfilter convert IN OUT [--max-size N] [--quality Q] [--no-orient]: full copies and bounded
# thumbnails between JPEG, PNG and WebP, the EXIF orientation applied, and a clear one-line
# error with a non-zero exit for every bad argument and bad file, leaving no output behind.
set -u
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
tmp="${QV_TEST_TMP:-/tmp}/imageio_convert"
rm -rf "$tmp" && mkdir -p "$tmp"
PY=/usr/bin/python3; [ -x "$PY" ] || PY=python3
ok() { local what=$1; shift; out=$("$@" 2>"$tmp/err") || { fail "$what: exit $?: $(cat "$tmp/err")"; return 1; }; }
bad() {
  local what=$1 want=$2; shift 2
  local o; if o=$("$@" 2>"$tmp/err"); then fail "$what: succeeded"; return; fi
  [ -z "$o" ] || fail "$what: stdout not empty: $o"
  grep -qF -- "$want" "$tmp/err" || fail "$what: expected \"$want\", got: $(cat "$tmp/err")"
  [ "$(wc -l <"$tmp/err")" -eq 1 ] || fail "$what: message is not one line: $(cat "$tmp/err")"
}
# size FILE -> "WxH" from the header
size() { "$QVFILTER" info "$1" --json | "$PY" -c 'import json,sys; r=json.load(sys.stdin); print("%dx%d" % (r["width"], r["height"]))'; }
expect_size() { local got; got=$(size "$2"); [ "$got" = "$3" ] || fail "$1: $2 is $got, expected $3"; }

"$QVFILTER" sample "$tmp/s.jpg" --width 600 --height 400 >/dev/null || fail "sample"

# Full-size copies to every format, with the one-line description.
ok "jpg to png" "$QVFILTER" convert "$tmp/s.jpg" "$tmp/full.png" && \
  { [ "$out" = "$tmp/s.jpg (600x400 JPEG) -> $tmp/full.png (600x400 PNG)" ] || fail "description: $out"; }
expect_size "full png" "$tmp/full.png" 600x400
ok "png to webp" "$QVFILTER" convert "$tmp/full.png" "$tmp/full.webp" && \
  { [ "$out" = "$tmp/full.png (600x400 PNG) -> $tmp/full.webp (600x400 WebP)" ] || fail "description: $out"; }
ok "webp to jpeg" "$QVFILTER" convert "$tmp/full.webp" "$tmp/back.JPEG" && \
  { [ "$out" = "$tmp/full.webp (600x400 WebP) -> $tmp/back.JPEG (600x400 JPEG)" ] || fail "description: $out"; }
# A PNG copied to PNG keeps every pixel.
ok "png to png" "$QVFILTER" convert "$tmp/full.png" "$tmp/again.png"
"$PY" -c "
import sys; from PIL import Image, ImageChops
a = Image.open(sys.argv[1]).convert('RGBA'); b = Image.open(sys.argv[2]).convert('RGBA')
sys.exit(0 if ImageChops.difference(a, b).getbbox() is None else 1)" "$tmp/full.png" "$tmp/again.png" || fail "png copy changed pixels"

# Thumbnails: the larger side is bounded, the aspect kept, never enlarged.
ok "thumbnail" "$QVFILTER" convert "$tmp/s.jpg" "$tmp/t.png" --max-size 100 && \
  { [ "$out" = "$tmp/s.jpg (600x400 JPEG) -> $tmp/t.png (100x67 PNG)" ] || fail "description: $out"; }
expect_size "thumbnail" "$tmp/t.png" 100x67
ok "no enlargement" "$QVFILTER" convert "$tmp/s.jpg" "$tmp/t2.jpg" --max-size 5000
expect_size "no enlargement" "$tmp/t2.jpg" 600x400

# Quality: a lower quality makes a smaller JPEG; 100 makes a lossless WebP.
ok "q10" "$QVFILTER" convert "$tmp/full.png" "$tmp/q10.jpg" --quality 10
ok "q95" "$QVFILTER" convert "$tmp/full.png" "$tmp/q95.jpg" --quality 95
[ "$(stat -c %s "$tmp/q10.jpg")" -lt "$(stat -c %s "$tmp/q95.jpg")" ] || fail "quality 10 is not smaller than 95"
ok "lossless webp" "$QVFILTER" convert "$tmp/full.png" "$tmp/lossless.webp" --quality 100
"$PY" -c "
import sys; from PIL import Image, ImageChops
a = Image.open(sys.argv[1]).convert('RGB'); b = Image.open(sys.argv[2]).convert('RGB')
sys.exit(0 if ImageChops.difference(a, b).getbbox() is None else 1)" "$tmp/full.png" "$tmp/lossless.webp" || fail "quality 100 WebP is not lossless"

# Orientation: a 400 x 300 file tagged 6 (rotate 90 clockwise) with a red left half.
"$PY" - "$tmp/rot6.jpg" <<'PY' || fail "could not make the oriented fixture"
import sys
from PIL import Image
im = Image.new("RGB", (400, 300), (0, 0, 255))
im.paste((255, 0, 0), (0, 0, 200, 300))
exif = Image.Exif(); exif[0x0112] = 6
im.save(sys.argv[1], quality=95, exif=exif.tobytes())
PY
ok "oriented full" "$QVFILTER" convert "$tmp/rot6.jpg" "$tmp/upright.png"
expect_size "oriented full" "$tmp/upright.png" 300x400
# Rotated clockwise, the stored left half becomes the top half.
"$PY" -c "
import sys; from PIL import Image
im = Image.open(sys.argv[1]).convert('RGB'); top = im.getpixel((150, 50)); bottom = im.getpixel((150, 350))
sys.exit(0 if top[0] > 200 and top[2] < 60 and bottom[2] > 200 and bottom[0] < 60 else 1)" "$tmp/upright.png" || fail "orientation not applied"
ok "oriented thumbnail" "$QVFILTER" convert "$tmp/rot6.jpg" "$tmp/upright_t.png" --max-size 100
expect_size "oriented thumbnail" "$tmp/upright_t.png" 75x100
ok "no-orient" "$QVFILTER" convert "$tmp/rot6.jpg" "$tmp/stored_t.png" --max-size 100 --no-orient
expect_size "no-orient thumbnail" "$tmp/stored_t.png" 100x75
ok "no-orient full" "$QVFILTER" convert "$tmp/rot6.jpg" "$tmp/stored.png" --no-orient
expect_size "no-orient full" "$tmp/stored.png" 400x300

# Grey and 16-bit inputs stay grey / 16-bit in PNG.
"$PY" -c "
import sys; from PIL import Image
Image.new('L', (30, 20), 77).save(sys.argv[1] + '/grey.png'); Image.new('I;16', (30, 20), 50000).save(sys.argv[1] + '/deep.png')" "$tmp"
ok "grey" "$QVFILTER" convert "$tmp/grey.png" "$tmp/grey_out.png"
"$QVFILTER" info "$tmp/grey_out.png" --json | grep -q '"colorModel": "Gray"' || fail "grey output is not grey"
ok "16 bit" "$QVFILTER" convert "$tmp/deep.png" "$tmp/deep_out.png"
"$QVFILTER" info "$tmp/deep_out.png" --json | grep -q '"depth": 16' || fail "16-bit output is not 16-bit"

# Errors: each a one-line message, a non-zero exit and no output file.
bad "missing input" "no such file: $tmp/none.jpg" "$QVFILTER" convert "$tmp/none.jpg" "$tmp/o.png"
bad "unknown output extension" "unknown output format: $tmp/o.gif (use .png, .jpg, .jpeg or .webp)" \
  "$QVFILTER" convert "$tmp/s.jpg" "$tmp/o.gif"
bad "no output extension" "unknown output format: $tmp/o" "$QVFILTER" convert "$tmp/s.jpg" "$tmp/o"
echo "not an image" >"$tmp/text.jpg"
bad "not an image" "not a JPEG, PNG or WebP image: $tmp/text.jpg" "$QVFILTER" convert "$tmp/text.jpg" "$tmp/o.png"
head -c 5000 "$tmp/s.jpg" >"$tmp/cut.jpg"
bad "truncated jpeg" "cannot decode $tmp/cut.jpg: corrupt JPEG" "$QVFILTER" convert "$tmp/cut.jpg" "$tmp/o.png"
bad "truncated jpeg thumbnail" "cannot decode $tmp/cut.jpg: corrupt JPEG" "$QVFILTER" convert "$tmp/cut.jpg" "$tmp/o.png" --max-size 50
head -c 3000 "$tmp/full.png" >"$tmp/cut.png"
bad "truncated png" "cannot decode $tmp/cut.png: corrupt PNG" "$QVFILTER" convert "$tmp/cut.png" "$tmp/o.jpg"
head -c 2000 "$tmp/full.webp" >"$tmp/cut.webp"
bad "truncated webp" "corrupt WebP" "$QVFILTER" convert "$tmp/cut.webp" "$tmp/o.jpg"
[ ! -e "$tmp/o.png" ] && [ ! -e "$tmp/o.jpg" ] || fail "a failed conversion left an output file"
ls "$tmp" | grep -q partial && fail "a temporary file was left behind"
for v in 0 -5 abc 1.5 ""; do
  bad "max-size '$v'" "--max-size must be a whole number from 1 to 1000000: $v" \
    "$QVFILTER" convert "$tmp/s.jpg" "$tmp/o.png" --max-size "$v"
done
for v in 101 -1 x 50abc; do
  bad "quality '$v'" "--quality must be a number from 0 to 100: $v" "$QVFILTER" convert "$tmp/s.jpg" "$tmp/o.jpg" --quality "$v"
done
bad "unwritable output" "cannot create $tmp/no/such/dir/o.png" "$QVFILTER" convert "$tmp/s.jpg" "$tmp/no/such/dir/o.png"
"$PY" -c "
import struct, sys, zlib
def chunk(t, d): return struct.pack('>I', len(d)) + t + d + struct.pack('>I', zlib.crc32(t + d) & 0xffffffff)
ihdr = struct.pack('>IIBBBBB', 100000, 100000, 8, 2, 0, 0, 0)
open(sys.argv[1], 'wb').write(b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', ihdr) + chunk(b'IDAT', zlib.compress(b'\0' * 10000)) + chunk(b'IEND', b''))" "$tmp/huge.png"
bad "huge header" "over the pixel limit" "$QVFILTER" convert "$tmp/huge.png" "$tmp/o.png" --max-size 100
if "$QVFILTER" convert "$tmp/s.jpg" 2>"$tmp/err" >/dev/null; then fail "convert without an output succeeded"; fi

[ "$failures" -eq 0 ] || { echo "$failures failure(s)" >&2; exit 1; }
echo "imageio_convert: all passed"

#!/usr/bin/env bash
# qvfilter info FILE [--json]: size, orientation, format, colour model, alpha, depth and ICC
# profile from an image's header; clear one-line errors for missing, unknown and damaged files.
set -u
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
tmp="${QV_TEST_TMP:-/tmp}/imageio_info"
rm -rf "$tmp" && mkdir -p "$tmp"
# Runs the host expecting success; the output is in $out.
ok() { local what=$1; shift; out=$("$@" 2>"$tmp/err") || { fail "$what: exit $?: $(cat "$tmp/err")"; return 1; }; }
# Runs the host expecting failure with a message containing $2 on stderr and nothing on stdout.
bad() {
  local what=$1 want=$2; shift 2
  local o; if o=$("$@" 2>"$tmp/err"); then fail "$what: succeeded"; return; fi
  [ -z "$o" ] || fail "$what: stdout not empty: $o"
  grep -qF -- "$want" "$tmp/err" || fail "$what: expected \"$want\", got: $(cat "$tmp/err")"
  [ "$(wc -l <"$tmp/err")" -eq 1 ] || fail "$what: message is not one line: $(cat "$tmp/err")"
}
# Pillow comes from Debian's python3-pil, so Debian's interpreter is preferred.
PY=/usr/bin/python3; [ -x "$PY" ] || PY=python3
json() { "$PY" -c "import json,sys; r=json.loads(sys.argv[1]); sys.exit(0 if ($2) else 1)" "$out" || fail "$1: $2 on $out"; }

ok "sample" "$QVFILTER" sample "$tmp/s.png" --width 300 --height 200
ok "info text" "$QVFILTER" info "$tmp/s.png" && {
  for want in "format:       PNG (public.png)" "size:         300x200" "orientation:  1" "color model:  RGB" \
    "alpha:        no" "depth:        8 bits per component" "ICC profile:  none"; do
    grep -qF -- "$want" <<<"$out" || fail "info text lacks \"$want\": $out"
  done
}
ok "info json" "$QVFILTER" info "$tmp/s.png" --json && {
  json "json keys" 'set(r) == {"path","type","format","width","height","orientation","displayWidth","displayHeight","colorModel","hasAlpha","depth","indexed","progressive","iccProfile","profileName"}'
  json "json values" 'r["width"] == 300 and r["height"] == 200 and r["type"] == "public.png" and r["hasAlpha"] is False and r["depth"] == 8 and r["profileName"] is None'
}

# Files made by Pillow: EXIF orientation, grey, 16-bit, palette with transparency, ICC, progressive.
"$PY" - "$tmp" <<'PY' || fail "could not make the Pillow fixtures"
import sys
from PIL import Image, ImageCms
d = sys.argv[1]
im = Image.new("RGB", (400, 300), (200, 30, 30))
exif = Image.Exif(); exif[0x0112] = 6
im.save(f"{d}/rot6.jpg", quality=90, exif=exif.tobytes())
Image.new("L", (64, 32), 90).save(f"{d}/grey.png")
Image.new("I;16", (16, 8), 40000).save(f"{d}/deep.png")
p = Image.new("P", (10, 10), 1); p.putpalette([0, 0, 0, 255, 0, 0] + [0] * 762); p.save(f"{d}/pal.png", transparency=0)
srgb = ImageCms.ImageCmsProfile(ImageCms.createProfile("sRGB"))
im.save(f"{d}/icc.jpg", icc_profile=srgb.tobytes())
im.save(f"{d}/prog.jpg", progressive=True)
Image.new("RGBA", (20, 10), (1, 2, 3, 128)).save(f"{d}/alpha.webp", lossless=True)
PY

ok "oriented jpeg" "$QVFILTER" info "$tmp/rot6.jpg" --json && \
  json "orientation 6" 'r["orientation"] == 6 and r["width"] == 400 and r["height"] == 300 and r["displayWidth"] == 300 and r["displayHeight"] == 400 and r["format"] == "JPEG"'
ok "oriented jpeg text" "$QVFILTER" info "$tmp/rot6.jpg" && \
  { grep -qF "orientation:  6 (displayed 300x400)" <<<"$out" || fail "orientation line: $out"; }
ok "grey" "$QVFILTER" info "$tmp/grey.png" --json && json "grey" 'r["colorModel"] == "Gray" and r["hasAlpha"] is False'
ok "16 bit" "$QVFILTER" info "$tmp/deep.png" --json && json "depth 16" 'r["depth"] == 16 and r["colorModel"] == "Gray"'
ok "palette" "$QVFILTER" info "$tmp/pal.png" --json && json "palette" 'r["indexed"] is True and r["hasAlpha"] is True and r["colorModel"] == "RGB"'
ok "icc" "$QVFILTER" info "$tmp/icc.jpg" --json && json "icc" 'r["iccProfile"] is True and "sRGB" in r["profileName"]'
ok "progressive" "$QVFILTER" info "$tmp/prog.jpg" --json && json "progressive" 'r["progressive"] is True'
ok "webp" "$QVFILTER" info "$tmp/alpha.webp" --json && json "webp" 'r["type"] == "org.webmproject.webp" and r["hasAlpha"] is True and r["width"] == 20'

# Errors.
bad "missing file" "no such file or filter: $tmp/none.png" "$QVFILTER" info "$tmp/none.png"
bad "missing file json" "no such file or filter: $tmp/none.png" "$QVFILTER" info "$tmp/none.png" --json
echo "just some text" >"$tmp/text.png"
bad "not an image" "not a JPEG, PNG or WebP image: $tmp/text.png" "$QVFILTER" info "$tmp/text.png"
: >"$tmp/empty.jpg"
bad "empty file" "file is empty: $tmp/empty.jpg" "$QVFILTER" info "$tmp/empty.jpg"
bad "directory" "not a regular file: $tmp" "$QVFILTER" info "$tmp"
head -c 20 "$tmp/s.png" >"$tmp/cut.png"
bad "cut header" "corrupt PNG" "$QVFILTER" info "$tmp/cut.png"
# A PNG header claiming 100000 x 100000 pixels.
"$PY" - "$tmp/huge.png" <<'PY'
import struct, sys, zlib
def chunk(t, d): return struct.pack(">I", len(d)) + t + d + struct.pack(">I", zlib.crc32(t + d) & 0xffffffff)
ihdr = struct.pack(">IIBBBBB", 100000, 100000, 8, 6, 0, 0, 0)
open(sys.argv[1], "wb").write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", ihdr) + chunk(b"IDAT", zlib.compress(b"\0" * 1000)) + chunk(b"IEND", b""))
PY
bad "huge header" "image of 100000x100000 pixels is over the pixel limit of 268435456" "$QVFILTER" info "$tmp/huge.png"
if "$QVFILTER" info 2>"$tmp/err" >/dev/null; then fail "info without an argument succeeded"; fi
grep -q "target is required" "$tmp/err" || fail "no argument: $(cat "$tmp/err")"

[ "$failures" -eq 0 ] || { echo "$failures failure(s)" >&2; exit 1; }
echo "imageio_info: all passed"

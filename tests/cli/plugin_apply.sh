#!/bin/bash
# Each of the plug-in's geometry filters applied by the host to a real image file: the output
# geometry (qvfilter apply --extent) and a written file of the expected size.
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/plugin_apply"
rm -rf "$tmp"
mkdir -p "$tmp"
export QV_PLUGIN_PATH=""

# The size of a PNG file, read from its header.
png_size() { python3 -c 'import struct,sys; d=open(sys.argv[1],"rb").read(24); print(*struct.unpack(">II", d[16:24]))' "$1"; }

# A 300 x 200 input: the host's own sample image when it can make one of that size, else a
# plain PNG written here.
in="$tmp/in.png"
"$QVFILTER" sample "$in" --width 300 --height 200 >/dev/null 2>&1
if [ ! -s "$in" ] || [ "$(png_size "$in" 2>/dev/null)" != "300 200" ]; then
  python3 - "$in" <<'PY' || fail "cannot write the input image"
import struct, sys, zlib
w, h = 300, 200
rows = b"".join(b"\0" + bytes(v for x in range(w) for v in (x % 256, y % 256, 128)) for y in range(h))
def chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xffffffff)
png = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", w, h, 8, 2, 0, 0, 0))
png += chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b"")
open(sys.argv[1], "wb").write(png)
PY
fi
[ "$(png_size "$in")" = "300 200" ] || fail "the input is not 300 x 200"

check() {  # check NAME "EXPECTED EXTENT" "EXPECTED FILE SIZE" ARGS...
  local name="$1" extent="$2" size="$3"
  shift 3
  local got
  got=$("$QVFILTER" apply "$in" --extent "$@" 2>"$tmp/err") || fail "$name --extent failed: $(cat "$tmp/err")"
  [ "$got" = "$extent" ] || fail "$name: extent $got, expected $extent"
  "$QVFILTER" apply "$in" "$tmp/$name.png" "$@" 2>"$tmp/err" || fail "$name failed: $(cat "$tmp/err")"
  [ "$(png_size "$tmp/$name.png")" = "$size" ] || fail "$name: file is $(png_size "$tmp/$name.png"), expected $size"
}

check squarecrop "50 0 200 200" "200 200" -f QVFilterSquareCrop
check rotate0 "0 0 300 200" "300 200" -f QVFilterRotate -s inputAngle=0
# The default angle is a slight turn (5 degrees): the bounding box grows, its origin rounds.
check rotatedefault "-17 0 315.85840942752367 225" "316 225" -f QVFilterRotate
check rotate90 "-200 0 200 300" "200 300" -f QVFilterRotate -s inputAngle=1.5707963267948966
check proportional "0 0 300 200" "300 200" -f QVFilterProportionalCrop
# Its inputs are described by their default vectors alone; -s reads them as vectors too.
check proportional_quarter_s "75 50 150 100" "150 100" -f QVFilterProportionalCrop \
  -s "inputExtent=0 0 4 4" -s "inputRectangle=1 1 2 2"
# A quarter-frame rectangle, through a recipe (its inputs carry typed vectors): origin rounded
# up, size down.
cat > "$tmp/proportional.json" <<JSON
{
  "images": {"in": {"file": "$in"}},
  "chain": [
    {"filter": "QVFilterProportionalCrop", "inputs": {
      "inputImage": "@in",
      "inputExtent": {"vector": [0, 0, 4, 4]},
      "inputRectangle": {"vector": [1, 1, 2, 2]}
    }}
  ],
  "output": {"file": "$tmp/proportional_quarter.png"}
}
JSON
out=$("$QVFILTER" run "$tmp/proportional.json" 2>"$tmp/err") || fail "proportional crop recipe failed: $(cat "$tmp/err")"
echo "$out" | tr -d ' \n' | grep -q '"extent":\[75,50,150,100\]' || fail "proportional crop recipe: $out"
[ "$(png_size "$tmp/proportional_quarter.png")" = "150 100" ] || fail "proportional crop recipe: wrong file size"
# Resize: only the width limited to 150, so the image is scaled by one half; a height limit of
# 250 leaves it alone.
got=$("$QVFILTER" apply "$in" --extent -f QVFilterResize -s inputEdge=1 -s inputMaximumExtent=150 2>"$tmp/err") \
  || fail "resize --extent failed: $(cat "$tmp/err")"
read -r x y w h <<<"$got"
python3 -c "import sys; w,h=float(sys.argv[1]),float(sys.argv[2]); sys.exit(0 if abs(w-150)<=1 and abs(h-100)<=1 else 1)" "$w" "$h" \
  || fail "resize: extent $got, expected about 150 x 100"
check resize_unchanged "0 0 300 200" "300 200" -f QVFilterResize -s inputEdge=2 -s inputMaximumExtent=250

# A bad value for one of the plug-in's inputs is a clear error, not a crash.
if "$QVFILTER" apply "$in" "$tmp/bad.png" -f QVFilterRotate -s inputAngle=sideways 2>"$tmp/err"; then
  fail "a bad angle was accepted"
fi
grep -q "inputAngle" "$tmp/err" || fail "no clear message for a bad angle: $(cat "$tmp/err")"
echo "plugin_apply: ok"

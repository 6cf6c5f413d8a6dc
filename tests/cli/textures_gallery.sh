#!/bin/bash
# `qvfilter textures gallery DIR`: a thumbnail per texture and an index.html grouped by tag.
set -u
py=/usr/bin/python3; [ -x "$py" ] || py=python3
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/textures_gallery"
rm -rf "$tmp"
mkdir -p "$tmp"

"$QVFILTER" textures gallery "$tmp/g" --size 96 >"$tmp/out" 2>"$tmp/err" || fail "gallery failed: $(cat "$tmp/err")"
[ -f "$tmp/g/index.html" ] || fail "no index.html"
n=$("$QVFILTER" textures | wc -l)
t=$(ls "$tmp/g/thumbnails" | wc -l)
[ "$n" = "$t" ] || fail "$t thumbnails for $n textures"
for kind in mask composite tile border vignette light-leak paper film-frame; do
  grep -q "<h2>$kind (" "$tmp/g/index.html" || fail "no section for $kind"
done
# Borders keep their transparency (PNG); thumbnails are bounded by --size.
"$py" - "$tmp/g/thumbnails" <<'PY' || fail "thumbnails wrong"
import os, sys
from PIL import Image
d = sys.argv[1]
for f in os.listdir(d):
    im = Image.open(os.path.join(d, f))
    assert max(im.size) <= 96, (f, im.size)
    if f.startswith("border-"):
        assert f.endswith(".png") and im.mode == "RGBA", (f, im.mode)
        assert im.getpixel((im.size[0] // 2, im.size[1] // 2))[3] == 0, f
PY
grep -q 'src="thumbnails/vignette-soft.jpg"' "$tmp/g/index.html" || fail "vignette-soft thumbnail not linked"

# Errors.
"$QVFILTER" textures gallery "$tmp/g2" --size 4 >"$tmp/out" 2>"$tmp/err" && fail "tiny size accepted"
grep -q -- "--size must be between" "$tmp/err" || fail "size message: $(cat "$tmp/err")"
touch "$tmp/file"
"$QVFILTER" textures gallery "$tmp/file/sub" >"$tmp/out" 2>"$tmp/err" && fail "unwritable directory accepted"
grep -q "cannot create" "$tmp/err" || fail "unwritable message: $(cat "$tmp/err")"
"$QVFILTER" textures gallery >"$tmp/out" 2>"$tmp/err" && fail "missing DIR accepted"
echo ok

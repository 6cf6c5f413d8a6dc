#!/usr/bin/env bash
# --fast-shrink on apply, run and batch: a JPEG read only by a large Lanczos downscale is decoded
# at a reduced DCT scale (fewer strips decoded, same output size, pixels close to the full
# decode's); without the flag the full decode; a PNG is decoded in full either way.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch imageio_fast_shrink)
cd "$tmp" || exit 1

"$QVFILTER" sample big.png --width 1600 --height 1200 >/dev/null || fail "sample"
"$QVFILTER" convert big.png big.jpg --quality 90 >/dev/null || fail "convert"

# strips FLAGS... -> the strips the render decoded (QV_STRIP_CACHE_STATS), output size checked
strips() {
  QV_STRIP_CACHE_STATS=1 "$QVFILTER" apply "$@" -f QVFilterResize -s inputMaximumExtent=100 >/dev/null 2>stderr.txt ||
    fail "apply $*: $(cat stderr.txt)"
  sed -n 's/.* \([0-9]*\) of [0-9]* strips decoded.*/\1/p' stderr.txt | head -1
}
full=$(strips big.jpg full.png)
fast=$(strips big.jpg fast.png --fast-shrink)
[ "$full" = 75 ] || fail "full decode: $full strips, expected 75 (1200 rows)"
[ "$fast" = 10 ] || fail "--fast-shrink: $fast strips, expected 10 (150 rows at 1/8)"
[ "$(png_size full.png)" = "100 75" ] || fail "full size $(png_size full.png)"
[ "$(png_size fast.png)" = "100 75" ] || fail "fast size $(png_size fast.png)"
a=$(png_pixel full.png 50 37) b=$(png_pixel fast.png 50 37)
read -r r1 g1 b1 _ <<<"$a"; read -r r2 g2 b2 _ <<<"$b"
for d in $((r1 - r2)) $((g1 - g2)) $((b1 - b2)); do
  [ "${d#-}" -le 3 ] || fail "centre pixel $a with the full decode, $b with --fast-shrink"
done
png=$(strips big.png png.png --fast-shrink)
[ "$png" = 75 ] || fail "a PNG with --fast-shrink decoded $png strips, expected 75"

# run and batch take the flag too
cat >resize.json <<'JSON'
{"images": {"in": {"file": "big.jpg"}},
 "chain": [{"filter": "QVFilterResize", "inputs": {"inputImage": "@in", "inputMaximumExtent": 100}}],
 "output": {"file": "run.png"}}
JSON
QV_STRIP_CACHE_STATS=1 "$QVFILTER" run resize.json --fast-shrink >/dev/null 2>stderr.txt || fail "run: $(cat stderr.txt)"
grep -q " 10 of 10 strips decoded" stderr.txt || fail "run --fast-shrink: $(cat stderr.txt)"
cat >batch.json <<'JSON'
{"chain": [{"filter": "QVFilterResize", "inputs": {"inputMaximumExtent": 100}}]}
JSON
mkdir -p in && cp big.jpg in/
QV_STRIP_CACHE_STATS=1 "$QVFILTER" batch batch.json in -o out --fast-shrink -q >/dev/null 2>stderr.txt ||
  fail "batch: $(cat stderr.txt)"
grep -q " 10 of 10 strips decoded" stderr.txt || fail "batch --fast-shrink: $(cat stderr.txt)"
"$QVFILTER" apply --help | grep -q -- "--fast-shrink" || fail "apply --help does not list --fast-shrink"
finish

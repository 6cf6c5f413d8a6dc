#!/usr/bin/env bash
# Hostile and absurd input at the host's boundary: each is refused (or warned about) with the
# message the user sees, never taken silently, never a crash or a wrong picture.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh" || exit 1
tmp=$(scratch hostile_inputs)
cd "$tmp" || exit 1
in="$QV_SOURCE_DIR/tests/data/photo.png"

# The whole of stderr, exactly, and a failing exit.
expect_message() {
  local what="$1" want="$2"
  shift 2
  local err rc
  err=$("$@" 2>&1 >/dev/null)
  rc=$?
  [ $rc -ne 0 ] || fail "$what: expected a failure, got exit 0"
  [ $rc -lt 128 ] || fail "$what: killed by a signal (exit $rc)"
  [ "$err" = "$want" ] || fail "$what: stderr is \"$err\", expected \"$want\""
}

# Numbers beyond any sensible setting: an unchecked conversion would pick another border type.
expect_message "border type 1e308" \
  "qvfilter: QVFilterBorder: inputBorderType expects a number from -1e15 to 1e15, got 1e+308" \
  "$QVFILTER" apply "$in" o.png -f QVFilterBorder -s inputBorderType=1e308
expect_message "border colour 1e308" \
  "qvfilter: QVFilterBorder: inputColor expects colour components from -1e15 to 1e15, got 1e+308" \
  "$QVFILTER" apply "$in" o.png -f QVFilterBorder -s "inputColor=1e308 0 0 1"
expect_message "border colour -1e308" \
  "qvfilter: QVFilterBorder: inputColor expects colour components from -1e15 to 1e15, got -1e+308" \
  "$QVFILTER" apply "$in" o.png -f QVFilterBorder -s "inputColor=-1e308 0 0 1"
for n in 9223372036854775808 18446744073709551616; do
  cat > "border-$n.json" <<JSON
{"images": {"p": {"color": [0.5, 0.5, 0.5, 1], "extent": [0, 0, 16, 16]}},
 "chain": [{"filter": "QVFilterBorder", "inputs": {"inputImage": "@p", "inputBorderType": $n}}]}
JSON
  expect_message "border type $n in a recipe" \
    "qvfilter: chain step 1 (QVFilterBorder): inputBorderType expects a number from -1e15 to 1e15, got $n" \
    "$QVFILTER" run "border-$n.json"
done

# A generated colour far beyond 1 saturates; it does not overflow into black.
cat > saturated.json <<'JSON'
{"images": {"p": {"color": [1e17, 0.5, 0.5, 1], "extent": [0, 0, 4, 4]}},
 "chain": [{"filter": "CICrop", "inputs": {"inputImage": "@p", "inputRectangle": [0, 0, 4, 4]}}],
 "output": {"probes": [[1, 1]]}}
JSON
if expect_ok "saturated colour" "$QVFILTER" run saturated.json; then
  check_json "saturated colour" "$out" 'r["probes"][0]["rgba"] == [1.0, 0.5, 0.5, 1.0]'
fi

# 4096 probes over a 51-step chain are read from one render, with the values single probes give.
python3 - <<'PY'
import json
chain = [{"filter": "CISourceOverCompositing", "inputs": {"inputImage": "@dot", "inputBackgroundImage": "@plain"}}]
chain += [{"filter": "CIGaussianBlur", "inputs": {"inputRadius": 2}} for _ in range(49)]
chain += [{"filter": "CICrop", "inputs": {"inputRectangle": [0, 0, 64, 64]}}]
recipe = {"images": {"plain": {"color": [0.2, 0.4, 0.6, 1], "extent": [0, 0, 64, 64]},
                     "dot": {"color": [1, 0, 0, 1], "extent": [20, 20, 8, 8]}},
          "chain": chain, "output": {"probes": [[x, y] for y in range(64) for x in range(64)]}}
json.dump(recipe, open("probes.json", "w"))
recipe["output"]["probes"] = [[21, 37]]
json.dump(recipe, open("probe.json", "w"))
PY
timeout 60 "$QVFILTER" run probes.json >probes.out 2>&1 || fail "4096 probes: $(head -c 300 probes.out)"
timeout 60 "$QVFILTER" run probe.json >probe.out 2>&1 || fail "one probe: $(head -c 300 probe.out)"
python3 - <<'PY' || fail "a probe among many differs from the same probe alone"
import json
many = {tuple(p["at"]): p["rgba"] for p in json.load(open("probes.out"))["probes"]}
one = json.load(open("probe.out"))["probes"][0]
assert len(many) == 4096 and many[tuple(one["at"])] == one["rgba"], (one, many.get(tuple(one["at"])))
PY

# Vectors of the wrong length, and empty frames.
expect_message "centre of one value" \
  "qvfilter: CIBumpDistortion: inputCenter expects 2 numbers (\"x y\") (CIVector), got 1 number" \
  "$QVFILTER" apply "$in" o.png -f CIBumpDistortion -s inputCenter=5
expect_message "centre of four values" \
  "qvfilter: CIBumpDistortion: inputCenter expects 2 numbers (\"x y\") (CIVector), got 4 numbers" \
  "$QVFILTER" apply "$in" o.png -f CIBumpDistortion -s "inputCenter=1 2 3 4"
expect_message "crop of one value" \
  "qvfilter: CICrop: inputRectangle expects 4 numbers (\"x y width height\") (CIVector), got 1 number" \
  "$QVFILTER" apply "$in" o.png -f CICrop -s inputRectangle=1
expect_message "crop of three values" \
  "qvfilter: CICrop: inputRectangle expects 4 numbers (\"x y width height\") (CIVector), got 3 numbers" \
  "$QVFILTER" apply "$in" o.png -f CICrop -s "inputRectangle=1 2 3"
expect_message "proportional crop of an empty frame" \
  "qvfilter: QVFilterProportionalCrop: inputExtent expects a rectangle \"x y width height\" with a width and a height above 0, got \"0 0 0 0\"" \
  "$QVFILTER" apply "$in" o.png -f QVFilterProportionalCrop -s "inputExtent=0 0 0 0"
[ -e o.png ] && fail "a refused apply wrote o.png"

# A filter whose inputs make no image names them.
expect_message "shine light source 3" \
  "qvfilter: QVFilterShineStraight produced no image: inputLightSource 3 lies outside 0 to 2" \
  "$QVFILTER" apply "$in" o.png -f QVFilterShineStraight -s inputLightSource=3

# Options.
expect_message "quality nan" "qvfilter: --quality must be a number from 0 to 100: nan" \
  "$QVFILTER" apply "$in" o.png --quality nan -f CICrop
expect_message "Lanczos scale 1e5" \
  "qvfilter: the output image of 32000000x24000000 pixels is more than the limit of 1073741824" \
  "$QVFILTER" apply "$in" o.png -f CILanczosScaleTransform -s inputScale=1e5
out=$("$QVFILTER" apply "$in" --extent -f CILanczosScaleTransform -s inputScale=1e5 2>&1)
[ "$out" = "0 0 32000000 24000000" ] || fail "Lanczos 1e5 extent: $out"

# A render that fails on a region of interest names the step the user asked for, not an
# internal node.
expect_message "transform of 1e-12" \
  "qvfilter: cannot write o.png: CIAffineTransform with inputTransform=1e-12 0 0 1e-12 0 0 needs more of its input than can be rendered" \
  "$QVFILTER" apply "$in" o.png -f CIAffineTransform -s "inputTransform=1e-12 0 0 1e-12 0 0"

# File names with a NUL inside, from a recipe.
printf '{"images": {"p": {"color": [1, 0, 0, 1], "extent": [0, 0, 4, 4]}},\n "chain": [{"filter": "CICrop", "inputs": {"inputImage": "@p"}}], "output": {"file": "a.png\\u0000.txt"}}\n' > nul-out.json
expect_message "NUL in an output name" \
  'qvfilter: recipe "output": "file": a file name cannot contain a NUL character' "$QVFILTER" run nul-out.json
[ -e a.png ] && fail "a NUL in the output name wrote a.png"
cp "$in" photo.png
printf '{"images": {"p": {"file": "photo.png\\u0000.jpg"}}, "chain": [{"filter": "CICrop", "inputs": {"inputImage": "@p"}}]}\n' > nul-in.json
expect_message "NUL in an input name" \
  'qvfilter: image "p": "file": a file name cannot contain a NUL character' "$QVFILTER" run nul-in.json

# A JSON number beyond a double, with its place.
printf '{"images": {"p": {"color": [1, 0, 0, 1], "extent": [0, 0, 4, 4]}},\n "chain": [{"filter": "CICrop", "inputs": {"inputImage": "@p", "inputRectangle": [0, 0, 1e999, 4]}}]}\n' > overflow.json
expect_message "JSON number overflow" \
  "qvfilter: malformed recipe JSON at line 2, column 89: a number too large for a double" "$QVFILTER" run overflow.json

# Unreadable input: the reason, not "not an image".
cp "$in" unreadable.png
chmod 000 unreadable.png
as_user=()
[ "$(id -u)" -eq 0 ] && as_user=(setpriv --reuid=65534 --regid=65534 --clear-groups)
expect_message "unreadable input" "qvfilter: cannot read image file $tmp/unreadable.png: permission denied" \
  "${as_user[@]}" "$QVFILTER" apply "$tmp/unreadable.png" "$tmp/o.png" -f CICrop

# A header-only PNG: the input is named with the decoder's reason.
python3 - <<'PY'
import struct, zlib
def chunk(t, d): return struct.pack('>I', len(d)) + t + d + struct.pack('>I', zlib.crc32(t + d) & 0xffffffff)
open('wide.png', 'wb').write(b'\x89PNG\r\n\x1a\n' + chunk(b'IHDR', struct.pack('>IIBBBBB', 1000000, 1, 8, 2, 0, 0, 0)))
PY
expect_message "header-only PNG" "qvfilter: cannot read image file wide.png: corrupt PNG: file is truncated" \
  "$QVFILTER" apply wide.png o.png -f CICrop

# A filter-name input that names no filter of its view's category: a warning, and the plug-in's
# documented behaviour (the input comes back).
for name in CICrop CIAffineTile CIConstantColorGenerator; do
  err=$("$QVFILTER" apply "$in" blur.png -f QVFilterBlur -s "inputBlurFilterName=$name" 2>&1 >/dev/null) \
    || fail "blur name \"$name\" failed: $err"
  [ "$err" = "qvfilter: warning: QVFilterBlur: inputBlurFilterName \"$name\" is no filter of CICategoryBlur" ] \
    || fail "blur name \"$name\": stderr is \"$err\""
done
for name in NoSuchFilter ""; do
  err=$("$QVFILTER" apply "$in" blur.png -f QVFilterBlur -s "inputBlurFilterName=$name" 2>&1 >/dev/null) \
    || fail "blur name \"$name\" failed: $err"
  [ "$err" = "qvfilter: warning: QVFilterBlur: inputBlurFilterName \"$name\" names no filter; the filter leaves the picture as it is" ] \
    || fail "blur name \"$name\": stderr is \"$err\""
done
err=$("$QVFILTER" apply "$in" blur.png -f QVFilterBlur -s inputBlurFilterName=CIBoxBlur 2>&1 >/dev/null) \
  || fail "a blur name failed: $err"
[ -z "$err" ] || fail "a blur name warned: $err"

# Texture identifiers of another catalogue.
expect_message "texture of another bundle" \
  "qvfilter: x-qvfilter-texture://com.example.other/fabric-linen names no texture or tag of this catalogue (org.qvfilter.filters.imageunits)" \
  "$QVFILTER" textures resolve x-qvfilter-texture://com.example.other/fabric-linen
expect_message "texture below another path" \
  "qvfilter: x-qvfilter-texture://org.qvfilter.filters.imageunits/x/paper-kraft names no texture or tag of this catalogue (org.qvfilter.filters.imageunits)" \
  "$QVFILTER" textures resolve x-qvfilter-texture://org.qvfilter.filters.imageunits/x/paper-kraft

# A texture index over the property-list size cap says so (a sparse file: no disk used).
bundle="$(cd "$(dirname "$QVFILTER")/../lib/qvfilter/QVFilterImageUnits.plugin" && pwd)"
mkdir -p big.plugin/Resources
cp "$bundle/Info.plist" big.plugin/
truncate -s 65M big.plugin/Resources/TextureIndex.plist
expect_message "oversized texture index" \
  "qvfilter: cannot read the texture index: Resources/TextureIndex.plist is larger than the limit of 64 MB for a property list" \
  "$QVFILTER" textures --bundle big.plugin

# A kernel check of a FIFO would block in open forever.
mkfifo kernel.fifo
expect_message "kernel check of a FIFO" "qvfilter: cannot read kernel.fifo: not a regular file" \
  timeout 10 "$QVFILTER" kernel check kernel.fifo

# A PNG whose text chunk claims 2 GB is refused before anything is allocated for it.
python3 - <<'PY'
import struct, zlib
def chunk(t, d): return struct.pack('>I', len(d)) + t + d + struct.pack('>I', zlib.crc32(t + d) & 0xffffffff)
ihdr = chunk(b'IHDR', struct.pack('>IIBBBBB', 1, 1, 8, 2, 0, 0, 0))
open('text2g.png', 'wb').write(b'\x89PNG\r\n\x1a\n' + ihdr + struct.pack('>I', 0x7fff0000) + b'tEXt' + b'abc')
PY
expect_message "2 GB text chunk" \
  "qvfilter: cannot read text2g.png: corrupt PNG: chunk tEXt claims 2147418112 bytes but the file has 3 left" \
  "$QVFILTER" convert text2g.png o.png
/usr/bin/time -o rss.txt -f "%M" "$QVFILTER" convert text2g.png o.png >/dev/null 2>&1
rss=$(tail -1 rss.txt)
[ "$rss" -lt 200000 ] || fail "the 2 GB text chunk used $rss KB"

finish hostile_inputs

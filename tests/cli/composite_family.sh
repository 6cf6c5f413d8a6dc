#!/bin/bash
# The mask and composite filters in the host: texture inputs set by identifier or tag key from
# `apply` and from recipes, `info` listing the textures and tags a texture input accepts, and a
# warning on stderr (with the output still written) for a texture name, tag or operation that
# the filter would silently ignore.
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/composite_family"
rm -rf "$tmp"
mkdir -p "$tmp"
export QV_PLUGIN_PATH=""
id=org.qvfilter.filters.imageunits
photo="$QV_SOURCE_DIR/tests/data/photo.png"
png_size() { python3 -c 'import struct,sys; d=open(sys.argv[1],"rb").read(24); print(*struct.unpack(">II", d[16:24]))' "$1"; }

# Every family filter applies with its defaults, silently.
for f in QVFilterColorComposite QVFilterBlurComposite QVFilterNoiseComposite QVFilterTextureComposite \
         QVFilterTextureTile QVFilterTextureBorder QVFilterGradientComposite QVFilterOffsetComposite \
         QVFilterScaleComposite; do
  "$QVFILTER" apply "$photo" "$tmp/$f.png" -f "$f" >"$tmp/out" 2>"$tmp/err" || fail "$f failed: $(cat "$tmp/err")"
  [ -s "$tmp/$f.png" ] || fail "$f wrote nothing"
  grep -q warning "$tmp/err" && fail "$f warned with its defaults: $(cat "$tmp/err")"
done
[ "$(png_size "$tmp/QVFilterOffsetComposite.png")" = "311 240" ] || fail "offset output $(png_size "$tmp/QVFilterOffsetComposite.png")"

# A tag key picks a texture of the tag: the output differs from the input, without a warning.
"$QVFILTER" apply "$photo" "$tmp/tile.png" -f QVFilterTextureTile -s "inputTextureName=x-qvfilter-tag://$id/paper" \
  -s inputCompositeAlpha=1 -s inputCompositeFilterName=CIMultiplyBlendMode >"$tmp/out" 2>"$tmp/err" \
  || fail "tag key: $(cat "$tmp/err")"
grep -q warning "$tmp/err" && fail "tag key warned: $(cat "$tmp/err")"
cmp -s "$tmp/tile.png" "$tmp/QVFilterTextureTile.png" && fail "the paper tag gave the canvas default"
"$QVFILTER" apply "$photo" "$tmp/leak.png" -f QVFilterTextureComposite \
  -s "inputTextureName=x-qvfilter-texture://$id/light-leak-sunrise" 2>"$tmp/err" || fail "identifier: $(cat "$tmp/err")"
[ -s "$tmp/leak.png" ] || fail "identifier wrote nothing"

# Names the filters would ignore: a warning each, and the output is still written.
"$QVFILTER" apply "$photo" "$tmp/w1.png" -f QVFilterTextureComposite -s "inputTextureName=x-qvfilter-tag://$id/no-such-tag" \
  >"$tmp/out" 2>"$tmp/err" || fail "unknown tag failed: $(cat "$tmp/err")"
grep -q 'warning: QVFilterTextureComposite: inputTextureName ".*no-such-tag" is a tag that no texture' "$tmp/err" \
  || fail "unknown tag: $(cat "$tmp/err")"
[ -s "$tmp/w1.png" ] || fail "unknown tag: no output"
"$QVFILTER" apply "$photo" "$tmp/w2.png" -f QVFilterTextureBorder -s "inputTextureName=x-qvfilter-texture://$id/no-such-frame" \
  >"$tmp/out" 2>"$tmp/err" || fail "unknown texture failed: $(cat "$tmp/err")"
grep -q 'inputTextureName ".*no-such-frame" names no texture of the catalogue' "$tmp/err" || fail "unknown texture: $(cat "$tmp/err")"
[ "$(png_size "$tmp/w2.png")" = "320 240" ] || fail "unknown texture: the input should come back"
"$QVFILTER" apply "$photo" "$tmp/w3.png" -f QVFilterTextureTile -s "inputTextureName=two words" 2>"$tmp/err" || fail "not a URL failed"
grep -q 'is not a URL' "$tmp/err" || fail "not a URL: $(cat "$tmp/err")"
# A name of another scheme would make the filter assert: the host refuses it clearly.
"$QVFILTER" apply "$photo" "$tmp/w6.png" -f QVFilterTextureTile -s "inputTextureName=canvas" >"$tmp/out" 2>"$tmp/err" \
  && fail "a bare word was taken as a texture name"
grep -q 'QVFilterTextureTile: inputTextureName "canvas" is neither a texture identifier (x-qvfilter-texture://...) nor a tag key' \
  "$tmp/err" || fail "bare word: $(cat "$tmp/err")"
[ -e "$tmp/w6.png" ] && fail "bare word: an output was written"
"$QVFILTER" apply "$photo" "$tmp/w4.png" -f QVFilterGradientComposite -s inputCompositeFilterName=CINoSuchBlend \
  >"$tmp/out" 2>"$tmp/err" || fail "unknown operation failed: $(cat "$tmp/err")"
grep -q 'inputCompositeFilterName "CINoSuchBlend" names no filter' "$tmp/err" || fail "unknown operation: $(cat "$tmp/err")"
[ -s "$tmp/w4.png" ] || fail "unknown operation: no output"
"$QVFILTER" apply "$photo" "$tmp/w5.png" -f QVFilterColorComposite -s "inputMaskTextureName=x-qvfilter-tag://$id/nope" \
  2>"$tmp/err" || fail "unknown mask tag failed"
grep -q 'inputMaskTextureName' "$tmp/err" || fail "unknown mask tag: $(cat "$tmp/err")"

# The same from a recipe, with the step named in the warning.
cat >"$tmp/recipe.json" <<JSON
{"images": {"photo": {"file": "$photo"}},
 "chain": [{"filter": "QVFilterNoiseComposite", "inputs": {"inputImage": "@photo", "inputCompositeFilterName": "CINope"}},
           {"filter": "QVFilterTextureTile", "inputs": {"inputTextureName": "x-qvfilter-tag://$id/fabric"}},
           {"filter": "QVFilterTextureComposite", "inputs": {"inputTextureName": "x-qvfilter-tag://$id/none"}}],
 "output": {"file": "$tmp/recipe.png"}}
JSON
"$QVFILTER" run "$tmp/recipe.json" >"$tmp/out" 2>"$tmp/err" || fail "recipe failed: $(cat "$tmp/err")"
[ -s "$tmp/recipe.png" ] || fail "recipe wrote nothing"
[ "$(grep -c warning "$tmp/err")" = 2 ] || fail "recipe warnings: $(cat "$tmp/err")"
grep -q 'chain step 1: .*inputCompositeFilterName "CINope"' "$tmp/err" || fail "recipe step 1: $(cat "$tmp/err")"
grep -q 'chain step 3: .*inputTextureName' "$tmp/err" || fail "recipe step 3: $(cat "$tmp/err")"

# info lists what a texture input accepts: the catalogue's identifiers and tag keys.
"$QVFILTER" info QVFilterTextureTile >"$tmp/info" 2>"$tmp/err" || fail "info failed: $(cat "$tmp/err")"
grep -q "inputTextureName accepts a texture identifier" "$tmp/info" || fail "info: no texture list"
grep -q "x-qvfilter-texture://$id/fabric-canvas  (Artist Canvas)" "$tmp/info" || fail "info: no canvas"
grep -q "inputMaskTextureName accepts a tag key" "$tmp/info" || fail "info: no mask tags"
grep -qx "  x-qvfilter-tag://$id/tile" "$tmp/info" || fail "info: no tile tag"
"$QVFILTER" info QVFilterTextureBorder --json >"$tmp/info.json" || fail "info --json failed"
python3 - "$tmp/info.json" "$id" <<'PY' || fail "info --json: texture choices"
import json, sys
d = json.load(open(sys.argv[1]))
c = d["textureChoices"]["inputTextureName"]
ids = [t["identifier"] for t in c["textures"]]
assert "x-qvfilter-texture://%s/border-deckle-white" % sys.argv[2] in ids, ids
assert {"tag": "border", "key": "x-qvfilter-tag://%s/border" % sys.argv[2]} in c["tags"], c["tags"]
assert d["inputKeys"] == ["inputImage", "inputTextureName", "inputTextureIdentifier",
                          "inputTextureShouldMatchInputImageOrientation"], d["inputKeys"]
PY
"$QVFILTER" info QVFilterBorder --json | python3 -c 'import json,sys; assert "textureChoices" not in json.load(sys.stdin)' \
  || fail "info lists textures for a filter without texture inputs"
echo ok

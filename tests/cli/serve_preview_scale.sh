#!/usr/bin/env bash
# qvfilter serve: a preview is rendered from a reduced decode of the picture, and inputs
# measured in picture pixels (a border's width, a blur's radius, a position) are reduced with
# it, so that the preview looks like the full-size result scaled down. The session's values,
# the exported recipe and the full-size export keep the values the user set.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch serve_preview_scale)
cd "$tmp" || exit 1

start_server
trap 'kill "$server" 2>/dev/null' EXIT

# post PATH JSON: the answer's body in body.json; fails the test on an HTTP error.
post() {
  local status
  status=$(curl -s -o body.json -w '%{http_code}' --max-time 60 -H 'Content-Type: application/json' -d "$2" "$S$1")
  [ "${status:0:1}" = 2 ] || fail "POST $1 $2: HTTP $status: $(head -c 400 body.json)"
}
json_field() { python3 -c "import json,sys; print(json.load(open('body.json'))$1)"; }

"$QVFILTER" sample photo.png --width 2400 --height 1600 >/dev/null || { fail "sample"; exit 1; }
curl -s -o body.json -X POST -d "" "$base/api/sessions"
S="$base/api/sessions/$(json_field '["session"]')"
curl -s -o body.json -H "Content-Type: application/octet-stream" --data-binary @photo.png "$S/image?name=photo.png"
[ "$(json_field '["image"]["width"]')" = 2400 ] || { fail "the picture did not open: $(cat body.json)"; exit 1; }

# compare NAME FILTER KEY=VALUE...: the preview at 600 pixels (a quarter of the picture) of
# one step against the full-size `qvfilter apply` of the same step reduced four times.
compare() {
  local name="$1" filter="$2"
  shift 2
  post /recipe "{\"chain\": []}"
  post /steps "{\"filter\": \"$filter\"}"
  local step
  step=$(json_field '["step"]')
  local sets=()
  for kv in "$@"; do
    post "/steps/$step/edit" "{\"key\": \"${kv%%=*}\", \"value\": \"${kv#*=}\"}"
    sets+=(-s "$kv")
  done
  local headers
  headers=$(curl -s -D - -o "$name-preview.img" "$S/preview?size=600")
  local scale
  scale=$(printf '%s' "$headers" | tr -d '\r' | sed -n 's/^X-Preview-Scale: //Ip')
  python3 -c "import sys; assert abs(float('$scale') - 0.25) < 1e-6" || fail "$name: preview scale $scale, expected 0.25"
  # The session's values stay those the user set.
  curl -s -o body.json "$S/steps/$step"
  for kv in "$@"; do
    python3 -c "
import json, re; v = json.load(open('body.json'))['view']['inputs']['${kv%%=*}']
want = [float(x) for x in '${kv#*=}'.split()]
got = [float(x) for x in re.findall(r'-?[0-9.]+(?:e[-+]?[0-9]+)?', json.dumps(v))]
assert got == want, (v, want)" || fail "$name: the session's ${kv%%=*} changed"
  done
  "$QVFILTER" apply photo.png "$name-full.png" -f "$filter" "${sets[@]}" >/dev/null 2>apply.err ||
    { fail "$name: qvfilter apply: $(cat apply.err)"; return; }
  "$PIL_PYTHON" - "$name" "$name-preview.img" "$name-full.png" <<'EOF' || fail "$name: the preview is not the full-size result scaled down"
import sys
from PIL import Image, ImageChops, ImageStat
name, preview_path, full_path = sys.argv[1:4]
preview = Image.open(preview_path).convert("RGB")
full = Image.open(full_path).convert("RGB")
reduced = full.resize(preview.size, Image.LANCZOS)
diff = ImageStat.Stat(ImageChops.difference(preview, reduced)).mean
mean = sum(diff) / 3
print(f"{name}: preview {preview.size}, full {full.size}, mean difference {mean:.2f} / 255")
# JPEG encoding of the preview and a different reduction of the source leave a little;
# distances left at full size (four times too large in the preview) leave far more.
sys.exit(0 if mean < 3.0 else 1)
EOF
}

compare border QVFilterBorder inputWidth=80
compare blur QVFilterBlur inputRadius=24
compare unsharp QVFilterUnsharpMask inputRadius=20 inputIntensity=1.5
compare bump CIBumpDistortion "inputCenter=1200 800" inputRadius=600 inputScale=1

# An image input (a watermark placed in picture pixels) is reduced with the picture too.
"$QVFILTER" sample mark.png --width 600 --height 300 >/dev/null
post /recipe '{"chain": []}'
post /steps '{"filter": "QVFilterWatermark"}'
step=$(json_field '["step"]')
status=$(curl -s -o body.json -w '%{http_code}' -H 'Content-Type: application/octet-stream' --data-binary @mark.png \
  "$S/steps/$step/image?control=0.3&name=mark.png")
[ "$status" = 200 ] || fail "the watermark upload: HTTP $status: $(head -c 300 body.json)"
curl -s -o watermark-preview.img "$S/preview?size=600"
"$QVFILTER" apply photo.png watermark-full.png -f QVFilterWatermark -s inputWatermarkImage=mark.png >/dev/null 2>apply.err ||
  fail "watermark: qvfilter apply: $(cat apply.err)"
"$PIL_PYTHON" - watermark watermark-preview.img watermark-full.png <<'EOF2' || fail "watermark: the preview is not the full-size result scaled down"
import sys
from PIL import Image, ImageChops, ImageStat
name, preview_path, full_path = sys.argv[1:4]
preview = Image.open(preview_path).convert("RGB")
reduced = Image.open(full_path).convert("RGB").resize(preview.size, Image.LANCZOS)
mean = sum(ImageStat.Stat(ImageChops.difference(preview, reduced)).mean) / 3
print(f"{name}: preview {preview.size}, mean difference {mean:.2f} / 255")
sys.exit(0 if mean < 3.0 else 1)
EOF2

# The recipe and the full-size export keep the full-size values.
post /recipe '{"chain": []}'
post /steps '{"filter": "QVFilterBorder"}'
step=$(json_field '["step"]')
post "/steps/$step/edit" '{"key": "inputWidth", "value": "80"}'
curl -s -o /dev/null "$S/preview?size=600"
curl -s -o recipe.json "$S/recipe?format=png"
python3 -c "import json; assert json.load(open('recipe.json'))['chain'][0]['inputs']['inputWidth'] == 80" ||
  fail "the recipe's inputWidth is not the value set: $(cat recipe.json)"

[ $failures -eq 0 ] && echo "serve_preview_scale: all passed" && exit 0
exit 1

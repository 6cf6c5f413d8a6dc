#!/usr/bin/env bash
# qvfilter serve: a preview being rendered stops when a newer one is asked for (it is answered
# 204, superseded, without rendering to the end: the render is stopped between tiles), and
# the newer one is rendered.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch serve_preview_cancel)
cd "$tmp" || exit 1

start_server
trap 'kill "$server" 2>/dev/null' EXIT
json_field() { python3 -c "import json,sys; print(json.load(open('body.json'))$1)"; }

"$QVFILTER" sample photo.jpg --width 2400 --height 1600 >/dev/null
curl -s -o body.json -X POST -d '' "$base/api/sessions"
S="$base/api/sessions/$(json_field '["session"]')"
curl -s -o body.json -H 'Content-Type: application/octet-stream' --data-binary @photo.jpg "$S/image?name=photo.jpg"
# A slow chain whose work is spread evenly over the picture: ten bump distortions, rendered
# at 2048 pixels.
python3 - >recipe.json <<'EOF2'
import json
step = {"filter": "CIBumpDistortion", "inputs": {"inputCenter": [1200, 800], "inputRadius": 1500, "inputScale": 0.3}}
print(json.dumps({"chain": [step] * 10}))
EOF2
curl -s -o body.json --data-binary @recipe.json "$S/recipe"
[ "$(python3 -c "import json; print(len(json.load(open('body.json'))['steps']))")" = 10 ] || fail "the chain: $(head -c 300 body.json)"

# How long the slow preview takes alone.
alone=$(curl -s -o alone.img -w '%{http_code} %{time_total}' "$S/preview?size=2048")
[ "${alone%% *}" = 200 ] || fail "the preview alone: HTTP ${alone%% *}"
seconds=${alone##* }

# The same preview, and a newer one asked for a fifth of that time later.
curl -s -o first.img -w '%{http_code} %{time_total}' "$S/preview?size=2048" >first.txt &
first=$!
sleep "$(python3 -c "print(max(0.05, $seconds / 5))")"
second=$(curl -s -o second.img -w '%{http_code}' "$S/preview?size=2048")
wait "$first"
read -r first_status first_time <first.txt
[ "$first_status" = 204 ] || fail "the preview overtaken while it rendered: HTTP $first_status, expected 204 (superseded)"
[ "$second" = 200 ] || fail "the newer preview: HTTP $second"
cmp -s alone.img second.img || fail "the newer preview differs from the same preview rendered alone"
python3 -c "import sys; sys.exit(0 if $first_time < 0.8 * $seconds else 1)" ||
  fail "the overtaken preview took ${first_time} s, the whole render takes ${seconds} s: it was not stopped"
echo "preview alone ${seconds} s; overtaken after ${first_time} s"

[ $failures -eq 0 ] && echo "serve_preview_cancel: all passed" && exit 0
exit 1

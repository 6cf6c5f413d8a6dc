#!/usr/bin/env bash
# qvfilter serve: the HTTP API answers hostile and malformed requests with a 4xx and a JSON
# reason, keeps serving afterwards, stays on loopback names, and stops cleanly on Ctrl-C.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch serve_api)
cd "$tmp" || exit 1

start_server

# check STATUS DESCRIPTION CURL-ARGS...: the answer has that status and, for errors, a JSON
# body with a non-empty "error"; the body is left in $body.
check() {
  local want="$1" what="$2"
  shift 2
  local status
  status=$(curl -s -o body.json -w '%{http_code}' --max-time 30 -H 'Content-Type: application/octet-stream' "$@")
  body=$(head -c 2000 body.json | tr -d '\0')
  if [ "$status" != "$want" ]; then
    fail "$what: HTTP $status, expected $want: $body"
    return 1
  fi
  if [ "$want" -ge 400 ] && ! python3 -c 'import json,sys; e=json.load(open("body.json"))["error"]; assert isinstance(e,str) and e' 2>/dev/null; then
    fail "$what: no JSON reason: $body"
    return 1
  fi
  return 0
}
reason() { python3 -c 'import json; print(json.load(open("body.json"))["error"])'; }
expect_reason() {
  case "$(reason)" in *"$2"*) ;; *) fail "$1: reason \"$(reason)\" lacks \"$2\"" ;; esac
}

check 200 "the page" "$base/"
check 201 "a session" -X POST -d '' "$base/api/sessions"
s=$(python3 -c 'import json; print(json.load(open("body.json"))["session"])')
S="$base/api/sessions/$s"

check 404 "unknown session" "$base/api/sessions/0123456789abcdef/steps/1"
check 404 "unknown route" "$base/api/nothing"
check 409 "preview before a picture" "$S/preview?size=512"
check 400 "malformed JSON" -d '{"filter":' "$S/steps"
check 400 "JSON that is not an object" -d '[1,2,3]' "$S/steps"
python3 -c 'print("[" * 200000)' >deep.json
check 400 "deep nesting" --data-binary @deep.json "$S/steps" && expect_reason "deep nesting" "nested too deeply"
check 404 "unknown filter" -d '{"filter":"NoSuchFilter"}' "$S/steps" && expect_reason "unknown filter" "NoSuchFilter"
check 400 "filter name of the wrong type" -d '{"filter":12}' "$S/steps"
check 404 "edit of a missing step" -d '{"key":"inputRadius","value":"3"}' "$S/steps/7/edit"
check 400 "a step number too large" -d '{"key":"inputRadius","value":"3"}' "$S/steps/99999999999/edit"

# Uploads: text, a truncated JPEG, an empty body.
printf 'this is not an image\n' >text.txt
check 415 "a text upload" --data-binary @text.txt "$S/image?name=notes.jpg" && expect_reason "a text upload" "not an image"
check 400 "an empty upload" -X POST -d '' "$S/image?name=empty.png"
"$QVFILTER" sample whole.jpg --width 640 --height 480 >/dev/null
head -c 3000 whole.jpg >half.jpg
if check 200 "a truncated JPEG opens (its header is whole)" --data-binary @half.jpg "$S/image?name=half.jpg"; then
  check 422 "the truncated JPEG's preview" "$S/preview?size=512"
fi
check 200 "a whole JPEG" --data-binary @whole.jpg "$S/image?name=../../whole.jpg"
check 200 "its preview" "$S/preview?size=512"
[ -e "$tmp/whole.jpg" ] && [ ! -e "$QV_TEST_TMP/whole.jpg" ] || fail "an upload name left the session's folder"

# A truncated request body: the connection closes early, the server goes on.
python3 - "$base" "$s" <<'EOF'
import socket, sys, urllib.parse
u = urllib.parse.urlparse(sys.argv[1])
c = socket.create_connection((u.hostname, u.port), timeout=5)
c.sendall(f"POST /api/sessions/{sys.argv[2]}/image?name=x.jpg HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 100000\r\n\r\n".encode() + b"\xff\xd8\xff" * 10)
c.close()
EOF

check 201 "a step" -d '{"filter":"QVFilterBlur"}' "$S/steps"
step=$(python3 -c 'import json; print(json.load(open("body.json"))["step"])')
T="$S/steps/$step"
check 404 "unknown input key" -d '{"key":"inputNope","value":"1"}' "$T/edit" && expect_reason "unknown input key" "inputNope"
check 400 "the chain's own input" -d '{"key":"inputImage","value":"x.png"}' "$T/edit"
check 400 "a huge number" -d '{"key":"inputRadius","value":"1e400"}' "$T/edit"
check 400 "a huge JSON number" -d '{"key":"inputRadius","value":1e400}' "$T/edit"
check 400 "text for a number" -d '{"key":"inputRadius","value":"wide"}' "$T/edit"
check 400 "a control path with huge indices" -d '{"control":[0,99999999999],"value":"1"}' "$T/edit"
check 400 "a control path of the wrong type" -d '{"control":"0.1","value":"1"}' "$T/edit"
check 404 "a control that is not there" -d '{"control":[0,40],"value":"1"}' "$T/edit"
check 400 "a slider value out of its range" -d '{"control":[0,1],"value":"5000"}' "$T/edit" && expect_reason "out of range" "range"
check 400 "an item index past the menu" -d '{"control":[0,4],"index":100000}' "$T/edit"
check 400 "an item index for a slider" -d '{"control":[0,1],"index":1}' "$T/edit"
check 400 "an edit without a value" -d '{"control":[0,1]}' "$T/edit"
check 200 "a good edit" -d '{"control":[0,1],"value":"12"}' "$T/edit"
python3 -c 'import json; r=json.load(open("body.json")); assert r["view"]["inputs"]["inputRadius"] == 12, r["view"]["inputs"]' ||
  fail "the slider's edit did not reach inputRadius"
check 400 "a move to a negative place" -d '{"position":-1}' "$T/move"
check 400 "a move past the end" -d '{"position":5}' "$T/move"
check 400 "enabled of the wrong type" -d '{"enabled":"yes"}' "$T/enabled"
# An image input is set by an upload into the session only: a file named in an edit, by the
# input's key or by the image well's place, is not opened.
check 201 "a step with an image input" -d '{"filter":"CISourceOverCompositing"}' "$S/steps"
I="$S/steps/$(python3 -c 'import json; print(json.load(open("body.json"))["step"])')"
check 400 "an image input named by a file path" -d "{\"key\":\"inputBackgroundImage\",\"value\":\"$tmp/whole.jpg\"}" "$I/edit" &&
  expect_reason "an image input named by a file path" "uploaded"
check 400 "an image well given a file path" -d "{\"control\":[0,3],\"value\":\"$tmp/whole.jpg\"}" "$I/edit"
check 200 "the same image uploaded into the well" --data-binary @whole.jpg "$I/image?control=0.3&name=back.jpg"
python3 -c 'import json; r=json.load(open("body.json")); assert r["view"]["inputs"]["inputBackgroundImage"], r["view"]["inputs"]' ||
  fail "the upload did not set inputBackgroundImage"
check 200 "the image step removed" -X DELETE "$I"
check 400 "preview size that is not a number" "$S/preview?size=nan"
check 200 "preview size far too large is bounded" "$S/preview?size=1e308"

# Previews asked for while one renders: the waiting ones give way to the newest (204), which
# is rendered.
check 200 "a slow step" -d '{"key":"inputRadius","value":"60"}' "$T/edit"
pids=()
for i in 1 2 3 4 5; do
  curl -s -o /dev/null -w '%{http_code}\n' "$S/preview?size=2048" >"preview-$i.status" &
  pids+=($!)
  [ "$i" = 1 ] && sleep 0.05
done
wait "${pids[@]}"
# The four sent together arrive in any order; the last to arrive is the one rendered.
superseded=$(cat preview-[2-5].status | grep -c 204)
rendered=$(cat preview-[2-5].status | grep -c 200)
[ "$superseded" -ge 1 ] || fail "no waiting preview was superseded: $(cat preview-*.status | tr '\n' ' ')"
[ "$rendered" -ge 1 ] || fail "the newest preview was not rendered: $(cat preview-*.status | tr '\n' ' ')"

# Textures: only identifiers of the catalogue.
check 404 "a texture path" "$base/api/textures/thumbnail?id=../../Info.plist"
check 404 "a texture identifier that leaves the folder" \
  "$base/api/textures/thumbnail?id=x-qvfilter-texture://org.qvfilter.filters.imageunits/..%2F..%2FInfo.plist"
check 400 "a thumbnail without id" "$base/api/textures/thumbnail"
check 404 "a path outside the page" --path-as-is "$base/../../etc/passwd"

# Recipes and exports.
check 400 "a malformed recipe" -d '{"chain": [' "$S/recipe" && expect_reason "malformed recipe" "malformed"
check 400 "a recipe with an unknown filter" -d '{"chain":[{"filter":"Nope"}]}' "$S/recipe"
check 400 "a recipe with an unknown key" -d '{"chain":[{"filter":"QVFilterBlur","inputs":{"inputNope":1}}]}' "$S/recipe"
check 200 "a recipe imported" -d '{"images":{"photo":{"file":"p.jpg"}},"chain":[{"filter":"QVFilterBlur","inputs":{"inputImage":"@photo","inputRadius":7}},{"filter":"CIColorControls","inputs":{"inputSaturation":0.5}}]}' "$S/recipe"
python3 -c 'import json; r=json.load(open("body.json")); assert [s["filter"] for s in r["steps"]] == ["QVFilterBlur", "CIColorControls"], r' ||
  fail "the imported recipe's steps"
check 200 "the chain exported as a recipe" "$S/recipe?format=jpeg&quality=0.8"
python3 -c '
import json; r=json.load(open("body.json"))
assert r["chain"][0]["inputs"]["inputRadius"] == 7 and r["chain"][0]["inputs"]["inputImage"] == "@photo", r
assert r["chain"][1]["inputs"]["inputSaturation"] == 0.5 and r["output"] == {"file": "result.jpg", "quality": 0.8}, r' ||
  fail "the exported recipe: $body"
check 400 "an unknown export format" -d '{"format":"gif"}' "$S/exports"
check 400 "an export quality out of range" -d '{"format":"jpeg","quality":5}' "$S/exports"
check 404 "an unknown export" "$S/exports/12345"
check 409 "undo past the start" -X POST -d '' "$base/api/sessions/$s/redo"

# Loopback only: another host name is refused (a page elsewhere cannot rebind to us).
check 403 "a foreign Host header" -H 'Host: evil.example' "$base/api/filters"

# Still serving, then Ctrl-C stops it cleanly.
check 200 "still serving" "$base/api/filters"
kill -INT "$server"
for _ in $(seq 100); do
  kill -0 "$server" 2>/dev/null || break
  sleep 0.1
done
if kill -0 "$server" 2>/dev/null; then
  fail "the server did not stop on SIGINT"
  kill -9 "$server"
fi
wait "$server"
rc=$?
[ "$rc" -eq 0 ] || fail "the server exited with $rc after SIGINT: $(cat server.err)"
grep -q 'stopped' server.out || fail "the server did not say it stopped"

[ $failures -eq 0 ] && echo "serve_api: all passed" && exit 0
exit 1

#!/bin/bash
# `qvfilter textures`: the catalogue of the loaded bundle, by tag, as text and JSON.
set -u
py=/usr/bin/python3; [ -x "$py" ] || py=python3
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/textures_list"
rm -rf "$tmp"
mkdir -p "$tmp"

out=$("$QVFILTER" textures 2>"$tmp/err") || fail "textures failed: $(cat "$tmp/err")"
[ -s "$tmp/err" ] && fail "unexpected messages: $(cat "$tmp/err")"
count=$(echo "$out" | wc -l)
[ "$count" -ge 24 ] || fail "expected at least 24 textures, got $count"
# identifier, display name, tags, file, pixel size
echo "$out" | grep -q $'^x-qvfilter-texture://org.qvfilter.filters.imageunits/vignette-soft\tSoft Vignette\tmask,vignette\tvignette-soft.jpg\t[0-9]*x[0-9]*$' \
  || fail "vignette-soft line missing or malformed: $out"
echo "$out" | awk -F'\t' '$5=="0x0"{exit 1}' || fail "a texture without a pixel size: $out"

for kind in mask composite tile border; do
  n=$("$QVFILTER" textures --tag "$kind" | wc -l)
  [ "$n" -ge 4 ] || fail "only $n textures tagged $kind"
done
n=$("$QVFILTER" textures --tag mask | grep -c $'\tmask,')
[ "$n" = "$("$QVFILTER" textures --tag mask | wc -l)" ] || fail "--tag mask lists textures without the tag"
# Two tags: textures carrying both.
out=$("$QVFILTER" textures --tag composite --tag light-leak) || fail "two tags failed"
[ -n "$out" ] || fail "no composite light leak"
echo "$out" | grep -qv "light-leak" && fail "--tag light-leak lists others: $out"

# JSON.
"$QVFILTER" textures --tag tile --json >"$tmp/tiles.json" || fail "--json failed"
"$py" - "$tmp/tiles.json" <<'PY' || fail "JSON output wrong"
import json, sys
items = json.load(open(sys.argv[1]))
assert len(items) >= 6, items
for i in items:
    assert i["identifier"].startswith("x-qvfilter-texture://"), i
    assert "tile" in i["tags"] and i["width"] > 0 and i["height"] > 0 and i["displayName"] and i["fileName"], i
PY

# Errors.
"$QVFILTER" textures --tag no-such-tag >"$tmp/out" 2>"$tmp/err" && fail "unknown tag accepted"
grep -q "no texture carries the tag(s) no-such-tag" "$tmp/err" || fail "unknown tag message: $(cat "$tmp/err")"
"$QVFILTER" textures --bundle "$tmp/nowhere" >"$tmp/out" 2>"$tmp/err" && fail "missing bundle accepted"
grep -q "not a bundle" "$tmp/err" || fail "missing bundle message: $(cat "$tmp/err")"
mkdir -p "$tmp/noindex/Resources"
printf '<?xml version="1.0"?><plist version="1.0"><dict><key>CFBundleIdentifier</key><string>org.example.fixture</string></dict></plist>' >"$tmp/noindex/Info.plist"
"$QVFILTER" textures --bundle "$tmp/noindex" >"$tmp/out" 2>"$tmp/err" && fail "bundle without index accepted"
grep -q "TextureIndex.plist is missing" "$tmp/err" || fail "missing index message: $(cat "$tmp/err")"
echo ok

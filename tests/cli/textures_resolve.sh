#!/bin/bash
# `qvfilter textures resolve`: names, identifiers and tag keys through the plug-in's store.
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/textures_resolve"
rm -rf "$tmp"
mkdir -p "$tmp"
id=org.qvfilter.filters.imageunits

# A texture key resolves to its identifier; an identifier passes through.
out=$("$QVFILTER" textures resolve vignette-soft 2>"$tmp/err") || fail "resolve key failed: $(cat "$tmp/err")"
[ "$out" = "x-qvfilter-texture://$id/vignette-soft" ] || fail "key resolved to $out"
out=$("$QVFILTER" textures resolve "x-qvfilter-texture://$id/paper-kraft") || fail "resolve identifier failed"
[ "$out" = "x-qvfilter-texture://$id/paper-kraft" ] || fail "identifier resolved to $out"

# A tag resolves to one of its textures; with a hint, to another one.
tagged=$("$QVFILTER" textures --tag film-burn | cut -f1)
[ "$(echo "$tagged" | wc -l)" = 2 ] || fail "expected two film-burn textures: $tagged"
first=$(echo "$tagged" | head -1)
second=$(echo "$tagged" | tail -1)
for i in 1 2 3 4 5 6; do
  out=$("$QVFILTER" textures resolve film-burn --hint "$first") || fail "resolve tag failed"
  [ "$out" = "$second" ] || fail "tag with hint $first resolved to $out"
  out=$("$QVFILTER" textures resolve "x-qvfilter-tag://$id/film-burn" --hint "$second") || fail "resolve tag key failed"
  [ "$out" = "$first" ] || fail "tag key with hint $second resolved to $out"
done
out=$("$QVFILTER" textures resolve light-leak) || fail "resolve light-leak failed"
"$QVFILTER" textures --tag light-leak | cut -f1 | grep -qx "$out" || fail "light-leak resolved to $out"

# Errors.
"$QVFILTER" textures resolve no-such-name >"$tmp/out" 2>"$tmp/err" && fail "unknown name accepted"
grep -q "no texture or tag is named no-such-name" "$tmp/err" || fail "unknown name: $(cat "$tmp/err")"
"$QVFILTER" textures resolve "x-qvfilter-tag://$id/nothing" >"$tmp/out" 2>"$tmp/err" && fail "empty tag accepted"
grep -q "resolves to no texture" "$tmp/err" || fail "empty tag: $(cat "$tmp/err")"
"$QVFILTER" textures resolve "https://example.org/a" >"$tmp/out" 2>"$tmp/err" && fail "other scheme accepted"
grep -q "not a texture identifier or tag key" "$tmp/err" || fail "other scheme: $(cat "$tmp/err")"
"$QVFILTER" textures resolve "x-qvfilter-texture://$id/missing" >"$tmp/out" 2>"$tmp/err" && fail "unknown identifier accepted"
grep -q "names no texture" "$tmp/err" || fail "unknown identifier: $(cat "$tmp/err")"
"$QVFILTER" textures resolve film-burn --hint "not a url" >"$tmp/out" 2>"$tmp/err" && fail "bad hint accepted"
grep -q "the hint is not a URL" "$tmp/err" || fail "bad hint: $(cat "$tmp/err")"
"$QVFILTER" textures resolve >"$tmp/out" 2>"$tmp/err" && fail "missing KEY accepted"
echo ok

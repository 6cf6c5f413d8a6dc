#!/bin/bash
# `qvfilter textures check`: the shipped catalogue passes; broken catalogues list each problem.
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/textures_check"
rm -rf "$tmp"
mkdir -p "$tmp"
src="${QV_SOURCE_DIR:?}"

out=$("$QVFILTER" textures check 2>"$tmp/err") || fail "the shipped catalogue has problems: $out $(cat "$tmp/err")"
echo "$out" | grep -q "no problems" || fail "check said: $out"

# The shipped folder stays under 40 MB.
kb=$(du -sk "$src/Resources/Textures" | cut -f1)
[ "$kb" -le 40960 ] || fail "Resources/Textures is $kb KB"

# A broken bundle.
b="$tmp/broken"
mkdir -p "$b/Resources/Textures" "$tmp/outside"
printf '<?xml version="1.0"?><plist version="1.0"><dict><key>CFBundleIdentifier</key><string>org.example.fixture</string></dict></plist>' >"$b/Info.plist"
cp "$src/Resources/Textures/paper-kraft.jpg" "$b/Resources/Textures/good.jpg"
cp "$src/Resources/Textures/paper-kraft.jpg" "$tmp/outside/secret.jpg"
ln -s "$tmp/outside/secret.jpg" "$b/Resources/Textures/link.jpg"
echo "not an image" >"$b/Resources/Textures/junk.jpg"
cat >"$b/Resources/TextureIndex.plist" <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>textures</key><dict>
 <key>good</key><dict><key>displayName</key><string>Good</string><key>fileName</key><string>good.jpg</string>
   <key>tags</key><array><string>mask</string><string>grunge</string></array></dict>
 <key>missing</key><dict><key>displayName</key><string>Missing</string><key>fileName</key><string>missing.jpg</string>
   <key>tags</key><array><string>tile</string></array></dict>
 <key>junk</key><dict><key>displayName</key><string>Junk</string><key>fileName</key><string>junk.jpg</string>
   <key>tags</key><array><string>tile</string></array></dict>
 <key>escape</key><dict><key>displayName</key><string>Escape</string><key>fileName</key><string>../../Info.plist</string>
   <key>tags</key><array><string>tile</string></array></dict>
 <key>link</key><dict><key>displayName</key><string>Link</string><key>fileName</key><string>link.jpg</string>
   <key>tags</key><array><string>tile</string></array></dict>
 <key>placed</key><dict><key>displayName</key><string>Placed</string><key>fileName</key><string>good.jpg</string>
   <key>tags</key><array><string>composite</string></array>
   <key>constraints</key><array>
     <dict><key>destinationAttribute</key><string>MaxX</string><key>sourceAttribute</key><string>Right</string></dict>
     <dict><key>destinationAttribute</key><string>Middle</string><key>sourceAttribute</key><string>MidX</string></dict>
     <dict><key>destinationAttribute</key><string>width</string><key>sourceAttribute</key><string>width</string><key>offset</key><real>0.1</real></dict>
   </array></dict>
 <key>untagged</key><dict><key>fileName</key><string>good.jpg</string></dict>
</dict></dict></plist>
PLIST
"$QVFILTER" textures check --bundle "$b" >"$tmp/out" 2>"$tmp/err" && fail "broken catalogue passed"
grep -q "problem(s) in the texture catalogue" "$tmp/err" || fail "summary: $(cat "$tmp/err")"
for expected in \
  "texture missing: file missing.jpg is missing" \
  "texture junk: file junk.jpg is not a readable image" \
  "texture escape: file ../../Info.plist is outside Textures/" \
  "texture link: file link.jpg is a link that leaves Textures/" \
  "texture placed: constraint 1: unknown sourceAttribute Right" \
  "texture placed: constraint 2: unknown destinationAttribute Middle" \
  "texture placed: constraint 3: an offset cannot go with the source attribute width" \
  "texture placed: constraint 3: size rule width after a position rule" \
  "texture untagged: no displayName" \
  "texture untagged: no tags" \
  "tag border: no texture carries it"; do
  grep -qF "$expected" "$tmp/out" || fail "missing problem '$expected' in: $(cat "$tmp/out")"
done
grep -q "texture good" "$tmp/out" && fail "the good texture was reported: $(cat "$tmp/out")"

# An unreadable index.
echo "garbage" >"$b/Resources/TextureIndex.plist"
"$QVFILTER" textures check --bundle "$b" >"$tmp/out" 2>"$tmp/err" && fail "unreadable index passed"
grep -q "index: .*not a readable property list" "$tmp/out" || fail "unreadable index: $(cat "$tmp/out")"
rm "$b/Resources/TextureIndex.plist"
"$QVFILTER" textures check --bundle "$b" >"$tmp/out" 2>"$tmp/err" && fail "missing index passed"
grep -q "index: Resources/TextureIndex.plist is missing" "$tmp/out" || fail "missing index: $(cat "$tmp/out")"
echo ok

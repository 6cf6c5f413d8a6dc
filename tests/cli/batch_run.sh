#!/usr/bin/env bash
# qvfilter batch: a recipe's chain over files, directories and globs; broken files reported
# and skipped; --skip-existing; the JSON report; exit status; Ctrl-C leaves no partial output.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch batch_run)
cd "$tmp" || exit 1

mkdir -p in
"$QVFILTER" sample in/one.png --width 40 --height 30 >/dev/null || fail "sample"
"$QVFILTER" sample big.png --width 64 --height 48 >/dev/null || fail "sample"
"$QVFILTER" convert big.png in/two.jpg --quality 90 >/dev/null || fail "convert"
"$QVFILTER" convert big.png in/three.webp --quality 80 >/dev/null || fail "convert"
echo "not an image" >in/broken.jpg
# A JPEG whose header is fine but whose data stops half way: it fails while rendering.
head -c "$(($(stat -c %s in/two.jpg) / 2))" in/two.jpg >in/cut.jpg
echo "ignored" >in/notes.txt

cat >border.json <<'JSON'
{"chain": [{"filter": "CIColorControls", "inputs": {"inputSaturation": 1.2}},
           {"filter": "QVFilterBorder", "inputs": {"inputWidth": 3, "inputColor": {"color": [1, 0, 0, 1]}}}],
 "output": {"quality": 0.8}}
JSON

# ---- A directory with two broken files: the rest are written, exit 1, report says which ----
"$QVFILTER" batch border.json in -o out --report report.json >stdout.txt 2>stderr.txt
rc=$?
[ $rc -eq 1 ] || fail "broken files: exit $rc, expected 1: $(cat stderr.txt)"
for f in one.png two.jpg three.webp; do [ -s "out/$f" ] || fail "broken files: out/$f not written"; done
[ "$(png_size out/one.png)" = "40 30" ] || fail "output size $(png_size out/one.png)"
[ "$(png_pixel out/one.png 0 0)" = "255 0 0 255" ] || fail "border colour $(png_pixel out/one.png 0 0)"
[ -e out/broken.jpg ] && fail "broken file has an output"
[ -e out/cut.jpg ] && fail "cut file has an output"
[ -e out/notes.png ] && fail "a text file was taken as an input"
ls out | grep -q partial && fail "partial files left: $(ls out)"
grep -q "5 file(s): 3 written, 0 skipped, 2 failed" stdout.txt || fail "summary: $(cat stdout.txt)"
grep -q "failed: in/broken.jpg" stdout.txt || fail "summary lacks the broken file: $(cat stdout.txt)"
rep=$(cat report.json)
check_json "report summary" "$rep" 'r["summary"]["files"] == 5 and r["summary"]["written"] == 3 and r["summary"]["failed"] == 2 and r["summary"]["skipped"] == 0 and r["summary"]["notRun"] == 0 and r["interrupted"] == False'
check_json "report failures" "$rep" 'sorted(f["input"] for f in r["files"] if f["status"] == "failed") == ["in/broken.jpg", "in/cut.jpg"]'
check_json "report errors" "$rep" 'all(f["error"] for f in r["files"] if f["status"] == "failed") and all("error" not in f for f in r["files"] if f["status"] == "written")'
check_json "report outputs" "$rep" 'sorted(f["output"] for f in r["files"] if f["status"] == "written") == ["out/one.png", "out/three.webp", "out/two.jpg"]'
check_json "report names" "$rep" 'r["recipe"] == "border.json" and r["outputDirectory"] == "out"'
grep -q "in/cut.jpg" stderr.txt || fail "progress lines lack the failure: $(cat stderr.txt)"

# ---- --skip-existing: existing outputs are left alone ----
touch -d "2000-01-01" out/one.png
before=$(stat -c %Y out/one.png)
rm out/two.jpg
"$QVFILTER" batch border.json in/one.png in/two.jpg -o out --skip-existing --report skip.json >stdout.txt 2>&1
rc=$?
[ $rc -eq 0 ] || fail "skip-existing: exit $rc: $(cat stdout.txt)"
[ "$(stat -c %Y out/one.png)" = "$before" ] || fail "skip-existing rewrote out/one.png"
[ -s out/two.jpg ] || fail "skip-existing did not write the missing output"
check_json "skip report" "$(cat skip.json)" '[f["status"] for f in r["files"]] == ["skipped", "written"] and r["summary"]["skipped"] == 1'

# ---- A temporary file left by a writer that died is removed when its file is run again ----
echo "half" >out/one.png.partial-99999999
echo "live" >"out/one.png.partial-$$"
"$QVFILTER" batch border.json in/one.png -o out -q >/dev/null 2>&1 || fail "rerun: exit $?"
[ -e out/one.png.partial-99999999 ] && fail "an abandoned temporary file was left"
[ -e "out/one.png.partial-$$" ] || fail "a live writer's temporary file was removed"
rm -f "out/one.png.partial-$$"

# ---- Globs, --format, --quality, and every input once ----
"$QVFILTER" batch border.json 'in/*.png' 'in/t*' in/one.png -o fmt --format png --quality 50 --report fmt.json >/dev/null 2>&1
rc=$?
[ $rc -eq 0 ] || fail "glob: exit $rc"
[ "$(ls fmt | tr '\n' ' ')" = "one.png three.png two.png " ] || fail "glob outputs: $(ls fmt)"
check_json "glob report" "$(cat fmt.json)" 'r["summary"]["files"] == 3'

# ---- Two inputs with one output name: the second fails instead of overwriting ----
mkdir -p other && cp in/one.png other/one.png
"$QVFILTER" batch border.json in/one.png other/one.png -o clash --report clash.json >/dev/null 2>&1
rc=$?
[ $rc -eq 1 ] || fail "clash: exit $rc"
check_json "clash report" "$(cat clash.json)" '[f["status"] for f in r["files"]] == ["written", "failed"] and "already the output of in/one.png" in r["files"][1]["error"]'

# ---- A missing input is a failed file; the rest still run ----
"$QVFILTER" batch border.json in/one.png missing.png -o miss --report miss.json >/dev/null 2>&1
[ $? -eq 1 ] || fail "missing input: expected exit 1"
check_json "missing report" "$(cat miss.json)" '[f["status"] for f in r["files"]] == ["written", "failed"] and "no such file" in r["files"][1]["error"]'

# ---- Errors before any file: one line, exit 1 ----
expect_error "missing recipe" "cannot read recipe" "$QVFILTER" batch none.json in -o out2
echo '{"chain": [{"filter": "CIColorControls", "inputs": {"inputImage": "@x"}}], "images": {"x": {"file": "big.png"}}}' >own.json
expect_error "own input" "must not set inputImage" "$QVFILTER" batch own.json in -o out2
echo '{"output": {"file": "x.png"}}' >nochain.json
expect_error "no chain" "needs a \"chain\"" "$QVFILTER" batch nochain.json in -o out2
expect_error "bad quality" "--quality must be a number from 0 to 100" "$QVFILTER" batch border.json in -o out2 --quality 120
echo '{"chain": [{"filter": "NoSuchFilter"}]}' >unknown.json
"$QVFILTER" batch unknown.json in/one.png -o out3 --report unknown-report.json >/dev/null 2>&1
[ $? -eq 1 ] || fail "unknown filter: expected exit 1"
check_json "unknown filter report" "$(cat unknown-report.json)" '"unknown filter" in r["files"][0]["error"]'

# ---- Ctrl-C: the files in flight finish, nothing is half-written, the rest are "not run" ----
mkdir -p many
"$QVFILTER" sample many/p00.png --width 1200 --height 900 >/dev/null
for i in $(seq -w 1 29); do cp many/p00.png "many/p$i.png"; done
cat >slow.json <<'JSON'
{"chain": [{"filter": "CIGaussianBlur", "inputs": {"inputRadius": 30}}, {"filter": "QVFilterBorder"}]}
JSON
"$QVFILTER" batch slow.json many -o stopped --jobs 2 --report stopped.json >stopped.txt 2>&1 &
pid=$!
for _ in $(seq 100); do [ -n "$(ls stopped 2>/dev/null)" ] && break; sleep 0.05; done
kill -INT $pid
wait $pid
rc=$?
[ $rc -eq 130 ] || fail "interrupt: exit $rc, expected 130: $(cat stopped.txt)"
ls stopped | grep -q partial && fail "interrupt left partial files: $(ls stopped)"
written=$(ls stopped | wc -l)
[ "$written" -ge 1 ] && [ "$written" -lt 30 ] || fail "interrupt: $written outputs"
# Every output is a whole picture: decodable to its last row, and the same as the others.
first=$(ls stopped/* | head -1)
read -r w h <<<"$(png_size "$first")"
[ "$(png_pixel "$first" $((w - 1)) $((h - 1)))" != "" ] || fail "interrupt: $first does not decode"
for f in stopped/*; do cmp -s "$f" "$first" || fail "interrupt: $f differs from $first"; done
check_json "interrupt report" "$(cat stopped.json)" 'r["interrupted"] == True and r["summary"]["written"] == '"$written"' and r["summary"]["notRun"] == 30 - '"$written"' and r["summary"]["failed"] == 0'

finish

#!/usr/bin/env bash
# The working memory of a render has a budget (--max-memory; a share of the machine's memory by
# default) and its work a limit: a chain that cannot be rendered within them is refused before
# anything is rendered or written, naming the step and its settings; one that can is rendered.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh" || exit 1
tmp=$(scratch render_budget)
cd "$tmp" || exit 1
in="$QV_SOURCE_DIR/tests/data/photo.png"

# The whole of stderr, exactly, a failing exit, and no output file.
expect_refusal() {
  local what="$1" want="$2" output="$3"
  shift 3
  local err rc
  err=$("$@" 2>&1 >/dev/null)
  rc=$?
  [ $rc -eq 1 ] || fail "$what: expected exit 1, got $rc"
  [ "$err" = "$want" ] || fail "$what: stderr is \"$err\", expected \"$want\""
  [ ! -e "$output" ] || fail "$what: $output was written"
  ls "$output".partial-* >/dev/null 2>&1 && fail "$what: a partial file was left behind"
}

# A tiny budget refuses a plain blur, naming the filter and its key.
expect_refusal "a plain blur in 1M" \
  "qvfilter: cannot write blur.png: step 1 (CIGaussianBlur) with inputRadius=10 needs 2.14 MB of working memory, more than the budget of 1 MB (--max-memory)" \
  blur.png "$QVFILTER" apply "$in" blur.png -f CIGaussianBlur -s inputRadius=10 --max-memory 1M
# Within a budget that holds it, the same blur renders.
if expect_ok "a plain blur in 64M" "$QVFILTER" apply "$in" blur.png -f CIGaussianBlur -s inputRadius=10 --max-memory 64M; then
  [ "$out" = "$in -> blur.png (380x300)" ] || fail "a plain blur in 64M printed \"$out\""
fi
rm -f blur.png

# 100 chained blurs of radius 20: each tile reaches 6000 pixels into the picture on every side.
# In 1G the chain is refused at the first step that cannot fit.
blurs=()
for _ in $(seq 100); do blurs+=(-f CIGaussianBlur -s inputRadius=20); done
expect_refusal "100 blurs in 1G" \
  "qvfilter: cannot write blurs.png: step 78 (CIGaussianBlur) with inputRadius=20 needs 1.00 GB of working memory, more than the budget of 1 GB (--max-memory)" \
  blurs.png "$QVFILTER" apply "$in" blurs.png "${blurs[@]}" --max-memory 1G
# 20 of them fit in 256M, and the process stays within it (plus the program and its libraries).
/usr/bin/time -o rss.txt -f "%M" "$QVFILTER" apply "$in" blurs20.png "${blurs[@]:0:80}" --max-memory 256M >/dev/null \
  || fail "20 blurs in 256M failed"
rss=$(tail -1 rss.txt)
[ "$rss" -lt $(( (256 + 64) * 1024 )) ] || fail "20 blurs in 256M used $rss KB"

# 1000 chained outside borders (a 24320 x 24240 picture): refused at once for the pixels the
# chain would compute, naming the step where the work passes the limit.
borders=()
for _ in $(seq 1000); do borders+=(-f QVFilterBorder -s inputBorderType=1); done
start=$(date +%s)
expect_refusal "1000 outside borders" \
  "qvfilter: cannot write borders.png: step 435 (QVFilterBorder) with inputBorderType=1 makes the render compute 1.73e+10 pixels, more than the limit of 1.72e+10" \
  borders.png "$QVFILTER" apply "$in" borders.png "${borders[@]}"
[ $(( $(date +%s) - start )) -lt 30 ] || fail "1000 outside borders took more than 30 s to be refused"

# Bad sizes.
for bad in 0 512K 1x -5M nan 1e9G; do
  expect_refusal "--max-memory \"$bad\"" \
    "qvfilter: --max-memory expects a size such as 512M or 2G, at least 1M: $bad" \
    blur.png "$QVFILTER" apply "$in" blur.png -f CIGaussianBlur --max-memory "$bad"
done

# Recipes (run) and batches honour it too.
python3 - <<'PY'
import json
chain = [{"filter": "CIGaussianBlur", "inputs": {"inputImage": "@photo", "inputRadius": 10}}]
json.dump({"images": {"photo": {"file": "PHOTO"}}, "chain": chain, "output": {"file": "r.png"}},
          open("recipe.json", "w"))
json.dump({"chain": [{"filter": "CIGaussianBlur", "inputs": {"inputRadius": 10}}]}, open("batch.json", "w"))
PY
sed -i "s|PHOTO|$in|" recipe.json
expect_refusal "a recipe in 1M" \
  "qvfilter: cannot write r.png: chain step 1 (CIGaussianBlur) with inputRadius=10 needs 2.14 MB of working memory, more than the budget of 1 MB (--max-memory)" \
  r.png "$QVFILTER" run recipe.json --max-memory 1M
expect_ok "a recipe in 64M" "$QVFILTER" run recipe.json --max-memory 64M && [ -s r.png ] || fail "the recipe wrote no r.png"
"$QVFILTER" batch batch.json "$in" -o out --max-memory 1M -j 1 -q --report report.json >/dev/null 2>&1
[ $? -eq 1 ] || fail "a batch in 1M did not fail"
check_json_file() { python3 -c "import json,sys; r=json.load(open('$1')); sys.exit(0 if ($2) else 1)"; }
check_json_file report.json \
  "r['files'][0]['error'].endswith('needs 2.10 MB of working memory, more than the budget of 1 MB (--max-memory)')" \
  || fail "the batch report does not give the budget: $(cat report.json)"

finish render_budget

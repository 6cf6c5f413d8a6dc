#!/usr/bin/env bash
# qvfilter info NAME: a filter's input keys, output keys and attributes, as text and JSON; an
# argument that names no filter falls through to image files, else a clear error.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch recipes_info)

if expect_ok "info CICrop" "$QVFILTER" info CICrop; then
  for want in "input keys: inputImage, inputRectangle" "output keys: outputImage" "  inputRectangle:" \
    "CIAttributeClass: CIVector" "CIAttributeFilterName: CICrop"; do
    grep -qF -- "$want" <<<"$out" || fail "info CICrop lacks \"$want\""
  done
fi

if expect_ok "info CICrop --json" "$QVFILTER" info CICrop --json; then
  printf '%s' "$out" | python3 -m json.tool >/dev/null || fail "info --json is not JSON"
  check_json "info keys" "$out" 'set(r) == {"name", "inputKeys", "outputKeys", "attributes"} and r["name"] == "CICrop"'
  check_json "info input keys" "$out" 'r["inputKeys"] == ["inputImage", "inputRectangle"] and r["outputKeys"] == ["outputImage"]'
  check_json "info vector default" "$out" 'len(r["attributes"]["inputRectangle"]["CIAttributeDefault"]["vector"]) == 4'
  check_json "info every key described" "$out" 'all(k in r["attributes"] for k in r["inputKeys"])'
  check_json "info categories" "$out" 'isinstance(r["attributes"]["CIAttributeFilterCategories"], list)'
fi

if expect_ok "info colour default" "$QVFILTER" info CIConstantColorGenerator --json; then
  check_json "colour default" "$out" 'r["attributes"]["inputColor"]["CIAttributeDefault"] == {"color": [1.0, 0.0, 0.0, 1.0]}'
  check_json "colour class" "$out" 'r["attributes"]["inputColor"]["CIAttributeClass"] == "CIColor"'
fi

if expect_ok "info transform default" "$QVFILTER" info CIAffineTransform --json; then
  check_json "transform default" "$out" 'r["attributes"]["inputTransform"]["CIAttributeDefault"] == {"transform": [1.0, 0.0, 0.0, 1.0, 0.0, 0.0]}'
fi

if expect_ok "info blur" "$QVFILTER" info CIGaussianBlur --json; then
  # Numbers stay numbers (integer or real as declared); ranges are numbers too.
  check_json "blur radius" "$out" 'isinstance(r["attributes"]["inputRadius"]["CIAttributeDefault"], (int, float)) and r["attributes"]["inputRadius"]["CIAttributeClass"] == "NSNumber"'
  check_json "blur ranges" "$out" 'all(isinstance(v, (int, float)) for k, v in r["attributes"]["inputRadius"].items() if k.startswith("CIAttributeSlider") or k in ("CIAttributeMin", "CIAttributeMax"))'
fi

# Every registered filter describes itself: exactly one output key, inputImage first where
# the filter takes an image.
"$QVFILTER" list >"$tmp/names.txt" 2>/dev/null || fail "list failed"
mkdir -p "$tmp/all"
while read -r name; do
  "$QVFILTER" info "$name" --json >"$tmp/all/$name.json" 2>"$tmp/err" || fail "info $name: $(cat "$tmp/err")"
done <"$tmp/names.txt"
python3 - "$tmp/all" <<'PY' || fail "some filter descriptions break the rules (see above)"
import json, os, sys
bad = 0
for f in sorted(os.listdir(sys.argv[1])):
    r = json.load(open(os.path.join(sys.argv[1], f)))
    if r["outputKeys"] != ["outputImage"]:
        print(f"{f}: output keys {r['outputKeys']}", file=sys.stderr); bad += 1
    if "inputImage" in r["inputKeys"] and r["inputKeys"][0] != "inputImage":
        print(f"{f}: inputImage is not the first input key", file=sys.stderr); bad += 1
    if r["name"] + ".json" != f:
        print(f"{f}: names itself {r['name']}", file=sys.stderr); bad += 1
sys.exit(1 if bad else 0)
PY
[ "$(ls "$tmp/all" | wc -l)" -eq "$(wc -l <"$tmp/names.txt")" ] || fail "not every filter was described"

# An image file is described as an image; a filter name wins over a file of that name.
printf '{"images": {"c": {"color": [1, 0, 0, 1], "extent": [0, 0, 5, 3]}}, "output": {"image": "@c"}}' >"$tmp/make.json"
"$QVFILTER" run "$tmp/make.json" --output "$tmp/img.png" >/dev/null 2>&1 || fail "cannot make an image"
if expect_ok "info image" "$QVFILTER" info "$tmp/img.png" --json; then
  check_json "info image is not a filter" "$out" '"inputKeys" not in r'
  grep -q "5" <<<"$out" || fail "info image does not give the width: $out"
fi
cp "$tmp/img.png" "$tmp/CICrop"
if (cd "$tmp" && expect_ok "filter over file" "$QVFILTER" info CICrop --json && check_json "filter over file" "$out" 'r["name"] == "CICrop"' && exit "$failures"); then
  :
else
  fail "info CICrop beside a file named CICrop did not describe the filter"
fi

expect_error "unknown name" "no such file or filter: CINoSuchFilter" "$QVFILTER" info CINoSuchFilter
expect_error "unknown name json" "no such file or filter: $tmp/none.png" "$QVFILTER" info "$tmp/none.png" --json

finish

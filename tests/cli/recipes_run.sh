#!/usr/bin/env bash
# qvfilter run: recipes with generated images, probes checked numerically, files written, and
# every error a recipe can raise.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch recipes_run)
cd "$tmp" || exit 1

# Constant colour cropped: red inside, transparent outside.
if expect_ok "constant red" "$QVFILTER" run "$FIXTURES/constant-red.json"; then
  check_json "constant red extent" "$out" 'r["extent"] == [0, 0, 8, 8]'
  check_json "constant red has no file" "$out" '"file" not in r'
  check_json "constant red inside" "$out" 'near(r["probes"][0]["rgba"], [1, 0, 0, 1]) and near(r["probes"][1]["rgba"], [1, 0, 0, 1])'
  check_json "constant red probe positions" "$out" 'r["probes"][1]["at"] == [7, 7]'
  check_json "constant red outside" "$out" 'r["probes"][2]["rgba"] == [0, 0, 0, 0] and r["probes"][3]["rgba"] == [0, 0, 0, 0]'
fi

# Affine transform of a generated patch.
if expect_ok "geometry" "$QVFILTER" run "$FIXTURES/geometry.json"; then
  check_json "geometry extent" "$out" 'r["extent"] == [10, 5, 8, 4]'
  check_json "geometry inside" "$out" 'near(r["probes"][0]["rgba"], [0, 1, 0, 1]) and near(r["probes"][1]["rgba"], [0, 1, 0, 1])'
  check_json "geometry outside" "$out" 'r["probes"][2]["rgba"][3] == 0 and r["probes"][3]["rgba"][3] == 0'
fi

# Colour matrix with colour management off: plain arithmetic on the stored values.
if expect_ok "colour matrix raw" "$QVFILTER" run "$FIXTURES/color-matrix-raw.json"; then
  check_json "colour matrix raw" "$out" 'near(r["probes"][0]["rgba"], [0.25, 0.5, 0.75, 1])'
fi

# Colour matrix in the linear working space: probes are sRGB-encoded.
if expect_ok "colour matrix" "$QVFILTER" run "$FIXTURES/color-matrix.json"; then
  check_json "colour matrix managed" "$out" 'near(r["probes"][0]["rgba"], [srgb(0.5 * lin(0.5)), 0.5, 0.5, 1])'
fi

# Source over: half-transparent red over opaque blue (premultiplied, linear light).
if expect_ok "source over" "$QVFILTER" run "$FIXTURES/source-over.json"; then
  check_json "source over extent" "$out" 'r["extent"] == [0, 0, 4, 4]'
  check_json "source over overlap" "$out" 'near(r["probes"][0]["rgba"], [srgb(0.5), 0, srgb(0.5), 1])'
  check_json "source over background only" "$out" 'near(r["probes"][1]["rgba"], [0, 0, 1, 1])'
fi

# Writing a file: --output replaces the recipe's own path; the result names the file.
if expect_ok "write file" "$QVFILTER" run "$FIXTURES/write-file.json" --output "$tmp/written.png"; then
  check_json "write file result" "$out" 'r["file"] == "'"$tmp"'/written.png" and r["extent"] == [0, 0, 6, 4]'
  [ -f "$tmp/written.png" ] || fail "write file: no file"
  [ "$(png_size "$tmp/written.png")" = "6 4" ] || fail "write file: size $(png_size "$tmp/written.png")"
  [ "$(png_pixel "$tmp/written.png" 0 0)" = "255 0 0 255" ] || fail "write file: red column $(png_pixel "$tmp/written.png" 0 0)"
  [ "$(png_pixel "$tmp/written.png" 5 3)" = "0 0 255 255" ] || fail "write file: blue $(png_pixel "$tmp/written.png" 5 3)"
fi
[ -f "$FIXTURES/written.png" ] && fail "write file: wrote into the fixture directory"

# A recipe written beside its images: relative paths are relative to the recipe; a rect
# renders part of the image; JPEG quality applies.
mkdir -p "$tmp/sub"
cat >"$tmp/sub/make.json" <<'JSON'
{"images": {"c": {"color": [0.2, 0.4, 0.6, 1], "extent": [0, 0, 10, 10]}},
 "output": {"image": "@c", "file": "input.png"}}
JSON
expect_ok "make input" "$QVFILTER" run "$tmp/sub/make.json"
[ -f "$tmp/sub/input.png" ] || fail "relative output file not written beside the recipe"
cat >"$tmp/sub/use.json" <<'JSON'
{"images": {"photo": {"file": "input.png", "transform": [1, 0, 0, 1, 3, 4]}},
 "chain": [{"filter": "CIAffineTransform", "inputs": {"inputImage": "@photo"}}],
 "output": {"rect": [3, 4, 5, 5], "file": "part.jpg", "quality": 0.5, "probes": [[3, 4]]}}
JSON
if expect_ok "file input" "$QVFILTER" run "$tmp/sub/use.json"; then
  check_json "file input extent" "$out" 'r["extent"] == [3, 4, 10, 10]'
  check_json "file input probe" "$out" 'near(r["probes"][0]["rgba"], [0.2, 0.4, 0.6, 1], 0.003)'
  [ "$(png_size "$tmp/sub/part.jpg")" = "5 5" ] || fail "rect output size: $(png_size "$tmp/sub/part.jpg")"
fi

# Standard input: relative paths are relative to the current directory.
cd "$tmp/sub" || exit 1
if expect_ok "stdin" "$QVFILTER" run - <"$tmp/sub/use.json"; then
  check_json "stdin result" "$out" 'r["extent"] == [3, 4, 10, 10]'
fi
cd "$tmp" || exit 1

# ---- Errors: one line on stderr, non-zero exit ----
E="$FIXTURES/errors"
expect_error "missing recipe" "cannot read recipe $tmp/none.json: no such file" "$QVFILTER" run "$tmp/none.json"
expect_error "directory recipe" "not a regular file" "$QVFILTER" run "$tmp"
expect_error "malformed" "malformed recipe JSON at line 3, column 25" "$QVFILTER" run "$E/malformed.json"
expect_error "empty stdin" "malformed recipe JSON at line 1, column 1" "$QVFILTER" run - </dev/null
expect_error "unknown filter" 'chain step 1: unknown filter "CIDoesNotExist"' "$QVFILTER" run "$E/unknown-filter.json"
expect_error "unknown key" 'unknown key "inputColour"' "$QVFILTER" run "$E/unknown-key.json"
expect_error "bad class" "value for inputColor does not fit its class CIColor" "$QVFILTER" run "$E/bad-class.json"
expect_error "unknown reference" 'unknown image "@b"' "$QVFILTER" run "$E/unknown-ref.json"
expect_error "infinite probes" 'infinite: give "output" a "rect"' "$QVFILTER" run "$E/infinite-probes.json"
expect_error "infinite file" 'infinite: give "output" a "rect"' "$QVFILTER" run "$E/infinite-file.json"
[ -e "$E/never-written.png" ] && fail "infinite file: a file was written"
expect_error "missing image file" "no-such-photo.png: no such file" "$QVFILTER" run "$E/missing-image.json"
printf 'GIF89a not really' >"$tmp/corrupt.png"
printf '{"images": {"p": {"file": "corrupt.png"}}, "output": {"image": "@p"}}' >"$tmp/corrupt.json"
expect_error "corrupt image file" "cannot read image file" "$QVFILTER" run "$tmp/corrupt.json"
python3 -c 'print("{\"chain\": " + "[" * 200 + "]" * 200 + "}")' >"$tmp/deep.json"
expect_error "nesting" "recipe nesting too deep (more than 64 levels) at line 1, column" "$QVFILTER" run "$tmp/deep.json"
python3 -c 'print("{\"description\": \"" + "x" * (16 * 1024 * 1024) + "\"}")' >"$tmp/huge.json"
expect_error "huge recipe" "larger than 16 MB" "$QVFILTER" run "$tmp/huge.json"
expect_error "huge recipe on stdin" "larger than 16 MB" "$QVFILTER" run - <"$tmp/huge.json"
expect_error "output type" 'unknown image type ".tiff"' "$QVFILTER" run "$FIXTURES/constant-red.json" --output "$tmp/x.tiff"
expect_error "nil output" "output image is nil" \
  "$QVFILTER" run - <<<'{"chain": [{"filter": "CIAffineTransform"}], "output": {"probes": [[0, 0]]}}'
expect_error "not an object" "a recipe must be a JSON object" "$QVFILTER" run - <<<'[]'

finish

#!/usr/bin/env bash
# qvfilter list: every registered filter, sorted; --category; --json.
source "$QV_SOURCE_DIR/tests/cli/recipes/lib.sh"
tmp=$(scratch recipes_list)

if expect_ok "list" "$QVFILTER" list; then
  all="$out"
  for name in CICrop CIAffineTransform CIConstantColorGenerator CIGaussianBlur CISourceOverCompositing; do
    grep -qx "$name" <<<"$all" || fail "list lacks $name"
  done
  [ "$all" = "$(LC_ALL=C sort <<<"$all")" ] || fail "list is not sorted"
  [ "$all" = "$(LC_ALL=C sort -u <<<"$all")" ] || fail "list has duplicates"
  printf '%s\n' "$all" >"$tmp/all.txt"
fi

if expect_ok "list blur" "$QVFILTER" list --category CICategoryBlur; then
  blur="$out"
  grep -qx CIGaussianBlur <<<"$blur" || fail "blur category lacks CIGaussianBlur"
  grep -qx CICrop <<<"$blur" && fail "blur category holds CICrop"
  [ "$(wc -l <<<"$blur")" -lt "$(wc -l <"$tmp/all.txt")" ] || fail "blur category is not a subset"
  # Every name of a category is a registered filter.
  while read -r name; do grep -qx "$name" "$tmp/all.txt" || fail "$name of the blur category is not listed"; done <<<"$blur"
fi

if expect_ok "list --json" "$QVFILTER" list --json; then
  printf '%s' "$out" | python3 -m json.tool >/dev/null || fail "list --json is not JSON"
  check_json "list --json names" "$out" '[e["name"] for e in r] == open("'"$tmp/all.txt"'").read().split()'
  check_json "list --json entries" "$out" 'all(set(e) == {"name", "displayName", "categories"} and isinstance(e["categories"], list) and e["displayName"] for e in r)'
  check_json "list --json blur categories" "$out" '"CICategoryBlur" in next(e for e in r if e["name"] == "CIGaussianBlur")["categories"]'
fi

if expect_ok "list --json --category" "$QVFILTER" list --category CICategoryCompositeOperation --json; then
  printf '%s' "$out" | python3 -m json.tool >/dev/null || fail "list --category --json is not JSON"
  check_json "composite category" "$out" 'len(r) >= 30 and all("CICategoryCompositeOperation" in e["categories"] for e in r)'
  check_json "composite category holds source over" "$out" 'any(e["name"] == "CISourceOverCompositing" for e in r)'
fi

expect_error "unknown category" "no filter carries the category CICategoryNoSuchThing" \
  "$QVFILTER" list --category CICategoryNoSuchThing
"$QVFILTER" list extra >/dev/null 2>&1 && fail "a stray argument was accepted"

finish

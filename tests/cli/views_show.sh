#!/bin/bash
# `qvfilter view`: the parameter view of a filter as a host builds it (the filter's own view or
# generic controls), as text and JSON, and edits through the controls' bindings with --set.
set -u
fail() { echo "FAIL: $*" >&2; exit 1; }
tmp="${QV_TEST_TMP:-/tmp}/views_show"
rm -rf "$tmp"
mkdir -p "$tmp"
export LC_ALL=C
json() { python3 -c "import json,sys; d=json.load(open('$1')); $2"; }

# The blur's own view, as text: outlets, bindings, the blur menu with its selection, the inputs.
"$QVFILTER" view QVFilterBlur >"$tmp/blur.txt" 2>"$tmp/err" || fail "view QVFilterBlur failed: $(cat "$tmp/err")"
grep -q "^QVFilterBlur: the filter's own view" "$tmp/blur.txt" || fail "not the blur's own view: $(head -1 "$tmp/blur.txt")"
grep -q "slider blurFilterRadiusSlider .* 0..100 value 10 .*{value <-> selection.inputRadius}" "$tmp/blur.txt" \
  || fail "radius slider missing: $(cat "$tmp/blur.txt")"
grep -q 'textField blurFilterRadiusTextField .* "10" .*{value <-> selection.inputRadius}' "$tmp/blur.txt" \
  || fail "radius field missing"
grep -q 'popUpButton blurFilterNamePopupButton .*selected [0-9]* "CIGaussianBlur" .*{selectedObject <-> selection.inputBlurFilterName}' \
  "$tmp/blur.txt" || fail "blur pop-up missing"
grep -q '\* [0-9]* "CIGaussianBlur" -> CIGaussianBlur' "$tmp/blur.txt" || fail "selected menu item not marked"
grep -q '^  inputBlurFilterName = "CIGaussianBlur"' "$tmp/blur.txt" || fail "inputs missing"

# The same as JSON, for the studio.
"$QVFILTER" view QVFilterBlur --json >"$tmp/blur.json" || fail "view --json failed"
json "$tmp/blur.json" "
v=d['view']; assert d['filter']=='QVFilterBlur' and d['provided'] is True, d.keys()
assert v['kind']=='IKFilterUIView' and v['frame']==[0,0,380,80], v['frame']
controls={c.get('outlet'):c for c in v['subviews'][0]['subviews']}
s=controls['blurFilterRadiusSlider']
assert s['kind']=='slider' and s['class']=='NSSlider' and s['minValue']==0 and s['maxValue']==100, s
assert s['bindings']=={'value':{'keyPath':'selection.inputRadius','key':'inputRadius'}}, s['bindings']
assert s['value']==10, s['value']
p=controls['blurFilterNamePopupButton']
items=p['menu']['items']; sel=items[p['selectedIndex']]
assert sel['title']=='CIGaussianBlur' and sel['representedObject']=='CIGaussianBlur', sel
assert set(items[0])=={'title','tag','representedObject','enabled','indentationLevel','separator'}, items[0]
assert p['value']=='CIGaussianBlur'
assert d['inputs']['inputRadius']==10, d['inputs']
" || fail "view --json has not the expected shape"

# --set edits a control; its binding writes the filter's input, and every control bound to the
# same key follows.
"$QVFILTER" view QVFilterBlur --json --set inputRadius=25.5 --set inputBlurFilterName=CIBoxBlur >"$tmp/set.json" \
  || fail "view --set failed"
json "$tmp/set.json" "
assert d['inputs']['inputRadius']==25.5 and d['inputs']['inputBlurFilterName']=='CIBoxBlur', d['inputs']
controls={c.get('outlet'):c for c in d['view']['subviews'][0]['subviews']}
assert controls['blurFilterRadiusSlider']['value']==25.5
assert controls['blurFilterRadiusTextField']['text']=='25.5'
" || fail "--set did not reach the filter and the controls"

# Bad edits are refused with a reason, never a crash.
expect_error() {
  "$QVFILTER" view "$@" >"$tmp/out" 2>"$tmp/err" && fail "view $* succeeded"
  [ $? -eq 1 ] || fail "view $* did not exit with 1"
}
expect_error QVFilterBlur --set inputRadius=wide
grep -q 'inputRadius: expected a number, got "wide"' "$tmp/err" || fail "bad number message: $(cat "$tmp/err")"
expect_error QVFilterBlur --set inputBlurFilterName=NoSuchBlur
grep -q 'the menu has no item "NoSuchBlur"' "$tmp/err" || fail "bad menu message: $(cat "$tmp/err")"
expect_error QVFilterBlur --set inputNothing=1
grep -q "inputNothing: no control of the QVFilterBlur view edits this input" "$tmp/err" || fail "unbound key message"
expect_error QVFilterBlur --set novalue
grep -q -- '--set expects KEY=VALUE' "$tmp/err" || fail "malformed --set message"
expect_error NoSuchFilter
grep -q "no such filter: NoSuchFilter" "$tmp/err" || fail "unknown filter message"

# Generic controls for a filter without a view of its own: colour wells, sliders within the
# slider range, image wells.
"$QVFILTER" view QVFilterBorder --json >"$tmp/border.json" || fail "view QVFilterBorder failed"
json "$tmp/border.json" "
assert d['provided'] is False
controls=d['view']['subviews'][0]['subviews']
kinds={c['bindings'][b]['key']+':'+c['kind'] for c in controls for b in c.get('bindings',{})}
assert 'inputColor:colorWell' in kinds and 'inputImage:imageWell' in kinds, kinds
well=[c for c in controls if c['kind']=='colorWell'][0]
assert well['bindings']['value']['transformer']=='QVHostColorValueTransformer' and well['color']==[1,1,1,1], well
" || fail "generic controls of QVFilterBorder"
"$QVFILTER" view QVFilterBorder --set "inputColor=0 0.5 1 1" --json >"$tmp/border-set.json" || fail "colour --set failed"
json "$tmp/border-set.json" "assert d['inputs']['inputColor']=={'color':[0,0.5,1,1]}, d['inputs']" \
  || fail "the colour well did not write the filter's colour"
expect_error QVFilterBorder --set "inputColor=red"

# The composite family's own views: the mask pop-up shows None for an unset mask, the texture
# tile leaves the texture composite's orientation check box unbound, and a --set on the mask
# pop-up writes the chosen identifier (None clears it; headings cannot be chosen).
"$QVFILTER" view QVFilterNoiseComposite --json >"$tmp/noise.json" 2>"$tmp/err" \
  || fail "view QVFilterNoiseComposite failed: $(cat "$tmp/err")"
json "$tmp/noise.json" "
controls={c.get('outlet'):c for c in d['view']['subviews'][0]['subviews']}
m=controls['maskIdentifierPopupButton']; items=m['menu']['items']
assert d['provided'] is True and d['inputs']['inputMaskTextureName'] is None, d['inputs']
assert m['selectedIndex']==0 and items[0]=={'title':'None','tag':1,'representedObject':None,'enabled':True,'indentationLevel':0,'separator':False}, items[:2]
assert items[1]['separator'] is True and m['menu']['autoenablesItems'] is False
heads=[i['title'] for i in items if not i['enabled']]
assert heads==sorted(heads) and 'mask' not in heads and heads, heads
" || fail "the noise composite's mask pop-up"
mask=$(json "$tmp/noise.json" "
m=[c for c in d['view']['subviews'][0]['subviews'] if c.get('outlet')=='maskIdentifierPopupButton'][0]
print([i['representedObject'] for i in m['menu']['items'] if i['indentationLevel']==1 and 'texture' in str(i['representedObject'])][0])")
"$QVFILTER" view QVFilterNoiseComposite --json --set "inputMaskTextureName=$mask" >"$tmp/noise-set.json" \
  || fail "--set of the mask failed"
json "$tmp/noise-set.json" "assert d['inputs']['inputMaskTextureName']=='$mask' and d['inputs']['inputMaskTextureIdentifier']=={'url':'$mask'}, d['inputs']" \
  || fail "the mask pop-up did not write the chosen texture (and the filter did not resolve it)"
"$QVFILTER" view QVFilterNoiseComposite --json --set "inputMaskTextureName=$mask" --set inputMaskTextureName=None \
  >"$tmp/noise-none.json" || fail "--set of None failed"
json "$tmp/noise-none.json" "assert d['inputs']['inputMaskTextureName'] is None, d['inputs']" || fail "None did not clear the mask"
heading=$(json "$tmp/noise.json" "
m=[c for c in d['view']['subviews'][0]['subviews'] if c.get('outlet')=='maskIdentifierPopupButton'][0]
print([i['title'] for i in m['menu']['items'] if not i['enabled']][0])")
expect_error QVFilterNoiseComposite --set "inputMaskTextureName=$heading"
grep -q "the menu item \"$heading\" cannot be chosen" "$tmp/err" || fail "a heading was chosen: $(cat "$tmp/err")"
"$QVFILTER" view QVFilterTextureTile --json >"$tmp/tile.json" || fail "view QVFilterTextureTile failed"
json "$tmp/tile.json" "
controls={c.get('outlet'):c for c in d['view']['subviews'][0]['subviews']}
assert controls['textureIdentifierMatchInputImageOrientationButton']['bindings']=={}
assert controls['textureIdentifierPopupButton']['bindings']['selectedObject']['key']=='inputTextureName'
" || fail "the texture tile's view"
for f in QVFilterColorComposite QVFilterBlurComposite QVFilterTextureComposite QVFilterGradientComposite \
         QVFilterTextureBorder QVFilterOffsetComposite QVFilterScaleComposite; do
  "$QVFILTER" view "$f" 2>"$tmp/err" | head -1 | grep -q "^$f: the filter's own view" \
    || fail "$f shows no view of its own: $(cat "$tmp/err")"
done
echo "views_show: ok"

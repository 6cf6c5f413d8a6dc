// Parameter views as a host shows them, for every host (the CLI's `view` command, the studio,
// the GIMP dialog): a filter with its defaults, and its own view when it provides one, or else
// generic controls derived from its input attributes; the view tree printed as text or JSON;
// and edits made through the controls' bindings, as a user's edits are.
//
// Generic controls, one row per input (label on the left), bound at "selection.<key>" of the
// view's object controller:
//   numbers with a slider range (kCIAttributeSliderMin/Max, else Min/Max)   slider + text field
//   numbers without one                                                   text field
//   booleans (kCIAttributeTypeBoolean)                                    check box
//   CIColor                                                               colour well
//   CIVector                                                              text field "x y ..."
//   CIImage                                                               image well
//   texture names (isTextureNameKey)                                      texture pop-up
//   strings                                                               text field
//   anything else                                                         read-only text field
//
// JSON of a view (frames are [x, y, width, height] in the superview, origin bottom-left):
//   {"kind": "slider", "class": "NSSlider", "outlet": "name" (when it has one),
//    "frame": [...], "enabled": true,
//    "bindings": {"value": {"keyPath": "selection.inputRadius", "key": "inputRadius",
//                           "transformer": "Name" (when the binding names one)}},
//    "value": <the control's value, JSON as in ValueParsing.h>,
//    kind-specific members:
//      label/textField: "text", "editable"; slider: "minValue", "maxValue";
//      checkBox: "title", "state" (0/1); colorWell: "color" ([r, g, b, a] or null);
//      imageWell: "extent"; popUpButton: "selectedIndex" (-1: none), "menu":
//        {"autoenablesItems": bool, "items": [{"title", "tag", "representedObject",
//          "enabled", "indentationLevel", "separator"}...]}
//    "subviews": [...] (containers)}
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "AppKit/IKFilterUIView.h"
#include "CoreImage/CIFilter.h"

namespace qv {

struct FilterView {
  CIFilterRef filter;
  std::shared_ptr<IKFilterUIView> view;
  bool provided = false;  // the filter's own view; false: generic controls
};

// A new filter of that name with its defaults, and its view. Throws std::invalid_argument for
// an unknown name; a provided view that cannot be built raises NSException (with the reason).
FilterView makeFilterView(const std::string& filterName);

// The view of an existing filter (as it stands, inputs untouched): its own, or generic controls.
FilterView filterViewFor(const CIFilterRef& filter);

// Generic controls for every input of the filter, bound to it.
std::shared_ptr<IKFilterUIView> genericFilterView(const CIFilterRef& filter);

nlohmann::json viewJSON(const NSView& view);
// {"filter": name, "provided": bool, "view": <viewJSON>, "inputs": {key: value...}}
nlohmann::json filterViewJSON(const FilterView& filterView);
// The same for people: one line per view, indented by depth, menus item by item.
std::string filterViewText(const FilterView& filterView);

// Edits the control bound to the filter's input `key` as a user would, with the value written
// as text: a number for sliders and numeric fields, true/false (yes/no, 1/0) for check boxes,
// "r g b a" for colour wells, numbers for vector fields, an image file for image wells, and
// for pop-ups the represented object or the title of an item that can be chosen. The binding
// then writes the filter's input. Throws ValueError (with a message naming the key) when no
// editable control is bound to the key or the text does not suit it.
void editBoundControl(const FilterView& filterView, const std::string& key, const std::string& text);

// The view at `path` (indices into subviews, from the filter view itself); nullptr when the
// path leads nowhere.
NSView* viewAtPath(const FilterView& filterView, const std::vector<std::size_t>& path);

// Edits one control as editBoundControl does, whatever it is bound to; `key` names the input
// in messages.
void editControl(NSView& control, const std::string& key, const std::string& text);

}  // namespace qv

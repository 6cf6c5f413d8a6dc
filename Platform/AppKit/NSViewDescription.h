// View descriptions: the toolkit's stand-in for interface files. A description is a JSON
// resource of a bundle, Resources/Views/<name>.json, loaded by name:
//
//   {"frame": [x, y, width, height],            the root view's frame
//    "subviews": [ <view>, ... ]}
//
//   <view> = {"kind": K, "frame": [x, y, w, h], "outlet": "name" (optional), ...}
//
// Frames are in the superview's coordinates with the origin at the bottom left. Kinds and
// their own keys:
//
//   "view"         "subviews": [<view>...]                a plain container
//   "label"        "title"                                 a text field that is not editable
//   "textField"    "numberFormat": {"minimumFractionDigits": n, "maximumFractionDigits": n}
//                                                          (optional; without it, text)
//   "slider"       "minValue", "maxValue" (numbers, min <= max)
//   "popUpButton"                                          its menu is filled by code
//   "checkBox"     "title"
//   "colorWell"
//   "imageWell"
//
// An outlet name makes the view reachable by that name (and becomes its identifier); outlet
// names are unique within a description. Anything else (an unknown kind or key, a value of the
// wrong type, a missing frame, nesting deeper than 32) makes the description unusable, and
// loading it raises NSInternalInconsistencyException with a reason that names the resource and
// the place ("BlurView: subviews[2].frame: expected 4 numbers").
#pragma once

#include <map>
#include <string>

#include <nlohmann/json.hpp>

#include "AppKit/NSView.h"

class NSBundle;

inline constexpr const char* kNSViewDescriptionDirectory = "Views";
inline constexpr const char* kNSViewDescriptionExtension = "json";

struct NSViewDescription {
  NSViewRef view;
  std::map<std::string, NSView*> outlets;  // owned by the view tree
};

// Loads the named description from the bundle's resources; raises as described above, also
// when the bundle has no such resource or it is not JSON.
NSViewDescription NSViewDescriptionLoad(const NSBundle& bundle, const std::string& name);
// Builds the views of one parsed description; `name` is used in messages.
NSViewDescription NSViewDescriptionFromJSON(const nlohmann::json& description, const std::string& name);
// Parses a description's text (at most 1 MB of JSON) and builds its views; raises as above.
NSViewDescription NSViewDescriptionFromText(const std::string& text, const std::string& name);

// The description kind of a view ("slider", "checkBox"...): "view" for plain views and any
// view of a class the descriptions do not know, "IKFilterUIView" for filter views.
std::string NSViewDescriptionKind(const NSView& view);

#include "AppKit/NSViewDescription.h"

#include <cmath>
#include <fstream>
#include <set>
#include <sstream>

#include "AppKit/IKFilterUIView.h"
#include "AppKit/NSControl.h"
#include "Foundation/NSBundle.h"
#include "Foundation/NSException.h"

namespace {

using nlohmann::json;

constexpr int kMaximumDepth = 32;
constexpr std::uintmax_t kMaximumSize = 1u << 20;  // 1 MB: descriptions are a few kilobytes

[[noreturn]] void fail(const std::string& name, const std::string& where, const std::string& what) {
  NSException::raise(NSInternalInconsistencyException,
                     "view description " + name + ": " + (where.empty() ? "" : where + ": ") + what);
}

struct Reader {
  const std::string& name;
  NSViewDescription result;

  double number(const json& j, const std::string& where) {
    if (!j.is_number() || !std::isfinite(j.get<double>())) fail(name, where, "expected a finite number");
    return j.get<double>();
  }

  std::string string(const json& j, const std::string& where) {
    if (!j.is_string()) fail(name, where, "expected a string");
    return j.get<std::string>();
  }

  CGRect frame(const json& j, const std::string& where) {
    if (!j.is_array() || j.size() != 4) fail(name, where, "expected 4 numbers [x, y, width, height]");
    const double w = number(j[2], where + "[2]"), h = number(j[3], where + "[3]");
    if (w < 0 || h < 0) fail(name, where, "width and height must not be negative");
    return CGRectMake(number(j[0], where + "[0]"), number(j[1], where + "[1]"), w, h);
  }

  int fractionDigits(const json& j, const std::string& where) {
    if (!j.is_number_integer() || j.get<std::int64_t>() < 0 || j.get<std::int64_t>() > 15)
      fail(name, where, "expected an integer from 0 to 15");
    return j.get<int>();
  }

  void checkKeys(const json& j, const std::set<std::string>& allowed, const std::string& where) {
    for (const auto& [key, value] : j.items())
      if (!allowed.count(key)) fail(name, where, "unknown key \"" + key + "\"");
  }

  void subviews(NSView& parent, const json& j, const std::string& where, int depth) {
    if (!j.is_array()) fail(name, where, "expected an array of views");
    for (std::size_t i = 0; i < j.size(); ++i)
      parent.addSubview(view(j[i], where + "[" + std::to_string(i) + "]", depth + 1));
  }

  NSViewRef view(const json& j, const std::string& where, int depth) {
    if (depth > kMaximumDepth) fail(name, where, "views nested deeper than " + std::to_string(kMaximumDepth));
    if (!j.is_object()) fail(name, where, "expected an object");
    if (!j.contains("kind")) fail(name, where, "missing \"kind\"");
    if (!j.contains("frame")) fail(name, where, "missing \"frame\"");
    const std::string kind = string(j["kind"], where + ".kind");
    const CGRect f = frame(j["frame"], where + ".frame");
    std::set<std::string> allowed = {"kind", "frame", "outlet"};
    NSViewRef made;
    if (kind == "view") {
      allowed.insert("subviews");
      made = std::make_shared<NSView>(f);
      if (j.contains("subviews")) subviews(*made, j["subviews"], where + ".subviews", depth);
    } else if (kind == "label") {
      allowed.insert("title");
      made = NSTextField::labelWithString(j.contains("title") ? string(j["title"], where + ".title") : "", f);
    } else if (kind == "textField") {
      allowed.insert("numberFormat");
      auto field = std::make_shared<NSTextField>(f);
      if (j.contains("numberFormat")) {
        const json& nf = j["numberFormat"];
        const std::string at = where + ".numberFormat";
        if (!nf.is_object()) fail(name, at, "expected an object");
        checkKeys(nf, {"minimumFractionDigits", "maximumFractionDigits"}, at);
        NSNumberFormatter formatter;
        if (nf.contains("minimumFractionDigits"))
          formatter.minimumFractionDigits = fractionDigits(nf["minimumFractionDigits"], at + ".minimumFractionDigits");
        if (nf.contains("maximumFractionDigits"))
          formatter.maximumFractionDigits = fractionDigits(nf["maximumFractionDigits"], at + ".maximumFractionDigits");
        if (formatter.minimumFractionDigits > formatter.maximumFractionDigits)
          fail(name, at, "minimumFractionDigits exceeds maximumFractionDigits");
        field->setFormatter(formatter);
      }
      made = field;
    } else if (kind == "slider") {
      allowed.insert({"minValue", "maxValue"});
      if (!j.contains("minValue") || !j.contains("maxValue")) fail(name, where, "a slider needs minValue and maxValue");
      auto slider = std::make_shared<NSSlider>(f);
      const double lo = number(j["minValue"], where + ".minValue"), hi = number(j["maxValue"], where + ".maxValue");
      if (lo > hi) fail(name, where, "minValue exceeds maxValue");
      slider->setMinValue(lo);
      slider->setMaxValue(hi);
      slider->setDoubleValue(lo);
      made = slider;
    } else if (kind == "popUpButton") {
      auto popup = std::make_shared<NSPopUpButton>(f);
      popup->setMenu(std::make_shared<NSMenu>());
      made = popup;
    } else if (kind == "checkBox") {
      allowed.insert("title");
      auto box = std::make_shared<NSButton>(f);
      box->setButtonType(NSButton::ButtonType::Switch);
      if (j.contains("title")) box->setTitle(string(j["title"], where + ".title"));
      made = box;
    } else if (kind == "colorWell") {
      made = std::make_shared<NSColorWell>(f);
    } else if (kind == "imageWell") {
      made = std::make_shared<NSImageView>(f);
    } else {
      fail(name, where + ".kind", "unknown kind \"" + kind + "\"");
    }
    checkKeys(j, allowed, where);
    if (j.contains("outlet")) {
      const std::string outlet = string(j["outlet"], where + ".outlet");
      if (outlet.empty()) fail(name, where + ".outlet", "empty outlet name");
      if (!result.outlets.emplace(outlet, made.get()).second)
        fail(name, where + ".outlet", "outlet \"" + outlet + "\" given twice");
      made->setIdentifier(outlet);
    }
    return made;
  }
};

}  // namespace

NSViewDescription NSViewDescriptionFromJSON(const json& description, const std::string& name) {
  Reader reader{name, {}};
  if (!description.is_object()) fail(name, "", "expected an object with \"frame\" and \"subviews\"");
  reader.checkKeys(description, {"frame", "subviews"}, "");
  if (!description.contains("frame")) fail(name, "", "missing \"frame\"");
  auto root = std::make_shared<NSView>(reader.frame(description["frame"], "frame"));
  if (description.contains("subviews")) reader.subviews(*root, description["subviews"], "subviews", 0);
  reader.result.view = root;
  return std::move(reader.result);
}

NSViewDescription NSViewDescriptionLoad(const NSBundle& bundle, const std::string& name) {
  const std::string path = bundle.pathForResource(name, kNSViewDescriptionExtension, kNSViewDescriptionDirectory);
  if (path.empty())
    NSException::raise(NSInternalInconsistencyException, "could not load the view description \"" + name +
                                                             "\": no resource " + kNSViewDescriptionDirectory + "/" +
                                                             name + "." + kNSViewDescriptionExtension + " in " +
                                                             bundle.bundlePath());
  std::error_code ec;
  const auto size = std::filesystem::file_size(path, ec);
  if (ec || size > kMaximumSize) fail(name, "", ec ? "cannot read " + path : "larger than 1 MB");
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  if (!in && !in.eof()) fail(name, "", "cannot read " + path);
  return NSViewDescriptionFromText(text.str(), name);
}

NSViewDescription NSViewDescriptionFromText(const std::string& text, const std::string& name) {
  if (text.size() > kMaximumSize) fail(name, "", "larger than 1 MB");
  json parsed;
  try {
    parsed = json::parse(text);
  } catch (const json::exception& e) {
    fail(name, "", std::string("not JSON: ") + e.what());
  }
  return NSViewDescriptionFromJSON(parsed, name);
}

std::string NSViewDescriptionKind(const NSView& view) {
  if (dynamic_cast<const IKFilterUIView*>(&view)) return "IKFilterUIView";
  if (auto* field = dynamic_cast<const NSTextField*>(&view)) return field->isEditable() ? "textField" : "label";
  if (dynamic_cast<const NSSlider*>(&view)) return "slider";
  if (dynamic_cast<const NSPopUpButton*>(&view)) return "popUpButton";
  if (auto* button = dynamic_cast<const NSButton*>(&view))
    return button->buttonType() == NSButton::ButtonType::Switch ? "checkBox" : "button";
  if (dynamic_cast<const NSColorWell*>(&view)) return "colorWell";
  if (dynamic_cast<const NSImageView*>(&view)) return "imageWell";
  return "view";
}

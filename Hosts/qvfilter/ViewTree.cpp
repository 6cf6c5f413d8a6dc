#include "ViewTree.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <set>
#include <stdexcept>

#include "AppKit/NSColor.h"
#include "AppKit/NSControl.h"
#include "AppKit/NSViewDescription.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "Foundation/KeyPath.h"
#include "Recipe.h"
#include "TextureCatalogue.h"
#include "ValueParsing.h"

namespace qv {
namespace {

using nlohmann::json;

constexpr const char* kTexturesMenuSymbol = "QVFilterTexturesMenuWithTags";
constexpr const char* kColorTransformerName = "QVHostColorValueTransformer";
constexpr const char* kVectorTransformerName = "QVHostVectorValueTransformer";

// Generic layout: rows of a label and controls, as the plug-in's own views are laid out.
constexpr double kWidth = 380, kRow = 28, kPad = 12, kLabelWidth = 120, kControlX = kPad + kLabelWidth + 8;
constexpr double kControlWidth = kWidth - kControlX - kPad, kFieldWidth = 62, kHeight = 22;

// A filter's colour shown in a colour well, and back.
class ColorTransformer : public NSValueTransformer {
 public:
  std::string transformedValueClass() const override { return "NSColor"; }
  bool allowsReverseTransformation() const override { return true; }
  Value transformedValue(const Value& value) const override {
    const CIColorRef color = CIColor::fromValue(value);
    return color ? Value(NSColor::colorWithCIColor(*color)) : Value();
  }
  Value reverseTransformedValue(const Value& value) const override {
    const NSColorRef color = NSColor::fromValue(value);
    return color ? Value(CIColor::colorWithCGColor(color->qvappkit_CGColor())) : Value();
  }
};

// A filter's vector shown as the numbers of a text field, and back (nil for text that is not
// 1 to 4 numbers).
class VectorTransformer : public NSValueTransformer {
 public:
  std::string transformedValueClass() const override { return "NSString"; }
  bool allowsReverseTransformation() const override { return true; }
  Value transformedValue(const Value& value) const override {
    const auto vector = value.object<CIVector>();
    if (!vector) return {};
    std::string text;
    for (std::size_t i = 0; i < vector->count(); ++i) {
      if (i) text += " ";
      text += jsonNumber(vector->valueAtIndex(i)).dump();
    }
    return text;
  }
  Value reverseTransformedValue(const Value& value) const override {
    const std::string* text = value.string();
    const auto numbers = text ? parseNumberList(*text) : std::nullopt;
    if (!numbers || numbers->empty() || numbers->size() > 4) return {};
    return Value(CIVector::vectorWithValues(numbers->data(), numbers->size()));
  }
};

void registerHostTransformers() {
  static const bool registered = [] {
    NSValueTransformer::setValueTransformer(std::make_shared<ColorTransformer>(), kColorTransformerName);
    NSValueTransformer::setValueTransformer(std::make_shared<VectorTransformer>(), kVectorTransformerName);
    return true;
  }();
  (void)registered;
}

std::string keyPathFor(const std::string& key) { return stringWithKeyPathComponents({"selection", key}); }

NSMenuRef texturesMenu(const std::set<std::string>& tags) {
  using MenuFunction = void (*)(const std::set<std::string>*, NSMenuRef*);
  auto make = reinterpret_cast<MenuFunction>(loadedPlugInSymbol(kTexturesMenuSymbol));
  NSMenuRef menu;
  if (make) make(&tags, &menu);
  return menu;
}

bool isIntegerType(const std::string& type) { return type == kCIAttributeTypeInteger || type == kCIAttributeTypeCount; }

// One row of generic controls for one input.
void addControlsForInput(NSView& content, const std::shared_ptr<NSObjectController>& controller, const std::string& key,
                         const Value& attributes, const std::string& attributeClass, double y) {
  const Value displayName = attributes[kCIAttributeDisplayName];
  content.addSubview(NSTextField::labelWithString((displayName.isString() ? *displayName.string() : key) + ":",
                                                  CGRectMake(kPad, y, kLabelWidth, kHeight)));
  const CGRect whole = CGRectMake(kControlX, y, kControlWidth, kHeight);
  const Value typeValue = attributes[kCIAttributeType];
  const std::string type = typeValue.isString() ? *typeValue.string() : "";
  auto bindValue = [&](const NSViewRef& view, const Dictionary& options = {}) {
    content.addSubview(view);
    view->bind(view->exposedBindings().front(), controller, keyPathFor(key), options);
  };

  if (attributeClass == "NSNumber" && type == kCIAttributeTypeBoolean) {
    auto box = std::make_shared<NSButton>(whole);
    box->setButtonType(NSButton::ButtonType::Switch);
    bindValue(box);
  } else if (attributeClass == "NSNumber") {
    NSNumberFormatter formatter;
    formatter.maximumFractionDigits = isIntegerType(type) ? 0 : 2;
    Value lo = attributes[kCIAttributeSliderMin], hi = attributes[kCIAttributeSliderMax];
    if (!lo.isNumber()) lo = attributes[kCIAttributeMin];
    if (!hi.isNumber()) hi = attributes[kCIAttributeMax];
    CGRect fieldFrame = whole;
    if (lo.isNumber() && hi.isNumber() && lo.doubleValue() <= hi.doubleValue()) {
      auto slider = std::make_shared<NSSlider>(CGRectMake(kControlX, y, kControlWidth - kFieldWidth - 8, kHeight));
      slider->setMinValue(lo.doubleValue());
      slider->setMaxValue(hi.doubleValue());
      bindValue(slider);
      fieldFrame = CGRectMake(kControlX + kControlWidth - kFieldWidth, y, kFieldWidth, kHeight);
    }
    auto field = std::make_shared<NSTextField>(fieldFrame);
    field->setFormatter(formatter);
    bindValue(field);
  } else if (attributeClass == "CIColor") {
    bindValue(std::make_shared<NSColorWell>(CGRectMake(kControlX, y, 52, kHeight)),
              Dictionary{{NSValueTransformerNameBindingOption, kColorTransformerName}});
  } else if (attributeClass == "CIVector") {
    bindValue(std::make_shared<NSTextField>(whole),
              Dictionary{{NSValueTransformerNameBindingOption, kVectorTransformerName}});
  } else if (attributeClass == "CIImage") {
    bindValue(std::make_shared<NSImageView>(whole));
  } else if (attributeClass == "NSString" && isTextureNameKey(key)) {
    auto popup = std::make_shared<NSPopUpButton>(whole);
    NSMenuRef menu =
        texturesMenu(key.find("Mask") != std::string::npos ? std::set<std::string>{"mask"} : std::set<std::string>{});
    popup->setMenu(menu ? menu : std::make_shared<NSMenu>());
    bindValue(popup);
  } else {
    auto field = std::make_shared<NSTextField>(whole);
    field->setEditable(attributeClass == "NSString");
    bindValue(field);
  }
}

json rectJSON(const CGRect& r) {
  return json::array(
      {jsonNumber(r.origin.x), jsonNumber(r.origin.y), jsonNumber(r.size.width), jsonNumber(r.size.height)});
}

json colorJSON(const NSColorRef& c) {
  if (!c) return nullptr;
  return json::array({jsonNumber(c->redComponent()), jsonNumber(c->greenComponent()), jsonNumber(c->blueComponent()),
                      jsonNumber(c->alphaComponent())});
}

json menuJSON(const NSMenuRef& menu) {
  json items = json::array();
  if (menu) {
    for (const NSMenuItemRef& item : menu->itemArray()) {
      items.push_back({{"title", item->title()},
                       {"tag", item->tag()},
                       {"representedObject", jsonFromValue(item->representedObject())},
                       {"enabled", item->isEnabled()},
                       {"indentationLevel", item->indentationLevel()},
                       {"separator", item->isSeparatorItem()}});
    }
  }
  return {{"autoenablesItems", menu ? menu->autoenablesItems() : true}, {"items", std::move(items)}};
}

// The view's own value, as a binding would write it (before any reverse transformation).
json controlValueJSON(const NSView& view) {
  if (auto* field = dynamic_cast<const NSTextField*>(&view)) return jsonFromValue(field->objectValue());
  if (auto* slider = dynamic_cast<const NSSlider*>(&view)) return jsonNumber(slider->doubleValue());
  if (auto* button = dynamic_cast<const NSButton*>(&view)) return button->state() != 0;
  if (auto* well = dynamic_cast<const NSColorWell*>(&view)) return colorJSON(well->color());
  if (auto* image = dynamic_cast<const NSImageView*>(&view)) return jsonFromValue(image->image());
  if (auto* popup = dynamic_cast<const NSPopUpButton*>(&view)) {
    const NSMenuItemRef item = popup->selectedItem();
    return item ? jsonFromValue(item->representedObject()) : json(nullptr);
  }
  return nullptr;
}

std::string rectText(const CGRect& r) {
  return "[" + jsonNumber(r.origin.x).dump() + " " + jsonNumber(r.origin.y).dump() + " " +
         jsonNumber(r.size.width).dump() + " " + jsonNumber(r.size.height).dump() + "]";
}

void appendViewText(std::string& out, const NSView& view, int depth) {
  const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
  const std::string kind = NSViewDescriptionKind(view);
  out += indent + kind;
  if (!view.identifier().empty()) out += " " + view.identifier();
  out += " " + rectText(view.frame());
  if (auto* field = dynamic_cast<const NSTextField*>(&view)) {
    out += " \"" + field->stringValue() + "\"";
  } else if (auto* slider = dynamic_cast<const NSSlider*>(&view)) {
    out += " " + jsonNumber(slider->minValue()).dump() + ".." + jsonNumber(slider->maxValue()).dump() + " value " +
           jsonNumber(slider->doubleValue()).dump();
  } else if (auto* button = dynamic_cast<const NSButton*>(&view)) {
    out += " \"" + button->title() + "\" " + (button->state() ? "on" : "off");
  } else if (auto* well = dynamic_cast<const NSColorWell*>(&view)) {
    out += " " + (well->color() ? well->color()->description() : std::string("no colour"));
  } else if (auto* image = dynamic_cast<const NSImageView*>(&view)) {
    out += " " + (image->image() ? "image " + jsonFromRect(image->image().extent()).dump() : std::string("no image"));
  } else if (auto* popup = dynamic_cast<const NSPopUpButton*>(&view)) {
    out += " selected " + std::to_string(popup->indexOfSelectedItem());
    if (popup->selectedItem()) out += " \"" + popup->titleOfSelectedItem() + "\"";
  }
  for (const std::string& binding : view.boundBindings()) {
    const NSBindingInfo* info = view.infoForBinding(binding);
    out += "  {" + binding + " <-> " + info->observedKeyPath;
    if (auto it = info->options.find(NSValueTransformerNameBindingOption); it != info->options.end())
      out += " via " + it->second.description();
    out += "}";
  }
  out += "\n";
  if (auto* popup = dynamic_cast<const NSPopUpButton*>(&view); popup && popup->menu()) {
    const NSMenuRef& menu = popup->menu();
    out += indent + "  menu" + (menu->autoenablesItems() ? "" : " (items enabled by hand)") + ":\n";
    for (std::int64_t i = 0; i < menu->numberOfItems(); ++i) {
      const NSMenuItemRef item = menu->itemAtIndex(i);
      out += indent + "    " + (i == popup->indexOfSelectedItem() ? "* " : "  ") + std::to_string(i) + " ";
      if (item->isSeparatorItem()) {
        out += "----\n";
        continue;
      }
      out += std::string(static_cast<std::size_t>(item->indentationLevel()) * 2, ' ') + "\"" + item->title() + "\"";
      if (item->tag() != 0) out += " tag " + std::to_string(item->tag());
      if (!item->representedObject().isNil()) out += " -> " + item->representedObject().description();
      if (!item->isEnabled()) out += " (disabled)";
      out += "\n";
    }
  }
  for (const NSViewRef& sub : view.subviews()) appendViewText(out, *sub, depth + 1);
}

void collectBound(const NSViewRef& view, const std::string& keyPath, std::vector<NSView*>& into) {
  for (const std::string& binding : view->boundBindings())
    if (view->infoForBinding(binding)->observedKeyPath == keyPath) into.push_back(view.get());
  for (const NSViewRef& sub : view->subviews()) collectBound(sub, keyPath, into);
}

// How well a control takes typed text: an editable text field first (what a user types into),
// then the other controls; read-only fields never.
int editPriority(NSView* view) {
  if (auto* field = dynamic_cast<NSTextField*>(view)) return field->isEditable() ? 0 : -1;
  return 1;
}

bool parseBoolean(std::string text, bool& out) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  if (text == "true" || text == "yes" || text == "on" || text == "1") return out = true, true;
  if (text == "false" || text == "no" || text == "off" || text == "0") return out = false, true;
  return false;
}

}  // namespace

std::shared_ptr<IKFilterUIView> genericFilterView(const CIFilterRef& filter) {
  registerHostTransformers();
  const std::vector<std::string> keys = filter->inputKeys();
  const Dictionary attributes = filter->attributes();
  const double height = 2 * kPad + kRow * static_cast<double>(keys.size());
  auto view = std::make_shared<IKFilterUIView>(CGRectMake(0, 0, kWidth, height), filter);
  auto content = std::make_shared<NSView>(view->bounds());
  view->addSubview(content);
  for (std::size_t i = 0; i < keys.size(); ++i) {
    auto it = attributes.find(keys[i]);
    const Value attrs = it == attributes.end() ? Value() : it->second;
    const double y = height - kPad - kRow * static_cast<double>(i + 1) + 3;
    std::string attributeClass = attributeClassForKey(*filter, keys[i]);
    // Image inputs often come without attributes; their keys say what they are.
    if (attributeClass.empty() && keys[i].ends_with("Image")) attributeClass = "CIImage";
    addControlsForInput(*content, view->objectController(), keys[i], attrs, attributeClass, y);
  }
  return view;
}

FilterView makeFilterView(const std::string& filterName) {
  prepareFilterRegistry();
  FilterView result;
  result.filter = CIFilter::filterWithName(filterName);
  if (!result.filter) throw std::invalid_argument("no such filter: " + filterName);
  result.filter->setDefaults();
  return filterViewFor(result.filter);
}

FilterView filterViewFor(const CIFilterRef& filter) {
  FilterView result;
  result.filter = filter;
  result.view = filter->provideViewForUIConfiguration({}, {});
  result.provided = result.view != nullptr;
  if (!result.view) result.view = genericFilterView(filter);
  return result;
}

json viewJSON(const NSView& view) {
  json out = {{"kind", NSViewDescriptionKind(view)}, {"class", view.className()}};
  if (!view.identifier().empty()) out["outlet"] = view.identifier();
  out["frame"] = rectJSON(view.frame());
  if (auto* control = dynamic_cast<const NSControl*>(&view)) {
    out["enabled"] = control->isEnabled();
    json bindings = json::object();
    for (const std::string& binding : view.boundBindings()) {
      const NSBindingInfo* info = view.infoForBinding(binding);
      json b = {{"keyPath", info->observedKeyPath}};
      const std::string prefix = "selection.";
      if (info->observedKeyPath.starts_with(prefix)) b["key"] = info->observedKeyPath.substr(prefix.size());
      if (auto it = info->options.find(NSValueTransformerNameBindingOption); it != info->options.end())
        b["transformer"] = jsonFromValue(it->second);
      bindings[binding] = std::move(b);
    }
    out["bindings"] = std::move(bindings);
    out["value"] = controlValueJSON(view);
  }
  if (auto* field = dynamic_cast<const NSTextField*>(&view)) {
    out["text"] = field->stringValue();
    out["editable"] = field->isEditable();
    if (field->formatter())
      out["numberFormat"] = {{"minimumFractionDigits", field->formatter()->minimumFractionDigits},
                             {"maximumFractionDigits", field->formatter()->maximumFractionDigits}};
  } else if (auto* slider = dynamic_cast<const NSSlider*>(&view)) {
    out["minValue"] = jsonNumber(slider->minValue());
    out["maxValue"] = jsonNumber(slider->maxValue());
  } else if (auto* button = dynamic_cast<const NSButton*>(&view)) {
    out["title"] = button->title();
    out["state"] = button->state();
  } else if (auto* well = dynamic_cast<const NSColorWell*>(&view)) {
    out["color"] = colorJSON(well->color());
  } else if (auto* image = dynamic_cast<const NSImageView*>(&view)) {
    out["extent"] = image->image() ? jsonFromRect(image->image().extent()) : json(nullptr);
  } else if (auto* popup = dynamic_cast<const NSPopUpButton*>(&view)) {
    out["selectedIndex"] = popup->indexOfSelectedItem();
    out["menu"] = menuJSON(popup->menu());
  }
  if (!view.subviews().empty()) {
    json subviews = json::array();
    for (const NSViewRef& sub : view.subviews()) subviews.push_back(viewJSON(*sub));
    out["subviews"] = std::move(subviews);
  }
  return out;
}

json filterViewJSON(const FilterView& filterView) {
  json inputs = json::object();
  for (const std::string& key : filterView.filter->inputKeys())
    inputs[key] = jsonFromValue(filterView.filter->valueForKey(key));
  return {{"filter", filterView.filter->name()},
          {"provided", filterView.provided},
          {"view", viewJSON(*filterView.view)},
          {"inputs", std::move(inputs)}};
}

std::string filterViewText(const FilterView& filterView) {
  std::string out =
      filterView.filter->name() + ": " + (filterView.provided ? "the filter's own view" : "generic controls") + "\n";
  appendViewText(out, *filterView.view, 0);
  out += "inputs:\n";
  for (const std::string& key : filterView.filter->inputKeys()) {
    const Value v = filterView.filter->valueForKey(key);
    out += "  " + key + " = " + (v.isNil() ? std::string("nil") : jsonFromValue(v).dump()) + "\n";
  }
  return out;
}

void editBoundControl(const FilterView& filterView, const std::string& key, const std::string& text) {
  std::vector<NSView*> bound;
  collectBound(filterView.view, keyPathFor(key), bound);
  std::stable_sort(bound.begin(), bound.end(), [](NSView* a, NSView* b) { return editPriority(a) < editPriority(b); });
  if (bound.empty() || editPriority(bound.front()) < 0)
    throw ValueError(key + ": no control of the " + filterView.filter->name() + " view edits this input");
  editControl(*bound.front(), key, text);
}

NSView* viewAtPath(const FilterView& filterView, const std::vector<std::size_t>& path) {
  NSView* view = filterView.view.get();
  for (std::size_t index : path) {
    if (!view || index >= view->subviews().size()) return nullptr;
    view = view->subviews()[index].get();
  }
  return view;
}

void editControl(NSView& control, const std::string& key, const std::string& text) {
  NSView* view = &control;
  if (auto* field = dynamic_cast<NSTextField*>(view); field && !field->isEditable())
    throw ValueError(key + ": the text field is read-only");

  if (auto* field = dynamic_cast<NSTextField*>(view)) {
    const NSBindingInfo* info = field->infoForBinding(NSValueBinding);
    const auto transformer = info->options.find(NSValueTransformerNameBindingOption);
    if (field->formatter() && !parseNumber(text)) throw ValueError(key + ": expected a number, got \"" + text + "\"");
    if (transformer != info->options.end() && transformer->second == Value(kVectorTransformerName)) {
      const auto numbers = parseNumberList(text);
      if (!numbers || numbers->empty() || numbers->size() > 4)
        throw ValueError(key + ": expected 1 to 4 numbers, got \"" + text + "\"");
    }
    if (!field->userSetStringValue(text)) throw ValueError(key + ": the text field refused \"" + text + "\"");
  } else if (auto* slider = dynamic_cast<NSSlider*>(view)) {
    const auto number = parseNumber(text);
    if (!number) throw ValueError(key + ": expected a number, got \"" + text + "\"");
    const double v = number->doubleValue();
    if (v < slider->minValue() || v > slider->maxValue())
      throw ValueError(key + ": " + text + " is outside the slider's range " + jsonNumber(slider->minValue()).dump() +
                       " to " + jsonNumber(slider->maxValue()).dump());
    slider->userSetDoubleValue(v);
  } else if (auto* button = dynamic_cast<NSButton*>(view)) {
    bool on = false;
    if (!parseBoolean(text, on)) throw ValueError(key + ": expected true or false, got \"" + text + "\"");
    button->userSetState(on ? 1 : 0);
  } else if (auto* well = dynamic_cast<NSColorWell*>(view)) {
    const CIColorRef color = CIColor::fromValue(parseValueForClass(text, "CIColor", key));
    well->userSetColor(color ? NSColor::colorWithCIColor(*color) : nullptr);
  } else if (auto* image = dynamic_cast<NSImageView*>(view)) {
    image->userSetImage(imageFromFile(text));
  } else if (auto* popup = dynamic_cast<NSPopUpButton*>(view)) {
    const NSMenuRef& menu = popup->menu();
    std::int64_t index = menu ? menu->indexOfItemWithRepresentedObject(Value(text)) : -1;
    for (std::int64_t i = 0; index < 0 && menu && i < menu->numberOfItems(); ++i) {
      const NSMenuItemRef item = menu->itemAtIndex(i);
      if (!item->isSeparatorItem() && item->title() == text) index = i;
    }
    if (index < 0) throw ValueError(key + ": the menu has no item \"" + text + "\"");
    if (!popup->userSelectItemAtIndex(index))
      throw ValueError(key + ": the menu item \"" + text + "\" cannot be chosen");
  } else {
    throw ValueError(key + ": the " + view->className() + " bound to it cannot be edited");
  }
}

}  // namespace qv

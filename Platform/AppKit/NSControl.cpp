#include "AppKit/NSControl.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

// ---- NSNumberFormatter ----

std::string NSNumberFormatter::stringFromNumber(double number) const {
  if (!std::isfinite(number)) return std::isnan(number) ? "NaN" : (number > 0 ? "+∞" : "-∞");
  const int maxDigits = std::clamp(maximumFractionDigits, 0, 15);
  const int minDigits = std::clamp(minimumFractionDigits, 0, maxDigits);
  if (std::fabs(number) < 0.5 * std::pow(10.0, -maxDigits)) number = 0;  // no "-0"
  char buffer[384];
  std::snprintf(buffer, sizeof buffer, "%.*f", maxDigits, number);
  std::string text = buffer;
  if (maxDigits > minDigits) {
    const std::size_t point = text.find('.');
    std::size_t keep = text.size();
    while (keep > point + 1 + static_cast<std::size_t>(minDigits) && text[keep - 1] == '0') --keep;
    if (keep == point + 1) keep = point;  // no bare point
    text.resize(keep);
  }
  return text;
}

std::optional<double> NSNumberFormatter::numberFromString(const std::string& text) const {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::nullopt;
  const std::size_t end = text.find_last_not_of(" \t") + 1;
  const std::string trimmed = text.substr(begin, end - begin);
  char* stop = nullptr;
  const double v = std::strtod(trimmed.c_str(), &stop);
  if (stop != trimmed.c_str() + trimmed.size() || !std::isfinite(v)) return std::nullopt;
  return v;
}

// ---- NSTextField ----

std::shared_ptr<NSTextField> NSTextField::labelWithString(const std::string& text, CGRect frame) {
  auto label = std::make_shared<NSTextField>(frame);
  label->setStringValue(text);
  label->setEditable(false);
  return label;
}

Value NSTextField::objectValue() const {
  if (!formatter_) return stringValue_;
  const auto number = formatter_->numberFromString(stringValue_);
  return number ? Value(*number) : Value();
}

void NSTextField::setObjectValue(const Value& value) {
  if (formatter_ && value.isNumber() && !value.isBoolean())
    stringValue_ = formatter_->stringFromNumber(value.doubleValue());
  else if (const std::string* s = value.string())
    stringValue_ = *s;
  else
    stringValue_ = value.isNil() ? "" : value.description();
}

bool NSTextField::userSetStringValue(const std::string& text) {
  if (!editable_) return false;
  if (formatter_ && !formatter_->numberFromString(text)) return false;
  stringValue_ = text;
  pushBinding(NSValueBinding);
  return true;
}

void NSTextField::setValueForBinding(const std::string&, const Value& value) { setObjectValue(value); }
Value NSTextField::valueForBinding(const std::string&) const { return objectValue(); }

// ---- NSSlider ----

void NSSlider::setDoubleValue(double v) {
  if (std::isnan(v)) v = minValue_;
  value_ = std::max(minValue_, std::min(maxValue_, v));
}

void NSSlider::userSetDoubleValue(double v) {
  setDoubleValue(v);
  pushBinding(NSValueBinding);
}

void NSSlider::setValueForBinding(const std::string&, const Value& value) { setDoubleValue(value.doubleValue()); }
Value NSSlider::valueForBinding(const std::string&) const { return Value(value_); }

// ---- NSButton ----

void NSButton::userSetState(std::int64_t state) {
  setState(state);
  pushBinding(NSValueBinding);
}

void NSButton::setValueForBinding(const std::string&, const Value& value) { setState(value.boolValue() ? 1 : 0); }
Value NSButton::valueForBinding(const std::string&) const { return Value::boolean(state_ != 0); }

// ---- NSColorWell ----

void NSColorWell::userSetColor(NSColorRef color) {
  color_ = std::move(color);
  pushBinding(NSValueBinding);
}

void NSColorWell::setValueForBinding(const std::string&, const Value& value) { color_ = NSColor::fromValue(value); }
Value NSColorWell::valueForBinding(const std::string&) const { return Value(color_); }

// ---- NSPopUpButton ----

void NSPopUpButton::setMenu(NSMenuRef menu) {
  menu_ = std::move(menu);
  selected_ = menu_ && menu_->numberOfItems() > 0 ? 0 : -1;
}

NSMenuItemRef NSPopUpButton::selectedItem() const { return menu_ ? menu_->itemAtIndex(selected_) : nullptr; }

std::string NSPopUpButton::titleOfSelectedItem() const {
  const NSMenuItemRef item = selectedItem();
  return item ? item->title() : std::string();
}

void NSPopUpButton::selectItemAtIndex(std::int64_t index) {
  selected_ = menu_ && menu_->itemAtIndex(index) ? index : -1;
}

bool NSPopUpButton::selectItemWithTag(std::int64_t tag) {
  const std::int64_t index = menu_ ? menu_->indexOfItemWithTag(tag) : -1;
  if (index < 0) return false;
  selected_ = index;
  return true;
}

bool NSPopUpButton::userSelectItemAtIndex(std::int64_t index) {
  const NSMenuItemRef item = menu_ ? menu_->itemAtIndex(index) : nullptr;
  if (!item || item->isSeparatorItem() || !item->isEnabled() || !isEnabled()) return false;
  selected_ = index;
  pushBinding(NSSelectedObjectBinding);
  return true;
}

void NSPopUpButton::setValueForBinding(const std::string&, const Value& value) {
  selected_ = menu_ ? menu_->indexOfItemWithRepresentedObject(value) : -1;
}

Value NSPopUpButton::valueForBinding(const std::string&) const {
  const NSMenuItemRef item = selectedItem();
  return item ? item->representedObject() : Value();
}

// ---- NSImageView ----

void NSImageView::userSetImage(CIImage image) {
  image_ = std::move(image);
  pushBinding(NSValueBinding);
}

void NSImageView::setValueForBinding(const std::string&, const Value& value) { image_ = CIImage::fromValue(value); }
Value NSImageView::valueForBinding(const std::string&) const { return image_; }

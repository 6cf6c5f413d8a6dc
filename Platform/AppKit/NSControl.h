// The controls of the headless view toolkit: text fields (labels too), sliders, check boxes,
// colour wells, pop-up buttons and image wells. Each holds its value and exposes the bindings
// the platform's control exposes for it; the userSet... operations are what a user's edit
// does: change the value and write it through the control's binding.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AppKit/NSColor.h"
#include "AppKit/NSMenu.h"
#include "AppKit/NSView.h"
#include "CoreImage/CIImage.h"

// The part of a number formatter that a text field needs: fraction digits. Integral numbers
// keep at least the minimum digits, others are rounded to the maximum.
struct NSNumberFormatter {
  int minimumFractionDigits = 0;
  int maximumFractionDigits = 3;

  std::string stringFromNumber(double number) const;
  // The whole text as one finite number, or nullopt.
  std::optional<double> numberFromString(const std::string& text) const;
};

// The common base of the controls; enabled state only.
class NSControl : public NSView {
 public:
  using NSView::NSView;
  bool isEnabled() const { return enabled_; }
  void setEnabled(bool enabled) { enabled_ = enabled; }

 private:
  bool enabled_ = true;
};

// A text field; a label is one that is not editable. With a number formatter its value is a
// number (nil while the text is not one), otherwise its text.
class NSTextField : public NSControl {
 public:
  using NSControl::NSControl;
  // labelWithString:
  static std::shared_ptr<NSTextField> labelWithString(const std::string& text, CGRect frame);

  std::string className() const override { return "NSTextField"; }
  std::vector<std::string> exposedBindings() const override { return {NSValueBinding}; }

  const std::string& stringValue() const { return stringValue_; }
  void setStringValue(std::string text) { stringValue_ = std::move(text); }
  Value objectValue() const;
  // Numbers through the formatter when there is one; nil shows as empty text.
  void setObjectValue(const Value& value);
  bool isEditable() const { return editable_; }
  void setEditable(bool editable) { editable_ = editable; }
  const std::optional<NSNumberFormatter>& formatter() const { return formatter_; }
  void setFormatter(std::optional<NSNumberFormatter> formatter) { formatter_ = std::move(formatter); }

  // False (and nothing changes) when the field is not editable or the formatter refuses the text.
  bool userSetStringValue(const std::string& text);

 protected:
  void setValueForBinding(const std::string& binding, const Value& value) override;
  Value valueForBinding(const std::string& binding) const override;

 private:
  std::string stringValue_;
  bool editable_ = true;
  std::optional<NSNumberFormatter> formatter_;
};

class NSSlider : public NSControl {
 public:
  using NSControl::NSControl;
  std::string className() const override { return "NSSlider"; }
  std::vector<std::string> exposedBindings() const override { return {NSValueBinding}; }

  double minValue() const { return minValue_; }
  double maxValue() const { return maxValue_; }
  void setMinValue(double v) { minValue_ = v; }
  void setMaxValue(double v) { maxValue_ = v; }
  double doubleValue() const { return value_; }
  // Kept within minValue ... maxValue, as the platform's slider keeps it.
  void setDoubleValue(double v);

  void userSetDoubleValue(double v);

 protected:
  void setValueForBinding(const std::string& binding, const Value& value) override;
  Value valueForBinding(const std::string& binding) const override;

 private:
  double minValue_ = 0, maxValue_ = 1, value_ = 0;
};

// A button; only check boxes take part in bindings (their state as a boolean).
class NSButton : public NSControl {
 public:
  enum class ButtonType { MomentaryPushIn, Switch };
  using NSControl::NSControl;
  std::string className() const override { return "NSButton"; }
  std::vector<std::string> exposedBindings() const override { return {NSValueBinding}; }

  const std::string& title() const { return title_; }
  void setTitle(std::string title) { title_ = std::move(title); }
  ButtonType buttonType() const { return type_; }
  void setButtonType(ButtonType type) { type_ = type; }
  // NSControlStateValueOff (0) or NSControlStateValueOn (1).
  std::int64_t state() const { return state_; }
  void setState(std::int64_t state) { state_ = state ? 1 : 0; }

  void userSetState(std::int64_t state);

 protected:
  void setValueForBinding(const std::string& binding, const Value& value) override;
  Value valueForBinding(const std::string& binding) const override;

 private:
  std::string title_;
  ButtonType type_ = ButtonType::MomentaryPushIn;
  std::int64_t state_ = 0;
};

// A colour well. Its value is an NSColor (nil when the model's value is none or not a colour).
class NSColorWell : public NSControl {
 public:
  using NSControl::NSControl;
  std::string className() const override { return "NSColorWell"; }
  std::vector<std::string> exposedBindings() const override { return {NSValueBinding}; }

  const NSColorRef& color() const { return color_; }
  void setColor(NSColorRef color) { color_ = std::move(color); }

  void userSetColor(NSColorRef color);

 protected:
  void setValueForBinding(const std::string& binding, const Value& value) override;
  Value valueForBinding(const std::string& binding) const override;

 private:
  NSColorRef color_;
};

// A pop-up button over a menu; its selected object is the represented object of the selected
// item. The model's value selects the first item representing it, or no item at all (-1) when
// none does, nil included.
class NSPopUpButton : public NSControl {
 public:
  using NSControl::NSControl;
  std::string className() const override { return "NSPopUpButton"; }
  std::vector<std::string> exposedBindings() const override { return {NSSelectedObjectBinding}; }

  const NSMenuRef& menu() const { return menu_; }
  // Selects the first item (none for an empty menu).
  void setMenu(NSMenuRef menu);
  std::int64_t indexOfSelectedItem() const { return selected_; }
  NSMenuItemRef selectedItem() const;
  std::string titleOfSelectedItem() const;
  void selectItemAtIndex(std::int64_t index);  // -1 or an index out of range selects nothing
  // False (selection unchanged) when no item has the tag.
  bool selectItemWithTag(std::int64_t tag);

  // A user's choice: only enabled items that are not separators can be chosen; false otherwise.
  bool userSelectItemAtIndex(std::int64_t index);

 protected:
  void setValueForBinding(const std::string& binding, const Value& value) override;
  Value valueForBinding(const std::string& binding) const override;

 private:
  NSMenuRef menu_;
  std::int64_t selected_ = -1;
};

// An image well (NSImageView): shows an image input; its value is the image.
class NSImageView : public NSControl {
 public:
  using NSControl::NSControl;
  std::string className() const override { return "NSImageView"; }
  std::vector<std::string> exposedBindings() const override { return {NSValueBinding}; }

  const CIImage& image() const { return image_; }
  void setImage(CIImage image) { image_ = std::move(image); }

  void userSetImage(CIImage image);

 protected:
  void setValueForBinding(const std::string& binding, const Value& value) override;
  Value valueForBinding(const std::string& binding) const override;

 private:
  CIImage image_;
};

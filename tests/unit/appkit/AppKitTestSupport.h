// A filter class for the toolkit's tests: one input of each kind a control edits, registered
// once under "AppKitTestFilter", and a colour transformer registered under a test name.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "AppKit/IKFilterUIView.h"
#include "AppKit/NSColor.h"
#include "AppKit/NSValueTransformer.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"

namespace appkittest {

inline constexpr const char* kFilterName = "AppKitTestFilter";
inline constexpr const char* kColorTransformer = "AppKitTestColorTransformer";

class TestFilter : public CIFilter {
 public:
  std::vector<std::string> inputKeys() const override {
    return {"inputImage", "inputAmount", "inputFlag", "inputColor", "inputName"};
  }
  CIImage outputImage() const override { return {}; }
  // A typed setter, as the plug-in's filters have: stores without going through setValue.
  void setInputAmount(const Value& v) { storeValue("inputAmount", v); }
};

class ColorTransformer : public NSValueTransformer {
 public:
  bool allowsReverseTransformation() const override { return true; }
  Value transformedValue(const Value& v) const override {
    auto c = CIColor::fromValue(v);
    return c ? Value(NSColor::colorWithCIColor(*c)) : Value();
  }
  Value reverseTransformedValue(const Value& v) const override {
    auto c = NSColor::fromValue(v);
    return c ? Value(CIColor::colorWithCGColor(c->qvappkit_CGColor())) : Value();
  }
};

inline std::shared_ptr<TestFilter> makeTestFilter() {
  static const bool registered = [] {
    CIFilterRegistration reg;
    reg.name = kFilterName;
    reg.make = [] { return CIFilterRef(std::make_shared<TestFilter>()); };
    CIFilter::registerFilter(reg);
    NSValueTransformer::setValueTransformer(std::make_shared<ColorTransformer>(), kColorTransformer);
    return true;
  }();
  (void)registered;
  return std::dynamic_pointer_cast<TestFilter>(CIFilter::filterWithName(kFilterName));
}

}  // namespace appkittest

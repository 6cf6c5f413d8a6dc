#include "Views/QVFilterColorWellValueTransformer.h"

#include <memory>

#include "AppKit/NSColor.h"
#include "CoreImage/CIColor.h"

namespace {
constexpr const char* kClassName = "QVFilterColorWellValueTransformer";
}

std::string QVFilterColorWellValueTransformer::className() {
  static const bool registered = [] {
    NSValueTransformer::registerValueTransformerClass(
        kClassName, [] { return std::make_shared<QVFilterColorWellValueTransformer>(); });
    return true;
  }();
  (void)registered;
  return kClassName;
}

Value QVFilterColorWellValueTransformer::transformedValue(const Value& value) const {
  const CIColorRef color = CIColor::fromValue(value);
  if (!color) return {};
  return Value(NSColor::colorWithCIColor(*color));
}

Value QVFilterColorWellValueTransformer::reverseTransformedValue(const Value& value) const {
  const NSColorRef color = NSColor::fromValue(value);
  if (!color) return {};
  return Value(CIColor::colorWithCGColor(color->qvappkit_CGColor()));
}

// NSColor: a colour as the view toolkit shows it (a colour well's value), in the sRGB colour
// space with straight alpha, convertible to and from the image engine's colours.
#pragma once

#include <memory>
#include <string>

#include "CoreImage/CIColor.h"
#include "Foundation/Object.h"

class NSColor;
using NSColorRef = std::shared_ptr<const NSColor>;

class NSColor final : public Object {
 public:
  static NSColorRef colorWithSRGBRed(double red, double green, double blue, double alpha);
  // The same components as the image colour.
  static NSColorRef colorWithCIColor(const CIColor& color);
  static NSColorRef fromValue(const Value& value) { return value.object<NSColor>(); }

  NSColor(double r, double g, double b, double a) : r_(r), g_(g), b_(b), a_(a) {}

  double redComponent() const { return r_; }
  double greenComponent() const { return g_; }
  double blueComponent() const { return b_; }
  double alphaComponent() const { return a_; }

  // The colour as a Core Graphics colour (the QVAppKit category operation on NSColor).
  CGColor qvappkit_CGColor() const { return CGColor{r_, g_, b_, a_}; }

  std::string className() const override { return "NSColor"; }
  std::string description() const override;
  bool isEqual(const Object& other) const override;

 private:
  double r_, g_, b_, a_;
};

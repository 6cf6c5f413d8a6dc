#include "AppKit/NSColor.h"

#include <memory>

NSColorRef NSColor::colorWithSRGBRed(double red, double green, double blue, double alpha) {
  return std::make_shared<const NSColor>(red, green, blue, alpha);
}

NSColorRef NSColor::colorWithCIColor(const CIColor& color) {
  return colorWithSRGBRed(color.red(), color.green(), color.blue(), color.alpha());
}

std::string NSColor::description() const {
  // The same digits as the engine's colours print.
  return "NSColor(" + CIColor(r_, g_, b_, a_).stringRepresentation() + ")";
}

bool NSColor::isEqual(const Object& other) const {
  auto* c = dynamic_cast<const NSColor*>(&other);
  return c && c->r_ == r_ && c->g_ == g_ && c->b_ == b_ && c->a_ == a_;
}

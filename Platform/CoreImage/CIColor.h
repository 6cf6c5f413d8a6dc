// CIColor: straight (un-premultiplied) red, green, blue and alpha, in the sRGB colour space.
#pragma once

#include <memory>
#include <string>

#include "Foundation/Object.h"
#include "Foundation/Value.h"

class CIColor;
using CIColorRef = std::shared_ptr<const CIColor>;

// The platform's constant colours, by name (CGColorGetConstantColor).
extern const char* const kCGColorBlack;
extern const char* const kCGColorWhite;
extern const char* const kCGColorClear;
struct CGColor {
  double red = 0, green = 0, blue = 0, alpha = 1;
};
CGColor CGColorGetConstantColor(const std::string& name);

class CIColor final : public Object {
 public:
  static CIColorRef colorWithRed(double r, double g, double b, double a = 1.0);
  static CIColorRef colorWithCGColor(const CGColor& c);
  // Whitespace-separated numbers: 3 values give alpha 1, none gives clear (0 0 0 0).
  static CIColorRef colorWithString(const std::string& s);
  static CIColorRef fromValue(const Value& v) { return v.object<CIColor>(); }

  CIColor(double r, double g, double b, double a) : r_(r), g_(g), b_(b), a_(a) {}

  double red() const { return r_; }
  double green() const { return g_; }
  double blue() const { return b_; }
  double alpha() const { return a_; }
  // "r g b a", each number printed with at least one decimal ("1.0 1.0 1.0 1.0", "0.2 0.4 0.6 1.0").
  std::string stringRepresentation() const;

  std::string className() const override { return "CIColor"; }
  std::string description() const override { return "(" + stringRepresentation() + ")"; }
  bool isEqual(const Object& other) const override;

 private:
  double r_, g_, b_, a_;
};

#include "CoreImage/CIColor.h"

#include <charconv>
#include <cstdlib>

const char* const kCGColorBlack = "kCGColorBlack";
const char* const kCGColorWhite = "kCGColorWhite";
const char* const kCGColorClear = "kCGColorClear";

CGColor CGColorGetConstantColor(const std::string& name) {
  if (name == kCGColorBlack) return {0, 0, 0, 1};
  if (name == kCGColorWhite) return {1, 1, 1, 1};
  // kCGColorClear, and any name the platform does not know.
  return {0, 0, 0, 0};
}

CIColorRef CIColor::colorWithRed(double r, double g, double b, double a) {
  return std::make_shared<const CIColor>(r, g, b, a);
}

CIColorRef CIColor::colorWithCGColor(const CGColor& c) { return colorWithRed(c.red, c.green, c.blue, c.alpha); }

CIColorRef CIColor::colorWithString(const std::string& s) {
  // Up to four whitespace-separated numbers; brackets and commas are tolerated so that a
  // vector's string form also reads. Missing colour components are 0, a missing alpha is 1,
  // and a string without numbers is the clear colour.
  double v[4] = {0, 0, 0, 1};
  int n = 0;
  const char* p = s.c_str();
  while (n < 4) {
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == ',' || *p == '[') ++p;
    if (*p == '\0' || *p == ']') break;
    char* end = nullptr;
    const double x = std::strtod(p, &end);
    if (end == p) break;
    v[n++] = x;
    p = end;
  }
  if (n == 0) return colorWithRed(0, 0, 0, 0);
  return colorWithRed(v[0], v[1], v[2], v[3]);
}

std::string CIColor::stringRepresentation() const {
  auto num = [](double v) {
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    std::string s(buf, res.ptr);
    if (s.find_first_of(".eni") == std::string::npos) s += ".0";  // "1" -> "1.0"; leave 1e-07, inf, nan
    return s;
  };
  return num(r_) + " " + num(g_) + " " + num(b_) + " " + num(a_);
}

bool CIColor::isEqual(const Object& other) const {
  auto* o = dynamic_cast<const CIColor*>(&other);
  return o && o->r_ == r_ && o->g_ == g_ && o->b_ == b_ && o->a_ == a_;
}

#include "CoreImage/CIVector.h"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace {

std::string shortestNumber(double v) {
  char buf[64];
  auto res = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, res.ptr);
}

}  // namespace

CIVectorRef CIVector::vectorWithX(double x) { return std::make_shared<const CIVector>(std::vector<double>{x}); }
CIVectorRef CIVector::vectorWithX(double x, double y) {
  return std::make_shared<const CIVector>(std::vector<double>{x, y});
}
CIVectorRef CIVector::vectorWithX(double x, double y, double z) {
  return std::make_shared<const CIVector>(std::vector<double>{x, y, z});
}
CIVectorRef CIVector::vectorWithX(double x, double y, double z, double w) {
  return std::make_shared<const CIVector>(std::vector<double>{x, y, z, w});
}
CIVectorRef CIVector::vectorWithValues(const double* values, std::size_t count) {
  if (!values) count = 0;
  return std::make_shared<const CIVector>(std::vector<double>(values, values + count));
}
CIVectorRef CIVector::vectorWithCGPoint(CGPoint p) { return vectorWithX(p.x, p.y); }
CIVectorRef CIVector::vectorWithCGRect(const CGRect& r) {
  return vectorWithX(r.origin.x, r.origin.y, r.size.width, r.size.height);
}

CIVectorRef CIVector::vectorWithString(const std::string& s) {
  // Numbers separated by whitespace or commas, optionally inside brackets; reading stops at
  // the first thing that is not a number.
  std::vector<double> values;
  const char* p = s.c_str();
  for (;;) {
    while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == ',' || *p == '[') ++p;
    if (*p == '\0' || *p == ']') break;
    char* end = nullptr;
    const double v = std::strtod(p, &end);
    if (end == p) break;
    values.push_back(v);
    p = end;
  }
  if (values.empty()) return nullptr;
  return std::make_shared<const CIVector>(std::move(values));
}

std::string CIVector::stringRepresentation() const {
  std::string out = "[";
  for (std::size_t i = 0; i < values_.size(); ++i) {
    if (i) out += ' ';
    out += shortestNumber(values_[i]);
  }
  out += ']';
  return out;
}

bool CIVector::isEqual(const Object& other) const {
  auto* o = dynamic_cast<const CIVector*>(&other);
  return o && o->values_ == values_;
}

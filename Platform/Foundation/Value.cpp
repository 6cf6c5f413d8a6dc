#include "Foundation/Value.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

Value::Kind Value::kind() const {
  switch (v_.index()) {
    case 0: return Kind::Nil;
    case 1: return Kind::Integer;
    case 2: return Kind::Real;
    case 3: return Kind::Boolean;
    case 4: return Kind::String;
    case 5: return Kind::Data;
    case 6: return Kind::Date;
    case 7: return Kind::Array;
    case 8: return Kind::Dictionary;
    case 9: return Kind::Transform;
    default: return Kind::Object;
  }
}

bool Value::isNumber() const { return isInteger() || isReal() || isBoolean(); }

double Value::doubleValue() const {
  if (auto* i = std::get_if<std::int64_t>(&v_)) return static_cast<double>(*i);
  if (auto* d = std::get_if<double>(&v_)) return *d;
  if (auto* b = std::get_if<Bool>(&v_)) return b->value ? 1.0 : 0.0;
  if (auto* s = std::get_if<std::string>(&v_)) return std::strtod(s->c_str(), nullptr);
  return 0.0;
}

std::int64_t Value::integerValue() const {
  if (auto* i = std::get_if<std::int64_t>(&v_)) return *i;
  if (auto* d = std::get_if<double>(&v_)) {
    // NSNumber truncates towards zero; out-of-range and NaN values give 0 rather than UB.
    if (!std::isfinite(*d) || std::fabs(*d) >= 9.2e18) return 0;
    return static_cast<std::int64_t>(*d);
  }
  if (auto* b = std::get_if<Bool>(&v_)) return b->value ? 1 : 0;
  if (auto* s = std::get_if<std::string>(&v_)) return std::strtoll(s->c_str(), nullptr, 10);
  return 0;
}

std::uint64_t Value::unsignedIntegerValue() const { return static_cast<std::uint64_t>(integerValue()); }

bool Value::boolValue() const {
  if (auto* b = std::get_if<Bool>(&v_)) return b->value;
  if (auto* s = std::get_if<std::string>(&v_)) {
    // NSString's boolValue: leading "Y", "y", "T", "t" or a non-zero digit.
    for (char c : *s) {
      if (c == ' ' || c == '\t' || c == '+' || c == '-' || c == '0') continue;
      return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
    }
    return false;
  }
  return doubleValue() != 0.0;
}

const ::Data* Value::data() const {
  auto* p = std::get_if<std::shared_ptr<const ::Data>>(&v_);
  return p ? p->get() : nullptr;
}
const ::Array* Value::array() const {
  auto* p = std::get_if<std::shared_ptr<const ::Array>>(&v_);
  return p ? p->get() : nullptr;
}
const ::Dictionary* Value::dictionary() const {
  auto* p = std::get_if<std::shared_ptr<const ::Dictionary>>(&v_);
  return p ? p->get() : nullptr;
}

Value Value::operator[](const std::string& key) const {
  if (const ::Dictionary* d = dictionary()) {
    auto it = d->find(key);
    if (it != d->end()) return it->second;
  }
  return {};
}

std::string Value::className() const {
  switch (kind()) {
    case Kind::Nil: return "";
    case Kind::Integer:
    case Kind::Real:
    case Kind::Boolean: return "NSNumber";
    case Kind::String: return "NSString";
    case Kind::Data: return "NSData";
    case Kind::Date: return "NSDate";
    case Kind::Array: return "NSArray";
    case Kind::Dictionary: return "NSDictionary";
    case Kind::Transform: return "NSAffineTransform";
    case Kind::Object: return std::get<ObjectRef>(v_)->className();
  }
  return "";
}

namespace {
std::string formatReal(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  // Prefer the shortest form that reads back to the same double.
  for (int p = 1; p <= 17; ++p) {
    char s[64];
    std::snprintf(s, sizeof s, "%.*g", p, v);
    if (std::strtod(s, nullptr) == v) return s;
  }
  return buf;
}
}  // namespace

std::string Value::description() const {
  switch (kind()) {
    case Kind::Nil: return "nil";
    case Kind::Integer: return std::to_string(std::get<std::int64_t>(v_));
    case Kind::Real: return formatReal(std::get<double>(v_));
    case Kind::Boolean: return std::get<Bool>(v_).value ? "true" : "false";
    case Kind::String: return std::get<std::string>(v_);
    case Kind::Data: return "<" + std::to_string(data()->bytes.size()) + " bytes>";
    case Kind::Date: return "<date " + formatReal(date()->secondsSinceReferenceDate) + ">";
    case Kind::Array: {
      std::string s = "(";
      bool first = true;
      for (const Value& v : *array()) {
        s += first ? "" : ", ";
        s += v.isString() ? "\"" + *v.string() + "\"" : v.description();
        first = false;
      }
      return s + ")";
    }
    case Kind::Dictionary: {
      std::string s = "{";
      bool first = true;
      for (const auto& [k, v] : *dictionary()) {
        s += first ? "" : ", ";
        s += k + " = " + (v.isString() ? "\"" + *v.string() + "\"" : v.description());
        first = false;
      }
      return s + "}";
    }
    case Kind::Transform: return NSStringFromCGAffineTransform(std::get<CGAffineTransform>(v_));
    case Kind::Object: return std::get<ObjectRef>(v_)->description();
  }
  return "";
}

bool Value::operator==(const Value& other) const {
  if (isNumber() && other.isNumber()) {
    if (isBoolean() != other.isBoolean()) return false;
    return doubleValue() == other.doubleValue();
  }
  if (v_.index() != other.v_.index()) return false;
  switch (kind()) {
    case Kind::Data: return *data() == *other.data();
    case Kind::Array: return *array() == *other.array();
    case Kind::Dictionary: return *dictionary() == *other.dictionary();
    case Kind::Object: {
      const ObjectRef& a = std::get<ObjectRef>(v_);
      const ObjectRef& b = std::get<ObjectRef>(other.v_);
      return a == b || a->isEqual(*b);
    }
    default: return v_ == other.v_;
  }
}

// Value: the one type of key-value coding, property lists, attribute dictionaries and recipe
// values. A Value is nil, a number (remembering whether it is an integer, a real or a boolean),
// a string, data, a date, an array, a dictionary, an affine transform, or an Object (URL,
// vector, colour, image...). Values are immutable and cheap to copy.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "Foundation/Object.h"

class Value;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value>;

struct Data {
  std::vector<std::uint8_t> bytes;
  bool operator==(const Data&) const = default;
};

// Seconds since 2001-01-01 00:00:00 UTC, the platform's reference date.
struct Date {
  double secondsSinceReferenceDate = 0;
  bool operator==(const Date&) const = default;
};

class Value {
 public:
  enum class Kind { Nil, Integer, Real, Boolean, String, Data, Date, Array, Dictionary, Transform, Object };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(int v) : v_(std::int64_t{v}) {}
  Value(long v) : v_(std::int64_t{v}) {}
  Value(long long v) : v_(static_cast<std::int64_t>(v)) {}
  Value(unsigned v) : v_(std::int64_t{v}) {}
  Value(double v) : v_(v) {}
  Value(float v) : v_(double{v}) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(Data d) : v_(std::make_shared<const ::Data>(std::move(d))) {}
  Value(Date d) : v_(d) {}
  Value(Array a) : v_(std::make_shared<const ::Array>(std::move(a))) {}
  Value(Dictionary d) : v_(std::make_shared<const ::Dictionary>(std::move(d))) {}
  Value(const CGAffineTransform& t) : v_(t) {}
  // The variant is built in place (a null pointer is nil): assigning it after default
  // construction trips GCC 12's -Wmaybe-uninitialized under the sanitizers.
  template <class T, class = std::enable_if_t<std::is_base_of_v<Object, T>>>
  Value(std::shared_ptr<const T> o) : v_(objectOrNil(ObjectRef(std::move(o)))) {}
  template <class T, class = std::enable_if_t<std::is_base_of_v<Object, T>>>
  Value(std::shared_ptr<T> o) : v_(objectOrNil(ObjectRef(std::move(o)))) {}

  static Value boolean(bool b) {
    Value v;
    v.v_ = Bool{b};
    return v;
  }
  static Value integer(std::int64_t i) {
    Value v;
    v.v_ = i;
    return v;
  }
  static Value real(double d) { return Value(d); }

  Kind kind() const;
  bool isNil() const { return std::holds_alternative<std::monostate>(v_); }
  explicit operator bool() const { return !isNil(); }
  bool isNumber() const;  // integer, real or boolean
  bool isInteger() const { return std::holds_alternative<std::int64_t>(v_); }
  bool isReal() const { return std::holds_alternative<double>(v_); }
  bool isBoolean() const { return std::holds_alternative<Bool>(v_); }
  bool isString() const { return std::holds_alternative<std::string>(v_); }

  // Numbers read as the platform's NSNumber does; nil and non-numbers read as 0 / false.
  // A string holding a number is read as that number, as NSString's doubleValue does.
  double doubleValue() const;
  std::int64_t integerValue() const;
  std::uint64_t unsignedIntegerValue() const;
  bool boolValue() const;

  // Typed access; null when the value is of another kind.
  const std::string* string() const { return std::get_if<std::string>(&v_); }
  const ::Data* data() const;
  const ::Date* date() const { return std::get_if<::Date>(&v_); }
  const ::Array* array() const;
  const ::Dictionary* dictionary() const;
  const CGAffineTransform* transform() const { return std::get_if<CGAffineTransform>(&v_); }
  const ObjectRef* objectRef() const { return std::get_if<ObjectRef>(&v_); }
  template <class T>
  std::shared_ptr<const T> object() const {
    if (auto* o = std::get_if<ObjectRef>(&v_)) return std::dynamic_pointer_cast<const T>(*o);
    return nullptr;
  }

  // Dictionary lookup; nil when this is not a dictionary or the key is absent.
  Value operator[](const std::string& key) const;

  // "NSNumber", "NSString", "NSData", "NSDate", "NSArray", "NSDictionary",
  // "NSAffineTransform", an object's own class name, or "" for nil.
  std::string className() const;
  // A readable form: numbers as numbers, strings quoted inside collections.
  std::string description() const;

  bool operator==(const Value& other) const;

 private:
  struct Bool {
    bool value;
    bool operator==(const Bool&) const = default;
  };
  using Variant = std::variant<std::monostate, std::int64_t, double, Bool, std::string, std::shared_ptr<const ::Data>,
                               ::Date, std::shared_ptr<const ::Array>, std::shared_ptr<const ::Dictionary>,
                               CGAffineTransform, ObjectRef>;
  static Variant objectOrNil(ObjectRef o) { return o ? Variant(std::move(o)) : Variant(); }
  Variant v_;
};

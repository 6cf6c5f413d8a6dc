#include "Foundation/NSKeyedArchiver.h"

#include <map>
#include <mutex>

#include "Foundation/NSURL.h"
#include "Foundation/PropertyList.h"

namespace {

constexpr const char* kArchiverKey = "$archiver";
constexpr const char* kArchiverName = "NSKeyedArchiver";
constexpr const char* kVersionKey = "$version";
constexpr int kVersion = 100000;
constexpr const char* kTopKey = "$top";
constexpr const char* kClassKey = "$class";
constexpr const char* kStringKey = "NS.string";
constexpr const char* kTransformKey = "NS.transform";
constexpr const char* kTransformClass = "NSAffineTransform";

struct CodingClasses {
  std::mutex mutex;
  std::map<std::string, NSCodingClass> classes;
};

std::string encodeURL(const Object& o) { return static_cast<const NSURL&>(o).absoluteString(); }
ObjectRef decodeURL(const std::string& s) { return NSURL::URLWithString(s); }

CodingClasses* makeCodingClasses() {
  auto* c = new CodingClasses;  // never destroyed: coders may run during exit
  NSCodingClass url;
  url.className = "NSURL";
  url.encode = encodeURL;
  url.decode = decodeURL;
  c->classes.emplace(url.className, std::move(url));
  return c;
}

CodingClasses& codingClasses() {
  static CodingClasses* classes = makeCodingClasses();
  return *classes;
}

std::optional<NSCodingClass> codingClassNamed(const std::string& name) {
  CodingClasses& c = codingClasses();
  std::lock_guard lock(c.mutex);
  auto it = c.classes.find(name);
  if (it == c.classes.end()) return std::nullopt;
  return it->second;
}

// The property-list form of a value; nullopt when it cannot be archived.
std::optional<Value> encoded(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Nil:
      return std::nullopt;
    case Value::Kind::Array: {
      Array out;
      for (const Value& element : *value.array()) {
        auto e = encoded(element);
        if (!e) return std::nullopt;
        out.push_back(std::move(*e));
      }
      return Value(std::move(out));
    }
    case Value::Kind::Dictionary: {
      Dictionary out;
      for (const auto& [key, element] : *value.dictionary()) {
        auto e = encoded(element);
        if (!e) return std::nullopt;
        out.emplace(key, std::move(*e));
      }
      return Value(std::move(out));
    }
    case Value::Kind::Transform: {
      const CGAffineTransform& t = *value.transform();
      return Value(Dictionary{{kClassKey, Value(kTransformClass)},
                              {kTransformKey, Value(Array{Value(t.a), Value(t.b), Value(t.c), Value(t.d),
                                                          Value(t.tx), Value(t.ty)})}});
    }
    case Value::Kind::Object: {
      const ObjectRef& object = *value.objectRef();
      auto codingClass = codingClassNamed(object->className());
      if (!codingClass) return std::nullopt;
      return Value(Dictionary{{kClassKey, Value(codingClass->className)},
                              {kStringKey, Value(codingClass->encode(*object))}});
    }
    default:
      return value;  // numbers, strings, data, dates
  }
}

Value decoded(const Value& stored) {
  if (const Array* array = stored.array()) {
    Array out;
    for (const Value& element : *array) out.push_back(decoded(element));
    return Value(std::move(out));
  }
  const Dictionary* dictionary = stored.dictionary();
  if (!dictionary) return stored;
  const Value className = stored[kClassKey];
  if (const std::string* name = className.string()) {
    if (*name == kTransformClass) {
      const Value matrix = stored[kTransformKey];
      const Array* m = matrix.array();
      if (!m || m->size() != 6) return {};
      return Value(CGAffineTransform{(*m)[0].doubleValue(), (*m)[1].doubleValue(), (*m)[2].doubleValue(),
                                     (*m)[3].doubleValue(), (*m)[4].doubleValue(), (*m)[5].doubleValue()});
    }
    auto codingClass = codingClassNamed(*name);
    const Value formValue = stored[kStringKey];
    const std::string* form = formValue.string();
    if (!codingClass || !form) return {};
    return Value(codingClass->decode(*form));
  }
  Dictionary out;
  for (const auto& [key, element] : *dictionary) out.emplace(key, decoded(element));
  return Value(std::move(out));
}

}  // namespace

void NSCoderRegisterClass(NSCodingClass codingClass) {
  CodingClasses& c = codingClasses();
  std::lock_guard lock(c.mutex);
  const std::string name = codingClass.className;
  c.classes[name] = std::move(codingClass);
}

bool NSCoder::encodeObject(const Value& value, const std::string& key) {
  auto e = encoded(value);
  if (!e) {
    encoded_.erase(key);
    return false;
  }
  encoded_[key] = std::move(*e);
  return true;
}

void NSCoder::removeObjectForKey(const std::string& key) { encoded_.erase(key); }

Value NSCoder::decodeObjectForKey(const std::string& key) const {
  auto it = encoded_.find(key);
  return it == encoded_.end() ? Value() : decoded(it->second);
}

std::vector<std::string> NSCoder::allKeys() const {
  std::vector<std::string> keys;
  for (const auto& [key, value] : encoded_) keys.push_back(key);
  return keys;
}

std::optional<std::string> NSKeyedArchiver::archivedDataWithCoder(const NSCoder& coder) {
  Dictionary top = coder.encoded_;
  top[kClassKey] = Value(coder.className_);
  const Value root(Dictionary{{kArchiverKey, Value(kArchiverName)},
                              {kVersionKey, Value(kVersion)},
                              {kTopKey, Value(std::move(top))}});
  return dataWithPropertyList(root, true);
}

std::optional<NSCoder> NSKeyedUnarchiver::coderWithData(std::string_view data) {
  const Value root = propertyListFromData(data.data(), data.size());
  const Value archiverValue = root[kArchiverKey];
  const Value topValue = root[kTopKey];
  const std::string* archiver = archiverValue.string();
  const Dictionary* top = topValue.dictionary();
  if (!archiver || *archiver != kArchiverName || !top) return std::nullopt;
  NSCoder coder;
  for (const auto& [key, value] : *top) {
    if (key == kClassKey) {
      if (const std::string* name = value.string()) coder.className_ = *name;
    } else {
      coder.encoded_.emplace(key, value);
    }
  }
  return coder;
}

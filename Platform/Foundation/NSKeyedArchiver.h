// Keyed archiving: objects write their state into a coder as values under string keys, and are
// made again from a coder that holds them. The archive is an XML property list:
//
//   {"$archiver": "NSKeyedArchiver", "$version": 100000,
//    "$top": {"$class": "<class name>", "<key>": <encoded value>, ...}}
//
// Property-list values (numbers, strings, booleans, data, dates, arrays, dictionaries) are
// stored as they are. Objects are stored as {"$class": "<class name>", "NS.string": "<form>"}
// through the string form their class registers (NSURL: its absolute string; CoreImage adds
// CIColor and CIVector); transforms as {"$class": "NSAffineTransform", "NS.transform": [a, b, c,
// d, tx, ty]}. Nil and objects of classes without a registered form (images) are not archived.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Foundation/Value.h"

// The string form of an archivable object class and its way back (nil for a string that does
// not parse).
struct NSCodingClass {
  std::string className;
  std::function<std::string(const Object&)> encode;
  std::function<ObjectRef(const std::string&)> decode;
};

// Registers (or replaces) the string form of an object class. Thread-safe.
void NSCoderRegisterClass(NSCodingClass codingClass);

class NSCoder {
 public:
  // Stores `value` under `key`; false (nothing stored, an earlier value under the key removed)
  // for nil and for values that cannot be archived.
  bool encodeObject(const Value& value, const std::string& key);
  // Forgets what is stored under `key`.
  void removeObjectForKey(const std::string& key);
  // The value stored under `key`, made again; nil when there is none.
  Value decodeObjectForKey(const std::string& key) const;
  bool containsValueForKey(const std::string& key) const { return encoded_.count(key) != 0; }
  std::vector<std::string> allKeys() const;

  // The class name of the archived root object (set by the archiving object).
  const std::string& className() const { return className_; }
  void setClassName(std::string name) { className_ = std::move(name); }

 private:
  friend struct NSKeyedArchiver;
  friend struct NSKeyedUnarchiver;
  std::string className_;
  Dictionary encoded_;  // key -> property-list form
};

struct NSKeyedArchiver {
  // The coder as archive data (an XML property list); nullopt when it cannot be serialised.
  static std::optional<std::string> archivedDataWithCoder(const NSCoder& coder);
};

struct NSKeyedUnarchiver {
  // A coder holding what archive data holds; nullopt when the data is not such an archive.
  static std::optional<NSCoder> coderWithData(std::string_view data);
};

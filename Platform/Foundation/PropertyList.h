// Property lists: reading XML, binary and old-style (OpenStep) property lists into Values, and
// writing Values as XML or binary property lists.
//
// Reading maps dictionary -> Dictionary, array -> Array, string -> string, integer ->
// Value::integer, real -> real, boolean -> Value::boolean, data -> Data, date -> Date (and a
// keyed-archive UID -> {"CF$UID" = n}). Anything malformed (including strings that are not
// valid UTF-8), empty, nested deeper than
// kPropertyListMaximumDepth or larger than kPropertyListMaximumSize gives nil.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/Value.h"

inline constexpr std::size_t kPropertyListMaximumSize = 64u << 20;  // 64 MB
inline constexpr int kPropertyListMaximumDepth = 512;

Value propertyListFromData(const void* bytes, std::size_t length);
Value propertyListFromFile(const std::string& path);

// A strings table (the content of a ".strings" file): an old-style list of "key" = "value";
// pairs (with comments and escapes, in UTF-8 or UTF-16 with a byte-order mark), or an XML or
// binary property list holding a dictionary. Gives a Dictionary of strings, or nil when the
// bytes are none of these. An empty file is an empty table.
Value stringsTableFromData(const void* bytes, std::size_t length);
Value stringsTableFromFile(const std::string& path);

// Serialises a property-list Value (dictionaries, arrays, strings, numbers, data, dates);
// nullopt when the value holds anything else (nil, transforms, objects), a string that is not
// valid UTF-8 or one with a NUL character, or a date too far from the reference date.
std::optional<std::string> dataWithPropertyList(const Value& plist, bool xml = true);
// Writes the property list to a file; false when the value cannot be serialised or the file
// cannot be written.
bool writePropertyList(const Value& plist, const std::string& path, bool xml = true);

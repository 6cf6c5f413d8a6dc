#include "Foundation/PropertyList.h"

#include "Foundation/NSURL.h"
#include "Foundation/TextDecoding.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string_view>
#include <system_error>

namespace {

// ---------------------------------------------------------------------------------------------
// Old-style (OpenStep) property lists: { key = value; } dictionaries, ( a, b ) arrays,
// <0fbd77> data, "quoted" and unquoted strings, // and /* */ comments.

class OpenStepParser {
 public:
  explicit OpenStepParser(const std::string& text) : s_(text) {}

  // A whole property list: one value and nothing after it; or, as strings files are written,
  // the inside of a dictionary without its braces.
  std::optional<Value> parseDocument(bool emptyIsDictionary) {
    skipSpace();
    if (atEnd()) return emptyIsDictionary ? std::optional<Value>(Value(Dictionary{})) : std::nullopt;
    const std::size_t start = pos_;
    if (std::optional<Value> v = parseValue(0)) {
      skipSpace();
      if (atEnd() && ok_) return v;
    }
    // Not a single value: try "key = value;" pairs at the top level.
    pos_ = start;
    ok_ = true;
    Dictionary d;
    if (!parseDictionaryBody(d, 0, /*braced=*/false)) return std::nullopt;
    return Value(std::move(d));
  }

 private:
  bool atEnd() const { return pos_ >= s_.size(); }
  char peek() const { return s_[pos_]; }

  void skipSpace() {
    while (!atEnd()) {
      const char c = peek();
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
        ++pos_;
      } else if (c == '/' && pos_ + 1 < s_.size() && s_[pos_ + 1] == '/') {
        while (!atEnd() && peek() != '\n' && peek() != '\r') ++pos_;
      } else if (c == '/' && pos_ + 1 < s_.size() && s_[pos_ + 1] == '*') {
        const std::size_t close = s_.find("*/", pos_ + 2);
        if (close == std::string::npos) {
          ok_ = false;  // an unterminated comment
          pos_ = s_.size();
          return;
        }
        pos_ = close + 2;
      } else {
        return;
      }
    }
  }

  static bool isUnquotedChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
           c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
  }

  std::optional<Value> parseValue(int depth) {
    if (depth > kPropertyListMaximumDepth) return fail();
    skipSpace();
    if (atEnd() || !ok_) return fail();
    const char c = peek();
    if (c == '{') {
      ++pos_;
      Dictionary d;
      if (!parseDictionaryBody(d, depth + 1, /*braced=*/true)) return fail();
      return Value(std::move(d));
    }
    if (c == '(') {
      ++pos_;
      Array a;
      skipSpace();
      if (!atEnd() && peek() == ')') {
        ++pos_;
        return Value(std::move(a));
      }
      for (;;) {
        std::optional<Value> v = parseValue(depth + 1);
        if (!v) return fail();
        a.push_back(std::move(*v));
        skipSpace();
        if (atEnd()) return fail();
        if (peek() == ',') {
          ++pos_;
          skipSpace();
          if (!atEnd() && peek() == ')') {  // a trailing comma
            ++pos_;
            return Value(std::move(a));
          }
          continue;
        }
        if (peek() == ')') {
          ++pos_;
          return Value(std::move(a));
        }
        return fail();
      }
    }
    if (c == '<') return parseData();
    if (c == '"' || c == '\'') {
      std::optional<std::string> s = parseQuoted();
      if (!s) return fail();
      return Value(std::move(*s));
    }
    if (isUnquotedChar(c)) {
      const std::size_t start = pos_;
      while (!atEnd() && isUnquotedChar(peek())) ++pos_;
      return Value(s_.substr(start, pos_ - start));
    }
    return fail();
  }

  std::optional<std::string> parseString() {
    skipSpace();
    if (atEnd() || !ok_) return std::nullopt;
    if (peek() == '"' || peek() == '\'') return parseQuoted();
    if (!isUnquotedChar(peek())) return std::nullopt;
    const std::size_t start = pos_;
    while (!atEnd() && isUnquotedChar(peek())) ++pos_;
    return s_.substr(start, pos_ - start);
  }

  // key = value; ... up to "}" (braced) or the end of the text. A strings file may also give a
  // key alone ("key";), which stands for key = key.
  bool parseDictionaryBody(Dictionary& d, int depth, bool braced) {
    for (;;) {
      skipSpace();
      if (!ok_) return false;
      if (atEnd()) return !braced;
      if (braced && peek() == '}') {
        ++pos_;
        return true;
      }
      std::optional<std::string> key = parseString();
      if (!key) return false;
      skipSpace();
      if (atEnd()) return false;
      if (peek() == ';') {
        ++pos_;
        d[*key] = Value(*key);
        continue;
      }
      if (peek() != '=') return false;
      ++pos_;
      std::optional<Value> v = parseValue(depth + 1);
      if (!v) return false;
      skipSpace();
      if (atEnd() || peek() != ';') return false;
      ++pos_;
      d[*key] = std::move(*v);
    }
  }

  static int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  std::optional<Value> parseData() {
    ++pos_;  // '<'
    Data data;
    int high = -1;
    while (!atEnd()) {
      const char c = peek();
      ++pos_;
      if (c == '>') {
        if (high >= 0) return fail();
        return Value(std::move(data));
      }
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
      const int h = hexDigit(c);
      if (h < 0) return fail();
      if (high < 0) {
        high = h;
      } else {
        data.bytes.push_back(static_cast<std::uint8_t>(high * 16 + h));
        high = -1;
      }
    }
    return fail();
  }

  std::optional<std::string> parseQuoted() {
    const char quote = peek();
    ++pos_;
    std::string out;
    while (!atEnd()) {
      const char c = peek();
      ++pos_;
      if (c == quote) {
        if (out.find('\0') != std::string::npos) return std::nullopt;  // no NUL characters in strings
        return out;
      }
      if (c != '\\') {
        out += c;
        continue;
      }
      if (atEnd()) return std::nullopt;
      const char e = peek();
      ++pos_;
      switch (e) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'a': out += '\a'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'v': out += '\v'; break;
        case 'U':
        case 'u': {
          std::optional<std::uint32_t> unit = parseHex4();
          if (!unit) return std::nullopt;
          std::uint32_t cp = *unit;
          if (cp >= 0xD800 && cp <= 0xDBFF && pos_ + 6 <= s_.size() && s_[pos_] == '\\' &&
              (s_[pos_ + 1] == 'U' || s_[pos_ + 1] == 'u')) {
            const std::size_t save = pos_;
            pos_ += 2;
            std::optional<std::uint32_t> lo = parseHex4();
            if (lo && *lo >= 0xDC00 && *lo <= 0xDFFF) {
              cp = 0x10000 + ((cp - 0xD800) << 10) + (*lo - 0xDC00);
            } else {
              pos_ = save;
            }
          }
          if (cp >= 0xD800 && cp <= 0xDFFF) cp = 0xFFFD;
          QVAppendUTF8(out, static_cast<char32_t>(cp));
          break;
        }
        default:
          if (e >= '0' && e <= '7') {
            std::uint32_t v = static_cast<std::uint32_t>(e - '0');
            for (int k = 0; k < 2 && !atEnd() && peek() >= '0' && peek() <= '7'; ++k) {
              v = v * 8 + static_cast<std::uint32_t>(peek() - '0');
              ++pos_;
            }
            QVAppendUTF8(out, static_cast<char32_t>(v & 0xFF));
          } else {
            out += e;  // \\, \", \' and any other character stand for themselves
          }
      }
    }
    return std::nullopt;  // unterminated
  }

  std::optional<std::uint32_t> parseHex4() {
    if (pos_ + 4 > s_.size()) return std::nullopt;
    std::uint32_t v = 0;
    for (int k = 0; k < 4; ++k) {
      const int h = hexDigit(s_[pos_ + static_cast<std::size_t>(k)]);
      if (h < 0) return std::nullopt;
      v = v * 16 + static_cast<std::uint32_t>(h);
    }
    pos_ += 4;
    return v;
  }

  std::optional<Value> fail() {
    ok_ = false;
    return std::nullopt;
  }

  const std::string& s_;
  std::size_t pos_ = 0;
  bool ok_ = true;
};

// ---------------------------------------------------------------------------------------------
// XML and binary property lists through libplist

struct PlistDeleter {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

std::optional<Value> fromPlist(plist_t node, int depth) {
  if (!node || depth > kPropertyListMaximumDepth) return std::nullopt;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value::boolean(b != 0);
    }
    case PLIST_UINT: {
      std::uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return Value::integer(static_cast<std::int64_t>(u));  // negative integers are stored two's complement
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value::real(d);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      if (!s) return Value(std::string());
      std::string str(s, static_cast<std::size_t>(length));
      // Strings are text: broken UTF-8 or a NUL character makes the whole list malformed.
      if (!QVIsValidUTF8(str) || str.find('\0') != std::string::npos) return std::nullopt;
      return Value(std::move(str));
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      std::uint64_t len = 0;
      plist_get_data_val(node, &bytes, &len);
      Data data;
      if (bytes && len > 0) data.bytes.assign(reinterpret_cast<std::uint8_t*>(bytes), reinterpret_cast<std::uint8_t*>(bytes) + len);
      std::free(bytes);
      return Value(std::move(data));
    }
    case PLIST_DATE: {
      std::int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      // libplist hands out the seconds truncated towards zero and the fraction's magnitude, so a
      // fraction of a date before the reference date counts backwards.
      const double fraction = static_cast<double>(usec < 0 ? -usec : usec) / 1e6;
      return Value(Date{sec < 0 ? static_cast<double>(sec) - fraction : static_cast<double>(sec) + fraction});
    }
    case PLIST_UID: {
      std::uint64_t uid = 0;
      plist_get_uid_val(node, &uid);
      return Value(Dictionary{{"CF$UID", Value::integer(static_cast<std::int64_t>(uid))}});
    }
    case PLIST_ARRAY: {
      Array a;
      const std::uint32_t n = plist_array_get_size(node);
      a.reserve(n);
      for (std::uint32_t i = 0; i < n; ++i) {
        std::optional<Value> v = fromPlist(plist_array_get_item(node, i), depth + 1);
        if (!v) return std::nullopt;
        a.push_back(std::move(*v));
      }
      return Value(std::move(a));
    }
    case PLIST_DICT: {
      Dictionary d;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      if (!it) return Value(std::move(d));
      bool ok = true;
      for (;;) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (!item) {
          std::free(key);
          break;
        }
        std::optional<Value> v = fromPlist(item, depth + 1);
        if (!v || !key || !QVIsValidUTF8(key)) {
          std::free(key);
          ok = false;
          break;
        }
        d[key] = std::move(*v);
        std::free(key);
      }
      std::free(it);
      if (!ok) return std::nullopt;
      return Value(std::move(d));
    }
    default:
      return std::nullopt;
  }
}

bool startsWith(const unsigned char* p, std::size_t n, const char* prefix) {
  const std::size_t k = std::strlen(prefix);
  return n >= k && std::memcmp(p, prefix, k) == 0;
}

// The nesting depth of <dict> and <array> elements of an XML property list, counted on the raw
// text before the XML reader sees it, so that absurdly deep documents are refused up front.
bool xmlNestingWithinLimit(const unsigned char* p, std::size_t n) {
  int depth = 0;
  for (std::size_t i = 0; i + 1 < n; ++i) {
    if (p[i] != '<') continue;
    const bool closing = p[i + 1] == '/';
    const std::size_t name = i + (closing ? 2 : 1);
    const bool isArray = startsWith(p + name, n - name, "array");
    const bool isDict = startsWith(p + name, n - name, "dict");
    if (!isArray && !isDict) continue;
    const std::size_t end = name + (isArray ? 5 : 4);
    if (end < n && p[end] != '>' && p[end] != '/' && p[end] != ' ' && p[end] != '\t' && p[end] != '\n' && p[end] != '\r') continue;
    if (closing) {
      --depth;
    } else {
      // <array/> and <dict/> open nothing.
      std::size_t j = end;
      while (j < n && p[j] != '>') ++j;
      if (j > 0 && j < n && p[j - 1] == '/') continue;
      if (++depth > kPropertyListMaximumDepth) return false;
    }
  }
  return true;
}

std::uint64_t readBigEndian(const unsigned char* p, std::size_t size) {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < size; ++i) v = (v << 8) | p[i];
  return v;
}

// libplist aborts the process on a binary list whose UTF-16 strings (or keys) hold a U+0000
// unit, so such lists are looked for first, by walking the object table, and refused. A table
// that does not hold together is refused as well.
bool binaryStringsAreSafe(const unsigned char* p, std::size_t n) {
  constexpr std::size_t kHeader = 8, kTrailer = 32;
  if (n < kHeader + kTrailer) return false;
  const unsigned char* trailer = p + n - kTrailer;
  const std::size_t offsetSize = trailer[6];
  if (offsetSize < 1 || offsetSize > 8) return false;
  const std::uint64_t objectCount = readBigEndian(trailer + 8, 8);
  const std::uint64_t tableOffset = readBigEndian(trailer + 24, 8);
  const std::size_t objectsEnd = n - kTrailer;
  if (tableOffset < kHeader || tableOffset > objectsEnd || objectCount > (objectsEnd - tableOffset) / offsetSize)
    return false;
  for (std::uint64_t i = 0; i < objectCount; ++i) {
    const std::uint64_t offset = readBigEndian(p + tableOffset + i * offsetSize, offsetSize);
    if (offset < kHeader || offset >= objectsEnd) return false;
    const unsigned char marker = p[offset];
    if ((marker & 0xF0) != 0x60) continue;  // not a UTF-16 string
    std::size_t pos = static_cast<std::size_t>(offset) + 1;
    std::uint64_t count = marker & 0x0F;
    if (count == 0x0F) {
      if (pos >= objectsEnd || (p[pos] & 0xF0) != 0x10) return false;
      const std::size_t intSize = std::size_t{1} << (p[pos] & 0x0F);
      if (intSize > 8 || pos + 1 + intSize > objectsEnd) return false;
      count = readBigEndian(p + pos + 1, intSize);
      pos += 1 + intSize;
    }
    if (count > (objectsEnd - pos) / 2) return false;
    for (std::uint64_t k = 0; k < count; ++k) {
      if (p[pos + 2 * k] == 0 && p[pos + 2 * k + 1] == 0) return false;
    }
  }
  return true;
}

// XML text with a NUL byte is not XML (and makes libplist abort).
bool xmlHasNoNulBytes(const unsigned char* p, std::size_t n) { return std::memchr(p, 0, n) == nullptr; }

Value fromLibplist(const unsigned char* p, std::size_t n, bool binary) {
  plist_t raw = nullptr;
  if (binary) {
    if (!binaryStringsAreSafe(p, n)) return {};
    plist_from_bin(reinterpret_cast<const char*>(p), static_cast<std::uint32_t>(n), &raw);
  } else {
    if (!xmlHasNoNulBytes(p, n) || !xmlNestingWithinLimit(p, n)) return {};
    plist_from_xml(reinterpret_cast<const char*>(p), static_cast<std::uint32_t>(n), &raw);
  }
  PlistPtr root(raw);
  if (!root) return {};
  return fromPlist(root.get(), 0).value_or(Value());
}

// Skips a UTF-8 byte-order mark and white space, to find out what kind of document this is.
std::size_t firstSignificantByte(const unsigned char* p, std::size_t n) {
  std::size_t i = 0;
  if (startsWith(p, n, "\xEF\xBB\xBF")) i = 3;
  while (i < n && (p[i] == ' ' || p[i] == '\t' || p[i] == '\n' || p[i] == '\r')) ++i;
  return i;
}

bool looksLikeXML(const unsigned char* p, std::size_t n) {
  const std::size_t i = firstSignificantByte(p, n);
  return startsWith(p + i, n - i, "<?xml") || startsWith(p + i, n - i, "<!DOCTYPE") || startsWith(p + i, n - i, "<plist");
}

std::optional<std::string> readWholeFile(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return std::nullopt;
  const std::uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec || size > kPropertyListMaximumSize) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes;
  bytes.resize(static_cast<std::size_t>(size));
  in.read(bytes.data(), static_cast<std::streamsize>(size));
  if (static_cast<std::uintmax_t>(in.gcount()) != size) return std::nullopt;
  return bytes;
}

// Values to libplist nodes, for writing.
plist_t toPlist(const Value& v, int depth) {
  if (depth > kPropertyListMaximumDepth) return nullptr;
  switch (v.kind()) {
    case Value::Kind::Integer: return plist_new_uint(static_cast<std::uint64_t>(v.integerValue()));
    case Value::Kind::Real: return plist_new_real(v.doubleValue());
    case Value::Kind::Boolean: return plist_new_bool(v.boolValue() ? 1 : 0);
    case Value::Kind::String:
      if (!QVIsValidUTF8(*v.string()) || v.string()->find('\0') != std::string::npos) return nullptr;
      return plist_new_string(v.string()->c_str());
    case Value::Kind::Data: {
      const auto& bytes = v.data()->bytes;
      return plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    case Value::Kind::Date: {
      const double s = v.date()->secondsSinceReferenceDate;
      if (!std::isfinite(s)) return nullptr;
      // Whole seconds towards zero and a microsecond part of the same sign, as libplist reads them.
      const double whole = std::trunc(s);
      if (whole < std::numeric_limits<std::int32_t>::min() || whole > std::numeric_limits<std::int32_t>::max())
        return nullptr;
      return plist_new_date(static_cast<std::int32_t>(whole), static_cast<std::int32_t>(std::lround((s - whole) * 1e6)));
    }
    case Value::Kind::Array: {
      plist_t a = plist_new_array();
      for (const Value& item : *v.array()) {
        plist_t child = toPlist(item, depth + 1);
        if (!child) {
          plist_free(a);
          return nullptr;
        }
        plist_array_append_item(a, child);
      }
      return a;
    }
    case Value::Kind::Dictionary: {
      plist_t d = plist_new_dict();
      for (const auto& [key, item] : *v.dictionary()) {
        plist_t child = toPlist(item, depth + 1);
        if (child && (!QVIsValidUTF8(key) || key.find('\0') != std::string::npos)) {
          plist_free(child);
          child = nullptr;
        }
        if (!child) {
          plist_free(d);
          return nullptr;
        }
        plist_dict_set_item(d, key.c_str(), child);
      }
      return d;
    }
    default:
      return nullptr;
  }
}

}  // namespace

Value propertyListFromData(const void* bytes, std::size_t length) {
  if (!bytes || length == 0 || length > kPropertyListMaximumSize) return {};
  const auto* p = static_cast<const unsigned char*>(bytes);
  if (startsWith(p, length, "bplist00")) return fromLibplist(p, length, true);
  if (looksLikeXML(p, length)) return fromLibplist(p, length, false);
  // Text by its byte-order mark; text that does not decode (broken UTF-8, unpaired UTF-16
  // surrogates, an odd UTF-16 byte count) or holds a NUL character is not a property list.
  const QVDecodedText text = QVDecodeText(std::string_view(reinterpret_cast<const char*>(p), length));
  if (!text || text.text->find('\0') != std::string::npos) return {};
  OpenStepParser parser(*text.text);
  return parser.parseDocument(/*emptyIsDictionary=*/false).value_or(Value());
}

Value propertyListFromFile(const std::string& path) {
  std::optional<std::string> bytes = readWholeFile(path);
  if (!bytes) return {};
  return propertyListFromData(bytes->data(), bytes->size());
}

Value stringsTableFromData(const void* bytes, std::size_t length) {
  if (length > kPropertyListMaximumSize) return {};
  if (!bytes || length == 0) return Value(Dictionary{});
  const auto* p = static_cast<const unsigned char*>(bytes);
  Value table;
  if (startsWith(p, length, "bplist00")) {
    table = fromLibplist(p, length, true);
  } else if (looksLikeXML(p, length)) {
    table = fromLibplist(p, length, false);
  } else {
    const QVDecodedText text = QVDecodeText(std::string_view(reinterpret_cast<const char*>(p), length));
    if (!text || text.text->find('\0') != std::string::npos) return {};
    OpenStepParser parser(*text.text);
    table = parser.parseDocument(/*emptyIsDictionary=*/true).value_or(Value());
  }
  const Dictionary* d = table.dictionary();
  if (!d) return {};
  // Only string values make entries of a strings table.
  Dictionary strings;
  for (const auto& [key, value] : *d) {
    if (value.isString()) strings.emplace(key, value);
  }
  return Value(std::move(strings));
}

Value stringsTableFromFile(const std::string& path) {
  std::optional<std::string> bytes = readWholeFile(path);
  if (!bytes) return {};
  return stringsTableFromData(bytes->data(), bytes->size());
}

std::optional<std::string> dataWithPropertyList(const Value& plist, bool xml) {
  PlistPtr root(toPlist(plist, 0));
  if (!root) return std::nullopt;
  char* out = nullptr;
  std::uint32_t length = 0;
  if (xml) {
    plist_to_xml(root.get(), &out, &length);
  } else {
    plist_to_bin(root.get(), &out, &length);
  }
  if (!out) return std::nullopt;
  std::string bytes(out, length);
  if (xml) {
    plist_to_xml_free(out);
  } else {
    plist_to_bin_free(out);
  }
  return bytes;
}

bool writePropertyList(const Value& plist, const std::string& path, bool xml) {
  std::optional<std::string> bytes = dataWithPropertyList(plist, xml);
  if (!bytes) return false;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return false;
  out.write(bytes->data(), static_cast<std::streamsize>(bytes->size()));
  return static_cast<bool>(out.flush());
}

#include "ValueParsing.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cmath>
#include <cstdint>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "ImageIO/CGImageSource.h"

#if __has_include("Foundation/NSURL.h")
#include "Foundation/NSBundle.h"
#include "Foundation/NSURL.h"
#include "Foundation/TextureIdentifiers.h"
#define QV_HAVE_NSURL 1
#else
#define QV_HAVE_NSURL 0
#endif

namespace qv {
namespace {

constexpr std::string_view kWhitespace = " \t\r\n\f\v";

std::string_view trim(std::string_view s) {
  const auto first = s.find_first_not_of(kWhitespace);
  if (first == std::string_view::npos) return {};
  const auto last = s.find_last_not_of(kWhitespace);
  return s.substr(first, last - first + 1);
}

std::string lowercase(std::string_view s) {
  std::string out(s);
  for (auto& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// "Permission denied" -> "permission denied", as the rest of a message is written.
std::string lowercaseFirst(std::string text) {
  if (!text.empty() && text[0] >= 'A' && text[0] <= 'Z') text[0] = static_cast<char>(text[0] - 'A' + 'a');
  return text;
}

std::string quote(std::string_view s) {
  // Messages quote user text; keep them one line and short.
  std::string out = "\"";
  std::size_t n = 0;
  for (char c : s) {
    if (++n > 80) {
      out += "...";
      break;
    }
    if (c == '\n' || c == '\r' || c == '\t') {
      out += ' ';
    } else if (static_cast<unsigned char>(c) < 0x20) {
      out += '?';
    } else {
      out += c;
    }
  }
  out += '"';
  return out;
}

CGAffineTransform transformFromNumbers(const std::vector<double>& n) {
  return CGAffineTransformMake(n[0], n[1], n[2], n[3], n[4], n[5]);
}

const char* numberOfNumbersText(std::string_view attributeClass) {
  if (attributeClass == "CIVector") return "1 to 4 numbers (\"x y\" or \"x y z w\")";
  if (attributeClass == "CIColor") return "3 or 4 numbers (\"r g b\" or \"r g b a\")";
  return "6 numbers (\"a b c d tx ty\")";
}

bool countFits(std::string_view attributeClass, std::size_t count) {
  if (attributeClass == "CIVector") return count >= 1 && count <= 4;
  if (attributeClass == "CIColor") return count == 3 || count == 4;
  return count == 6;
}

Value objectFromNumbers(std::string_view attributeClass, const std::vector<double>& n) {
  if (attributeClass == "CIVector") return Value(CIVector::vectorWithValues(n.data(), n.size()));
  if (attributeClass == "CIColor") return Value(CIColor::colorWithRed(n[0], n[1], n[2], n.size() == 4 ? n[3] : 1.0));
  return Value(transformFromNumbers(n));
}

Value urlValue(const std::string& text, const std::string& baseDir) {
#if QV_HAVE_NSURL
  if (auto url = NSURL::URLWithString(text); url && !url->scheme().empty()) return Value(url);
  std::filesystem::path p(text);
  if (p.is_relative() && !baseDir.empty()) p = std::filesystem::path(baseDir) / p;
  if (auto url = NSURL::fileURLWithPath(p.lexically_normal().string())) return Value(url);
  throw ValueError("not a URL: " + quote(text));
#else
  // Without the platform's URL type the text itself stands for the URL.
  (void)baseDir;
  return Value(text);
#endif
}

bool isURLValue(const Value& v) {
  if (auto* o = v.objectRef()) return (*o)->className() == "NSURL";
  return false;
}

}  // namespace

std::optional<Value> parseNumber(std::string_view text) {
  text = trim(text);
  if (text.empty()) return std::nullopt;
  std::string_view digits = text.front() == '+' ? text.substr(1) : text;
  if (digits.empty()) return std::nullopt;
  std::int64_t i = 0;
  auto [iend, ierr] = std::from_chars(digits.data(), digits.data() + digits.size(), i);
  if (ierr == std::errc() && iend == digits.data() + digits.size()) return Value::integer(i);
  double d = 0;
  auto [dend, derr] = std::from_chars(digits.data(), digits.data() + digits.size(), d, std::chars_format::general);
  if (derr != std::errc() || dend != digits.data() + digits.size() || !std::isfinite(d)) return std::nullopt;
  return Value::real(d);
}

std::optional<std::vector<double>> parseNumberList(std::string_view text) {
  text = trim(text);
  if (!text.empty() && text.front() == '[') {
    if (text.back() != ']') return std::nullopt;
    text = trim(text.substr(1, text.size() - 2));
  }
  std::vector<double> out;
  while (!text.empty()) {
    const auto end = text.find_first_of(kWhitespace);
    const auto word = text.substr(0, end);
    auto n = parseNumber(word);
    if (!n) return std::nullopt;
    out.push_back(n->doubleValue());
    if (out.size() > 64) return std::nullopt;
    text = end == std::string_view::npos ? std::string_view{} : trim(text.substr(end));
  }
  return out;
}

CIImage imageFromFile(const std::string& path) {
  // A NUL would end the name the system sees early: another file than the one named.
  if (path.find('\0') != std::string::npos)
    throw ValueError("cannot read image file " + quote(path) + ": a file name cannot contain a NUL character");
  std::error_code ec;
  const auto status = std::filesystem::status(path, ec);
  if (ec || !std::filesystem::exists(status)) throw ValueError("cannot read image file " + path + ": no such file");
  if (!std::filesystem::is_regular_file(status)) throw ValueError("cannot read image file " + path + ": not a regular file");
  // A file that cannot be opened says why (permission denied...), not that it is no image.
  if (std::FILE* f = std::fopen(path.c_str(), "rb")) {
    std::fclose(f);
  } else {
    throw ValueError("cannot read image file " + path + ": " + lowercaseFirst(std::strerror(errno)));
  }
  CIImage image = CIImage::imageWithContentsOfFile(path);
  if (!image) {
    // The decoder's own reason ("corrupt PNG: file is truncated"...) where it gives one.
    const CGImageSourceRef source = CGImageSourceCreateWithURL(path);
    const std::string reason = source ? CGImageSourceGetLastError(source) : CGImageSourceGetCreateError();
    throw ValueError("cannot read image file " + path + ": " +
                     (reason.empty() ? std::string("not an image this host can decode") : reason));
  }
  return image;
}

Value parseValueForClass(std::string_view text, std::string_view attributeClass, std::string_view what,
                         const std::string& baseDir) {
  const std::string name(what);
  if (attributeClass == "NSString") return Value(std::string(text));
  if (attributeClass == "NSNumber") {
    if (auto n = parseNumber(text)) return *n;
    const std::string word = lowercase(trim(text));
    if (word == "true" || word == "yes") return Value::boolean(true);
    if (word == "false" || word == "no") return Value::boolean(false);
    throw ValueError(name + " expects a number (NSNumber), got " + quote(text));
  }
  if (attributeClass == "CIVector" || attributeClass == "CIColor" || attributeClass == "NSAffineTransform") {
    auto numbers = parseNumberList(text);
    if (!numbers || !countFits(attributeClass, numbers->size())) {
      throw ValueError(name + " expects " + numberOfNumbersText(attributeClass) + " (" + std::string(attributeClass) +
                       "), got " + quote(text));
    }
    return objectFromNumbers(attributeClass, *numbers);
  }
  if (attributeClass == "CIImage") {
    std::string path(trim(text));
    if (path.empty()) throw ValueError(name + " expects an image file path (CIImage), got an empty string");
    std::filesystem::path p(path);
    if (p.is_relative() && !baseDir.empty()) p = std::filesystem::path(baseDir) / p;
    try {
      return Value(imageFromFile(p.lexically_normal().string()));
    } catch (const ValueError& e) {
      throw ValueError(name + ": " + e.what());
    }
  }
  if (attributeClass == "NSURL") {
    try {
      return urlValue(std::string(trim(text)), baseDir);
    } catch (const ValueError& e) {
      throw ValueError(name + ": " + e.what());
    }
  }
  if (auto n = parseNumber(text)) return *n;
  return Value(std::string(text));
}

std::string valueClassName(const Value& value) {
  if (value.isNil()) return "nil";
  if (value.isBoolean()) return "NSNumber (boolean)";
  return value.className();
}

bool valueFitsClass(const Value& value, std::string_view attributeClass) {
  if (value.isNil()) return true;
  if (attributeClass == "NSNumber") return value.isNumber();
  if (attributeClass == "NSString") return value.isString();
  if (attributeClass == "CIVector") return CIVector::fromValue(value) != nullptr;
  if (attributeClass == "CIColor") return CIColor::fromValue(value) != nullptr;
  if (attributeClass == "CIImage") return !CIImage::fromValue(value).isNil();
  if (attributeClass == "NSAffineTransform") return value.transform() != nullptr;
  if (attributeClass == "NSURL") return isURLValue(value) || (!QV_HAVE_NSURL && value.isString());
  if (attributeClass == "NSArray") return value.array() != nullptr;
  if (attributeClass == "NSDictionary") return value.dictionary() != nullptr;
  return true;
}

namespace {

// The shortest text that reads back as `v` ("1e+308", "9.223372036854776e+18", "nan").
std::string numberText(double v) {
  char buf[64];
  const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  return ec == std::errc() ? std::string(buf, end) : std::string("?");
}

}  // namespace

VectorForm vectorFormForKey(const CIFilter& filter, const std::string& key) {
  VectorForm form;
  const Dictionary attributes = filter.attributes();
  const auto entry = attributes.find(key);
  if (entry == attributes.end() || !entry->second.dictionary()) return form;
  const Dictionary& dict = *entry->second.dictionary();
  std::string type;
  if (const auto t = dict.find(kCIAttributeType); t != dict.end() && t->second.string()) type = *t->second.string();
  form.rectangle = type == kCIAttributeTypeRectangle || key == "inputRectangle" || key == "inputExtent";
  if (const auto def = dict.find(kCIAttributeDefault); def != dict.end())
    if (const auto v = CIVector::fromValue(def->second)) form.count = v->count();
  if (form.count == 0) {
    if (type == kCIAttributeTypePosition || type == kCIAttributeTypeOffset) form.count = 2;
    if (type == "CIAttributeTypePosition3") form.count = 3;
    if (type == kCIAttributeTypeRectangle) form.count = 4;
  }
  if (form.count != 4) form.rectangle = false;
  return form;
}

namespace {

std::string vectorFormText(const VectorForm& form) {
  switch (form.count) {
    case 1: return "1 number (\"x\")";
    case 2: return "2 numbers (\"x y\")";
    case 3: return "3 numbers (\"x y z\")";
    default: return form.rectangle ? "4 numbers (\"x y width height\")" : "4 numbers (\"x y z w\")";
  }
}

std::string vectorText(const CIVector& v) {
  std::string out;
  for (double d : v.values()) out += (out.empty() ? "" : " ") + numberText(d);
  return out;
}

}  // namespace

void checkInputValue(const CIFilter& filter, const std::string& key, const Value& value) {
  auto checkNumber = [&](double v, const std::string& form) {
    if (!std::isfinite(v) || std::fabs(v) > kMaximumInputMagnitude)
      throw ValueError(key + " expects " + form + " from -1e15 to 1e15, got " + numberText(v));
  };
  if (value.isNumber() && !value.isBoolean()) {
    if (value.kind() == Value::Kind::Integer) {
      const std::int64_t i = value.integerValue();
      if (i > std::int64_t(kMaximumInputMagnitude) || i < -std::int64_t(kMaximumInputMagnitude))
        throw ValueError(key + " expects a number from -1e15 to 1e15, got " + std::to_string(i));
      return;
    }
    checkNumber(value.doubleValue(), "a number");
    return;
  }
  if (const auto v = CIVector::fromValue(value)) {
    for (double d : v->values()) checkNumber(d, "numbers");
    const VectorForm form = vectorFormForKey(filter, key);
    if (form.count != 0 && v->count() != form.count)
      throw ValueError(key + " expects " + vectorFormText(form) + " (CIVector), got " + std::to_string(v->count()) +
                       (v->count() == 1 ? " number" : " numbers"));
    if (form.rectangle && !(v->Z() > 0 && v->W() > 0))
      throw ValueError(key + " expects a rectangle \"x y width height\" with a width and a height above 0, got \"" +
                       vectorText(*v) + "\"");
    return;
  }
  if (const auto c = CIColor::fromValue(value)) {
    for (double d : {c->red(), c->green(), c->blue(), c->alpha()}) checkNumber(d, "colour components");
    return;
  }
  if (const auto* t = value.transform()) {
    for (double d : {t->a, t->b, t->c, t->d, t->tx, t->ty}) checkNumber(d, "transform values");
    return;
  }
#if QV_HAVE_NSURL
  // A texture identifier or tag key names a texture of one loaded catalogue: the plug-in reads
  // only its last path component, so one of another bundle would silently stand for a texture
  // of this one.
  std::string text;
  if (const std::string* str = value.string()) text = *str;
  if (isURLValue(value)) text = (*value.objectRef())->description();
  const auto url = text.empty() ? nullptr : NSURL::URLWithString(text);
  if (url && (url->scheme() == kQVTextureIdentifierScheme || url->scheme() == kQVTextureTagKeyScheme)) {
    const std::string what = url->scheme() == kQVTextureIdentifierScheme ? "texture" : "tag";
    if (!NSBundle::bundleWithIdentifier(url->host()))
      throw ValueError(key + ": " + quote(text) + " names a " + what + " of " + quote(url->host()) +
                       ", which is no loaded plug-in's catalogue");
    if (!QVTextureURLKeyInCatalogue(*url, url->host()))
      throw ValueError(key + " expects a " + what + " \"" + url->scheme() + "://BUNDLE/NAME\", got " + quote(text));
  }
#endif
}

const char* filterNameCategoryForKey(const std::string& key) {
  if (key == "inputBlurFilterName") return kCICategoryBlur;
  if (key == "inputCompositeFilterName") return kCICategoryCompositeOperation;
  return nullptr;
}

std::string inputsOutsideTheirRange(const CIFilter& filter) {
  std::string out;
  const Dictionary attributes = filter.attributes();
  for (const std::string& key : filter.inputKeys()) {
    const auto entry = attributes.find(key);
    if (entry == attributes.end() || !entry->second.dictionary()) continue;
    const Dictionary& dict = *entry->second.dictionary();
    if (const auto cls = dict.find(kCIAttributeClass);
        cls != dict.end() && cls->second.string() && *cls->second.string() == "CIImage") {
      if (filter.valueForKey(key).isNil()) out += (out.empty() ? "" : "; ") + key + " is missing";
      continue;
    }
    const auto min = dict.find(kCIAttributeMin), max = dict.find(kCIAttributeMax);
    if (min == dict.end() || max == dict.end() || !min->second.isNumber() || !max->second.isNumber()) continue;
    const Value value = filter.valueForKey(key);
    if (!value.isNumber()) continue;
    const double v = value.doubleValue(), lo = min->second.doubleValue(), hi = max->second.doubleValue();
    if (v >= lo && v <= hi) continue;
    out += (out.empty() ? "" : "; ") + key + " " + numberText(v) + " lies outside " + numberText(lo) + " to " +
           numberText(hi);
  }
  return out;
}

std::string noImageMessage(const std::string& filterName, const CIFilter& filter) {
  const std::string why = inputsOutsideTheirRange(filter);
  return filterName + " produced no image" + (why.empty() ? "" : ": " + why);
}

std::string attributeClassForKey(const CIFilter& filter, const std::string& key) {
  const Dictionary attributes = filter.attributes();
  const auto entry = attributes.find(key);
  if (entry == attributes.end() || !entry->second.dictionary()) return {};
  const Dictionary& dict = *entry->second.dictionary();
  const auto cls = dict.find(kCIAttributeClass);
  if (cls != dict.end() && cls->second.string()) return *cls->second.string();
  // Some filters describe an input only by its default and identity; the default's class
  // then tells how to read a value for it.
  for (const char* attribute : {kCIAttributeDefault, kCIAttributeIdentity}) {
    const auto v = dict.find(attribute);
    if (v != dict.end() && !v->second.isNil()) return v->second.className();
  }
  return {};
}

namespace {

std::vector<double> numbersOfJSONArray(const nlohmann::json& array, const std::string& what, const char* form) {
  std::vector<double> out;
  if (!array.is_array()) throw ValueError(what + ": " + form + " needs an array of numbers");
  if (array.size() > 64) throw ValueError(what + ": " + form + " has too many numbers");
  for (const auto& n : array) {
    if (!n.is_number()) throw ValueError(what + ": " + form + " needs an array of numbers, found " + n.type_name());
    const double d = n.get<double>();
    if (!std::isfinite(d)) throw ValueError(what + ": " + form + " holds a number out of range");
    out.push_back(d);
  }
  return out;
}

Value valueFromJSONUnchecked(const nlohmann::json& j, std::string_view attributeClass, const std::string& what,
                             const ImageResolver& resolveImage, const std::string& baseDir, int depth) {
  if (depth > 32) throw ValueError(what + ": value nested too deeply");
  switch (j.type()) {
    case nlohmann::json::value_t::null: return Value();
    case nlohmann::json::value_t::boolean: return Value::boolean(j.get<bool>());
    case nlohmann::json::value_t::number_integer: return Value::integer(j.get<std::int64_t>());
    case nlohmann::json::value_t::number_unsigned: {
      const auto u = j.get<std::uint64_t>();
      if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return Value::integer(static_cast<std::int64_t>(u));
      }
      return Value::real(static_cast<double>(u));
    }
    case nlohmann::json::value_t::number_float: {
      const double d = j.get<double>();
      if (!std::isfinite(d)) throw ValueError(what + ": number out of range");
      return Value::real(d);
    }
    case nlohmann::json::value_t::string: {
      const auto& s = j.get_ref<const std::string&>();
      if (s.size() >= 2 && s[0] == '@' && s[1] == '@') return Value(s.substr(1));
      if (!s.empty() && s[0] == '@') {
        if (!resolveImage) throw ValueError(what + ": image references (" + quote(s) + ") are not available here");
        return Value(resolveImage(s.substr(1)));
      }
      if (attributeClass == "CIImage") {
        throw ValueError(what + " expects an image: write \"@name\" to use an image of the recipe's \"images\"");
      }
      if (attributeClass.empty() || attributeClass == "NSString") return Value(s);
      return parseValueForClass(s, attributeClass, what, baseDir);
    }
    case nlohmann::json::value_t::array: {
      if (attributeClass == "CIVector" || attributeClass == "CIColor" || attributeClass == "NSAffineTransform") {
        auto numbers = numbersOfJSONArray(j, what, "an array");
        if (!countFits(attributeClass, numbers.size())) {
          throw ValueError(what + " expects " + numberOfNumbersText(attributeClass) + " (" +
                           std::string(attributeClass) + "), got " + std::to_string(numbers.size()));
        }
        return objectFromNumbers(attributeClass, numbers);
      }
      Array out;
      for (const auto& e : j) out.push_back(valueFromJSONUnchecked(e, "", what, resolveImage, baseDir, depth + 1));
      return Value(std::move(out));
    }
    case nlohmann::json::value_t::object: {
      if (j.size() != 1) {
        throw ValueError(what + ": a value object has exactly one of \"vector\", \"color\", \"url\", \"transform\"");
      }
      const auto only = j.begin();
      const std::string& tag = only.key();
      const nlohmann::json& body = only.value();
      if (tag == "vector") {
        auto numbers = numbersOfJSONArray(body, what, "\"vector\"");
        if (numbers.empty() || numbers.size() > 4) throw ValueError(what + ": \"vector\" needs 1 to 4 numbers");
        return Value(CIVector::vectorWithValues(numbers.data(), numbers.size()));
      }
      if (tag == "color") {
        std::vector<double> numbers;
        if (body.is_string()) {
          auto parsed = parseNumberList(body.get_ref<const std::string&>());
          if (!parsed) throw ValueError(what + ": \"color\" string must be \"r g b a\" or \"r g b\"");
          numbers = *parsed;
        } else {
          numbers = numbersOfJSONArray(body, what, "\"color\"");
        }
        if (numbers.size() != 3 && numbers.size() != 4) throw ValueError(what + ": \"color\" needs 3 or 4 numbers");
        return objectFromNumbers("CIColor", numbers);
      }
      if (tag == "transform") {
        auto numbers = numbersOfJSONArray(body, what, "\"transform\"");
        if (numbers.size() != 6) throw ValueError(what + ": \"transform\" needs 6 numbers [a, b, c, d, tx, ty]");
        return Value(transformFromNumbers(numbers));
      }
      if (tag == "url") {
        if (!body.is_string()) throw ValueError(what + ": \"url\" needs a string");
        return urlValue(body.get<std::string>(), baseDir);
      }
      throw ValueError(what + ": unknown value object " + quote(tag) +
                       " (use \"vector\", \"color\", \"url\" or \"transform\")");
    }
    default: break;
  }
  throw ValueError(what + ": unsupported JSON value");
}

}  // namespace

Value valueFromJSON(const nlohmann::json& json, std::string_view attributeClass, std::string_view what,
                    const ImageResolver& resolveImage, const std::string& baseDir) {
  const std::string name(what);
  Value v = valueFromJSONUnchecked(json, attributeClass, name, resolveImage, baseDir, 0);
  if (!valueFitsClass(v, attributeClass)) {
    throw ValueError("value for " + name + " does not fit its class " + std::string(attributeClass) + ": got " +
                     valueClassName(v));
  }
  return v;
}

nlohmann::json jsonNumber(double v) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  if (v == std::floor(v) && std::fabs(v) < 9.0e15) return static_cast<std::int64_t>(v);
  return v;
}

nlohmann::json jsonFromRect(const CGRect& rect) {
  if (CGRectIsNull(rect)) return nullptr;
  if (CGRectIsInfinite(rect)) return "infinite";
  return nlohmann::json::array({jsonNumber(rect.origin.x), jsonNumber(rect.origin.y), jsonNumber(rect.size.width),
                                jsonNumber(rect.size.height)});
}

namespace {

nlohmann::json realJSON(double v) {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  return v;
}

}  // namespace

nlohmann::json jsonFromValue(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Nil: return nullptr;
    case Value::Kind::Integer: return value.integerValue();
    case Value::Kind::Real: return realJSON(value.doubleValue());
    case Value::Kind::Boolean: return value.boolValue();
    case Value::Kind::String: return *value.string();
    case Value::Kind::Data: return nlohmann::json{{"data", value.data()->bytes.size()}};
    case Value::Kind::Date: return nlohmann::json{{"date", value.date()->secondsSinceReferenceDate}};
    case Value::Kind::Array: {
      auto out = nlohmann::json::array();
      for (const auto& e : *value.array()) out.push_back(jsonFromValue(e));
      return out;
    }
    case Value::Kind::Dictionary: {
      auto out = nlohmann::json::object();
      for (const auto& [k, v] : *value.dictionary()) out[k] = jsonFromValue(v);
      return out;
    }
    case Value::Kind::Transform: {
      const auto& t = *value.transform();
      auto nums = nlohmann::json::array();
      for (double d : {t.a, t.b, t.c, t.d, t.tx, t.ty}) nums.push_back(realJSON(d));
      return nlohmann::json{{"transform", nums}};
    }
    case Value::Kind::Object: {
      if (auto v = CIVector::fromValue(value)) {
        auto nums = nlohmann::json::array();
        for (double d : v->values()) nums.push_back(realJSON(d));
        return nlohmann::json{{"vector", nums}};
      }
      if (auto c = CIColor::fromValue(value)) {
        auto nums = nlohmann::json::array();
        for (double d : {c->red(), c->green(), c->blue(), c->alpha()}) nums.push_back(realJSON(d));
        return nlohmann::json{{"color", nums}};
      }
      const ObjectRef& o = *value.objectRef();
      const std::string cls = o->className();
      if (cls == "NSURL") return nlohmann::json{{"url", o->description()}};
      if (cls == "CIImage") return nlohmann::json{{"image", jsonFromRect(CIImage::fromValue(value).extent())}};
      return nlohmann::json{{cls, o->description()}};
    }
  }
  return nullptr;
}

}  // namespace qv

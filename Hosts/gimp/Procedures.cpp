#include "Procedures.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "PlugIns.h"
#include "Recipe.h"
#include "TextureCatalogue.h"
#include "ValueParsing.h"

namespace qvgimp {
namespace {

using nlohmann::json;

// "CICategoryColorAdjustment" -> "Color Adjustment".
std::string categoryTitle(const std::string& category) {
  std::string name = category.starts_with("CICategory") ? category.substr(10) : category;
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (i > 0 && std::isupper(static_cast<unsigned char>(name[i])) &&
        std::islower(static_cast<unsigned char>(name[i - 1])))
      out += ' ';
    out += name[i];
  }
  return out;
}

// The category a filter is filed under in the menu: its first one that says what it does.
std::string menuCategory(const std::vector<std::string>& categories) {
  for (const std::string& c : categories)
    if (c != kCICategoryStillImage && c != "CICategoryVideo" && c != "CICategoryInterlaced" &&
        c != "CICategoryNonSquarePixels" && c != "CICategoryHighDynamicRange")
      return categoryTitle(c);
  return "Other";
}

const Value* attribute(const Dictionary& attributes, const char* name) {
  auto it = attributes.find(name);
  return it == attributes.end() || it->second.isNil() ? nullptr : &it->second;
}

std::string stringAttribute(const Dictionary& attributes, const char* name) {
  const Value* v = attribute(attributes, name);
  return v && v->string() ? *v->string() : std::string();
}

std::string numberText(double v) { return qv::jsonNumber(v).dump(); }

std::string describe(const InputParam& input) {
  std::string text = stringAttribute(input.attributes, kCIAttributeDisplayName);
  if (text.empty()) text = input.key;
  const Value* lo = attribute(input.attributes, kCIAttributeMin);
  const Value* hi = attribute(input.attributes, kCIAttributeMax);
  const Value* def = attribute(input.attributes, kCIAttributeDefault);
  switch (input.kind) {
    case ParamKind::Number:
    case ParamKind::Integer:
      if (lo && lo->isNumber() && hi && hi->isNumber())
        text += " (" + numberText(lo->doubleValue()) + " to " + numberText(hi->doubleValue()) + ")";
      else if (lo && lo->isNumber())
        text += " (at least " + numberText(lo->doubleValue()) + ")";
      else if (hi && hi->isNumber())
        text += " (at most " + numberText(hi->doubleValue()) + ")";
      break;
    case ParamKind::Boolean:
      text += " (0 or 1)";
      break;
    case ParamKind::Color:
      text += " (colour)";
      break;
    case ParamKind::Vector:
      text += input.length ? " (" + std::to_string(input.length) + " numbers)" : std::string(" (numbers)");
      break;
    case ParamKind::Transform:
      text += " (6 numbers: a b c d tx ty)";
      break;
    case ParamKind::Texture:
      text += " (texture identifier or tag key, \"\" for none)";
      break;
    case ParamKind::ImageFile:
      text += " (image file, \"\" for none)";
      break;
    case ParamKind::String:
      break;
  }
  if (def) text += ", default " + qv::jsonFromValue(*def).dump();
  return text;
}

InputParam describeInput(const CIFilter& filter, const std::string& key, const Dictionary& attributes) {
  InputParam input;
  input.key = key;
  input.attributeClass = qv::attributeClassForKey(filter, key);
  input.attributes = attributes;
  const std::string type = stringAttribute(attributes, kCIAttributeType);
  const std::string& cls = input.attributeClass;
  if (cls == "NSNumber") {
    if (type == kCIAttributeTypeBoolean)
      input.kind = ParamKind::Boolean;
    else if (type == kCIAttributeTypeInteger || type == kCIAttributeTypeCount)
      input.kind = ParamKind::Integer;
    else
      input.kind = ParamKind::Number;
  } else if (cls == "CIColor") {
    input.kind = ParamKind::Color;
  } else if (cls == "CIVector") {
    input.kind = ParamKind::Vector;
    // The host core's rule for how many numbers the key takes (0: the filter does not say).
    input.length = qv::vectorFormForKey(filter, key).count;
  } else if (cls == "NSAffineTransform") {
    input.kind = ParamKind::Transform;
    input.length = 6;
  } else if (cls == "CIImage") {
    input.kind = ParamKind::ImageFile;
  } else if (cls == "NSString" && qv::isTextureNameKey(key)) {
    input.kind = ParamKind::Texture;
  } else {
    input.kind = ParamKind::String;
  }
  input.description = describe(input);
  return input;
}

[[noreturn]] void fail(const InputParam& input, const std::string& what) {
  throw qv::ValueError(input.key + ": " + what);
}

// The procedure's own rule beside the host core's checks: a number within the attribute range.
// NaN passes here and is refused by qv::checkInputValue.
void checkRange(const InputParam& input, double v, const Value* lo, const Value* hi) {
  if ((lo && lo->isNumber() && v < lo->doubleValue()) || (hi && hi->isNumber() && v > hi->doubleValue())) {
    std::string range = (lo && lo->isNumber() ? numberText(lo->doubleValue()) : std::string("-inf")) + " to " +
                        (hi && hi->isNumber() ? numberText(hi->doubleValue()) : std::string("inf"));
    fail(input, numberText(v) + " is out of range (" + range + ")");
  }
}

// The numbers of a JSON array; how many the key takes is the host core's check, except for the
// fixed forms (`count` not 0) that cannot be built from any other number of values.
std::vector<double> numbers(const InputParam& input, const json& value, std::size_t count = 0) {
  if (!value.is_array()) fail(input, "expects an array of numbers");
  std::vector<double> out;
  for (const json& e : value) {
    if (!e.is_number()) fail(input, "expects numbers only");
    out.push_back(e.get<double>());
  }
  if (count != 0 && out.size() != count)
    fail(input, "expects " + std::to_string(count) + " numbers, got " + std::to_string(out.size()));
  return out;
}

}  // namespace

std::string procedureNameForFilter(const std::string& filterName) {
  std::string name = filterName.starts_with("QVFilter") ? filterName.substr(8) : filterName;
  std::string out = "plug-in-qvfilter-";
  for (std::size_t i = 0; i < name.size(); ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    if (i > 0 && std::isupper(c) &&
        (std::islower(static_cast<unsigned char>(name[i - 1])) ||
         std::isdigit(static_cast<unsigned char>(name[i - 1]))))
      out += '-';
    out += static_cast<char>(std::tolower(c));
  }
  return out;
}

std::vector<FilterProcedure> bundleProcedures() {
  qvLoadPlugIns();
  qv::prepareFilterRegistry();
  std::vector<FilterProcedure> procedures;
  for (const std::string& name : CIFilter::filterNamesInCategory("")) {
    const CIFilterRegistration* registration = CIFilter::registrationForName(name);
    if (!registration) continue;
    const auto& categories = registration->categories;
    if (std::find(categories.begin(), categories.end(), kCICategoryBuiltIn) != categories.end()) continue;
    CIFilterRef filter = CIFilter::filterWithName(name);
    if (!filter) continue;
    FilterProcedure procedure;
    procedure.procedure = procedureNameForFilter(name);
    procedure.filter = name;
    procedure.displayName = registration->displayName.empty() ? name : registration->displayName;
    procedure.menuPath = "<Image>/Filters/QVFilter/" + menuCategory(categories);
    const Dictionary attributes = filter->attributes();
    const std::vector<std::string> keys = filter->inputKeys();
    // The texture identifiers are the filter's own resolution of the texture names: not inputs
    // a caller gives.
    std::vector<std::string> calculated;
    for (const std::string& key : keys)
      if (qv::isTextureNameKey(key)) calculated.push_back(qv::textureIdentifierKeyForNameKey(key));
    for (const std::string& key : keys) {
      if (key == kCIInputImageKey || std::find(calculated.begin(), calculated.end(), key) != calculated.end()) continue;
      const Value* a = attribute(attributes, key.c_str());
      procedure.inputs.push_back(describeInput(*filter, key, a && a->dictionary() ? *a->dictionary() : Dictionary{}));
    }
    procedures.push_back(std::move(procedure));
  }
  std::sort(procedures.begin(), procedures.end(),
            [](const FilterProcedure& a, const FilterProcedure& b) { return a.procedure < b.procedure; });
  return procedures;
}

int pdbParamCount(const InputParam& input) {
  return input.kind == ParamKind::Vector || input.kind == ParamKind::Transform ? 2 : 1;
}

CIFilterRef makeFilter(const FilterProcedure& procedure) {
  CIFilterRef filter = CIFilter::filterWithName(procedure.filter);
  if (!filter) throw qv::ValueError("the bundle offers no filter " + procedure.filter);
  filter->setDefaults();
  return filter;
}

void setInputFromJSON(CIFilter& filter, const InputParam& input, const json& value) {
  const Value* lo = attribute(input.attributes, kCIAttributeMin);
  const Value* hi = attribute(input.attributes, kCIAttributeMax);
  Value v;
  switch (input.kind) {
    case ParamKind::Number: {
      if (!value.is_number()) fail(input, "expects a number");
      const double d = value.get<double>();
      checkRange(input, d, lo, hi);
      v = Value(d);
      break;
    }
    case ParamKind::Integer: {
      if (!value.is_number()) fail(input, "expects an integer");
      const double d = value.get<double>();
      checkRange(input, d, lo, hi);
      if (!std::isfinite(d) || std::fabs(d) > qv::kMaximumInputMagnitude) {
        v = Value(d);  // refused below with the host core's message
      } else {
        if (d != std::floor(d)) fail(input, numberText(d) + " is not an integer");
        v = Value(static_cast<std::int64_t>(d));
      }
      break;
    }
    case ParamKind::Boolean: {
      if (value.is_boolean()) {
        v = Value::boolean(value.get<bool>());
      } else if (value.is_number() && (value.get<double>() == 0 || value.get<double>() == 1)) {
        v = Value::boolean(value.get<double>() != 0);
      } else {
        fail(input, "expects 0 or 1");
      }
      break;
    }
    case ParamKind::Color: {
      std::vector<double> c = numbers(input, value, 4);
      v = Value(CIColor::colorWithRed(c[0], c[1], c[2], c[3]));
      break;
    }
    case ParamKind::Vector: {
      std::vector<double> n = numbers(input, value);
      const auto vlo = lo ? lo->object<CIVector>() : nullptr;
      const auto vhi = hi ? hi->object<CIVector>() : nullptr;
      for (std::size_t i = 0; i < n.size(); ++i) {
        const bool below = vlo && i < vlo->count() && n[i] < vlo->valueAtIndex(i);
        const bool above = vhi && i < vhi->count() && n[i] > vhi->valueAtIndex(i);
        if (below || above)
          fail(input, "component " + std::to_string(i + 1) + " (" + numberText(n[i]) + ") is out of range (" +
                          (vlo ? numberText(vlo->valueAtIndex(i)) : std::string("-inf")) + " to " +
                          (vhi ? numberText(vhi->valueAtIndex(i)) : std::string("inf")) + ")");
      }
      v = Value(CIVector::vectorWithValues(n.data(), n.size()));
      break;
    }
    case ParamKind::Transform: {
      std::vector<double> t = numbers(input, value, 6);
      v = Value(CGAffineTransformMake(t[0], t[1], t[2], t[3], t[4], t[5]));
      break;
    }
    case ParamKind::Texture: {
      if (!value.is_string()) fail(input, "expects a texture identifier or tag key");
      const std::string name = value.get<std::string>();
      // Whether the catalogue knows it is checked once the filter has resolved it (checking here
      // would resolve a tag key once more and draw another random texture).
      v = name.empty() ? Value() : Value(name);
      break;
    }
    case ParamKind::ImageFile: {
      if (!value.is_string()) fail(input, "expects an image file name");
      const std::string path = value.get<std::string>();
      if (!path.empty()) {
        try {
          v = Value(qv::imageFromFile(path));
        } catch (const qv::ValueError& e) {
          fail(input, e.what());
        }
      }
      break;
    }
    case ParamKind::String: {
      if (!value.is_string()) fail(input, "expects a string");
      v = qv::parseValueForClass(value.get<std::string>(), input.attributeClass, input.key);
      break;
    }
  }
  // The host core's checks, as for every other host: finite numbers within +-1e15, the number of
  // values a vector key takes, and texture names of a loaded catalogue. Its messages name the key.
  qv::checkInputValue(filter, input.key, v);
  filter.setValue(v, input.key);
}

json inputJSON(const CIFilter& filter, const InputParam& input) {
  const Value v = filter.valueForKey(input.key);
  switch (input.kind) {
    case ParamKind::Number:
      return v.doubleValue();
    case ParamKind::Integer:
      return v.integerValue();
    case ParamKind::Boolean:
      return v.boolValue() ? 1 : 0;
    case ParamKind::Color: {
      const CIColorRef c = CIColor::fromValue(v);
      if (!c) return json::array({0, 0, 0, 1});
      return json::array({c->red(), c->green(), c->blue(), c->alpha()});
    }
    case ParamKind::Vector: {
      json out = json::array();
      const auto vector = v.object<CIVector>();
      const std::size_t count = input.length ? input.length : (vector ? vector->count() : 0);
      for (std::size_t i = 0; i < count; ++i)
        out.push_back(vector && i < vector->count() ? vector->valueAtIndex(i) : 0.0);
      return out;
    }
    case ParamKind::Transform: {
      const CGAffineTransform t = v.transform() ? *v.transform() : CGAffineTransformIdentity;
      return json::array({t.a, t.b, t.c, t.d, t.tx, t.ty});
    }
    case ParamKind::ImageFile:
      return "";
    case ParamKind::Texture:
    case ParamKind::String: {
      if (const std::string* s = v.string()) return *s;
      if (v.isNil()) return "";
      return v.description();
    }
  }
  return nullptr;
}

CIFilterRef previewFilter(const CIFilter& filter, const FilterProcedure& procedure, double scale) {
  CIFilterRef copy = filter.copy();
  if (!copy || scale >= 1.0) return copy;
  for (const InputParam& input : procedure.inputs) {
    const Value v = copy->valueForKey(input.key);
    if (input.kind == ParamKind::ImageFile) {
      if (const CIImage image = CIImage::fromValue(v))
        copy->setValue(Value(image.imageByApplyingTransform(CGAffineTransformMakeScale(scale, scale))), input.key);
      continue;
    }
    if ((input.kind != ParamKind::Number && input.kind != ParamKind::Integer) || !v.isNumber() ||
        stringAttribute(input.attributes, kCIAttributeType) != kCIAttributeTypeDistance)
      continue;
    double scaled = v.doubleValue() * scale;
    if (const Value* lo = attribute(input.attributes, kCIAttributeMin); lo && lo->isNumber())
      scaled = std::max(scaled, lo->doubleValue());
    copy->setValue(Value(scaled), input.key);
  }
  return copy;
}

json settingsJSON(const CIFilter& filter, const FilterProcedure& procedure) {
  json out = json::object();
  for (const InputParam& input : procedure.inputs)
    if (input.kind != ParamKind::ImageFile) out[input.key] = inputJSON(filter, input);
  return out;
}

void applySettings(CIFilter& filter, const FilterProcedure& procedure, const json& settings) {
  if (!settings.is_object()) return;
  for (const InputParam& input : procedure.inputs)
    if (settings.contains(input.key)) setInputFromJSON(filter, input, settings[input.key]);
}

}  // namespace qvgimp

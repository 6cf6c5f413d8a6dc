// Values of filter inputs as people and recipes write them: text parsed by the input's
// attribute class (kCIAttributeClass), JSON values of a recipe, and the JSON form of any Value
// (used by `qvfilter info --json` and by recipe results).
//
// Text forms by attribute class:
//   NSNumber           "3" (integer), "2.5" or "1e3" (real), "true" / "false" / "yes" / "no"
//   CIVector           "x", "x y", "x y z" or "x y z w" (brackets allowed: "[x y]")
//   CIColor            "r g b a" or "r g b" (alpha 1)
//   CIImage            a file path (relative to the given base directory)
//   NSString           the text as it is
//   NSAffineTransform  "a b c d tx ty"
//   NSURL              a URL, or a file path
// Any other or missing class: a number when the text is one, otherwise the text.
//
// JSON forms (recipes): numbers (integer and real kept apart), strings, booleans, null (nil),
// "@name" (an image of the recipe), {"vector": [...]}, {"color": [r,g,b,a] | "r g b a"},
// {"url": "..."}, {"transform": [a,b,c,d,tx,ty]}. A string given to a key of a non-string class
// is parsed as text by that class ("1 0 0 1" for a CIColor); a bare array is read as the key's
// vector, colour or transform. A string starting with "@@" stands for the literal string
// without its first "@".
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "Foundation/Value.h"

namespace qv {

// A value that cannot be read, or does not fit its input's class. The message is one line,
// ready for the user.
class ValueError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The whole of `text` as one finite number: an integer when it is written as one (and fits),
// a real otherwise. nullopt when it is not a number.
std::optional<Value> parseNumber(std::string_view text);

// Whitespace-separated finite numbers, optionally inside one pair of brackets; nullopt if any
// word is not a finite number.
std::optional<std::vector<double>> parseNumberList(std::string_view text);

// Parses `text` by attribute class; throws ValueError with a message naming `what` (e.g.
// "inputRadius") on failure. File paths of CIImage inputs are resolved against `baseDir` when
// they are relative and `baseDir` is not empty.
Value parseValueForClass(std::string_view text, std::string_view attributeClass, std::string_view what,
                         const std::string& baseDir = "");

// The image a file path stands for: a clear ValueError when the file does not exist, is not a
// regular file or cannot be opened as an image.
CIImage imageFromFile(const std::string& path);

// Resolves "@name" references of a recipe; throws ValueError for an unknown name.
using ImageResolver = std::function<CIImage(const std::string& name)>;

// Converts one JSON value of a recipe to a Value for an input of class `attributeClass` (empty:
// unknown class), then checks that it fits the class. Throws ValueError.
Value valueFromJSON(const nlohmann::json& json, std::string_view attributeClass, std::string_view what,
                    const ImageResolver& resolveImage, const std::string& baseDir = "");

// True when `value` may be stored in an input of class `attributeClass` (nil fits every class;
// an empty or unknown class accepts anything).
bool valueFitsClass(const Value& value, std::string_view attributeClass);

// The class a value is reported as in messages ("NSNumber", "CIVector", "nil"...).
std::string valueClassName(const Value& value);

// Numbers a host passes to a filter stay within this magnitude: larger ones are no sensible
// setting of any input and overflow the plug-in's integer and pixel arithmetic.
inline constexpr double kMaximumInputMagnitude = 1e15;

// What a vector input takes, from its default or its attribute type: the number of values
// (0 when the filter does not say) and whether it is a rectangle (x, y, width, height).
struct VectorForm {
  std::size_t count = 0;
  bool rectangle = false;
};
VectorForm vectorFormForKey(const CIFilter& filter, const std::string& key);

// Checks a value about to be set on `key` of `filter`: every number (alone, or inside a vector,
// colour or transform) finite and within kMaximumInputMagnitude, and a vector with the number
// of values that the key takes (the count of its default vector, or 2 for a position or an
// offset, 3 for a 3D position, 4 for a rectangle). Throws ValueError naming the key and its
// expected form.
void checkInputValue(const CIFilter& filter, const std::string& key, const Value& value);

// For an input that names a filter ("inputBlurFilterName", "inputCompositeFilterName"), the
// category whose filters its parameter view offers; nullptr for other keys.
const char* filterNameCategoryForKey(const std::string& key);
// Why a filter that was given an image may have produced none: its image inputs that are
// missing ("inputBackgroundImage is missing") and its number inputs that lie outside their
// attribute range ("inputLightSource 3 lies outside 0 to 2"), joined by "; "; empty when
// there is neither.
std::string inputsOutsideTheirRange(const CIFilter& filter);

// The message for a step of a chain that produced no image from an image: names the filter
// and, where it can, the inputs that explain it.
std::string noImageMessage(const std::string& filterName, const CIFilter& filter);

// The declared class (kCIAttributeClass) of a filter's input; without one, the class of its
// default (or identity) value; "" when it has neither.
std::string attributeClassForKey(const CIFilter& filter, const std::string& key);

// The JSON form of a value: numbers keep integer vs real, booleans stay booleans, vectors are
// {"vector": [...]}, colours {"color": [r,g,b,a]}, transforms {"transform": [a,b,c,d,tx,ty]},
// URLs {"url": "..."}, images {"image": [x,y,w,h] | "infinite" | null} (their extent), arrays
// and dictionaries nested; nil is null. Non-finite reals become the strings "inf", "-inf", "nan".
nlohmann::json jsonFromValue(const Value& value);

// A rectangle as JSON: [x, y, w, h] with integral numbers written as integers, "infinite" for
// an infinite rectangle and null for the null rectangle.
nlohmann::json jsonFromRect(const CGRect& rect);

// A number as JSON, written as an integer when it is integral and small enough.
nlohmann::json jsonNumber(double v);

}  // namespace qv

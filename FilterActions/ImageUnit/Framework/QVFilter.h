// QVFilter: the abstract base of every filter of the plug-in, a direct subclass of CIFilter
// that adds nothing of its own. Every filter follows the same shape:
//
//   - one typed accessor pair per input (inputAngle() / setInputAngle(v)), stored through
//     CIFilter's key-value store so that valueForKey / setValue serve the same values;
//   - inputKeys(): kCIInputImageKey first, then the filter's own keys in order;
//   - outputKeys(): kCIOutputImageKey alone (CIFilter's);
//   - customAttributes() only where the filter describes its inputs itself, built with
//     QVFilterAttributesByAdding (the superclass's dictionary, the filter's entries replacing
//     whole entries of the same key);
//   - outputImage(): nil for a nil input image, checked first; otherwise a fresh graph built
//     from the inputs of the moment. Nothing is cached between two reads.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIVector.h"

class QVFilter : public CIFilter {};

// The attribute-dictionary rule of every customAttributes override: a mutable copy of the
// superclass's customAttributes (nil gives an empty dictionary) with each of `entries` put in,
// replacing the superclass's entry for the same key whole.
Value QVFilterAttributesByAdding(const Value& superAttributes, const Dictionary& entries);

// Creates a platform filter by name and gives it its own defaults, the first two steps of every
// use of a built-in; nil for an unknown name.
CIFilterRef QVFilterWithDefaults(const std::string& name);

// The kCIAttributeDefault of an input in the filter's attributes; nil when none is declared.
// Filters fall back to it for inputs the host left nil.
Value QVFilterAttributeDefault(const CIFilter& filter, const std::string& key);

// The image a filter publishes under kCIOutputImageKey (nil for a nil filter).
CIImage QVFilterOutputImage(const CIFilterRef& filter);

// The one shape of the filters that wrap a single point operation of the platform (the colour
// adjustments, the unsharp mask): nil for a nil image; otherwise the built-in `builtinName`
// with its defaults, each other input of `filter` handed on as it stands (a nil value replaces
// the built-in's default), the image, and the result cut back to the image's extent (never
// larger than the input, even where the operation cannot grow it).
CIImage QVFilterPointOperationOutput(const CIFilter& filter, const std::string& builtinName, const CIImage& image);

// QVFilterColorWellValueTransformer: turns a filter's CIColor input into the NSColor a colour
// well shows, and back. Stateless; views name it in their bindings by its class name and the
// toolkit's transformer registry creates it on first use.
#pragma once

#include <string>

#include "AppKit/NSValueTransformer.h"

class QVFilterColorWellValueTransformer : public NSValueTransformer {
 public:
  // The class name, registered with the transformer registry before it is returned (the
  // registry then creates the transformer when a binding first names it).
  static std::string className();

  // "CIColor", kept so on purpose although the forward value is an NSColor.
  std::string transformedValueClass() const override { return "CIColor"; }
  bool allowsReverseTransformation() const override { return true; }
  // nil for nil (and for anything that is not a CIColor); otherwise the same colour as NSColor.
  Value transformedValue(const Value& value) const override;
  // nil for nil (and for anything that is not an NSColor); otherwise the CIColor of its CGColor.
  Value reverseTransformedValue(const Value& value) const override;
};

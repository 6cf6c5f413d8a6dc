// NSValueTransformer: converts a model value to the value a control shows (and back), named in
// a binding's NSValueTransformerNameBindingOption. The registry maps names to shared
// instances; a transformer class registered by its class name is instantiated there on the
// first lookup of that name, so bindings can name a class that nobody has created.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Foundation/Value.h"

class NSValueTransformer;
using NSValueTransformerRef = std::shared_ptr<NSValueTransformer>;

class NSValueTransformer {
 public:
  virtual ~NSValueTransformer() = default;

  // The class name of the values transformedValue gives ("NSObject" unless overridden).
  virtual std::string transformedValueClass() const { return "NSObject"; }
  virtual bool allowsReverseTransformation() const { return false; }
  // The identity unless overridden.
  virtual Value transformedValue(const Value& value) const { return value; }
  // transformedValue again unless overridden; only used when reverse transformation is allowed.
  virtual Value reverseTransformedValue(const Value& value) const { return transformedValue(value); }

  // ---- The registry (thread-safe) ----
  // The transformer registered under name; else a new instance of the class registered under
  // that name, which is kept for later lookups; else nil.
  static NSValueTransformerRef valueTransformerForName(const std::string& name);
  // Registers (or, with nil, removes) a shared instance under name.
  static void setValueTransformer(NSValueTransformerRef transformer, const std::string& name);
  // Registers a class by its name, to be instantiated on first use. A second registration of
  // the same name keeps the first.
  static void registerValueTransformerClass(const std::string& className, std::function<NSValueTransformerRef()> make);
};

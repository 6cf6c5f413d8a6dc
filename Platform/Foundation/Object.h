// The root of the platform's object values: anything that can sit in a Value and is neither a
// number, a string, a collection nor a transform (URLs, vectors, colours, images, samplers...).
#pragma once

#include <memory>
#include <string>

class Object {
 public:
  virtual ~Object() = default;
  // The class name as the platform prints it ("NSURL", "CIVector", "CIColor", "CIImage").
  virtual std::string className() const = 0;
  virtual std::string description() const { return "<" + className() + ">"; }
  // Value equality; identity by default.
  virtual bool isEqual(const Object& other) const { return this == &other; }
};

using ObjectRef = std::shared_ptr<const Object>;

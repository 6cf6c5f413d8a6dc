// CIVector: an immutable list of numbers (points, rectangles, colour-matrix rows).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "Foundation/Object.h"
#include "Foundation/Value.h"

class CIVector;
using CIVectorRef = std::shared_ptr<const CIVector>;

class CIVector final : public Object {
 public:
  static CIVectorRef vectorWithX(double x);
  static CIVectorRef vectorWithX(double x, double y);
  static CIVectorRef vectorWithX(double x, double y, double z);
  static CIVectorRef vectorWithX(double x, double y, double z, double w);
  static CIVectorRef vectorWithValues(const double* values, std::size_t count);
  static CIVectorRef vectorWithCGPoint(CGPoint p);
  static CIVectorRef vectorWithCGRect(const CGRect& r);
  // "[1 2 3]" or "1 2 3"; nil when no number can be read.
  static CIVectorRef vectorWithString(const std::string& s);
  // The vector held by a Value, or nil.
  static CIVectorRef fromValue(const Value& v) { return v.object<CIVector>(); }

  explicit CIVector(std::vector<double> values) : values_(std::move(values)) {}

  std::size_t count() const { return values_.size(); }
  // 0 for an index beyond the count, as the platform answers.
  double valueAtIndex(std::size_t i) const { return i < values_.size() ? values_[i] : 0.0; }
  double X() const { return valueAtIndex(0); }
  double Y() const { return valueAtIndex(1); }
  double Z() const { return valueAtIndex(2); }
  double W() const { return valueAtIndex(3); }
  CGPoint CGPointValue() const { return {X(), Y()}; }
  CGRect CGRectValue() const { return CGRectMake(X(), Y(), Z(), W()); }
  const std::vector<double>& values() const { return values_; }
  // "[x y z]" with the shortest exact number forms.
  std::string stringRepresentation() const;

  std::string className() const override { return "CIVector"; }
  std::string description() const override { return stringRepresentation(); }
  bool isEqual(const Object& other) const override;

 private:
  std::vector<double> values_;
};

// QVFilterColorMatrix: multiplies each pixel by a 4 x 4 matrix and adds a bias, through the
// built-in "CIColorMatrix" (its inputs handed on unchanged), with the result cut back to the
// input's extent.
#pragma once

#include "Framework/QVFilter.h"

class QVFilterColorMatrix : public QVFilter {
 public:
  static constexpr const char* rVectorKey = "inputRVector";
  static constexpr const char* gVectorKey = "inputGVector";
  static constexpr const char* bVectorKey = "inputBVector";
  static constexpr const char* aVectorKey = "inputAVector";
  static constexpr const char* biasVectorKey = "inputBiasVector";

  CIImage inputImage() const { return CIImage::fromValue(storedValue(kCIInputImageKey)); }
  void setInputImage(const CIImage& image) { storeValue(kCIInputImageKey, image); }
  // Row of the red output (four numbers: weights of r, g, b, a).
  CIVectorRef inputRVector() const { return CIVector::fromValue(storedValue(QVFilterColorMatrix::rVectorKey)); }
  void setInputRVector(const Value& value) { storeValue(QVFilterColorMatrix::rVectorKey, value); }
  // Row of the green output.
  CIVectorRef inputGVector() const { return CIVector::fromValue(storedValue(QVFilterColorMatrix::gVectorKey)); }
  void setInputGVector(const Value& value) { storeValue(QVFilterColorMatrix::gVectorKey, value); }
  // Row of the blue output.
  CIVectorRef inputBVector() const { return CIVector::fromValue(storedValue(QVFilterColorMatrix::bVectorKey)); }
  void setInputBVector(const Value& value) { storeValue(QVFilterColorMatrix::bVectorKey, value); }
  // Row of the alpha output.
  CIVectorRef inputAVector() const { return CIVector::fromValue(storedValue(QVFilterColorMatrix::aVectorKey)); }
  void setInputAVector(const Value& value) { storeValue(QVFilterColorMatrix::aVectorKey, value); }
  // Added to r, g, b and a after the matrix.
  CIVectorRef inputBiasVector() const { return CIVector::fromValue(storedValue(QVFilterColorMatrix::biasVectorKey)); }
  void setInputBiasVector(const Value& value) { storeValue(QVFilterColorMatrix::biasVectorKey, value); }

  std::vector<std::string> inputKeys() const override { return {kCIInputImageKey, rVectorKey, gVectorKey, bVectorKey, aVectorKey, biasVectorKey}; }
  // Only this filter's own entries, not added to the superclass's dictionary.
  Value customAttributes() const override;
  CIImage outputImage() const override;
};

// A CIVector of the four numbers, in order.
CIVectorRef QVFilterColorMatrixVectorMake(double x, double y, double z, double w);

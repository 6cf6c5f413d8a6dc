// Helpers of the adjustment-filter tests: built-ins wired by hand (the graphs the filters must
// equal), attribute look-ups and pixel comparisons.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIVector.h"
#include "FilterTestSupport.h"
#include "RenderSupport.h"

namespace qvtest {

// A built-in by name, with its defaults, then the given inputs, then its output.
inline CIImage builtinOutput(const std::string& name, const Dictionary& inputs) {
  CIFilterRef f = CIFilter::filterWithName(name);
  if (!f) return {};
  f->setDefaults();
  for (const auto& [key, value] : inputs) f->setValue(value, key);
  return filterOutput(f);
}

// The attribute dictionary of one input in a dictionary of attributes (nullptr when absent).
inline const Dictionary* attributeEntry(const Value& attributes, const std::string& key) {
  const Dictionary* d = attributes.dictionary();
  if (!d) return nullptr;
  const auto it = d->find(key);
  return it == d->end() ? nullptr : it->second.dictionary();
}

inline std::vector<std::string> keysOf(const Dictionary& d) {
  std::vector<std::string> keys;
  for (const auto& [k, v] : d) keys.push_back(k);
  return keys;
}

inline Value vec(double x, double y) { return Value(CIVector::vectorWithX(x, y)); }
inline Value vec(double x, double y, double z, double w) { return Value(CIVector::vectorWithX(x, y, z, w)); }

// Working-space pixels of `rect` of an image, rendered without colour management on one
// thread (deterministic).
inline std::vector<float> pixels(const CIImage& image, const CGRect& rect) {
  CIContextOptions opts;
  opts.colorManagement = false;
  return renderRGBAf(image, rect, opts);
}

}  // namespace qvtest

// Two images render to the same pixels over `rect`, within `tol`.
#define EXPECT_SAME_PIXELS(a, b, rect, tol)                                                            \
  do {                                                                                                 \
    const auto qv_pa = qvtest::pixels((a), (rect));                                                    \
    const auto qv_pb = qvtest::pixels((b), (rect));                                                    \
    EXPECT_LE(maxAbsDifference(qv_pa, qv_pb), (tol)) << "over " << NSStringFromRect(rect);             \
  } while (0)

#define EXPECT_DIFFERENT_PIXELS(a, b, rect)                                                            \
  do {                                                                                                 \
    const auto qv_pa = qvtest::pixels((a), (rect));                                                    \
    const auto qv_pb = qvtest::pixels((b), (rect));                                                    \
    EXPECT_GT(maxAbsDifference(qv_pa, qv_pb), 1e-3f) << "over " << NSStringFromRect(rect);             \
  } while (0)

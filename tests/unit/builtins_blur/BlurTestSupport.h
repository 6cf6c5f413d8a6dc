// Helpers of the blur and distortion tests: filters applied by name, a small photo-like test
// image, and plain oracles over rendered float buffers.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIVector.h"
#include "RenderSupport.h"

namespace blurtest {

// Creates the filter by name, sets its defaults, then the given inputs, and reads its output.
inline CIImage applyFilter(const std::string& name, const CIImage& image, const std::vector<std::pair<std::string, Value>>& inputs = {}) {
  const CIFilterRef f = CIFilter::filterWithName(name);
  if (!f) {
    ADD_FAILURE() << "no filter named " << name;
    return {};
  }
  f->setDefaults();
  if (image) f->setValue(Value(image), kCIInputImageKey);
  for (const auto& [key, value] : inputs) f->setValue(value, key);
  return f->outputImage();
}

inline Value vec(double x, double y) { return Value(CIVector::vectorWithX(x, y)); }

// A small photo-like image: a sky gradient, a bright disc, a dark bar, fine stripes and a
// little deterministic grain, opaque, premultiplied working floats, row 0 = top.
inline std::vector<float> photoPixels(int w, int h) {
  std::vector<float> px(std::size_t(w) * std::size_t(h) * 4);
  std::uint32_t state = 12345;
  auto grain = [&state] {
    state = state * 1664525u + 1013904223u;
    return float((state >> 9) & 0xff) / 255.0f - 0.5f;
  };
  for (int row = 0; row < h; ++row)
    for (int x = 0; x < w; ++x) {
      const float y = float(h - 1 - row);  // y up
      float r = 0.15f + 0.5f * y / float(h), g = 0.25f + 0.45f * y / float(h), b = 0.6f + 0.35f * y / float(h);
      const float dx = float(x) - 0.3f * float(w), dy = y - 0.6f * float(h);
      if (dx * dx + dy * dy < 0.04f * float(w * w)) r = 1.0f, g = 0.85f, b = 0.3f;
      if (x > w / 2 && x < w / 2 + w / 10) r *= 0.1f, g *= 0.1f, b *= 0.15f;
      if (y < 0.25f * float(h) && (x / 3) % 2 == 0) r = 0.9f, g = 0.9f, b = 0.9f;
      const float n = 0.03f * grain();
      float* p = &px[(std::size_t(row) * std::size_t(w) + std::size_t(x)) * 4];
      p[0] = std::clamp(r + n, 0.0f, 1.0f);
      p[1] = std::clamp(g + n, 0.0f, 1.0f);
      p[2] = std::clamp(b + n, 0.0f, 1.0f);
      p[3] = 1.0f;
    }
  return px;
}

inline CIImage photo(int w = 160, int h = 120, CGPoint origin = {}) {
  const auto px = photoPixels(w, h);
  return CIImage::imageWithRGBAf(px.data(), std::size_t(w), std::size_t(h), origin);
}

// A rendered float buffer addressed in image coordinates (y up).
struct Floats {
  std::vector<float> v;
  CGRect rect;
  std::int64_t w = 0, h = 0;
  static Floats render(const CIImage& image, const CGRect& rect, int tileSize = 0, int threads = 0) {
    CIContextOptions o;
    o.colorManagement = false;
    o.tileSize = tileSize;
    o.threads = threads;
    Floats f;
    f.rect = CGRectIntegral(rect);
    f.w = std::int64_t(f.rect.size.width);
    f.h = std::int64_t(f.rect.size.height);
    f.v = renderRGBAf(image, f.rect, o);
    return f;
  }
  // Value of channel c at pixel (x, y) (absolute), 0 outside the rendered rectangle.
  float at(std::int64_t x, std::int64_t y, int c) const {
    const std::int64_t cx = x - std::int64_t(rect.origin.x), cy = y - std::int64_t(rect.origin.y);
    if (cx < 0 || cy < 0 || cx >= w || cy >= h) return 0.0f;
    return v[std::size_t(((h - 1 - cy) * w + cx) * 4 + c)];
  }
};

}  // namespace blurtest

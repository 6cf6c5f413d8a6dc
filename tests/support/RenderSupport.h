// Test helpers shared by every unit test: render an image to working floats, read one pixel,
// make deterministic test images, and compare pixel buffers (including the golden-image
// tolerance: per value 0.004, at most 2% of values above that, none above 0.012).
#pragma once

#include <algorithm>
#include <cstring>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIImage.h"


// Context options for a render on `threads` threads (0: one per core) in square tiles of
// `tileSize` (0: the renderer's own choice), colour-managed unless told otherwise.
inline CIContextOptions renderOptions(int threads, int tileSize, bool colorManaged = true) {
  CIContextOptions o;
  o.threads = threads;
  o.tileSize = tileSize;
  o.colorManagement = colorManaged;
  return o;
}

// Renders `rect` (made integral) of the image as premultiplied working-space floats, 4 per
// pixel, row 0 = top row.
inline std::vector<float> renderRGBAf(const CIImage& image, const CGRect& rect, CIContextOptions opts = {}) {
  const CGRect r = CGRectIntegral(rect);
  const auto w = static_cast<std::size_t>(CGRectGetWidth(r)), h = static_cast<std::size_t>(CGRectGetHeight(r));
  std::vector<float> out(w * h * 4, 0.0f);
  if (w == 0 || h == 0) return out;
  CIContext ctx(std::move(opts));
  ctx.render(image, out.data(), static_cast<std::ptrdiff_t>(w * 4 * sizeof(float)), r, CIRenderFormat::RGBAf);
  return out;
}

// Renders `rect` as straight, encoded RGBA8 (row 0 = top).
inline std::vector<std::uint8_t> renderRGBA8(const CIImage& image, const CGRect& rect, CIContextOptions opts = {}) {
  const CGRect r = CGRectIntegral(rect);
  const auto w = static_cast<std::size_t>(CGRectGetWidth(r)), h = static_cast<std::size_t>(CGRectGetHeight(r));
  std::vector<std::uint8_t> out(w * h * 4, 0);
  if (w == 0 || h == 0) return out;
  CIContext ctx(std::move(opts));
  ctx.render(image, out.data(), static_cast<std::ptrdiff_t>(w * 4), r, CIRenderFormat::RGBA8);
  return out;
}

// The working-space premultiplied pixel whose lower-left corner is (x, y).
inline std::array<float, 4> pixelAt(const CIImage& image, double x, double y, bool colorManaged = false) {
  CIContextOptions opts;
  opts.colorManagement = colorManaged;
  opts.threads = 1;
  const auto v = renderRGBAf(image, CGRectMake(std::floor(x), std::floor(y), 1, 1), opts);
  return {v[0], v[1], v[2], v[3]};
}

// A deterministic, colourful, opaque test image: smooth gradients in each channel plus a
// little hash noise, as premultiplied working floats (alpha 1).
inline std::vector<float> makeTestPixels(int w, int h, unsigned seed = 1, bool withAlpha = false) {
  std::vector<float> px(static_cast<std::size_t>(w) * static_cast<std::size_t>(h) * 4);
  auto hash = [seed](std::uint32_t x, std::uint32_t y, std::uint32_t c) {
    std::uint32_t v = x * 73856093u ^ y * 19349663u ^ c * 83492791u ^ (seed * 2654435761u);
    v ^= v >> 13;
    v *= 0x5bd1e995u;
    v ^= v >> 15;
    return float(v & 0xffff) / 65535.0f;
  };
  for (int row = 0; row < h; ++row) {
    for (int x = 0; x < w; ++x) {
      const float fx = w > 1 ? float(x) / float(w - 1) : 0.5f, fy = h > 1 ? float(row) / float(h - 1) : 0.5f;
      float* p = &px[(std::size_t(row) * std::size_t(w) + std::size_t(x)) * 4];
      const float r = 0.8f * fx + 0.2f * hash(x, row, 0);
      const float g = 0.8f * fy + 0.2f * hash(x, row, 1);
      const float b = 0.5f + 0.3f * std::sin(float(x + row) * 0.21f + float(seed)) + 0.1f * hash(x, row, 2);
      float a = 1.0f;
      if (withAlpha) a = 0.15f + 0.85f * (0.5f + 0.5f * std::cos(float(x) * 0.13f - float(row) * 0.07f + float(seed)));
      p[0] = r * a;
      p[1] = g * a;
      p[2] = std::clamp(b, 0.0f, 1.0f) * a;
      p[3] = a;
    }
  }
  return px;
}

inline CIImage makeTestImage(int w, int h, CGPoint origin = {}, unsigned seed = 1) {
  const auto px = makeTestPixels(w, h, seed, false);
  return CIImage::imageWithRGBAf(px.data(), std::size_t(w), std::size_t(h), origin);
}

// As makeTestImage, with alpha varying smoothly between 0.15 and 1.
inline CIImage makeTestImageWithAlpha(int w, int h, CGPoint origin = {}, unsigned seed = 1) {
  const auto px = makeTestPixels(w, h, seed, true);
  return CIImage::imageWithRGBAf(px.data(), std::size_t(w), std::size_t(h), origin);
}

// The largest absolute difference between two equally long buffers (infinity when the sizes
// differ or a value is NaN in one and not the other).
inline float maxAbsDifference(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size()) return INFINITY;
  float m = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::isnan(a[i]) != std::isnan(b[i])) return INFINITY;
    if (!std::isnan(a[i])) m = std::max(m, std::fabs(a[i] - b[i]));
  }
  return m;
}

// Whether two buffers are equal bit for bit (and equally long).
inline bool bitwiseEqual(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](float x, float y) {
           return std::memcmp(&x, &y, sizeof(float)) == 0;
         });
}

struct ToleranceReport {
  bool ok = true;
  std::size_t count = 0, overTolerance = 0;
  float maxDifference = 0;
  std::string message;
};

// The golden-image tolerance: values differ by at most `perValue` (0.004) except at most
// `fraction` (2%) of them, and none by more than `hardLimit` (0.012).
inline ToleranceReport compareWithTolerance(const std::vector<float>& actual, const std::vector<float>& expected,
                                            float perValue = 0.004f, double fraction = 0.02,
                                            float hardLimit = 0.012f) {
  ToleranceReport r;
  r.count = expected.size();
  if (actual.size() != expected.size()) {
    r.ok = false;
    r.message = "size " + std::to_string(actual.size()) + " != " + std::to_string(expected.size());
    return r;
  }
  for (std::size_t i = 0; i < actual.size(); ++i) {
    const float d = std::isnan(actual[i]) || std::isnan(expected[i]) ? INFINITY : std::fabs(actual[i] - expected[i]);
    r.maxDifference = std::max(r.maxDifference, d);
    if (d > perValue) ++r.overTolerance;
  }
  r.ok = r.maxDifference <= hardLimit && double(r.overTolerance) <= fraction * double(r.count);
  std::ostringstream s;
  s << "max difference " << r.maxDifference << ", " << r.overTolerance << " of " << r.count << " values above "
    << perValue;
  r.message = s.str();
  return r;
}

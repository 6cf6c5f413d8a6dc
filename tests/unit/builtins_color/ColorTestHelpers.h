// Helpers of the colour, composite and generator built-in tests: images from known pixels,
// rendering to working-space floats, and reading pixels back by plane coordinates.
#pragma once

// GCC 12 reports -Wmaybe-uninitialized inside std::variant copies when braced dictionaries of
// mixed Value kinds are built under the sanitizers' optimisation levels (GCC bug 105562 and
// kin); the values are always initialised. The tests build such dictionaries everywhere.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"

namespace colortest {

using Pixel = std::array<float, 4>;

// Premultiplied pixels of a w × h image at `origin`, row 0 at the top, with values from a
// seeded generator. alpha: "opaque", "translucent" (0.1..1) or "mixed" (including 0 and 1).
struct TestImage {
  std::vector<float> pixels;
  std::size_t width = 0, height = 0;
  CGPoint origin{0, 0};
  CIImage image;

  // The premultiplied pixel at plane position (x, y); transparent outside.
  Pixel at(std::int64_t x, std::int64_t y) const {
    const std::int64_t col = x - static_cast<std::int64_t>(origin.x);
    const std::int64_t rowFromBottom = y - static_cast<std::int64_t>(origin.y);
    if (col < 0 || rowFromBottom < 0 || col >= static_cast<std::int64_t>(width) ||
        rowFromBottom >= static_cast<std::int64_t>(height)) {
      return {0, 0, 0, 0};
    }
    const std::size_t row = height - 1 - static_cast<std::size_t>(rowFromBottom);
    const float* p = &pixels[(row * width + static_cast<std::size_t>(col)) * 4];
    return {p[0], p[1], p[2], p[3]};
  }
};

inline TestImage makeImage(std::size_t w, std::size_t h, CGPoint origin, unsigned seed,
                           const std::string& alpha = "translucent", float lo = 0.0f, float hi = 1.0f) {
  TestImage t;
  t.width = w;
  t.height = h;
  t.origin = origin;
  t.pixels.resize(w * h * 4);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> colour(lo, hi), unit(0.0f, 1.0f);
  for (std::size_t i = 0; i < w * h; ++i) {
    float a = 1.0f;
    if (alpha == "translucent") a = 0.1f + 0.9f * unit(rng);
    if (alpha == "mixed") {
      const float r = unit(rng);
      a = r < 0.2f ? 0.0f : r > 0.8f ? 1.0f : unit(rng);
    }
    for (int c = 0; c < 3; ++c) t.pixels[i * 4 + c] = colour(rng) * a;
    t.pixels[i * 4 + 3] = a;
  }
  t.image = CIImage::imageWithRGBAf(t.pixels.data(), w, h, origin);
  return t;
}

inline TestImage makeUniformImage(std::size_t w, std::size_t h, CGPoint origin, Pixel premultiplied) {
  TestImage t;
  t.width = w;
  t.height = h;
  t.origin = origin;
  t.pixels.resize(w * h * 4);
  for (std::size_t i = 0; i < w * h; ++i) {
    for (int c = 0; c < 4; ++c) t.pixels[i * 4 + c] = premultiplied[c];
  }
  t.image = CIImage::imageWithRGBAf(t.pixels.data(), w, h, origin);
  return t;
}

// A render of `rect` (integral) to working-space premultiplied floats.
struct Rendered {
  std::vector<float> pixels;
  std::int64_t x = 0, y = 0, width = 0, height = 0;
  Pixel at(std::int64_t px, std::int64_t py) const {
    const std::int64_t row = height - 1 - (py - y);
    const float* p = &pixels[static_cast<std::size_t>((row * width + (px - x)) * 4)];
    return {p[0], p[1], p[2], p[3]};
  }
};

inline Rendered render(const CIImage& image, const CGRect& rect, bool colorManaged = true, int tileSize = 0) {
  Rendered r;
  r.x = static_cast<std::int64_t>(rect.origin.x);
  r.y = static_cast<std::int64_t>(rect.origin.y);
  r.width = static_cast<std::int64_t>(rect.size.width);
  r.height = static_cast<std::int64_t>(rect.size.height);
  r.pixels.assign(static_cast<std::size_t>(r.width * r.height * 4), -1.0f);
  CIContextOptions options;
  options.colorManagement = colorManaged;
  options.tileSize = tileSize;
  CIContext context(options);
  context.render(image, r.pixels.data(), static_cast<std::ptrdiff_t>(r.width * 16), rect, CIRenderFormat::RGBAf);
  return r;
}

inline ::testing::AssertionResult near(const Pixel& got, const Pixel& want, float tol = 2e-5f) {
  for (int c = 0; c < 4; ++c) {
    const float allowed = tol * std::max(1.0f, std::fabs(want[c]));
    if (!(std::fabs(got[c] - want[c]) <= allowed)) {
      return ::testing::AssertionFailure() << "channel " << c << ": got (" << got[0] << ", " << got[1] << ", "
                                           << got[2] << ", " << got[3] << ") want (" << want[0] << ", " << want[1]
                                           << ", " << want[2] << ", " << want[3] << ")";
    }
  }
  return ::testing::AssertionSuccess();
}

inline CIFilterRef filter(const std::string& name) {
  CIFilterRef f = CIFilter::filterWithName(name);
  if (f) f->setDefaults();
  return f;
}

inline bool sameRect(const CGRect& a, const CGRect& b) {
  return a.origin.x == b.origin.x && a.origin.y == b.origin.y && a.size.width == b.size.width &&
         a.size.height == b.size.height;
}

}  // namespace colortest

// The vector forms of the 8-bit conversions against the scalar forms they must equal bit for
// bit, on every instruction set the build generated code for and this processor runs.
#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "CoreImage/ColorSpace.h"
#include "CoreImage/Render/PixelConvert.h"
#include "HighwayTargets.h"

namespace {

using qvtest::forEachTarget;

// Both conversions over whole buffers, then again over short runs at every offset (runs that
// end inside a vector, so that the scalar tail takes over at every position).
void expectSameDecode(const std::vector<std::uint8_t>& src, bool managed) {
  const std::size_t n = src.size() / 4;
  std::vector<float> vec(n * 4), ref(n * 4);
  qvpixel::decodeStraightRGBA8(src.data(), vec.data(), n, managed);
  qvpixel::decodeStraightRGBA8Scalar(src.data(), ref.data(), n, managed);
  for (std::size_t i = 0; i < vec.size(); ++i)
    ASSERT_EQ(std::bit_cast<std::uint32_t>(vec[i]), std::bit_cast<std::uint32_t>(ref[i]))
        << "managed " << managed << ", pixel " << i / 4 << " (" << int(src[i & ~std::size_t(3)]) << ", "
        << int(src[(i & ~std::size_t(3)) + 1]) << ", " << int(src[(i & ~std::size_t(3)) + 2]) << ", "
        << int(src[(i & ~std::size_t(3)) + 3]) << "), component " << i % 4;
  for (std::size_t start = 0; start < 19 && start < n; ++start)
    for (std::size_t count = 0; count <= 37 && start + count <= n; ++count) {
      std::vector<float> part(count * 4, -7.0f);
      qvpixel::decodeStraightRGBA8(src.data() + 4 * start, part.data(), count, managed);
      ASSERT_TRUE(count == 0 || std::memcmp(part.data(), ref.data() + 4 * start, count * 4 * sizeof(float)) == 0)
          << "run of " << count << " from pixel " << start;
    }
}

void expectSameEncode(const std::vector<float>& src, bool managed) {
  const std::size_t n = src.size() / 4;
  std::vector<std::uint8_t> vec(n * 4), ref(n * 4);
  qvpixel::encodeStraightRGBA8(src.data(), vec.data(), n, managed);
  qvpixel::encodeStraightRGBA8Scalar(src.data(), ref.data(), n, managed);
  for (std::size_t i = 0; i < vec.size(); ++i) {
    if (vec[i] == ref[i]) continue;
    const std::size_t p = i & ~std::size_t(3);
    FAIL() << "managed " << managed << ", pixel " << i / 4 << " (" << src[p] << ", " << src[p + 1] << ", " << src[p + 2]
           << ", " << src[p + 3] << "), component " << i % 4 << ": vector " << int(vec[i]) << ", scalar "
           << int(ref[i]);
  }
  for (std::size_t start = 0; start < 19 && start < n; ++start)
    for (std::size_t count = 0; count <= 37 && start + count <= n; ++count) {
      std::vector<std::uint8_t> part(count * 4, 0xA5);
      qvpixel::encodeStraightRGBA8(src.data() + 4 * start, part.data(), count, managed);
      ASSERT_TRUE(count == 0 || std::memcmp(part.data(), ref.data() + 4 * start, count * 4) == 0)
          << "run of " << count << " from pixel " << start;
    }
}

// Values every colour component of the encode test takes: the edges and oddities of the float
// line, each code's threshold and its neighbours, and every 97th float from 0 to a little
// above 1 (about eleven million), negated for a part of them.
std::vector<float> sweptValues() {
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  std::vector<float> v = {0.0f,    -0.0f,  1.0f,     -1.0f,   2.0f,     1e30f,   -1e30f,   inf,
                          -inf,    nan,    -nan,     1e-45f,  -1e-45f,  1e-40f,  1e-38f,   1.17549435e-38f,
                          0.5f,    1e-7f,  1.0001f,  0.9999f, 3.4e38f,  65504.f, 1e-3f,    std::nextafter(1.0f, 0.0f),
                          std::nextafter(1.0f, 2.0f), std::nextafter(0.0f, 1.0f)};
  for (int k = 0; k < 255; ++k) {
    const float t = srgbToLinear((static_cast<float>(k) + 0.5f) / 255.0f);
    v.insert(v.end(), {t, std::nextafter(t, 0.0f), std::nextafter(t, 1.0f), static_cast<float>(k) / 255.0f});
  }
  const std::uint32_t top = std::bit_cast<std::uint32_t>(1.05f);
  for (std::uint32_t bits = 0; bits <= top; bits += 97) {
    const float f = std::bit_cast<float>(bits);
    v.push_back(bits % 5 == 0 ? -f : f);
  }
  return v;
}

}  // namespace

TEST(PixelConvertVector, DecodeEqualsTheScalarCodeForEveryCodeAndAlpha) {
  // Every colour code under every alpha code, the three colour components shifted against one
  // another so that each component sees every code.
  std::vector<std::uint8_t> src;
  src.reserve(256 * 256 * 4);
  for (int a = 0; a < 256; ++a)
    for (int c = 0; c < 256; ++c)
      src.insert(src.end(), {std::uint8_t(c), std::uint8_t(c + 85), std::uint8_t(255 - c), std::uint8_t(a)});
  forEachTarget([&] {
    for (bool managed : {true, false}) expectSameDecode(src, managed);
  });
}

TEST(PixelConvertVector, OpaqueEncodeEqualsTheScalarCodeOnADenseSweep) {
  const std::vector<float> values = sweptValues();
  std::vector<float> src;
  src.reserve(values.size() * 4 / 3 + 4);
  for (std::size_t i = 0; i + 2 < values.size(); i += 3) src.insert(src.end(), {values[i], values[i + 1], values[i + 2], 1.0f});
  forEachTarget([&] {
    for (bool managed : {true, false}) expectSameEncode(src, managed);
  });
}

TEST(PixelConvertVector, TranslucentEncodeEqualsTheScalarCodeOnADenseSweep) {
  // Premultiplied colours under alphas that are transparent, partial, opaque and out of range
  // (negative, above 1, NaN, denormal), mixed within every vector so that vectors with and
  // without opaque pixels both occur.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float alphas[] = {0.5f, 1.0f, 0.0f, 1.0f / 255.0f, 254.0f / 255.0f, 0.25f, 1.0f, 1e-40f, -0.0f, -0.5f, nan,
                          1.5f, 0.999f, 1.0f, 3e-3f, 1.0f, 0.75f, std::numeric_limits<float>::infinity(), 1e-30f};
  constexpr std::size_t kAlphas = sizeof alphas / sizeof alphas[0];
  const std::vector<float> values = sweptValues();
  std::vector<float> src;
  src.reserve(values.size() * 4 / 3 + 4);
  for (std::size_t i = 0, p = 0; i + 2 < values.size(); i += 3, ++p) {
    const float a = alphas[(p * 7 + p / kAlphas) % kAlphas];
    const bool premultiply = std::isfinite(a) && a > 0 && a <= 1;
    const float k = premultiply ? a : 1.0f;
    src.insert(src.end(), {values[i] * k, values[i + 1] * k, values[i + 2] * k, a});
  }
  // A vector of opaque pixels, then one with a single translucent pixel at its end.
  for (int i = 0; i < 16; ++i) src.insert(src.end(), {0.2f, 0.4f, 0.6f, 1.0f});
  for (int i = 0; i < 16; ++i) src.insert(src.end(), {0.1f, 0.3f, 0.5f, i == 15 ? 0.5f : 1.0f});
  forEachTarget([&] {
    for (bool managed : {true, false}) expectSameEncode(src, managed);
  });
}

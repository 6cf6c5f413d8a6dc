#include "CoreImage/Render/PixelConvert.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <vector>

#include "CoreImage/ColorSpace.h"
#include "CoreImage/Render/PixelConvertKernels.h"

namespace qvpixel {
namespace {

struct Tables {
  std::array<float, 256> linear{};
  std::array<float, 256> raw{};
  // thresholds[k]: the linear value from which the nearest 8-bit code is k + 1; thresholds[255]
  // is infinite, so that the step from code 255 is never taken.
  std::array<float, 256> thresholds{};
  // firstCode[i]: the code of the smallest linear value of bucket i of [0, 1) cut into
  // kBuckets equal parts. The sRGB curve is never steeper than about 3300 codes per unit, so a
  // bucket spans less than one code step and at most one threshold step corrects the guess:
  // the result is the exact nearest code, found without a search per component.
  static constexpr int kBuckets = 16384;
  std::array<std::uint8_t, kBuckets> firstCode{};
  // The same codes for the vector code, which finds them with one look-up per component:
  // buckets by the high 16 bits of the float (see kernels::EncodeTable).
  kernels::EncodeTable byBits;
  std::vector<std::uint32_t> byBitsEntries;
  Tables() {
    for (int i = 0; i < 256; ++i) {
      raw[i] = static_cast<float>(i) / 255.0f;
      linear[i] = srgbToLinear(raw[i]);
    }
    for (int k = 0; k < 255; ++k) thresholds[k] = srgbToLinear((static_cast<float>(k) + 0.5f) / 255.0f);
    thresholds[255] = std::numeric_limits<float>::infinity();
    for (int i = 0; i < kBuckets; ++i) {
      const float lower = static_cast<float>(i) / kBuckets;
      firstCode[i] = static_cast<std::uint8_t>(std::upper_bound(thresholds.begin(), thresholds.begin() + 255, lower) -
                                               thresholds.begin());
    }
    buildBitsTable();
  }

  // Bucket j holds the floats whose high 16 bits are first + j, from the bucket below the
  // first threshold's (every smaller positive value has code 0) to the one below 1. A bucket
  // spans a 128th of its values' magnitude, less than any relative gap between thresholds
  // (at least 2.4 / 255 of the value, at the top of the curve), so it holds at most one; that
  // is checked here, and without it the vector code is not used.
  void buildBitsTable() {
    auto bits = [](float f) { return std::bit_cast<std::uint32_t>(f); };
    const std::uint32_t first = (bits(thresholds[0]) >> 16) - 1, end = bits(1.0f) >> 16;
    byBitsEntries.assign(end - first, 0);
    std::size_t next = 0;  // the first threshold not below the bucket
    for (std::uint32_t j = 0; j < end - first; ++j) {
      const std::uint32_t start = (first + j) << 16;
      while (next < 255 && bits(thresholds[next]) < start) ++next;
      std::uint32_t inside = 0x10000;  // no threshold in the bucket: never reached
      if (next < 255 && bits(thresholds[next]) - start < 0x10000) {
        inside = bits(thresholds[next]) & 0xFFFF;
        if (next + 1 < 255 && bits(thresholds[next + 1]) - start < 0x10000) return;  // two: not exact
      }
      byBitsEntries[j] = std::uint32_t(next) << 24 | inside;
    }
    byBits = kernels::EncodeTable{byBitsEntries.data(), std::int32_t(first), std::int32_t(end - first)};
  }
};

const Tables& tables() {
  static const Tables t;
  return t;
}

inline float clamp01(float v) { return v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f; }

inline std::uint8_t code8Raw(float v) { return static_cast<std::uint8_t>(std::floor(clamp01(v) * 255.0f + 0.5f)); }

inline std::uint8_t code8Managed(float v, const Tables& t) {
  if (!(v > 0.0f)) return 0;
  if (v >= 1.0f) return 255;
  // A bucket is narrower than any gap between thresholds: one comparison finds the code.
  const int code = t.firstCode[static_cast<int>(v * Tables::kBuckets)];
  return static_cast<std::uint8_t>(code + (v >= t.thresholds[code] ? 1 : 0));
}

}  // namespace

const float* decodeTable8(bool colorManaged) { return colorManaged ? tables().linear.data() : tables().raw.data(); }

void decodeStraightRGBA8(const std::uint8_t* src, float* dst, std::size_t count, bool colorManaged) {
  const std::size_t done = colorManaged ? kernels::decodeStraightRGBA8Managed(src, dst, count, tables().linear.data())
                                        : kernels::decodeStraightRGBA8Unmanaged(src, dst, count);
  decodeStraightRGBA8Scalar(src + 4 * done, dst + 4 * done, count - done, colorManaged);
}

void decodeStraightRGBA8Scalar(const std::uint8_t* src, float* dst, std::size_t count, bool colorManaged) {
  const float* lut = decodeTable8(colorManaged);
  const float* raw = tables().raw.data();
  for (std::size_t i = 0; i < count; ++i, src += 4, dst += 4) {
    const float a = raw[src[3]];
    dst[0] = lut[src[0]] * a;
    dst[1] = lut[src[1]] * a;
    dst[2] = lut[src[2]] * a;
    dst[3] = a;
  }
}

void decodeStraightRGBA16(const std::uint16_t* src, float* dst, std::size_t count, bool colorManaged) {
  for (std::size_t i = 0; i < count; ++i, src += 4, dst += 4) {
    const float a = static_cast<float>(src[3]) / 65535.0f;
    for (int c = 0; c < 3; ++c) {
      const float e = static_cast<float>(src[c]) / 65535.0f;
      dst[c] = (colorManaged ? srgbToLinear(e) : e) * a;
    }
    dst[3] = a;
  }
}

namespace {
// Premultiplied encoded components: un-premultiply, decode, premultiply again. With colour
// management off decoding is the identity, so the values only need scaling.
// One premultiplied encoded component with its alpha, decoded: un-premultiplied, decoded and
// premultiplied again.
inline float decodePremulManaged(std::uint8_t c, std::uint8_t a8) {
  if (a8 == 0) return 0.0f;
  const float a = static_cast<float>(a8) / 255.0f;
  const float e = static_cast<float>(c) / 255.0f;
  return srgbToLinear(std::min(1.0f, e / a)) * a;
}

// decodePremulManaged for every (alpha, component) pair, [alpha][component]: the same values
// without a power function per component (providers' pixels are converted wherever tiles
// read them, so a texture tiled over a picture would otherwise decode every pixel it covers).
const float* premultipliedManagedTable() {
  static const std::vector<float> table = [] {
    std::vector<float> t(256 * 256);
    for (int a = 0; a < 256; ++a)
      for (int c = 0; c < 256; ++c)
        t[std::size_t(a * 256 + c)] = decodePremulManaged(std::uint8_t(c), std::uint8_t(a));
    return t;
  }();
  return table.data();
}

inline void decodePremul(std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a8, float* dst, bool managed,
                         const float* table) {
  const float a = static_cast<float>(a8) / 255.0f;
  if (managed) {
    const float* row = table + std::size_t(a8) * 256;
    dst[0] = row[r];
    dst[1] = row[g];
    dst[2] = row[b];
  } else {
    dst[0] = static_cast<float>(r) / 255.0f;
    dst[1] = static_cast<float>(g) / 255.0f;
    dst[2] = static_cast<float>(b) / 255.0f;
  }
  dst[3] = a;
}
}  // namespace

void decodePremultipliedARGB8(const std::uint8_t* src, float* dst, std::size_t count, bool colorManaged) {
  const float* table = colorManaged ? premultipliedManagedTable() : nullptr;
  for (std::size_t i = 0; i < count; ++i, src += 4, dst += 4)
    decodePremul(src[1], src[2], src[3], src[0], dst, colorManaged, table);
}

void decodePremultipliedRGBA8(const std::uint8_t* src, float* dst, std::size_t count, bool colorManaged) {
  const float* table = colorManaged ? premultipliedManagedTable() : nullptr;
  for (std::size_t i = 0; i < count; ++i, src += 4, dst += 4)
    decodePremul(src[0], src[1], src[2], src[3], dst, colorManaged, table);
}

void encodeStraightRGBA8(const float* src, std::uint8_t* dst, std::size_t count, bool colorManaged) {
  const Tables& t = tables();
  const std::size_t done = !colorManaged ? kernels::encodeStraightRGBA8Unmanaged(src, dst, count)
                           : t.byBits.entries ? kernels::encodeStraightRGBA8Managed(src, dst, count, t.byBits)
                                              : 0;
  encodeStraightRGBA8Scalar(src + 4 * done, dst + 4 * done, count - done, colorManaged);
}

void encodeStraightRGBA8Scalar(const float* src, std::uint8_t* dst, std::size_t count, bool colorManaged) {
  const Tables& t = tables();
  for (std::size_t i = 0; i < count; ++i, src += 4, dst += 4) {
    const float a = clamp01(src[3]);
    if (a == 1.0f && colorManaged) {
      // Opaque (most pixels of a photo): the colour is already straight.
      dst[0] = code8Managed(src[0], t);
      dst[1] = code8Managed(src[1], t);
      dst[2] = code8Managed(src[2], t);
      dst[3] = 255;
      continue;
    }
    if (!(a > 0.0f)) {
      dst[0] = dst[1] = dst[2] = dst[3] = 0;
      continue;
    }
    for (int c = 0; c < 3; ++c) {
      const float v = src[c] / a;
      dst[c] = colorManaged ? code8Managed(v, t) : code8Raw(v);
    }
    dst[3] = code8Raw(a);
  }
}

void encodeStraightRGBA16(const float* src, std::uint16_t* dst, std::size_t count, bool colorManaged) {
  auto code = [](float v) { return static_cast<std::uint16_t>(std::floor(clamp01(v) * 65535.0f + 0.5f)); };
  for (std::size_t i = 0; i < count; ++i, src += 4, dst += 4) {
    const float a = clamp01(src[3]);
    if (!(a > 0.0f)) {
      dst[0] = dst[1] = dst[2] = dst[3] = 0;
      continue;
    }
    for (int c = 0; c < 3; ++c) {
      const float v = src[c] / a;
      dst[c] = code(colorManaged ? linearToSrgb(clamp01(v)) : v);
    }
    dst[3] = code(a);
  }
}

}  // namespace qvpixel

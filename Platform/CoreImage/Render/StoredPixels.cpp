#include "CoreImage/Render/StoredPixels.h"

#include <array>
#include <cstring>
#include <vector>

#include "CoreImage/Render/PixelConvert.h"

namespace qvpixel {
namespace {

// code[a][c]: the colour code that code c at alpha a comes back as; alpha[a] likewise. Each
// component is decoded, multiplied by its alpha, divided again and encoded on its own, so one
// component's trip depends only on its code and its alpha.
struct RoundTrip {
  std::vector<std::uint8_t> code = std::vector<std::uint8_t>(256 * 256);
  std::array<std::uint8_t, 256> alpha{};
  bool isTable = true;      // every trip depends only on the code and its alpha
  bool opaqueExact = true;  // every code comes back unchanged at alpha 255

  explicit RoundTrip(bool managed) {
    std::vector<std::uint8_t> in(256 * 4), out(256 * 4);
    std::vector<float> work(256 * 4);
    for (int a = 0; a < 256; ++a) {
      for (int c = 0; c < 256; ++c) {
        // The three colour components carry different codes, so that a mix-up between them
        // would show in the table's own check below.
        in[std::size_t(c) * 4 + 0] = std::uint8_t(c);
        in[std::size_t(c) * 4 + 1] = std::uint8_t(255 - c);
        in[std::size_t(c) * 4 + 2] = std::uint8_t(c);
        in[std::size_t(c) * 4 + 3] = std::uint8_t(a);
      }
      decodeStraightRGBA8(in.data(), work.data(), 256, managed);
      encodeStraightRGBA8(work.data(), out.data(), 256, managed);
      for (int c = 0; c < 256; ++c) code[std::size_t(a) * 256 + std::size_t(c)] = out[std::size_t(c) * 4];
      alpha[std::size_t(a)] = out[3];
      for (int c = 0; c < 256; ++c) {
        const std::uint8_t* o = &out[std::size_t(c) * 4];
        if (o[2] != o[0] || o[1] != code[std::size_t(a) * 256 + std::size_t(255 - c)] || o[3] != out[3])
          isTable = false;
        if (a == 255 && (o[0] != c || o[1] != 255 - c || o[3] != 255)) opaqueExact = false;
      }
    }
    opaqueExact = opaqueExact && isTable;
  }
};

const RoundTrip& roundTrip(bool managed) {
  static const RoundTrip managedTrip(true), rawTrip(false);
  return managed ? managedTrip : rawTrip;
}

}  // namespace

bool opaqueRoundTripIsExact(bool colorManaged) { return roundTrip(colorManaged).opaqueExact; }

void reencodeStraightRGBA8(const std::uint8_t* src, std::uint8_t* dst, std::size_t count, bool colorManaged,
                           bool opaque) {
  const RoundTrip& t = roundTrip(colorManaged);
  if (opaque && t.opaqueExact) {
    std::memcpy(dst, src, count * 4);
    return;
  }
  if (!t.isTable) {
    // Not a table (cannot happen with per-component conversions): convert for real.
    std::vector<float> work(count * 4);
    decodeStraightRGBA8(src, work.data(), count, colorManaged);
    encodeStraightRGBA8(work.data(), dst, count, colorManaged);
    return;
  }
  for (std::size_t i = 0; i < count; ++i, src += 4, dst += 4) {
    const std::uint8_t a = src[3];
    if (a == 255 && t.opaqueExact) {
      std::memcpy(dst, src, 4);
      continue;
    }
    const std::uint8_t* row = t.code.data() + std::size_t(a) * 256;
    dst[0] = row[src[0]];
    dst[1] = row[src[1]];
    dst[2] = row[src[2]];
    dst[3] = t.alpha[a];
  }
}

}  // namespace qvpixel

// Conversions between the working format (premultiplied RGBA float, linear light or encoded
// values when colour management is off) and the 8- and 16-bit forms of files, providers and
// render buffers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvpixel {

// Encoded 8-bit value -> working value (linear light when managed, v/255 otherwise).
const float* decodeTable8(bool colorManaged);

// Straight, encoded RGBA8 -> premultiplied working floats.
void decodeStraightRGBA8(const std::uint8_t* src, float* dst, std::size_t count, bool colorManaged);
// Straight, encoded RGBA16 (native-endian words) -> premultiplied working floats.
void decodeStraightRGBA16(const std::uint16_t* src, float* dst, std::size_t count, bool colorManaged);
// Premultiplied, encoded 8-bit ARGB (alpha first) or RGBA -> premultiplied working floats.
void decodePremultipliedARGB8(const std::uint8_t* src, float* dst, std::size_t count, bool colorManaged);
void decodePremultipliedRGBA8(const std::uint8_t* src, float* dst, std::size_t count, bool colorManaged);

// Premultiplied working floats -> straight, encoded, rounded RGBA8 / RGBA16.
void encodeStraightRGBA8(const float* src, std::uint8_t* dst, std::size_t count, bool colorManaged);
void encodeStraightRGBA16(const float* src, std::uint16_t* dst, std::size_t count, bool colorManaged);

// decodeStraightRGBA8 and encodeStraightRGBA8 one pixel at a time, without SIMD: the definition
// the vector forms equal bit for bit (and are tested and measured against), and what converts
// the pixels left after the last whole vector.
void decodeStraightRGBA8Scalar(const std::uint8_t* src, float* dst, std::size_t count, bool colorManaged);
void encodeStraightRGBA8Scalar(const float* src, std::uint8_t* dst, std::size_t count, bool colorManaged);

}  // namespace qvpixel

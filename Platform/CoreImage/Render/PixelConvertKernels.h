// The vector (Highway, run-time dispatch) forms of the 8-bit conversions of PixelConvert.h
// (the decode with colour management only with AVX-512). They work on whole vectors of pixels only and return how many
// pixels they converted; the caller converts the rest one pixel at a time with the scalar
// form, whose results they equal bit for bit.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvpixel::kernels {

// Straight RGBA8 -> premultiplied floats, each code read as code / 255.
std::size_t decodeStraightRGBA8Unmanaged(const std::uint8_t* src, float* dst, std::size_t count);

// Straight sRGB RGBA8 -> premultiplied linear floats: each colour code's value from `linear`
// (256 floats), alpha code / 255. Only where the processor can hold the table in registers
// (AVX-512); elsewhere it converts nothing and returns 0.
std::size_t decodeStraightRGBA8Managed(const std::uint8_t* src, float* dst, std::size_t count, const float* linear);

// Premultiplied floats -> straight RGBA8, each straight value times 255, rounded.
std::size_t encodeStraightRGBA8Unmanaged(const float* src, std::uint8_t* dst, std::size_t count);

// The nearest sRGB code of linear values in (0, 1), by the high 16 bits of the float: entry
// j covers the floats whose high bits are first + j (values below that have code 0). Its
// bits 24-31 hold the code at the start of the bucket, its low 17 bits the low 16 bits of the
// threshold inside the bucket where the code steps up by one (0x10000 when there is none).
// Positive floats order as their bits, so a value's code is the entry's code plus one when
// its low 16 bits reach the threshold's.
struct EncodeTable {
  const std::uint32_t* entries = nullptr;  // null: no exact table
  std::int32_t first = 0, count = 0;
};

// Premultiplied linear floats -> straight sRGB RGBA8 with colour management: the nearest code.
std::size_t encodeStraightRGBA8Managed(const float* src, std::uint8_t* dst, std::size_t count,
                                       const EncodeTable& table);

}  // namespace qvpixel::kernels

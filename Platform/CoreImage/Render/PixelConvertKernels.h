// The vector (Highway, run-time dispatch) forms of the 8-bit conversions of PixelConvert.h
// without colour management. They work on whole vectors of pixels only and return how many
// pixels they converted; the caller converts the rest one pixel at a time with the scalar
// form, whose results they equal bit for bit.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvpixel::kernels {

// Straight RGBA8 -> premultiplied floats, each code read as code / 255.
std::size_t decodeStraightRGBA8Unmanaged(const std::uint8_t* src, float* dst, std::size_t count);

// Premultiplied floats -> straight RGBA8, each straight value times 255, rounded.
std::size_t encodeStraightRGBA8Unmanaged(const float* src, std::uint8_t* dst, std::size_t count);

}  // namespace qvpixel::kernels

// The body shared by the decoder fuzzers: arbitrary bytes through one decoder of the image
// source. Header properties, a transformed thumbnail, a full decode and a streaming decode must
// never crash, leak or allocate beyond the pixel limit, and must agree with one another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ImageIO/ImageIO.h"

inline void limitDecodesForFuzzing() {
  // Keeps every decode small enough for the fuzzer's memory limit.
  CGImageSourceSetMaximumPixelCount(std::uint64_t{4} << 20);
}

inline int fuzzImageSourceOfType(const std::uint8_t* data, std::size_t size, const std::string& type) {
  CGImageSourceRef source = CGImageSourceCreateWithData(std::vector<std::uint8_t>(data, data + size));
  if (!source || CGImageSourceGetType(source) != type) return 0;
  Dictionary properties = CGImageSourceCopyPropertiesAtIndex(source, 0);
  if (properties.empty()) return 0;
  CGImageRef thumbnail = CGImageSourceCreateThumbnailAtIndex(
      source, 0,
      {{kCGImageSourceThumbnailMaxPixelSize, 64},
       {kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)},
       {kCGImageSourceCreateThumbnailFromImageIfAbsent, Value::boolean(true)}});
  if (thumbnail && (thumbnail->width > 64 || thumbnail->height > 64)) __builtin_trap();
  CGImageRef full = CGImageSourceCreateImageAtIndex(source, 0);
  if (full && full->pixels.size() != full->bytesPerRow * full->height) __builtin_trap();
  std::size_t rows = 0;
  CGImageSourceDecodeStripsAtIndex(source, 0, [&](const CGImageSourceStrip& strip) {
    rows += strip.rowCount;
    return true;
  });
  if (full && rows != full->height) __builtin_trap();
  return 0;
}

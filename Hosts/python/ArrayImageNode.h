// An image whose pixels are read, tile by tile, straight from a caller's array in memory: rows
// and columns at any byte strides, 3 (opaque) or 4 components of 8-bit, 16-bit or 32-bit float
// samples, straight alpha, encoded as files are (sRGB when colour-managed). Nothing is copied:
// the array must stay alive and unchanged while the image is rendered, which `owner` ensures
// for its life.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "CoreImage/ImageNode.h"

enum class ArraySampleType { UInt8, UInt16, Float32 };

struct ArrayLayout {
  const std::uint8_t* data = nullptr;
  std::size_t width = 0, height = 0, channels = 4;  // channels: 3 or 4
  std::ptrdiff_t rowStride = 0, columnStride = 0, channelStride = 0;  // in bytes; row 0 is the top row
  ArraySampleType type = ArraySampleType::UInt8;
};

class ArrayImageNode final : public ImageNode {
 public:
  ArrayImageNode(const ArrayLayout& layout, std::shared_ptr<const void> owner);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "array"; }

 private:
  ArrayLayout layout_;
  std::shared_ptr<const void> owner_;
};

// Straight, encoded float RGBA (0...1, as render(dtype="float32") hands them out) ->
// premultiplied working floats.
void decodeStraightRGBAf(const float* src, float* dst, std::size_t count, bool colorManaged);
// The reverse, in place: premultiplied working floats -> straight, encoded, clamped to 0...1.
void encodeStraightRGBAfInPlace(float* pixels, std::size_t count, bool colorManaged);

#include "ArrayImageNode.h"

#include <cstring>
#include <vector>

#include "CoreImage/ColorSpace.h"
#include "CoreImage/Render/PixelConvert.h"
#include "Recipe.h"

ArrayImageNode::ArrayImageNode(const ArrayLayout& layout, std::shared_ptr<const void> owner)
    : ImageNode(CGRectMake(0, 0, double(layout.width), double(layout.height))),
      layout_(layout),
      owner_(std::move(owner)) {}

namespace {

// One row's run of pixels gathered into packed RGBA of the array's sample type.
template <class T>
void gather(const ArrayLayout& l, std::size_t row, std::size_t x0, std::size_t count, T* dst, T opaque) {
  const std::uint8_t* p = l.data + std::ptrdiff_t(row) * l.rowStride + std::ptrdiff_t(x0) * l.columnStride;
  for (std::size_t i = 0; i < count; ++i, p += l.columnStride, dst += 4) {
    for (std::size_t c = 0; c < 3; ++c) std::memcpy(&dst[c], p + std::ptrdiff_t(c) * l.channelStride, sizeof(T));
    if (l.channels == 4) {
      std::memcpy(&dst[3], p + 3 * l.channelStride, sizeof(T));
    } else {
      dst[3] = opaque;
    }
  }
}

template <class T>
bool packed(const ArrayLayout& l) {
  return l.channels == 4 && l.channelStride == std::ptrdiff_t(sizeof(T)) &&
         l.columnStride == std::ptrdiff_t(4 * sizeof(T));
}

}  // namespace

void decodeStraightRGBAf(const float* src, float* dst, std::size_t count, bool colorManaged) {
  for (std::size_t i = 0; i < count; ++i, src += 4, dst += 4) {
    const float a = src[3];
    for (int c = 0; c < 3; ++c) dst[c] = (colorManaged ? srgbToLinear(src[c]) : src[c]) * a;
    dst[3] = a;
  }
}

void encodeStraightRGBAfInPlace(float* pixels, std::size_t count, bool colorManaged) {
  for (std::size_t i = 0; i < count; ++i, pixels += 4) {
    const auto stored = qv::storedPixelFromWorking({pixels[0], pixels[1], pixels[2], pixels[3]}, colorManaged);
    std::memcpy(pixels, stored.data(), sizeof stored);
  }
}

void ArrayImageNode::render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const {
  const PixelRect mine{0, 0, std::int64_t(layout_.width), std::int64_t(layout_.height)};
  const PixelRect r = mine.intersection(out.rect);
  if (r.empty()) return;
  const std::size_t count = std::size_t(r.width), x0 = std::size_t(r.x);
  const bool managed = info.colorManaged;
  std::vector<std::uint8_t> scratch;
  for (std::int64_t y = r.y; y < r.maxY(); ++y) {
    const std::size_t row = layout_.height - 1 - std::size_t(y);
    float* dst = out.at(r.x, y);
    const std::uint8_t* start = layout_.data + std::ptrdiff_t(row) * layout_.rowStride +
                                std::ptrdiff_t(x0) * layout_.columnStride;
    switch (layout_.type) {
      case ArraySampleType::UInt8:
        if (packed<std::uint8_t>(layout_)) {
          qvpixel::decodeStraightRGBA8(start, dst, count, managed);
        } else {
          scratch.resize(count * 4);
          gather<std::uint8_t>(layout_, row, x0, count, scratch.data(), 255);
          qvpixel::decodeStraightRGBA8(scratch.data(), dst, count, managed);
        }
        break;
      case ArraySampleType::UInt16: {
        scratch.resize(count * 4 * sizeof(std::uint16_t));
        auto* words = reinterpret_cast<std::uint16_t*>(scratch.data());
        if (packed<std::uint16_t>(layout_)) {
          std::memcpy(words, start, count * 4 * sizeof(std::uint16_t));
        } else {
          gather<std::uint16_t>(layout_, row, x0, count, words, 65535);
        }
        qvpixel::decodeStraightRGBA16(words, dst, count, managed);
        break;
      }
      case ArraySampleType::Float32: {
        scratch.resize(count * 4 * sizeof(float));
        auto* floats = reinterpret_cast<float*>(scratch.data());
        if (packed<float>(layout_)) {
          std::memcpy(floats, start, count * 4 * sizeof(float));
        } else {
          gather<float>(layout_, row, x0, count, floats, 1.0f);
        }
        decodeStraightRGBAf(floats, dst, count, managed);
        break;
      }
    }
  }
}

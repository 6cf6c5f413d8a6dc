#include "CoreImage/Nodes/RowProviderNode.h"

#include <cstring>

#include "CoreImage/Render/PixelConvert.h"
#include "CoreImage/Render/RenderCache.h"
#include "CoreImage/Render/RowBands.h"
#include "CoreImage/Render/StoredPixels.h"

RowProviderNode::RowProviderNode(std::shared_ptr<CIImageRowProvider> provider, std::size_t width, std::size_t height,
                                 const CIRowProviderOptions& options)
    : ImageNode(CGRectMake(0, 0, double(width), double(height))),
      provider_(std::move(provider)),
      width_(width),
      height_(height),
      options_(options) {}

std::size_t RowProviderNode::bytesPerPixel() const {
  switch (options_.format) {
    case CIRowFormat::RGBA8: return 4;
    case CIRowFormat::RGBA16: return 8;
    case CIRowFormat::RGBAf: return 16;
  }
  return 4;
}

std::shared_ptr<const RowBands> RowProviderNode::bands(const RenderInfo& info) const {
  auto make = [&](bool readAhead) {
    return std::make_shared<const RowBands>(provider_, height_, width_ * bytesPerPixel(), options_.bandRows,
                                            options_.budgetBytes, readAhead && options_.readAhead);
  };
  if (!info.cache) return make(false);
  return info.cache->getOrCreate<RowBands>(this, 0, [&] { return make(true); });
}

void RowProviderNode::render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo& info) const {
  const std::int64_t H = std::int64_t(height_);
  const PixelRect r = out.rect.intersection({0, 0, std::int64_t(width_), H});
  if (r.empty()) return;
  const std::size_t n = std::size_t(r.width), offset = std::size_t(r.x) * bytesPerPixel();
  const CIRowFormat format = options_.format;
  // Provider rows count from the top; plane row y is provider row H - 1 - y.
  bands(info)->forEachRow(std::size_t(H - r.maxY()), std::size_t(r.height), [&](std::size_t row, const std::uint8_t* p) {
    float* dst = out.at(r.x, H - 1 - std::int64_t(row));
    switch (format) {
      case CIRowFormat::RGBA8: qvpixel::decodeStraightRGBA8(p + offset, dst, n, info.colorManaged); break;
      case CIRowFormat::RGBA16:
        qvpixel::decodeStraightRGBA16(reinterpret_cast<const std::uint16_t*>(p + offset), dst, n, info.colorManaged);
        break;
      case CIRowFormat::RGBAf: std::memcpy(dst, p + offset, n * 16); break;
    }
  });
}

RegionAnswer RowProviderNode::describeRegion(const PixelRect& rect, bool colorManaged) const {
  if (options_.format != CIRowFormat::RGBA8) return ImageNode::describeRegion(rect, colorManaged);
  RegionAnswer stored;
  stored.kind = RegionAnswer::Kind::stored;
  stored.opaque = options_.opaque;
  return RegionAnswer::within(rect, PixelRect{0, 0, std::int64_t(width_), std::int64_t(height_)}, stored);
}

bool RowProviderNode::writeStored8(const PixelRect& rect, std::uint8_t* topRow, std::ptrdiff_t rowBytes,
                                   const RenderInfo& info) const {
  if (options_.format != CIRowFormat::RGBA8 || rect.empty() ||
      !PixelRect{0, 0, std::int64_t(width_), std::int64_t(height_)}.contains(rect))
    return false;
  const std::size_t first = height_ - std::size_t(rect.maxY()), offset = std::size_t(rect.x) * 4;
  bands(info)->forEachRow(first, std::size_t(rect.height), [&](std::size_t row, const std::uint8_t* p) {
    qvpixel::reencodeStraightRGBA8(p + offset, topRow + std::ptrdiff_t(row - first) * rowBytes, std::size_t(rect.width),
                                   info.colorManaged, options_.opaque);
  });
  return true;
}

// A source whose rows a CIImageRowProvider hands out on demand, fetched in bands that the tiles
// and threads of one render share (see Render/RowBands.h).
#pragma once

#include <memory>
#include <string>

#include "CoreImage/CIImage.h"
#include "CoreImage/ImageNode.h"

class RowBands;

class RowProviderNode final : public ImageNode {
 public:
  RowProviderNode(std::shared_ptr<CIImageRowProvider> provider, std::size_t width, std::size_t height,
                  const CIRowProviderOptions& options);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  // What is costly (the fetch) is shared by the whole render through its bands.
  bool rendersAgainCheaply() const override { return true; }
  // 8-bit rows are stored pixels inside the extent, transparent outside.
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  bool writeStored8(const PixelRect& rect, std::uint8_t* topRow, std::ptrdiff_t rowBytes,
                    const RenderInfo& info) const override;
  std::string name() const override { return "rowProvider"; }
  bool writesEveryPixel() const override { return true; }

 private:
  std::size_t bytesPerPixel() const;
  // One set of bands per render, shared by its tiles and threads; outside a render, one per call
  // (without a reader thread).
  std::shared_ptr<const RowBands> bands(const RenderInfo& info) const;

  std::shared_ptr<CIImageRowProvider> provider_;
  std::size_t width_, height_;
  CIRowProviderOptions options_;
};

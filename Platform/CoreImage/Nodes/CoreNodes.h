// The engine's own graph nodes: sources (constant colour, empty, bitmaps, providers, files) and
// the geometric operations (integer offset, affine transform, crop, clamp to extent). They are
// public so that graph builders can recognise them (for folding) and so that tests can reach
// them; filters build them through CIImage's operations, never directly.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/ImageNode.h"
#include "CoreImage/Render/StripCache.h"

// Nothing anywhere: extent CGRectZero.
class EmptyNode final : public ImageNode {
 public:
  EmptyNode() : ImageNode(CGRectZero) {}
  void render(const PixelTile&, std::span<const ConstPixelTile>, const RenderInfo&) const override {}
  RegionAnswer describeRegion(const PixelRect&, bool) const override { return RegionAnswer::transparent(); }
  std::string name() const override { return "empty"; }
};

// One colour over the extent (infinite, or finite after a crop: then the pixels whose centres
// lie inside the extent carry the colour, exactly as a crop of the infinite colour would).
class ConstantColorNode final : public ImageNode {
 public:
  ConstantColorNode(CIColorRef color, const CGRect& extent) : ImageNode(extent), color_(std::move(color)) {}
  const CIColorRef& color() const { return color_; }
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  std::string name() const override { return "constantColor"; }
  bool writesEveryPixel() const override { return color_ && centresCoverExtent(extent()); }

 private:
  CIColorRef color_;
};

// Premultiplied working-space floats in memory; row 0 of `pixels` is the top row.
class BitmapNode final : public ImageNode {
 public:
  BitmapNode(std::vector<float> pixels, std::size_t width, std::size_t height, std::int64_t x, std::int64_t y);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "bitmap"; }
  bool writesEveryPixel() const override { return true; }

 private:
  std::vector<float> pixels_;
  std::size_t width_, height_;
  std::int64_t x_, y_;
};

// Straight, encoded 8-bit RGBA in memory (as files hold them); converted per tile.
class Bitmap8Node final : public ImageNode {
 public:
  Bitmap8Node(std::vector<std::uint8_t> pixels, std::size_t width, std::size_t height, std::int64_t x, std::int64_t y);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  bool writeStored8(const PixelRect& rect, std::uint8_t* topRow, std::ptrdiff_t rowBytes,
                    const RenderInfo& info) const override;
  std::string name() const override { return "bitmap8"; }
  bool writesEveryPixel() const override { return true; }

 private:
  std::vector<std::uint8_t> pixels_;  // tightly packed, width * 4 bytes per row
  std::size_t width_, height_;
  std::int64_t x_, y_;
};

// The input moved by whole pixels: a copy, no resampling.
class OffsetNode final : public ImageNode {
 public:
  OffsetNode(CIImage input, std::int64_t dx, std::int64_t dy);
  std::int64_t dx() const { return dx_; }
  std::int64_t dy() const { return dy_; }
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  std::string name() const override { return "offset"; }
  bool writesEveryPixel() const override { return true; }

 private:
  std::int64_t dx_, dy_;
};

// The input mapped through an affine transform. Each output pixel centre is mapped back into
// the input and sampled there with a tent filter whose radius is one input pixel (bilinear) or,
// when the transform shrinks, the size of the output pixel's footprint in the input, so that
// downscales average every input pixel instead of skipping some.
class TransformNode final : public ImageNode {
 public:
  TransformNode(CIImage input, const CGAffineTransform& t);
  const CGAffineTransform& transform() const { return t_; }
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  // A whole-pixel translation only (every other transform resamples or reorders).
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  std::string name() const override { return "transform"; }
  // Every pixel of a tile is sampled, or written transparent where no input pixel reaches it.
  bool writesEveryPixel() const override { return true; }

 private:
  void renderSeparable(const PixelTile& out, const ConstPixelTile& src) const;
  void renderBilinear(const PixelTile& out, const ConstPixelTile& src) const;
  CGAffineTransform t_, inv_;
  double rx_ = 1, ry_ = 1;  // filter radii in input pixels
  // The transform maps pixel centres onto pixel centres at unit scale (a flip, possibly with a
  // half-pixel-free translation): every output pixel is one input pixel, copied.
  bool onGrid_ = false;
};

// The input restricted to a rectangle. The extent is the exact intersection; a pixel is kept
// when its centre lies inside the rectangle and is transparent otherwise (so a crop of a crop
// is exactly one crop of the intersection).
class CropNode final : public ImageNode {
 public:
  CropNode(CIImage input, const CGRect& rect);
  const CGRect& rect() const { return rect_; }
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  std::string name() const override { return "crop"; }
  // Its input's tile covers the kept pixels of any tile (transparent where the input has none)
  // and every one of them is copied: every pixel is written when the kept pixels include all
  // that the extent touches (a crop on whole pixels; not one whose edge cuts a pixel).
  bool writesEveryPixel() const override { return kept_.contains(PixelRect::covering(extent())); }

 private:
  CGRect rect_;
  PixelRect kept_;
};

// The input's edge pixels repeated without limit (infinite extent). The edge is the outermost
// row or column of pixels whose centres lie inside the input's extent.
class ClampNode final : public ImageNode {
 public:
  explicit ClampNode(CIImage input);
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  std::string name() const override { return "clamp"; }

 private:
  PixelRect edge_;
};

// Pixels asked from a CIImageProvider. A provider that hands out a shared bitmap of the image's
// size is asked for it once per render, and tiles convert their rows straight from it (no copy).
// Otherwise, without a "CIImageProviderTileSize" option the provider is asked for the whole
// image once per render; with one, for grid tiles of that size, each at most once per render.
// What it gives is kept in the render's cache as it gave it (8-bit) and converted to working
// floats where tiles read it.
class ProviderNode final : public ImageNode {
 public:
  ProviderNode(std::shared_ptr<CIImageProvider> provider, std::size_t width, std::size_t height, CIFormat format,
               std::string colorSpace, Dictionary options);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "provider"; }

 private:
  struct Block;
  struct Shared;
  std::shared_ptr<const Block> fetch(std::int64_t col, std::int64_t row, const RenderInfo& info) const;
  // The provider's shared bitmap for this render, when it has one of the image's size.
  std::shared_ptr<const Shared> shared(const RenderInfo& info) const;

  std::shared_ptr<CIImageProvider> provider_;
  std::size_t width_, height_;
  CIFormat format_;
  bool linearData_ = false;  // the provider's colour space is already linear light
  Dictionary options_;
  Value userInfo_;
  std::size_t tileSize_ = 0;  // 0: whole image
};

// An image file, decoded on demand: the rows a tile reads are decoded into a strip cache that
// all tiles and threads of one render share (see Render/StripCache.h), and only the pixels a
// tile reads are converted to working floats. Shown in its EXIF orientation when asked for.
class FileNode final : public ImageNode {
 public:
  // What the file holds beside its size.
  struct Stored {
    int bitsPerComponent = 8;  // of the decoded rows: 16 for 16-bit PNGs, else 8
    bool opaque = false;       // no alpha: every decoded alpha is 255
    bool jpeg = false;         // can be decoded at a reduced DCT scale (see reducedBy)
    int orientation = 1;       // the EXIF orientation (1 to 8) the image shows the stored pixels in
  };
  // width, height: of the file's stored pixels (orientations 5 to 8 swap them in the extent).
  FileNode(std::string path, std::size_t width, std::size_t height, Stored stored);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  // Its strips are decoded once per render for every reader (the strip cache is the node's).
  bool rendersAgainCheaply() const override { return true; }
  // Its stored pixels inside its extent (8-bit files in their stored orientation), transparent
  // outside.
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  bool writeStored8(const PixelRect& rect, std::uint8_t* topRow, std::ptrdiff_t rowBytes,
                    const RenderInfo& info) const override;
  std::string name() const override { return "file"; }
  bool writesEveryPixel() const override { return true; }
  const std::string& path() const { return path_; }
  int orientation() const { return stored_.orientation; }
  // Whether reducedBy may be asked for: a JPEG file decoded at full size.
  bool reducible() const { return stored_.jpeg && scaleDenominator_ == 1 && stored_.bitsPerComponent == 8; }
  // The same file decoded at a DCT scale of 1/denominator (2, 4 or 8): ceil(width / denominator)
  // × ceil(height / denominator) stored pixels, each the average of its block of the full
  // picture, in the same orientation.
  std::shared_ptr<const FileNode> reducedBy(int denominator) const;

 private:
  StripCache::Opener opener() const;
  std::shared_ptr<const StripCache> stripCache(const RenderInfo& info) const;
  std::string path_;
  std::size_t width_, height_;
  Stored stored_;
  int scaleDenominator_ = 1;
};

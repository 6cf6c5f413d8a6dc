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

// Nothing anywhere: extent CGRectZero.
class EmptyNode final : public ImageNode {
 public:
  EmptyNode() : ImageNode(CGRectZero) {}
  void render(const PixelTile&, std::span<const ConstPixelTile>, const RenderInfo&) const override {}
  std::string name() const override { return "empty"; }
};

// One colour over the extent (infinite, or finite after a crop: then the pixels whose centres
// lie inside the extent carry the colour, exactly as a crop of the infinite colour would).
class ConstantColorNode final : public ImageNode {
 public:
  ConstantColorNode(CIColorRef color, const CGRect& extent) : ImageNode(extent), color_(std::move(color)) {}
  const CIColorRef& color() const { return color_; }
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "constantColor"; }

 private:
  CIColorRef color_;
};

// Premultiplied working-space floats in memory; row 0 of `pixels` is the top row.
class BitmapNode final : public ImageNode {
 public:
  BitmapNode(std::vector<float> pixels, std::size_t width, std::size_t height, std::int64_t x, std::int64_t y);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "bitmap"; }

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
  std::string name() const override { return "bitmap8"; }

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
  std::string name() const override { return "offset"; }

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
  std::string name() const override { return "transform"; }

 private:
  void renderSeparable(const PixelTile& out, const ConstPixelTile& src) const;
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
  std::string name() const override { return "crop"; }

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
  std::string name() const override { return "clamp"; }

 private:
  PixelRect edge_;
};

// Pixels asked from a CIImageProvider. Without a "CIImageProviderTileSize" option the provider
// is asked for the whole image once per render; with one, for grid tiles of that size, each at
// most once per render. What it gives is kept in the render's cache as it gave it (8-bit) and
// converted to working floats where tiles read it.
class ProviderNode final : public ImageNode {
 public:
  ProviderNode(std::shared_ptr<CIImageProvider> provider, std::size_t width, std::size_t height, CIFormat format,
               std::string colorSpace, Dictionary options);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "provider"; }

 private:
  struct Block;
  std::shared_ptr<const Block> fetch(std::int64_t col, std::int64_t row, const RenderInfo& info) const;

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
// tile reads are converted to working floats. The stored pixels, not oriented.
class FileNode final : public ImageNode {
 public:
  // width, height: of the file's stored pixels; bitsPerComponent: of the decoded rows (16 for
  // 16-bit PNGs, else 8); orientation: the EXIF orientation (1 to 8) the image shows the
  // stored pixels in (1: as stored; 5 to 8 swap width and height).
  FileNode(std::string path, std::size_t width, std::size_t height, int bitsPerComponent, int orientation = 1);
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "file"; }
  const std::string& path() const { return path_; }
  int orientation() const { return orientation_; }

 private:
  std::string path_;
  std::size_t width_, height_;
  int bits_, orientation_;
};

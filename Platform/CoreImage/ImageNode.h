// The node contract of the image graph. A CIImage is a handle to an immutable ImageNode; a node
// knows its extent, its inputs, which region of each input it needs for a given output region,
// and how to produce an output region from those input regions; and, for an 8-bit render, what a
// region is when it is simpler than a render (a colour, or another node's pixels unchanged: see
// RegionAnswer). The renderer (CIContext) asks nothing else.
//
// Pixel space: pixel (x, y) covers [x, x+1) × [y, y+1) of the image plane, y grows upwards.
// Tiles hold premultiplied RGBA float in the working space (linear light, sRGB primaries, or
// the encoded values when colour management is off); row 0 of a tile is its bottom row.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIImage.h"
#include "Foundation/Object.h"

// An integral, half-open pixel rectangle. Infinite extents are clamped to ±kPixelLimit.
struct PixelRect {
  static constexpr std::int64_t kPixelLimit = std::int64_t{1} << 40;
  std::int64_t x = 0, y = 0, width = 0, height = 0;

  bool empty() const { return width <= 0 || height <= 0; }
  std::int64_t maxX() const { return x + width; }
  std::int64_t maxY() const { return y + height; }
  PixelRect intersection(const PixelRect& o) const;
  PixelRect unionWith(const PixelRect& o) const;
  PixelRect outset(std::int64_t dx, std::int64_t dy) const { return {x - dx, y - dy, width + 2 * dx, height + 2 * dy}; }
  PixelRect offset(std::int64_t dx, std::int64_t dy) const { return {x + dx, y + dy, width, height}; }
  CGRect cgRect() const { return CGRectMake(double(x), double(y), double(width), double(height)); }
  // The smallest pixel rectangle that covers r (CGRectIntegral, clamped); empty for null.
  static PixelRect covering(const CGRect& r);
  // The pixels whose centres lie inside r (minX <= x + 0.5 < maxX, likewise for y), clamped;
  // empty for null. This is how crops decide which pixels they keep.
  static PixelRect centresInside(const CGRect& r);
  bool contains(const PixelRect& o) const {
    return o.empty() || (!empty() && o.x >= x && o.y >= y && o.maxX() <= maxX() && o.maxY() <= maxY());
  }
  std::int64_t area() const { return empty() ? 0 : width * height; }
  bool operator==(const PixelRect&) const = default;
};

struct PixelTile {
  float* pixels = nullptr;    // 4 floats per pixel
  PixelRect rect;
  std::ptrdiff_t stride = 0;  // floats per row
  float* row(std::int64_t y) const { return pixels + (y - rect.y) * stride; }
  float* at(std::int64_t x, std::int64_t y) const { return row(y) + (x - rect.x) * 4; }
};

struct ConstPixelTile {
  const float* pixels = nullptr;
  PixelRect rect;
  std::ptrdiff_t stride = 0;
  const float* row(std::int64_t y) const { return pixels + (y - rect.y) * stride; }
  const float* at(std::int64_t x, std::int64_t y) const { return row(y) + (x - rect.x) * 4; }
};

// Whether the pixels whose centres lie inside `extent` are all the pixels it touches (true for
// integral and infinite extents): then a node that writes every pixel inside its extent writes
// every pixel of any tile the renderer hands it (see ImageNode::writesEveryPixel).
inline bool centresCoverExtent(const CGRect& extent) {
  return PixelRect::centresInside(extent) == PixelRect::covering(extent);
}

class RenderCache;

// What a node may need to know about the render it takes part in.
struct RenderInfo {
  bool colorManaged = true;  // false: all arithmetic runs on the encoded values
  // Per-render store shared by all tiles and threads of one render (e.g. a provider's whole
  // image, converted once); null outside a render. See CoreImage/Render/RenderCache.h.
  RenderCache* cache = nullptr;
  // The node's own slot for state kept between the tiles one worker renders: a worker renders
  // a column of tiles from the top down (see ImageNode::continuesDown); null outside a render.
  std::shared_ptr<void>* state = nullptr;
};

class ImageNode;

// What a rectangle of a node's output is when it is something simpler than a render: one
// colour, or the pixels of another node moved by whole pixels, or the node's own stored 8-bit
// pixels. The renderer writes such rectangles of an 8-bit output without rendering them (no
// working floats, no node in between), and only where that gives the very bytes a render would
// (see CIContext.cpp); a node answers only what holds bit for bit in the working format.
struct RegionAnswer {
  enum class Kind {
    render,    // nothing simpler: render it
    constant,  // every pixel is `color`
    input,     // the pixels of `node` at (x - dx, y - dy)
    stored,    // `node`'s own stored 8-bit pixels (ImageNode::writeStored8 writes them)
  };
  enum class Cut { none, x, y };

  Kind kind = Kind::render;
  std::array<float, 4> color{};  // constant: the premultiplied working colour
  const ImageNode* node = nullptr;
  std::int64_t dx = 0, dy = 0;
  bool opaque = false;  // stored: every pixel has alpha 1
  // render: a column (x) or row (y) strictly inside the rectangle where the answer changes, so
  // that each side may have a simpler one (the edge of a crop, of a mask's constant part...).
  Cut cut = Cut::none;
  std::int64_t at = 0;

  static RegionAnswer renderIt() { return {}; }
  static RegionAnswer constantColor(const std::array<float, 4>& c) {
    RegionAnswer a;
    a.kind = Kind::constant;
    a.color = c;
    return a;
  }
  static RegionAnswer transparent() { return constantColor({0, 0, 0, 0}); }
  static RegionAnswer pixelsOf(const ImageNode* n, std::int64_t dx, std::int64_t dy) {
    RegionAnswer a;
    a.kind = Kind::input;
    a.node = n;
    a.dx = dx;
    a.dy = dy;
    return a;
  }
  // `inside` where `rect` lies within `area`, transparent where it misses it, and otherwise a
  // cut along an edge of `area` (rows first: wide strips).
  static RegionAnswer within(const PixelRect& rect, const PixelRect& area, const RegionAnswer& inside);
  // A render, cut at column or row `at` when that lies strictly inside `rect`.
  static RegionAnswer cutAt(const PixelRect& rect, Cut cut, std::int64_t at);

  bool isConstant() const { return kind == Kind::constant; }
  bool isTransparent() const {
    return kind == Kind::constant && color[0] == 0 && color[1] == 0 && color[2] == 0 && color[3] == 0;
  }
  // Every pixel has alpha exactly 1.
  bool isOpaque() const { return (kind == Kind::constant && color[3] == 1.0f) || (kind == Kind::stored && opaque); }
  // The same answer seen from a node that reads this one's pixels moved by (dx, dy).
  RegionAnswer movedBy(std::int64_t dx, std::int64_t dy) const;
};

// Follows `node`'s answer for `rect` through the nodes whose pixels it names, down to a colour,
// stored pixels or a render (whose cut is then in `rect`'s coordinates).
RegionAnswer resolveRegion(const ImageNode& node, const PixelRect& rect, bool colorManaged);

class ImageNode : public Object {
 public:
  explicit ImageNode(CGRect extent, std::vector<CIImage> inputs = {})
      : extent_(extent), inputs_(std::move(inputs)) {}

  const CGRect& extent() const { return extent_; }
  const std::vector<CIImage>& inputs() const { return inputs_; }

  // The region of input `index` needed to produce `rect` of this node. One-to-one by default.
  virtual PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const;
  // Produce out.rect. `out` arrives cleared to transparent, unless the node answers
  // writesEveryPixel(). in[i] covers exactly regionOfInterest(i, out.rect), transparent
  // wherever input i has no pixels.
  virtual void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const = 0;
  // Whether render() writes every pixel of out.rect (out.rect never reaches past
  // PixelRect::covering(extent())), transparent ones included, and reads none of `out` before
  // writing it. The renderer then hands the node its buffer as it is, with whatever an earlier
  // tile left there, instead of clearing it first. False by default.
  virtual bool writesEveryPixel() const { return false; }
  // Nodes that keep what they read from one tile to the next, in RenderInfo::state, answer
  // true. The renderer then asks regionOfInterestBelow for a tile directly below the one the
  // node rendered last in the same worker (the same columns, its top row adjoining that tile's
  // bottom row), and the node must recognise the same continuation from its state; for any
  // other tile it asks regionOfInterest, and the node must start afresh.
  virtual bool continuesDown() const { return false; }
  virtual PixelRect regionOfInterestBelow(std::size_t index, const PixelRect& rect) const {
    return regionOfInterest(index, rect);
  }
  // A node of one input that keeps what it needs of the input's rows as it reads them, at most
  // the rows of its regionOfInterest at its own width (a downscale keeps them filtered to its
  // output columns), answers true: it may then be handed its
  // region of the input in bands of rows, top down, instead of all at once, so that the input
  // never holds more than a band across the region's width. Where the renderer does so (only
  // where nothing else reads the input's subgraph), it calls readInputBand for every band but
  // the lowest, and then render() with the lowest band as in[0] (in[0].rect is that band, not
  // the whole region). False by default.
  virtual bool readsInputInBands() const { return false; }
  // One band of the input region of output rectangle `rect`, handed before render() of `rect`,
  // top band first (see readsInputInBands).
  virtual void readInputBand(const PixelRect& rect, const ConstPixelTile& band, const RenderInfo& info) const;
  // A node that can draw itself under an affine transform (a generator whose formula takes the
  // transform in) returns a node that draws it so, at the transformed image's own pixels; null
  // (the default) when the transform must resample it.
  virtual std::shared_ptr<const ImageNode> transformedBy(const CGAffineTransform&) const { return nullptr; }
  // A source (no inputs) whose pixels cost little to produce again, because what is costly is
  // shared by the whole render (a file's decoded strips): with several consumers it is rendered
  // into a buffer of its own for each, rather than into one buffer spanning all their regions,
  // which is large when they read it at rows far apart (a scaled copy over the picture).
  virtual bool rendersAgainCheaply() const { return false; }
  // What `rect` of this node is, when something simpler than a render (see RegionAnswer):
  // nodes answer only what holds bit for bit; by default, nothing simpler.
  virtual RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const;
  // For a node that answers RegionAnswer::Kind::stored: writes `rect` (inside its extent) as
  // straight, encoded RGBA8, exactly what decoding it to working floats and encoding those
  // again gives; `topRow` receives the rect's top row, the rows below follow `rowBytes` apart.
  // False when it cannot (the caller then renders).
  virtual bool writeStored8(const PixelRect& rect, std::uint8_t* topRow, std::ptrdiff_t rowBytes,
                            const RenderInfo& info) const;
  // A short name for graph dumps ("crop", "transform", "CIGaussianBlur"...).
  virtual std::string name() const = 0;

  std::string className() const override { return "CIImage"; }
  std::string description() const override;

 private:
  CGRect extent_;
  std::vector<CIImage> inputs_;
};

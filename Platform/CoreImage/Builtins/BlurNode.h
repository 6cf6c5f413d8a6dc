// The graph node behind the blur, morphology and distortion built-ins: an extent, inputs, a
// region-of-interest rule and a render function. The node computes only the part of a tile
// inside its extent (the rest stays transparent) and hands the render function input tiles
// that cover exactly the region of interest of that part.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "CoreImage/Builtins/BlurKernels.h"
#include "CoreImage/ImageNode.h"

namespace qv::blur {

// A grown extent: infinite, null and empty extents stay as they are.
CGRect growExtent(const CGRect& extent, double dx, double dy);

class BlurNode final : public ImageNode {
 public:
  using RoiFn = std::function<PixelRect(std::size_t index, const PixelRect& rect)>;
  using RenderFn = std::function<void(const PixelTile& out, std::span<const ConstPixelTile> in)>;

  BlurNode(std::string name, CGRect extent, std::vector<CIImage> inputs, RoiFn roi, RenderFn render)
      : ImageNode(extent, std::move(inputs)), name_(std::move(name)), roi_(std::move(roi)), render_(std::move(render)) {}

  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return name_; }

  // A node whose every input is read over the output rectangle grown by (sx, sy).
  static CIImage make(std::string name, CGRect extent, std::vector<CIImage> inputs, int sx, int sy, RenderFn render);

 private:
  PixelRect active(const PixelRect& rect) const;
  std::string name_;
  RoiFn roi_;
  RenderFn render_;
};

// A separable filter as two nodes, the passes along x and then those along y. Apart, the rows
// that vertically adjacent tiles share are filtered along x once: the passes along y stream
// down each column of tiles (boxColumnsImage, firColumnsImage below), so that a tile filters
// only its own rows; the node of the vertical box passes costs the same per tile whatever the
// support.
CIImage separableImage(const std::string& name, const CIImage& image, const SeparablePlan& plan);

// The vertical passes of a separable plan whose passes are all boxes, as a node that streams
// down a column of tiles: for a tile directly below the one it rendered last, it reads only the
// input rows it has not seen, keeping per pass a ring of the rows its window still needs and the
// window's running sum (exact, see BlurKernels.h), so that its cost per tile does not depend on
// the support. `input` must be on the summation grid (as applyHorizontal leaves it). The
// extent is the input's grown by the passes' support along y.
CIImage boxColumnsImage(std::string name, const CIImage& input, std::vector<Pass1D> passes);

// A direct (FIR) vertical pass as a node that streams down a column of tiles the same way: it
// keeps the last 2·support input rows it read, so a tile directly below the one it rendered last
// reads only its own new rows. The extent is the input's grown by the support along y.
CIImage firColumnsImage(std::string name, const CIImage& input, Pass1D pass);

}  // namespace qv::blur

// CIBumpDistortion and CIPixellate.
//
//   CIBumpDistortion  inverse mapping: an output point p at distance d = |p − c| < r from the
//                     centre shows the input at q = c + (p − c)·k², k = 1 − ((r − d)/r)·scale,
//                     sampled bilinearly; points at d >= r are unchanged. scale > 0 magnifies
//                     (bulges out), scale < 0 pinches in. The extent is the input's. The scale
//                     is clamped to ±3, so that a tile never reads a region more than 16 times its width and height.
//   CIPixellate       squares of side inputScale (at least 1) whose corners lie on the grid
//                     through inputCenter; each square shows the bilinear sample of the input at
//                     the square's centre. The extent is the input's: squares straddling its
//                     border are cut there (callers that want no transparency at the border
//                     clamp the input first, as the plug-in does).

#include <algorithm>
#include <cmath>
#include <cstring>

#include "CoreImage/Builtins/BlurKernels.h"
#include "CoreImage/Builtins/BlurNode.h"
#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/Builtins/InputTables.h"

namespace {

using qv::blur::BlurNode;

using qv::builtins::numberInput;
using qv::builtins::positionInput;
using qv::builtins::kAbsent;

// The pixels a bilinear sample anywhere in [x0, x1] × [y0, y1] may read.
PixelRect bilinearFootprint(double x0, double y0, double x1, double y1) {
  const double limit = double(PixelRect::kPixelLimit);
  x0 = std::clamp(std::floor(x0 - 0.5), -limit, limit);
  y0 = std::clamp(std::floor(y0 - 0.5), -limit, limit);
  x1 = std::clamp(std::floor(x1 - 0.5) + 2, -limit, limit);
  y1 = std::clamp(std::floor(y1 - 0.5) + 2, -limit, limit);
  return PixelRect{std::int64_t(x0), std::int64_t(y0), std::int64_t(x1 - x0), std::int64_t(y1 - y0)};
}

// Limits a region of interest to the input's pixels (plus the ring a bilinear sample reads),
// when the input is finite: everything beyond is transparent anyway.
PixelRect withinInput(const PixelRect& roi, const CGRect& inputExtent) {
  if (CGRectIsInfinite(inputExtent)) return roi;
  const PixelRect r = roi.intersection(PixelRect::covering(inputExtent).outset(1, 1));
  return r.empty() ? PixelRect{roi.x, roi.y, 0, 0} : r;
}

struct Bump {
  double cx, cy, r, scale;

  double k(double d) const { return 1.0 - ((r - d) / r) * scale; }

  void map(double px, double py, double& qx, double& qy) const {
    const double dx = px - cx, dy = py - cy, d = std::hypot(dx, dy);
    if (d < r) {
      const double kk = k(d);
      qx = cx + dx * kk * kk;
      qy = cy + dy * kk * kk;
    } else {
      qx = px;
      qy = py;
    }
  }

  // Every sample point of the pixel centres of `rect`: the unmoved points, plus c + g·(p − c)
  // for g in the range k² takes over the distances of the rectangle's points inside the radius,
  // which lies in the convex hull of the rectangle's corners scaled about c by the extreme g.
  PixelRect roi(const PixelRect& rect) const {
    const double x0 = double(rect.x) + 0.5, x1 = double(rect.maxX()) - 0.5;
    const double y0 = double(rect.y) + 0.5, y1 = double(rect.maxY()) - 0.5;
    double bx0 = x0, by0 = y0, bx1 = x1, by1 = y1;
    const double nx = std::clamp(cx, x0, x1), ny = std::clamp(cy, y0, y1);
    const double dmin = std::hypot(nx - cx, ny - cy);
    const double dmax = std::hypot(std::max(std::fabs(x0 - cx), std::fabs(x1 - cx)),
                                   std::max(std::fabs(y0 - cy), std::fabs(y1 - cy)));
    if (dmin < r) {
      const double k0 = k(dmin), k1 = k(std::min(dmax, r));
      const double gmin = k0 * k1 <= 0 ? 0.0 : std::min(k0 * k0, k1 * k1);
      const double gmax = std::max(k0 * k0, k1 * k1);
      for (double g : {gmin, gmax})
        for (double px : {x0, x1})
          for (double py : {y0, y1}) {
            const double qx = cx + g * (px - cx), qy = cy + g * (py - cy);
            bx0 = std::min(bx0, qx), bx1 = std::max(bx1, qx);
            by0 = std::min(by0, qy), by1 = std::max(by1, qy);
          }
    }
    return bilinearFootprint(bx0, by0, bx1, by1);
  }
};

class BumpDistortionFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const CIVectorRef centre = inputVector(kCIInputCenterKey);
    Bump bump{centre ? centre->X() : 150.0, centre ? centre->Y() : 150.0, inputDouble(kCIInputRadiusKey),
              inputDouble(kCIInputScaleKey)};
    if (!std::isfinite(bump.cx) || !std::isfinite(bump.cy) || !std::isfinite(bump.r) || !std::isfinite(bump.scale))
      return image;
    bump.scale = std::clamp(bump.scale, -3.0, 3.0);
    if (!(bump.r > 0) || bump.scale == 0) return image;
    const CGRect inputExtent = image.extent();
    BlurNode::RoiFn roi = [bump, inputExtent](std::size_t, const PixelRect& rect) {
      return withinInput(bump.roi(rect), inputExtent);
    };
    BlurNode::RenderFn render = [bump](const PixelTile& out, std::span<const ConstPixelTile> in) {
      for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
        float* o = out.row(y);
        for (std::int64_t x = 0; x < out.rect.width; ++x) {
          double qx, qy;
          bump.map(double(out.rect.x + x) + 0.5, double(y) + 0.5, qx, qy);
          qv::blur::sampleBilinear(in[0], qx, qy, o + x * 4);
        }
      }
    };
    return CIImage(std::make_shared<BlurNode>("CIBumpDistortion", inputExtent, std::vector<CIImage>{image},
                                              std::move(roi), std::move(render)));
  }
};

struct Grid {
  double cx, cy, s;
  // The square holding the pixel centre v on one axis, and that square's centre.
  static double cell(double v, double c, double s) { return std::floor((v - c) / s); }
  double centreX(double i) const { return cx + (i + 0.5) * s; }
  double centreY(double j) const { return cy + (j + 0.5) * s; }

  PixelRect roi(const PixelRect& rect) const {
    const double i0 = cell(double(rect.x) + 0.5, cx, s), i1 = cell(double(rect.maxX()) - 0.5, cx, s);
    const double j0 = cell(double(rect.y) + 0.5, cy, s), j1 = cell(double(rect.maxY()) - 0.5, cy, s);
    return bilinearFootprint(centreX(i0), centreY(j0), centreX(i1), centreY(j1));
  }
};

class PixellateFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const CIVectorRef centre = inputVector(kCIInputCenterKey);
    double s = inputDouble(kCIInputScaleKey);
    if (!(s >= 1)) s = 1;  // also NaN
    s = std::min(s, 1e9);
    Grid grid{centre ? centre->X() : 150.0, centre ? centre->Y() : 150.0, s};
    if (!std::isfinite(grid.cx) || !std::isfinite(grid.cy)) return image;
    const CGRect inputExtent = image.extent();
    BlurNode::RoiFn roi = [grid, inputExtent](std::size_t, const PixelRect& rect) {
      return withinInput(grid.roi(rect), inputExtent);
    };
    BlurNode::RenderFn render = [grid](const PixelTile& out, std::span<const ConstPixelTile> in) {
      std::vector<double> cellX(std::size_t(out.rect.width));
      for (std::int64_t x = 0; x < out.rect.width; ++x)
        cellX[std::size_t(x)] = Grid::cell(double(out.rect.x + x) + 0.5, grid.cx, grid.s);
      double previousY = std::nan("");
      for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
        float* o = out.row(y);
        const double sy = grid.centreY(Grid::cell(double(y) + 0.5, grid.cy, grid.s));
        // The rows of one band of squares sample the same points: the first one computed is
        // copied to the others.
        if (sy == previousY) {
          std::memcpy(o, out.row(y - 1), std::size_t(out.rect.width) * 4 * sizeof(float));
          continue;
        }
        previousY = sy;
        float colour[4] = {0, 0, 0, 0};
        double current = std::nan("");
        for (std::int64_t x = 0; x < out.rect.width; ++x) {
          const double i = cellX[std::size_t(x)];
          if (i != current) {
            qv::blur::sampleBilinear(in[0], grid.centreX(i), sy, colour);
            current = i;
          }
          std::copy_n(colour, 4, o + x * 4);
        }
      }
    };
    return CIImage(std::make_shared<BlurNode>("CIPixellate", inputExtent, std::vector<CIImage>{image}, std::move(roi),
                                              std::move(render)));
  }
};

}  // namespace

void registerDistortionBuiltins() {
  registerBuiltin<BumpDistortionFilter>(
      "CIBumpDistortion", "Bump Distortion", {kCICategoryDistortionEffect, kCICategoryStillImage, "CICategoryVideo"},
      {imageInputSpec(), positionInput(kCIInputCenterKey, 150, 150),
       numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 300.0, kAbsent, 0.0, kAbsent, 0.0, 600.0),
       numberInput(kCIInputScaleKey, kCIAttributeTypeScalar, 0.5, 0.0, kAbsent, kAbsent, -1.0, 1.0)});
  registerBuiltin<PixellateFilter>("CIPixellate", "Pixellate",
                                   {kCICategoryStylize, kCICategoryStillImage, "CICategoryVideo"},
                                   {imageInputSpec(), positionInput(kCIInputCenterKey, 150, 150),
                                    numberInput(kCIInputScaleKey, kCIAttributeTypeDistance, 8.0, kAbsent, 1.0, kAbsent, 1.0, 100.0)});
}

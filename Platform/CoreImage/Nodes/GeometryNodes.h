// Graph nodes behind the geometry built-ins that have no CIImage method of their own: the
// repeating tile and the Lanczos rescale.
#pragma once

#include <string>

#include "CoreImage/CIImage.h"
#include "CoreImage/ImageNode.h"

// The input's cell repeated over the whole plane (infinite extent). The cell is the pixel
// rectangle of the input whose centres lie inside its extent (so a transformed image with a
// fractional extent repeats with the period of its whole pixels).
class TileNode final : public ImageNode {
 public:
  explicit TileNode(CIImage input);
  const PixelRect& cell() const { return cell_; }
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "tile"; }

 private:
  PixelRect cell_;
};

// Separable Lanczos-3 rescale by (sx, sy). For a finite input the output covers the pixel
// rectangle from round(x·sx) with round(width·sx) columns (at least one), likewise for y, and
// the input extent is mapped exactly onto it; an infinite input is scaled about the origin.
// When shrinking, the kernel is widened by the shrink factor so every input pixel contributes.
class LanczosScaleNode final : public ImageNode {
 public:
  LanczosScaleNode(CIImage input, double sx, double sy);
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "lanczosScale"; }

  // How one axis maps output pixel indices to input coordinates.
  struct Axis {
    double inOrigin = 0, outOrigin = 0, step = 1;  // input position of output coordinate X: inOrigin + (X - outOrigin)·step
    double filterScale = 1, support = 3;           // kernel widening (≥ 1) and radius in input pixels
    double centre(std::int64_t X) const { return inOrigin + (double(X) + 0.5 - outOrigin) * step; }
  };

 private:
  struct Setup {
    CGRect extent;
    Axis ax, ay;
  };
  static Setup setup(const CGRect& in, double sx, double sy);
  LanczosScaleNode(CIImage input, const Setup& s) : ImageNode(s.extent, {std::move(input)}), ax_(s.ax), ay_(s.ay) {}
  Axis ax_, ay_;
};

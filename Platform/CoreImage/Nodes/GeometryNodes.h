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
  // A rectangle lower than the cell that spans a seam between two copies needs the whole
  // cell's height of the input, as one region (a 1024-pixel cell: 16 MB of working floats for
  // a tile a few rows high): the answer cuts it at the seam, so that an 8-bit render reads only
  // the cell's rows each side needs.
  RegionAnswer describeRegion(const PixelRect& rect, bool colorManaged) const override;
  std::string name() const override { return "tile"; }
  // Every pixel is a copy of the cell's (when it has pixels): the buffer needs no clearing.
  bool writesEveryPixel() const override { return !cell_.empty(); }

 private:
  PixelRect cell_;
};

// Separable Lanczos-3 rescale by (sx, sy). For a finite input the output covers the pixel
// rectangle from round(x·sx) with round(width·sx) columns (at least one), likewise for y, and
// the input extent is mapped exactly onto it; an infinite input is scaled about the origin.
// When shrinking, the kernel is widened by the shrink factor so every input pixel contributes.
//
// The rescale streams down a column of tiles: every input row is filtered horizontally once,
// to the column's output pixels, and kept in the column's render state for as long as an output
// row below still needs it; the vertical pass combines those rows. A tile straight below the
// one rendered last asks only for the input rows not read yet, so a downscale by s holds about
// s input rows of the column's width per output row instead of the 6·s of its kernel, and the
// pixels do not depend on the tiling (each output pixel sums the same filtered rows in the same
// order). Those rows are also all it keeps of its input, so it takes its input in bands
// (readsInputInBands): the first tile of a column, whose kernel reaches 6·s input rows across
// the column's whole input width at once, then never has all of them as working pixels.
class LanczosScaleNode final : public ImageNode {
 public:
  LanczosScaleNode(CIImage input, double sx, double sy);
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  PixelRect regionOfInterestBelow(std::size_t index, const PixelRect& rect) const override;
  bool continuesDown() const override { return true; }
  bool readsInputInBands() const override { return true; }
  void readInputBand(const PixelRect& rect, const ConstPixelTile& band, const RenderInfo& info) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "lanczosScale"; }

  // How one axis maps output pixel indices to input coordinates.
  struct Axis {
    double inOrigin = 0, outOrigin = 0, step = 1;  // input position of output coordinate X: inOrigin + (X - outOrigin)·step
    double filterScale = 1, support = 3;           // kernel widening (≥ 1) and radius in input pixels
    double centre(std::int64_t X) const { return inOrigin + (double(X) + 0.5 - outOrigin) * step; }
    // The first and one past the last input index that output index X reads.
    std::int64_t first(std::int64_t X) const;
    std::int64_t end(std::int64_t X) const;
  };
  // The input's scale factors (output pixels per input pixel) along x and y.
  double scaleX() const { return 1.0 / ax_.step; }
  double scaleY() const { return 1.0 / ay_.step; }

  // Shrink on load: the same output rectangle resampled from `reduced`, a smaller decode of
  // this node's input (a JPEG decoded at a DCT scale), whose extent is mapped exactly onto it.
  LanczosScaleNode(CIImage reduced, const LanczosScaleNode& original);
  // The DCT scale denominator (1, 2, 4 or 8) of a decode that may stand in for the input of a
  // rescale by (scaleX, scaleY): the largest that still leaves a Lanczos downscale by at least
  // 2 on both axes, so that the rescale still decides every output pixel from many decoded
  // ones (the decoder's block averages only replace the first, finest part of the shrink).
  static int shrinkOnLoadDenominator(double scaleX, double scaleY);

 private:
  struct Setup {
    CGRect extent;
    Axis ax, ay;
  };
  struct Stream;
  static Setup setup(const CGRect& in, double sx, double sy);
  LanczosScaleNode(CIImage input, const Setup& s);
  // The column's stream for output rectangle `rect` whose input rows (or their first band) are
  // `src`: the one kept in `info`'s state when `rect` continues it, else a fresh one there.
  Stream& streamFor(const PixelRect& rect, const ConstPixelTile& src, const RenderInfo& info,
                    std::shared_ptr<void>& local) const;
  // Filters the input rows of `src` the stream has not read yet into it, top down.
  void readRows(Stream& stream, const ConstPixelTile& src) const;
  // The input rows [first, end) clipped to the input's pixels, with the columns that `rect`
  // reads; empty when none of them holds pixels.
  PixelRect inputRows(const PixelRect& rect, std::int64_t first, std::int64_t end) const;
  Axis ax_, ay_;
  PixelRect inputPixels_;  // the pixels the input's extent touches (clamped when infinite)
};

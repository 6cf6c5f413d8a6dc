// The Lanczos rescale streams down columns of tiles: each input row is filtered horizontally
// once and kept while output rows below still read it, a tile straight below asks only for the
// input rows not read yet. The pixels must not depend on any of it, and a large downscale must
// render in little memory, split between the threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <span>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/ImageNode.h"
#include "CoreImage/Nodes/GeometryNodes.h"
#include "RenderSupport.h"

namespace {

CIContextOptions tiles(int tileSize, int threads) {
  CIContextOptions o;
  o.tileSize = tileSize;
  o.threads = threads;
  return o;
}

CIImage scaled(const CIImage& input, double sx, double sy) {
  return CIImage(std::make_shared<LanczosScaleNode>(input, sx, sy));
}

// Renders `roi` of `img` as a node's input tile: rows stored bottom row first, as nodes read them.
ConstPixelTile inputTile(const CIImage& img, const PixelRect& roi, std::vector<float>& store) {
  const auto top = renderRGBAf(img, roi.cgRect());
  store.resize(top.size());
  const std::size_t row = std::size_t(roi.width) * 4;
  for (std::int64_t r = 0; r < roi.height; ++r)
    std::copy_n(top.data() + std::size_t(roi.height - 1 - r) * row, row, store.data() + std::size_t(r) * row);
  return ConstPixelTile{store.data(), roi, roi.width * 4};
}

// Renders the tile `rect` of `node` directly, handed its input region `roi` of `img` at once;
// `state` carries the column's state from the tile above.
std::vector<float> renderNodeTile(const LanczosScaleNode& node, const CIImage& img, const PixelRect& rect,
                                  const PixelRect& roi, std::shared_ptr<void>& state) {
  std::vector<float> in;
  const ConstPixelTile tile = inputTile(img, roi, in);
  std::vector<float> out(std::size_t(rect.area()) * 4, 0.0f);
  RenderInfo info;
  info.state = &state;
  node.render(PixelTile{out.data(), rect, rect.width * 4}, std::span<const ConstPixelTile>(&tile, 1), info);
  return out;
}

// Renders the image's extent in one tile, in square tiles of 16 and 17 on one and two threads,
// and with the tiling the context chooses, and expects the same bits everywhere.
void expectSameAcrossTilings(const CIImage& image) {
  const CGRect rect = image.extent();
  const auto whole = renderRGBAf(image, rect, tiles(8192, 1));
  for (int tile : {16, 17}) {
    for (int threads : {1, 2}) {
      SCOPED_TRACE(testing::Message() << "tile " << tile << ", threads " << threads);
      const auto tiled = renderRGBAf(image, rect, tiles(tile, threads));
      EXPECT_TRUE(bitwiseEqual(whole, tiled)) << "max difference " << maxAbsDifference(whole, tiled);
    }
  }
  const auto chosen = renderRGBAf(image, rect, tiles(0, 2));
  EXPECT_TRUE(bitwiseEqual(whole, chosen)) << "max difference " << maxAbsDifference(whole, chosen);
}

double lanczos3(double x) {
  x = std::fabs(x);
  if (x < 1e-12) return 1.0;
  if (x >= 3.0) return 0.0;
  return 3.0 * std::sin(M_PI * x) * std::sin(M_PI * x / 3.0) / (M_PI * M_PI * x * x);
}

// The plain two-dimensional formula in double precision: output pixel (X, Y) of a rescale of
// `pixels` (w × h, row 0 on top, origin 0) by s to ow × oh, the kernel widened by 1/s when
// shrinking.
std::array<double, 4> oracle(const std::vector<float>& pixels, int w, int h, double s, int ow, int oh, int X, int Y) {
  auto axis = [s](int size, int out, int i) {
    const double step = double(size) / double(out), scale = std::max(1.0, 1.0 / s);
    const double c = (double(i) + 0.5) * step;
    std::vector<double> wt(static_cast<std::size_t>(size));
    double sum = 0;
    for (int k = 0; k < size; ++k) sum += wt[std::size_t(k)] = lanczos3((double(k) + 0.5 - c) / scale);
    // Taps outside the picture are transparent: they count in the normalisation.
    const std::int64_t lo = std::int64_t(std::floor(c - 3 * scale - 0.5)), hi = std::int64_t(std::ceil(c + 3 * scale - 0.5));
    for (std::int64_t k = lo; k <= hi; ++k)
      if (k < 0 || k >= size) sum += lanczos3((double(k) + 0.5 - c) / scale);
    for (double& v : wt) v /= sum;
    return wt;
  };
  const auto wx = axis(w, ow, X), wy = axis(h, oh, Y);
  std::array<double, 4> acc{};
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int k = 0; k < 4; ++k)
        acc[std::size_t(k)] += wx[std::size_t(x)] * wy[std::size_t(y)] *
                               pixels[(std::size_t(h - 1 - y) * std::size_t(w) + std::size_t(x)) * 4 + std::size_t(k)];
  return acc;
}

}  // namespace

TEST(LanczosStream, DownscaleOfOddSizesIsTheSameInEveryTiling) {
  const CIImage img = makeTestImageWithAlpha(97, 61, CGPointMake(3, -5), 11);
  expectSameAcrossTilings(scaled(img, 1 / 3.7, 1 / 3.7));
  expectSameAcrossTilings(scaled(img, 0.5, 0.2));
}

TEST(LanczosStream, UpscaleAndMixedScalesAreTheSameInEveryTiling) {
  const CIImage img = makeTestImage(23, 19, CGPointMake(-2, 7), 12);
  expectSameAcrossTilings(scaled(img, 2.3, 2.3));
  expectSameAcrossTilings(scaled(img, 3.0, 0.45));
  expectSameAcrossTilings(scaled(img, 0.45, 3.0));
}

TEST(LanczosStream, OnePixelImages) {
  const CIImage dot = makeTestImageWithAlpha(1, 1, CGPointMake(4, 4), 13);
  const CIImage up = scaled(dot, 7, 7);
  EXPECT_EQ(up.extent(), CGRectMake(28, 28, 7, 7));
  expectSameAcrossTilings(up);
  // At the centre of the one pixel (output pixel 31 of 28..35 maps to input centre 4.5) the
  // kernel's weight of every other tap is zero: the pixel's own value.
  const auto centre = renderRGBAf(up, CGRectMake(31, 31, 1, 1));
  const auto source = renderRGBAf(dot, CGRectMake(4, 4, 1, 1));
  for (int k = 0; k < 4; ++k) EXPECT_NEAR(centre[std::size_t(k)], source[std::size_t(k)], 1e-6f);
  expectSameAcrossTilings(scaled(makeTestImage(1, 50, {}, 14), 1.0, 0.1));
  expectSameAcrossTilings(scaled(makeTestImage(50, 1, {}, 15), 0.1, 1.0));
  // Shrunk to one pixel: at least one pixel remains.
  const CIImage tiny = scaled(makeTestImage(9, 9, {}, 16), 0.01, 0.01);
  EXPECT_EQ(tiny.extent(), CGRectMake(0, 0, 1, 1));
  expectSameAcrossTilings(tiny);
}

TEST(LanczosStream, MatchesTheTwoDimensionalFormula) {
  const int w = 41, h = 37;
  const std::vector<float> pixels = makeTestPixels(w, h, 17, true);
  const CIImage img = CIImage::imageWithRGBAf(pixels.data(), w, h);
  for (double s : {0.3, 1.7}) {
    SCOPED_TRACE(s);
    const CIImage out = scaled(img, s, s);
    const int ow = int(out.extent().size.width), oh = int(out.extent().size.height);
    const auto got = renderRGBAf(out, out.extent(), tiles(16, 2));  // row 0 on top
    for (int Y = 0; Y < oh; Y += 3)
      for (int X = 0; X < ow; X += 2) {
        const auto want = oracle(pixels, w, h, s, ow, oh, X, Y);
        for (int k = 0; k < 4; ++k)
          ASSERT_NEAR(got[(std::size_t(oh - 1 - Y) * std::size_t(ow) + std::size_t(X)) * 4 + std::size_t(k)],
                      want[std::size_t(k)], 2e-5)
              << "at " << X << "," << Y;
      }
  }
}

TEST(LanczosStream, ContinuedColumnEqualsAFreshStart) {
  // Drives the node directly: the tile below continued from the state the tile above left, and
  // the same tile rendered afresh, give the same rows; the continued tile reads only rows the
  // tile above did not.
  const CIImage img = makeTestImageWithAlpha(120, 90, {}, 18);
  const LanczosScaleNode node(img, 0.23, 0.31);
  const PixelRect above{3, 14, 21, 9}, below{3, 6, 21, 8};
  auto renderTile = [&](const PixelRect& rect, const PixelRect& roi, std::shared_ptr<void>& state) {
    return renderNodeTile(node, img, rect, roi, state);
  };
  std::shared_ptr<void> column, fresh;
  renderTile(above, node.regionOfInterest(0, above), column);
  const PixelRect newRows = node.regionOfInterestBelow(0, below);
  const PixelRect allRows = node.regionOfInterest(0, below);
  EXPECT_LT(newRows.height, allRows.height);
  EXPECT_EQ(newRows.maxY(), node.regionOfInterest(0, above).y);
  const auto continued = renderTile(below, newRows, column);
  const auto afresh = renderTile(below, allRows, fresh);
  EXPECT_TRUE(bitwiseEqual(continued, afresh)) << "max difference " << maxAbsDifference(continued, afresh);
}

TEST(LanczosStream, InputReadInBandsEqualsTheWholeRegionAtOnce) {
  // Drives the node directly: a tile whose input rows are handed as bands of 7 rows, top down
  // (readInputBand for all but the lowest, render() with the lowest), gives the same rows as the
  // tile handed its whole region, afresh and continuing the tile above alike.
  const CIImage img = makeTestImageWithAlpha(150, 120, {}, 19);
  const LanczosScaleNode node(img, 0.2, 0.17);
  ASSERT_TRUE(node.readsInputInBands());
  const PixelRect above{2, 12, 25, 8}, below{2, 5, 25, 7};
  auto renderWhole = [&](const PixelRect& rect, const PixelRect& roi, std::shared_ptr<void>& state) {
    return renderNodeTile(node, img, rect, roi, state);
  };
  auto renderInBands = [&](const PixelRect& rect, const PixelRect& roi, std::shared_ptr<void>& state) {
    RenderInfo info;
    info.state = &state;
    constexpr std::int64_t kRows = 7;
    std::int64_t y1 = roi.maxY();
    int bands = 0;
    for (; y1 - roi.y > kRows; y1 -= kRows, ++bands) {
      std::vector<float> in;
      node.readInputBand(rect, inputTile(img, PixelRect{roi.x, y1 - kRows, roi.width, kRows}, in), info);
    }
    EXPECT_GE(bands, 2);
    std::vector<float> in;
    const ConstPixelTile lowest = inputTile(img, PixelRect{roi.x, roi.y, roi.width, y1 - roi.y}, in);
    std::vector<float> out(std::size_t(rect.area()) * 4, 0.0f);
    node.render(PixelTile{out.data(), rect, rect.width * 4}, std::span<const ConstPixelTile>(&lowest, 1), info);
    return out;
  };
  std::shared_ptr<void> whole, banded;
  const auto wholeAbove = renderWhole(above, node.regionOfInterest(0, above), whole);
  const auto bandedAbove = renderInBands(above, node.regionOfInterest(0, above), banded);
  EXPECT_TRUE(bitwiseEqual(wholeAbove, bandedAbove)) << "max difference " << maxAbsDifference(wholeAbove, bandedAbove);
  const auto wholeBelow = renderWhole(below, node.regionOfInterestBelow(0, below), whole);
  const auto bandedBelow = renderInBands(below, node.regionOfInterestBelow(0, below), banded);
  EXPECT_TRUE(bitwiseEqual(wholeBelow, bandedBelow)) << "max difference " << maxAbsDifference(wholeBelow, bandedBelow);
  // A tile that neither continues the stream nor was read in bands starts afresh.
  std::shared_ptr<void> fresh;
  const auto afresh = renderWhole(below, node.regionOfInterest(0, below), fresh);
  EXPECT_TRUE(bitwiseEqual(wholeBelow, afresh));
}

TEST(LanczosStream, WideDownscaleReadInBandsIsTheSameInEveryTiling) {
  // 3000 pixels wide: a region of input rows is more than the renderer hands the rescale at
  // once (a band of 1 MB of working pixels, 21 rows of this width), so every tiling reads it in
  // bands, each in its own way; the whole-image render is the reference.
  const CIImage img = makeTestImageWithAlpha(3000, 160, CGPointMake(5, -3), 20);
  expectSameAcrossTilings(scaled(img, 1 / 25.0, 1 / 25.0));
  expectSameAcrossTilings(scaled(img, 0.1, 0.3));
}

TEST(LanczosStream, LargeDownscaleRendersInLittleMemoryOnEveryThread) {
  // A 6000 × 4000 picture to 200 × 133: the rescale holds a few input rows per output row,
  // not the whole kernel's 180 rows of the full width.
  const CIImage big = CIImage::imageWithColor(CIColor::colorWithRed(0.3, 0.6, 0.9, 1))
                          .imageByCroppingToRect(CGRectMake(0, 0, 6000, 4000));
  const CIImage small = scaled(big, 1 / 30.0, 1 / 30.0);
  ASSERT_EQ(small.extent(), CGRectMake(0, 0, 200, 133));
  for (int threads : {1, 2}) {
    const CIContext context(tiles(0, threads));
    EXPECT_LT(context.workingMemory(small, small.extent()), std::int64_t{16} << 20) << threads << " threads";
  }
  // Twice the picture's size to the same output: the kernel of an output row reaches twice as
  // many input rows, twice as wide, but they reach the rescale in bands of a bounded size and
  // it keeps them filtered to its own width. Only those kept rows grow (to 420 of 200 columns,
  // 0.7 MB more): the estimate stays within 1.4 times, where it was 4 times with the kernel's
  // rows held across the input's width.
  const CIImage bigger = CIImage::imageWithColor(CIColor::colorWithRed(0.3, 0.6, 0.9, 1))
                             .imageByCroppingToRect(CGRectMake(0, 0, 12000, 8000));
  const CIImage smaller = scaled(bigger, 1 / 60.0, 1 / 60.0);
  for (int threads : {1, 2}) {
    const CIContext context(tiles(0, threads));
    EXPECT_LT(double(context.workingMemory(smaller, smaller.extent())),
              1.4 * double(context.workingMemory(small, small.extent())))
        << threads << " threads";
  }
}

TEST(LanczosStream, QuarterDownscaleRendersInLowTiles) {
  // 6000 × 4000 to 1500 × 1000: wide enough for a column per thread, and still each tile's
  // input rows are four times its own; low tiles keep them few.
  const CIImage big = CIImage::imageWithColor(CIColor::colorWithRed(0.3, 0.6, 0.9, 1))
                          .imageByCroppingToRect(CGRectMake(0, 0, 6000, 4000));
  const CIImage quarter = scaled(big, 0.25, 0.25);
  for (int threads : {1, 2}) {
    const CIContext context(tiles(0, threads));
    EXPECT_LT(context.workingMemory(quarter, quarter.extent()), std::int64_t{16} << 20) << threads << " threads";
  }
}

TEST(LanczosStream, TurnedPictureRendersInNarrowColumns) {
  // A turned 6000 × 4000 picture: the region of interest of a tile is its bounding box in the
  // input, so narrow columns hold far less than one column per thread would.
  const CIImage big = CIImage::imageWithColor(CIColor::colorWithRed(0.3, 0.6, 0.9, 1))
                          .imageByCroppingToRect(CGRectMake(0, 0, 6000, 4000));
  const CIImage turned = big.imageByApplyingTransform(CGAffineTransformMakeRotation(0.0872664626));
  for (int threads : {1, 2}) {
    const CIContext context(tiles(0, threads));
    EXPECT_LT(context.workingMemory(turned, turned.extent()), std::int64_t{16} << 20) << threads << " threads";
  }
}

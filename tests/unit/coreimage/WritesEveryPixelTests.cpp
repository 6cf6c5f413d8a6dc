// Nodes that declare that they write every pixel of their output get their buffers from the
// renderer uncleared. Every such node in the graphs of every built-in filter (and of the image
// sources and folds) must render the same bits into a buffer full of garbage as into a cleared
// one.
#include <gtest/gtest.h>

#include <unistd.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/ImageNode.h"
#include "RenderSupport.h"

namespace {

using NodeRef = std::shared_ptr<const ImageNode>;

// Every node of the graph under `node`, once.
void collect(const NodeRef& node, std::set<const ImageNode*>& seen, std::vector<NodeRef>& nodes) {
  if (!node || !seen.insert(node.get()).second) return;
  nodes.push_back(node);
  for (const CIImage& input : node->inputs()) collect(input.node(), seen, nodes);
}

// `rect` of `image` as the renderer hands it to a node: premultiplied working floats, row 0 the
// bottom row; no pixels for an empty rectangle.
struct InputTile {
  std::vector<float> pixels;
  ConstPixelTile view;
};
InputTile inputTile(const CIImage& image, const PixelRect& rect) {
  InputTile t;
  if (rect.empty() || !image) return t;
  CIContextOptions opts;
  opts.threads = 1;
  const std::vector<float> topFirst = renderRGBAf(image, rect.cgRect(), opts);
  const std::size_t row = std::size_t(rect.width) * 4, rows = std::size_t(rect.height);
  t.pixels.resize(topFirst.size());
  for (std::size_t y = 0; y < rows; ++y)
    std::memcpy(t.pixels.data() + y * row, topFirst.data() + (rows - 1 - y) * row, row * sizeof(float));
  t.view = ConstPixelTile{t.pixels.data(), rect, std::ptrdiff_t(row)};
  return t;
}

// The node's render of `rect` into a buffer first filled with `garbage` (or cleared).
std::vector<float> renderInto(const ImageNode& node, const PixelRect& rect, bool garbage) {
  std::vector<InputTile> tiles;
  tiles.reserve(node.inputs().size());
  std::vector<ConstPixelTile> views;
  for (std::size_t k = 0; k < node.inputs().size(); ++k) {
    tiles.push_back(inputTile(node.inputs()[k], node.regionOfInterest(k, rect)));
    views.push_back(tiles.back().view);
  }
  std::vector<float> out(std::size_t(rect.area()) * 4, 0.0f);
  if (garbage) {
    // NaNs with payloads, infinities and huge values: anything read or left over shows.
    const float pattern[] = {std::numeric_limits<float>::quiet_NaN(), -std::numeric_limits<float>::infinity(),
                             std::bit_cast<float>(0x7fc0deadu), 3e38f, -std::numeric_limits<float>::quiet_NaN()};
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = pattern[i % 5];
  }
  std::shared_ptr<void> state;
  RenderInfo info;
  info.colorManaged = true;
  info.state = &state;
  node.render(PixelTile{out.data(), rect, std::ptrdiff_t(rect.width) * 4}, views, info);
  return out;
}

class WritesEveryPixel : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("qv-writes-every-pixel-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    const auto px = makeTestPixels(53, 41, 3, true);
    photo_ = CIImage::imageWithRGBAf(px.data(), 53, 41);
    std::vector<std::uint8_t> bytes(37 * 29 * 4);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = std::uint8_t(i * 37 + i / 7);
    other_ = CIImage::imageWithRGBA8(bytes.data(), 37, 29, 37 * 4).imageByApplyingTransform(
        CGAffineTransformMakeTranslation(9, 5));
    const std::string path = (dir_ / "mask.png").string();
    CIContext().writeToFile(CIImage::imageWithRGBAf(makeTestPixels(47, 35, 9).data(), 47, 35), path, CGRectNull);
    file_ = CIImage::imageWithContentsOfFile(path);
    ASSERT_FALSE(file_.isNil());
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // Every built-in filter with its defaults and every image input set, and a few folds of
  // offsets, crops and colours under composites.
  std::vector<CIImage> graphs() const {
    std::vector<CIImage> out = {photo_, other_, file_};
    for (const std::string& name : CIFilter::filterNamesInCategory("")) {
      CIFilterRef f = CIFilter::filterWithName(name);
      if (!f) continue;
      f->setDefaults();
      for (const std::string& key : f->inputKeys()) {
        if (key == kCIInputImageKey)
          f->setValue(photo_, key);
        else if (key == kCIInputBackgroundImageKey)
          f->setValue(other_, key);
        else if (key.find("Image") != std::string::npos)
          f->setValue(file_, key);
      }
      const CIImage image = CIImage::fromValue(f->valueForKey(kCIOutputImageKey));
      if (image) out.push_back(image);
    }
    const CIImage colour = CIImage::imageWithColor(CIColor::colorWithRed(0.2, 0.5, 0.7, 0.8));
    CIFilterRef over = CIFilter::filterWithName("CISourceOverCompositing");
    over->setValue(photo_.imageByApplyingTransform(CGAffineTransformMakeTranslation(-4, 6))
                       .imageByCroppingToRect(CGRectMake(2, 3, 30, 20)),
                   kCIInputImageKey);
    over->setValue(colour.imageByCroppingToRect(CGRectMake(-6, -2, 70, 50)), kCIInputBackgroundImageKey);
    out.push_back(CIImage::fromValue(over->valueForKey(kCIOutputImageKey)));
    // A crop at fractional edges: a composite over it does not cover whole pixels.
    over->setValue(colour.imageByCroppingToRect(CGRectMake(0.7, 0.2, 20.1, 10.1)), kCIInputBackgroundImageKey);
    out.push_back(CIImage::fromValue(over->valueForKey(kCIOutputImageKey)));
    out.push_back(colour);
    out.push_back(photo_.imageByApplyingTransform(CGAffineTransformMakeTranslation(7, -3)));
    // Transforms: on the grid (a flip), axis-aligned (a half-pixel shift, a shrink), rotated
    // (bilinear) and rotated while shrinking (the tent filter).
    for (const CGAffineTransform& t :
         {CGAffineTransformMakeScale(-1, 1), CGAffineTransformMakeTranslation(0.5, 0.25),
          CGAffineTransformMakeScale(0.45, 0.6), CGAffineTransformMakeRotation(0.3),
          CGAffineTransformConcat(CGAffineTransformMakeRotation(0.4), CGAffineTransformMakeScale(0.3, 0.35))})
      out.push_back(photo_.imageByApplyingTransform(t));
    // Filters whose defaults change nothing, with settings that do.
    CIFilterRef matrix = CIFilter::filterWithName("CIColorMatrix");
    matrix->setDefaults();
    matrix->setValue(CIVector::vectorWithX(0.5, 0.2, 0.1, 0.1), "inputRVector");
    matrix->setValue(CIVector::vectorWithX(0, 0, 0, 0.5), "inputBiasVector");
    matrix->setValue(file_, kCIInputImageKey);
    out.push_back(CIImage::fromValue(matrix->valueForKey(kCIOutputImageKey)));
    CIFilterRef white = CIFilter::filterWithName("CIWhitePointAdjust");
    white->setDefaults();
    white->setValue(CIColor::colorWithRed(0.9, 0.7, 0.0, 1), "inputColor");
    white->setValue(other_, kCIInputImageKey);
    out.push_back(CIImage::fromValue(white->valueForKey(kCIOutputImageKey)));
    return out;
  }

  std::filesystem::path dir_;
  CIImage photo_, other_, file_;
};

TEST_F(WritesEveryPixel, NodesThatSaySoRenderTheSameIntoGarbageAsIntoACleanBuffer) {
  std::set<const ImageNode*> seen;
  std::vector<NodeRef> nodes;
  for (const CIImage& g : graphs()) collect(g.node(), seen, nodes);
  std::set<std::string> checked;
  for (const NodeRef& node : nodes) {
    if (!node->writesEveryPixel()) continue;
    const PixelRect extent = PixelRect::covering(node->extent());
    // The renderer hands a node tiles inside its extent's covering pixels: one around the
    // origin and one over its top right corner.
    const PixelRect tiles[] = {extent.intersection({-3, -2, 41, 23}),
                               extent.intersection({extent.maxX() - 17, extent.maxY() - 9, 24, 13})};
    for (const PixelRect& rect : tiles) {
      if (rect.empty() || rect.area() > 4096) continue;
      const std::vector<float> clean = renderInto(*node, rect, false), dirty = renderInto(*node, rect, true);
      ASSERT_EQ(0, std::memcmp(clean.data(), dirty.data(), clean.size() * sizeof(float)))
          << node->name() << " over " << rect.x << "," << rect.y << " " << rect.width << "x" << rect.height;
      checked.insert(node->name());
    }
  }
  // Every kind of node that says so was among them.
  for (const char* name : {"bitmap", "bitmap8", "file", "offset", "constantColor", "colorMatrix", "CIBlendWithMask",
                           "CISourceOverCompositing", "CIMultiplyBlendMode", "CIMaskToAlpha", "CIWhitePointAdjust",
                           "transform", "tile"})
    EXPECT_TRUE(checked.count(name)) << name << " was not checked";
}

TEST_F(WritesEveryPixel, ANodeWhoseExtentCutsPixelsDoesNotSaySo) {
  // Pixels whose centres lie outside a fractional extent are left transparent by the node,
  // so the renderer must clear them.
  CIFilterRef over = CIFilter::filterWithName("CISourceOverCompositing");
  over->setValue(photo_.imageByCroppingToRect(CGRectMake(0.7, 0.2, 20.1, 10.1)), kCIInputImageKey);
  over->setValue(other_.imageByCroppingToRect(CGRectMake(10.2, 5.6, 20.1, 10.1)), kCIInputBackgroundImageKey);
  const CIImage image = CIImage::fromValue(over->valueForKey(kCIOutputImageKey));
  ASSERT_FALSE(image.isNil());
  EXPECT_FALSE(image.node()->writesEveryPixel());
}

TEST_F(WritesEveryPixel, TiledRendersOfSuchNodesEqualTheWholeRender) {
  // The renderer reuses uncleared buffers from tile to tile: tiles of 16 × 16 against one tile.
  for (const CIImage& g : graphs()) {
    if (CGRectIsInfinite(g.extent()) || CGRectIsEmpty(g.extent())) continue;
    const CGRect bounds = CGRectIntegral(g.extent());
    if (CGRectGetWidth(bounds) * CGRectGetHeight(bounds) > 200 * 200) continue;
    CIContextOptions small, whole;
    small.threads = whole.threads = 1;
    small.tileSize = 16;
    whole.tileSize = 4096;
    const auto a = renderRGBAf(g, bounds, small), b = renderRGBAf(g, bounds, whole);
    ASSERT_EQ(a.size(), b.size());
    EXPECT_EQ(0, std::memcmp(a.data(), b.data(), a.size() * sizeof(float))) << g.node()->name();
  }
}

}  // namespace

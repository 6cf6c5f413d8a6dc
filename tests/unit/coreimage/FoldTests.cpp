// Graph simplification while building: every fold gives one node, and the same pixels as the
// unfolded graph (built here with a pass-through node that the folds do not see through).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "CoreImage/CIColor.h"
#include "CoreImage/ImageNode.h"
#include "CoreImage/Nodes/CoreNodes.h"
#include "RenderSupport.h"

namespace {

class OpaqueNode final : public ImageNode {
 public:
  explicit OpaqueNode(CIImage in) : ImageNode(in.extent(), {in}) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
    for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
      std::memcpy(out.at(out.rect.x, y), in[0].at(out.rect.x, y), std::size_t(out.rect.width) * 16);
  }
  std::string name() const override { return "opaque"; }
};

CIImage opaque(const CIImage& i) { return CIImage(std::make_shared<OpaqueNode>(i)); }

template <class T>
const T* nodeAs(const CIImage& i) {
  return dynamic_cast<const T*>(i.node().get());
}

void expectSamePixels(const CIImage& folded, const CIImage& unfolded, const CGRect& r) {
  const CGRect a = folded.extent(), b = unfolded.extent();
  EXPECT_NEAR(a.origin.x, b.origin.x, 1e-9);
  EXPECT_NEAR(a.origin.y, b.origin.y, 1e-9);
  EXPECT_NEAR(a.size.width, b.size.width, 1e-9);
  EXPECT_NEAR(a.size.height, b.size.height, 1e-9);
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(folded, r), renderRGBAf(unfolded, r)))
      << "max difference " << maxAbsDifference(renderRGBAf(folded, r), renderRGBAf(unfolded, r));
}

}  // namespace

TEST(Folds, TransformOfTransformIsOneTransform) {
  const auto img = makeTestImageWithAlpha(23, 17, CGPointMake(3, 2));
  const auto r90 = CGAffineTransformMakeRotation(M_PI / 2);
  const auto flip = CGAffineTransformMake(-1, 0, 0, 1, 7, 0);
  const CIImage folded = img.imageByApplyingTransform(r90).imageByApplyingTransform(flip);
  const auto* t = nodeAs<TransformNode>(folded);
  ASSERT_TRUE(t);
  EXPECT_EQ(t->inputs()[0], img);
  const CIImage unfolded = opaque(img.imageByApplyingTransform(r90)).imageByApplyingTransform(flip);
  expectSamePixels(folded, unfolded, CGRectMake(-30, -10, 60, 50));
}

TEST(Folds, QuarterTurnsAndFlipsAreExactCopies) {
  const auto img = makeTestImage(9, 5);
  CIImage turned = img;
  CIImage unfolded = img;
  for (int i = 0; i < 4; ++i) {
    turned = turned.imageByApplyingTransform(CGAffineTransformMakeRotation(M_PI / 2));
    unfolded = opaque(unfolded.imageByApplyingTransform(CGAffineTransformMakeRotation(M_PI / 2)));
  }
  // Four quarter turns: one transform (almost the identity), pixels equal to the original.
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(turned, img.extent()), renderRGBAf(img, img.extent())));
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(unfolded, img.extent()), renderRGBAf(img, img.extent())));
}

TEST(Folds, IntegerTranslationIsAnOffsetWithoutResampling) {
  const auto px = makeTestPixels(12, 8);
  const auto img = CIImage::imageWithRGBAf(px.data(), 12, 8);
  const CIImage moved = img.imageByApplyingTransform(CGAffineTransformMakeTranslation(5, -3));
  const auto* off = nodeAs<OffsetNode>(moved);
  ASSERT_TRUE(off);
  EXPECT_EQ(off->dx(), 5);
  EXPECT_EQ(off->dy(), -3);
  EXPECT_EQ(moved.extent(), CGRectMake(5, -3, 12, 8));
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(moved, moved.extent()), px));
  // Offsets fold into one offset, and back to the image itself.
  const CIImage twice = moved.imageByApplyingTransform(CGAffineTransformMakeTranslation(-2, 1));
  ASSERT_TRUE(nodeAs<OffsetNode>(twice));
  EXPECT_EQ(nodeAs<OffsetNode>(twice)->inputs()[0], img);
  EXPECT_EQ(moved.imageByApplyingTransform(CGAffineTransformMakeTranslation(-5, 3)), img);
  const CIImage unfolded = opaque(moved).imageByApplyingTransform(CGAffineTransformMakeTranslation(-2, 1));
  expectSamePixels(twice, unfolded, CGRectMake(0, -5, 20, 15));
}

TEST(Folds, TransformOfOffsetIsOneTransform) {
  const auto img = makeTestImageWithAlpha(10, 10);
  const CIImage moved = img.imageByApplyingTransform(CGAffineTransformMakeTranslation(4, 2));
  const auto flip = CGAffineTransformMake(1, 0, 0, -1, 0, 30);
  const CIImage folded = moved.imageByApplyingTransform(flip);
  ASSERT_TRUE(nodeAs<TransformNode>(folded));
  EXPECT_EQ(folded.node()->inputs()[0], img);
  expectSamePixels(folded, opaque(moved).imageByApplyingTransform(flip), CGRectMake(0, 10, 20, 25));
}

TEST(Folds, CropOfCropIsOneCrop) {
  const auto img = makeTestImageWithAlpha(30, 20);
  const CGRect a = CGRectMake(2.4, 1.6, 20.3, 15.5), b = CGRectMake(5.7, -3, 30, 12.2);
  const CIImage folded = img.imageByCroppingToRect(a).imageByCroppingToRect(b);
  const auto* c = nodeAs<CropNode>(folded);
  ASSERT_TRUE(c);
  EXPECT_EQ(c->inputs()[0], img);
  EXPECT_EQ(folded.extent(), CGRectIntersection(a, b));
  expectSamePixels(folded, opaque(img.imageByCroppingToRect(a)).imageByCroppingToRect(b), CGRectMake(-2, -2, 34, 24));
}

TEST(Folds, CroppedConstantColorIsFiniteConstantColor) {
  const auto color = CIImage::imageWithColor(CIColor::colorWithRed(0.2, 0.7, 0.4, 0.6));
  const CGRect r = CGRectMake(1.3, -2.6, 7.9, 5.5);
  const CIImage folded = color.imageByCroppingToRect(r);
  const auto* cc = nodeAs<ConstantColorNode>(folded);
  ASSERT_TRUE(cc);
  EXPECT_EQ(folded.extent(), r);
  expectSamePixels(folded, opaque(color).imageByCroppingToRect(r), CGRectMake(-2, -6, 14, 12));
  // A crop of that crop stays a constant colour.
  EXPECT_TRUE(nodeAs<ConstantColorNode>(folded.imageByCroppingToRect(CGRectMake(2, -1, 3, 3))));
}

TEST(Folds, FoldedGraphsRenderTheSameTiledAndThreaded) {
  const auto img = makeTestImageWithAlpha(40, 30);
  const CIImage g = img.imageByApplyingTransform(CGAffineTransformMakeScale(1.5, 0.75))
                        .imageByApplyingTransform(CGAffineTransformMakeRotation(0.3))
                        .imageByCroppingToRect(CGRectMake(-10, 0, 50, 20.5));
  CIContextOptions tiled;
  tiled.tileSize = 7;
  tiled.threads = 2;
  CIContextOptions whole;
  whole.tileSize = 4096;
  whole.threads = 1;
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(g, g.extent(), tiled), renderRGBAf(g, g.extent(), whole)));
}

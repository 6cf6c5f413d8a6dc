// Graph simplification while building: every fold gives one node, and the same pixels as the
// unfolded graph (built here with a pass-through node that the folds do not see through).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include <algorithm>
#include <utility>

#include "CoreImage/Builtins/ColorMatrixNode.h"
#include "CoreImage/Builtins/CompositeOperations.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"
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

// Small tiles on two threads, colour management off: the working values are the encoded ones.
CIContextOptions unmanagedTiles() {
  CIContextOptions o;
  o.colorManagement = false;
  o.threads = 2;
  o.tileSize = 32;
  return o;
}

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

// ---- Composites read through offsets, crops, colour matrices and constant colours ----------

namespace {

CIImage composite(const char* name, const CIImage& source, const CIImage& background) {
  return compositeImage(*compositeOperationNamed(name), source, background);
}

// A matrix with colour bias and an alpha row that mixes colour: the general (un-premultiplying)
// form, which paints colour into transparent pixels inside its extent.
ColorMatrix biasedMatrix() {
  return ColorMatrix::fromRows({0.9, 0.2, 0, 0}, {0, 0.7, 0.3, 0}, {0.1, 0, 1.1, 0.05}, {0, 0, 0.1, 0.8},
                               {0.02, 0, -0.03, 0.1});
}

// A node that records the largest region it was asked to render.
class RecordingNode final : public ImageNode {
 public:
  explicit RecordingNode(CIImage in) : ImageNode(in.extent(), {in}) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
    largest = std::max(largest, out.rect.area());
    for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
      std::memcpy(out.at(out.rect.x, y), in[0].at(out.rect.x, y), std::size_t(out.rect.width) * 16);
  }
  std::string name() const override { return "recording"; }
  mutable std::int64_t largest = 0;
};

}  // namespace

TEST(Folds, CompositeReadsThroughOffsetsCropsAndMatrices) {
  const auto img = makeTestImageWithAlpha(31, 23, CGPointMake(2, 1));
  const auto other = makeTestImageWithAlpha(27, 29, CGPointMake(-3, 4), 7);
  // Source: img coloured by a biased matrix, cut by a fractional rectangle, moved by whole pixels.
  auto source = [&](auto barrier) {
    const CIImage coloured = barrier(ColorMatrixNode::imageByApplyingMatrix(img, biasedMatrix()));
    const CIImage cut = barrier(coloured.imageByCroppingToRect(CGRectMake(4.3, 2.6, 20.2, 15.5)));
    return cut.imageByApplyingTransform(CGAffineTransformMakeTranslation(5, -2));
  };
  // Background: a moved image, then a cut constant colour under a premultiplied-linear matrix.
  auto movedOther = [&](auto barrier) {
    return barrier(other).imageByApplyingTransform(CGAffineTransformMakeTranslation(-4, 3));
  };
  ColorMatrix half = ColorMatrix::identity();
  half.m[0][0] = 0.5;
  half.m[3][3] = 0.6;
  auto colour = [&](auto barrier) {
    const CIImage c = barrier(CIImage::imageWithColor(CIColor::colorWithRed(0.2, 0.7, 0.4, 0.9))
                                  .imageByCroppingToRect(CGRectMake(0, 0, 19.5, 12)));
    return ColorMatrixNode::imageByApplyingMatrix(c, half).imageByApplyingTransform(
        CGAffineTransformMakeTranslation(6, 8));
  };
  auto none = [](const CIImage& i) { return i; };
  auto barrier = [](const CIImage& i) { return opaque(i); };
  const CGRect r = CGRectMake(-12, -8, 60, 50);
  for (const char* op : {"CISourceOverCompositing", "CILightenBlendMode", "CIMultiplyBlendMode"}) {
    const CIImage folded = composite(op, source(none), composite(op, movedOther(none), colour(none)));
    const CIImage unfolded =
        composite(op, opaque(source(barrier)), composite(op, opaque(movedOther(barrier)), opaque(colour(barrier))));
    // The folded composite reads the images below the offsets, crops and matrices.
    EXPECT_EQ(folded.node()->inputs()[0], img) << op;
    expectSamePixels(folded, unfolded, r);
  }
}

TEST(Folds, CompositeReadsThroughTwoMatricesThatDoNotFoldIntoOne) {
  const auto img = makeTestImageWithAlpha(37, 23, CGPointMake(1, 2));
  const auto picture = makeTestImageWithAlpha(40, 30, CGPointMake(0, 0), 3);
  // An opacity over a biased matrix: the bias would leak into transparent pixels through one
  // folded matrix, so the two stay two matrix nodes.
  ColorMatrix fade = ColorMatrix::identity();
  fade.m[3][3] = 0.6;
  ColorMatrix third = ColorMatrix::identity();
  third.m[0][4] = 0.05;
  third.m[3][3] = 0.9;
  const CGRect r = CGRectMake(-4, -4, 50, 40);
  auto none = [](const CIImage& i) { return i; };
  auto barrier = [](const CIImage& i) { return opaque(i); };
  // A crop below the matrices, an offset and a crop above them.
  auto layer = [&](auto b, int matrices) {
    CIImage c = b(ColorMatrixNode::imageByApplyingMatrix(b(img.imageByCroppingToRect(CGRectMake(2.5, 3, 30, 18))),
                                                         biasedMatrix()));
    if (matrices > 2) c = b(ColorMatrixNode::imageByApplyingMatrix(c, third));
    c = b(ColorMatrixNode::imageByApplyingMatrix(c, fade));
    return c.imageByApplyingTransform(CGAffineTransformMakeTranslation(3, -1)).imageByCroppingToRect(CGRectMake(0, 0, 33.6, 21));
  };
  for (const char* op : {"CISourceOverCompositing", "CIOverlayBlendMode", "CISoftLightBlendMode"}) {
    const CIImage faded = ColorMatrixNode::imageByApplyingMatrix(
        ColorMatrixNode::imageByApplyingMatrix(img, biasedMatrix()), fade);
    ASSERT_TRUE(nodeAs<ColorMatrixNode>(faded));
    EXPECT_EQ(nodeAs<ColorMatrixNode>(faded)->matrix(), fade) << "the two matrices were expected to stay two nodes";
    const CIImage folded = composite(op, layer(none, 2), picture);
    const CIImage unfolded = composite(op, opaque(layer(barrier, 2)), picture);
    // Both matrices run in the composite's pass: it reads the image below them.
    EXPECT_EQ(folded.node()->inputs()[0], img) << op;
    expectSamePixels(folded, unfolded, r);
    CIContextOptions tiles;
    tiles.tileSize = 16;
    EXPECT_TRUE(bitwiseEqual(renderRGBAf(folded, r, tiles), renderRGBAf(unfolded, r))) << op;
    // A third matrix that does not fold stays a node of its own, read by the composite.
    const CIImage three = composite(op, layer(none, 3), picture);
    EXPECT_TRUE(nodeAs<ColorMatrixNode>(three.node()->inputs()[0])) << op;
    expectSamePixels(three, composite(op, opaque(layer(barrier, 3)), picture), r);
  }
  // A constant colour under two matrices is one colour, filled and not read.
  const CIImage flat = CIImage::imageWithColor(CIColor::colorWithRed(0.3, 0.6, 0.2, 0.7)).imageByCroppingToRect(CGRectMake(0, 0, 25, 17));
  auto colour = [&](auto b) {
    return ColorMatrixNode::imageByApplyingMatrix(b(ColorMatrixNode::imageByApplyingMatrix(b(flat), biasedMatrix())), fade);
  };
  const CIImage overColour = composite("CIOverlayBlendMode", colour(none), picture);
  EXPECT_EQ(overColour.node()->inputs().size(), 1u);
  expectSamePixels(overColour, composite("CIOverlayBlendMode", opaque(colour(barrier)), picture), r);
}

// A colour layer (a constant colour, cut to a rectangle and faded) over a picture: the blend
// computes the colour's terms once per run wherever the whole run lies inside the layer, and
// reads it as the general row does where a run crosses its edge. Both give the pixels of the
// same layer read from tiles, bit for bit, whole and tiled, with and without colour management,
// for colours that take each side of the blends' choices.
TEST(Folds, CompositeOfAColourLayerEqualsTheLayerReadFromTiles) {
  const auto picture = makeTestImageWithAlpha(45, 31, CGPointMake(0, 0), 5);
  ColorMatrix fade = ColorMatrix::identity();
  fade.m[3][3] = 0.7;
  auto none = [](const CIImage& i) { return i; };
  auto barrier = [](const CIImage& i) { return opaque(i); };
  const CGRect r = CGRectMake(-3, -2, 50, 36);
  CIContextOptions tiles;
  tiles.tileSize = 16;
  for (const CIColorRef& colour : {CIColor::colorWithRed(1, 1, 1, 1), CIColor::colorWithRed(0.3, 0.6, 0.2, 1),
                                   CIColor::colorWithRed(0.5, 0.9, 0.1, 0.4), CIColor::colorWithRed(0.2, 0.2, 0.2, 0)}) {
    // Cut to the whole picture (every run inside it) and to a rectangle inside (runs across it).
    for (const CGRect& cut : {picture.extent(), CGRectMake(6.5, 3, 20.25, 17)}) {
      auto layer = [&](auto b) {
        return ColorMatrixNode::imageByApplyingMatrix(b(CIImage::imageWithColor(colour).imageByCroppingToRect(cut)), fade);
      };
      for (const char* op : {"CISoftLightBlendMode", "CIHardLightBlendMode", "CIPinLightBlendMode",
                             "CIVividLightBlendMode", "CIScreenBlendMode", "CIOverlayBlendMode"}) {
        const CIImage folded = composite(op, layer(none), picture);
        const CIImage unfolded = composite(op, opaque(layer(barrier)), picture);
        // The colour is not read from a tile: the picture is the only input.
        EXPECT_EQ(folded.node()->inputs().size(), 1u) << op;
        expectSamePixels(folded, unfolded, r);
        EXPECT_TRUE(bitwiseEqual(renderRGBAf(folded, r, tiles), renderRGBAf(unfolded, r))) << op;
        EXPECT_TRUE(bitwiseEqual(renderRGBAf(folded, r, unmanagedTiles()), renderRGBAf(unfolded, r, unmanagedTiles())))
            << op;
      }
    }
  }
}

// A picture composited over itself moved sideways (a faded copy shifted along its rows) reads
// the picture twice on the same rows: where the two reads overlap, one region around both is
// asked for once and both reads take their pixels from it; where they do not (a narrow tile of
// a copy moved further than its width) or the rows differ, each asks for its own. The pixels
// are those of the copy behind a node the folds cannot see through, whole, tiled and threaded.
TEST(Folds, AnImageReadTwiceOnTheSameRowsIsAskedForOnceWhereTheReadsOverlap) {
  const auto picture = makeTestImageWithAlpha(60, 40, CGPointMake(0, 0), 11);
  ColorMatrix fade = ColorMatrix::identity();
  fade.m[3][3] = 0.35;
  auto none = [](const CIImage& i) { return i; };
  auto barrier = [](const CIImage& i) { return opaque(i); };
  CIContextOptions tiles;
  tiles.tileSize = 16;
  const CGRect r = CGRectMake(-4, -3, 70, 48);
  for (const auto& [dx, dy] : {std::pair{7, 0}, std::pair{-5, 0}, std::pair{55, 0}, std::pair{6, 3}}) {
    auto layer = [&](auto b) {
      return ColorMatrixNode::imageByApplyingMatrix(
          b(picture.imageByApplyingTransform(CGAffineTransformMakeTranslation(dx, dy))), fade);
    };
    for (const char* op : {"CIScreenBlendMode", "CISourceOverCompositing"}) {
      const CIImage folded = composite(op, layer(none), picture);
      const CIImage unfolded = composite(op, opaque(layer(barrier)), picture);
      const auto& inputs = folded.node()->inputs();
      ASSERT_EQ(inputs.size(), 2u) << op;
      EXPECT_EQ(inputs[0], picture) << op;
      EXPECT_EQ(inputs[1], picture) << op;
      // A rectangle both reads reach: 40 columns, or for the copy moved by 55 a narrow one
      // whose two reads lie 55 columns apart.
      const PixelRect wide = dx == 55 ? PixelRect{55, 8, 4, 16} : PixelRect{0, 8, 40, 16};
      const PixelRect source = folded.node()->regionOfInterest(0, wide),
                      background = folded.node()->regionOfInterest(1, wide);
      if (dy == 0 && dx != 55) {
        // One region around both reads, asked for by the first: the background asks nothing.
        EXPECT_TRUE(background.empty()) << op << " dx " << dx;
        EXPECT_EQ(source, wide.offset(-dx, 0).intersection(PixelRect::covering(picture.extent())).unionWith(wide))
            << op << " dx " << dx;
      } else {
        // Apart: rows moved, or reads 55 columns apart that a rectangle around both would span.
        EXPECT_FALSE(background.empty()) << op << " dx " << dx << " dy " << dy;
        EXPECT_FALSE(source.empty()) << op << " dx " << dx << " dy " << dy;
      }
      expectSamePixels(folded, unfolded, r);
      EXPECT_TRUE(bitwiseEqual(renderRGBAf(folded, r, tiles), renderRGBAf(unfolded, r, tiles))) << op;
      EXPECT_TRUE(bitwiseEqual(renderRGBAf(folded, r, unmanagedTiles()), renderRGBAf(unfolded, r, unmanagedTiles())))
          << op;
    }
  }
}

TEST(Folds, CompositeReadsTheSourceOfASourceOverOntoNothing) {
  // A resampled layer put on a transparent canvas larger than the layer and smaller in part
  // (the canvas gives the layer its extent), cropped, faded by a matrix and blended over a
  // picture: the blend reads the layer itself.
  const auto picture = makeTestImageWithAlpha(40, 30);
  const auto texture = makeTestImageWithAlpha(13, 9, CGPointMake(0, 0), 5);
  const CIImage layer = texture.imageByApplyingTransform(CGAffineTransformMake(1.7, 0, 0, 2.2, 9.4, -3.1));
  ColorMatrix fade = ColorMatrix::identity();
  fade.m[3][3] = 0.6;
  const CGRect canvas = CGRectMake(0, 0, 40, 30);
  auto build = [&](auto barrier) {
    const CIImage placed =
        composite("CISourceOverCompositing", barrier(layer), CIImage::emptyImage().imageByCroppingToRect(canvas))
            .imageByCroppingToRect(canvas);
    return composite("CIScreenBlendMode", ColorMatrixNode::imageByApplyingMatrix(placed, fade), picture);
  };
  const CIImage folded = build([](const CIImage& i) { return i; });
  const CIImage unfolded = build([](const CIImage& i) { return opaque(i); });
  ASSERT_EQ(folded.node()->inputs().size(), 2u);
  EXPECT_TRUE(nodeAs<TransformNode>(folded.node()->inputs()[0]));
  expectSamePixels(folded, unfolded, CGRectMake(-4, -4, 50, 40));
  // Onto a colour or onto a picture, source-over is not its source: nothing is skipped.
  const CIImage ontoColour = composite(
      "CIScreenBlendMode",
      composite("CISourceOverCompositing", layer,
                CIImage::imageWithColor(CIColor::colorWithRed(0, 0, 0, 0.5)).imageByCroppingToRect(canvas)),
      picture);
  EXPECT_TRUE(nodeAs<ImageNode>(ontoColour.node()->inputs()[0]));
  EXPECT_FALSE(nodeAs<TransformNode>(ontoColour.node()->inputs()[0]));
}

TEST(Folds, CompositeReadsALayerMaskedByABlendWithMaskOfNothing) {
  // The composite family's masked layer: a blend with mask of nothing over the layer (the mask
  // cuts the layer away where it is bright), moved, cropped and faded, then blended over a
  // picture: the blend reads the layer and the mask themselves. Both inputs of the blend carry
  // such a layer, so that the two masked reads of one row must not share a buffer.
  const auto picture = makeTestImageWithAlpha(40, 30);
  const auto layerImage = makeTestImageWithAlpha(36, 26, CGPointMake(2, 1), 3);
  const auto maskImage = makeTestImageWithAlpha(19, 13, CGPointMake(0, 0), 9);
  const CIImage fitted = maskImage.imageByApplyingTransform(CGAffineTransformMake(2.3, 0, 0, 2.6, -1.2, -0.7));
  ColorMatrix fade = ColorMatrix::identity();
  fade.m[3][3] = 0.7;
  const CGRect e = picture.extent();
  auto masked = [&](auto barrier, const CIImage& layer) {  // barrier: hides an image from the folds
    const CIFilterRef blend = CIFilter::filterWithName("CIBlendWithMask");
    blend->setDefaults();
    blend->setValue(CIImage::emptyImage().imageByCroppingToRect(e), kCIInputImageKey);
    blend->setValue(barrier(layer), kCIInputBackgroundImageKey);
    blend->setValue(barrier(fitted), kCIInputMaskImageKey);
    return ColorMatrixNode::imageByApplyingMatrix(
        blend->outputImage().imageByApplyingTransform(CGAffineTransformMakeTranslation(3, -2)).imageByCroppingToRect(e),
        fade);
  };
  auto none = [](const CIImage& i) { return i; };
  for (const char* op : {"CIScreenBlendMode", "CISourceOverCompositing", "CIHueBlendMode"}) {
    const CIImage folded = composite(op, masked(none, layerImage), masked(none, picture));
    const CIImage unfolded = composite(op, opaque(masked(none, layerImage)), opaque(masked(none, picture)));
    // The layers and the masks, nothing in between.
    ASSERT_EQ(folded.node()->inputs().size(), 4u) << op;
    EXPECT_EQ(folded.node()->inputs()[0], layerImage) << op;
    EXPECT_TRUE(nodeAs<TransformNode>(folded.node()->inputs()[1])) << op;
    EXPECT_EQ(folded.node()->inputs()[2], picture) << op;
    expectSamePixels(folded, unfolded, CGRectMake(-4, -4, 50, 40));
    CIContextOptions tiles;
    tiles.tileSize = 16;
    EXPECT_TRUE(bitwiseEqual(renderRGBAf(folded, e, tiles), renderRGBAf(unfolded, e))) << op;
  }
  // A matrix below the mask would have to run before it: it stays a node of its own.
  const CIImage colouredLayer = ColorMatrixNode::imageByApplyingMatrix(layerImage, biasedMatrix());
  const CIImage withInnerMatrix = composite("CIScreenBlendMode", masked(none, colouredLayer), picture);
  const CIImage withInnerMatrixUnfolded = composite("CIScreenBlendMode", opaque(masked(none, colouredLayer)), picture);
  EXPECT_TRUE(nodeAs<ColorMatrixNode>(withInnerMatrix.node()->inputs()[0]));
  expectSamePixels(withInnerMatrix, withInnerMatrixUnfolded, CGRectMake(-4, -4, 50, 40));
  // A constant layer is filled, not read: its blend with mask stays a node of its own.
  const CIImage flat = CIImage::imageWithColor(CIColor::colorWithRed(0.9, 0.2, 0.1)).imageByCroppingToRect(e);
  const CIImage overFlat = composite("CIScreenBlendMode", masked(none, flat), picture);
  EXPECT_FALSE(nodeAs<TransformNode>(overFlat.node()->inputs()[0]));
  expectSamePixels(overFlat, composite("CIScreenBlendMode", opaque(masked(none, flat)), picture), CGRectMake(-4, -4, 50, 40));
}

TEST(Folds, BlendWithMaskReadsConstantsWithoutBuffers) {
  const auto img = makeTestImageWithAlpha(30, 20);
  const CGRect e = img.extent();
  auto build = [&](auto barrier) {
    const CIFilterRef blend = CIFilter::filterWithName("CIBlendWithMask");
    blend->setDefaults();
    blend->setValue(img, kCIInputImageKey);
    blend->setValue(barrier(CIImage::imageWithColor(CIColor::colorWithRed(0.3, 0.6, 0.9)).imageByCroppingToRect(e)),
                    kCIInputBackgroundImageKey);
    blend->setValue(barrier(CIImage::imageWithColor(CIColor::colorWithRed(1, 1, 1))
                                .imageByCroppingToRect(CGRectMake(0, 0, 26, 16))
                                .imageByApplyingTransform(CGAffineTransformMakeTranslation(2, 2))),
                    kCIInputMaskImageKey);
    return blend->outputImage();
  };
  const CIImage folded = build([](const CIImage& i) { return i; });
  const CIImage unfolded = build([](const CIImage& i) { return opaque(i); });
  EXPECT_EQ(folded.node()->inputs().size(), 1u);  // the picture only
  expectSamePixels(folded, unfolded, CGRectMake(-2, -2, 34, 24));
}

TEST(Folds, CompositeAsksNoImageForTheGapBetweenItsInputs) {
  const auto px = makeTestPixels(40, 10);
  const auto recorder = std::make_shared<RecordingNode>(CIImage::imageWithRGBAf(px.data(), 40, 10));
  const CIImage shared(recorder);
  // The image and a copy of it 500 rows further down, joined: a tile spanning both must not
  // need the 500 rows between them.
  const CIImage joined =
      composite("CISourceOverCompositing", shared, shared.imageByApplyingTransform(CGAffineTransformMakeTranslation(0, -500)));
  CIContextOptions one;
  one.tileSize = 4096;
  one.threads = 1;
  const auto out = renderRGBAf(joined, joined.extent(), one);
  EXPECT_EQ(recorder->largest, 40 * 10);
  // Both copies arrive.
  const std::size_t rowFloats = 40 * 4;
  EXPECT_TRUE(std::equal(px.begin(), px.end(), out.begin()));
  EXPECT_TRUE(std::equal(px.begin(), px.end(), out.end() - std::ptrdiff_t(10 * rowFloats)));
}

TEST(Folds, FlipsOnThePixelGridCopyTexelsAndNeedNoApron) {
  const int w = 13, h = 9;
  const auto px = makeTestPixels(w, h, 3, true);
  const CIImage img = CIImage::imageWithRGBAf(px.data(), w, h, CGPointMake(4, -2));
  const CGRect e = img.extent();
  // About the picture's centre lines, as a mirror is made: vertical, horizontal, and both.
  auto flip = [&](double sx, double sy) {
    CGAffineTransform t = CGAffineTransformMakeTranslation(CGRectGetMidX(e), CGRectGetMidY(e));
    t = CGAffineTransformScale(t, sx, sy);
    return CGAffineTransformTranslate(t, -CGRectGetMidX(e), -CGRectGetMidY(e));
  };
  for (auto [sx, sy] : {std::pair{1.0, -1.0}, std::pair{-1.0, 1.0}, std::pair{-1.0, -1.0}}) {
    const CIImage flipped = img.imageByApplyingTransform(flip(sx, sy));
    ASSERT_TRUE(nodeAs<TransformNode>(flipped));
    EXPECT_EQ(flipped.extent(), e);
    // Rows of px and of the render both run from the top.
    const auto out = renderRGBAf(flipped, CGRectInset(e, -2, -2));
    for (int y = 0; y < h + 4; ++y)
      for (int x = 0; x < w + 4; ++x) {
        const int ix = x - 2, iy = y - 2;
        const bool inside = ix >= 0 && ix < w && iy >= 0 && iy < h;
        const int mx = sx < 0 ? w - 1 - ix : ix, my = sy < 0 ? h - 1 - iy : iy;
        for (int c = 0; c < 4; ++c) {
          const float want = inside ? px[std::size_t((my * w + mx) * 4 + c)] : 0.0f;
          ASSERT_EQ(out[std::size_t((y * (w + 4) + x) * 4 + c)], want) << sx << " " << sy << " at " << x << "," << y;
        }
      }
    // Each output pixel is one input texel: the region of interest is the mirrored rectangle.
    const PixelRect part{5, 0, 4, 3};
    const PixelRect roi = flipped.node()->regionOfInterest(0, part);
    EXPECT_EQ(roi.width, part.width);
    EXPECT_EQ(roi.height, part.height);
  }
  // A half-pixel flip is not on the grid and still resamples.
  const CIImage half = img.imageByApplyingTransform(CGAffineTransformMake(1, 0, 0, -1, 0, 0.5));
  EXPECT_GT(half.node()->regionOfInterest(0, PixelRect{0, 0, 4, 3}).height, 3);
}

// A radial gradient under a scale of its axes is drawn at the output's pixels: one gradient
// node (no resampling transform), whose values are the ellipse's formula at each pixel centre.
TEST(Folds, ScaledRadialGradientIsDrawnAtTheOutputPixelsAsAnEllipse) {
  auto g = CIFilter::filterWithName("CIRadialGradient");
  ASSERT_TRUE(g);
  g->setDefaults();
  g->setValue(CIVector::vectorWithX(100, 50), kCIInputCenterKey);
  g->setValue(10.0, "inputRadius0");
  g->setValue(100.0, "inputRadius1");
  g->setValue(Value(CIColor::colorWithRed(1, 1, 1, 1)), "inputColor0");
  g->setValue(Value(CIColor::colorWithRed(0, 0, 0, 1)), "inputColor1");
  const CIImage gradient = g->outputImage();
  // The square (0, -50, 200, 200) scaled by (1, 0.5) and moved up by 25 lies on (0, 0, 200, 100).
  const CIImage layer = gradient.imageByCroppingToRect(CGRectMake(0, -50, 200, 200))
                            .imageByApplyingTransform(CGAffineTransformMakeScale(1, 0.5))
                            .imageByApplyingTransform(CGAffineTransformMakeTranslation(0, 25));
  EXPECT_EQ(layer.extent(), CGRectMake(0, 0, 200, 100));
  const auto* crop = nodeAs<CropNode>(layer);
  ASSERT_TRUE(crop);
  EXPECT_EQ(crop->inputs()[0].node()->name(), "CIRadialGradient");
  EXPECT_EQ(nodeAs<TransformNode>(crop->inputs()[0]), nullptr);
  // Centre (100, 50) of the output; x offsets count as they are, y offsets twice.
  const auto pixels = renderRGBAf(layer, layer.extent(), unmanagedTiles());
  for (int y : {0, 13, 49, 50, 77, 99})
    for (int x : {0, 31, 99, 100, 150, 199}) {
      const double dx = x + 0.5 - 100, dy = (y + 0.5 - 50) * 2;
      const double t = std::clamp((std::sqrt(dx * dx + dy * dy) - 10) / 90, 0.0, 1.0);
      const float* p = &pixels[(std::size_t(99 - y) * 200 + std::size_t(x)) * 4];
      EXPECT_NEAR(p[0], 1 - t, 1e-6) << x << "," << y;
      EXPECT_EQ(p[3], 1.0f) << x << "," << y;
    }
  // The same drawing as the gradient resampled (a hidden node the fold cannot see through),
  // away from the resampled edges, within the resampling's smoothing of the ramp.
  const CIImage resampled = opaque(gradient.imageByCroppingToRect(CGRectMake(0, -50, 200, 200)))
                                .imageByApplyingTransform(CGAffineTransformMakeScale(1, 0.5))
                                .imageByApplyingTransform(CGAffineTransformMakeTranslation(0, 25));
  const CGRect inner = CGRectMake(2, 2, 196, 96);
  EXPECT_LT(maxAbsDifference(renderRGBAf(layer, inner, unmanagedTiles()), renderRGBAf(resampled, inner, unmanagedTiles())),
            0.01);
}

// Transforms the gradient cannot draw (rotations, shears) still resample it.
TEST(Folds, RotatedRadialGradientIsResampled) {
  auto g = CIFilter::filterWithName("CIRadialGradient");
  ASSERT_TRUE(g);
  g->setDefaults();
  const CIImage rotated = g->outputImage().imageByApplyingTransform(CGAffineTransformMakeRotation(0.3));
  EXPECT_NE(nodeAs<TransformNode>(rotated), nullptr);
}

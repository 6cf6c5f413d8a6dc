// The concrete members of the composite family and the texture frame: their own edge cases,
// each against its hand-wired graph of built-ins, and archiving and copying.
#include <gtest/gtest.h>

#include <cmath>

#include "CompositeTestSupport.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "Filters/QVFilterBlurComposite.h"
#include "Filters/QVFilterColorComposite.h"
#include "Filters/QVFilterGradientComposite.h"
#include "Filters/QVFilterNoiseComposite.h"
#include "Filters/QVFilterOffsetComposite.h"
#include "Filters/QVFilterScaleComposite.h"
#include "Filters/QVFilterTextureBorder.h"
#include "Filters/QVFilterTextureComposite.h"
#include "Filters/QVFilterTextureTile.h"
#include "Foundation/NSException.h"
#include "Foundation/NSKeyedArchiver.h"
#include "Framework/QVSizeScaledToRect.h"
#include "Textures/_QVFilterTextureImageProvider.h"

using namespace qvcomp;

namespace {

template <class T>
std::shared_ptr<T> over(const std::string& name, const CIImage& image, double alpha = 1.0,
                        const char* op = "CISourceOverCompositing") {
  auto f = make<T>(name);
  f->setValue(image, kCIInputImageKey);
  f->setValue(alpha, "inputCompositeAlpha");
  f->setValue(op, "inputCompositeFilterName");
  return f;
}

Value rule(const char* source, const char* destination, Value scale = {}, Value offset = {}) {
  Dictionary d{{"sourceAttribute", source}, {"destinationAttribute", destination}};
  if (scale) d["scale"] = scale;
  if (offset) d["offset"] = offset;
  return Value(d);
}

std::string reasonOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSInternalInconsistencyException);
    return e.reason();
  }
  return "(nothing raised)";
}

}  // namespace

class FamilyFilters : public TextureCatalogueTest {};

// ---- Nil inputs ----

TEST_F(FamilyFilters, EveryFilterGivesNilWithoutInputImage) {
  for (const char* name : {"QVFilterColorComposite", "QVFilterBlurComposite", "QVFilterNoiseComposite",
                           "QVFilterTextureComposite", "QVFilterTextureTile", "QVFilterTextureBorder",
                           "QVFilterGradientComposite", "QVFilterOffsetComposite", "QVFilterScaleComposite"}) {
    CIFilterRef f = makeFilter(name);
    ASSERT_TRUE(f) << name;
    EXPECT_TRUE(f->outputImage().isNil()) << name;
    EXPECT_EQ(f->outputKeys(), std::vector<std::string>{"outputImage"}) << name;
  }
}

// ---- Colour, blur, noise ----

TEST_F(FamilyFilters, ColourLayerHasTheInputExtentAndMatchesItsGraph) {
  const CIImage photo = makeTestImage(30, 20, CGPointMake(5, 7));
  auto f = over<QVFilterColorComposite>("QVFilterColorComposite", photo, 0.4, "CIScreenBlendMode");
  f->setInputColor(CIColor::colorWithRed(0.9, 0.6, 0.3, 1));
  auto fade = builtin("CIColorMatrix");
  const CIImage layer = CIImage::imageWithColor(f->inputColor()).imageByCroppingToRect(photo.extent());
  EXPECT_EQ(layer.extent(), photo.extent());
  fade->setValue(CIVector::vectorWithX(0, 0, 0, 0.4), "inputAVector");
  fade->setValue(layer, kCIInputImageKey);
  auto op = builtin("CIScreenBlendMode");
  op->setValue(photo, kCIInputBackgroundImageKey);
  op->setValue(fade->outputImage(), kCIInputImageKey);
  expectSamePixels(f->outputImage(), op->outputImage().imageByCroppingToRect(photo.extent()), photo.extent());
}

TEST_F(FamilyFilters, BlurCompositeMatchesItsGraphAndKeepsTheBlurInsideTheExtent) {
  const CIImage photo = makeTestImage(40, 30);
  auto f = over<QVFilterBlurComposite>("QVFilterBlurComposite", photo, 0.5, "CIScreenBlendMode");
  f->setInputRadius(4.0);
  f->setInputBlurFilterName("CIGaussianBlur");
  std::vector<std::string> keys = f->QVFilterComposite::customInputKeys();
  keys.insert(keys.end(), {"inputRadius", "inputBlurFilterName"});
  EXPECT_EQ(f->inputKeys(), keys);

  auto blur = makeFilter("QVFilterBlur");
  blur->setValue("CIGaussianBlur", "inputBlurFilterName");
  blur->setValue(photo, kCIInputImageKey);
  blur->setValue(4.0, kCIInputRadiusKey);
  const CIImage layer = blur->outputImage().imageByCroppingToRect(photo.extent());
  EXPECT_EQ(layer.extent(), photo.extent());
  auto fade = builtin("CIColorMatrix");
  fade->setValue(CIVector::vectorWithX(0, 0, 0, 0.5), "inputAVector");
  fade->setValue(layer, kCIInputImageKey);
  auto op = builtin("CIScreenBlendMode");
  op->setValue(photo, kCIInputBackgroundImageKey);
  op->setValue(fade->outputImage(), kCIInputImageKey);
  expectSamePixels(f->outputImage(), op->outputImage().imageByCroppingToRect(photo.extent()), photo.extent());
}

TEST_F(FamilyFilters, NoiseWithUnknownOrNilOperationReturnsTheInputItself) {
  const CIImage photo = makeTestImage(16, 16);
  auto f = over<QVFilterNoiseComposite>("QVFilterNoiseComposite", photo, 0.5, "CINoSuchBlendMode");
  EXPECT_EQ(f->outputImage(), photo);
  f->setValue(Value(), "inputCompositeFilterName");
  EXPECT_EQ(f->outputImage(), photo);
  EXPECT_EQ(f->inputKeys(), f->QVFilterComposite::customInputKeys());
}

TEST_F(FamilyFilters, NoiseLayerIsGreyNoiseOfTheInputExtent) {
  const CIImage photo = makeTestImage(32, 24);
  auto f = over<QVFilterNoiseComposite>("QVFilterNoiseComposite", photo, 0.3, "CIOverlayBlendMode");
  auto random = builtin("CIRandomGenerator");
  auto grey = makeFilter("QVFilterColorControls");
  grey->setValue(0.0, "inputSaturation");
  grey->setValue(random->outputImage().imageByCroppingToRect(photo.extent()), kCIInputImageKey);
  const CIImage layer = grey->outputImage();
  EXPECT_EQ(layer.extent(), photo.extent());
  const auto p = pixelAt(layer, 5, 5);
  EXPECT_NEAR(p[0], p[1], 1e-5);
  EXPECT_NEAR(p[1], p[2], 1e-5);
  auto fade = builtin("CIColorMatrix");
  fade->setValue(CIVector::vectorWithX(0, 0, 0, 0.3), "inputAVector");
  fade->setValue(layer, kCIInputImageKey);
  auto op = builtin("CIOverlayBlendMode");
  op->setValue(photo, kCIInputBackgroundImageKey);
  op->setValue(fade->outputImage(), kCIInputImageKey);
  expectSamePixels(f->outputImage(), op->outputImage().imageByCroppingToRect(photo.extent()), photo.extent());
}

// ---- Texture composite: placement ----

TEST_F(FamilyFilters, PlacementWithoutRulesIsTheAspectFitting) {
  const CGRect input = CGRectMake(0, 0, 1000, 800);
  const CGRect texture = CGRectMake(0, 0, 400, 200);
  EXPECT_EQ(QVFilterTextureCompositePlacement(texture, input, Value()),
            QVSizeScaledToRect(texture.size, input, kQVGravityResizeAspectMax));
  EXPECT_EQ(QVFilterTextureCompositePlacement(texture, input, Value(Array{})),
            QVSizeScaledToRect(texture.size, input, kQVGravityResizeAspectMax));
}

TEST_F(FamilyFilters, WidthRuleGrowsA400WideTextureTo500AndLeavesA600WideOne) {
  const CGRect input = CGRectMake(0, 0, 1000, 800);
  const Value widthRule = rule("width", "width", 0.5);
  CGRect r = CGRectMake(10, 20, 400, 300);
  QVFilterTextureCompositeApplyConstraint(r, widthRule, input);
  EXPECT_EQ(r, CGRectMake(10, 20, 500, 375));  // origin kept, height in proportion
  CGRect wide = CGRectMake(0, 0, 600, 450);
  QVFilterTextureCompositeApplyConstraint(wide, widthRule, input);
  EXPECT_EQ(wide, CGRectMake(0, 0, 600, 450));
  CGRect low = CGRectMake(0, 0, 300, 100);
  QVFilterTextureCompositeApplyConstraint(low, rule("height", "height", 0.25), input);
  EXPECT_EQ(low, CGRectMake(0, 0, 600, 200));
}

TEST_F(FamilyFilters, PositionRulesOfTheIndexVocabulary) {
  const CGRect input = CGRectMake(0, 0, 1000, 800);
  // MaxX with offset -0.05: the right edge at 1000 - 0.05 x 1000 = 950.
  CGRect r = CGRectMake(0, 0, 300, 200);
  QVFilterTextureCompositeApplyConstraint(r, rule("MaxX", "MaxX", {}, -0.05), input);
  EXPECT_DOUBLE_EQ(CGRectGetMaxX(r), 950.0);
  EXPECT_DOUBLE_EQ(CGRectGetWidth(r), 300.0);
  // Scale first, then the offset times the height for a "Y" attribute.
  QVFilterTextureCompositeApplyConstraint(r, rule("MaxY", "MinY", 0.5, 0.1), input);
  EXPECT_DOUBLE_EQ(r.origin.y, 800 * 0.5 + 0.1 * 800);
  QVFilterTextureCompositeApplyConstraint(r, rule("MidX", "MidX"), input);
  EXPECT_DOUBLE_EQ(r.origin.x, 500 - 150);
  QVFilterTextureCompositeApplyConstraint(r, rule("MinX", "MinX", {}, 0.02), input);
  EXPECT_DOUBLE_EQ(r.origin.x, 20);
  QVFilterTextureCompositeApplyConstraint(r, rule("MaxY", "MaxY"), input);
  EXPECT_DOUBLE_EQ(r.origin.y, 600);
  // Rules run in order over the fitted rectangle.
  const CGRect placed = QVFilterTextureCompositePlacement(CGRectMake(0, 0, 400, 320), input,
                                                          Value(Array{rule("width", "width", 1.5), rule("MinX", "MaxX")}));
  EXPECT_EQ(placed, CGRectMake(-1500, 0, 1500, 1200));
}

TEST_F(FamilyFilters, MidYOfAnOddHeightSubtractsTheFlooredHalf) {
  // A texture 301 high centred on the input's MidY 400: y = 400 - floor(150.5) = 250.
  CGRect r = CGRectMake(0, 0, 200, 301);
  QVFilterTextureCompositeApplyConstraint(r, rule("MidY", "MidY"), CGRectMake(0, 0, 1000, 800));
  EXPECT_DOUBLE_EQ(r.origin.y, 250.0);
  EXPECT_DOUBLE_EQ(r.size.height, 301.0);
  const CGRect input = CGRectMake(0, 0, 301, 301);
  // Unknown destinations are ignored.
  EXPECT_EQ(QVFilterTextureCompositePlacement(CGRectMake(0, 0, 301, 301), input, Value(Array{rule("MidY", "Middle")})),
            CGRectMake(0, 0, 301, 301));
}

TEST_F(FamilyFilters, BadRulesRaiseInternalInconsistencyWithTheirReasons) {
  const CGRect input = CGRectMake(0, 0, 100, 100);
  EXPECT_EQ(reasonOf([&] { QVFilterTextureCompositePlacement(input, input, Value(Array{rule("Centre", "MinX")})); }),
            "QVFilterTextureCompositeSourceValue, cannot evaluate source attribute (Centre)");
  EXPECT_EQ(reasonOf([&] { QVFilterTextureCompositePlacement(input, input, Value(Array{rule("width", "MinX", {}, 0.1)})); }),
            "QVFilterTextureCompositeOffsetCoefficient, cannot evaluate offsetCoefficient for source attribute (width)");
  EXPECT_EQ(reasonOf([&] { QVFilterTextureCompositeOffsetCoefficient(input, "height"); }),
            "QVFilterTextureCompositeOffsetCoefficient, cannot evaluate offsetCoefficient for source attribute (height)");
  EXPECT_DOUBLE_EQ(QVFilterTextureCompositeOffsetCoefficient(CGRectMake(0, 0, 30, 70), "MidY"), 70.0);
  EXPECT_DOUBLE_EQ(QVFilterTextureCompositeOffsetCoefficient(CGRectMake(0, 0, 30, 70), "MaxX"), 30.0);
}

// ---- Texture composite: output ----

TEST_F(FamilyFilters, TextureCompositeMatchesItsGraph) {
  const CIImage photo = makeTestImage(60, 40);
  auto f = over<QVFilterTextureComposite>("QVFilterTextureComposite", photo, 0.7, "CIScreenBlendMode");
  f->setValue(textureId("tile256"), "inputTextureName");
  ASSERT_TRUE(f->inputTextureIdentifier());

  const CIImage texture = _QVFilterTextureStore::imageForTextureIdentifier(f->inputTextureIdentifier(), photo.extent().size);
  const CGRect rect = QVSizeScaledToRect(texture.extent().size, photo.extent(), kQVGravityResizeAspectMax);
  const CIImage scaled = texture.imageByApplyingTransform(
      CGAffineTransformMakeScale(rect.size.width / texture.extent().size.width, rect.size.height / texture.extent().size.height));
  const CIImage placed = scaled.imageByApplyingTransform(
      CGAffineTransformMakeTranslation(rect.origin.x - scaled.extent().origin.x, rect.origin.y - scaled.extent().origin.y));
  auto canvas = builtin("CISourceOverCompositing");
  canvas->setValue(CIImage::emptyImage().imageByCroppingToRect(photo.extent()), kCIInputBackgroundImageKey);
  canvas->setValue(placed, kCIInputImageKey);
  const CIImage layer = canvas->outputImage().imageByCroppingToRect(photo.extent());
  auto fade = builtin("CIColorMatrix");
  fade->setValue(CIVector::vectorWithX(0, 0, 0, 0.7), "inputAVector");
  fade->setValue(layer, kCIInputImageKey);
  auto op = builtin("CIScreenBlendMode");
  op->setValue(photo, kCIInputBackgroundImageKey);
  op->setValue(fade->outputImage(), kCIInputImageKey);
  expectSamePixels(f->outputImage(), op->outputImage().imageByCroppingToRect(photo.extent()), photo.extent());
}

TEST_F(FamilyFilters, TextureCompositeRenderedAgainAfterAnEditDoesNotDecodeItsTextureAgain) {
  const CIImage photo = makeTestImage(60, 40);
  auto f = over<QVFilterTextureComposite>("QVFilterTextureComposite", photo, 0.7, "CIScreenBlendMode");
  f->setValue(textureId("tile256"), "inputTextureName");
  const std::uint64_t before = _QVFilterTextureImageProvider::decodeCount();
  const auto first = renderRGBA8(f->outputImage(), photo.extent());
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 1);
  // The same filter rendered again, and again after its opacity changed, as an interactive
  // preview does: the texture's decoded bitmap is reused.
  EXPECT_EQ(renderRGBA8(f->outputImage(), photo.extent()), first);
  f->setValue(0.3, "inputCompositeAlpha");
  EXPECT_NE(renderRGBA8(f->outputImage(), photo.extent()), first);
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 1);
}

TEST_F(FamilyFilters, TextureCompositeWithoutNameOrTextureReturnsTheInput) {
  const CIImage photo = makeTestImage(20, 20);
  auto f = over<QVFilterTextureComposite>("QVFilterTextureComposite", photo);
  EXPECT_EQ(f->outputImage(), photo);
  f->setInputTextureName(textureId("missing"));
  EXPECT_EQ(f->outputImage(), photo);
  f->setInputTextureName(tagKey("no-such-tag"));
  EXPECT_EQ(f->outputImage(), photo);
}

TEST_F(FamilyFilters, TextureNameFromATagTwiceGivesTwoTextures) {
  auto f = make<QVFilterTextureComposite>("QVFilterTextureComposite");
  f->setValue(Value(tagKey("pair")), "inputTextureName");
  const std::string first = f->inputTextureIdentifier()->absoluteString();
  f->setValue(Value(tagKey("pair")), "inputTextureName");
  EXPECT_NE(f->inputTextureIdentifier()->absoluteString(), first);
}

// ---- Texture tile ----

TEST_F(FamilyFilters, TileRepeatsA256TextureFourAcrossAndThreeUp) {
  const CIImage input = CIImage::imageWithColor(CIColor::colorWithRed(0, 0, 0, 1)).imageByCroppingToRect(CGRectMake(0, 0, 1000, 600));
  auto f = over<QVFilterTextureTile>("QVFilterTextureTile", input);
  f->setValue(textureId("tile256"), "inputTextureName");
  const CIImage out = f->outputImage();
  ASSERT_TRUE(out);
  EXPECT_EQ(out.extent(), input.extent());
  // The texture's pixel (x, y from its top) holds red x and green y: the same texel shows at
  // every multiple of 256 from the origin, the fourth column and third row cut.
  const CIImage texture = _QVFilterTextureStore::imageForTextureIdentifier(f->inputTextureIdentifier(), CGSizeZero);
  for (double x : {10.0, 200.0})
    for (double y : {20.0, 130.0}) {
      const auto t = pixelAt(texture, x, y);
      for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 3; ++j) {
          const double ox = x + 256 * i, oy = y + 256 * j;
          if (ox >= 1000 || oy >= 600) continue;
          const auto p = pixelAt(out, ox, oy);
          EXPECT_NEAR(p[0], t[0], 1e-5) << ox << "," << oy;
          EXPECT_NEAR(p[1], t[1], 1e-5) << ox << "," << oy;
        }
    }
  EXPECT_NE(pixelAt(out, 10, 20)[1], pixelAt(out, 10, 150)[1]);
}

TEST_F(FamilyFilters, TileWithoutReadableTextureReturnsTheInput) {
  const CIImage photo = makeTestImage(20, 20);
  auto f = over<QVFilterTextureTile>("QVFilterTextureTile", photo);
  EXPECT_EQ(f->outputImage(), photo);
  f->setInputTextureName(textureId("missing"));
  EXPECT_EQ(f->outputImage(), photo);
  std::vector<std::string> keys = f->QVFilterComposite::customInputKeys();
  keys.insert(keys.end(), {"inputTextureName", "inputTextureIdentifier"});
  EXPECT_EQ(f->inputKeys(), keys);
  EXPECT_TRUE(QVFilterTextureTile::textureTileKernel());
}

// ---- Texture border ----

TEST_F(FamilyFilters, BorderWithoutFrameReturnsTheInput) {
  const CIImage photo = makeTestImage(20, 20);
  auto f = make<QVFilterTextureBorder>("QVFilterTextureBorder");
  f->setInputImage(photo);
  EXPECT_EQ(f->outputImage(), photo);
  EXPECT_TRUE(f->outputTextureMatchedToInputImageOrientation().isNil());
  f->setInputTextureName(textureId("missing"));
  EXPECT_EQ(f->outputImage(), photo);
}

TEST_F(FamilyFilters, BorderOrientationMatchingWithIdentityLeavesTheFrame) {
  // A square frame never turns: matching asked for, the transform is the identity.
  const CIImage photo = makeTestImage(40, 20);
  auto f = make<QVFilterTextureBorder>("QVFilterTextureBorder");
  f->setInputImage(photo);
  f->setValue(textureId("a"), "inputTextureName");
  f->setInputTextureShouldMatchInputImageOrientation(Value::boolean(true));
  EXPECT_EQ(f->outputTextureMatchedToInputImageOrientation(), Value::boolean(false));
  const CIImage matched = f->outputImage();
  f->setInputTextureShouldMatchInputImageOrientation(Value::boolean(false));
  expectSamePixels(matched, f->outputImage(), CGRectMake(0, 0, 32, 32));
  // The output takes the frame's rectangle: the 32 x 32 frame.
  EXPECT_EQ(matched.extent(), CGRectMake(0, 0, 32, 32));
}

// ---- Gradient ----

TEST_F(FamilyFilters, GradientIsDrawnInTheLongerSideSquareAndStretchedToTheImage) {
  const CIImage input = CIImage::imageWithColor(CIColor::colorWithRed(0, 0, 0, 1)).imageByCroppingToRect(CGRectMake(0, 0, 200, 100));
  auto f = over<QVFilterGradientComposite>("QVFilterGradientComposite", input);
  f->setInputRadius0(0.0);
  f->setInputRadius1(0.5);
  f->setInputColor0(CIColor::colorWithRed(1, 1, 1, 1));
  f->setInputColor1(CIColor::colorWithRed(0, 0, 0, 1));
  // Hand-wired: centre (100, 50), radius 100, the square (0, -50, 200, 200) scaled by (1, 0.5).
  auto g = builtin("CIRadialGradient");
  g->setValue(CIVector::vectorWithX(100, 50), kCIInputCenterKey);
  g->setValue(0.0, "inputRadius0");
  g->setValue(100.0, "inputRadius1");
  g->setValue(f->inputColor0(), "inputColor0");
  g->setValue(f->inputColor1(), "inputColor1");
  const CIImage layer = g->outputImage()
                            .imageByCroppingToRect(CGRectMake(0, -50, 200, 200))
                            .imageByApplyingTransform(CGAffineTransformMakeScale(1, 0.5))
                            .imageByApplyingTransform(CGAffineTransformMakeTranslation(0, 25));
  EXPECT_EQ(layer.extent(), input.extent());
  auto layered = builtin("CISourceOverCompositing");
  layered->setValue(input, kCIInputBackgroundImageKey);
  layered->setValue(layer, kCIInputImageKey);
  const CIImage out = f->outputImage();
  expectSamePixels(out, layered->outputImage().imageByCroppingToRect(input.extent()), input.extent());
  // White at the centre, black at the middle of every edge: an ellipse touching all four.
  EXPECT_GT(pixelAt(out, 99.5, 49.5)[0], 0.97f);
  EXPECT_LT(pixelAt(out, 0, 50)[0], 0.02f);
  EXPECT_LT(pixelAt(out, 199, 50)[0], 0.02f);
  EXPECT_LT(pixelAt(out, 100, 0)[0], 0.03f);
  EXPECT_LT(pixelAt(out, 100, 99)[0], 0.03f);
}

TEST_F(FamilyFilters, GradientRadiiAreFlooredAfterMultiplying) {
  const CIImage input = makeTestImage(100, 100);
  auto f = over<QVFilterGradientComposite>("QVFilterGradientComposite", input, 0.5);
  f->setInputRadius0(0.1);
  f->setInputRadius1(0.333);
  f->setInputColor0(CIColor::colorWithRed(1, 0, 0, 1));
  f->setInputColor1(CIColor::colorWithRed(0, 0, 1, 1));
  auto g = builtin("CIRadialGradient");
  g->setValue(CIVector::vectorWithX(50, 50), kCIInputCenterKey);
  g->setValue(10.0, "inputRadius0");
  g->setValue(33.0, "inputRadius1");  // floor(0.333 x 100)
  g->setValue(f->inputColor0(), "inputColor0");
  g->setValue(f->inputColor1(), "inputColor1");
  auto fade = builtin("CIColorMatrix");
  fade->setValue(CIVector::vectorWithX(0, 0, 0, 0.5), "inputAVector");
  fade->setValue(g->outputImage().imageByCroppingToRect(input.extent()), kCIInputImageKey);
  auto op = builtin("CISourceOverCompositing");
  op->setValue(input, kCIInputBackgroundImageKey);
  op->setValue(fade->outputImage(), kCIInputImageKey);
  expectSamePixels(f->outputImage(), op->outputImage().imageByCroppingToRect(input.extent()), input.extent());
}

TEST_F(FamilyFilters, GradientWithUnknownOperationReturnsTheInput) {
  const CIImage input = makeTestImage(10, 10);
  auto f = over<QVFilterGradientComposite>("QVFilterGradientComposite", input, 1.0, "CINope");
  EXPECT_EQ(f->outputImage(), input);
  const Value attrs = f->customAttributes();
  EXPECT_EQ(CIColor::fromValue(attrs["inputColor0"][kCIAttributeDefault])->stringRepresentation(), "0.0 0.0 0.0 1.0");
  EXPECT_EQ(CIColor::fromValue(attrs["inputColor1"][kCIAttributeIdentity])->stringRepresentation(), "0.0 0.0 0.0 1.0");
}

// ---- Offset and scale ----

TEST_F(FamilyFilters, OffsetShiftsByTheFlooredFractionAndCropsToTheOverlap) {
  const CIImage input = makeTestImage(400, 50);
  auto f = over<QVFilterOffsetComposite>("QVFilterOffsetComposite", input);
  f->setInputOffset(0.25);
  EXPECT_EQ(f->outputImage().extent(), CGRectMake(100, 0, 300, 50));
  // The copy covers the input, shifted: pixel 150 shows the input's 50.
  const auto a = pixelAt(f->outputImage(), 150, 10), b = pixelAt(input, 50, 10);
  EXPECT_NEAR(a[0], b[0], 1e-6);
  f->setInputOffset(-0.25);
  EXPECT_EQ(f->outputImage().extent(), CGRectMake(0, 0, 300, 50));
  f->setInputOffset(0.001);
  EXPECT_EQ(f->outputImage().extent(), input.extent());
  expectSamePixels(f->outputImage(), input, input.extent());
  f->setInputOffset(Value());
  EXPECT_EQ(f->outputImage().extent(), input.extent());
}

TEST_F(FamilyFilters, ScaleAnchorsTheCopyAtTheOrigin) {
  const CIImage input = makeTestImage(200, 200);
  auto f = over<QVFilterScaleComposite>("QVFilterScaleComposite", input);
  f->setInputScale(0.5);
  const CIImage half = f->outputImage();
  EXPECT_EQ(half.extent(), input.extent());
  const CIImage expectedHalf = input.imageByApplyingTransform(CGAffineTransformMakeScale(0.5, 0.5));
  for (double p : {10.0, 60.0, 90.0}) EXPECT_NEAR(pixelAt(half, p, p)[0], pixelAt(expectedHalf, p, p)[0], 1e-5);
  EXPECT_NEAR(pixelAt(half, 150, 150)[0], pixelAt(input, 150, 150)[0], 1e-6);

  f->setInputScale(2.0);
  const CIImage twice = f->outputImage();
  EXPECT_EQ(twice.extent(), input.extent());
  const CIImage expectedTwice = input.imageByApplyingTransform(CGAffineTransformMakeScale(2, 2));
  for (double p : {10.0, 150.0}) EXPECT_NEAR(pixelAt(twice, p, p)[1], pixelAt(expectedTwice, p, p)[1], 1e-5);

  f->setInputScale(Value());
  EXPECT_EQ(f->outputImage(), input);
}

// ---- Archiving and copying ----

namespace {

// The three texture filters of this program's copy of the plug-in, by name.
std::vector<std::pair<std::string, CIFilterRef>> textureFilters() {
  return {{"QVFilterTextureComposite", make<QVFilterTextureComposite>("QVFilterTextureComposite")},
          {"QVFilterTextureTile", make<QVFilterTextureTile>("QVFilterTextureTile")},
          {"QVFilterTextureBorder", make<QVFilterTextureBorder>("QVFilterTextureBorder")}};
}

}  // namespace

TEST_F(FamilyFilters, CopiesKeepTheResolvedTexture) {
  for (const auto& [name, f] : textureFilters()) {
    f->setValue(tagKey("pair"), "inputTextureName");
    const Value identifier = f->valueForKey("inputTextureIdentifier");
    ASSERT_TRUE(identifier) << name;
    for (int i = 0; i < 8; ++i) {
      CIFilterRef copy = f->copy();
      ASSERT_TRUE(copy) << name;
      EXPECT_EQ(copy->name(), name);
      EXPECT_EQ(copy->valueForKey("inputTextureIdentifier"), identifier) << name;
      EXPECT_EQ(copy->valueForKey("inputTextureName"), Value(tagKey("pair"))) << name;
    }
  }
  auto masked = make<QVFilterColorComposite>("QVFilterColorComposite");
  masked->setInputMaskTextureName(tagKey("pair"));
  const Value mask = masked->valueForKey("inputMaskTextureIdentifier");
  for (int i = 0; i < 8; ++i) EXPECT_EQ(masked->copy()->valueForKey("inputMaskTextureIdentifier"), mask);
}

TEST_F(FamilyFilters, ArchivesHoldTheNamesAndResolveTheIdentifiersAgain) {
  for (const auto& [name, f] : textureFilters()) {
    f->setValue(tagKey("pair"), "inputTextureName");
    f->setValue(0.4, "inputCompositeAlpha");
    NSCoder coder;
    f->encodeWithCoder(coder);
    EXPECT_FALSE(coder.containsValueForKey("inputTextureIdentifier")) << name;
    EXPECT_EQ(coder.decodeObjectForKey("inputTextureName"), Value(tagKey("pair"))) << name;
    // An identifier put into the archive is not believed: decoding resolves the name again.
    coder.encodeObject(Value(NSURL::URLWithString(textureId("missing"))), "inputTextureIdentifier");
    CIFilterRef back = textureFilters()[name == "QVFilterTextureComposite" ? 0 : name == "QVFilterTextureTile" ? 1 : 2].second;
    ASSERT_TRUE(back->initWithCoder(coder)) << name;
    EXPECT_EQ(back->valueForKey("inputTextureName"), Value(tagKey("pair")));
    const std::string resolved = back->valueForKey("inputTextureIdentifier").object<NSURL>()->absoluteString();
    EXPECT_TRUE(resolved == textureId("a") || resolved == textureId("b")) << resolved;
    EXPECT_EQ(back->valueForKey("inputCompositeAlpha"), f->valueForKey("inputCompositeAlpha")) << name;
  }
  // The mask's identifier is left out and resolved again too.
  auto masked = make<QVFilterColorComposite>("QVFilterColorComposite");
  masked->setInputMaskTextureName(textureId("black"));
  masked->setInputColor(CIColor::colorWithRed(0.1, 0.2, 0.3, 0.4));
  NSCoder coder;
  masked->encodeWithCoder(coder);
  EXPECT_FALSE(coder.containsValueForKey("inputMaskTextureIdentifier"));
  auto back = make<QVFilterColorComposite>("QVFilterColorComposite");
  ASSERT_TRUE(back->initWithCoder(coder));
  EXPECT_EQ(back->inputMaskTextureIdentifier()->absoluteString(), textureId("black"));
  EXPECT_EQ(back->inputColor()->stringRepresentation(), "0.1 0.2 0.3 0.4");
}

TEST_F(FamilyFilters, ArchiveDataMakesTheFilterAgainByItsClassName) {
  // Filters made by name resolve through the bundle's own catalogue: a tag with one texture.
  CIFilterRef f = makeFilter("QVFilterTextureTile");
  ASSERT_TRUE(f);
  const std::string canvas = "x-qvfilter-texture://org.qvfilter.filters.imageunits/fabric-canvas";
  f->setValue(canvas, "inputTextureName");
  const auto data = CIFilter::archivedDataWithFilter(*f);
  ASSERT_TRUE(data);
  EXPECT_NE(data->find("<plist"), std::string::npos);
  EXPECT_EQ(data->find("inputTextureIdentifier"), std::string::npos);
  CIFilterRef back = CIFilter::filterWithArchivedData(*data);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->name(), "QVFilterTextureTile");
  EXPECT_EQ(back->valueForKey("inputTextureIdentifier").object<NSURL>()->absoluteString(), canvas);
  EXPECT_EQ(back->valueForKey("inputCompositeAlpha"), f->valueForKey("inputCompositeAlpha"));
  EXPECT_EQ(back->valueForKey("inputCompositeFilterName"), f->valueForKey("inputCompositeFilterName"));
  EXPECT_FALSE(CIFilter::filterWithArchivedData("not an archive"));
}

TEST_F(FamilyFilters, GradientArchivesItsColoursAsStrings) {
  auto f = make<QVFilterGradientComposite>("QVFilterGradientComposite");
  f->setInputColor0(CIColor::colorWithRed(0.25, 0.5, 0.75, 0.0));
  f->setInputColor1(CIColor::colorWithRed(0, 0, 0, 0.8));
  f->setInputRadius1(0.75);
  NSCoder coder;
  f->encodeWithCoder(coder);
  EXPECT_EQ(coder.decodeObjectForKey("inputColor0"), Value("0.25 0.5 0.75 0.0"));
  EXPECT_EQ(coder.decodeObjectForKey("inputColor1"), Value("0.0 0.0 0.0 0.8"));
  const auto data = CIFilter::archivedDataWithFilter(*f);
  ASSERT_TRUE(data);
  EXPECT_NE(data->find("<string>0.25 0.5 0.75 0.0</string>"), std::string::npos);
  CIFilterRef back = CIFilter::filterWithArchivedData(*data);
  ASSERT_TRUE(back);
  EXPECT_EQ(CIColor::fromValue(back->valueForKey("inputColor0"))->stringRepresentation(), "0.25 0.5 0.75 0.0");
  EXPECT_EQ(CIColor::fromValue(back->valueForKey("inputColor1"))->stringRepresentation(), "0.0 0.0 0.0 0.8");
  EXPECT_EQ(back->valueForKey("inputRadius1"), Value(0.75));
}

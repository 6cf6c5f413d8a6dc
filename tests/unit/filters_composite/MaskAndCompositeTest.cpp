// The two bases of the composite family: key lists and attributes, the mask texture (its
// placement, white removes and black keeps the layer), the name/identifier pair, and the fixed
// order of the composite step (mask, opacity, operation, crop).
#include <gtest/gtest.h>

#include "CompositeTestSupport.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIVector.h"
#include "Filters/QVFilterColorComposite.h"
#include "Filters/QVFilterMask.h"
#include "Framework/QVSizeScaledToRect.h"
#include "Textures/_QVFilterTextureImageProvider.h"

using namespace qvcomp;

namespace {

using Keys = std::vector<std::string>;

const Keys kCompositeKeys{"inputImage",          "inputMaskTextureName",
                          "inputMaskTextureIdentifier", "inputMaskTextureShouldMatchInputImageOrientation",
                          "inputCompositeAlpha", "inputCompositeFilterName"};

// A red layer over `image`, at full opacity, by source-over.
std::shared_ptr<QVFilterColorComposite> redOver(const CIImage& image) {
  auto f = make<QVFilterColorComposite>("QVFilterColorComposite");
  f->setInputImage(image);
  f->setInputColor(CIColor::colorWithRed(1, 0, 0, 1));
  f->setInputCompositeAlpha(1.0);
  f->setInputCompositeFilterName("CISourceOverCompositing");
  return f;
}

}  // namespace

class MaskAndComposite : public TextureCatalogueTest {};

TEST_F(MaskAndComposite, InputKeysAreTheSuperclassListThenTheFilterOwn) {
  auto f = make<QVFilterColorComposite>("QVFilterColorComposite");
  ASSERT_TRUE(f);
  Keys expected = kCompositeKeys;
  expected.push_back("inputColor");
  EXPECT_EQ(f->inputKeys(), expected);
  EXPECT_EQ(f->outputKeys(), Keys{"outputImage"});
}

TEST_F(MaskAndComposite, CustomAttributesExtendTheMaskAndCompositeEntries) {
  auto f = make<QVFilterColorComposite>("QVFilterColorComposite");
  const Value attrs = f->customAttributes();
  EXPECT_EQ(attrs["inputMaskTextureName"], Value(Dictionary{{kCIAttributeClass, "NSString"}}));
  EXPECT_EQ(attrs["inputMaskTextureIdentifier"], Value(Dictionary{{kCIAttributeClass, "NSURL"}}));
  EXPECT_EQ(attrs["inputMaskTextureShouldMatchInputImageOrientation"], Value(Dictionary{{kCIAttributeClass, "NSNumber"}}));
  EXPECT_EQ(attrs["inputCompositeAlpha"], Value(Dictionary{}));
  EXPECT_EQ(attrs["inputCompositeFilterName"], Value(Dictionary{}));
  // The colour: opaque white by default, transparent white as identity, nothing else.
  const Value color = attrs["inputColor"];
  ASSERT_TRUE(color.dictionary());
  EXPECT_EQ(color.dictionary()->size(), 2u);
  EXPECT_EQ(CIColor::fromValue(color[kCIAttributeDefault])->stringRepresentation(), "1.0 1.0 1.0 1.0");
  EXPECT_EQ(CIColor::fromValue(color[kCIAttributeIdentity])->stringRepresentation(), "1.0 1.0 1.0 0.0");
}

TEST_F(MaskAndComposite, EmptyEntriesLeaveTheDescribedDefaultsInPlace) {
  // The composite inputs' defaults come from the filter description, under the empty entries.
  auto f = make<QVFilterColorComposite>("QVFilterColorComposite");
  const Dictionary attrs = f->attributes();
  EXPECT_TRUE(attrs.at("inputCompositeAlpha")[kCIAttributeDefault].isNumber());
  EXPECT_TRUE(attrs.at("inputCompositeFilterName")[kCIAttributeDefault].isString());
  f->setDefaults();
  EXPECT_TRUE(CIFilter::filterWithName(*f->inputCompositeFilterName().string()));
  EXPECT_EQ(CIColor::fromValue(f->valueForKey("inputColor"))->stringRepresentation(), "1.0 1.0 1.0 1.0");
}

TEST_F(MaskAndComposite, AlphaZeroLeavesOnlyTheBackground) {
  const CIImage photo = makeTestImage(40, 30);
  auto f = redOver(photo);
  f->setInputCompositeAlpha(0.0);
  expectSamePixels(f->outputImage(), photo, photo.extent());
}

TEST_F(MaskAndComposite, UnknownOrNilOperationReturnsTheInput) {
  const CIImage photo = makeTestImage(40, 30);
  auto f = redOver(photo);
  f->setInputCompositeFilterName("CINoSuchCompositing");
  EXPECT_EQ(f->outputImage(), photo);
  f->setInputCompositeFilterName(Value());
  EXPECT_EQ(f->outputImage(), photo);
}

TEST_F(MaskAndComposite, NilInputGivesNil) {
  auto f = redOver(CIImage());
  EXPECT_TRUE(f->outputImage().isNil());
}

TEST_F(MaskAndComposite, OpacityFadesTheLayerBeforeTheOperation) {
  const CIImage photo = CIImage::imageWithColor(CIColor::colorWithRed(0, 0, 1, 1)).imageByCroppingToRect(CGRectMake(0, 0, 8, 8));
  auto f = redOver(photo);
  f->setInputCompositeAlpha(0.25);
  const auto p = pixelAt(f->outputImage(), 3, 3);
  EXPECT_NEAR(p[0], 0.25f, 1e-5);
  EXPECT_NEAR(p[2], 0.75f, 1e-5);
  EXPECT_NEAR(p[3], 1.0f, 1e-5);
}

TEST_F(MaskAndComposite, WhiteMaskRemovesTheLayerAndBlackKeepsIt) {
  const CIImage photo = makeTestImage(40, 30);
  auto f = redOver(photo);
  f->setInputMaskTextureName(textureId("white"));
  expectSamePixels(f->outputImage(), photo, photo.extent());

  f->setInputMaskTextureName(textureId("black"));
  const CIImage red = CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0, 1)).imageByCroppingToRect(photo.extent());
  expectSamePixels(f->outputImage(), red, photo.extent());
}

TEST_F(MaskAndComposite, MissingMaskTextureLeavesTheLayerUnmasked) {
  const CIImage layer = makeTestImage(20, 10);
  auto f = redOver(layer);
  f->setInputMaskTextureName(textureId("missing"));
  EXPECT_EQ(f->applyInputMask(layer), layer);
  f->setInputMaskTextureName(Value());
  EXPECT_EQ(f->applyInputMask(layer), layer);
  EXPECT_TRUE(f->applyInputMask(CIImage()).isNil());
}

TEST_F(MaskAndComposite, SquareMaskCoversTheImageGrownByOnePixelAsAspectFill) {
  // A square mask over 200 x 100: fitted to (-1, -1, 202, 102) it becomes 202 x 202 at
  // (-1, -51), the aspect-fill position.
  EXPECT_EQ(QVSizeScaledToRect(CGSizeMake(100, 100), CGRectMake(-1, -1, 202, 102), kCAGravityResizeAspectFill),
            CGRectMake(-1, -51, 202, 202));
  // The ramp texture is black on its 26 bottom rows: scaled by 2.02 from y = -51 they end at
  // y = 1.52, so the image's row 0 keeps the layer, row 1 half of it and row 3 none.
  const CIImage image = CIImage::imageWithColor(CIColor::colorWithRed(0, 1, 0, 1)).imageByCroppingToRect(CGRectMake(0, 0, 200, 100));
  auto f = redOver(image);
  f->setInputMaskTextureName(textureId("ramp"));
  const CIImage masked = f->applyInputMask(image);
  ASSERT_TRUE(masked);
  EXPECT_EQ(masked.extent(), image.extent());
  EXPECT_GT(pixelAt(masked, 100, 0)[3], 0.95f);
  const float row1 = pixelAt(masked, 100, 1)[3];
  EXPECT_GT(row1, 0.3f);
  EXPECT_LT(row1, 0.7f);  // with the mask 200 x 200 from y = -50 row 1 would be kept whole
  EXPECT_LT(pixelAt(masked, 100, 3)[3], 0.05f);
  EXPECT_LT(pixelAt(masked, 100, 60)[3], 0.01f);
}

TEST_F(MaskAndComposite, MaskOverASmallerPictureIsDecodedAtItsDrawnSize) {
  // The 100 x 100 ramp over 40 x 60 is drawn 62 x 62 (aspect fill over the grown 42 x 62, at
  // (-11, -1)): it is decoded at that size, not at its full size, and keeps its place.
  const CGRect extent = CGRectMake(0, 0, 40, 60);
  const CIImage image = CIImage::imageWithColor(CIColor::colorWithRed(0, 1, 0, 1)).imageByCroppingToRect(extent);
  auto f = redOver(image);
  f->setInputMaskTextureName(textureId("ramp"));
  const std::uint64_t before = _QVFilterTextureImageProvider::decodeCount();
  const CIImage masked = f->applyInputMask(image);
  ASSERT_TRUE(masked);
  EXPECT_EQ(masked.extent(), extent);
  const auto drawn = renderRGBAf(masked, extent);
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), before + 1);
  EXPECT_EQ(_QVFilterTextureImageProvider::lastDecodedPixelCount(), 62u * 62u);

  // Hand-wired with the mask decoded whole and resampled to the same place: the black 26 rows
  // end at y = -1 + 26 x 0.62 = 15.12 in both, and the rows agree within the resampling of that
  // hard edge (one or two rows), exactly away from it.
  const CIImage whole = _QVFilterTextureStore::imageForTextureIdentifier(f->inputMaskTextureIdentifier(), CGSizeZero);
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole.extent(), CGRectMake(0, 0, 100, 100));
  const CIImage fitted = whole.imageByApplyingTransform(CGAffineTransformMakeScale(0.62, 0.62))
                             .imageByApplyingTransform(CGAffineTransformMakeTranslation(-11, -1));
  auto blend = builtin("CIBlendWithMask");
  blend->setValue(image, kCIInputBackgroundImageKey);
  blend->setValue(CIImage::emptyImage().imageByCroppingToRect(extent), kCIInputImageKey);
  blend->setValue(fitted, kCIInputMaskImageKey);
  const auto reference = renderRGBAf(blend->outputImage(), extent);
  ASSERT_EQ(drawn.size(), reference.size());
  for (std::size_t y = 0; y < 60; ++y) {
    const std::size_t i = ((59 - y) * 40 + 20) * 4 + 3;  // alpha at x = 20, row y from the bottom
    if (y <= 12 || y >= 18)
      EXPECT_NEAR(drawn[i], reference[i], 1e-6) << "row " << y;
    else
      EXPECT_NEAR(drawn[i], reference[i], 0.3) << "row " << y;
  }
  EXPECT_GT(drawn[((59 - 10) * 40 + 20) * 4 + 3], 0.99f);
  EXPECT_LT(drawn[((59 - 20) * 40 + 20) * 4 + 3], 0.01f);
}

TEST_F(MaskAndComposite, MaskNameResolvesOnEveryAssignmentAndThroughKeyValueCoding) {
  auto f = make<QVFilterColorComposite>("QVFilterColorComposite");
  // A tag with two textures gives the other texture on every new assignment.
  f->setValue(Value(tagKey("pair")), "inputMaskTextureName");
  const NSURLRef first = f->inputMaskTextureIdentifier();
  ASSERT_TRUE(first);
  f->setValue(Value(tagKey("pair")), "inputMaskTextureName");
  const NSURLRef second = f->inputMaskTextureIdentifier();
  ASSERT_TRUE(second);
  EXPECT_NE(first->absoluteString(), second->absoluteString());
  f->setCalculatedValues();
  EXPECT_EQ(f->inputMaskTextureIdentifier()->absoluteString(), first->absoluteString());
  // A tag with one texture keeps it; a texture identifier passes unchanged.
  f->setInputMaskTextureName(tagKey("single"));
  EXPECT_EQ(f->inputMaskTextureIdentifier()->absoluteString(), textureId("lone"));
  f->setCalculatedValues();
  EXPECT_EQ(f->inputMaskTextureIdentifier()->absoluteString(), textureId("lone"));
  f->setInputMaskTextureName(textureId("nothing-of-that-name"));
  EXPECT_EQ(f->inputMaskTextureIdentifier()->absoluteString(), textureId("nothing-of-that-name"));
  f->setInputMaskTextureName(tagKey("no-such-tag"));
  EXPECT_FALSE(f->inputMaskTextureIdentifier());
  f->setValue(Value(), "inputMaskTextureName");
  EXPECT_FALSE(f->inputMaskTextureIdentifier());
}

TEST_F(MaskAndComposite, StepsRunMaskThenOpacityThenOperationThenCrop) {
  // The hand-wired graph of the composite step for a red layer, a black mask and multiply.
  const CIImage photo = makeTestImage(40, 30);
  auto f = redOver(photo);
  f->setInputMaskTextureName(textureId("ramp"));
  f->setInputCompositeAlpha(0.6);
  f->setInputCompositeFilterName("CIMultiplyBlendMode");
  const CIImage layer = CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0, 1)).imageByCroppingToRect(photo.extent());

  const CIImage masked = f->applyInputMask(layer);
  auto fade = builtin("CIColorMatrix");
  fade->setValue(CIVector::vectorWithX(0, 0, 0, 0.6), "inputAVector");
  fade->setValue(masked, kCIInputImageKey);
  auto op = builtin("CIMultiplyBlendMode");
  op->setValue(photo, kCIInputBackgroundImageKey);
  op->setValue(fade->outputImage(), kCIInputImageKey);
  const CIImage expected = op->outputImage().imageByCroppingToRect(photo.extent());
  expectSamePixels(f->outputImage(), expected, photo.extent());
}

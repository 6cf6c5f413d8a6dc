// The offset, scale, tile and frame filters against their hand-wired graphs of built-ins:
// rendered both ways, every pixel equal.
#include <gtest/gtest.h>

#include "CompositeTestSupport.h"
#include "CoreImage/CIVector.h"
#include "Filters/QVFilterOffsetComposite.h"
#include "Filters/QVFilterScaleComposite.h"
#include "Filters/QVFilterTextureBorder.h"
#include "Filters/QVFilterTextureTile.h"
#include "Framework/QVSizeScaledToRect.h"

using namespace qvcomp;

namespace {

// The composite step by hand: opacity through a colour matrix, the operation, the crop.
CIImage composited(const CIImage& layer, const CIImage& input, double alpha, const std::string& operation) {
  auto fade = builtin("CIColorMatrix");
  fade->setValue(CIVector::vectorWithX(0, 0, 0, alpha), "inputAVector");
  fade->setValue(layer, kCIInputImageKey);
  auto op = builtin(operation);
  op->setValue(input, kCIInputBackgroundImageKey);
  op->setValue(fade->outputImage(), kCIInputImageKey);
  return op->outputImage().imageByCroppingToRect(input.extent());
}

// `image` scaled and moved so that its extent is `rect`.
CIImage placed(const CIImage& image, const CGRect& rect) {
  const CGRect e = image.extent();
  const CIImage s = image.imageByApplyingTransform(CGAffineTransformMakeScale(rect.size.width / e.size.width, rect.size.height / e.size.height));
  return s.imageByApplyingTransform(
      CGAffineTransformMakeTranslation(rect.origin.x - s.extent().origin.x, rect.origin.y - s.extent().origin.y));
}

}  // namespace

class Equivalence : public TextureCatalogueTest {};

TEST_F(Equivalence, OffsetComposite) {
  const CIImage input = makeTestImage(64, 40, CGPointMake(3, 2));
  auto f = make<QVFilterOffsetComposite>("QVFilterOffsetComposite");
  f->setInputImage(input);
  f->setInputOffset(0.2);
  f->setInputCompositeAlpha(0.5);
  f->setInputCompositeFilterName("CIScreenBlendMode");
  const CIImage layer = input.imageByApplyingTransform(CGAffineTransformMakeTranslation(12, 0));  // floor(0.2 x 64)
  const CIImage expected =
      composited(layer, input, 0.5, "CIScreenBlendMode").imageByCroppingToRect(CGRectIntersection(input.extent(), layer.extent()));
  expectSamePixels(f->outputImage(), expected, input.extent());
}

TEST_F(Equivalence, ScaleComposite) {
  const CIImage input = makeTestImage(64, 40, CGPointMake(10, 20));
  auto f = make<QVFilterScaleComposite>("QVFilterScaleComposite");
  f->setInputImage(input);
  f->setInputScale(1.5);
  f->setInputCompositeAlpha(0.7);
  f->setInputCompositeFilterName("CISourceOverCompositing");
  // Scaled about the origin to start at (15, 30), then moved by (15 - 10, 30 - 20): onwards.
  const CIImage scaled = input.imageByApplyingTransform(CGAffineTransformMakeScale(1.5, 1.5));
  const CIImage moved = scaled.imageByApplyingTransform(CGAffineTransformMakeTranslation(5, 10));
  EXPECT_EQ(moved.extent().origin, CGPointMake(20, 40));
  expectSamePixels(f->outputImage(), composited(moved, input, 0.7, "CISourceOverCompositing"), input.extent());
}

TEST_F(Equivalence, TextureTile) {
  const CIImage input = makeTestImage(300, 280);
  auto f = make<QVFilterTextureTile>("QVFilterTextureTile");
  f->setInputImage(input);
  f->setInputTextureName(textureId("tile256"));
  f->setInputCompositeAlpha(0.8);
  f->setInputCompositeFilterName("CIMultiplyBlendMode");
  const CIImage texture = _QVFilterTextureStore::imageForTextureIdentifier(f->inputTextureIdentifier(), CGSizeZero);
  auto tile = builtin("CIAffineTile");
  tile->setValue(Value(CGAffineTransformIdentity), kCIInputTransformKey);
  tile->setValue(texture, kCIInputImageKey);
  const CIImage layer = tile->outputImage().imageByCroppingToRect(input.extent());
  expectSamePixels(f->outputImage(), composited(layer, input, 0.8, "CIMultiplyBlendMode"), input.extent());
}

TEST_F(Equivalence, TextureBorder) {
  const CIImage input = makeTestImage(48, 24);
  auto f = make<QVFilterTextureBorder>("QVFilterTextureBorder");
  f->setInputImage(input);
  f->setInputTextureName(textureId("tile256"));
  const CIImage frame = _QVFilterTextureStore::imageForTextureIdentifier(f->inputTextureIdentifier(), input.extent().size);
  const CGRect pictureRect = QVSizeScaledToRect(input.extent().size, frame.extent(), kQVGravityResizeAspectMax);
  const CGRect frameRect = QVSizeScaledToRect(frame.extent().size, pictureRect, kCAGravityResizeAspect);
  auto over = builtin("CISourceOverCompositing");
  over->setValue(placed(input, pictureRect), kCIInputBackgroundImageKey);
  over->setValue(placed(frame, frameRect), kCIInputImageKey);
  const CIImage expected = over->outputImage().imageByCroppingToRect(placed(frame, frameRect).extent());
  const CIImage out = f->outputImage();
  EXPECT_EQ(out.extent(), frameRect);
  expectSamePixels(out, expected, frameRect);
}

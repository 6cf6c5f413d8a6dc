#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"
#include "RenderSupport.h"

namespace {
CIFilterRef make(const char* name, const CIImage& image) {
  auto f = CIFilter::filterWithName(name);
  EXPECT_TRUE(f) << name;
  if (!f) return f;
  f->setDefaults();
  if (image) f->setValue(image, kCIInputImageKey);
  return f;
}
}  // namespace

TEST(GeometryBuiltins, NilImageGivesNilOutput) {
  for (const char* n : {"CIAffineTransform", "CICrop", "CIAffineClamp", "CIAffineTile", "CILanczosScaleTransform"}) {
    auto f = make(n, CIImage());
    ASSERT_TRUE(f);
    EXPECT_TRUE(f->outputImage().isNil()) << n;
    EXPECT_EQ(f->inputKeys().front(), kCIInputImageKey) << n;
    const Dictionary attrs = f->attributes();
    const Array* cats = attrs.at(kCIAttributeFilterCategories).array();
    ASSERT_TRUE(cats);
    EXPECT_NE(std::find(cats->begin(), cats->end(), Value(kCICategoryBuiltIn)), cats->end());
  }
}

TEST(GeometryBuiltins, AffineTransformDefaultsToIdentity) {
  const auto img = makeTestImage(20, 10);
  auto f = make("CIAffineTransform", img);
  const Value def = f->attributes().at(kCIInputTransformKey)[kCIAttributeDefault];
  ASSERT_TRUE(def.transform());
  EXPECT_TRUE(CGAffineTransformIsIdentity(*def.transform()));
  EXPECT_EQ(f->outputImage(), img);
  f->setValue(Value(CGAffineTransformMakeScale(2, 0.5)), kCIInputTransformKey);
  EXPECT_EQ(f->outputImage().extent(), CGRectMake(0, 0, 40, 5));
}

TEST(GeometryBuiltins, CropDefaultsToTheInfiniteRectangle) {
  const auto img = makeTestImage(20, 10);
  auto f = make("CICrop", img);
  auto def = CIVector::fromValue(f->attributes().at("inputRectangle")[kCIAttributeDefault]);
  ASSERT_TRUE(def);
  EXPECT_DOUBLE_EQ(def->X(), -DBL_MAX / 2);
  EXPECT_DOUBLE_EQ(def->Y(), -DBL_MAX / 2);
  EXPECT_DOUBLE_EQ(def->Z(), DBL_MAX);
  EXPECT_DOUBLE_EQ(def->W(), DBL_MAX);
  EXPECT_EQ(f->outputImage(), img);
  f->setValue(Value(CIVector::vectorWithX(5, 2, 100, 4)), "inputRectangle");
  const auto out = f->outputImage();
  EXPECT_EQ(out.extent(), CGRectMake(5, 2, 15, 4));
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(out, out.extent()), renderRGBAf(img, out.extent())));
}

TEST(GeometryBuiltins, AffineClampIsTransformThenClamp) {
  const auto img = makeTestImage(16, 12, CGPointMake(2, 3));
  auto f = make("CIAffineClamp", img);
  // Identity by default: a clamp of the image itself.
  const auto out = f->outputImage();
  EXPECT_TRUE(CGRectIsInfinite(out.extent()));
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(out, img.extent()), renderRGBAf(img, img.extent())));
  const auto edge = pixelAt(img, 2, 3), far = pixelAt(out, -400, -900);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(far[k], edge[k]);
  f->setValue(Value(CGAffineTransformMakeTranslation(10, 0)), kCIInputTransformKey);
  const auto moved = f->outputImage();
  for (int k = 0; k < 4; ++k) EXPECT_EQ(pixelAt(moved, 12, 3)[k], edge[k]);
}

TEST(GeometryBuiltins, AffineTileRepeatsTheTransformedCell) {
  const auto img = makeTestImageWithAlpha(10, 6, CGPointMake(1, 2));
  auto f = make("CIAffineTile", img);
  const auto out = f->outputImage();
  EXPECT_TRUE(CGRectIsInfinite(out.extent()));
  for (auto [x, y] : {std::pair{1.0, 2.0}, std::pair{4.0, 7.0}, std::pair{10.0, 3.0}}) {
    const auto a = pixelAt(out, x, y);
    for (auto [dx, dy] : {std::pair{10, 0}, std::pair{-30, 6}, std::pair{0, -60}, std::pair{1000, 1200}}) {
      const auto b = pixelAt(out, x + dx, y + dy);
      for (int k = 0; k < 4; ++k) EXPECT_EQ(a[k], b[k]) << x << "," << y << " +" << dx << "," << dy;
    }
    const auto src = pixelAt(img, x, y);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(a[k], src[k]);
  }
  // With a transform the cell is the transformed extent (here 20 × 12 from (2, 4)).
  f->setValue(Value(CGAffineTransformMakeScale(2, 2)), kCIInputTransformKey);
  const auto big = f->outputImage();
  const auto scaled = img.imageByApplyingTransform(CGAffineTransformMakeScale(2, 2));
  const auto a = pixelAt(big, 7, 9), b = pixelAt(big, 7 + 20, 9 - 24), c = pixelAt(scaled, 7, 9);
  for (int k = 0; k < 4; ++k) {
    EXPECT_EQ(a[k], b[k]);
    EXPECT_EQ(a[k], c[k]);
  }
}

// Every pixel of a repeated cell is the cell's pixel at the wrapped place: over rectangles that
// start before, inside, at and across the cell's seams, on both sides of the origin, narrower
// and much wider than the cell, rendered whole and in tiles smaller than the cell.
TEST(GeometryBuiltins, AffineTileCopiesTheCellsRowsAcrossEverySeam) {
  const auto img = makeTestImageWithAlpha(10, 6, CGPointMake(1, 2), 9);
  const auto out = make("CIAffineTile", img)->outputImage();
  const std::vector<float> cell = renderRGBAf(img, CGRectMake(1, 2, 10, 6));
  auto wrap = [](std::int64_t v, std::int64_t from, std::int64_t size) { return from + ((v - from) % size + size) % size; };
  CIContextOptions small;
  small.tileSize = 4;
  for (const CGRect& r : {CGRectMake(-23, -9, 47, 20), CGRectMake(3, 4, 5, 2), CGRectMake(1, 2, 10, 6),
                          CGRectMake(11, 8, 30, 3), CGRectMake(-7, 5, 3, 1), CGRectMake(10, -3, 2, 9)}) {
    for (const CIContextOptions& options : {CIContextOptions{}, small}) {
      const std::vector<float> got = renderRGBAf(out, r, options);
      const auto w = std::int64_t(r.size.width), h = std::int64_t(r.size.height);
      for (std::int64_t j = 0; j < h; ++j) {
        const std::int64_t y = std::int64_t(r.origin.y) + h - 1 - j;  // row 0 is the top row
        const std::int64_t cy = 2 + 6 - 1 - wrap(y, 2, 6);
        for (std::int64_t i = 0; i < w; ++i) {
          const std::int64_t cx = wrap(std::int64_t(r.origin.x) + i, 1, 10) - 1;
          for (int k = 0; k < 4; ++k) {
            ASSERT_EQ(got[std::size_t((j * w + i) * 4 + k)], cell[std::size_t((cy * 10 + cx) * 4 + k)])
                << "pixel (" << r.origin.x + double(i) << ", " << y << ") of " << r.origin.x << ", " << r.origin.y
                << " " << w << " x " << h << " tile size " << options.tileSize;
          }
        }
      }
    }
  }
}

TEST(GeometryBuiltins, AffineTileWithAShearRepeatsTheShearedLattice) {
  // x' = x + 0.5·y: the edges (10, 0) and (0, 6) become (10, 0) and (3, 6).
  const auto img = makeTestImageWithAlpha(10, 6, CGPointMake(1, 2));
  auto f = make("CIAffineTile", img);
  f->setValue(Value(CGAffineTransformMake(1, 0, 0.5, 1, 0, 0)), kCIInputTransformKey);
  const auto out = f->outputImage();
  EXPECT_TRUE(CGRectIsInfinite(out.extent()));
  for (auto [x, y] : {std::pair{4.0, 3.0}, std::pair{9.0, 7.0}, std::pair{-5.0, -11.0}, std::pair{13.0, 4.0}}) {
    const auto a = pixelAt(out, x, y);
    for (auto [dx, dy] : {std::pair{10, 0}, std::pair{3, 6}, std::pair{-3, -6}, std::pair{13, 6}, std::pair{-33, -6}}) {
      const auto b = pixelAt(out, x + dx, y + dy);
      for (int k = 0; k < 4; ++k) EXPECT_EQ(a[k], b[k]) << x << "," << y << " +" << dx << "," << dy;
    }
  }
  // Inside the sheared image itself the tile is the sheared image.
  const auto sheared = img.imageByApplyingTransform(CGAffineTransformMake(1, 0, 0.5, 1, 0, 0));
  const auto a = pixelAt(out, 5, 4), b = pixelAt(sheared, 5, 4);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(a[k], b[k]);
  // The bounding box of the sheared image (13 wide) is no period.
  const auto c = pixelAt(out, 5 + 13, 4);
  bool differs = false;
  for (int k = 0; k < 4; ++k) differs = differs || a[k] != c[k];
  EXPECT_TRUE(differs);
}

TEST(GeometryBuiltins, AffineTileWithARotationRepeatsTheRotatedLattice) {
  // Moving the whole tiling by one rotated edge vector leaves it unchanged; moving it by the
  // bounding box's width does not.
  const auto img = makeTestImageWithAlpha(12, 8);
  const CGAffineTransform r = CGAffineTransformMakeRotation(M_PI / 6);
  const CGPoint u = CGPointApplyAffineTransform(CGPointMake(12, 0), r);
  const CGPoint v = CGPointApplyAffineTransform(CGPointMake(0, 8), r);
  auto tile = [&](double tx, double ty) {
    auto f = make("CIAffineTile", img);
    f->setValue(Value(CGAffineTransformConcat(r, CGAffineTransformMakeTranslation(tx, ty))), kCIInputTransformKey);
    return renderRGBAf(f->outputImage(), CGRectMake(-20, -20, 40, 40));
  };
  const auto base = tile(0, 0);
  auto maxDifference = [&](const std::vector<float>& other) {
    float d = 0;
    for (std::size_t i = 0; i < base.size(); ++i) d = std::max(d, std::fabs(base[i] - other[i]));
    return d;
  };
  EXPECT_LT(maxDifference(tile(u.x, u.y)), 1e-5f);
  EXPECT_LT(maxDifference(tile(v.x, v.y)), 1e-5f);
  EXPECT_LT(maxDifference(tile(-u.x - v.x, -u.y - v.y)), 1e-5f);
  const double boxWidth = 12 * std::cos(M_PI / 6) + 8 * std::sin(M_PI / 6);
  EXPECT_GT(maxDifference(tile(boxWidth, 0)), 0.05f);
}

TEST(GeometryBuiltins, LanczosExtentAndFlatRegions) {
  const auto img = makeTestImage(101, 60, CGPointMake(10, 20));
  auto f = make("CILanczosScaleTransform", img);
  // Scale 1, aspect 1 by default: the image itself.
  EXPECT_EQ(f->outputImage(), img);
  f->setValue(Value(0.5), kCIInputScaleKey);
  // Origin and size rounded: x 5, width round(50.5) = 51; y 10, height 30.
  EXPECT_EQ(f->outputImage().extent(), CGRectMake(5, 10, 51, 30));
  f->setValue(Value(2.0), kCIInputAspectRatioKey);  // horizontal factor 0.5 × 2 = 1
  EXPECT_EQ(f->outputImage().extent(), CGRectMake(10, 10, 101, 30));
  f->setValue(Value(0.0), kCIInputScaleKey);
  EXPECT_TRUE(CGRectIsEmpty(f->outputImage().extent()));

  const auto flat = CIImage::imageWithColor(CIColor::colorWithRed(0.2, 0.5, 0.8, 1)).imageByCroppingToRect(CGRectMake(0, 0, 200, 200));
  auto g = make("CILanczosScaleTransform", flat);
  g->setValue(Value(0.37), kCIInputScaleKey);
  const auto small = g->outputImage();
  EXPECT_EQ(small.extent(), CGRectMake(0, 0, 74, 74));
  const auto inner = renderRGBAf(small, CGRectMake(5, 5, 60, 60));
  const auto ref = renderRGBAf(flat, CGRectMake(50, 50, 1, 1));
  for (std::size_t i = 0; i < inner.size(); ++i) EXPECT_NEAR(inner[i], ref[i % 4], 1e-5);
}

TEST(GeometryBuiltins, LanczosUpscaleInterpolatesAndDownscaleAverages) {
  std::vector<float> checker(64 * 64 * 4);
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x)
      for (int k = 0; k < 4; ++k)
        checker[(std::size_t(y) * 64 + std::size_t(x)) * 4 + std::size_t(k)] = k == 3 ? 1.0f : float((x / 2 + y / 2) % 2);
  const auto img = CIImage::imageWithRGBAf(checker.data(), 64, 64);
  auto f = make("CILanczosScaleTransform", img);
  f->setValue(Value(0.25), kCIInputScaleKey);
  const auto out = renderRGBAf(f->outputImage(), CGRectMake(3, 3, 10, 10));
  for (std::size_t i = 0; i < out.size(); i += 4) EXPECT_NEAR(out[i], 0.5f, 0.03f);
  // Upscaling by 2 keeps the source values at the centres of 2 × 2 blocks closely.
  f->setValue(Value(2.0), kCIInputScaleKey);
  const auto up = f->outputImage();
  EXPECT_EQ(up.extent(), CGRectMake(0, 0, 128, 128));
}

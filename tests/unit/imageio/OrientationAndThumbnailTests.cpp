// EXIF orientation (read from JPEG APP1 and PNG eXIf, applied to thumbnails), thumbnail sizes,
// the DCT-domain reduction JPEG thumbnails are decoded at, and the resampler.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cmath>

#include "ImageIOTestSupport.h"

using namespace imageio_test;

namespace {

using RGBA = std::array<std::uint8_t, 4>;
const RGBA kRed{255, 0, 0, 255}, kGreen{0, 255, 0, 255}, kBlue{0, 0, 255, 255}, kWhite{255, 255, 255, 255},
    kBlack{0, 0, 0, 255};

// A stored image of w x h with four solid quadrants: top-left red, top-right green,
// bottom-left blue, bottom-right white.
CGImageRef quadrants(std::size_t w, std::size_t h) {
  return makeImage(w, h, false, [&](std::size_t x, std::size_t y) {
    const bool right = x >= w / 2, bottom = y >= h / 2;
    return bottom ? (right ? kWhite : kBlue) : (right ? kGreen : kRed);
  });
}

bool near(const RGBA& a, const RGBA& b, int tolerance = 40) {
  for (int i = 0; i < 4; ++i)
    if (std::abs(int(a[i]) - int(b[i])) > tolerance) return false;
  return true;
}

// Colours at the displayed corners of an image: top-left, top-right, bottom-left, bottom-right,
// sampled a little inside to stay away from JPEG edge blur.
std::array<RGBA, 4> corners(const CGImageRef& img) {
  const std::size_t w = img->width, h = img->height, mx = w / 8, my = h / 8;
  return {pixel(img, mx, my), pixel(img, w - 1 - mx, my), pixel(img, mx, h - 1 - my), pixel(img, w - 1 - mx, h - 1 - my)};
}

Bytes orientedJPEG(std::size_t w, std::size_t h, int orientation, bool bigEndian = false) {
  Bytes jpg = encode(quadrants(w, h), kUTTypeJPEG, {{kCGImageDestinationLossyCompressionQuality, 0.95}});
  return spliceJPEGSegment(jpg, 0xe1, exifWithOrientation(orientation, bigEndian));
}

}  // namespace

// Where the stored image's corners are displayed, from the EXIF definition of each
// orientation (which stored side is the displayed top, and which the displayed left).
// Stored corners: TL red, TR green, BL blue, BR white.
struct OrientationCase {
  int orientation;
  RGBA displayedTL, displayedTR, displayedBL, displayedBR;
};

class ImageIOOrientation : public ::testing::TestWithParam<OrientationCase> {};

TEST_P(ImageIOOrientation, ThumbnailWithTransformShowsTheFileUpright) {
  const auto c = GetParam();
  for (bool bigEndian : {false, true}) {
    auto src = CGImageSourceCreateWithData(orientedJPEG(64, 48, c.orientation, bigEndian));
    ASSERT_TRUE(src);
    auto props = CGImageSourceCopyPropertiesAtIndex(src, 0);
    EXPECT_EQ(props[kCGImagePropertyOrientation].integerValue(), c.orientation);
    EXPECT_TRUE(props[kCGImagePropertyOrientation].isInteger());
    // The stored pixel size is reported, whatever the orientation.
    EXPECT_EQ(props[kCGImagePropertyPixelWidth].integerValue(), 64);
    auto thumb = CGImageSourceCreateThumbnailAtIndex(
        src, 0, {{kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)},
                 {kCGImageSourceCreateThumbnailFromImageIfAbsent, Value::boolean(true)}});
    ASSERT_TRUE(thumb);
    const bool swapped = c.orientation >= 5;
    EXPECT_EQ(thumb->width, swapped ? 48u : 64u);
    EXPECT_EQ(thumb->height, swapped ? 64u : 48u);
    auto k = corners(thumb);
    EXPECT_TRUE(near(k[0], c.displayedTL)) << "orientation " << c.orientation;
    EXPECT_TRUE(near(k[1], c.displayedTR)) << "orientation " << c.orientation;
    EXPECT_TRUE(near(k[2], c.displayedBL)) << "orientation " << c.orientation;
    EXPECT_TRUE(near(k[3], c.displayedBR)) << "orientation " << c.orientation;
    // Without the transform option, and for the full decode, the stored pixels come back.
    for (auto img : {CGImageSourceCreateThumbnailAtIndex(src, 0, {}), CGImageSourceCreateImageAtIndex(src, 0)}) {
      ASSERT_TRUE(img);
      EXPECT_EQ(img->width, 64u);
      auto s = corners(img);
      EXPECT_TRUE(near(s[0], kRed));
      EXPECT_TRUE(near(s[3], kWhite));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllEight, ImageIOOrientation,
    ::testing::Values(
        // 1: top is the top, left is the left.
        OrientationCase{1, kRed, kGreen, kBlue, kWhite},
        // 2: mirrored: the stored right side is shown on the left.
        OrientationCase{2, kGreen, kRed, kWhite, kBlue},
        // 3: rotated half a turn.
        OrientationCase{3, kWhite, kBlue, kGreen, kRed},
        // 4: mirrored top to bottom.
        OrientationCase{4, kBlue, kWhite, kRed, kGreen},
        // 5: stored row 0 is the displayed left column, stored column 0 the displayed top row.
        OrientationCase{5, kRed, kBlue, kGreen, kWhite},
        // 6: stored row 0 is the displayed right column, stored column 0 the displayed top row.
        OrientationCase{6, kBlue, kRed, kWhite, kGreen},
        // 7: stored row 0 is the displayed right column, stored column 0 the displayed bottom row.
        OrientationCase{7, kWhite, kGreen, kBlue, kRed},
        // 8: stored row 0 is the displayed left column, stored column 0 the displayed bottom row.
        OrientationCase{8, kGreen, kWhite, kRed, kBlue}));

TEST(ImageIOOrientationDirect, ExactPixelsOfATinyImage) {
  // Stored 3 x 2:  a b c / d e f  (values in the red channel).
  auto img = makeImage(3, 2, false, [](std::size_t x, std::size_t y) {
    return std::array<std::uint8_t, 4>{static_cast<std::uint8_t>(1 + x + 3 * y), 0, 0, 255};
  });
  auto red = [](const CGImageRef& i) {
    std::vector<int> v;
    for (std::size_t y = 0; y < i->height; ++y)
      for (std::size_t x = 0; x < i->width; ++x) v.push_back(pixel(i, x, y)[0]);
    return v;
  };
  // a=1 b=2 c=3 d=4 e=5 f=6.
  EXPECT_EQ(red(CGImageCreateByApplyingOrientation(img, 1)), (std::vector<int>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(red(CGImageCreateByApplyingOrientation(img, 2)), (std::vector<int>{3, 2, 1, 6, 5, 4}));
  EXPECT_EQ(red(CGImageCreateByApplyingOrientation(img, 3)), (std::vector<int>{6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(red(CGImageCreateByApplyingOrientation(img, 4)), (std::vector<int>{4, 5, 6, 1, 2, 3}));
  EXPECT_EQ(red(CGImageCreateByApplyingOrientation(img, 5)), (std::vector<int>{1, 4, 2, 5, 3, 6}));
  EXPECT_EQ(red(CGImageCreateByApplyingOrientation(img, 6)), (std::vector<int>{4, 1, 5, 2, 6, 3}));
  EXPECT_EQ(red(CGImageCreateByApplyingOrientation(img, 7)), (std::vector<int>{6, 3, 5, 2, 4, 1}));
  EXPECT_EQ(red(CGImageCreateByApplyingOrientation(img, 8)), (std::vector<int>{3, 6, 2, 5, 1, 4}));
  EXPECT_EQ(CGImageCreateByApplyingOrientation(img, 6)->width, 2u);
  // Out-of-range orientations leave the image alone.
  EXPECT_EQ(CGImageCreateByApplyingOrientation(img, 0), img);
  EXPECT_EQ(CGImageCreateByApplyingOrientation(img, 9), img);
  EXPECT_EQ(CGImageCreateByApplyingOrientation(nullptr, 6), nullptr);
}

TEST(ImageIOOrientationDirect, PNGExifChunkAndBadValues) {
  PNGSpec s;
  s.width = 2;
  s.height = 1;
  s.colorType = 2;
  s.rows = {{1, 1, 1, 2, 2, 2}};
  s.exif = exifWithOrientation(8, true, /*preamble=*/false);
  auto src = CGImageSourceCreateWithData(makePNG(s));
  EXPECT_EQ(CGImageSourceCopyPropertiesAtIndex(src, 0)[kCGImagePropertyOrientation].integerValue(), 8);
  auto thumb = CGImageSourceCreateThumbnailAtIndex(src, 0, {{kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)}});
  ASSERT_TRUE(thumb);
  EXPECT_EQ(thumb->width, 1u);
  EXPECT_EQ(thumb->height, 2u);
  // An out-of-range orientation value reads as 1.
  Bytes jpg = encode(quadrants(8, 8), kUTTypeJPEG);
  auto bad = CGImageSourceCreateWithData(spliceJPEGSegment(jpg, 0xe1, exifWithOrientation(42)));
  EXPECT_EQ(CGImageSourceCopyPropertiesAtIndex(bad, 0)[kCGImagePropertyOrientation].integerValue(), 1);
  // A damaged EXIF block is ignored.
  Bytes junk = {'E', 'x', 'i', 'f', 0, 0, 'I', 'I', 42, 0, 0xff, 0xff, 0xff, 0x7f, 1, 2, 3};
  auto damaged = CGImageSourceCreateWithData(spliceJPEGSegment(jpg, 0xe1, junk));
  EXPECT_EQ(CGImageSourceCopyPropertiesAtIndex(damaged, 0)[kCGImagePropertyOrientation].integerValue(), 1);
  EXPECT_TRUE(CGImageSourceCreateImageAtIndex(damaged, 0));
}

TEST(ImageIOThumbnail, SizesBoundTheLargerSideAndNeverEnlarge) {
  auto src = CGImageSourceCreateWithData(encode(quadrants(400, 300), kUTTypeJPEG));
  auto size = [&](const Dictionary& o) {
    auto t = CGImageSourceCreateThumbnailAtIndex(src, 0, o);
    return t ? std::make_pair(t->width, t->height) : std::make_pair(std::size_t{0}, std::size_t{0});
  };
  using P = std::pair<std::size_t, std::size_t>;
  EXPECT_EQ(size({{kCGImageSourceThumbnailMaxPixelSize, 100}}), (P{100, 75}));
  EXPECT_EQ(size({{kCGImageSourceThumbnailMaxPixelSize, 100.0}}), (P{100, 75}));
  EXPECT_EQ(size({{kCGImageSourceThumbnailMaxPixelSize, 333}}), (P{333, 250}));
  EXPECT_EQ(size({{kCGImageSourceThumbnailMaxPixelSize, 1000}}), (P{400, 300}));
  EXPECT_EQ(size({}), (P{400, 300}));
  EXPECT_EQ(size({{kCGImageSourceThumbnailMaxPixelSize, 0}}), (P{400, 300}));
  EXPECT_EQ(size({{kCGImageSourceThumbnailMaxPixelSize, 1}}), (P{1, 1}));
  // With orientation 6 and the transform, a 400 x 300 file gives a 75 x 100 / 300 x 400 result.
  auto rotated = CGImageSourceCreateWithData(orientedJPEG(400, 300, 6));
  auto t = CGImageSourceCreateThumbnailAtIndex(
      rotated, 0, {{kCGImageSourceThumbnailMaxPixelSize, 100}, {kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)}});
  ASSERT_TRUE(t);
  EXPECT_EQ(t->width, 75u);
  EXPECT_EQ(t->height, 100u);
  t = CGImageSourceCreateThumbnailAtIndex(rotated, 0, {{kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)}});
  ASSERT_TRUE(t);
  EXPECT_EQ(t->width, 300u);
  EXPECT_EQ(t->height, 400u);
  // PNG and WebP thumbnails follow the same rule.
  for (const char* type : {kUTTypePNG, kUTTypeWebP}) {
    auto other = CGImageSourceCreateWithData(encode(quadrants(400, 300), type));
    auto th = CGImageSourceCreateThumbnailAtIndex(other, 0, {{kCGImageSourceThumbnailMaxPixelSize, 100}});
    ASSERT_TRUE(th) << type;
    EXPECT_EQ(th->width, 100u) << type;
    EXPECT_EQ(th->height, 75u) << type;
    auto k = corners(th);
    EXPECT_TRUE(near(k[0], kRed, 8)) << type;
    EXPECT_TRUE(near(k[3], kWhite, 8)) << type;
  }
}

TEST(ImageIOThumbnail, TheSizeIsKnownBeforeDecoding) {
  // Every size the thumbnail takes, asked of the header alone (in the stored orientation).
  auto src = CGImageSourceCreateWithData(encode(quadrants(400, 300), kUTTypeJPEG));
  auto square = CGImageSourceCreateWithData(encode(quadrants(77, 77), kUTTypePNG));
  for (const auto& source : {src, square})
    for (double m : {0.0, 1.0, 33.0, 100.0, 100.5, 333.0, 399.0, 1000.0}) {
      auto t = CGImageSourceCreateThumbnailAtIndex(source, 0, {{kCGImageSourceThumbnailMaxPixelSize, m}});
      ASSERT_TRUE(t) << m;
      EXPECT_EQ(CGImageSourceGetThumbnailSizeAtIndex(source, 0, m), CGSizeMake(double(t->width), double(t->height))) << m;
    }
  EXPECT_EQ(CGImageSourceGetThumbnailSizeAtIndex(src, 0, NAN), CGSizeMake(400, 300));
  EXPECT_EQ(CGImageSourceGetThumbnailSizeAtIndex(src, 1, 100), CGSizeMake(0, 0));
  // The stored orientation: a 400 x 300 file turned by its orientation still answers 100 x 75.
  auto rotated = CGImageSourceCreateWithData(orientedJPEG(400, 300, 6));
  EXPECT_EQ(CGImageSourceGetThumbnailSizeAtIndex(rotated, 0, 100), CGSizeMake(100, 75));
}

TEST(ImageIOThumbnail, JPEGUsesTheLargestDCTReductionThatKeepsEnoughPixels) {
  auto src = CGImageSourceCreateWithData(encode(quadrants(800, 600), kUTTypeJPEG));
  auto denominatorFor = [&](double maxSize) {
    Dictionary o;
    if (maxSize > 0) o[kCGImageSourceThumbnailMaxPixelSize] = maxSize;
    auto t = CGImageSourceCreateThumbnailAtIndex(src, 0, o);
    EXPECT_TRUE(t);
    return CGImageSourceCopyPropertiesAtIndex(src, 0, {{kQVDecodeScaleDenominator, Value::boolean(true)}})[kQVDecodeScaleDenominator]
        .integerValue();
  };
  EXPECT_EQ(denominatorFor(100), 8);  // 800 / 8 = 100, enough
  EXPECT_EQ(denominatorFor(101), 4);
  EXPECT_EQ(denominatorFor(200), 4);
  EXPECT_EQ(denominatorFor(201), 2);
  EXPECT_EQ(denominatorFor(400), 2);
  EXPECT_EQ(denominatorFor(401), 1);
  EXPECT_EQ(denominatorFor(0), 1);
  // A PNG has no reduced decode.
  auto png = CGImageSourceCreateWithData(encode(quadrants(800, 600), kUTTypePNG));
  ASSERT_TRUE(CGImageSourceCreateThumbnailAtIndex(png, 0, {{kCGImageSourceThumbnailMaxPixelSize, 100}}));
  EXPECT_EQ(CGImageSourceCopyPropertiesAtIndex(png, 0, {{kQVDecodeScaleDenominator, 1}})[kQVDecodeScaleDenominator].integerValue(), 1);
}

TEST(ImageIOScale, ConstantStaysConstantAndCheckerboardAverages) {
  auto flat = makeImage(97, 61, false, [](std::size_t, std::size_t) { return RGBA{12, 200, 99, 255}; });
  for (auto size : {std::pair<std::size_t, std::size_t>{10, 7}, {200, 120}, {33, 61}, {1, 1}}) {
    auto s = CGImageCreateScaled(flat, size.first, size.second);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->width, size.first);
    EXPECT_EQ(s->height, size.second);
    for (std::size_t i = 0; i < s->pixels.size(); i += 4)
      ASSERT_TRUE(near(RGBA{s->pixels[i], s->pixels[i + 1], s->pixels[i + 2], s->pixels[i + 3]}, RGBA{12, 200, 99, 255}, 1));
  }
  auto checker = makeImage(64, 64, false, [](std::size_t x, std::size_t y) { return (x + y) % 2 ? kWhite : kBlack; });
  auto half = CGImageCreateScaled(checker, 8, 8);
  ASSERT_TRUE(half);
  for (std::size_t i = 0; i < half->pixels.size(); i += 4) ASSERT_NEAR(half->pixels[i], 128, 3);
  EXPECT_EQ(CGImageCreateScaled(checker, 64, 64), checker);
  EXPECT_EQ(CGImageCreateScaled(checker, 0, 5), nullptr);
  EXPECT_EQ(CGImageCreateScaled(nullptr, 5, 5), nullptr);
}

TEST(ImageIOScale, TransparentPixelsDoNotBleedTheirColour) {
  // Left half: fully transparent red; right half: opaque blue.
  auto img = makeImage(40, 4, true, [](std::size_t x, std::size_t) { return x < 20 ? RGBA{255, 0, 0, 0} : kBlue; });
  auto s = CGImageCreateScaled(img, 10, 1);
  ASSERT_TRUE(s);
  for (std::size_t x = 0; x < 10; ++x) {
    auto p = pixel(s, x, 0);
    if (p[3] > 0) {
      EXPECT_LT(p[0], 8) << "red leaked at x=" << x;
    }
  }
  EXPECT_EQ(pixel(s, 0, 0)[3], 0);
  EXPECT_EQ(pixel(s, 9, 0)[3], 255);
  EXPECT_TRUE(s->hasAlpha);
}

TEST(ImageIOScale, SixteenBitAndCropping) {
  auto img = CGImageCreateWithBitsPerComponent(quadrants(40, 40), 16);
  auto s = CGImageCreateScaled(img, 4, 4);
  ASSERT_TRUE(s);
  EXPECT_EQ(s->bitsPerComponent, 16);
  std::uint16_t v[4];
  std::memcpy(v, s->row(0), 8);
  EXPECT_EQ(v[0], 65535);
  EXPECT_EQ(v[1], 0);
  auto crop = CGImageCreateWithImageInRect(quadrants(40, 40), CGRectMake(15, 15, 10, 100));
  ASSERT_TRUE(crop);
  EXPECT_EQ(crop->width, 10u);
  EXPECT_EQ(crop->height, 25u);
  EXPECT_EQ(pixel(crop, 0, 0), kRed);
  EXPECT_EQ(pixel(crop, 9, 24), kWhite);
  EXPECT_EQ(CGImageCreateWithImageInRect(quadrants(4, 4), CGRectMake(10, 10, 5, 5)), nullptr);
}

TEST(ImageIOThumbnail, AThumbnailIsScaledAsTheRowsArriveWithTheWholeImagesResult) {
  // The streaming scaler gives the whole-image scaler's pixels bit for bit.
  std::uint32_t state = 7;
  auto img = makeImage(301, 203, true, [&](std::size_t x, std::size_t y) {
    state = state * 1664525u + 1013904223u;
    return RGBA{static_cast<std::uint8_t>(x), static_cast<std::uint8_t>(y), static_cast<std::uint8_t>(state >> 24),
                static_cast<std::uint8_t>(128 + (state >> 28))};
  });
  auto source = CGImageSourceCreateWithData(encode(img, kUTTypePNG));
  ASSERT_EQ(CGImageSourceGetCount(source), 1u);
  auto whole = CGImageSourceCreateImageAtIndex(source, 0);
  ASSERT_TRUE(whole);
  for (int side : {37, 100, 150, 300}) {
    auto thumb = CGImageSourceCreateThumbnailAtIndex(source, 0, {{kCGImageSourceThumbnailMaxPixelSize, side}});
    ASSERT_TRUE(thumb) << side;
    auto expected = CGImageCreateScaled(whole, thumb->width, thumb->height);
    ASSERT_TRUE(expected);
    EXPECT_EQ(thumb->width, std::size_t(side));
    EXPECT_TRUE(thumb->pixels == expected->pixels) << side;
    EXPECT_EQ(thumb->hasAlpha, expected->hasAlpha);
  }
}

TEST(ImageIOThumbnail, ALargePNGMakesASmallThumbnailInLittleMemory) {
  // 6000 x 6000 grey, 144 MB once decoded as RGBA: the thumbnail never holds it whole.
  const std::uint32_t side = 6000;
  Bytes png = pngSignature();
  pngChunk(png, "IHDR", ihdr(side, side, 8, 0));
  pngChunk(png, "IDAT", zlibStored(Bytes(std::size_t(side + 1) * side, 0)));
  pngChunk(png, "IEND", {});
  auto source = CGImageSourceCreateWithData(std::move(png));
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  auto thumb = CGImageSourceCreateThumbnailAtIndex(source, 0, {{kCGImageSourceThumbnailMaxPixelSize, 256}});
  getrusage(RUSAGE_SELF, &after);
  ASSERT_TRUE(thumb);
  EXPECT_EQ(thumb->width, 256u);
  EXPECT_EQ(thumb->height, 256u);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 * 1024);
}

// Encode-then-decode round trips through every destination type and depth, and the
// properties each file reports.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "ImageIOTestSupport.h"

using namespace imageio_test;

namespace {

CGImageRef gradient(std::size_t w, std::size_t h, bool alpha) {
  return makeImage(w, h, alpha, [&](std::size_t x, std::size_t y) {
    return std::array<std::uint8_t, 4>{static_cast<std::uint8_t>(x * 255 / (w - 1)),
                                       static_cast<std::uint8_t>(y * 255 / (h - 1)),
                                       static_cast<std::uint8_t>((x * 7 + y * 13) % 256),
                                       static_cast<std::uint8_t>(alpha ? (x + y) % 256 : 255)};
  });
}

double meanAbsoluteError(const CGImageRef& a, const CGImageRef& b) {
  double sum = 0;
  for (std::size_t y = 0; y < a->height; ++y)
    for (std::size_t i = 0; i < a->width * 4; ++i) sum += std::abs(int(a->row(y)[i]) - int(b->row(y)[i]));
  return sum / static_cast<double>(a->width * a->height * 4);
}

CGImageRef decode(const Bytes& bytes) {
  auto src = CGImageSourceCreateWithData(bytes);
  if (!src) return nullptr;
  return CGImageSourceCreateImageAtIndex(src, 0);
}

}  // namespace

TEST(ImageIORoundTrip, PNG8WithAlphaIsExact) {
  auto img = gradient(37, 23, true);
  Bytes png = encode(img, kUTTypePNG);
  ASSERT_FALSE(png.empty());
  auto src = CGImageSourceCreateWithData(png);
  ASSERT_TRUE(src);
  EXPECT_EQ(CGImageSourceGetType(src), "public.png");
  EXPECT_EQ(CGImageSourceGetCount(src), 1u);
  auto props = CGImageSourceCopyPropertiesAtIndex(src, 0);
  EXPECT_EQ(props[kCGImagePropertyPixelWidth].integerValue(), 37);
  EXPECT_TRUE(props[kCGImagePropertyPixelWidth].isInteger());
  EXPECT_EQ(props[kCGImagePropertyPixelHeight].integerValue(), 23);
  EXPECT_TRUE(props[kCGImagePropertyHasAlpha].boolValue());
  EXPECT_TRUE(props[kCGImagePropertyHasAlpha].isBoolean());
  EXPECT_EQ(props[kCGImagePropertyDepth].integerValue(), 8);
  EXPECT_EQ(*props[kCGImagePropertyColorModel].string(), "RGB");
  EXPECT_EQ(props[kCGImagePropertyOrientation].integerValue(), 1);
  EXPECT_FALSE(props[kCGImagePropertyHasICCProfile].boolValue());
  EXPECT_TRUE(props[kCGImagePropertyProfileName].isNil());
  auto out = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->width, 37u);
  EXPECT_EQ(out->height, 23u);
  EXPECT_TRUE(out->hasAlpha);
  EXPECT_EQ(out->bytesPerRow, 37u * 4);
  EXPECT_EQ(out->pixels, img->pixels);
}

TEST(ImageIORoundTrip, PNG8WithoutAlphaDecodesOpaque) {
  auto img = gradient(20, 10, false);
  auto out = decode(encode(img, kUTTypePNG));
  ASSERT_TRUE(out);
  EXPECT_FALSE(out->hasAlpha);
  EXPECT_EQ(out->pixels, img->pixels);
  auto props = CGImageSourceCopyPropertiesAtIndex(CGImageSourceCreateWithData(encode(img, kUTTypePNG)), 0);
  EXPECT_FALSE(props[kCGImagePropertyHasAlpha].boolValue());
}

TEST(ImageIORoundTrip, PNG16KeepsSixteenBits) {
  auto img = CGImageCreateBlank(9, 5, 16);
  img->hasAlpha = true;
  for (std::size_t y = 0; y < 5; ++y)
    for (std::size_t x = 0; x < 9; ++x) {
      std::uint16_t v[4] = {static_cast<std::uint16_t>(x * 7000 + 1), static_cast<std::uint16_t>(y * 13000 + 3),
                            static_cast<std::uint16_t>(65535 - x * y * 11), static_cast<std::uint16_t>(40000 + x)};
      std::memcpy(img->row(y) + x * 8, v, 8);
    }
  Bytes png = encode(img, kUTTypePNG);
  auto src = CGImageSourceCreateWithData(png);
  ASSERT_TRUE(src);
  EXPECT_EQ(CGImageSourceCopyPropertiesAtIndex(src, 0)[kCGImagePropertyDepth].integerValue(), 16);
  auto out = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->bitsPerComponent, 16);
  EXPECT_EQ(out->bytesPerRow, 9u * 8);
  EXPECT_EQ(out->pixels, img->pixels);
}

TEST(ImageIORoundTrip, GreyPNGReportsGrayAndExpandsToRGBA) {
  auto img = makeImage(16, 4, false, [](std::size_t x, std::size_t) {
    const auto v = static_cast<std::uint8_t>(x * 16);
    return std::array<std::uint8_t, 4>{v, v, v, 255};
  });
  std::const_pointer_cast<CGImage>(img)->colorModel = "Gray";
  Bytes png = encode(img, kUTTypePNG);
  ASSERT_FALSE(png.empty());
  EXPECT_EQ(png[25], 0) << "colour type of the written IHDR is grey";
  auto src = CGImageSourceCreateWithData(png);
  EXPECT_EQ(*CGImageSourceCopyPropertiesAtIndex(src, 0)[kCGImagePropertyColorModel].string(), "Gray");
  auto out = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->colorModel, "Gray");
  EXPECT_EQ(out->pixels, img->pixels);
}

TEST(ImageIORoundTrip, HandMadeGreyFormatsDecode) {
  // 4-bit grey: samples 0..15 are scaled to 0..255 (x 17).
  PNGSpec s;
  s.width = 4;
  s.height = 1;
  s.depth = 4;
  s.colorType = 0;
  s.rows = {{0x01, 0x2f}};
  auto out = decode(makePNG(s));
  ASSERT_TRUE(out);
  EXPECT_EQ(pixel(out, 0, 0), (std::array<std::uint8_t, 4>{0, 0, 0, 255}));
  EXPECT_EQ(pixel(out, 1, 0), (std::array<std::uint8_t, 4>{17, 17, 17, 255}));
  EXPECT_EQ(pixel(out, 2, 0), (std::array<std::uint8_t, 4>{34, 34, 34, 255}));
  EXPECT_EQ(pixel(out, 3, 0), (std::array<std::uint8_t, 4>{255, 255, 255, 255}));
  // Grey + alpha.
  PNGSpec ga;
  ga.width = 2;
  ga.height = 1;
  ga.depth = 8;
  ga.colorType = 4;
  ga.rows = {{10, 20, 200, 0}};
  auto src = CGImageSourceCreateWithData(makePNG(ga));
  auto props = CGImageSourceCopyPropertiesAtIndex(src, 0);
  EXPECT_TRUE(props[kCGImagePropertyHasAlpha].boolValue());
  EXPECT_EQ(*props[kCGImagePropertyColorModel].string(), "Gray");
  out = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(out);
  EXPECT_EQ(pixel(out, 0, 0), (std::array<std::uint8_t, 4>{10, 10, 10, 20}));
  EXPECT_EQ(pixel(out, 1, 0), (std::array<std::uint8_t, 4>{200, 200, 200, 0}));
  // Grey with a tRNS key colour becomes transparent where it matches.
  PNGSpec gt;
  gt.width = 2;
  gt.height = 1;
  gt.colorType = 0;
  gt.rows = {{7, 8}};
  gt.trns = {0, 7};
  out = decode(makePNG(gt));
  ASSERT_TRUE(out);
  EXPECT_TRUE(out->hasAlpha);
  EXPECT_EQ(pixel(out, 0, 0)[3], 0);
  EXPECT_EQ(pixel(out, 1, 0)[3], 255);
}

TEST(ImageIORoundTrip, PalettePNGWithTransparency) {
  PNGSpec s;
  s.width = 3;
  s.height = 2;
  s.depth = 8;
  s.colorType = 3;
  s.palette = {255, 0, 0, 0, 255, 0, 0, 0, 255};
  s.trns = {128};  // entry 0 half transparent, the others opaque
  s.rows = {{0, 1, 2}, {2, 1, 0}};
  auto src = CGImageSourceCreateWithData(makePNG(s));
  ASSERT_TRUE(src);
  auto props = CGImageSourceCopyPropertiesAtIndex(src, 0);
  EXPECT_TRUE(props[kCGImagePropertyIsIndexed].boolValue());
  EXPECT_TRUE(props[kCGImagePropertyHasAlpha].boolValue());
  EXPECT_EQ(*props[kCGImagePropertyColorModel].string(), "RGB");
  auto out = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(out);
  EXPECT_EQ(pixel(out, 0, 0), (std::array<std::uint8_t, 4>{255, 0, 0, 128}));
  EXPECT_EQ(pixel(out, 1, 0), (std::array<std::uint8_t, 4>{0, 255, 0, 255}));
  EXPECT_EQ(pixel(out, 2, 0), (std::array<std::uint8_t, 4>{0, 0, 255, 255}));
  EXPECT_EQ(pixel(out, 0, 1), (std::array<std::uint8_t, 4>{0, 0, 255, 255}));
  // A palette index past the palette's end is an error, not a read past it.
  s.rows = {{0, 1, 9}, {2, 1, 0}};
  auto bad = CGImageSourceCreateWithData(makePNG(s));
  auto img = CGImageSourceCreateImageAtIndex(bad, 0);
  if (img) {
    EXPECT_EQ(img->width, 3u);  // libpng may map it to black; it must not crash
  }
}

TEST(ImageIORoundTrip, InterlacedPNGDecodesLikeNonInterlaced) {
  PNGSpec s;
  s.width = 13;
  s.height = 11;
  s.depth = 8;
  s.colorType = 2;
  for (std::uint32_t y = 0; y < s.height; ++y) {
    Bytes row;
    for (std::uint32_t x = 0; x < s.width; ++x) {
      row.push_back(static_cast<std::uint8_t>(x * 19));
      row.push_back(static_cast<std::uint8_t>(y * 23));
      row.push_back(static_cast<std::uint8_t>(x * y));
    }
    s.rows.push_back(row);
  }
  auto plain = decode(makePNG(s));
  s.interlaced = true;
  auto src = CGImageSourceCreateWithData(makePNG(s));
  EXPECT_TRUE(CGImageSourceCopyPropertiesAtIndex(src, 0)[kCGImagePropertyIsProgressive].boolValue());
  auto interlaced = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(plain);
  ASSERT_TRUE(interlaced);
  EXPECT_EQ(plain->pixels, interlaced->pixels);
  EXPECT_EQ(pixel(plain, 12, 10), (std::array<std::uint8_t, 4>{static_cast<std::uint8_t>(12 * 19), 230, 120, 255}));
}

TEST(ImageIORoundTrip, PNGProfilesAreNoted) {
  PNGSpec s;
  s.width = 1;
  s.height = 1;
  s.colorType = 2;
  s.rows = {{1, 2, 3}};
  s.iccProfile = iccProfileWithDescription("Test Wide Gamut");
  auto props = CGImageSourceCopyPropertiesAtIndex(CGImageSourceCreateWithData(makePNG(s)), 0);
  EXPECT_TRUE(props[kCGImagePropertyHasICCProfile].boolValue());
  ASSERT_TRUE(props[kCGImagePropertyProfileName].string());
  EXPECT_EQ(*props[kCGImagePropertyProfileName].string(), "Test Wide Gamut");
  s.iccProfile.clear();
  s.srgb = true;
  props = CGImageSourceCopyPropertiesAtIndex(CGImageSourceCreateWithData(makePNG(s)), 0);
  EXPECT_FALSE(props[kCGImagePropertyHasICCProfile].boolValue());
  EXPECT_EQ(*props[kCGImagePropertyProfileName].string(), "sRGB IEC61966-2.1");
}

TEST(ImageIORoundTrip, JPEGQualityTradesSizeForError) {
  auto img = gradient(64, 48, false);
  Bytes low = encode(img, kUTTypeJPEG, {{kCGImageDestinationLossyCompressionQuality, 0.2}});
  Bytes high = encode(img, kUTTypeJPEG, {{kCGImageDestinationLossyCompressionQuality, 0.98}});
  Bytes byDefault = encode(img, kUTTypeJPEG);
  ASSERT_FALSE(low.empty());
  ASSERT_FALSE(high.empty());
  EXPECT_LT(low.size(), byDefault.size());
  EXPECT_LT(byDefault.size(), high.size());
  auto lowImg = decode(low), highImg = decode(high);
  ASSERT_TRUE(lowImg);
  ASSERT_TRUE(highImg);
  const double lowErr = meanAbsoluteError(img, lowImg), highErr = meanAbsoluteError(img, highImg);
  EXPECT_LT(highErr, lowErr);
  EXPECT_LT(highErr, 5.0);  // chroma is subsampled, and the blue channel is busy
  EXPECT_FALSE(highImg->hasAlpha);
  for (std::size_t i = 3; i < highImg->pixels.size(); i += 4) ASSERT_EQ(highImg->pixels[i], 255);
  auto props = CGImageSourceCopyPropertiesAtIndex(CGImageSourceCreateWithData(high), 0);
  EXPECT_EQ(CGImageSourceGetType(CGImageSourceCreateWithData(high)), "public.jpeg");
  EXPECT_EQ(*props[kCGImagePropertyColorModel].string(), "RGB");
  EXPECT_FALSE(props[kCGImagePropertyIsProgressive].boolValue());
}

TEST(ImageIORoundTrip, JPEGDropsAlphaAndWritesGrey) {
  auto withAlpha = gradient(16, 16, true);
  Bytes jpg = encode(withAlpha, kUTTypeJPEG);
  auto props = CGImageSourceCopyPropertiesAtIndex(CGImageSourceCreateWithData(jpg), 0);
  EXPECT_FALSE(props[kCGImagePropertyHasAlpha].boolValue());
  auto grey = makeImage(16, 16, false, [](std::size_t x, std::size_t) {
    const auto v = static_cast<std::uint8_t>(x * 16);
    return std::array<std::uint8_t, 4>{v, v, v, 255};
  });
  std::const_pointer_cast<CGImage>(grey)->colorModel = "Gray";
  auto src = CGImageSourceCreateWithData(encode(grey, kUTTypeJPEG, {{kCGImageDestinationLossyCompressionQuality, 1.0}}));
  EXPECT_EQ(*CGImageSourceCopyPropertiesAtIndex(src, 0)[kCGImagePropertyColorModel].string(), "Gray");
  auto out = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->colorModel, "Gray");
  EXPECT_LT(meanAbsoluteError(grey, out), 1.5);
  for (std::size_t i = 0; i < out->pixels.size(); i += 4) {
    ASSERT_EQ(out->pixels[i], out->pixels[i + 1]);
    ASSERT_EQ(out->pixels[i], out->pixels[i + 2]);
  }
}

TEST(ImageIORoundTrip, JPEGFromSixteenBits) {
  auto img = CGImageCreateWithBitsPerComponent(gradient(8, 8, false), 16);
  ASSERT_EQ(img->bitsPerComponent, 16);
  auto out = decode(encode(img, kUTTypeJPEG, {{kCGImageDestinationLossyCompressionQuality, 1.0}}));
  ASSERT_TRUE(out);
  EXPECT_EQ(out->bitsPerComponent, 8);
  EXPECT_LT(meanAbsoluteError(gradient(8, 8, false), out), 4.0);
}

TEST(ImageIORoundTrip, WebPLosslessIsExactAndLossyIsClose) {
  auto img = gradient(30, 20, true);
  Bytes lossless = encode(img, kUTTypeWebP, {{kCGImageDestinationLossless, Value::boolean(true)}});
  auto src = CGImageSourceCreateWithData(lossless);
  ASSERT_TRUE(src);
  EXPECT_EQ(CGImageSourceGetType(src), "org.webmproject.webp");
  auto props = CGImageSourceCopyPropertiesAtIndex(src, 0);
  EXPECT_EQ(props[kCGImagePropertyPixelWidth].integerValue(), 30);
  EXPECT_TRUE(props[kCGImagePropertyHasAlpha].boolValue());
  auto out = CGImageSourceCreateImageAtIndex(src, 0);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->pixels, img->pixels);
  // Quality 1.0 also means lossless.
  auto q1 = decode(encode(img, kUTTypeWebP, {{kCGImageDestinationLossyCompressionQuality, 1.0}}));
  ASSERT_TRUE(q1);
  EXPECT_EQ(q1->pixels, img->pixels);
  auto opaque = gradient(30, 20, false);
  Bytes lossy = encode(opaque, kUTTypeWebP, {{kCGImageDestinationLossyCompressionQuality, 0.9}});
  auto lossySrc = CGImageSourceCreateWithData(lossy);
  EXPECT_FALSE(CGImageSourceCopyPropertiesAtIndex(lossySrc, 0)[kCGImagePropertyHasAlpha].boolValue());
  auto lossyImg = CGImageSourceCreateImageAtIndex(lossySrc, 0);
  ASSERT_TRUE(lossyImg);
  EXPECT_LT(meanAbsoluteError(opaque, lossyImg), 8.0);
  EXPECT_GT(meanAbsoluteError(opaque, lossyImg), 0.0);
}

TEST(ImageIORoundTrip, StripsEqualTheFullDecode) {
  auto img = gradient(50, 77, true);
  for (const char* type : {kUTTypePNG, kUTTypeJPEG, kUTTypeWebP}) {
    auto src = CGImageSourceCreateWithData(encode(img, type));
    ASSERT_TRUE(src) << type;
    auto full = CGImageSourceCreateImageAtIndex(src, 0);
    ASSERT_TRUE(full) << type;
    std::vector<std::uint8_t> assembled;
    std::size_t nextRow = 0;
    const bool ok = CGImageSourceDecodeStripsAtIndex(src, 0, [&](const CGImageSourceStrip& s) {
      EXPECT_EQ(s.firstRow, nextRow);
      EXPECT_EQ(s.width, 50u);
      EXPECT_EQ(s.height, 77u);
      for (std::size_t i = 0; i < s.rowCount; ++i)
        assembled.insert(assembled.end(), s.rows + i * s.bytesPerRow, s.rows + i * s.bytesPerRow + 50 * 4);
      nextRow += s.rowCount;
      return true;
    });
    EXPECT_TRUE(ok) << type;
    EXPECT_EQ(nextRow, 77u);
    EXPECT_EQ(assembled, full->pixels) << type;
    // A consumer that stops ends the decode with "stopped".
    int calls = 0;
    EXPECT_FALSE(CGImageSourceDecodeStripsAtIndex(src, 0, [&](const CGImageSourceStrip&) { return ++calls < 2; }));
    EXPECT_EQ(CGImageSourceGetLastError(src), "stopped");
  }
}

// Files only an outside encoder makes: progressive and CMYK JPEGs (skipped without ImageMagick).
TEST(ImageIORoundTrip, ProgressiveAndCMYKJPEGs) {
  if (std::system("command -v convert >/dev/null 2>&1") != 0) GTEST_SKIP() << "ImageMagick not installed";
  const std::string dir = tempDir();
  writeFile(dir + "/base.png", encode(gradient(64, 40, false), kUTTypePNG));
  ASSERT_EQ(std::system(("convert " + dir + "/base.png -interlace JPEG -quality 95 " + dir + "/prog.jpg").c_str()), 0);
  ASSERT_EQ(std::system(("convert " + dir + "/base.png -colorspace CMYK -quality 95 " + dir + "/cmyk.jpg").c_str()), 0);
  auto prog = CGImageSourceCreateWithURL(dir + "/prog.jpg");
  ASSERT_TRUE(prog);
  EXPECT_TRUE(CGImageSourceCopyPropertiesAtIndex(prog, 0)[kCGImagePropertyIsProgressive].boolValue());
  auto progImg = CGImageSourceCreateImageAtIndex(prog, 0);
  ASSERT_TRUE(progImg);
  EXPECT_LT(meanAbsoluteError(gradient(64, 40, false), progImg), 3.0);
  auto thumb = CGImageSourceCreateThumbnailAtIndex(prog, 0, {{kCGImageSourceThumbnailMaxPixelSize, 16}});
  ASSERT_TRUE(thumb);
  EXPECT_EQ(thumb->width, 16u);
  EXPECT_EQ(thumb->height, 10u);
  auto cmyk = CGImageSourceCreateWithURL(dir + "/cmyk.jpg");
  ASSERT_TRUE(cmyk);
  EXPECT_EQ(*CGImageSourceCopyPropertiesAtIndex(cmyk, 0)[kCGImagePropertyColorModel].string(), "CMYK");
  auto cmykImg = CGImageSourceCreateImageAtIndex(cmyk, 0);
  ASSERT_TRUE(cmykImg);
  EXPECT_EQ(cmykImg->colorModel, "RGB");
  EXPECT_LT(meanAbsoluteError(gradient(64, 40, false), cmykImg), 12.0);
}

TEST(ImageIORoundTrip, JPEGICCProfileIsNoted) {
  Bytes jpg = encode(gradient(8, 8, false), kUTTypeJPEG);
  Bytes icc = iccProfileWithDescription("Display P3 Test");
  Bytes app2 = {'I', 'C', 'C', '_', 'P', 'R', 'O', 'F', 'I', 'L', 'E', 0, 1, 1};
  app2.insert(app2.end(), icc.begin(), icc.end());
  auto props = CGImageSourceCopyPropertiesAtIndex(CGImageSourceCreateWithData(spliceJPEGSegment(jpg, 0xe2, app2)), 0);
  EXPECT_TRUE(props[kCGImagePropertyHasICCProfile].boolValue());
  ASSERT_TRUE(props[kCGImagePropertyProfileName].string());
  EXPECT_EQ(*props[kCGImagePropertyProfileName].string(), "Display P3 Test");
}

#include <gtest/gtest.h>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/ColorSpace.h"
#include "RenderSupport.h"

TEST(CIContextBasics, BitmapRendersBackItsPixels) {
  const auto px = makeTestPixels(17, 9);
  auto img = CIImage::imageWithRGBAf(px.data(), 17, 9);
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(img, img.extent()), px));
}

TEST(CIContextBasics, PixelAtIsLowerLeftCorner) {
  auto px = makeTestPixels(4, 3);
  auto img = CIImage::imageWithRGBAf(px.data(), 4, 3, CGPointMake(10, 20));
  // Row 0 of the pixels is the top row (y = 22); (11, 20) is column 1 of the bottom row.
  auto p = pixelAt(img, 11, 20);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(p[k], px[(2 * 4 + 1) * 4 + k]);
  auto outside = pixelAt(img, 9, 20);
  for (float v : outside) EXPECT_EQ(v, 0.0f);
}

TEST(CIContextBasics, ConstantColorIsWorkingSpacePremultiplied) {
  auto c = CIColor::colorWithRed(0.5, 0.25, 1.0, 0.5);
  auto img = CIImage::imageWithColor(c);
  auto managed = pixelAt(img, -1e6, 3e5, true);
  auto expect = workingColor(*c, true);
  for (int k = 0; k < 4; ++k) EXPECT_FLOAT_EQ(managed[k], expect[k]);
  auto raw = pixelAt(img, 0, 0, false);
  EXPECT_FLOAT_EQ(raw[0], 0.25f);
  EXPECT_FLOAT_EQ(raw[3], 0.5f);
}

TEST(CIContextBasics, InfiniteWithoutBoundsIsAnError) {
  CIContext ctx;
  auto img = CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0));
  float buf[4];
  EXPECT_THROW(ctx.render(img, buf, 16, CGRectNull, CIRenderFormat::RGBAf), CIRenderError);
  EXPECT_THROW(ctx.render(img, buf, 16, CGRectInfinite, CIRenderFormat::RGBAf), CIRenderError);
  EXPECT_THROW(ctx.render(CIImage(), buf, 16, CGRectMake(0, 0, 1, 1), CIRenderFormat::RGBAf), CIRenderError);
  try {
    ctx.render(img, buf, 16, CGRectNull, CIRenderFormat::RGBAf);
  } catch (const CIRenderError& e) {
    EXPECT_NE(std::string(e.what()).find("infinite"), std::string::npos);
  }
  // With bounds it renders.
  EXPECT_NO_THROW(ctx.render(img, buf, 16, CGRectMake(5, 5, 1, 1), CIRenderFormat::RGBAf));
  EXPECT_EQ(buf[0], 1.0f);
}

TEST(CIContextBasics, ShortRowsAreAnError) {
  CIContext ctx;
  auto img = makeTestImage(8, 8);
  std::vector<float> buf(8 * 8 * 4);
  EXPECT_THROW(ctx.render(img, buf.data(), 8 * 4 * 4 - 1, img.extent(), CIRenderFormat::RGBAf), CIRenderError);
}

// Shrink on load (CIContextOptions::fastShrink): a JPEG read only by a Lanczos downscale is
// decoded at a DCT scale that leaves the Lanczos at least a halving. Which scale for which
// downscale, where it applies, and how far its pixels are from the full decode's.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/Nodes/GeometryNodes.h"
#include "ImageIO/ImageIO.h"
#include "RenderSupport.h"

namespace fs = std::filesystem;

namespace {

class ShrinkOnLoad : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("qv-shrink-on-load-" + std::to_string(getpid()));
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Writes `pixels` (w × h, row 0 on top, working floats) to a file of the given name.
  std::string write(const std::vector<float>& pixels, int w, int h, const std::string& name) {
    const std::string path = (dir_ / name).string();
    const CIImage image = CIImage::imageWithRGBAf(pixels.data(), std::size_t(w), std::size_t(h));
    CIContext().writeToFile(image, path, image.extent(), 0.9);
    return path;
  }

  fs::path dir_;
};

// A smooth picture: slow colour waves, like the generated sample photo.
std::vector<float> smoothPixels(int w, int h) {
  std::vector<float> p(std::size_t(w) * std::size_t(h) * 4);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      float* q = &p[(std::size_t(y) * std::size_t(w) + std::size_t(x)) * 4];
      q[0] = float(0.3 + 0.25 * std::sin(x * 0.011) * std::cos(y * 0.007));
      q[1] = float(0.4 + 0.3 * std::sin((x + y) * 0.006));
      q[2] = float(0.35 + 0.3 * std::cos(x * 0.004 - y * 0.009));
      q[3] = 1.0f;
    }
  return p;
}

// A grainy picture: the smooth one with strong per-pixel noise and hard-edged bright dots.
std::vector<float> grainyPixels(int w, int h) {
  std::vector<float> p = smoothPixels(w, h);
  unsigned state = 12345;
  auto next = [&] {
    state = state * 1664525u + 1013904223u;
    return float(state >> 8) / float(1u << 24);
  };
  for (std::size_t i = 0; i < p.size(); i += 4) {
    const float grain = (next() - 0.5f) * 0.3f;
    for (int k = 0; k < 3; ++k) p[i + std::size_t(k)] = std::clamp(p[i + std::size_t(k)] + grain, 0.0f, 1.0f);
    if (next() < 0.002f) p[i] = p[i + 1] = p[i + 2] = 1.0f;
  }
  return p;
}

CIImage lanczos(const CIImage& input, double scale) {
  auto f = CIFilter::filterWithName("CILanczosScaleTransform");
  f->setDefaults();
  f->setValue(input, kCIInputImageKey);
  f->setValue(Value(scale), kCIInputScaleKey);
  return f->outputImage();
}

std::vector<std::uint8_t> render8(const CIImage& image, bool fastShrink) {
  CIContextOptions o;
  o.fastShrink = fastShrink;
  return renderRGBA8(image, image.extent(), o);
}

std::vector<float> unit(const std::vector<std::uint8_t>& v) {
  std::vector<float> f(v.size());
  for (std::size_t i = 0; i < v.size(); ++i) f[i] = float(v[i]) / 255.0f;
  return f;
}

}  // namespace

TEST(ShrinkOnLoadRule, TheLargestDctScaleThatLeavesTheLanczosAHalving) {
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1 / 30.0, 1 / 30.0), 8);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1 / 16.0, 1 / 16.0), 8);  // 1/8 leaves exactly 1/2
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1 / 15.0, 1 / 15.0), 4);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1 / 8.0, 1 / 8.0), 4);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1 / 7.0, 1 / 7.0), 2);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1 / 4.0, 1 / 4.0), 2);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(0.3, 0.3), 1);  // a halving would leave 0.6
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(0.5, 0.5), 1);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1.0, 1.0), 1);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(3.0, 3.0), 1);
  // The axis shrunk least decides: both must keep their halving.
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1 / 30.0, 1 / 3.0), 1);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(1 / 10.0, 1 / 20.0), 4);
  EXPECT_EQ(LanczosScaleNode::shrinkOnLoadDenominator(0.0, 0.0), 1);
}

TEST_F(ShrinkOnLoad, ReducedDecodeHasTheRoundedUpSizeAndOnlyForJpeg) {
  const std::string jpeg = write(smoothPixels(203, 101), 203, 101, "odd.jpg");
  auto src = CGImageSourceCreateWithURL(jpeg);
  ASSERT_TRUE(src);
  for (int d : {1, 2, 4, 8}) {
    auto reader = CGImageSourceCreateRowReaderAtIndex(src, 0, d);
    ASSERT_TRUE(reader) << d;
    EXPECT_EQ(reader->width(), std::size_t((203 + d - 1) / d));
    EXPECT_EQ(reader->height(), std::size_t((101 + d - 1) / d));
    std::vector<std::uint8_t> rows(reader->bytesPerRow() * reader->height());
    EXPECT_TRUE(reader->readRows(rows.data(), reader->height(), reader->bytesPerRow())) << reader->error();
  }
  EXPECT_FALSE(CGImageSourceCreateRowReaderAtIndex(src, 0, 3));
  EXPECT_NE(CGImageSourceGetLastError(src).find("1, 2, 4 or 8"), std::string::npos);
  const std::string png = write(smoothPixels(40, 30), 40, 30, "small.png");
  auto pngSource = CGImageSourceCreateWithURL(png);
  ASSERT_TRUE(pngSource);
  EXPECT_FALSE(CGImageSourceCreateRowReaderAtIndex(pngSource, 0, 2));
  EXPECT_NE(CGImageSourceGetLastError(pngSource).find("only JPEG"), std::string::npos);
}

TEST_F(ShrinkOnLoad, OffByDefaultAndOnlyWhereItApplies) {
  EXPECT_FALSE(CIContextOptions{}.fastShrink);
  const std::vector<float> pixels = grainyPixels(480, 320);
  const CIImage jpeg = CIImage::imageWithContentsOfFile(write(pixels, 480, 320, "grain.jpg"));
  const CIImage png = CIImage::imageWithContentsOfFile(write(pixels, 480, 320, "grain.png"));
  ASSERT_TRUE(jpeg);
  ASSERT_TRUE(png);
  // Applies: a JPEG read only by a downscale by 1/10 (a DCT scale of 1/4 leaves 0.4).
  const CIImage small = lanczos(jpeg, 0.1);
  EXPECT_NE(render8(small, true), render8(small, false));
  EXPECT_EQ(render8(small, false), renderRGBA8(small, small.extent()));
  // Does not apply: a PNG, a downscale by 1/3, a JPEG that another node reads at full size.
  const CIImage fromPng = lanczos(png, 0.1);
  EXPECT_EQ(render8(fromPng, true), render8(fromPng, false));
  const CIImage third = lanczos(jpeg, 1 / 3.0);
  EXPECT_EQ(render8(third, true), render8(third, false));
  auto over = CIFilter::filterWithName("CISourceOverCompositing");
  over->setValue(small, kCIInputImageKey);
  over->setValue(jpeg, kCIInputBackgroundImageKey);
  const CIImage both = over->outputImage().imageByCroppingToRect(small.extent());
  EXPECT_EQ(render8(both, true), render8(both, false));
}

TEST_F(ShrinkOnLoad, CloseToTheFullDecodeButNotWithinTheGoldenToleranceOnGrain) {
  // The decoder averages its blocks in the file's encoded values (and its colour planes at
  // their own scale), the Lanczos in linear light: on a smooth picture the two stay close (at
  // the picture's border, where the kernel's weights are cut by the transparent outside, they
  // differ most); grain and bright dots on a darker ground are averaged darker by the decoder,
  // beyond the golden tolerance, which is why the option is off unless asked for.
  const int w = 1200, h = 800;
  for (bool grainy : {false, true}) {
    SCOPED_TRACE(grainy ? "grainy" : "smooth");
    const CIImage file =
        CIImage::imageWithContentsOfFile(write(grainy ? grainyPixels(w, h) : smoothPixels(w, h), w, h, "p.jpg"));
    ASSERT_TRUE(file);
    for (double scale : {1 / 20.0, 1 / 6.0}) {
      SCOPED_TRACE(scale);
      const CIImage small = lanczos(file, scale);
      const auto fast = unit(render8(small, true)), exact = unit(render8(small, false));
      const ToleranceReport report = compareWithTolerance(fast, exact);
      double mean = 0;
      for (std::size_t i = 0; i < fast.size(); ++i) mean += std::fabs(fast[i] - exact[i]);
      mean /= double(fast.size());
      if (grainy) {
        EXPECT_FALSE(report.ok) << report.message;
        EXPECT_LT(mean, 0.02);
      } else {
        EXPECT_LT(report.maxDifference, 0.03f) << report.message;
        EXPECT_LT(double(report.overTolerance), 0.03 * double(report.count)) << report.message;
        EXPECT_LT(mean, 0.002);
      }
    }
  }
}

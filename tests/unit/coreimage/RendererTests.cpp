// The tiled renderer: tiled == whole, threads, progress, output formats, providers, files.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <cstring>
#include <mutex>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/ColorSpace.h"
#include "CoreImage/ImageNode.h"
#include "CoreImage/Render/PixelConvert.h"
#include "ImageIO/CGImage.h"
#include "RenderSupport.h"

namespace {

// Every registered filter with its defaults, given test images for its image inputs; nil when
// it cannot produce an output that way.
CIImage defaultOutput(const std::string& name) {
  auto f = CIFilter::filterWithName(name);
  if (!f) return {};
  f->setDefaults();
  const auto keys = f->inputKeys();
  auto has = [&](const char* k) { return std::find(keys.begin(), keys.end(), k) != keys.end(); };
  if (has(kCIInputImageKey)) f->setValue(makeTestImageWithAlpha(61, 47, CGPointMake(3, -2), 1), kCIInputImageKey);
  if (has(kCIInputBackgroundImageKey))
    f->setValue(makeTestImage(50, 55, CGPointMake(-5, 0), 2), kCIInputBackgroundImageKey);
  if (has(kCIInputMaskImageKey)) f->setValue(makeTestImageWithAlpha(40, 40, CGPointMake(10, 5), 3), kCIInputMaskImageKey);
  return f->outputImage();
}

CGRect renderRect(const CIImage& img) {
  const CGRect probe = CGRectMake(-20, -25, 110, 95);
  if (CGRectIsInfinite(img.extent())) return probe;
  const CGRect e = CGRectIntegral(img.extent());
  // Keep renders of large extents small: the area around the test images.
  return CGRectGetWidth(e) * CGRectGetHeight(e) > 400 * 400 ? CGRectIntersection(e, probe) : e;
}

}  // namespace

TEST(Renderer, EveryBuiltinRendersTheSameTiledAndWhole) {
  std::size_t rendered = 0;
  for (const std::string& name : CIFilter::filterNamesInCategory(kCICategoryBuiltIn)) {
    SCOPED_TRACE(name);
    const CIImage out = defaultOutput(name);
    if (!out) continue;
    const CGRect r = renderRect(out);
    if (CGRectIsEmpty(r)) continue;
    const auto whole = renderRGBAf(out, r, renderOptions(1, 4096));
    const auto tiled = renderRGBAf(out, r, renderOptions(2, 13));
    EXPECT_TRUE(bitwiseEqual(whole, tiled)) << "max difference " << maxAbsDifference(whole, tiled);
    const auto autoTiles = renderRGBAf(out, r, renderOptions(0, 0));
    EXPECT_TRUE(bitwiseEqual(whole, autoTiles));
    ++rendered;
  }
  // At least the geometry built-ins take part.
  EXPECT_GE(rendered, 5u);
}

TEST(Renderer, OneThreadEqualsManyThreads) {
  const auto img = makeTestImageWithAlpha(300, 200)
                       .imageByApplyingTransform(CGAffineTransformMakeRotation(0.2))
                       .imageByApplyingTransform(CGAffineTransformMakeScale(0.4, 0.7));
  const CGRect r = CGRectIntegral(img.extent());
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(img, r, renderOptions(1, 32)), renderRGBAf(img, r, renderOptions(2, 32))));
  EXPECT_TRUE(bitwiseEqual(renderRGBAf(img, r, renderOptions(1, 32)), renderRGBAf(img, r, renderOptions(8, 32))));
}

TEST(Renderer, SharedNodesAreComputedOncePerTile) {
  // A node counting its renders, used twice by one consumer through two paths.
  struct Counting final : ImageNode {
    explicit Counting(CIImage in) : ImageNode(in.extent(), {in}) {}
    mutable std::atomic<int> calls{0};
    void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
      ++calls;
      for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
        std::memcpy(out.at(out.rect.x, y), in[0].at(out.rect.x, y), std::size_t(out.rect.width) * 16);
    }
    std::string name() const override { return "counting"; }
  };
  struct Sum final : ImageNode {
    Sum(CIImage a, CIImage b) : ImageNode(CGRectUnion(a.extent(), b.extent()), {a, b}) {}
    void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
      for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
        for (std::int64_t x = out.rect.x; x < out.rect.maxX(); ++x)
          for (int k = 0; k < 4; ++k) out.at(x, y)[k] = in[0].at(x, y)[k] + in[1].at(x, y)[k];
    }
    std::string name() const override { return "sum"; }
  };
  auto counting = std::make_shared<Counting>(makeTestImage(64, 64));
  const CIImage shared(counting);
  const CIImage graph(std::make_shared<Sum>(shared.imageByCroppingToRect(CGRectMake(0, 0, 64, 40)), shared));
  const auto out = renderRGBAf(graph, graph.extent(), renderOptions(1, 32));
  EXPECT_EQ(counting->calls.load(), 4);  // 2 × 2 tiles, once each
  const auto base = renderRGBAf(makeTestImage(64, 64), CGRectMake(0, 0, 64, 64));
  EXPECT_NEAR(out[0], base[0], 1e-6);  // top row: outside the crop, only one path
  EXPECT_NEAR(out[1], base[1], 1e-6);
  EXPECT_NEAR(out[(63 * 64) * 4], 2 * base[(63 * 64) * 4], 1e-6);  // bottom row: both paths
}

TEST(Renderer, ProgressOncePerTileAtMostAndOneLast) {
  std::mutex m;
  std::vector<double> seen;
  CIContextOptions o = renderOptions(2, 16);
  o.progress = [&](double f) {
    std::lock_guard lock(m);
    seen.push_back(f);
  };
  const auto img = makeTestImage(64, 48);
  std::vector<float> buf(64 * 48 * 4);
  CIContext(o).render(img, buf.data(), 64 * 16, img.extent(), CIRenderFormat::RGBAf);
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.size(), 4u * 3u);  // once per tile
  EXPECT_EQ(seen.back(), 1.0);
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 1.0), 1);
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}

TEST(RenderFormats, RGBA8IsRoundedStraightAlpha) {
  // Premultiplied working values, colour management off: straight = value / alpha.
  const float px[] = {0.125f, 0.25f, 0.0f, 0.5f,  // straight (0.25, 0.5, 0), alpha 0.5
                      1.5f,   -0.2f, 1.0f, 1.0f,  // out of range: clamped
                      0.3f,   0.3f,  0.3f, 0.0f};  // alpha 0: all zero
  const auto img = CIImage::imageWithRGBAf(px, 3, 1);
  const auto out = renderRGBA8(img, img.extent(), renderOptions(1, 0, false));
  // 0.25 × 255 = 63.75 rounds to 64 (not 63); alpha 0.5 → 127.5 rounds to 128.
  EXPECT_EQ(std::vector<int>(out.begin(), out.end()), (std::vector<int>{64, 128, 0, 128, 255, 0, 255, 255, 0, 0, 0, 0}));
}

TEST(RenderFormats, RGBA8IsSRGBEncodedWhenManaged) {
  const float px[] = {0.18f, 1.0f, 0.0f, 1.0f, 0.5f * 0.5f, 0.0f, 0.0f, 0.5f};
  const auto img = CIImage::imageWithRGBAf(px, 2, 1);
  const auto out = renderRGBA8(img, img.extent(), renderOptions(1, 0, true));
  EXPECT_EQ(out[0], 118);  // linear 0.18 is sRGB 0.4614
  EXPECT_EQ(out[1], 255);
  EXPECT_EQ(out[4], 188);  // straight linear 0.5 is sRGB 0.7354
  EXPECT_EQ(out[7], 128);
}

TEST(RenderFormats, EveryEightBitCodeRoundTrips) {
  std::vector<std::uint8_t> codes(256 * 4);
  for (int i = 0; i < 256; ++i) {
    codes[std::size_t(i) * 4] = std::uint8_t(i);
    codes[std::size_t(i) * 4 + 1] = std::uint8_t(255 - i);
    codes[std::size_t(i) * 4 + 2] = std::uint8_t((i * 7) & 255);
    codes[std::size_t(i) * 4 + 3] = 255;
  }
  const auto img = CIImage::imageWithRGBA8(codes.data(), 256, 1, 256 * 4);
  EXPECT_EQ(renderRGBA8(img, img.extent(), renderOptions(1, 0, true)), codes);
  EXPECT_EQ(renderRGBA8(img, img.extent(), renderOptions(1, 0, false)), codes);
}

// The managed 8-bit encoder finds each component's nearest sRGB code from a bucket table and
// one threshold step; on a dense sweep of linear values it must agree exactly with a search of
// the code thresholds.
TEST(RenderFormats, ManagedEightBitEncodeIsTheNearestCodeOnADenseSweep) {
  std::array<float, 255> thresholds{};
  for (int k = 0; k < 255; ++k) thresholds[k] = srgbToLinear((static_cast<float>(k) + 0.5f) / 255.0f);
  constexpr int n = 1 << 20;
  std::vector<float> px(std::size_t(n) * 4);
  for (int i = 0; i < n; ++i) {
    const float v = static_cast<float>(i) / static_cast<float>(n - 1);
    px[std::size_t(i) * 4 + 0] = v;
    px[std::size_t(i) * 4 + 1] = std::nextafter(v, 0.0f);
    px[std::size_t(i) * 4 + 2] = i < 255 ? thresholds[std::size_t(i)] : v * 0.5f;  // exactly on thresholds too
    px[std::size_t(i) * 4 + 3] = 1.0f;
  }
  std::vector<std::uint8_t> out(px.size());
  qvpixel::encodeStraightRGBA8(px.data(), out.data(), n, true);
  for (std::size_t i = 0; i < px.size(); ++i) {
    if (i % 4 == 3) continue;
    const float v = px[i];
    const int expected = v <= 0.0f ? 0 : v >= 1.0f ? 255
        : int(std::upper_bound(thresholds.begin(), thresholds.end(), v) - thresholds.begin());
    ASSERT_EQ(int(out[i]), expected) << "linear value " << v;
  }
}

TEST(RenderFormats, RGBA16) {
  const float px[] = {0.125f, 0.25f, 0.5f, 0.5f};
  const auto img = CIImage::imageWithRGBAf(px, 1, 1);
  std::uint16_t out[4];
  CIContext(renderOptions(1, 0, false)).render(img, out, 8, img.extent(), CIRenderFormat::RGBA16);
  EXPECT_EQ(out[0], 16384);  // 0.25 × 65535 = 16383.75
  EXPECT_EQ(out[1], 32768);
  EXPECT_EQ(out[2], 65535);
  EXPECT_EQ(out[3], 32768);
  CIContext(renderOptions(1, 0, true)).render(img, out, 8, img.extent(), CIRenderFormat::RGBA16);
  EXPECT_EQ(out[1], std::uint16_t(std::floor(linearToSrgb(0.5f) * 65535.0f + 0.5f)));
}

TEST(RenderFormats, RowZeroIsTheTopRow) {
  const auto img = makeTestImage(3, 4);
  const auto all = renderRGBAf(img, img.extent());
  const auto top = renderRGBAf(img, CGRectMake(0, 3, 3, 1));
  EXPECT_TRUE(bitwiseEqual(std::vector<float>(all.begin(), all.begin() + 12), top));
}

namespace {
class CountingProvider final : public CIImageProvider {
 public:
  std::atomic<int> calls{0};
  std::mutex m;
  std::vector<std::array<std::size_t, 4>> requests;
  void provideImageData(void* data, std::size_t rowBytes, std::size_t x, std::size_t y, std::size_t w, std::size_t h,
                        const Value&) override {
    ++calls;
    {
      std::lock_guard lock(m);
      requests.push_back({x, y, w, h});
    }
    for (std::size_t r = 0; r < h; ++r) {
      auto* row = static_cast<std::uint8_t*>(data) + r * rowBytes;
      for (std::size_t c = 0; c < w; ++c) {
        // ARGB, premultiplied: alpha 255, red = column, green = row from the top.
        row[c * 4] = 255;
        row[c * 4 + 1] = std::uint8_t(x + c);
        row[c * 4 + 2] = std::uint8_t(y + r);
        row[c * 4 + 3] = 0;
      }
    }
  }
};
}  // namespace

TEST(Providers, WholeImageOncePerRender) {
  auto p = std::make_shared<CountingProvider>();
  const auto img = CIImage::imageWithImageProvider(p, 100, 70, CIFormat::ARGB8, "kCGColorSpaceGenericRGB", {});
  EXPECT_EQ(img.extent(), CGRectMake(0, 0, 100, 70));
  EXPECT_EQ(p->calls.load(), 0);  // nothing asked while building
  const auto out = renderRGBAf(img, img.extent(), renderOptions(2, 16, false));
  EXPECT_EQ(p->calls.load(), 1);
  EXPECT_EQ(p->requests[0], (std::array<std::size_t, 4>{0, 0, 100, 70}));
  // Pixel (x, y) of the plane is provider column x, row 69 - y from the top.
  const auto q = pixelAt(img, 7, 60, false);
  EXPECT_NEAR(q[0], 7 / 255.0, 1e-7);
  EXPECT_NEAR(q[1], 9 / 255.0, 1e-7);
  EXPECT_EQ(q[3], 1.0f);
  renderRGBAf(img, img.extent(), renderOptions(2, 16, false));
  EXPECT_EQ(p->calls.load(), 3);  // once more per render (pixelAt was one)
  (void)out;
}

TEST(Providers, TileSizeOptionAsksInTiles) {
  auto p = std::make_shared<CountingProvider>();
  const auto img = CIImage::imageWithImageProvider(p, 100, 70, CIFormat::ARGB8, "kCGColorSpaceGenericRGB",
                                                   {{"CIImageProviderTileSize", Value(32)}});
  const auto tiled = renderRGBAf(img, img.extent(), renderOptions(2, 16, false));
  EXPECT_EQ(p->calls.load(), 4 * 3);  // every 32-pixel tile once
  auto whole = std::make_shared<CountingProvider>();
  const auto img2 = CIImage::imageWithImageProvider(whole, 100, 70, CIFormat::ARGB8, "kCGColorSpaceGenericRGB", {});
  EXPECT_TRUE(bitwiseEqual(tiled, renderRGBAf(img2, img2.extent(), renderOptions(2, 16, false))));
}

TEST(Files, PngRoundTripThroughWriteToFile) {
  const auto dir = std::filesystem::temp_directory_path() / "qv_engine_tests";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "roundtrip.png").string();
  const auto img = makeTestImageWithAlpha(300, 270, CGPointMake(4, 9));
  CIContext ctx(renderOptions(2, 64));
  ctx.writeToFile(img, path, CGRectNull);
  const auto back = CIImage::imageWithContentsOfFile(path);
  ASSERT_FALSE(back.isNil());
  EXPECT_EQ(back.extent(), CGRectMake(0, 0, 300, 270));
  const auto expected = renderRGBA8(img, img.extent());
  const auto actual = renderRGBA8(back, back.extent());
  EXPECT_EQ(actual, expected);
  std::filesystem::remove(path);
}

TEST(Files, JpegAndErrors) {
  const auto dir = std::filesystem::temp_directory_path() / "qv_engine_tests";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "out.jpg").string();
  const auto img = makeTestImage(120, 80);
  CIContext ctx;
  ctx.writeToFile(img, path, CGRectMake(10, 10, 50, 40), 0.8);
  const auto back = CIImage::imageWithContentsOfFile(path);
  ASSERT_FALSE(back.isNil());
  EXPECT_EQ(back.extent(), CGRectMake(0, 0, 50, 40));
  EXPECT_THROW(ctx.writeToFile(img, (dir / "out.tiff").string(), CGRectNull), CIRenderError);
  EXPECT_THROW(ctx.writeToFile(CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0)), path, CGRectNull), CIRenderError);
  EXPECT_TRUE(CIImage::imageWithContentsOfFile((dir / "missing.png").string()).isNil());
  std::filesystem::remove(path);
}

TEST(PixelConvert, PremultipliedEightBitPixelsDecodeToTheFormulaForEveryAlphaAndComponent) {
  // Un-premultiply, decode from sRGB, premultiply again: every (component, alpha) pair, both
  // component orders, colour management on and off.
  std::vector<std::uint8_t> argb, rgba;
  for (int a = 0; a < 256; ++a)
    for (int c = 0; c < 256; ++c) {
      const auto a8 = std::uint8_t(a), c8 = std::uint8_t(c), d8 = std::uint8_t(255 - c);
      argb.insert(argb.end(), {a8, c8, d8, c8});
      rgba.insert(rgba.end(), {c8, d8, c8, a8});
    }
  const std::size_t n = 256 * 256;
  for (bool managed : {true, false}) {
    std::vector<float> fromArgb(n * 4), fromRgba(n * 4);
    qvpixel::decodePremultipliedARGB8(argb.data(), fromArgb.data(), n, managed);
    qvpixel::decodePremultipliedRGBA8(rgba.data(), fromRgba.data(), n, managed);
    EXPECT_EQ(fromArgb, fromRgba);
    for (std::size_t i = 0; i < n; ++i) {
      const std::uint8_t a8 = std::uint8_t(i / 256);
      const float a = float(a8) / 255.0f;
      const std::uint8_t components[3] = {std::uint8_t(i % 256), std::uint8_t(255 - i % 256), std::uint8_t(i % 256)};
      for (int k = 0; k < 3; ++k) {
        const float e = float(components[k]) / 255.0f;
        const float expected = !managed ? e : a8 == 0 ? 0.0f : srgbToLinear(std::min(1.0f, e / a)) * a;
        ASSERT_EQ(fromArgb[4 * i + std::size_t(k)], expected) << "alpha " << int(a8) << " component " << int(components[k]);
      }
      ASSERT_EQ(fromArgb[4 * i + 3], a);
    }
  }
}

namespace {
// A provider whose pixels are one straight RGBA bitmap it hands out: red = column, green = row
// from the top, opaque (the same pixels as CountingProvider's). provideImageData counts calls.
class BitmapProvider final : public CIImageProvider {
 public:
  BitmapProvider(std::size_t w, std::size_t h) {
    auto b = CGImageCreateBlank(w, h);
    for (std::size_t y = 0; y < h; ++y)
      for (std::size_t x = 0; x < w; ++x) {
        std::uint8_t* p = b->row(y) + x * 4;
        p[0] = std::uint8_t(x);
        p[1] = std::uint8_t(y);
        p[2] = 0;
        p[3] = 255;
      }
    bitmap = b;
  }
  std::atomic<int> calls{0}, shares{0};
  CGImageRef bitmap;
  void provideImageData(void*, std::size_t, std::size_t, std::size_t, std::size_t, std::size_t, const Value&) override {
    ++calls;
  }
  std::shared_ptr<const CGImage> sharedBitmap() override {
    ++shares;
    return bitmap;
  }
};
}  // namespace

TEST(Providers, SharedBitmapOfTheImageSizeIsReadInPlaceOncePerRender) {
  auto shared = std::make_shared<BitmapProvider>(100, 70);
  const auto img = CIImage::imageWithImageProvider(shared, 100, 70, CIFormat::ARGB8, "kCGColorSpaceGenericRGB", {});
  auto copied = std::make_shared<CountingProvider>();
  const auto ref = CIImage::imageWithImageProvider(copied, 100, 70, CIFormat::ARGB8, "kCGColorSpaceGenericRGB", {});
  for (bool managed : {false, true}) {
    EXPECT_TRUE(bitwiseEqual(renderRGBAf(img, img.extent(), renderOptions(2, 16, managed)),
                             renderRGBAf(ref, ref.extent(), renderOptions(2, 16, managed))));
  }
  EXPECT_EQ(shared->calls.load(), 0);   // no copy asked for
  EXPECT_EQ(shared->shares.load(), 2);  // once per render, however many tiles
}

TEST(Providers, SharedBitmapOfAnotherSizeIsNotUsed) {
  auto p = std::make_shared<BitmapProvider>(50, 70);
  const auto img = CIImage::imageWithImageProvider(p, 100, 70, CIFormat::ARGB8, "kCGColorSpaceGenericRGB", {});
  renderRGBAf(img, img.extent(), renderOptions(2, 16, false));
  EXPECT_EQ(p->calls.load(), 1);  // asked for its data instead
}

// Parts of an 8-bit render that are a colour or a source's stored pixels unchanged are written
// without rendering them: the round trip of stored 8-bit pixels through the working format
// (exhaustively), each node's answer for a rectangle (inside, outside, straddling its edges,
// what it must not answer), and renders with and without the shortcut, bit for bit.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/ImageNode.h"
#include "CoreImage/Nodes/CoreNodes.h"
#include "CoreImage/Render/PixelConvert.h"
#include "CoreImage/Render/StoredPixels.h"
#include "RenderSupport.h"
#include "StreamTestImages.h"

using namespace qvtest;
using Kind = RegionAnswer::Kind;
using Cut = RegionAnswer::Cut;

namespace {

// decodeStraightRGBA8 then encodeStraightRGBA8 of one pixel.
std::array<std::uint8_t, 4> trip(std::array<std::uint8_t, 4> p, bool managed) {
  float work[4];
  std::array<std::uint8_t, 4> out{};
  qvpixel::decodeStraightRGBA8(p.data(), work, 1, managed);
  qvpixel::encodeStraightRGBA8(work, out.data(), 1, managed);
  return out;
}

const std::string& jpegPath() {
  static const std::string path = [] {
    const std::string p = (streamTestDir() / "pass.jpg").string();
    writePicture(grainyPicture(200, 150, false), p);
    return p;
  }();
  return path;
}

const std::string& alphaPngPath() {
  static const std::string path = [] {
    const std::string p = (streamTestDir() / "pass-alpha.png").string();
    writePicture(grainyPicture(200, 150, true), p);
    return p;
  }();
  return path;
}

CIImage blendWithMask(const CIImage& image, const CIImage& background, const CIImage& mask) {
  const CIFilterRef blend = CIFilter::filterWithName("CIBlendWithMask");
  blend->setValue(image, kCIInputImageKey);
  blend->setValue(background, kCIInputBackgroundImageKey);
  blend->setValue(mask, kCIInputMaskImageKey);
  return CIImage::fromValue(blend->valueForKey(kCIOutputImageKey));
}

CIImage sourceOver(const CIImage& image, const CIImage& background) {
  const CIFilterRef over = CIFilter::filterWithName("CISourceOverCompositing");
  over->setValue(image, kCIInputImageKey);
  over->setValue(background, kCIInputBackgroundImageKey);
  return CIImage::fromValue(over->valueForKey(kCIOutputImageKey));
}

// A picture under a texture repeated over it, faded to `alpha` and mixed by soft light: the
// texture tile's graph.
CIImage tiledOver(const CIImage& picture, const CIImage& texture, double alpha) {
  const CIFilterRef tile = CIFilter::filterWithName("CIAffineTile");
  tile->setDefaults();
  tile->setValue(texture, kCIInputImageKey);
  const CIFilterRef fade = CIFilter::filterWithName("CIColorMatrix");
  fade->setDefaults();
  fade->setValue(CIImage::fromValue(tile->valueForKey(kCIOutputImageKey)).imageByCroppingToRect(picture.extent()),
                 kCIInputImageKey);
  fade->setValue(CIVector::vectorWithX(0, 0, 0, alpha), "inputAVector");
  const CIFilterRef soft = CIFilter::filterWithName("CISoftLightBlendMode");
  soft->setValue(CIImage::fromValue(fade->valueForKey(kCIOutputImageKey)), kCIInputImageKey);
  soft->setValue(picture, kCIInputBackgroundImageKey);
  return CIImage::fromValue(soft->valueForKey(kCIOutputImageKey));
}

// The inside border's graph: the picture through a white mask over its inner rectangle, over
// a red background cut to the picture.
CIImage insideBorder(const CIImage& picture, double band) {
  const CGRect e = picture.extent();
  const CIImage background = CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0)).imageByCroppingToRect(e);
  const CIImage mask = CIImage::imageWithColor(CIColor::colorWithString("1.0 1.0 1.0 1.0"))
                           .imageByCroppingToRect(CGRectInset(e, band, band));
  return blendWithMask(picture, background, mask);
}

// The outside border's graph: the picture over a grown blue rectangle, moved by the band.
CIImage outsideBorder(const CIImage& picture, double band) {
  const CIImage background =
      CIImage::imageWithColor(CIColor::colorWithRed(0, 0, 1)).imageByCroppingToRect(CGRectInset(picture.extent(), -band, -band));
  return sourceOver(picture, background).imageByApplyingTransform(CGAffineTransformMakeTranslation(band, band));
}

RegionAnswer answer(const CIImage& image, const PixelRect& rect, bool managed = true) {
  return resolveRegion(*image.node(), rect, managed);
}

std::vector<std::uint8_t> render8(const CIImage& image, bool passThrough, int threads, int tileSize,
                                  bool managed = true) {
  CIContextOptions o;
  o.threads = threads;
  o.tileSize = tileSize;
  o.passThrough = passThrough;
  o.colorManagement = managed;
  return renderRGBA8(image, image.extent(), o);
}

// A source of opaque black pixels with stored 8-bit pixels of its own, which counts the tiles
// rendered from it.
class CountingSource final : public ImageNode {
 public:
  CountingSource() : ImageNode(CGRectMake(0, 0, 64, 48)) {}
  mutable std::atomic<int> renders{0}, writes{0};
  void render(const PixelTile& out, std::span<const ConstPixelTile>, const RenderInfo&) const override {
    ++renders;
    const PixelRect r = out.rect.intersection({0, 0, 64, 48});
    for (std::int64_t y = r.y; y < r.maxY(); ++y)
      for (std::int64_t x = r.x; x < r.maxX(); ++x) out.at(x, y)[3] = 1.0f;
  }
  RegionAnswer describeRegion(const PixelRect& rect, bool) const override {
    RegionAnswer stored;
    stored.kind = Kind::stored;
    stored.opaque = true;
    return RegionAnswer::within(rect, {0, 0, 64, 48}, stored);
  }
  bool writeStored8(const PixelRect& rect, std::uint8_t* topRow, std::ptrdiff_t rowBytes,
                    const RenderInfo&) const override {
    ++writes;
    for (std::int64_t y = 0; y < rect.height; ++y, topRow += rowBytes)
      for (std::int64_t x = 0; x < rect.width; ++x) {
        const std::uint8_t black[4] = {0, 0, 0, 255};
        std::memcpy(topRow + x * 4, black, 4);
      }
    return true;
  }
  std::string name() const override { return "counting"; }
};

}  // namespace

// ---- the round trip of stored pixels ----

TEST(PassThroughRoundTrip, EveryOpaqueCodeSurvivesDecodingAndEncodingAgain) {
  for (bool managed : {true, false}) {
    for (int c = 0; c < 256; ++c) {
      const std::uint8_t v = std::uint8_t(c), w = std::uint8_t(255 - c);
      const auto out = trip({v, w, v, 255}, managed);
      ASSERT_EQ(out[0], v) << "code " << c << (managed ? " managed" : " raw");
      ASSERT_EQ(out[1], w) << "code " << 255 - c << (managed ? " managed" : " raw");
      ASSERT_EQ(out[2], v);
      ASSERT_EQ(out[3], 255);
    }
    EXPECT_TRUE(qvpixel::opaqueRoundTripIsExact(managed));
  }
}

TEST(PassThroughRoundTrip, TranslucentPixelsComeBackAsTheConversionsGiveThem) {
  // Every (alpha, code) pair, in all three colour components with different codes beside it:
  // the re-encoding equals the two conversions. Which pairs survive the trip unchanged: every
  // one with alpha above 0; a transparent pixel loses its colour (it encodes as 0, 0, 0, 0), so
  // copying the bytes of pixels not known opaque would not be exact.
  for (bool managed : {true, false}) {
    for (int a = 0; a < 256; ++a) {
      std::vector<std::uint8_t> in(256 * 4), out(256 * 4);
      for (int c = 0; c < 256; ++c) {
        in[std::size_t(c) * 4 + 0] = std::uint8_t(c);
        in[std::size_t(c) * 4 + 1] = std::uint8_t((c * 7 + 3) & 255);
        in[std::size_t(c) * 4 + 2] = std::uint8_t((c * 13 + 100) & 255);
        in[std::size_t(c) * 4 + 3] = std::uint8_t(a);
      }
      qvpixel::reencodeStraightRGBA8(in.data(), out.data(), 256, managed, false);
      for (int c = 0; c < 256; ++c) {
        const std::uint8_t* p = &in[std::size_t(c) * 4];
        const auto expected = trip({p[0], p[1], p[2], p[3]}, managed);
        ASSERT_EQ(0, std::memcmp(expected.data(), &out[std::size_t(c) * 4], 4))
            << "alpha " << a << " code " << c << (managed ? " managed" : " raw");
        const std::array<std::uint8_t, 4> same{p[0], p[1], p[2], p[3]}, none{0, 0, 0, 0};
        ASSERT_EQ(expected, a > 0 ? same : none) << "alpha " << a << " code " << c << (managed ? " managed" : " raw");
      }
    }
  }
}

TEST(PassThroughRoundTrip, OpaqueRowsAreCopied) {
  std::vector<std::uint8_t> in(64 * 4), out(64 * 4, 0);
  for (std::size_t i = 0; i < in.size(); ++i) in[i] = (i % 4 == 3) ? 255 : std::uint8_t(i * 37);
  qvpixel::reencodeStraightRGBA8(in.data(), out.data(), 64, true, true);
  EXPECT_EQ(in, out);
}

// ---- the nodes' answers ----

TEST(PassThroughAnswers, CropIsItsInputInsideTransparentOutsideAndCutAcrossItsEdge) {
  const CIImage file = CIImage::imageWithContentsOfFile(jpegPath());
  const CIImage crop = file.imageByCroppingToRect(CGRectMake(20, 10, 100, 80));
  RegionAnswer a = answer(crop, {30, 20, 50, 40});
  EXPECT_EQ(a.kind, Kind::stored);
  EXPECT_EQ(a.node, file.node().get());
  EXPECT_EQ(a.dx, 0);
  EXPECT_TRUE(a.opaque);
  a = answer(crop, {150, 100, 20, 20});
  EXPECT_TRUE(a.isTransparent());
  a = answer(crop, {10, 20, 50, 40});  // straddles the left edge at x = 20
  EXPECT_EQ(a.kind, Kind::render);
  EXPECT_EQ(a.cut, Cut::x);
  EXPECT_EQ(a.at, 20);
  a = answer(crop, {30, 80, 50, 40});  // straddles the top edge at y = 90
  EXPECT_EQ(a.cut, Cut::y);
  EXPECT_EQ(a.at, 90);
}

TEST(PassThroughAnswers, WholePixelMovesNameTheInputAndFractionalOnesDoNot) {
  const CIImage file = CIImage::imageWithContentsOfFile(jpegPath());
  const CIImage moved = file.imageByApplyingTransform(CGAffineTransformMakeTranslation(7, -3));
  RegionAnswer a = answer(moved, {10, 10, 30, 30});
  EXPECT_EQ(a.kind, Kind::stored);
  EXPECT_EQ(a.dx, 7);
  EXPECT_EQ(a.dy, -3);
  // An unfolded transform node on the grid at scale 1 moves by whole pixels too.
  const TransformNode shift(file, CGAffineTransformMakeTranslation(5, 4));
  a = resolveRegion(shift, {10, 10, 30, 30}, true);
  EXPECT_EQ(a.kind, Kind::stored);
  EXPECT_EQ(a.dx, 5);
  EXPECT_EQ(a.dy, 4);
  // Half a pixel resamples; a flip reorders: neither is the input's pixels.
  const CIImage half = file.imageByApplyingTransform(CGAffineTransformMakeTranslation(0.5, 0));
  EXPECT_EQ(answer(half, {10, 10, 30, 30}).kind, Kind::render);
  const CIImage flipped = file.imageByApplyingTransform(CGAffineTransformMake(-1, 0, 0, 1, 200, 0));
  EXPECT_EQ(answer(flipped, {10, 10, 30, 30}).kind, Kind::render);
}

TEST(PassThroughAnswers, FilesAnswerTheirStoredPixelsAndWhetherTheyAreOpaque) {
  const CIImage png = CIImage::imageWithContentsOfFile(alphaPngPath());
  RegionAnswer a = answer(png, {0, 0, 200, 150});
  EXPECT_EQ(a.kind, Kind::stored);
  EXPECT_FALSE(a.opaque);
  EXPECT_TRUE(answer(png, {-50, 0, 40, 40}).isTransparent());
  a = answer(png, {190, 0, 40, 40});
  EXPECT_EQ(a.cut, Cut::x);
  EXPECT_EQ(a.at, 200);
}

TEST(PassThroughAnswers, BlendWithMaskIsThePictureInsideTheMaskAndTheColourInTheBand) {
  const CIImage file = CIImage::imageWithContentsOfFile(jpegPath());
  const CIImage border = insideBorder(file, 12);
  RegionAnswer a = answer(border, {12, 12, 176, 126});  // the inner rectangle
  EXPECT_EQ(a.kind, Kind::stored);
  EXPECT_EQ(a.node, file.node().get()) << a.node->description();
  a = answer(border, {0, 0, 12, 150});  // the left band
  ASSERT_EQ(a.kind, Kind::constant);
  EXPECT_EQ(a.color, (std::array<float, 4>{1, 0, 0, 1}));
  a = answer(border, {0, 40, 100, 50});  // straddles the band's inner edge
  EXPECT_EQ(a.kind, Kind::render);
  EXPECT_EQ(a.cut, Cut::x);
  EXPECT_EQ(a.at, 12);
  // A grey mask mixes the two: nothing simpler.
  const CIImage grey = blendWithMask(file, CIImage::imageWithColor(CIColor::colorWithRed(1, 0, 0)),
                                     CIImage::imageWithColor(CIColor::colorWithRed(0.5, 0.5, 0.5)));
  EXPECT_EQ(answer(grey, {20, 20, 20, 20}).kind, Kind::render);
}

TEST(PassThroughAnswers, SourceOverIsAnOpaqueSourceAndTheBackgroundWhereTheSourceIsTransparent) {
  const CIImage jpeg = CIImage::imageWithContentsOfFile(jpegPath());
  const CIImage framed = outsideBorder(jpeg, 10);  // extent 0..220 x 0..170
  RegionAnswer a = answer(framed, {20, 20, 100, 100});
  EXPECT_EQ(a.kind, Kind::stored);
  EXPECT_EQ(a.dx, 10);
  EXPECT_EQ(a.dy, 10);
  a = answer(framed, {0, 0, 10, 170});
  ASSERT_EQ(a.kind, Kind::constant);
  EXPECT_EQ(a.color, (std::array<float, 4>{0, 0, 1, 1}));
  a = answer(framed, {0, 20, 50, 50});
  EXPECT_EQ(a.cut, Cut::x);
  EXPECT_EQ(a.at, 10);
  // A translucent source over a colour mixes them: nothing simpler, whatever the cut.
  const CIImage png = CIImage::imageWithContentsOfFile(alphaPngPath());
  a = answer(outsideBorder(png, 10), {20, 20, 100, 100});
  EXPECT_EQ(a.kind, Kind::render);
  // Over nothing, though, a translucent source is itself.
  a = answer(sourceOver(png, CIImage::emptyImage()), {20, 20, 100, 100});
  EXPECT_EQ(a.kind, Kind::stored);
}

TEST(PassThroughAnswers, ConstantColoursAnswerTheirColourInsideTheirPixels) {
  const CIImage colour =
      CIImage::imageWithColor(CIColor::colorWithRed(0, 1, 0)).imageByCroppingToRect(CGRectMake(0, 0, 10.4, 10));
  RegionAnswer a = answer(colour, {0, 0, 10, 10});
  ASSERT_EQ(a.kind, Kind::constant);
  EXPECT_EQ(a.color, (std::array<float, 4>{0, 1, 0, 1}));
  a = answer(colour, {5, 0, 10, 10});  // pixel 10's centre lies outside 10.4
  EXPECT_EQ(a.cut, Cut::x);
  EXPECT_EQ(a.at, 10);
}

TEST(PassThroughAnswers, ARepeatedTextureIsCutAtTheSeamsBetweenItsCopies) {
  // A 40 x 30 cell at the origin: seams at every multiple of 30 rows.
  const auto picture = grainyPicture(40, 30, false);
  const CIImage cell = CIImage::imageWithRGBA8(picture->pixels.data(), 40, 30, picture->bytesPerRow);
  const CIFilterRef tile = CIFilter::filterWithName("CIAffineTile");
  tile->setDefaults();
  tile->setValue(cell, kCIInputImageKey);
  const CIImage tiled = CIImage::fromValue(tile->valueForKey(kCIOutputImageKey));
  RegionAnswer a = answer(tiled, {0, 50, 100, 20});  // rows 50 to 69 straddle the seam at 60
  EXPECT_EQ(a.kind, Kind::render);
  EXPECT_EQ(a.cut, Cut::y);
  EXPECT_EQ(a.at, 60);
  a = answer(tiled, {0, -10, 100, 20});  // below the origin: the seam at 0
  EXPECT_EQ(a.cut, Cut::y);
  EXPECT_EQ(a.at, 0);
  // Starting at a seam and ending before the next, or taller than the cell (which needs all of
  // it anyway): no cut.
  EXPECT_EQ(answer(tiled, {0, 60, 100, 30}).cut, Cut::none);
  EXPECT_EQ(answer(tiled, {0, 50, 100, 30}).cut, Cut::none);
  // Narrower than the cell across a column seam: rows only, never columns.
  EXPECT_EQ(answer(tiled, {30, 0, 20, 20}).cut, Cut::none);
  // Through a fade and a blend with the picture, the seam still cuts the render.
  const CIImage jpeg = CIImage::imageWithContentsOfFile(jpegPath());
  a = answer(tiledOver(jpeg, cell, 0.6), {0, 50, 100, 20});
  EXPECT_EQ(a.kind, Kind::render);
  EXPECT_EQ(a.cut, Cut::y);
  EXPECT_EQ(a.at, 60);
}

// ---- renders with and without the shortcut ----

TEST(PassThroughRender, EqualsTheFullRenderBitForBit) {
  const CIImage jpeg = CIImage::imageWithContentsOfFile(jpegPath());
  const CIImage png = CIImage::imageWithContentsOfFile(alphaPngPath());
  // An 8-bit bitmap in memory with every alpha, transparent ones included.
  const auto picture = grainyPicture(90, 70, true);
  for (std::size_t i = 0; i < picture->pixels.size(); i += 4 * 5) picture->pixels[i + 3] = std::uint8_t(i / 20);
  const CIImage bitmap =
      CIImage::imageWithRGBA8(picture->pixels.data(), picture->width, picture->height, picture->bytesPerRow);
  const CIImage graphs[] = {insideBorder(jpeg, 12), insideBorder(png, 12), outsideBorder(jpeg, 9),
                            outsideBorder(png, 9), jpeg.imageByCroppingToRect(CGRectMake(13, 17, 101.5, 90)),
                            png.imageByApplyingTransform(CGAffineTransformMakeTranslation(-3, 5)),
                            insideBorder(bitmap, 6), bitmap.imageByCroppingToRect(CGRectMake(5, 5, 60, 50)),
                            tiledOver(jpeg, bitmap, 0.6), tiledOver(png, bitmap.imageByCroppingToRect(CGRectMake(0, 0, 90, 23)), 1)};
  for (const CIImage& g : graphs) {
    for (bool managed : {true, false}) {
      for (int tile : {0, 16, 48}) {
        const auto fast = render8(g, true, 2, tile, managed), full = render8(g, false, 2, tile, managed);
        ASSERT_EQ(fast.size(), full.size());
        EXPECT_TRUE(fast == full) << g.node()->name() << " tile " << tile << (managed ? " managed" : " raw");
      }
    }
  }
}

TEST(PassThroughRender, WritesTheSourcesBytesWithoutRenderingAnyTile) {
  auto source = std::make_shared<CountingSource>();
  const CIImage image(source);
  const CIImage graphs[] = {insideBorder(image, 5), outsideBorder(image, 7),
                            image.imageByCroppingToRect(CGRectMake(3, 4, 40, 30))};
  for (const CIImage& g : graphs) {
    source->renders = 0;
    source->writes = 0;
    const auto fast = render8(g, true, 2, 16);
    EXPECT_EQ(source->renders, 0) << g.node()->name();
    EXPECT_GT(source->writes, 0) << g.node()->name();
    const auto full = render8(g, false, 2, 16);
    EXPECT_GT(source->renders, 0) << g.node()->name();
    EXPECT_TRUE(fast == full) << g.node()->name();
  }
  // A float render never asks.
  source->renders = 0;
  source->writes = 0;
  renderRGBAf(insideBorder(image, 5), image.extent());
  EXPECT_GT(source->renders, 0);
  EXPECT_EQ(source->writes, 0);
}

TEST(PassThroughRender, BlurredPartsAfterWrittenOnesStartAfresh) {
  // A blur under a mask that lets the picture through in a middle band: the blurred parts below
  // the band are rendered after it was written, so their columns start again without the rows
  // carried from above.
  const CIImage jpeg = CIImage::imageWithContentsOfFile(jpegPath());
  const CIFilterRef blur = CIFilter::filterWithName("CIGaussianBlur");
  blur->setValue(jpeg.imageByClampingToExtent(), kCIInputImageKey);
  blur->setValue(Value(4.0), kCIInputRadiusKey);
  const CIImage blurred = CIImage::fromValue(blur->valueForKey(kCIOutputImageKey)).imageByCroppingToRect(jpeg.extent());
  const CIImage band = CIImage::imageWithColor(CIColor::colorWithRed(1, 1, 1))
                           .imageByCroppingToRect(CGRectMake(0, 50, 200, 40));
  const CIImage tilt = blendWithMask(jpeg, blurred, band);
  for (int tile : {0, 16, 32}) {
    const auto fast = render8(tilt, true, 2, tile), full = render8(tilt, false, 2, tile);
    EXPECT_TRUE(fast == full) << "tile " << tile;
  }
}

TEST(PassThroughRender, FilesWrittenWithTheShortcutEqualThoseWithout) {
  const CIImage jpeg = CIImage::imageWithContentsOfFile(jpegPath());
  const CIImage g = insideBorder(jpeg, 12);
  const auto dir = streamTestDir();
  for (const char* ext : {".png", ".jpg"}) {
    const std::string a = (dir / (std::string("pass-on") + ext)).string();
    const std::string b = (dir / (std::string("pass-off") + ext)).string();
    CIContextOptions on, off;
    off.passThrough = false;
    CIContext(on).writeToFile(g, a, CGRectNull);
    CIContext(off).writeToFile(g, b, CGRectNull);
    auto ia = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(a), 0);
    auto ib = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(b), 0);
    ASSERT_TRUE(ia && ib);
    EXPECT_TRUE(ia->pixels == ib->pixels) << ext;
  }
}

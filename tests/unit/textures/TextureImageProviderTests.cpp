// The texture image provider: nominal extent, bounded thumbnails, whole-image and tile
// requests, failures.
#include <gtest/gtest.h>

#include <fstream>

#include "Foundation/NSException.h"
#include "RenderSupport.h"
#include "TextureTestSupport.h"
#include "Textures/_QVFilterTextureImageProvider.h"

using namespace qvtex;

namespace {

// Left half red, right half blue, opaque.
std::array<std::uint8_t, 4> halves(std::size_t x, std::size_t width) {
  return x < width / 2 ? std::array<std::uint8_t, 4>{230, 20, 20, 255} : std::array<std::uint8_t, 4>{20, 20, 230, 255};
}

struct ProviderFixture : ::testing::Test {
  void SetUp() override { dir = makeTempDir("provider"); }
  void TearDown() override { fs::remove_all(dir); }
  fs::path dir;
};

std::vector<std::uint8_t> provide(_QVFilterTextureImageProvider& p, std::size_t x, std::size_t y, std::size_t w,
                                  std::size_t h, std::uint8_t fill = 0xAB) {
  std::vector<std::uint8_t> buffer(w * h * 4, fill);
  p.provideImageData(buffer.data(), w * 4, x, y, w, h, Value());
  return buffer;
}

}  // namespace

TEST_F(ProviderFixture, LargeTextureKeepsNominalExtentAndFillsWholeRequestWithScaledThumbnail) {
  const fs::path file = dir / "big.jpg";
  writeImage(file, 4000, 3000, kUTTypeJPEG, [](std::size_t x, std::size_t) { return halves(x, 4000); });
  auto source = CGImageSourceCreateWithURL(file.string());
  ASSERT_TRUE(source);
  CIImage image = _QVFilterTextureImageProvider::imageWithImageSource(source, CGSizeMake(1000, 800));
  ASSERT_TRUE(image);
  EXPECT_EQ(image.extent(), CGRectMake(0, 0, 4000, 3000));

  _QVFilterTextureImageProvider provider(source, CGSizeMake(1000, 800));
  const std::uint64_t decodes = _QVFilterTextureImageProvider::decodeCount();
  auto buffer = provide(provider, 0, 0, 4000, 3000);
  EXPECT_EQ(_QVFilterTextureImageProvider::decodeCount(), decodes + 1);
  EXPECT_EQ(_QVFilterTextureImageProvider::lastDecodedPixelCount(), 1000u * 750u);
  auto px = [&](std::size_t x, std::size_t y) { return &buffer[(y * 4000 + x) * 4]; };
  // ARGB: alpha first; the left half red, the right half blue, corners included.
  for (auto [x, y] : {std::pair<std::size_t, std::size_t>{10, 10}, {1000, 1500}, {1900, 2990}}) {
    EXPECT_EQ(px(x, y)[0], 255);
    EXPECT_GT(px(x, y)[1], 200) << x << "," << y;
    EXPECT_LT(px(x, y)[3], 50);
  }
  for (auto [x, y] : {std::pair<std::size_t, std::size_t>{3990, 10}, {3000, 1500}, {2100, 2990}}) {
    EXPECT_EQ(px(x, y)[0], 255);
    EXPECT_LT(px(x, y)[1], 50);
    EXPECT_GT(px(x, y)[3], 200) << x << "," << y;
  }
}

TEST_F(ProviderFixture, ZeroMaximumSizeDecodesAtFullSize) {
  const fs::path file = dir / "full.png";
  writeImage(file, 300, 200, kUTTypePNG, [](std::size_t x, std::size_t) { return halves(x, 300); });
  auto source = CGImageSourceCreateWithURL(file.string());
  _QVFilterTextureImageProvider provider(source, CGSizeMake(0, 0));
  CGImageRef bitmap = provider._faultBitmap();
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->width, 300u);
  EXPECT_EQ(bitmap->height, 200u);
  // The larger side of the hint bounds the thumbnail.
  _QVFilterTextureImageProvider bounded(source, CGSizeMake(30, 150));
  bitmap = bounded._faultBitmap();
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->width, 150u);
  EXPECT_EQ(bitmap->height, 100u);
  // A new bitmap at every call; nothing is kept in the slot.
  EXPECT_NE(bounded._faultBitmap(), bitmap);
  EXPECT_FALSE(bounded.bitmap());
}

TEST_F(ProviderFixture, FileOrientationIsAppliedToTheThumbnail) {
  const fs::path file = dir / "rotated.jpg";
  writeImage(file, 80, 40, kUTTypeJPEG, [](std::size_t x, std::size_t) { return halves(x, 80); }, 6);
  auto source = CGImageSourceCreateWithURL(file.string());
  _QVFilterTextureImageProvider provider(source, CGSizeMake(0, 0));
  CGImageRef bitmap = provider._faultBitmap();
  ASSERT_TRUE(bitmap);
  EXPECT_EQ(bitmap->width, 40u);
  EXPECT_EQ(bitmap->height, 80u);
}

TEST_F(ProviderFixture, RectangleWhollyOutsideTheThumbnailStaysTransparent) {
  const fs::path file = dir / "tiles.png";
  writeImage(file, 400, 300, kUTTypePNG, [](std::size_t x, std::size_t) { return halves(x, 400); });
  auto source = CGImageSourceCreateWithURL(file.string());
  _QVFilterTextureImageProvider provider(source, CGSizeMake(100, 100));  // thumbnail 100x75
  auto outside = provide(provider, 200, 200, 50, 50);
  EXPECT_TRUE(std::all_of(outside.begin(), outside.end(), [](std::uint8_t v) { return v == 0; }));
  // A tile that overlaps the thumbnail is drawn from the overlapping part only.
  auto inside = provide(provider, 0, 0, 50, 50);
  EXPECT_EQ(inside[0], 255);
  EXPECT_GT(inside[1], 200);
}

TEST_F(ProviderFixture, UndecodableSourceLeavesTheRequestTransparent) {
  const fs::path file = dir / "good.jpg";
  writeImage(file, 64, 64, kUTTypeJPEG, [](std::size_t x, std::size_t) { return halves(x, 64); });
  std::ifstream in(file, std::ios::binary);
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
  bytes.resize(bytes.size() / 3);  // the header survives, the image data does not
  auto source = CGImageSourceCreateWithData(bytes);
  ASSERT_TRUE(source);
  _QVFilterTextureImageProvider provider(source, CGSizeMake(64, 64));
  auto buffer = provide(provider, 0, 0, 64, 64);
  // Either nothing decodes (all clear) or libjpeg fills the missing rows; a source that
  // cannot be decoded at all must give a fully clear buffer.
  if (!provider._faultBitmap()) {
    EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](std::uint8_t v) { return v == 0; }));
  }
  auto junk = CGImageSourceCreateWithData(std::vector<std::uint8_t>{0x89, 'P', 'N', 'G', 0x0d, 0x0a, 0x1a, 0x0a, 0, 0});
  if (junk) {
    _QVFilterTextureImageProvider broken(junk, CGSizeMake(10, 10));
    auto cleared = provide(broken, 0, 0, 10, 10);
    EXPECT_TRUE(std::all_of(cleared.begin(), cleared.end(), [](std::uint8_t v) { return v == 0; }));
  }
}

TEST(TextureImageProvider, NullSourceFailsTheAssertion) {
  try {
    _QVFilterTextureImageProvider provider(nullptr, CGSizeMake(10, 10));
    FAIL() << "no assertion";
  } catch (const NSException& e) {
    EXPECT_EQ(e.name(), NSInternalInconsistencyException);
    EXPECT_EQ(e.reason(), "Invalid parameter not satisfying: imageSource != NULL");
    EXPECT_EQ(e.file(), "FilterActions/ImageUnit/_QVFilterTextureImageProvider");
    EXPECT_EQ(e.line(), 41);
  }
  EXPECT_THROW(_QVFilterTextureImageProvider::imageWithImageSource(nullptr, CGSizeMake(1, 1)), NSException);
}

TEST_F(ProviderFixture, RenderedImageMatchesTheFileAtFullSize) {
  const fs::path file = dir / "render.png";
  writeImage(file, 40, 30, kUTTypePNG, [](std::size_t x, std::size_t y) {
    return std::array<std::uint8_t, 4>{std::uint8_t(x * 6), std::uint8_t(y * 8), 100, 255};
  });
  auto source = CGImageSourceCreateWithURL(file.string());
  CIImage image = _QVFilterTextureImageProvider::imageWithImageSource(source, CGSizeMake(0, 0));
  auto pixels = renderRGBA8(image, image.extent());
  // Row 0 of the render is the top row of the file.
  for (std::size_t y : {0u, 17u, 29u})
    for (std::size_t x : {0u, 21u, 39u}) {
      const std::uint8_t* p = &pixels[(y * 40 + x) * 4];
      EXPECT_NEAR(p[0], x * 6, 1);
      EXPECT_NEAR(p[1], y * 8, 1);
      EXPECT_NEAR(p[2], 100, 1);
    }
}

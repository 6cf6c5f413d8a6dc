// Columns rendered top down: the rows that vertically adjacent tiles share are carried from one
// tile to the next (buffers of nodes with margins, the streaming box passes of the blurs), and
// the pixels must not depend on it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/ImageNode.h"
#include "RenderSupport.h"

namespace {

CIImage filtered(const char* name, const CIImage& input, const std::string& key = {}, const Value& value = {}) {
  auto f = CIFilter::filterWithName(name);
  f->setDefaults();
  f->setValue(input, kCIInputImageKey);
  if (!key.empty()) f->setValue(value, key);
  return f->outputImage();
}

CIImage clamped(const CIImage& image) { return image.imageByClampingToExtent(); }

// Renders `rect` of `image` in one tile, and in tiles of 16 on one and on two threads, and
// expects the same bits.
void expectSameAcrossTilings(const CIImage& image, const CGRect& rect) {
  const auto whole = renderRGBAf(image, rect, renderOptions(1, 8192));
  for (int threads : {1, 2}) {
    SCOPED_TRACE(threads);
    const auto tiled = renderRGBAf(image, rect, renderOptions(threads, 16));
    EXPECT_TRUE(bitwiseEqual(whole, tiled)) << "max difference " << maxAbsDifference(whole, tiled);
  }
  const auto chosen = renderRGBAf(image, rect, renderOptions(2, 0));
  EXPECT_TRUE(bitwiseEqual(whole, chosen)) << "max difference " << maxAbsDifference(whole, chosen);
}

}  // namespace

TEST(ColumnCarry, GaussianWhoseSupportSpansManyTilesStreamsExactly) {
  // σ 40: three box passes with a support of 150 rows, over tiles of 16 rows.
  const CIImage img = makeTestImageWithAlpha(90, 140, CGPointMake(3, -7), 5);
  const CIImage blurred = filtered("CIGaussianBlur", clamped(img), kCIInputRadiusKey, Value(40.0));
  expectSameAcrossTilings(blurred, CGRectMake(3, -7, 90, 140));
}

TEST(ColumnCarry, BoxAndSmallGaussianStreamExactly) {
  const CIImage img = makeTestImage(70, 90, CGPointMake(-4, 2), 6);
  expectSameAcrossTilings(filtered("CIBoxBlur", img, kCIInputRadiusKey, Value(9.0)), CGRectMake(-30, -25, 130, 150));
  // Below σ 3 the vertical pass is an explicit kernel, whose input rows are carried instead.
  expectSameAcrossTilings(filtered("CIGaussianBlur", img, kCIInputRadiusKey, Value(2.0)), CGRectMake(-10, -5, 90, 110));
}

TEST(ColumnCarry, BlurOfAVerticallyFlippedImageEqualsWhole) {
  // Under a flip the input rows of the tile below lie above the rows read for this one: nothing
  // can be carried or streamed from the input, and nothing wrong may be.
  const CIImage img = makeTestImageWithAlpha(80, 120, CGPointMake(0, 0), 7);
  const CIImage flipped = img.imageByApplyingTransform(CGAffineTransformMake(1, 0, 0, -1, 0, 120));
  expectSameAcrossTilings(filtered("CIGaussianBlur", flipped, kCIInputRadiusKey, Value(12.0)), CGRectMake(-5, -5, 90, 130));
  expectSameAcrossTilings(filtered("CIDiscBlur", flipped, kCIInputRadiusKey, Value(6.0)), CGRectMake(-5, -5, 90, 130));
}

TEST(ColumnCarry, NeighbourhoodChainsEqualWhole) {
  // Margins over margins: the disc blur's input rows and the unsharp mask's Gaussian are
  // carried, the morphology reads a window around every pixel.
  const CIImage img = makeTestImageWithAlpha(100, 130, CGPointMake(2, 3), 8);
  const CIImage chain = filtered("CIMorphologyMaximum",
                                 filtered("CIUnsharpMask", filtered("CIDiscBlur", img, kCIInputRadiusKey, Value(5.0)),
                                          kCIInputRadiusKey, Value(7.0)),
                                 kCIInputRadiusKey, Value(3.0));
  expectSameAcrossTilings(chain, CGRectMake(-10, -10, 120, 150));
}

TEST(ColumnCarry, FileWrittenInStripsEqualsOneRender) {
  // Taller than one strip of the file writer: each column's stream runs on across strips.
  const auto dir = std::filesystem::temp_directory_path() / "qv_engine_tests";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "carry_strips.png").string();
  const CIImage img = makeTestImageWithAlpha(150, 700, CGPointMake(0, 0), 9);
  const CIImage blurred =
      filtered("CIGaussianBlur", clamped(img), kCIInputRadiusKey, Value(30.0)).imageByCroppingToRect(img.extent());
  CIContext(renderOptions(2, 0)).writeToFile(blurred, path, CGRectNull);
  const CIImage back = CIImage::imageWithContentsOfFile(path);
  ASSERT_FALSE(back.isNil());
  EXPECT_EQ(renderRGBA8(back, back.extent()), renderRGBA8(blurred, img.extent(), renderOptions(1, 8192)));
  std::filesystem::remove(path);
}

TEST(ColumnCarry, StripsOfOneRendererEqualOneRender) {
  // A blur whose support spans several strips; strips of at least 20 rows over tiles of 16
  // (so whole tile rows of 32) and a last, shorter strip.
  const CIImage img = makeTestImageWithAlpha(80, 150, CGPointMake(2, -5), 7);
  const CIImage blurred = filtered("CIGaussianBlur", clamped(img), kCIInputRadiusKey, Value(12.0));
  const CGRect rect = CGRectMake(2, -5, 80, 150);
  const auto whole = renderRGBAf(blurred, rect, renderOptions(1, 8192));
  for (int threads : {1, 2}) {
    SCOPED_TRACE(threads);
    std::vector<float> strips(whole.size(), -1.0f);
    std::int64_t next = 0;
    int calls = 0;
    CIContext(renderOptions(threads, 16))
        .renderStrips(blurred, rect, CIRenderFormat::RGBAf, 20,
                      [&](const void* pixels, std::ptrdiff_t rowBytes, std::int64_t top, std::int64_t height) {
                        EXPECT_EQ(top, next);  // top down, no gaps
                        EXPECT_EQ(rowBytes, 80 * 16);
                        const auto* p = static_cast<const float*>(pixels);
                        std::copy(p, p + height * 80 * 4, strips.begin() + top * 80 * 4);
                        next = top + height;
                        ++calls;
                      });
    EXPECT_EQ(next, 150);
    EXPECT_EQ(calls, 5);  // 4 strips of 32 rows and one of 22
    EXPECT_TRUE(bitwiseEqual(whole, strips)) << "max difference " << maxAbsDifference(whole, strips);
  }
}

TEST(ColumnCarry, FileOfManyStripsAndColumnsOnTwoThreadsEqualsOneRender) {
  // Three strips of the file writer (3 MB of 8-bit rows each: 768 rows of 1024 pixels) and
  // sixteen columns of 64 pixels on two workers, which go on to their next strip without
  // waiting for each other: the file holds the one-tile render's pixels.
  const auto dir = std::filesystem::temp_directory_path() / "qv_engine_tests";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "carry_many_strips.png").string();
  const CIImage img = makeTestImageWithAlpha(1024, 2000, CGPointMake(0, 0), 5);
  const CIImage blurred =
      filtered("CIGaussianBlur", clamped(img), kCIInputRadiusKey, Value(6.0)).imageByCroppingToRect(img.extent());
  CIContext(renderOptions(2, 64)).writeToFile(blurred, path, CGRectNull);
  const CIImage back = CIImage::imageWithContentsOfFile(path);
  ASSERT_FALSE(back.isNil());
  EXPECT_EQ(renderRGBA8(back, back.extent()), renderRGBA8(blurred, img.extent(), renderOptions(1, 8192)));
  std::filesystem::remove(path);
}

TEST(ColumnCarry, FileRenderOnTwoThreadsStopsAtADecodeError) {
  // A JPEG cut short, blurred and written on two workers: the render stops with the decode
  // error (no hang of the worker or the encoder waiting for the other).
  const auto dir = std::filesystem::temp_directory_path() / "qv_engine_tests";
  std::filesystem::create_directories(dir);
  const std::string source = (dir / "carry_cut.jpg").string(), path = (dir / "carry_cut_out.jpg").string();
  const CIImage img = makeTestImageWithAlpha(1024, 2000, CGPointMake(0, 0), 3);
  CIContext(renderOptions(2, 0)).writeToFile(img, source, CGRectNull, 0.9);
  std::filesystem::resize_file(source, std::filesystem::file_size(source) * 2 / 5);
  const CIImage cut = CIImage::imageWithContentsOfFile(source);
  ASSERT_FALSE(cut.isNil());
  const CIImage blurred =
      filtered("CIGaussianBlur", clamped(cut), kCIInputRadiusKey, Value(4.0)).imageByCroppingToRect(cut.extent());
  EXPECT_THROW(CIContext(renderOptions(2, 64)).writeToFile(blurred, path, CGRectNull, 0.9), CIImageDecodeError);
  std::filesystem::remove(source);
  std::filesystem::remove(path);
}

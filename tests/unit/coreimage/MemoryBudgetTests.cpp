// The render's working memory has a budget: it is estimated before anything is rendered, the
// tiling shrinks to fit it, a graph that cannot fit is refused, and what a render really
// allocates stays within the estimate. Likewise the pixels a render computes have a limit.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"
#include "CoreImage/ImageNode.h"
#include "ImageIO/CGImageSource.h"
#include "StreamTestImages.h"

// Live and peak bytes of every operator new of this test program: the renderer's buffers are
// std::vectors, so they are all counted.
namespace {
std::atomic<std::int64_t> gLiveBytes{0};
std::atomic<std::int64_t> gPeakBytes{0};

void* countedAlloc(std::size_t size) {
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  const std::int64_t live = gLiveBytes += std::int64_t(malloc_usable_size(p));
  std::int64_t peak = gPeakBytes.load();
  while (live > peak && !gPeakBytes.compare_exchange_weak(peak, live)) {
  }
  return p;
}
void countedFree(void* p) {
  if (!p) return;
  gLiveBytes -= std::int64_t(malloc_usable_size(p));
  std::free(p);
}
}  // namespace

void* operator new(std::size_t size) { return countedAlloc(size); }
void* operator new[](std::size_t size) { return countedAlloc(size); }
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, std::size_t) noexcept { countedFree(p); }
void operator delete[](void* p, std::size_t) noexcept { countedFree(p); }

namespace {

CIImage plain(double width, double height) {
  return CIImage::imageWithColor(std::make_shared<CIColor>(0.2, 0.5, 0.8, 1.0))
      .imageByCroppingToRect(CGRectMake(0, 0, width, height));
}

CIImage blurred(const CIImage& input, double radius) {
  auto f = CIFilter::filterWithName("CIGaussianBlur");
  f->setDefaults();
  f->setValue(input, kCIInputImageKey);
  f->setValue(Value(radius), "inputRadius");
  return f->outputImage();
}

// A 320 x 240 picture (the size of the CLI's test photo) through `steps` blurs of `radius`.
CIImage blurChain(int steps, double radius) {
  CIImage image = plain(320, 240);
  for (int i = 0; i < steps; ++i) image = blurred(image, radius);
  return image;
}

CIContextOptions budget(std::int64_t bytes, int threads = 2) {
  CIContextOptions o;
  o.maxMemory = bytes;
  o.threads = threads;
  return o;
}

TEST(MemoryBudget, TheDefaultIsAShareOfTheMachinesMemory) {
  const std::int64_t d = CIContext::defaultMaxMemory();
  EXPECT_GT(d, 0);
  EXPECT_EQ(CIContext(CIContextOptions{}).maxMemory(), d);
  EXPECT_EQ(CIContext(budget(std::int64_t{3} << 20)).maxMemory(), std::int64_t{3} << 20);
  EXPECT_EQ(CIContext(CIContextOptions{}).maxPixelWork(), CIContext::kDefaultMaxPixelWork);
}

TEST(MemoryBudget, BytesAreWrittenInBinaryUnits) {
  EXPECT_EQ(CIContext::formatBytes(512), "512 bytes");
  EXPECT_EQ(CIContext::formatBytes(std::int64_t{1} << 20), "1 MB");
  EXPECT_EQ(CIContext::formatBytes(std::int64_t{3} << 29), "1.50 GB");
  EXPECT_EQ(CIContext::formatBytes((std::int64_t{1} << 30) + (std::int64_t{1} << 22)), "1.00 GB");
  EXPECT_EQ(CIContext::formatBytes(std::int64_t{25} << 19), "12.5 MB");
  EXPECT_EQ(CIContext::formatBytes(std::int64_t{300} << 20), "300 MB");
}

TEST(MemoryBudget, ATinyBudgetRefusesAPlainBlurBeforeRendering) {
  const CIImage image = blurChain(1, 10);
  bool progressed = false;
  CIContextOptions o = budget(std::int64_t{64} << 10);
  o.progress = [&](double) { progressed = true; };
  std::vector<std::uint8_t> pixels(380 * 300 * 4);
  try {
    CIContext(o).render(image, pixels.data(), 380 * 4, CGRectNull, CIRenderFormat::RGBA8);
    FAIL() << "rendered over the budget";
  } catch (const CIRenderBudgetError& e) {
    EXPECT_EQ(e.kind(), CIRenderBudgetError::Kind::memory);
    EXPECT_EQ(e.budget(), double(std::int64_t{64} << 10));
    EXPECT_GT(e.needed(), e.budget());
    const std::string message = e.what();
    EXPECT_EQ(message.rfind("rendering 380x300 pixels needs ", 0), 0u) << message;
    EXPECT_NE(message.find(" of working memory, more than the budget of 64 KB (the region of interest of \""),
              std::string::npos)
        << message;
  }
  EXPECT_FALSE(progressed);
  // The estimate says the same without rendering.
  EXPECT_THROW(CIContext(o).workingMemory(image, CGRectNull), CIRenderBudgetError);
  // With room, the same render runs.
  EXPECT_NO_THROW(CIContext(budget(std::int64_t{256} << 20))
                      .render(image, pixels.data(), 380 * 4, CGRectNull, CIRenderFormat::RGBA8));
}

TEST(MemoryBudget, TheTilingShrinksToFitASmallBudget) {
  // One blur of a 2000 x 2000 picture: the tiling chosen for speed holds more than 8 MB, a
  // narrower and lower one fits.
  const CIImage image = blurred(plain(2000, 2000), 4);
  const CGRect rect = CGRectMake(0, 0, 2000, 2000);
  const std::int64_t roomy = CIContext(budget(std::int64_t{1} << 32)).workingMemory(image, rect);
  const std::int64_t small = std::int64_t{8} << 20;
  ASSERT_GT(roomy, small);
  const std::int64_t fitted = CIContext(budget(small)).workingMemory(image, rect);
  EXPECT_LE(fitted, small);
  std::vector<std::uint8_t> pixels(2000 * 2000 * 4);
  const std::int64_t before = gLiveBytes.load();
  gPeakBytes = before;
  CIContext(budget(small)).render(image, pixels.data(), 2000 * 4, rect, CIRenderFormat::RGBA8);
  // The tile buffers, and at most a few hundred KB of regions, plans and thread-pool state.
  EXPECT_LE(gPeakBytes.load() - before, fitted + (std::int64_t{1} << 20));
}

TEST(MemoryBudget, AChainOfBlursHoldsNoMoreThanItsEstimate) {
  // 20 blurs of radius 20: the output grows to 2720 x 2640 and each tile's region of interest
  // to thousands of pixels; what the render allocates stays within the estimate it was
  // checked against.
  const CIImage image = blurChain(20, 20);
  const CGRect rect = image.extent();
  const CIContext context(budget(std::int64_t{1} << 30));
  const std::int64_t estimate = context.workingMemory(image, rect, true);
  EXPECT_GT(estimate, std::int64_t{16} << 20);
  const std::string path = ::testing::TempDir() + "/budget-chain.png";
  const std::int64_t before = gLiveBytes.load();
  gPeakBytes = before;
  context.writeToFile(image, path, rect);
  // The encoder's own state (zlib, libpng) is allocated with malloc, not counted here.
  EXPECT_LE(gPeakBytes.load() - before, estimate + (std::int64_t{1} << 20));
  EXPECT_GT(gPeakBytes.load() - before, estimate / 4);  // the estimate is not a wild overstatement
  std::remove(path.c_str());
}

TEST(MemoryBudget, AHundredChainedBlursAreRefusedOverTheirBudget) {
  // A hundred blurs of radius 20: every tile reaches 6000 pixels into the picture on each side.
  const CIImage image = blurChain(100, 20);
  const CIContext context(budget(std::int64_t{1} << 30));
  try {
    context.workingMemory(image, CGRectNull, true);
    FAIL() << "a hundred blurs fit in 1 GB";
  } catch (const CIRenderBudgetError& e) {
    EXPECT_EQ(e.kind(), CIRenderBudgetError::Kind::memory);
    EXPECT_GT(e.needed(), double(std::int64_t{1} << 30));
  }
  // A file of it is refused before the file is created.
  const std::string path = ::testing::TempDir() + "/budget-hundred.png";
  EXPECT_THROW(context.writeToFile(image, path, CGRectNull), CIRenderBudgetError);
  EXPECT_FALSE(std::ifstream(path).good());
}

TEST(MemoryBudget, TheWorkingMemoryOfATwiceAsWidePictureStaysAboutTheSame) {
  // Tiles and the encoder's strips are sized in bytes: a picture twice as wide gets about half
  // the rows per tile and per strip, not twice the memory. A blur of radius 2, whose margins
  // (rows that must be held across the whole width whatever the tiling) are a few rows, on one
  // thread and on two, 6000 and 12000 wide.
  for (int threads : {1, 2}) {
    const CIContext context(budget(std::int64_t{1} << 32, threads));
    const std::int64_t narrow = context.workingMemory(blurred(plain(6000, 4000), 2), CGRectMake(0, 0, 6000, 4000), true);
    const std::int64_t wide = context.workingMemory(blurred(plain(12000, 8000), 2), CGRectMake(0, 0, 12000, 8000), true);
    EXPECT_LE(double(wide), 1.3 * double(narrow)) << threads << " threads: " << narrow << " then " << wide;
    // And within the budget that keeps a one-filter pipeline small.
    EXPECT_LE(narrow, std::int64_t{48} << 20) << threads << " threads";
  }
}

TEST(MemoryBudget, ARenderOfATwiceAsWidePictureAllocatesAboutAsMuch) {
  // What the render really allocates (tile buffers, the blur's rows in flight, the encoder's
  // strips) for a band of 300 rows of a picture 6000 and then 12000 wide. Only the rows the
  // vertical pass must keep across the whole width (its support) grow with the width.
  auto peakOf = [](double width) {
    const CIImage image = blurred(plain(width, 300), 10);
    const std::string path = ::testing::TempDir() + "/budget-wide.jpg";
    const std::int64_t before = gLiveBytes.load();
    gPeakBytes = before;
    CIContext(budget(std::int64_t{1} << 32, 2)).writeToFile(image, path, CGRectMake(0, 0, width, 300));
    std::remove(path.c_str());
    return gPeakBytes.load() - before;
  };
  const std::int64_t narrow = peakOf(6000), wide = peakOf(12000);
  EXPECT_LE(double(wide), 1.4 * double(narrow)) << narrow << " then " << wide;
}

TEST(MemoryBudget, ALargeDownscaleOfATwiceAsLargePictureAllocatesAboutAsMuch) {
  // A picture 3000 x 2000 and then 6000 x 4000 scaled by Lanczos to the same 100 x 67 and
  // written as a JPEG, on one thread and on two: a downscale by 30 and then by 60, whose kernel
  // reaches 90 and then 180 input rows each side of an output row, across the column's whole
  // input width. The input is handed to the rescale in bands of rows, and it keeps only the
  // rows filtered to its own width, so what the render allocates at its peak stays about the
  // same, not four times as much, and far below the kernel's rows across the width (held as
  // working floats at once, they made the peak 99 MB and 21 MB).
  auto peakOf = [](double width, int threads) {
    auto scale = CIFilter::filterWithName("CILanczosScaleTransform");
    scale->setDefaults();
    scale->setValue(plain(width, width * 2 / 3), kCIInputImageKey);
    scale->setValue(Value(100 / width), kCIInputScaleKey);
    const CIImage image = scale->outputImage();
    EXPECT_EQ(image.extent(), CGRectMake(0, 0, 100, 67));
    const std::string path = ::testing::TempDir() + "/budget-downscale.jpg";
    const std::int64_t before = gLiveBytes.load();
    gPeakBytes = before;
    CIContext(budget(std::int64_t{1} << 32, threads)).writeToFile(image, path, image.extent(), 0.9);
    const std::int64_t peak = gPeakBytes.load() - before;
    std::remove(path.c_str());
    return peak;
  };
  for (int threads : {1, 2}) {
    const std::int64_t small = peakOf(3000, threads), large = peakOf(6000, threads);
    EXPECT_LE(double(large), 1.3 * double(small)) << threads << " threads: " << small << " then " << large;
    // Half of one output row's kernel rows (6 x the shrink) across the width, as working floats.
    EXPECT_LT(small, 6 * 30 * 3000 * 16 / 2) << threads << " threads";
    EXPECT_LT(large, 6 * 60 * 6000 * 16 / 2) << threads << " threads";
    RecordProperty("peak_bytes_3000_wide_" + std::to_string(threads), std::to_string(small));
    RecordProperty("peak_bytes_6000_wide_" + std::to_string(threads), std::to_string(large));
  }
}

TEST(MemoryBudget, AFileIsDecodedWithoutHoldingItsBytes) {
  // A JPEG of a grainy picture (about 1.7 MB) read row by row from its file: what the source and
  // its reader allocate (a read buffer, libjpeg's state aside) is a small part of the file,
  // which the source leaves in the file rather than holding.
  const std::string path = (qvtest::streamTestDir() / "in-pieces.jpg").string();
  ASSERT_TRUE(qvtest::writePicture(qvtest::grainyPicture(3000, 2000, false), path, 1, 0.95));
  const std::int64_t fileBytes = std::int64_t(std::filesystem::file_size(path));
  ASSERT_GT(fileBytes, std::int64_t{1} << 20);
  std::vector<std::uint8_t> rows(16 * 3000 * 4);
  const std::int64_t before = gLiveBytes.load();
  gPeakBytes = before;
  {
    auto reader = CGImageSourceCreateRowReaderAtIndex(CGImageSourceCreateWithURL(path), 0);
    ASSERT_TRUE(reader);
    while (reader->nextRow() < reader->height())
      ASSERT_TRUE(reader->readRows(rows.data(), std::min<std::size_t>(16, reader->height() - reader->nextRow()),
                                   reader->bytesPerRow()))
          << reader->error();
  }
  const std::int64_t peak = gPeakBytes.load() - before;
  EXPECT_LT(peak, fileBytes / 8) << peak << " bytes for a file of " << fileBytes;
  std::remove(path.c_str());
}

TEST(MemoryBudget, ARenderOfATwiceAsWideFileAllocatesAboutAsMuch) {
  // A grainy JPEG 6000 and then 12000 wide (768 rows) blurred into a JPEG file on two threads:
  // what the render allocates at its peak (strips of the file, tiles, the encoder's strips).
  // The file's own bytes, twice as many at twice the width, are read in pieces, not held.
  auto peakOf = [](std::size_t width) {
    const std::string in = (qvtest::streamTestDir() / "wide-in.jpg").string();
    const std::string out = (qvtest::streamTestDir() / "wide-out.jpg").string();
    EXPECT_TRUE(qvtest::writePicture(qvtest::grainyPicture(width, 768, false), in));
    const CIImage file = CIImage::imageWithContentsOfFile(in);
    EXPECT_TRUE(file);
    const std::int64_t before = gLiveBytes.load();
    gPeakBytes = before;
    CIContext(budget(std::int64_t{1} << 32, 2)).writeToFile(blurred(file, 2).imageByCroppingToRect(file.extent()), out,
                                                           file.extent(), 0.9);
    const std::int64_t peak = gPeakBytes.load() - before;
    std::remove(in.c_str());
    std::remove(out.c_str());
    return peak;
  };
  const std::int64_t narrow = peakOf(6000), wide = peakOf(12000);
  EXPECT_LE(double(wide), 1.3 * double(narrow)) << narrow << " then " << wide;
  RecordProperty("peak_bytes_6000_wide", std::to_string(narrow));
  RecordProperty("peak_bytes_12000_wide", std::to_string(wide));
}

TEST(MemoryBudget, AGraphThatWouldComputeTooManyPixelsIsRefused) {
  // 40 blurs of a 2000 x 2000 picture compute more than 10^8 pixels.
  CIImage image = plain(2000, 2000);
  for (int i = 0; i < 40; ++i) image = blurred(image, 1);
  CIContextOptions o = budget(std::int64_t{1} << 32);
  o.maxPixelWork = 1e8;
  try {
    CIContext(o).workingMemory(image, CGRectNull);
    FAIL() << "the work was under the limit";
  } catch (const CIRenderBudgetError& e) {
    EXPECT_EQ(e.kind(), CIRenderBudgetError::Kind::work);
    EXPECT_GT(e.needed(), 40 * 2000.0 * 2000.0);
    EXPECT_EQ(e.budget(), 1e8);
  }
  o.maxPixelWork = 1e9;
  EXPECT_NO_THROW(CIContext(o).workingMemory(image, CGRectNull));
}

}  // namespace

namespace {
// Passes its input through: a node the plan sees as one more consumer-facing node, holding one
// buffer for every region its consumers ask of it.
class PassThroughNode final : public ImageNode {
 public:
  explicit PassThroughNode(CIImage in) : ImageNode(in.extent(), {in}) {}
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo&) const override {
    for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
      std::memcpy(out.at(out.rect.x, y), in[0].at(out.rect.x, y), std::size_t(out.rect.width) * 16);
  }
  std::string name() const override { return "passThrough"; }
};

// The glow's shape: the picture under its own blur, composited.
CIImage glow(const CIImage& picture) {
  auto over = CIFilter::filterWithName("CISourceOverCompositing");
  over->setDefaults();
  over->setValue(picture, kCIInputBackgroundImageKey);
  over->setValue(blurred(picture.imageByClampingToExtent(), 10).imageByCroppingToRect(picture.extent()), kCIInputImageKey);
  return over->outputImage();
}
}  // namespace

TEST(MemoryBudget, AFileReadByTwoConsumersHoldsABufferForEachNotOneSpanningBoth) {
  // A 3000 x 2000 JPEG under the glow's graph (the clamped picture blurred, over the picture):
  // read directly, each reader of the file has a buffer of its own; behind a pass-through node,
  // one buffer spans the blur's region and the background's. What the render allocates at its
  // peak is less the first way (by 1.4 MB here; as one buffer spanning both, it was no less).
  const std::string path = ::testing::TempDir() + "/two-readers.jpg";
  const std::string out = ::testing::TempDir() + "/two-readers-out.jpg";
  CIContext(budget(std::int64_t{1} << 30)).writeToFile(plain(3000, 2000), path, CGRectNull, 0.9);
  const CIImage file = CIImage::imageWithContentsOfFile(path);
  ASSERT_TRUE(file);
  const CIContext context(budget(std::int64_t{1} << 30));
  auto peakOf = [&](const CIImage& image) {
    const std::int64_t before = gLiveBytes.load();
    gPeakBytes = before;
    context.writeToFile(image, out, image.extent(), 0.9);
    return gPeakBytes.load() - before;
  };
  const std::int64_t own = peakOf(glow(file));
  const std::int64_t shared = peakOf(glow(CIImage(std::make_shared<PassThroughNode>(file))));
  EXPECT_LT(own, shared) << own << " bytes against " << shared;
  std::remove(path.c_str());
  std::remove(out.c_str());
}

TEST(MemoryBudget, ATiledTextureIsReadOnlyAsHighAsTheTileAcrossItsSeams) {
  // A 3000 x 2000 picture under a 512 x 512 texture repeated over it (the texture tile's graph:
  // tile, fade, soft light). A tile of the render that straddles a seam between two copies
  // needs the whole height of the cell as one region (4 MB of working floats per column); the
  // 8-bit render cuts such tiles at the seam, so each part reads only its own rows of the cell.
  // Written with the shortcut, the render allocates at its peak at least 3 MB less than
  // without it, with the same bytes.
  std::vector<std::uint8_t> texels(512 * 512 * 4);
  for (std::size_t i = 0; i < texels.size(); ++i) texels[i] = (i % 4 == 3) ? 255 : std::uint8_t((i * 2654435761u) >> 24);
  const CIImage texture = CIImage::imageWithRGBA8(texels.data(), 512, 512, 512 * 4);
  const CIImage picture = plain(3000, 2000);
  auto tile = CIFilter::filterWithName("CIAffineTile");
  tile->setDefaults();
  tile->setValue(texture, kCIInputImageKey);
  auto fade = CIFilter::filterWithName("CIColorMatrix");
  fade->setDefaults();
  fade->setValue(tile->outputImage().imageByCroppingToRect(picture.extent()), kCIInputImageKey);
  fade->setValue(CIVector::vectorWithX(0, 0, 0, 0.6), "inputAVector");
  auto soft = CIFilter::filterWithName("CISoftLightBlendMode");
  soft->setValue(fade->outputImage(), kCIInputImageKey);
  soft->setValue(picture, kCIInputBackgroundImageKey);
  const CIImage graph = soft->outputImage();
  auto peakOf = [&](bool passThrough, std::vector<std::uint8_t>& bytes) {
    CIContextOptions o = budget(std::int64_t{1} << 30);
    o.passThrough = passThrough;
    const CIContext context(o);
    bytes.assign(3000 * 2000 * 4, 0);
    const std::int64_t before = gLiveBytes.load();
    gPeakBytes = before;
    context.render(graph, bytes.data(), 3000 * 4, graph.extent(), CIRenderFormat::RGBA8);
    return gPeakBytes.load() - before;
  };
  std::vector<std::uint8_t> cut, whole;
  const std::int64_t withCuts = peakOf(true, cut);
  const std::int64_t withoutCuts = peakOf(false, whole);
  EXPECT_LT(withCuts + (std::int64_t{3} << 20), withoutCuts) << withCuts << " bytes against " << withoutCuts;
  EXPECT_TRUE(cut == whole);
}

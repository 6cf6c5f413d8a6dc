// Every filter of the bundle with its defaults renders the same pixels, bit for bit, from a file
// decoded on demand in strips (small tiles, two threads, a strip cache far smaller than the
// picture) as from the whole picture decoded first into memory (one tile, one thread): on a
// JPEG, on a PNG with alpha, on a JPEG with an EXIF orientation (whose stored pixels both
// read) and on a WebP (which its reader holds whole and rewinds for rows far apart). And two
// renders of a streamed JPEG at once, on two threads each, through filters that read it out of
// order.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>

#include "CoreImage/CIContext.h"
#include "CoreImage/Render/StripCache.h"
#include "FilterTestSupport.h"
#include "RenderSupport.h"
#include "StreamTestImages.h"

using namespace qvtest;

namespace {

struct Picture {
  std::string file;
  CGImageRef whole;
};

// The pictures, written once per test program.
const std::vector<Picture>& pictures() {
  static const std::vector<Picture> all = [] {
    std::vector<Picture> p;
    const auto dir = streamTestDir();
    const std::pair<std::string, int> files[] = {{"stream.jpg", 1}, {"stream-alpha.png", 1}, {"stream-oriented.jpg", 6},
                                                   {"stream-alpha.webp", 1}};
    for (const auto& [name, orientation] : files) {
      const std::string path = (dir / name).string();
      writePicture(grainyPicture(260, 190, !name.ends_with(".jpg")), path, orientation);
      p.push_back({path, CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0)});
    }
    return p;
  }();
  return all;
}

std::vector<float> render(const CIImage& image, const CGRect& rect, const CIContextOptions& options) {
  const std::size_t w = std::size_t(rect.size.width), h = std::size_t(rect.size.height);
  std::vector<float> pixels(w * h * 4);
  CIContext(options).render(image, pixels.data(), std::ptrdiff_t(w * 16), rect, CIRenderFormat::RGBAf);
  return pixels;
}

CIImage apply(const std::string& filter, const CIImage& input) {
  CIFilterRef f = makeFilter(filter);
  if (!f) return {};
  f->setValue(input, kCIInputImageKey);
  return filterOutput(f);
}

// The output's extent, or the picture's where it is infinite or much larger.
CGRect comparedRect(const CIImage& output, const CIImage& picture) {
  const CGRect rect = CGRectIntegral(output.extent());
  if (CGRectIsInfinite(output.extent()) || rect.size.width * rect.size.height > 4.0 * 260 * 190) return picture.extent();
  return rect;
}

class StreamedSource : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(loadBundleOnce(&error)) << error;
    budget_ = StripCache::defaultBudget();
    StripCache::setDefaultBudget(64 * 1024);  // 16 KiB strips: a few of the 12 each picture has
  }
  void TearDown() override { StripCache::setDefaultBudget(budget_); }
  std::size_t budget_ = 0;
};

// Filters whose streamed renders read the file in other orders than top-down (a blur's columns
// of tiles with their margins, a rotation's rows far apart, a reflection's rows upwards) or
// share the texture store's decoded textures between renders.
class StreamedSourceConcurrently : public StreamedSource {};

}  // namespace

namespace {

void expectStreamedRenderEqualsWhole(const std::string& filter) {
  for (const Picture& picture : pictures()) {
    ASSERT_TRUE(picture.whole) << picture.file;
    const CIImage streamed = CIImage::imageWithContentsOfFile(picture.file);
    const CIImage whole = CIImage::imageWithRGBA8(picture.whole->pixels.data(), picture.whole->width,
                                                  picture.whole->height, picture.whole->bytesPerRow);
    ASSERT_TRUE(streamed) << picture.file;
    ASSERT_TRUE(CGRectEqualToRect(streamed.extent(), whole.extent()));
    const CIImage a = apply(filter, streamed), b = apply(filter, whole);
    ASSERT_TRUE(a) << picture.file;
    ASSERT_TRUE(b) << picture.file;
    const CGRect rect = comparedRect(a, whole);
    const auto tiled = render(a, rect, renderOptions(2, 48));
    const auto single = render(b, rect, renderOptions(1, 8192));
    ASSERT_EQ(tiled.size(), single.size());
    std::size_t differing = 0;
    for (std::size_t i = 0; i < tiled.size(); ++i) differing += std::memcmp(&tiled[i], &single[i], sizeof(float)) != 0;
    EXPECT_EQ(differing, 0u) << filter << " on " << picture.file;
  }
}

}  // namespace

TEST_P(StreamedSource, RendersTheWholeDecodeBitForBit) { expectStreamedRenderEqualsWhole(GetParam()); }

INSTANTIATE_TEST_SUITE_P(EveryBundleFilter, StreamedSource, ::testing::ValuesIn(bundleFilterNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

// Decodes per strip of file rows, counted, for a render in strips of output rows as a file is
// written: a rotation decodes each strip once (what its band needs again comes back from the
// spill file), a reflection at most twice (its mirrored half reads the rows again from the
// bottom up after they went); both equal the whole decode.
TEST_F(StreamedSource, FarApartReadsDecodeEachStripAtMostTwice) {
  struct Case {
    std::string filter;
    std::size_t most;
  };
  for (const Case& c : {Case{"QVFilterRotate", 1}, Case{"QVFilterReflection", 2}}) {
    const std::string& filter = c.filter;
    const std::size_t most = c.most;
    std::vector<StripCache::Stats> caches;
    StripCache::setStatsListener([&](const StripCache::Stats& s) { caches.push_back(s); });
    // 75 strips of file rows, in a cache of 8.
    const std::string path = (streamTestDir() / "far-apart.jpg").string();
    ASSERT_TRUE(writePicture(grainyPicture(260, 1200, false), path));
    const CIImage file = CIImage::imageWithContentsOfFile(path);
    const CIImage a = apply(filter, file);
    ASSERT_TRUE(a);
    // In strips from the top, as a render to a file runs (a render into memory runs each
    // column of tiles down the whole picture, reading the file once per column).
    CIContext(renderOptions(2, 48))
        .renderStrips(a, CGRectIntegral(a.extent()), CIRenderFormat::RGBAf, 32,
                      [](const void*, std::ptrdiff_t, std::int64_t, std::int64_t) {});
    StripCache::setStatsListener(nullptr);
    ASSERT_EQ(caches.size(), 1u) << filter;
    EXPECT_EQ(caches[0].spillError, "") << filter;
    EXPECT_LE(caches[0].mostDecodesOfAStrip, most) << filter;
    EXPECT_GE(caches[0].mostDecodesOfAStrip, 1u) << filter;
    // And the pixels, tiled from the file, equal the whole decode's rendered whole.
    const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
    ASSERT_TRUE(whole);
    const CIImage bitmap = CIImage::imageWithRGBA8(whole->pixels.data(), whole->width, whole->height, whole->bytesPerRow);
    const CIImage b = apply(filter, bitmap);
    const CGRect rect = CGRectIntegral(a.extent());
    EXPECT_TRUE(bitwiseEqual(render(a, rect, renderOptions(2, 48)), render(b, rect, renderOptions(1, 8192)))) << filter;
  }
}

// The filters that read rows far apart (a rotation, a reflection's mirrored half, a picture over
// its scaled copy, two shifted copies), where the strip cache spills what it cannot hold, render
// the same where no spill file can be made (TMPDIR names a missing directory): the cache
// decodes those rows again instead.
class StreamedSourceWithoutSpillFile : public StreamedSource {
 protected:
  void SetUp() override {
    StreamedSource::SetUp();
    pictures();  // written to the test directory first
    if (const char* old = std::getenv("TMPDIR")) old_ = old;
    had_ = std::getenv("TMPDIR") != nullptr;
    ::setenv("TMPDIR", (streamTestDir() / "no-such-directory").c_str(), 1);
  }
  void TearDown() override {
    if (had_)
      ::setenv("TMPDIR", old_.c_str(), 1);
    else
      ::unsetenv("TMPDIR");
    StreamedSource::TearDown();
  }
  std::string old_;
  bool had_ = false;
};

TEST_P(StreamedSourceWithoutSpillFile, RendersTheWholeDecodeBitForBit) {
  std::vector<StripCache::Stats> caches;
  StripCache::setStatsListener([&](const StripCache::Stats& s) { caches.push_back(s); });
  expectStreamedRenderEqualsWhole(GetParam());
  StripCache::setStatsListener(nullptr);
  for (const StripCache::Stats& s : caches) EXPECT_EQ(s.piecesSpilled, 0u);
}

INSTANTIATE_TEST_SUITE_P(FarApartReads, StreamedSourceWithoutSpillFile,
                         ::testing::Values("QVFilterRotate", "QVFilterReflection", "QVFilterScaleComposite",
                                           "QVFilterStereoscopic"),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

// Two renders of one streamed JPEG through the same filter graph at the same time, each on two
// threads in small tiles: each render's workers share that render's strip cache, both renders
// share the graph (and any texture the filter decodes), and each equals the whole decode
// rendered on one thread, bit for bit. Run under ThreadSanitizer by scripts/tsan-tests.
TEST_P(StreamedSourceConcurrently, TwoRendersAtOnceOnTwoThreadsEachEqualTheWholeDecode) {
  const Picture& picture = pictures().front();
  ASSERT_TRUE(picture.file.ends_with(".jpg")) << picture.file;
  ASSERT_TRUE(picture.whole) << picture.file;
  const CIImage whole = CIImage::imageWithRGBA8(picture.whole->pixels.data(), picture.whole->width,
                                                picture.whole->height, picture.whole->bytesPerRow);
  const CIImage file = CIImage::imageWithContentsOfFile(picture.file);
  const CIImage streamed = apply(GetParam(), file);
  const CIImage single = apply(GetParam(), whole);
  ASSERT_TRUE(streamed);
  ASSERT_TRUE(single);
  const CGRect rect = comparedRect(streamed, whole);
  const auto expected = render(single, rect, renderOptions(1, 8192));
  std::vector<float> results[2];
  std::string errors[2];
  std::vector<std::thread> renders;
  for (int i = 0; i < 2; ++i)
    renders.emplace_back([&, i] {
      try {
        results[i] = render(streamed, rect, renderOptions(2, 40 + 8 * i));
      } catch (const std::exception& e) {
        errors[i] = e.what();
      }
    });
  for (auto& t : renders) t.join();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(errors[i], "") << "render " << i;
    EXPECT_TRUE(bitwiseEqual(results[i], expected)) << GetParam() << ", render " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(ReadingOutOfOrder, StreamedSourceConcurrently,
                         ::testing::Values("QVFilterBlur", "QVFilterRotate", "QVFilterReflection",
                                           "QVFilterTextureBorder"),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

// ---- The EXIF orientation applied as tiles read ----
//
// A JPEG tagged with each of the eight orientations, read
// upright through imageWithContentsOfFile's orientation option, renders the same pixels bit
// for bit as the whole picture decoded and turned first (the thumbnail with its transform):
// alone and through filters that read rows far apart (the reflection), neighbourhoods (blur,
// tilt) and borders. The strip cache and the column bands are far smaller than the picture, so
// that rows are decoded again and a quarter turn gathers several bands.

namespace {

class OrientedSource : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(loadBundleOnce(&error)) << error;
    strips_ = StripCache::defaultBudget();
    bands_ = ColumnBands::defaultBudget();
    StripCache::setDefaultBudget(64 * 1024);
    ColumnBands::setDefaultBudget(2 * 60 * 190 * 4);  // bands of 60 of the 260 file columns
  }
  void TearDown() override {
    StripCache::setDefaultBudget(strips_);
    ColumnBands::setDefaultBudget(bands_);
  }
  std::size_t strips_ = 0, bands_ = 0;
};

CGImageRef eagerlyOriented(const std::string& path) {
  return CGImageSourceCreateThumbnailAtIndex(CGImageSourceCreateWithURL(path), 0,
                                             {{kCGImageSourceCreateThumbnailFromImageAlways, Value::boolean(true)},
                                              {kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)}});
}

}  // namespace

TEST_P(OrientedSource, RendersTheEagerlyTurnedPictureBitForBit) {
  const int orientation = GetParam();
  const auto dir = streamTestDir();
  {
    const std::string path = (dir / (std::to_string(orientation) + "oriented.jpg")).string();
    ASSERT_TRUE(writePicture(grainyPicture(260, 190, false), path, orientation)) << path;
    const CGImageRef turned = eagerlyOriented(path);
    ASSERT_TRUE(turned) << path;
    const CIImage whole =
        CIImage::imageWithRGBA8(turned->pixels.data(), turned->width, turned->height, turned->bytesPerRow);
    const CIImage lazy = CIImage::imageWithContentsOfFile(path, {{kCIImageApplyOrientationProperty, Value::boolean(true)}});
    ASSERT_TRUE(lazy) << path;
    const bool quarter = orientation >= 5;
    EXPECT_EQ(lazy.extent().size.width, quarter ? 190 : 260) << path;
    ASSERT_TRUE(CGRectEqualToRect(lazy.extent(), whole.extent())) << path;
    for (const std::string filter : {"", "QVFilterBlur", "QVFilterReflection", "QVFilterTilt", "QVFilterBorder"}) {
      const CIImage a = filter.empty() ? lazy : apply(filter, lazy), b = filter.empty() ? whole : apply(filter, whole);
      ASSERT_TRUE(a && b) << filter;
      CGRect rect = CGRectIntegral(a.extent());
      if (CGRectIsInfinite(a.extent()) || rect.size.width * rect.size.height > 4.0 * 260 * 190) rect = whole.extent();
      const auto tiled = render(a, rect, renderOptions(2, 48));
      const auto single = render(b, rect, renderOptions(1, 8192));
      ASSERT_EQ(tiled.size(), single.size());
      std::size_t differing = 0;
      for (std::size_t i = 0; i < tiled.size(); ++i) differing += std::memcmp(&tiled[i], &single[i], sizeof(float)) != 0;
      EXPECT_EQ(differing, 0u) << (filter.empty() ? "the picture alone" : filter) << " on " << path;
    }
  }
}

namespace {

// Whether every file column the bands hand out equals the whole decode's.
bool columnsMatch(const ColumnBands& bands, const CGImage& whole, std::size_t column) {
  bool ok = true;
  bands.withColumn(column, [&](const std::uint8_t* pixels) {
    for (std::size_t y = 0; y < whole.height; ++y) ok = ok && std::memcmp(pixels + y * 4, whole.row(y) + column * 4, 4) == 0;
  });
  return ok;
}

ColumnBands bandsOf(const std::string& path) {
  return ColumnBands(
      [path](std::string& error) {
        auto reader = CGImageSourceCreateRowReaderAtIndex(CGImageSourceCreateWithURL(path), 0);
        if (!reader) error = "cannot open";
        return reader;
      },
      path, 260, 190, 8, 2 * 60 * 190 * 4);
}

}  // namespace

TEST(OrientedSourceBands, AQuarterTurnDecodesTheFileOnceAndReadsTheOtherBandsBack) {
  // 260 file columns in bands of 60: the first pass writes every band to the spill file, the
  // other four are read back from it, each band gathered once for a render top down, and every
  // column is the whole decode's.
  const std::string path = (streamTestDir() / "bands-6.jpg").string();
  ASSERT_TRUE(writePicture(grainyPicture(260, 190, false), path, 6));
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const CIImage lazy = CIImage::imageWithContentsOfFile(path, {{kCIImageApplyOrientationProperty, Value::boolean(true)}});
  ASSERT_TRUE(lazy);
  const ColumnBands bands = bandsOf(path);
  EXPECT_EQ(bands.bandColumns(), 60u);
  for (std::size_t column = 0; column < 260; ++column) EXPECT_TRUE(columnsMatch(bands, *whole, column)) << column;
  EXPECT_EQ(bands.passes(), 1u);
  EXPECT_EQ(bands.bandsReadBack(), 4u);
  // Going back to a band still kept costs nothing; one evicted is read back again.
  EXPECT_TRUE(columnsMatch(bands, *whole, 200));
  EXPECT_EQ(bands.bandsReadBack(), 4u);
  EXPECT_TRUE(columnsMatch(bands, *whole, 0));
  EXPECT_EQ(bands.passes(), 1u);
  EXPECT_EQ(bands.bandsReadBack(), 5u);
}

TEST(OrientedSourceBands, WithoutASpillFileEachBandDecodesTheFileAgain) {
  // TMPDIR names a missing directory: five passes over the file for a render top down, each
  // band gathered once, the same columns.
  const std::string path = (streamTestDir() / "bands-6-again.jpg").string();
  ASSERT_TRUE(writePicture(grainyPicture(260, 190, false), path, 6));
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const std::string missing = (streamTestDir() / "no-such-directory").string();
  std::string old;
  const bool had = std::getenv("TMPDIR") != nullptr;
  if (had) old = std::getenv("TMPDIR");
  ::setenv("TMPDIR", missing.c_str(), 1);
  {
    const ColumnBands bands = bandsOf(path);
    for (std::size_t column = 0; column < 260; ++column) EXPECT_TRUE(columnsMatch(bands, *whole, column)) << column;
    EXPECT_EQ(bands.passes(), 5u);
    EXPECT_EQ(bands.bandsReadBack(), 0u);
    bands.withColumn(200, [](const std::uint8_t*) {});
    EXPECT_EQ(bands.passes(), 5u);
    bands.withColumn(0, [](const std::uint8_t*) {});
    EXPECT_EQ(bands.passes(), 6u);
  }
  if (had)
    ::setenv("TMPDIR", old.c_str(), 1);
  else
    ::unsetenv("TMPDIR");
}

TEST(OrientedSourceBands, WithoutTheOptionTheStoredPixelsAreRead) {
  const std::string path = (streamTestDir() / "stored-6.jpg").string();
  ASSERT_TRUE(writePicture(grainyPicture(260, 190, false), path, 6));
  const CIImage stored = CIImage::imageWithContentsOfFile(path);
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored.extent().size.width, 260);
  EXPECT_EQ(stored.extent().size.height, 190);
  const CIImage off = CIImage::imageWithContentsOfFile(path, {{kCIImageApplyOrientationProperty, Value::boolean(false)}});
  EXPECT_EQ(off.extent().size.width, 260);
}

INSTANTIATE_TEST_SUITE_P(EveryOrientation, OrientedSource, ::testing::Range(1, 9),
                         [](const ::testing::TestParamInfo<int>& info) { return "orientation" + std::to_string(info.param); });

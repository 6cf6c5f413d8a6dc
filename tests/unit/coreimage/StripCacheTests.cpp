// The strip cache behind file images: rows asked in any order, from several threads at once,
// are the rows of the whole decode; a cache smaller than the image restarts its reader at most
// once per half cache when read upwards; a damaged file fails naming the rows.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>

#include "CoreImage/CIContext.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/Render/StripCache.h"
#include "RenderSupport.h"
#include "StreamTestImages.h"

using namespace qvtest;

namespace {

StripCache::Opener openerFor(const std::string& path) {
  return [path](std::string& error) -> std::unique_ptr<CGImageSourceRowReader> {
    auto src = CGImageSourceCreateWithURL(path);
    auto reader = src ? CGImageSourceCreateRowReaderAtIndex(src, 0) : nullptr;
    if (!reader) error = src ? CGImageSourceGetLastError(src) : CGImageSourceGetCreateError();
    return reader;
  };
}

std::string writeJPEG(const std::string& name, std::size_t w, std::size_t h) {
  const std::string path = (streamTestDir() / name).string();
  EXPECT_TRUE(writePicture(grainyPicture(w, h, false), path));
  return path;
}

// Whether rows [first, first + count) of the cache equal the whole decode.
bool rowsMatch(const StripCache& cache, const CGImage& whole, std::size_t first, std::size_t count) {
  bool ok = true;
  std::size_t expected = first;
  cache.forEachRow(first, count, [&](std::size_t row, const std::uint8_t* p) {
    ok = ok && row == expected++ && std::memcmp(p, whole.row(row), whole.bytesPerRow) == 0;
  });
  return ok && expected == first + count;
}

}  // namespace

TEST(StripCache, ConcurrentRequestsInAnyOrderSeeTheWholeDecode) {
  const std::string path = writeJPEG("concurrent.jpg", 190, 700);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  // Room for 24 strips of the 44 the picture has: evictions and restarts happen all the time.
  const StripCache cache(openerFor(path), path, 190, 700, 8, 24 * StripCache::kStripRows * 190 * 4);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(unsigned(t) * 977u + 1u);
      for (int i = 0; i < 60; ++i) {
        std::size_t first = 0, count = 0;
        if (t % 2 == 0) {  // top-down columns of tiles, as the renderer's workers read
          first = std::size_t(i % 20) * 35;
          count = 35;
        } else {  // anywhere
          first = random() % 700;
          count = 1 + random() % std::min<std::size_t>(40, 700 - first);
        }
        if (!rowsMatch(cache, *whole, first, count)) ++mismatches;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
  const StripCache::Stats stats = cache.stats();
  EXPECT_GE(stats.opens, 1u);
  EXPECT_LE(stats.peakBytes, 24 * StripCache::kStripRows * 190 * 4);
}

TEST(StripCache, ReadingUpwardsRestartsOncePerHalfCache) {
  const std::string path = writeJPEG("upwards.jpg", 64, 1024);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const std::size_t stripBytes = StripCache::kStripRows * 64 * 4;
  const StripCache cache(openerFor(path), path, 64, 1024, 8, 16 * stripBytes);  // 16 of 64 strips
  // Tiles of 32 rows from the bottom of the file up, as a vertical flip reads.
  for (std::size_t end = 1024; end > 0; end -= 32) EXPECT_TRUE(rowsMatch(cache, *whole, end - 32, 32)) << end;
  const StripCache::Stats stats = cache.stats();
  // 1024 rows in windows of 8 strips (128 rows): 8 opens, and every strip decoded about once.
  EXPECT_LE(stats.opens, 9u);
  EXPECT_LE(stats.stripsDecoded, 64u + 16u);
  // Top-down from a fresh cache: one open, each strip once.
  const StripCache down(openerFor(path), path, 64, 1024, 8, 16 * stripBytes);
  for (std::size_t first = 0; first < 1024; first += 48) EXPECT_TRUE(rowsMatch(down, *whole, first, std::min<std::size_t>(48, 1024 - first)));
  EXPECT_EQ(down.stats().opens, 1u);
  EXPECT_EQ(down.stats().stripsDecoded, 64u);
}

TEST(StripCache, TwoReadersSomeRowsApartFindTheUpperOnesRowsKept) {
  // A picture under a copy of itself read 96 rows further down (6 strips, in a cache of 16):
  // the lower reader asks first, then the upper one, tile by tile down the file. The reader
  // decodes the rows between them as it goes on down instead of skipping them, so the upper
  // reader finds them in the cache: two opens (the first request skips to the lower reader's
  // rows; skipping on every request made three here, and fourteen against seven for readers
  // 128 rows apart, where neither keeps every strip), each strip decoded about once.
  const std::string path = writeJPEG("two-readers.jpg", 64, 1024);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const std::size_t stripBytes = StripCache::kStripRows * 64 * 4;
  const StripCache cache(openerFor(path), path, 64, 1024, 8, 16 * stripBytes);
  for (std::size_t first = 0; first + 96 + 24 <= 1024; first += 24) {
    EXPECT_TRUE(rowsMatch(cache, *whole, first + 96, 24)) << first;
    EXPECT_TRUE(rowsMatch(cache, *whole, first, 24)) << first;
  }
  EXPECT_LE(cache.stats().opens, 2u);
  EXPECT_LE(cache.stats().stripsDecoded, 64u + 6u);
  // A request far below (more than the cache holds) still skips the rows in between.
  const StripCache far(openerFor(path), path, 64, 1024, 8, 16 * stripBytes);
  EXPECT_TRUE(rowsMatch(far, *whole, 0, 16));
  EXPECT_TRUE(rowsMatch(far, *whole, 800, 16));
  EXPECT_EQ(far.stats().opens, 1u);
  EXPECT_LE(far.stats().stripsDecoded, 4u);  // each request's strip and one decoded ahead
}

TEST(StripCache, ATruncatedFileFailsNamingTheRowsAndKeepsFailing) {
  const std::string path = writeJPEG("cut.jpg", 128, 512);
  std::filesystem::resize_file(path, std::filesystem::file_size(path) / 3);
  const StripCache cache(openerFor(path), path, 128, 512, 8);
  std::string message;
  try {
    cache.forEachRow(0, 512, [](std::size_t, const std::uint8_t*) {});
  } catch (const CIRenderError& e) {
    message = e.what();
  }
  EXPECT_NE(message.find("cannot decode " + path + ": corrupt JPEG"), std::string::npos) << message;
  EXPECT_NE(message.find("in rows "), std::string::npos) << message;
  EXPECT_NE(message.find(" of 512)"), std::string::npos) << message;
  EXPECT_THROW(cache.forEachRow(500, 12, [](std::size_t, const std::uint8_t*) {}), CIRenderError);
}

TEST(StripCache, FileImageRendersItsRowsThroughTheCache) {
  const std::string path = writeJPEG("render.jpg", 150, 333);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const CIImage file = CIImage::imageWithContentsOfFile(path);
  const CIImage bitmap = CIImage::imageWithRGBA8(whole->pixels.data(), 150, 333, whole->bytesPerRow);
  std::vector<float> a(150 * 333 * 4), b(a.size());
  CIContext(renderOptions(2, 40)).render(file, a.data(), 150 * 16, CGRectNull, CIRenderFormat::RGBAf);
  CIContext(renderOptions(1, 0)).render(bitmap, b.data(), 150 * 16, CGRectNull, CIRenderFormat::RGBAf);
  EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0);
}

// The strip cache behind file images: rows asked in any order, from several threads at once,
// are the rows of the whole decode; a cache smaller than the image restarts its reader at most
// once per half cache when read upwards; rows it cannot keep in memory go to a spill file and
// come back as decoded, or are decoded again where no spill file can be written; a damaged file
// fails naming the rows.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
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

// TMPDIR set to `dir` while it lives (spill files are made there), as it was afterwards.
class ScopedTmpDir {
 public:
  explicit ScopedTmpDir(const std::string& dir) {
    if (const char* old = std::getenv("TMPDIR")) old_ = old;
    had_ = std::getenv("TMPDIR") != nullptr;
    ::setenv("TMPDIR", dir.c_str(), 1);
  }
  ~ScopedTmpDir() {
    if (had_)
      ::setenv("TMPDIR", old_.c_str(), 1);
    else
      ::unsetenv("TMPDIR");
  }

 private:
  std::string old_;
  bool had_ = false;
};

std::string missingDirectory() { return (streamTestDir() / "no-such-directory").string(); }

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
  // Requests anywhere evict rows nobody read yet: the budget may grow, within its bound.
  EXPECT_LE(stats.budgetBytes, StripCache::kBudgetGrowth * 24 * StripCache::kStripRows * 190 * 4);
  EXPECT_LE(stats.peakBytes, stats.budgetBytes);
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

namespace {

// Whether columns [x, x + width) of rows [first, first + count) come in runs, left to right and
// without gaps, that equal the whole decode.
bool runsMatch(const StripCache& cache, const CGImage& whole, std::size_t first, std::size_t count, std::size_t x,
               std::size_t width) {
  bool ok = true;
  std::size_t row = first, next = x;
  cache.forEachRun(first, count, x, width, [&](std::size_t y, std::size_t at, const std::uint8_t* p, std::size_t n) {
    if (next == x + width) {  // the previous row is complete
      ++row;
      next = x;
    }
    ok = ok && y == row && at == next && n > 0 && at + n <= x + width &&
         std::memcmp(p, whole.row(y) + at * 4, n * 4) == 0;
    next = at + n;
  });
  return ok && row == first + count - 1 && next == x + width;
}

// A consumer of a picture turned by a few degrees, as the renderer reads it: output strips of
// 32 rows, each read by 8 columns of 256 pixels from left to right, the column at the left
// reading 24 rows higher in the file than its right neighbour (a band of 216 rows per strip),
// each tile's rows overlapping the tile above by 16. Returns whether every run matched.
bool readTurned(const StripCache& cache, const CGImage& whole, std::size_t width, std::size_t height) {
  bool ok = true;
  for (std::size_t strip = 0; strip * 32 < height + 7 * 24; ++strip) {
    for (std::size_t c = 0; c < 8; ++c) {
      const std::int64_t top = std::int64_t(strip * 32) - std::int64_t(c * 24) - 8;
      const std::int64_t a = std::max<std::int64_t>(0, top), b = std::min<std::int64_t>(std::int64_t(height), top + 48);
      if (b <= a) continue;
      const std::size_t x = c * 256 == 0 ? 0 : c * 256 - 3;  // the columns' reads overlap a little
      ok = runsMatch(cache, whole, std::size_t(a), std::size_t(b - a), x, std::min<std::size_t>(262, width - x)) && ok;
    }
  }
  return ok;
}

}  // namespace

TEST(StripCache, ATurnedReadDecodesEachRowAboutOnce) {
  const std::size_t W = 2048, H = 1024, stripBytes = StripCache::kStripRows * W * 4;
  const std::string path = writeJPEG("turned.jpg", W, H);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  // A budget of 12 whole strips: less than the 14 strips of the band one output strip reads
  // (with the rows the next tiles read again). The cache grows it, within its bound, rather
  // than evict rows still to be read.
  const StripCache cache(openerFor(path), path, W, H, 8, 12 * stripBytes);
  EXPECT_TRUE(readTurned(cache, *whole, W, H));
  const StripCache::Stats stats = cache.stats();
  // 64 strips: each decoded once, from one open.
  EXPECT_LE(stats.stripsDecoded, 64u + 4u);
  EXPECT_LE(stats.opens, 2u);
  EXPECT_LE(stats.budgetBytes, StripCache::kBudgetGrowth * 12 * stripBytes);
  EXPECT_LE(stats.peakBytes, stats.budgetBytes);
}

TEST(StripCache, ATurnedReadTooWideForTheGrownBudgetStillSeesTheWholeDecode) {
  // Without a spill file, a budget of 2 strips grows to 8, still less than what the turned
  // consumer keeps unread: the cache falls back to evicting by last use alone and decodes again
  // what it must.
  const std::size_t W = 2048, H = 512, stripBytes = StripCache::kStripRows * W * 4;
  const std::string path = writeJPEG("turned-small.jpg", W, H);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const std::string missing = missingDirectory();
  const ScopedTmpDir unwritable(missing);
  const StripCache cache(openerFor(path), path, W, H, 8, 2 * stripBytes);
  EXPECT_TRUE(readTurned(cache, *whole, W, H));
  const StripCache::Stats stats = cache.stats();
  EXPECT_LE(stats.budgetBytes, StripCache::kBudgetGrowth * 2 * stripBytes);
  EXPECT_LE(stats.peakBytes, std::max<std::size_t>(stats.budgetBytes, 12 * stripBytes));  // 2 x the largest request + 4
  EXPECT_GE(stats.opens, 2u);
  EXPECT_EQ(stats.piecesSpilled, 0u);
  EXPECT_NE(stats.spillError.find("cannot create a spill file in " + missing), std::string::npos)
      << stats.spillError;
}

TEST(StripCache, ATurnedReadSpillsWhatItCannotHoldAndReadsItBackAsDecoded) {
  // The same read with a spill file: the budget of 2 strips does not grow, what the consumer
  // will read again is written once to the spill file and read back, and every strip is
  // decoded once from one open.
  const std::size_t W = 2048, H = 512, stripBytes = StripCache::kStripRows * W * 4;
  const std::string path = writeJPEG("turned-spilled.jpg", W, H);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const StripCache cache(openerFor(path), path, W, H, 8, 2 * stripBytes);
  EXPECT_TRUE(readTurned(cache, *whole, W, H));  // every run read back equals the whole decode
  const StripCache::Stats stats = cache.stats();
  EXPECT_EQ(stats.spillError, "");
  EXPECT_EQ(stats.opens, 1u);
  EXPECT_EQ(stats.stripsDecoded, 32u);
  EXPECT_EQ(stats.mostDecodesOfAStrip, 1u);
  EXPECT_GT(stats.piecesSpilled, 0u);
  EXPECT_GT(stats.piecesReadBack, 0u);
  // Each piece is written at most once: 32 strips of 4 pieces.
  EXPECT_LE(stats.piecesSpilled, 32u * 4u);
  EXPECT_EQ(stats.budgetBytes, 2 * stripBytes);
  EXPECT_LE(stats.peakBytes, 12 * stripBytes);  // the floor of twice the largest request + 4
}

namespace {

// Rows read top-down, then bottom-up, in requests of 32 rows, as a picture above its mirrored
// copy reads its file. Returns whether every row matched.
bool readDownThenUp(const StripCache& cache, const CGImage& whole, std::size_t height) {
  bool ok = true;
  for (std::size_t first = 0; first < height; first += 32) ok = rowsMatch(cache, whole, first, 32) && ok;
  for (std::size_t end = height; end > 0; end -= 32) ok = rowsMatch(cache, whole, end - 32, 32) && ok;
  return ok;
}

}  // namespace

TEST(StripCache, ReadingBackUpTheFileDecodesEachStripAtMostTwice) {
  // 128 strips in a cache of 8: on the way up, each restart doubles its window and spills what
  // the cache cannot hold of it, so each strip is decoded at most once more, from a few opens.
  const std::size_t W = 64, H = 2048, stripBytes = StripCache::kStripRows * W * 4;
  const std::string path = writeJPEG("down-up.jpg", W, H);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const StripCache cache(openerFor(path), path, W, H, 8, 8 * stripBytes);
  EXPECT_TRUE(readDownThenUp(cache, *whole, H));
  const StripCache::Stats stats = cache.stats();
  EXPECT_EQ(stats.spillError, "");
  EXPECT_LE(stats.mostDecodesOfAStrip, 2u);
  EXPECT_LE(stats.stripsDecoded, 2u * 128u);
  EXPECT_LE(stats.opens, 8u);  // 1 + windows of 4, 8, 16, 32, 64 strips and the first restart
  EXPECT_GT(stats.piecesReadBack, 0u);
  EXPECT_LE(stats.peakBytes, 8 * stripBytes);

  // Where no spill file can be made (a missing directory, or one where no file can be
  // created even by root), the same reads see the same rows, decoding them again from a
  // restart per half cache, and the reason is kept.
  for (const std::string& dir : {missingDirectory(), std::string("/proc")}) {
    const ScopedTmpDir unwritable(dir);
    const StripCache again(openerFor(path), path, W, H, 8, 8 * stripBytes);
    EXPECT_TRUE(readDownThenUp(again, *whole, H)) << dir;
    const StripCache::Stats s = again.stats();
    EXPECT_NE(s.spillError.find("cannot create a spill file in " + dir + ": "), std::string::npos) << s.spillError;
    EXPECT_EQ(s.piecesSpilled, 0u);
    EXPECT_EQ(s.piecesReadBack, 0u);
    EXPECT_GT(s.opens, stats.opens) << dir;
  }
}

TEST(StripCache, ASpillFileThatCannotBeWrittenFurtherFallsBackToDecodingAgain) {
  // A full disc part way, made by a file size limit of half the decoded picture: a turned read
  // spills the strips near the top (each at its rows' place in the spill file), then a write
  // fails, and from then on the cache keeps what it read back and decodes again what it must;
  // every run still equals the whole decode.
  const std::size_t W = 2048, H = 512, stripBytes = StripCache::kStripRows * W * 4;
  const std::string path = writeJPEG("full-disc.jpg", W, H);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  auto* previous = ::signal(SIGXFSZ, SIG_IGN);  // the write fails with EFBIG instead
  StripCache::Stats stats;
  bool ok = false;
  {
    const StripCache cache(openerFor(path), path, W, H, 8, 2 * stripBytes);
    rlimit small = old;
    small.rlim_cur = 16 * stripBytes;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    ok = readTurned(cache, *whole, W, H);
    ::setrlimit(RLIMIT_FSIZE, &old);
    stats = cache.stats();
  }
  ::signal(SIGXFSZ, previous);
  EXPECT_TRUE(ok);
  EXPECT_GT(stats.piecesSpilled, 0u);
  EXPECT_LT(stats.spilledBytes, 16 * stripBytes + 1);
  EXPECT_NE(stats.spillError.find("cannot write the spill file in "), std::string::npos) << stats.spillError;
  EXPECT_NE(stats.spillError.find("File too large"), std::string::npos) << stats.spillError;
}

TEST(StripCache, RunsAcrossPiecesAreTheWholeDecode) {
  const std::size_t W = 1500, H = 100;  // three pieces, the last one narrower
  const std::string path = writeJPEG("runs.jpg", W, H);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const StripCache cache(openerFor(path), path, W, H, 8);
  for (std::size_t x : {std::size_t(0), std::size_t(1), std::size_t(511), std::size_t(512), std::size_t(1000),
                        std::size_t(1499)})
    for (std::size_t width : {std::size_t(1), std::size_t(13), std::size_t(600), W})
      if (x + width <= W) {
        EXPECT_TRUE(runsMatch(cache, *whole, 7, 30, x, width)) << x << " " << width;
      }
  EXPECT_TRUE(rowsMatch(cache, *whole, 0, H));
  EXPECT_THROW(cache.forEachRun(0, 1, 1400, 101, [](std::size_t, std::size_t, const std::uint8_t*, std::size_t) {}),
               CIRenderError);
}

namespace {

// Collects the Stats of the strip caches that end while it lives.
class DecodeCounter {
 public:
  DecodeCounter() {
    StripCache::setStatsListener([this](const StripCache::Stats& s) {
      std::lock_guard lock(mutex_);
      stats_.push_back(s);
    });
  }
  ~DecodeCounter() { StripCache::setStatsListener(nullptr); }
  std::size_t stripsDecoded() const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& s : stats_) n += s.stripsDecoded;
    return n;
  }
  std::size_t caches() const {
    std::lock_guard lock(mutex_);
    return stats_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<StripCache::Stats> stats_;
};

}  // namespace

TEST(StripCache, AFileTurnedByFiveDegreesIsDecodedAboutOnceAndRendersAsTheBitmap) {
  const std::size_t W = 3000, H = 1600, stripBytes = StripCache::kStripRows * W * 4;
  const std::string path = writeJPEG("rotate.jpg", W, H);
  const CGImageRef whole = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithURL(path), 0);
  ASSERT_TRUE(whole);
  const CGAffineTransform turn = CGAffineTransformMakeRotation(5.0 * M_PI / 180.0);
  const CIImage file = CIImage::imageWithContentsOfFile(path).imageByApplyingTransform(turn);
  const CIImage bitmap = CIImage::imageWithRGBA8(whole->pixels.data(), W, H, whole->bytesPerRow).imageByApplyingTransform(turn);
  const CGRect extent = CGRectIntegral(file.extent());
  // The band a strip of the turned picture reads (3000 x sin 5 degrees = 261 rows and the
  // tiles' own) is more than the 12 strips of this budget holds in whole rows.
  const std::size_t budget = StripCache::defaultBudget();
  StripCache::setDefaultBudget(12 * stripBytes);
  for (int threads : {1, 2}) {
    std::vector<float> a, b;
    std::size_t decoded = 0, caches = 0;
    {
      // In strips from the top, as a render to a file runs (a render into memory runs each
      // column of tiles down the whole picture, reading the file once per column).
      DecodeCounter counter;
      const std::size_t w = std::size_t(CGRectGetWidth(extent)), h = std::size_t(CGRectGetHeight(extent));
      a.assign(w * h * 4, 0.0f);
      CIContext(renderOptions(threads, 0))
          .renderStrips(file, extent, CIRenderFormat::RGBAf, 64,
                        [&](const void* pixels, std::ptrdiff_t rowBytes, std::int64_t top, std::int64_t rows) {
                          for (std::int64_t r = 0; r < rows; ++r)
                            std::memcpy(&a[(std::size_t(top + r) * w) * 4], static_cast<const char*>(pixels) + r * rowBytes,
                                        w * 4 * sizeof(float));
                        });
      decoded = counter.stripsDecoded();
      caches = counter.caches();
    }
    b = renderRGBAf(bitmap, extent, renderOptions(1, 0));
    EXPECT_EQ(a.size(), b.size());
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0) << threads << " threads";
    // 100 strips in the file: each decoded once.
    EXPECT_GE(caches, 1u);
    EXPECT_LE(decoded, caches * 100 + 4) << threads << " threads";
  }
  StripCache::setDefaultBudget(budget);
}

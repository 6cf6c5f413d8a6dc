// StripCache: the rows of an image file, decoded on demand by a sequential row reader and kept
// in a bounded cache of strips that every tile and thread of one render shares.
//
// The reader decodes top-down. A request for rows below its position decodes forward to them,
// skipping the rows in between without decoding their pixels. A request for
// rows above its position that the cache no longer holds restarts the reader from the top of
// the file and skips in the compressed domain (which costs only the entropy decoding) to the
// rows worth decoding: for a restart above the previous one, a window of half the cache that
// ends at the last row of the request, so that a consumer walking the file upwards (a vertical
// flip, a reflection, a half-turn) finds the rows above in the cache and pays one restart per
// half cache of rows, not one per tile; for a worker that fell behind the others, its own rows.
// (Keeping the whole decoded file instead would cost 4 bytes a pixel, 96 MB for 24 MP.) The cache is bounded by its byte
// budget (least recently used strips go first), grown only as far as the largest request
// needs.
//
// Decoding overlaps the tiles' work: the worker that needs rows beyond the decoded ones decodes
// them while the others convert and filter theirs, and after each request the worker decodes
// ahead by about one request, when the decoder is free, so that the next request of the other
// workers finds its rows ready.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class CGImageSourceRowReader;

class StripCache {
 public:
  // Opens a reader at row 0; null with the reason in `error` on failure.
  using Opener = std::function<std::unique_ptr<CGImageSourceRowReader>(std::string& error)>;
  static constexpr std::size_t kStripRows = 16;

  // `what` names the image in error messages ("cannot decode <what>: ...").
  StripCache(Opener open, std::string what, std::size_t width, std::size_t height, int bitsPerComponent,
             std::size_t budgetBytes = defaultBudget());
  // With QV_STRIP_CACHE_STATS set in the environment, prints its Stats on stderr (benchmarks).
  ~StripCache();

  // Hands rows [first, first + count) to `use` top-down: use(row, its pixels). Throws
  // CIImageDecodeError when the file cannot be decoded, naming the rows where it breaks.
  void forEachRow(std::size_t first, std::size_t count,
                  const std::function<void(std::size_t row, const std::uint8_t* pixels)>& use) const;

  std::size_t bytesPerRow() const { return bytesPerRow_; }
  int bitsPerComponent() const { return bits_; }

  struct Stats {
    std::size_t opens = 0;          // readers opened (1 + restarts from the top)
    std::size_t stripsDecoded = 0;  // strips decoded, counting decodes again after eviction
    std::size_t peakBytes = 0;      // the most strip bytes held at once
  };
  Stats stats() const;

  // The byte budget of caches made from now on (12 MiB unless set); tests shrink it to make
  // evictions and restarts happen on small images.
  static std::size_t defaultBudget();
  static void setDefaultBudget(std::size_t bytes);

 private:
  using Strip = std::vector<std::uint8_t>;  // a strip's rows, bytesPerRow_ apart
  struct Entry {
    std::shared_ptr<const Strip> strip;
    std::uint64_t lastUse = 0;
  };
  std::shared_ptr<const Strip> strip(std::size_t index, std::size_t lastIndex) const;
  std::shared_ptr<const Strip> lookup(std::size_t index) const;
  void insert(std::size_t index, std::shared_ptr<const Strip> strip) const;
  // With decodeMutex_ held.
  void position(std::size_t index, std::size_t lastIndex) const;
  void decodeNext() const;
  void decodeAhead(std::size_t lastIndex, std::size_t strips) const;
  [[noreturn]] void fail() const;
  std::size_t capacityStrips() const;

  Opener open_;
  std::string what_;
  std::size_t width_, height_;
  int bits_;
  std::size_t bytesPerRow_, stripCount_, budget_;
  // The cache is shared by the tiles of a render, which hold it as const: what follows is its
  // decoding state, guarded by its mutexes.
  mutable std::atomic<std::size_t> largestRequest_{1};  // in strips

  mutable std::mutex decodeMutex_;  // guards reader_ and failure_
  mutable std::unique_ptr<CGImageSourceRowReader> reader_;
  mutable std::size_t restartedAt_ = 0;  // the strip the reader was last positioned at on a restart
  mutable std::string failure_;
  mutable std::atomic<bool> failed_{false};

  mutable std::mutex cacheMutex_;  // guards strips_, clock_, bytes_ and stats_
  mutable std::unordered_map<std::size_t, Entry> strips_;
  mutable std::uint64_t clock_ = 0;
  mutable std::size_t bytes_ = 0;
  mutable Stats stats_;
};

// ColumnBands: the columns of an image file, for a picture turned a quarter (an EXIF
// orientation of 5 to 8 makes the rows of the upright picture the columns of the file). The
// decoders produce rows only, so a band of whole file columns is gathered by one pass of a row
// reader over the whole file, each row scattered into the band's columns (each stored top to
// bottom, 8-bit or 16-bit RGBA as the file decodes). Two bands are kept (the workers of a
// render read about the same rows of the upright picture; one may be a band behind at the
// boundary), each of half the byte budget: a file of W columns costs ceil(W / band columns)
// decodes in all, e.g. six for a 6000x4000 JPEG within 32 MiB, rather than holding the whole
// decoded picture (96 MB for 24 MP).
class ColumnBands {
 public:
  static constexpr std::size_t kKept = 2;

  ColumnBands(StripCache::Opener open, std::string what, std::size_t width, std::size_t height, int bitsPerComponent,
              std::size_t budgetBytes = defaultBudget());
  ~ColumnBands();

  // Hands `use` the pixels of file column `column` (rows 0 to height - 1, top to bottom,
  // bytesPerPixel() apart), valid while `use` runs. Throws CIImageDecodeError when the file
  // cannot be decoded.
  void withColumn(std::size_t column, const std::function<void(const std::uint8_t* pixels)>& use) const;

  std::size_t bytesPerPixel() const { return bytesPerPixel_; }
  // The file columns one band holds.
  std::size_t bandColumns() const { return bandColumns_; }
  std::size_t passes() const;  // the decodes of the whole file so far

  // The byte budget of the bands made from now on (32 MiB unless set); tests shrink it.
  static std::size_t defaultBudget();
  static void setDefaultBudget(std::size_t bytes);

 private:
  struct Band {
    std::size_t first = 0, columns = 0;
    std::vector<std::uint8_t> pixels;  // column by column, height pixels each
  };
  std::shared_ptr<const Band> band(std::size_t index) const;

  StripCache::Opener open_;
  std::string what_;
  std::size_t width_, height_;
  int bits_;
  std::size_t bytesPerPixel_, bandColumns_;
  mutable std::mutex mutex_;  // guards what follows; a band is gathered with it held
  mutable std::vector<std::pair<std::size_t, std::shared_ptr<const Band>>> bands_;  // most recent last
  mutable std::size_t passes_ = 0;
  mutable std::string failure_;
};


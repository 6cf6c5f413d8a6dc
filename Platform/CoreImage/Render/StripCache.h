// StripCache: the rows of an image file, decoded on demand by a sequential row reader and kept
// in a bounded cache of strips that every tile and thread of one render shares.
//
// The reader decodes top-down. A request for rows below its position decodes forward to them,
// skipping the rows in between without decoding their pixels. A request for
// rows above its position that the cache no longer holds restarts the reader from the top of
// the file and skips in the compressed domain (which costs only the entropy decoding) to the
// rows worth decoding: for a restart above the previous one, a window of most of the cache that
// ends at the last row of the request, so that a consumer walking the file upwards (a vertical
// flip, a reflection, a half-turn) finds the rows above in the cache and pays one restart per
// cache of rows, not one per tile; for a worker that fell behind the others, its own rows.
// (Keeping the whole decoded file instead would cost 4 bytes a pixel, 96 MB for 24 MP.)
//
// A request names the columns it reads. Strips are kept whole as decoded until the cache first
// has to evict rows its consumers will still read without a spill file to put them in (see
// below; pieces read back from one are kept as pieces); from then on each strip is kept as pieces of
// kChunkPixels columns, each evicted on its own (a copy of each decoded strip that consumers
// whose rows fit the budget never pay). The pieces that no request has read yet go last: a turned
// picture reads each file row across its width over many strips of its output (a 5-degree
// rotation of a 6000-wide picture: the columns at one side read a row about 525 rows of output
// after those at the other), and what the cache must keep to decode every row once is the part
// of that band still to be read, not whole rows. Of the pieces already read, those above the
// first rows of every recent request go first (the consumers have moved down past them), then
// the least recently used.
//
// Rows far apart: a bounded cache and a spill file. Where the next piece to go is one the
// consumers will still read (not read yet, or, while they move down the file, not yet behind
// all of them, or, while they move up, not yet below every column of tiles' latest request),
// it is written once, as the decoder's 8-bit rows, to an unlinked temporary file
// (SpillFile) and read back from there with a positioned read when asked for, rather than
// decoded again by a restart from the top; the budget stays what the cache was made with (12
// MiB: a turned 12000-wide picture's band is 47 MB, a reflection's mirrored half the whole
// picture). What is spilled sits in the kernel's page cache, not in the process's resident
// memory, so the peak stays bounded by the budget at any picture size. The read pattern
// decides which costs less: a restart costs the entropy decoding of every row above its window,
// a spill a write and a read of 4 bytes a pixel (bench/README.md, "Rows far apart"). Rows
// already read and behind every consumer are not spilled, so a top-down render writes nothing.
// A consumer that walks up the file after reading it down (a reflection's mirrored half) still
// costs restarts, as the rows it reads again went long ago, but each restart doubles its window
// and spills what does not fit: each row is decoded at most twice, from a few restarts.
// Where the spill file cannot be made or written, the cache decodes again instead, as it did
// without one: the budget grows by a quarter instead of evicting rows still to be read, up to
// kBudgetGrowth times the one the cache was made with, and past that, once a restart has to
// decode again what was evicted so, pieces simply go least recently used first.
//
// Decoding overlaps the tiles' work: the worker that needs rows beyond the decoded ones decodes
// them while the others convert and filter theirs, and after each request the worker decodes
// ahead by about one request, when the decoder is free, so that the next request of the other
// workers finds its rows ready.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "CoreImage/Render/SpillFile.h"

class CGImageSourceRowReader;

class StripCache {
 public:
  // Opens a reader at row 0; null with the reason in `error` on failure.
  using Opener = std::function<std::unique_ptr<CGImageSourceRowReader>(std::string& error)>;
  static constexpr std::size_t kStripRows = 16;
  static constexpr std::size_t kChunkPixels = 512;  // the columns of one piece of a strip

  // `what` names the image in error messages ("cannot decode <what>: ...").
  StripCache(Opener open, std::string what, std::size_t width, std::size_t height, int bitsPerComponent,
             std::size_t budgetBytes = defaultBudget());
  // With QV_STRIP_CACHE_STATS set in the environment, prints its Stats on stderr (benchmarks).
  ~StripCache();

  // Hands columns [x, x + width) of rows [first, first + count) to `use` top-down, each row in
  // one or more runs from left to right: use(row, first column of the run, its pixels, its
  // length). Throws CIImageDecodeError when the file cannot be decoded, naming the rows where it
  // breaks.
  using RunUse = std::function<void(std::size_t row, std::size_t x, const std::uint8_t* pixels, std::size_t count)>;
  void forEachRun(std::size_t first, std::size_t count, std::size_t x, std::size_t width, const RunUse& use) const;
  // Whole rows, each gathered into one buffer: use(row, its pixels).
  void forEachRow(std::size_t first, std::size_t count,
                  const std::function<void(std::size_t row, const std::uint8_t* pixels)>& use) const;

  std::size_t bytesPerRow() const { return bytesPerRow_; }
  int bitsPerComponent() const { return bits_; }

  struct Stats {
    std::size_t opens = 0;          // readers opened (1 + restarts from the top)
    std::size_t stripsDecoded = 0;  // strips decoded, counting decodes again after eviction
    std::size_t peakBytes = 0;      // the most strip bytes held at once
    std::size_t budgetBytes = 0;    // the budget in the end (grown for rows still to be read)
    bool pieced = false;            // strips were cut into pieces of columns
    std::size_t mostDecodesOfAStrip = 0;  // the most times any one strip was decoded
    std::size_t piecesSpilled = 0;  // pieces of strips written to the spill file (each once)
    std::size_t piecesReadBack = 0; // pieces read back from it instead of decoded again
    std::uint64_t spilledBytes = 0;
    std::string spillError;         // why the spill file could not be used, if it could not
  };
  Stats stats() const;

  // Called with a cache's Stats when it is destroyed (at the end of a render), while set; tests
  // count decodes with it. Null clears it.
  static void setStatsListener(std::function<void(const Stats&)> listener);

  // The byte budget of caches made from now on (12 MiB unless set); tests shrink it to make
  // evictions and restarts happen on small images.
  static std::size_t defaultBudget();
  static void setDefaultBudget(std::size_t bytes);
  // How far a cache's budget may grow: this many times the budget it was made with.
  static constexpr std::size_t kBudgetGrowth = 4;

 private:
  using Piece = std::vector<std::uint8_t>;  // columns [left, left + width) of a strip's rows
  struct Held {
    std::shared_ptr<const Piece> piece;
    std::size_t left = 0, width = 0;
  };
  struct Entry {
    Held held;
    std::uint64_t lastUse = 0;
    bool read = false;
    std::uint64_t readPieces = 0;  // of a whole strip: bit c, piece c was read (bit 63: any from 63 on)
  };
  using Pieces = std::vector<Held>;
  // Pieces c0 to c1 of strip `index`, decoded where missing.
  Pieces strip(std::size_t index, std::size_t lastIndex, std::size_t c0, std::size_t c1) const;
  // All of them or none; found ones are marked read.
  bool lookup(std::size_t index, std::size_t c0, std::size_t c1, Pieces& found) const;
  // Returns what it put in the cache (the whole strip, or its pieces), which the cache may
  // already have evicted again.
  Pieces insert(std::size_t index, std::vector<std::uint8_t>&& rows, std::size_t count) const;
  // Keys: piece c of strip s is s * (piecesPerStrip_ + 1) + c; the strip kept whole is
  // s * (piecesPerStrip_ + 1) + piecesPerStrip_.
  std::size_t key(std::size_t strip, std::size_t piece) const { return strip * (piecesPerStrip_ + 1) + piece; }
  std::size_t stripOf(std::size_t key) const { return key / (piecesPerStrip_ + 1); }
  void cutIntoPieces() const;  // with cacheMutex_ held
  // With cacheMutex_ held: the cache's entry put or replaced; then pieces go down to capacity.
  void put(std::size_t key, Held held, std::uint64_t now, bool read) const;
  void evictToCapacity() const;
  // The spill file (see above). With cacheMutex_ held: the entry written to it unless it is
  // there already; false when it cannot be written.
  bool spillOut(const std::pair<const std::size_t, Entry>& entry) const;
  // Pieces c0 to c1 of strip `index` read back from the spill file, if it holds them all.
  bool readBack(std::size_t index, std::size_t c0, std::size_t c1, Pieces& found) const;
  // With cacheMutex_ held: whether every piece of the strip is in the cache or the spill file.
  bool heldAnywhere(std::size_t index) const;
  bool allRead(const Entry& whole) const;  // every piece of a strip kept whole was read
  std::size_t rowsOf(std::size_t strip) const { return std::min(kStripRows, height_ - strip * kStripRows); }
  // Where piece c of a strip starts in the spill file: strips at kStripRows rows apart, each
  // strip's pieces one after another (a piece is one read).
  std::uint64_t spillOffset(std::size_t strip, std::size_t c) const {
    return std::uint64_t(strip) * kStripRows * bytesPerRow_ + rowsOf(strip) * c * kChunkPixels * bytesPerPixel_;
  }
  // With cacheMutex_ held. Consumers moving down have passed the strips above `floor` (the
  // first strip of the latest request of every column of tiles); consumers moving up
  // (`down` false) have passed the strips below `ceiling` (the last strip of the lowest of
  // those requests).
  bool movingDown() const;  // whether the recent requests move down the file
  bool goesBefore(const std::pair<const std::size_t, Entry>& a, const std::pair<const std::size_t, Entry>& b,
                  std::size_t floor, std::size_t ceiling, bool down) const;
  std::size_t pieceWidth(std::size_t c) const { return std::min(kChunkPixels, width_ - c * kChunkPixels); }
  // Piece c of a strip's `count` rows (bytesPerRow_ apart in `rows`): its columns' bytes, copied.
  std::shared_ptr<const Piece> cutPiece(const std::uint8_t* rows, std::size_t count, std::size_t c) const;
  // With decodeMutex_ held.
  void position(std::size_t index, std::size_t lastIndex) const;
  Pieces decodeNext() const;  // the strip decoded, as insert returns it
  void decodeAhead(std::size_t lastIndex, std::size_t strips) const;
  [[noreturn]] void fail() const;
  std::size_t capacityStrips() const;
  std::size_t capacityBytes() const;

  Opener open_;
  std::string what_;
  std::size_t width_, height_;
  int bits_;
  std::size_t bytesPerRow_, bytesPerPixel_, stripCount_, piecesPerStrip_, initialBudget_;
  mutable std::atomic<std::size_t> budget_;
  // The cache is shared by the tiles of a render, which hold it as const: what follows is its
  // decoding state, guarded by its mutexes.
  mutable std::atomic<std::size_t> largestRequest_{1};  // in strips

  mutable std::mutex decodeMutex_;  // guards reader_ and failure_
  mutable std::unique_ptr<CGImageSourceRowReader> reader_;
  mutable std::size_t restartedAt_ = 0;  // the strip the reader was last positioned at on a restart
  mutable std::size_t upwardRestarts_ = 0;  // restarts of a consumer moving up, with a spill file
  mutable std::string failure_;
  mutable std::atomic<bool> failed_{false};

  mutable std::mutex cacheMutex_;  // guards pieces_, clock_, bytes_, unreadEvicted_ and stats_
  mutable std::unordered_map<std::size_t, Entry> pieces_;  // by key()
  // Strips are kept whole (as decoded, no copy) until the cache first has to evict what its
  // consumers will read; from then on they are cut into pieces.
  mutable bool pieced_ = false;
  mutable bool unreadEvicted_ = false;  // a piece was evicted that consumers will read (again)
  mutable bool leastRecent_ = false;    // evicting by last use alone (see position)
  // The first strips of the last requests (which way the consumers move), and per 128 columns
  // the first strip of the latest request that began there and when: read pieces above all of
  // those are behind every consumer moving down the file.
  mutable std::array<std::size_t, 32> recent_{};
  mutable std::size_t recentNext_ = 0;
  mutable std::unordered_map<std::size_t, std::pair<std::size_t, std::size_t>> consumers_;
  mutable std::uint64_t clock_ = 0;
  mutable std::size_t bytes_ = 0;
  mutable Stats stats_;
  mutable SpillFile spill_;
  mutable std::vector<std::uint16_t> decodes_;  // by strip, saturating; guarded by cacheMutex_
  mutable std::vector<bool> spilled_;  // by strip * piecesPerStrip_ + piece; guarded by cacheMutex_
};

// ColumnBands: the columns of an image file, for a picture turned a quarter (an EXIF
// orientation of 5 to 8 makes the rows of the upright picture the columns of the file). The
// decoders produce rows only, so a band of whole file columns is gathered by one pass of a row
// reader over the whole file, each row scattered into the band's columns (each stored top to
// bottom, 8-bit or 16-bit RGBA as the file decodes). Two bands are kept (the workers of a
// render read about the same rows of the upright picture; one may be a band behind at the
// boundary), each of half the byte budget: a file of W columns costs ceil(W / band columns)
// decodes in all, e.g. six for a 6000x4000 JPEG within 32 MiB, rather than holding the whole
// decoded picture (96 MB for 24 MP). With a spill file (see SpillFile), the first pass also
// writes every band's part of each row there, band after band, and later bands are read back
// from it instead of decoded again: one decode of the file in all. Where the spill file cannot
// be made or written, each band decodes the file again.
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
  std::size_t bandsReadBack() const;  // bands read back from the spill file

  // The byte budget of the bands made from now on (32 MiB unless set); tests shrink it.
  static std::size_t defaultBudget();
  static void setDefaultBudget(std::size_t bytes);

 private:
  struct Band {
    std::size_t first = 0, columns = 0;
    std::vector<std::uint8_t> pixels;  // column by column, height pixels each
  };
  std::shared_ptr<const Band> band(std::size_t index) const;
  // With mutex_ held: band `b`'s columns of `count` rows from `first` on (a strip of the file,
  // rowBytes apart) written to the spill file; the band's columns gathered from it (false when
  // it cannot be read).
  void spillRows(const std::uint8_t* rows, std::size_t rowBytes, std::size_t first, std::size_t count) const;
  bool readBack(Band& band, std::size_t index) const;
  std::uint64_t spillOffset(std::size_t band, std::size_t row) const {
    return (std::uint64_t(band) * bandColumns_ * height_ + row * std::min(bandColumns_, width_ - band * bandColumns_)) *
           bytesPerPixel_;
  }

  StripCache::Opener open_;
  std::string what_;
  std::size_t width_, height_;
  int bits_;
  std::size_t bytesPerPixel_, bandColumns_;
  mutable std::mutex mutex_;  // guards what follows; a band is gathered with it held
  mutable std::vector<std::pair<std::size_t, std::shared_ptr<const Band>>> bands_;  // most recent last
  mutable std::size_t passes_ = 0;
  mutable std::size_t readBacks_ = 0;
  mutable std::string failure_;
  mutable SpillFile spill_;
  mutable bool spillWhole_ = false;  // the spill file holds every band
};


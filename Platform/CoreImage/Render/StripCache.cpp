#include "CoreImage/Render/StripCache.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/uio.h>

#include "CoreImage/CIContext.h"
#include "ImageIO/CGImageSource.h"

namespace {
std::atomic<std::size_t> gDefaultBudget{std::size_t{12} << 20};
std::atomic<std::size_t> gDefaultBandBudget{std::size_t{32} << 20};
}  // namespace

std::size_t StripCache::defaultBudget() { return gDefaultBudget.load(); }
void StripCache::setDefaultBudget(std::size_t bytes) { gDefaultBudget.store(bytes); }

StripCache::StripCache(Opener open, std::string what, std::size_t width, std::size_t height, int bitsPerComponent,
                       std::size_t budgetBytes)
    : open_(std::move(open)),
      what_(std::move(what)),
      width_(width),
      height_(height),
      bits_(bitsPerComponent),
      bytesPerRow_(width * 4 * std::size_t(bitsPerComponent / 8)),
      bytesPerPixel_(4 * std::size_t(bitsPerComponent / 8)),
      stripCount_((height + kStripRows - 1) / kStripRows),
      piecesPerStrip_((width + kChunkPixels - 1) / kChunkPixels),
      initialBudget_(budgetBytes),
      budget_(budgetBytes),
      decodes_(stripCount_, 0),
      spilled_(stripCount_ * piecesPerStrip_, false) {}

namespace {
std::mutex gListenerMutex;
std::function<void(const StripCache::Stats&)> gListener;
}  // namespace

void StripCache::setStatsListener(std::function<void(const Stats&)> listener) {
  std::lock_guard lock(gListenerMutex);
  gListener = std::move(listener);
}

StripCache::~StripCache() {
  const Stats s = stats();
  {
    std::lock_guard lock(gListenerMutex);
    if (gListener) gListener(s);
  }
  if (!std::getenv("QV_STRIP_CACHE_STATS")) return;
  std::fprintf(stderr,
               "strip cache of %s: %zu opens, %zu of %zu strips decoded, peak %.1f MB, budget %.1f MB, "
               "%zu pieces spilled (%.1f MB), %zu read back\n",
               what_.c_str(), s.opens, s.stripsDecoded, stripCount_, double(s.peakBytes) / 1048576.0,
               double(s.budgetBytes) / 1048576.0, s.piecesSpilled, double(s.spilledBytes) / 1048576.0,
               s.piecesReadBack);
}

StripCache::Stats StripCache::stats() const {
  std::lock_guard lock(cacheMutex_);
  Stats s = stats_;
  s.budgetBytes = budget_.load();
  s.pieced = pieced_;
  s.spilledBytes = spill_.bytesWritten();
  s.spillError = spill_.error();
  return s;
}

std::size_t StripCache::capacityStrips() const {
  return capacityBytes() / std::max<std::size_t>(bytesPerRow_ * kStripRows, 1);
}

std::size_t StripCache::capacityBytes() const {
  const std::size_t strip = std::max<std::size_t>(bytesPerRow_ * kStripRows, 1);
  // Whatever the budget, room for the largest request twice (the workers read the same rows at
  // about the same time, one possibly a request behind) and what is decoded ahead.
  return std::max<std::size_t>({budget_.load(), (2 * largestRequest_.load() + 4) * strip, 8 * strip});
}

void StripCache::forEachRun(std::size_t first, std::size_t count, std::size_t x, std::size_t width,
                            const RunUse& use) const {
  if (count == 0 || width == 0) return;
  if (first >= height_ || count > height_ - first || x >= width_ || width > width_ - x)
    throw CIRenderError("cannot decode " + what_ + ": rows out of range");
  const std::size_t s0 = first / kStripRows, s1 = (first + count - 1) / kStripRows;
  const std::size_t c0 = x / kChunkPixels, c1 = (x + width - 1) / kChunkPixels;
  std::size_t largest = largestRequest_.load();
  while (s1 - s0 + 1 > largest && !largestRequest_.compare_exchange_weak(largest, s1 - s0 + 1)) {
  }
  {
    // Where the consumers are: the first strip of the latest request that began within each
    // 128 columns (a column of tiles, at least 256 wide, starts its reads at about the same
    // column all the way down, moving a few pixels a strip when turned), forgotten when no
    // request has begun there for a while.
    std::lock_guard lock(cacheMutex_);
    recent_[recentNext_++ % recent_.size()] = s0;
    consumers_[x / 128] = {s0, recentNext_};
    for (auto it = consumers_.begin(); it != consumers_.end();)
      it = recentNext_ - it->second.second > 2 * consumers_.size() + 8 ? consumers_.erase(it) : std::next(it);
  }
  for (std::size_t s = s0; s <= s1; ++s) {
    const Pieces pieces = strip(s, s1, c0, c1);
    const std::size_t a = std::max(first, s * kStripRows), b = std::min(first + count, (s + 1) * kStripRows);
    for (std::size_t row = a; row < b; ++row) {
      const std::size_t k = row - s * kStripRows;
      for (const Held& h : pieces) {
        const std::size_t from = std::max(x, h.left), to = std::min(x + width, h.left + h.width);
        use(row, from, h.piece->data() + (k * h.width + (from - h.left)) * bytesPerPixel_, to - from);
      }
    }
  }
  decodeAhead(s1, s1 - s0 + 1);
}

void StripCache::forEachRow(std::size_t first, std::size_t count,
                            const std::function<void(std::size_t, const std::uint8_t*)>& use) const {
  thread_local std::vector<std::uint8_t> row;
  row.resize(bytesPerRow_);
  forEachRun(first, count, 0, width_, [&](std::size_t y, std::size_t x, const std::uint8_t* p, std::size_t n) {
    std::memcpy(row.data() + x * bytesPerPixel_, p, n * bytesPerPixel_);
    if (x + n == width_) use(y, row.data());
  });
}

bool StripCache::lookup(std::size_t index, std::size_t c0, std::size_t c1, Pieces& found) const {
  std::lock_guard lock(cacheMutex_);
  found.clear();
  const std::uint64_t now = ++clock_;
  if (auto whole = pieces_.find(key(index, piecesPerStrip_)); whole != pieces_.end()) {
    Entry& e = whole->second;
    for (std::size_t c = c0; c <= c1; ++c) e.readPieces |= std::uint64_t{1} << std::min<std::size_t>(c, 63);
    e.lastUse = now;
    e.read = true;
    found.push_back(e.held);
    return true;
  }
  for (std::size_t c = c0; c <= c1; ++c) {
    auto it = pieces_.find(key(index, c));
    if (it == pieces_.end()) return false;
    found.push_back(it->second.held);
  }
  for (std::size_t c = c0; c <= c1; ++c) {
    Entry& e = pieces_[key(index, c)];
    e.lastUse = now;
    e.read = true;
  }
  return true;
}

bool StripCache::movingDown() const {
  // The oldest of the recent requests against the newest.
  const std::size_t newest = recent_[(recentNext_ + recent_.size() - 1) % recent_.size()];
  const std::size_t oldest = recent_[recentNext_ % recent_.size()];
  return newest >= oldest;
}

// Which of two pieces goes first: one already read before one nobody has read yet (a turned
// picture's later columns still read it); of two read ones, one that every column of tiles has
// passed (above where each last began, for consumers moving down; below the end of the lowest
// latest request, for consumers moving up), the farthest behind them first; otherwise the one
// used longest ago.
bool StripCache::goesBefore(const std::pair<const std::size_t, Entry>& a, const std::pair<const std::size_t, Entry>& b,
                            std::size_t floor, std::size_t ceiling, bool down) const {
  if (leastRecent_) return a.second.lastUse < b.second.lastUse;
  if (a.second.read != b.second.read) return a.second.read;
  if (a.second.read) {
    const std::size_t sa = stripOf(a.first), sb = stripOf(b.first);
    const bool deadA = down ? sa < floor : sa > ceiling, deadB = down ? sb < floor : sb > ceiling;
    if (deadA != deadB) return deadA;
    if (deadA && sa != sb) return down ? sa < sb : sa > sb;
  }
  return a.second.lastUse < b.second.lastUse;
}

void StripCache::put(std::size_t k, Held held, std::uint64_t now, bool read) const {
  Entry& e = pieces_[k];
  if (e.held.piece) bytes_ -= e.held.piece->size();
  bytes_ += held.piece->size();
  e.held = std::move(held);
  e.lastUse = now;
  e.read = read;
}

// The strip's rows (whole, bytesPerRow_ apart) kept whole or cut into its pieces, which replace
// any the cache still holds of it; then pieces go until the cache is within its capacity.
StripCache::Pieces StripCache::insert(std::size_t index, std::vector<std::uint8_t>&& rows, std::size_t count) const {
  std::lock_guard lock(cacheMutex_);
  const std::uint64_t now = ++clock_;
  if (auto whole = pieces_.find(key(index, piecesPerStrip_)); whole != pieces_.end()) {
    bytes_ -= whole->second.held.piece->size();
    pieces_.erase(whole);
  }
  Pieces kept;
  if (!pieced_) {
    rows.resize(count * bytesPerRow_);
    kept.push_back({std::make_shared<const Piece>(std::move(rows)), 0, width_});
    put(key(index, piecesPerStrip_), kept.back(), now, false);
  } else {
    for (std::size_t c = 0; c < piecesPerStrip_; ++c) {
      kept.push_back({cutPiece(rows.data(), count, c), c * kChunkPixels, pieceWidth(c)});
      put(key(index, c), kept.back(), now, false);
    }
  }
  ++stats_.stripsDecoded;
  if (decodes_[index] < 0xffff) ++decodes_[index];
  stats_.mostDecodesOfAStrip = std::max<std::size_t>(stats_.mostDecodesOfAStrip, decodes_[index]);
  evictToCapacity();
  return kept;
}

// Pieces go, in the order of goesBefore, until the cache is within its capacity.
void StripCache::evictToCapacity() const {
  const std::size_t limit = kBudgetGrowth * initialBudget_;
  while (bytes_ > capacityBytes() && !pieces_.empty()) {
    auto victim = pieces_.end();
    std::size_t floor = stripCount_, ceiling = 0;
    for (const auto& [piece, at] : consumers_) {
      floor = std::min(floor, at.first);
      ceiling = std::max(ceiling, at.first + largestRequest_.load() - 1);
    }
    const bool down = movingDown();
    for (auto it = pieces_.begin(); it != pieces_.end(); ++it) {
      if (victim == pieces_.end() || goesBefore(*it, *victim, floor, ceiling, down)) victim = it;
    }
    // Evicting what the consumers will read (again): a piece nobody has read yet, or, while
    // they move down the file, one not yet behind all of them. It goes to the spill file (once:
    // a strip read back from there is there already) and is read back from there when asked
    // for, so the budget stays as the cache was made. Without a spill file (it cannot be
    // written), while the consumers move down, the budget grows by a quarter instead, up to
    // its limit; beyond it (or for consumers moving up, whose windows would only grow with it)
    // the piece goes, and a restart will decode it again.
    const bool needed = !victim->second.read || (stripOf(victim->first) >= floor && down);
    // A strip kept whole counts as read once a request read it, but the turned consumer's
    // later columns may not have read all of it yet; and consumers moving up read a strip
    // again in each column of tiles until all have passed it: it is spilled too then.
    const bool partlyUnread = victim->first % (piecesPerStrip_ + 1) == piecesPerStrip_ && !allRead(victim->second);
    const bool neededAbove = !down && stripOf(victim->first) <= ceiling;
    if ((needed || partlyUnread || neededAbove) && spill_.usable() && spillOut(*victim)) {
      bytes_ -= victim->second.held.piece->size();
      pieces_.erase(victim);
      continue;
    }
    if (needed && !pieced_) {
      cutIntoPieces();
      continue;
    }
    if (needed && down && !leastRecent_ && budget_.load() < limit) {
      budget_ = std::min(limit, budget_.load() + std::max<std::size_t>(budget_.load() / 4, 1));
      continue;
    }
    if (needed) unreadEvicted_ = true;
    bytes_ -= victim->second.held.piece->size();
    pieces_.erase(victim);
  }
  stats_.peakBytes = std::max(stats_.peakBytes, bytes_);
}

// A whole strip is written as its pieces one after another (each row of a piece from its row of
// the strip), a piece as it is held.
bool StripCache::spillOut(const std::pair<const std::size_t, Entry>& entry) const {
  const std::size_t s = stripOf(entry.first), p = entry.first % (piecesPerStrip_ + 1);
  const std::size_t rows = rowsOf(s);
  const Piece& bytes = *entry.second.held.piece;
  std::vector<iovec> buffers;
  std::size_t c0 = p, c1 = p;
  if (p == piecesPerStrip_) {
    c0 = 0;
    c1 = piecesPerStrip_ - 1;
    bool all = true;
    for (std::size_t c = c0; c <= c1; ++c) all = all && spilled_[s * piecesPerStrip_ + c];
    if (all) return true;
    buffers.reserve(rows * piecesPerStrip_);
    for (std::size_t c = 0; c < piecesPerStrip_; ++c)
      for (std::size_t k = 0; k < rows; ++k)
        buffers.push_back({const_cast<std::uint8_t*>(bytes.data() + k * bytesPerRow_ + c * kChunkPixels * bytesPerPixel_),
                           pieceWidth(c) * bytesPerPixel_});
  } else {
    if (spilled_[s * piecesPerStrip_ + p]) return true;
    buffers.push_back({const_cast<std::uint8_t*>(bytes.data()), bytes.size()});
  }
  if (!spill_.write(buffers, spillOffset(s, c0))) return false;
  for (std::size_t c = c0; c <= c1; ++c) spilled_[s * piecesPerStrip_ + c] = true;
  stats_.piecesSpilled += c1 - c0 + 1;
  return true;
}

bool StripCache::readBack(std::size_t index, std::size_t c0, std::size_t c1, Pieces& found) const {
  {
    std::lock_guard lock(cacheMutex_);
    for (std::size_t c = c0; c <= c1; ++c)
      if (!spilled_[index * piecesPerStrip_ + c]) return false;
  }
  // Read outside the lock (what was written there never changes), each piece into its own
  // buffer, the pieces being one after another in the file.
  const std::size_t rows = rowsOf(index);
  std::vector<std::shared_ptr<Piece>> read;
  std::vector<iovec> buffers;
  for (std::size_t c = c0; c <= c1; ++c) {
    read.push_back(std::make_shared<Piece>(rows * pieceWidth(c) * bytesPerPixel_));
    buffers.push_back({read.back()->data(), read.back()->size()});
  }
  if (!spill_.read(buffers, spillOffset(index, c0))) return false;
  std::lock_guard lock(cacheMutex_);
  const std::uint64_t now = ++clock_;
  found.clear();
  for (std::size_t c = c0; c <= c1; ++c) {
    Held held{std::move(read[c - c0]), c * kChunkPixels, pieceWidth(c)};
    found.push_back(held);
    put(key(index, c), std::move(held), now, true);
  }
  stats_.piecesReadBack += c1 - c0 + 1;
  evictToCapacity();
  return true;
}

bool StripCache::allRead(const Entry& whole) const {
  const std::size_t pieces = std::min<std::size_t>(piecesPerStrip_, 64);
  const std::uint64_t all = pieces == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << pieces) - 1;
  return (whole.readPieces & all) == all;
}

bool StripCache::heldAnywhere(std::size_t index) const {
  if (pieces_.count(key(index, piecesPerStrip_))) return true;
  for (std::size_t c = 0; c < piecesPerStrip_; ++c)
    if (!spilled_[index * piecesPerStrip_ + c] && !pieces_.count(key(index, c))) return false;
  return true;
}

std::shared_ptr<const StripCache::Piece> StripCache::cutPiece(const std::uint8_t* rows, std::size_t count,
                                                               std::size_t c) const {
  const std::size_t rowBytes = pieceWidth(c) * bytesPerPixel_;
  auto piece = std::make_shared<Piece>(count * rowBytes);
  for (std::size_t k = 0; k < count; ++k)
    std::memcpy(piece->data() + k * rowBytes, rows + k * bytesPerRow_ + c * kChunkPixels * bytesPerPixel_, rowBytes);
  return piece;
}

// The strips kept whole, cut into pieces (each with the strip's last use and whether it was
// read), from now on as every strip decoded.
void StripCache::cutIntoPieces() const {
  pieced_ = true;
  std::vector<std::pair<std::size_t, Entry>> whole;
  for (auto it = pieces_.begin(); it != pieces_.end();) {
    if (it->first % (piecesPerStrip_ + 1) == piecesPerStrip_) {
      whole.emplace_back(stripOf(it->first), std::move(it->second));
      it = pieces_.erase(it);
    } else {
      ++it;
    }
  }
  for (auto& [index, e] : whole) {
    const Piece& rows = *e.held.piece;
    const std::size_t count = rowsOf(index);
    for (std::size_t c = 0; c < piecesPerStrip_; ++c) {
      // Only the pieces of the columns read so far count as read.
      const bool read = (e.readPieces >> std::min<std::size_t>(c, 63)) & 1;
      // A piece read back from the spill file before it became unusable gives way to the cut one.
      if (auto old = pieces_.find(key(index, c)); old != pieces_.end()) bytes_ -= old->second.held.piece->size();
      pieces_[key(index, c)] = Entry{{cutPiece(rows.data(), count, c), c * kChunkPixels, pieceWidth(c)}, e.lastUse, read};
    }
    e.held.piece.reset();  // one strip at a time: never the cache twice over
  }
}

StripCache::Pieces StripCache::strip(std::size_t index, std::size_t lastIndex, std::size_t c0, std::size_t c1) const {
  Pieces found;
  if (lookup(index, c0, c1, found) || readBack(index, c0, c1, found)) return found;
  std::lock_guard lock(decodeMutex_);
  // Decoded (or spilled) by another worker meanwhile.
  if (lookup(index, c0, c1, found) || readBack(index, c0, c1, found)) return found;
  if (failed_) fail();
  position(index, lastIndex);
  Pieces decoded;
  while (reader_->nextRow() <= index * kStripRows) {
    const bool wanted = reader_->nextRow() / kStripRows == index;
    Pieces strip = decodeNext();
    if (wanted) decoded = std::move(strip);
  }
  if (lookup(index, c0, c1, found) || readBack(index, c0, c1, found)) return found;
  // Evicted again at once (every other piece in the cache is one its consumers still read, and
  // it could not be spilled): the decoded strip itself, which this request holds.
  found.clear();
  for (const Held& h : decoded)
    if (h.width == width_ || (h.left / kChunkPixels >= c0 && h.left / kChunkPixels <= c1)) found.push_back(h);
  if (!found.empty()) return found;
  throw CIRenderError("cannot decode " + what_ + ": the strip cache lost a strip it decoded");  // unreachable
}

void StripCache::position(std::size_t index, std::size_t lastIndex) const {
  // A reader at the end has read the last strip, a short one where the height is not a whole
  // number of strips.
  const std::size_t at = !reader_ ? 0 : reader_->nextRow() >= height_ ? stripCount_ : reader_->nextRow() / kStripRows;
  const bool restarted = !reader_ || at > index;
  if (reader_ && restarted) {
    // Decoding again what was evicted unread: the consumers keep more rows unread than the
    // budget holds. Half as much again, up to twice the default.
    std::lock_guard lock(cacheMutex_);
    if (unreadEvicted_) {
      // At the limit of the budget what the consumers leave to read does not fit whatever the
      // cache prefers, and keeping it first would only evict the rows they read again next:
      // from now on the least recently used pieces go, read or not.
      leastRecent_ = true;
      unreadEvicted_ = false;
    }
  }
  // The first strip worth decoding. Where the reader must start again above the strip it
  // started at last time, the consumer moves upwards: most of the cache above the end of its
  // request (room left for the other workers' requests), so that it finds the rows it asks for
  // next. Otherwise (the first request, or a worker that fell behind the others on the way
  // down): from the request's own first strip.
  const std::size_t capacity = capacityStrips();
  std::size_t window = std::max(capacity / 2, capacity - std::min(capacity, 2 * largestRequest_.load() + 4));
  const bool upwards = reader_ && index < restartedAt_;
  // With a spill file the window need not fit in memory: what the cache cannot hold of it is
  // spilled as it is decoded (nobody has read it yet) and read back as the consumer moves up.
  // Each such restart doubles the window, so that a consumer walking up the whole file (the
  // mirrored half of a reflection) costs a few restarts, each skipping less than the file, and
  // every row is decoded at most once more, rather than one restart per half cache, each
  // skipping in the compressed domain everything above.
  const bool spilling = upwards && restarted && spill_.usable();
  if (spilling) window = std::max(window, (capacity / 2) << std::min<std::size_t>(upwardRestarts_++, 20));
  std::size_t windowFirst = upwards ? std::min(index, lastIndex + 1 > window ? lastIndex + 1 - window : 0) : index;
  if (spilling) {
    // Not above rows held already, in memory or in the spill file.
    std::lock_guard lock(cacheMutex_);
    std::size_t s = index;
    while (s > windowFirst && !heldAnywhere(s - 1)) --s;
    windowFirst = s;
  }
  if (restarted) restartedAt_ = windowFirst;
  if (reader_ && restarted && reader_->rewind()) {
    // A reader holding the whole image starts again for free.
  } else if (restarted) {
    std::string error;
    reader_ = open_(error);
    {
      std::lock_guard lock(cacheMutex_);
      ++stats_.opens;
    }
    if (!reader_) {
      failure_ = "cannot decode " + what_ + (error.empty() ? std::string() : ": " + error);
      fail();
    }
    if (reader_->width() != width_ || reader_->height() != height_ || reader_->bitsPerComponent() != bits_) {
      reader_.reset();
      failure_ = "cannot decode " + what_ + ": the file changed since it was opened";
      fail();
    }
  }
  const std::size_t from = reader_->nextRow() / kStripRows;
  // A reader that goes on down to a request not far below it decodes the rows in between
  // instead of skipping them, when they fit in the cache with the request: two consumers that
  // read the file some rows apart (a picture under its scaled copy) find the upper one's rows
  // kept, rather than restarting the reader from the top for each of its requests. So does a
  // reader just opened at the top for a first request within half the cache (the workers of a
  // turned picture ask for rows some way down the file while others will ask for the rows above).
  if (from < windowFirst && (!restarted || !upwards) &&
      lastIndex + 1 - from + 4 <= (restarted ? capacity / 2 : capacity))
    windowFirst = from;
  if (from < windowFirst && !reader_->skipRows((windowFirst - from) * kStripRows)) {
    failure_ = "cannot decode " + what_ + ": " + reader_->error();
    fail();
  }
}

StripCache::Pieces StripCache::decodeNext() const {
  const std::size_t row = reader_->nextRow();
  const std::size_t rows = std::min(kStripRows, height_ - row);
  std::vector<std::uint8_t> strip(rows * bytesPerRow_);
  if (!reader_->readRows(strip.data(), rows, bytesPerRow_)) {
    failure_ = "cannot decode " + what_ + ": " + reader_->error();
    fail();
  }
  return insert(row / kStripRows, std::move(strip), rows);
}

void StripCache::decodeAhead(std::size_t lastIndex, std::size_t strips) const {
  std::unique_lock lock(decodeMutex_, std::try_to_lock);
  if (!lock.owns_lock() || failed_ || !reader_) return;
  // Only where the reader is at the frontier of this request: ahead of a request that the
  // reader has long passed there is nothing to prepare.
  const std::size_t at = reader_->nextRow() / kStripRows;
  if (at <= lastIndex || at > lastIndex + 1 + strips) return;
  const std::size_t until = std::min({stripCount_, lastIndex + 1 + strips, lastIndex + 1 + capacityStrips() / 4});
  {
    // Not for consumers moving up (the rows below are behind them), nor over rows the cache
    // or its spill file holds already.
    std::lock_guard cacheLock(cacheMutex_);
    if (!movingDown()) return;
  }
  auto held = [&](std::size_t index) {
    std::lock_guard cacheLock(cacheMutex_);
    return heldAnywhere(index);
  };
  try {
    while (reader_->nextRow() < height_ && reader_->nextRow() / kStripRows < until &&
           !held(reader_->nextRow() / kStripRows))
      decodeNext();
  } catch (const CIRenderError&) {
    // Reported to whoever asks for those rows.
  }
}

void StripCache::fail() const {
  failed_ = true;
  throw CIImageDecodeError(failure_);
}

// ---- ColumnBands ----

std::size_t ColumnBands::defaultBudget() { return gDefaultBandBudget.load(); }
void ColumnBands::setDefaultBudget(std::size_t bytes) { gDefaultBandBudget.store(bytes); }

ColumnBands::ColumnBands(StripCache::Opener open, std::string what, std::size_t width, std::size_t height,
                         int bitsPerComponent, std::size_t budgetBytes)
    : open_(std::move(open)),
      what_(std::move(what)),
      width_(width),
      height_(height),
      bits_(bitsPerComponent),
      bytesPerPixel_(4 * std::size_t(bitsPerComponent / 8)),
      bandColumns_(std::clamp<std::size_t>(budgetBytes / kKept / std::max<std::size_t>(height * bytesPerPixel_, 1), 1,
                                           std::max<std::size_t>(width, 1))) {}

ColumnBands::~ColumnBands() {
  if (!std::getenv("QV_STRIP_CACHE_STATS")) return;
  std::fprintf(stderr, "column bands of %s: %zu passes over the file, %zu bands read back, %zu columns a band\n",
               what_.c_str(), passes(), bandsReadBack(), bandColumns_);
}

std::size_t ColumnBands::passes() const {
  std::lock_guard lock(mutex_);
  return passes_;
}

std::size_t ColumnBands::bandsReadBack() const {
  std::lock_guard lock(mutex_);
  return readBacks_;
}

// Each band's part of the rows, one after another within the band's region of the file.
void ColumnBands::spillRows(const std::uint8_t* rows, std::size_t rowBytes, std::size_t first,
                            std::size_t count) const {
  std::vector<iovec> buffers(count);
  for (std::size_t b = 0; b * bandColumns_ < width_ && spill_.usable(); ++b) {
    const std::size_t columns = std::min(bandColumns_, width_ - b * bandColumns_);
    for (std::size_t k = 0; k < count; ++k)
      buffers[k] = {const_cast<std::uint8_t*>(rows + k * rowBytes + b * bandColumns_ * bytesPerPixel_),
                    columns * bytesPerPixel_};
    spill_.write(buffers, spillOffset(b, first));
  }
}

bool ColumnBands::readBack(Band& band, std::size_t index) const {
  // In runs of rows, each scattered into the band's columns: never the band twice over.
  const std::size_t runRows = std::max<std::size_t>(1, (std::size_t{1} << 20) / (band.columns * bytesPerPixel_));
  std::vector<std::uint8_t> rows(std::min(runRows, height_) * band.columns * bytesPerPixel_);
  for (std::size_t y = 0; y < height_; y += runRows) {
    const std::size_t n = std::min(runRows, height_ - y);
    const iovec buffer{rows.data(), n * band.columns * bytesPerPixel_};
    if (!spill_.read({&buffer, 1}, spillOffset(index, y))) return false;
    for (std::size_t k = 0; k < n; ++k) {
      const std::uint8_t* src = rows.data() + k * band.columns * bytesPerPixel_;
      std::uint8_t* dst = band.pixels.data() + (y + k) * bytesPerPixel_;
      for (std::size_t c = 0; c < band.columns; ++c)
        std::memcpy(dst + c * height_ * bytesPerPixel_, src + c * bytesPerPixel_, bytesPerPixel_);
    }
  }
  ++readBacks_;
  return true;
}

void ColumnBands::withColumn(std::size_t column, const std::function<void(const std::uint8_t*)>& use) const {
  if (column >= width_) throw CIRenderError("cannot decode " + what_ + ": columns out of range");
  const std::shared_ptr<const Band> b = band(column / bandColumns_);
  use(b->pixels.data() + (column - b->first) * height_ * bytesPerPixel_);
}

std::shared_ptr<const ColumnBands::Band> ColumnBands::band(std::size_t index) const {
  std::lock_guard lock(mutex_);
  for (auto it = bands_.begin(); it != bands_.end(); ++it) {
    if (it->first != index) continue;
    auto found = *it;
    bands_.erase(it);
    bands_.push_back(found);
    return found.second;
  }
  if (!failure_.empty()) throw CIImageDecodeError(failure_);
  auto fail = [&](const std::string& reason) {
    failure_ = "cannot decode " + what_ + (reason.empty() ? std::string() : ": " + reason);
    throw CIImageDecodeError(failure_);
  };
  // The least recently used band goes before the new one is gathered.
  if (bands_.size() >= kKept) bands_.erase(bands_.begin());
  auto band = std::make_shared<Band>();
  band->first = index * bandColumns_;
  band->columns = std::min(bandColumns_, width_ - band->first);
  band->pixels.resize(band->columns * height_ * bytesPerPixel_);
  if (spillWhole_ && readBack(*band, index)) {
    bands_.emplace_back(index, band);
    return band;
  }
  spillWhole_ = false;  // not there, or it cannot be read: decoded again from now on
  // The first pass of a file of several bands writes them all to the spill file.
  const bool spilling = !spillWhole_ && passes_ == 0 && bandColumns_ < width_ && spill_.usable();
  std::string error;
  std::unique_ptr<CGImageSourceRowReader> reader = open_(error);
  ++passes_;
  if (!reader) fail(error);
  if (reader->width() != width_ || reader->height() != height_ || reader->bitsPerComponent() != bits_)
    fail("the file changed since it was opened");
  // Rows a strip at a time, each scattered into the band's columns.
  const std::size_t rowBytes = reader->bytesPerRow();
  std::vector<std::uint8_t> rows(StripCache::kStripRows * rowBytes);
  for (std::size_t y = 0; y < height_; y += StripCache::kStripRows) {
    const std::size_t n = std::min(StripCache::kStripRows, height_ - y);
    if (!reader->readRows(rows.data(), n, rowBytes)) fail(reader->error());
    for (std::size_t k = 0; k < n; ++k) {
      const std::uint8_t* src = rows.data() + k * rowBytes + band->first * bytesPerPixel_;
      std::uint8_t* dst = band->pixels.data() + (y + k) * bytesPerPixel_;
      for (std::size_t c = 0; c < band->columns; ++c)
        std::memcpy(dst + c * height_ * bytesPerPixel_, src + c * bytesPerPixel_, bytesPerPixel_);
    }
    if (spilling) spillRows(rows.data(), rowBytes, y, n);
  }
  spillWhole_ = spilling && spill_.usable();
  bands_.emplace_back(index, band);
  return band;
}


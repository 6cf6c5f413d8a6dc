#include "CoreImage/Render/StripCache.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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
      stripCount_((height + kStripRows - 1) / kStripRows),
      budget_(budgetBytes) {}

StripCache::~StripCache() {
  if (!std::getenv("QV_STRIP_CACHE_STATS")) return;
  const Stats s = stats();
  std::fprintf(stderr, "strip cache of %s: %zu opens, %zu of %zu strips decoded, peak %.1f MB\n", what_.c_str(), s.opens,
               s.stripsDecoded, stripCount_, double(s.peakBytes) / 1048576.0);
}

StripCache::Stats StripCache::stats() const {
  std::lock_guard lock(cacheMutex_);
  return stats_;
}

std::size_t StripCache::capacityStrips() const {
  const std::size_t byBudget = budget_ / std::max<std::size_t>(bytesPerRow_ * kStripRows, 1);
  // Whatever the budget, room for the largest request twice (the workers read the same rows at
  // about the same time, one possibly a request behind) and what is decoded ahead.
  return std::max<std::size_t>({byBudget, 2 * largestRequest_.load() + 4, 8});
}

void StripCache::forEachRow(std::size_t first, std::size_t count,
                            const std::function<void(std::size_t, const std::uint8_t*)>& use) const {
  if (count == 0) return;
  if (first >= height_ || count > height_ - first) throw CIRenderError("cannot decode " + what_ + ": rows out of range");
  const std::size_t s0 = first / kStripRows, s1 = (first + count - 1) / kStripRows;
  std::size_t largest = largestRequest_.load();
  while (s1 - s0 + 1 > largest && !largestRequest_.compare_exchange_weak(largest, s1 - s0 + 1)) {
  }
  for (std::size_t s = s0; s <= s1; ++s) {
    const std::shared_ptr<const Strip> strip = this->strip(s, s1);
    const std::size_t a = std::max(first, s * kStripRows), b = std::min(first + count, (s + 1) * kStripRows);
    for (std::size_t row = a; row < b; ++row) use(row, strip->data() + (row - s * kStripRows) * bytesPerRow_);
  }
  decodeAhead(s1, s1 - s0 + 1);
}

std::shared_ptr<const StripCache::Strip> StripCache::lookup(std::size_t index) const {
  std::lock_guard lock(cacheMutex_);
  auto it = strips_.find(index);
  if (it == strips_.end()) return nullptr;
  it->second.lastUse = ++clock_;
  return it->second.strip;
}

void StripCache::insert(std::size_t index, std::shared_ptr<const Strip> strip) const {
  std::lock_guard lock(cacheMutex_);
  Entry& e = strips_[index];
  if (e.strip) bytes_ -= e.strip->size();
  bytes_ += strip->size();
  e.strip = std::move(strip);
  e.lastUse = ++clock_;
  ++stats_.stripsDecoded;
  const std::size_t capacity = capacityStrips();
  while (strips_.size() > capacity) {
    auto oldest = strips_.begin();
    for (auto it = strips_.begin(); it != strips_.end(); ++it)
      if (it->second.lastUse < oldest->second.lastUse) oldest = it;
    bytes_ -= oldest->second.strip->size();
    strips_.erase(oldest);
  }
  stats_.peakBytes = std::max(stats_.peakBytes, bytes_);
}

std::shared_ptr<const StripCache::Strip> StripCache::strip(std::size_t index, std::size_t lastIndex) const {
  if (auto s = lookup(index)) return s;
  std::lock_guard lock(decodeMutex_);
  if (auto s = lookup(index)) return s;  // decoded by another worker meanwhile
  if (failed_) fail();
  position(index, lastIndex);
  while (reader_->nextRow() <= index * kStripRows) decodeNext();
  if (auto s = lookup(index)) return s;
  throw CIRenderError("cannot decode " + what_ + ": the strip cache is too small");  // capacity >= 8: unreachable
}

void StripCache::position(std::size_t index, std::size_t lastIndex) const {
  // The first strip worth decoding. Where the reader must start again above the strip it
  // started at last time, the consumer moves upwards: half the cache above the end of its
  // request, so that it finds the rows it asks for next. Otherwise (the first request, or a
  // worker that fell behind the others on the way down): from the request's own first strip.
  const std::size_t half = capacityStrips() / 2;
  const bool upwards = reader_ && index < restartedAt_;
  std::size_t windowFirst = upwards ? std::min(index, lastIndex + 1 > half ? lastIndex + 1 - half : 0) : index;
  const std::size_t at = reader_ ? reader_->nextRow() / kStripRows : 0;
  const bool restarted = !reader_ || at > index;
  if (!reader_ || at > index) restartedAt_ = windowFirst;
  if (reader_ && at > index && reader_->rewind()) {
    // A reader holding the whole image starts again for free.
  } else if (!reader_ || at > index) {
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
  // kept, rather than restarting the reader from the top for each of its requests.
  if (!restarted && from < windowFirst && lastIndex + 1 - from + 4 <= capacityStrips()) windowFirst = from;
  if (from < windowFirst && !reader_->skipRows((windowFirst - from) * kStripRows)) {
    failure_ = "cannot decode " + what_ + ": " + reader_->error();
    fail();
  }
}

void StripCache::decodeNext() const {
  const std::size_t row = reader_->nextRow();
  const std::size_t rows = std::min(kStripRows, height_ - row);
  auto strip = std::make_shared<Strip>(rows * bytesPerRow_);
  if (!reader_->readRows(strip->data(), rows, bytesPerRow_)) {
    failure_ = "cannot decode " + what_ + ": " + reader_->error();
    fail();
  }
  insert(row / kStripRows, std::move(strip));
}

void StripCache::decodeAhead(std::size_t lastIndex, std::size_t strips) const {
  std::unique_lock lock(decodeMutex_, std::try_to_lock);
  if (!lock.owns_lock() || failed_ || !reader_) return;
  // Only where the reader is at the frontier of this request: ahead of a request that the
  // reader has long passed there is nothing to prepare.
  const std::size_t at = reader_->nextRow() / kStripRows;
  if (at <= lastIndex || at > lastIndex + 1 + strips) return;
  const std::size_t until = std::min({stripCount_, lastIndex + 1 + strips, lastIndex + 1 + capacityStrips() / 4});
  try {
    while (reader_->nextRow() < height_ && reader_->nextRow() / kStripRows < until) decodeNext();
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
  std::fprintf(stderr, "column bands of %s: %zu passes over the file, %zu columns a band\n", what_.c_str(), passes(),
               bandColumns_);
}

std::size_t ColumnBands::passes() const {
  std::lock_guard lock(mutex_);
  return passes_;
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
  }
  bands_.emplace_back(index, band);
  return band;
}


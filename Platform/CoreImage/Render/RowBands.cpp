#include "CoreImage/Render/RowBands.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "CoreImage/CIContext.h"

namespace {
std::atomic<std::size_t> gDefaultBudget{std::size_t{32} << 20};
}  // namespace

std::size_t RowBands::defaultBudget() { return gDefaultBudget.load(); }
void RowBands::setDefaultBudget(std::size_t bytes) { gDefaultBudget.store(bytes); }

RowBands::RowBands(std::shared_ptr<CIImageRowProvider> provider, std::size_t height, std::size_t bytesPerRow,
                   std::size_t bandRows, std::size_t budgetBytes, bool readAhead)
    : provider_(std::move(provider)),
      height_(height),
      bytesPerRow_(bytesPerRow),
      bandRows_(std::max<std::size_t>(bandRows, 1)),
      bandCount_((height + bandRows_ - 1) / bandRows_),
      budget_(budgetBytes ? budgetBytes : defaultBudget()) {
  if (readAhead && bandCount_ > 1) reader_ = std::thread([this] { this->readAhead(); });
}

RowBands::~RowBands() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  if (reader_.joinable()) reader_.join();
  if (!std::getenv("QV_ROW_BANDS_STATS")) return;
  const Stats s = stats();
  std::fprintf(stderr, "row bands: %zu fetched (%zu ahead) of %zu, %zu waits for a band in flight, peak %.1f MB\n",
               s.fetched, s.fetchedAhead, bandCount_, s.waitedForAhead, double(s.peakBytes) / 1048576.0);
}

RowBands::Stats RowBands::stats() const {
  std::lock_guard lock(mutex_);
  return stats_;
}

// Whatever the budget, room for the largest request twice (the workers read about the same rows
// at about the same time, one possibly a request behind).
std::size_t RowBands::budget() const { return std::max(budget_, 2 * largestRequest_ * bandBytes()); }

void RowBands::forEachRow(std::size_t first, std::size_t count,
                          const std::function<void(std::size_t, const std::uint8_t*)>& use) const {
  if (count == 0) return;
  if (first >= height_ || count > height_ - first) throw CIRenderError("rows out of range of a row provider's image");
  const std::size_t b0 = first / bandRows_, b1 = (first + count - 1) / bandRows_;
  {
    std::lock_guard lock(mutex_);
    largestRequest_ = std::max(largestRequest_, b1 - b0 + 1);
    // Ahead of this request: the bands below its last one.
    aheadFrom_ = b1 + 1;
    requested_ = true;
  }
  changed_.notify_all();
  for (std::size_t b = b0; b <= b1; ++b) {
    const std::shared_ptr<const Band> rows = band(b);
    const std::size_t a = std::max(first, b * bandRows_), e = std::min(first + count, (b + 1) * bandRows_);
    for (std::size_t row = a; row < e; ++row) use(row, rows->data() + (row - b * bandRows_) * bytesPerRow_);
  }
}

std::shared_ptr<const RowBands::Band> RowBands::band(std::size_t index) const {
  std::unique_lock lock(mutex_);
  bool waited = false;
  for (;;) {
    auto it = bands_.find(index);
    if (it == bands_.end()) break;
    if (it->second.rows) {
      it->second.lastUse = ++clock_;
      it->second.read = true;
      return it->second.rows;
    }
    if (!waited) ++stats_.waitedForAhead;
    waited = true;
    changed_.wait(lock);  // another thread fetches it; if that fails, the entry goes and this one fetches
  }
  return fetchAndStore(lock, index, true);
}

std::shared_ptr<const RowBands::Band> RowBands::fetchAndStore(std::unique_lock<std::mutex>& lock, std::size_t index,
                                                             bool read) const {
  bands_[index];  // in flight
  lock.unlock();
  std::shared_ptr<const Band> rows;
  try {
    rows = fetch(index);
  } catch (...) {
    lock.lock();
    bands_.erase(index);
    changed_.notify_all();
    throw;
  }
  lock.lock();
  store(index, rows, read);
  changed_.notify_all();
  return rows;
}

std::shared_ptr<const RowBands::Band> RowBands::fetch(std::size_t index) const {
  const std::size_t first = index * bandRows_, count = std::min(bandRows_, height_ - first);
  auto rows = std::make_shared<Band>(count * bytesPerRow_);
  provider_->provideRows(rows->data(), bytesPerRow_, first, count);
  return rows;
}

void RowBands::store(std::size_t index, std::shared_ptr<const Band> rows, bool read) const {
  Entry& entry = bands_[index];
  bytes_ += rows->size();
  entry.rows = std::move(rows);
  entry.lastUse = ++clock_;
  entry.read = read;
  ++stats_.fetched;
  stats_.peakBytes = std::max(stats_.peakBytes, bytes_);
  evict();
}

void RowBands::evict() const {
  const std::size_t limit = budget();
  while (bytes_ > limit) {
    // The least recently read band; a band fetched ahead and not read yet only when none is left.
    auto victim = bands_.end();
    for (auto it = bands_.begin(); it != bands_.end(); ++it) {
      if (!it->second.rows) continue;
      if (victim == bands_.end() || (it->second.read && !victim->second.read) ||
          (it->second.read == victim->second.read && it->second.lastUse < victim->second.lastUse))
        victim = it;
    }
    if (victim == bands_.end()) return;
    bytes_ -= victim->second.rows->size();
    bands_.erase(victim);
  }
}

void RowBands::readAhead() const {
  std::unique_lock lock(mutex_);
  for (;;) {
    // The first band below the latest request that is neither held nor in flight, within half
    // the budget of that request, and room for it without evicting a band fetched ahead.
    std::size_t next = bandCount_;
    if (requested_) {
      const std::size_t ahead = std::max<std::size_t>(1, budget() / 2 / std::max<std::size_t>(bandBytes(), 1));
      for (std::size_t b = aheadFrom_; b < std::min(bandCount_, aheadFrom_ + ahead); ++b)
        if (!bands_.count(b)) {
          next = b;
          break;
        }
    }
    std::size_t unread = 0;
    for (const auto& [index, entry] : bands_)
      if (entry.rows && !entry.read) unread += entry.rows->size();
    if (stop_) return;
    if (next == bandCount_ || unread + bandBytes() > budget()) {
      changed_.wait(lock);
      continue;
    }
    try {
      fetchAndStore(lock, next, false);
      ++stats_.fetchedAhead;
    } catch (...) {
      // The tile that needs the band fetches it again and fails with the provider's own error.
      requested_ = false;  // no more reading ahead until the next request
    }
  }
}

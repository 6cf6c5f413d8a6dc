// RowBands: the rows of a provider-backed image (CIImageRowProvider), fetched in bands of whole
// rows as the tiles of one render read them, and kept within a byte budget that every tile and
// thread of the render shares.
//
// A band is fetched once while the budget holds it: the first thread that needs it fetches it
// and the others that need it meanwhile wait for it. A reader thread of its own fetches the
// bands below the last band of the latest request, up to half the budget ahead, so that the
// tiles of a render running down the image find their rows fetched while they computed the
// ones above (the provider's wait, for another process or a store, is then hidden behind the
// render). When the budget is full, the least recently read bands go first; bands fetched ahead
// and not read yet go last.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "CoreImage/CIImage.h"

class RowBands {
 public:
  RowBands(std::shared_ptr<CIImageRowProvider> provider, std::size_t height, std::size_t bytesPerRow,
           std::size_t bandRows, std::size_t budgetBytes, bool readAhead);
  // Stops the reader thread (after the band it is fetching, if any).
  ~RowBands();
  RowBands(const RowBands&) = delete;
  RowBands& operator=(const RowBands&) = delete;

  // Hands rows [first, first + count) to `use` top-down: use(row, its bytes). Rethrows what the
  // provider threw for a band of them; throws CIRenderError for rows outside the image.
  void forEachRow(std::size_t first, std::size_t count,
                  const std::function<void(std::size_t row, const std::uint8_t* bytes)>& use) const;

  std::size_t bytesPerRow() const { return bytesPerRow_; }

  struct Stats {
    std::size_t fetched = 0;         // bands fetched, counting fetches again after eviction
    std::size_t fetchedAhead = 0;    // of them, by the reader thread
    std::size_t waitedForAhead = 0;  // requests that found a band being fetched and waited for it
    std::size_t peakBytes = 0;       // the most band bytes held at once
  };
  Stats stats() const;

  // The byte budget when none is given (32 MiB unless set); tests shrink it.
  static std::size_t defaultBudget();
  static void setDefaultBudget(std::size_t bytes);

 private:
  using Band = std::vector<std::uint8_t>;
  struct Entry {
    std::shared_ptr<const Band> rows;  // null while being fetched
    std::uint64_t lastUse = 0;
    bool read = false;  // read by a tile (bands fetched ahead are not until then)
  };
  std::shared_ptr<const Band> band(std::size_t index) const;
  std::shared_ptr<const Band> fetch(std::size_t index) const;
  // With `lock` (on mutex_) held: fetches band `index` with the lock released, marked in flight
  // meanwhile, and stores it. If the fetch fails, the mark goes (the waiting threads fetch it
  // themselves) and the error goes on to the caller, the lock held again.
  std::shared_ptr<const Band> fetchAndStore(std::unique_lock<std::mutex>& lock, std::size_t index, bool read) const;
  // With mutex_ held: stores a fetched band, then evicts down to the budget.
  void store(std::size_t index, std::shared_ptr<const Band> rows, bool read) const;
  void evict() const;
  std::size_t budget() const;
  std::size_t bandBytes() const { return bandRows_ * bytesPerRow_; }
  void readAhead() const;

  std::shared_ptr<CIImageRowProvider> provider_;
  std::size_t height_, bytesPerRow_, bandRows_, bandCount_, budget_;

  mutable std::mutex mutex_;  // guards everything below
  mutable std::condition_variable changed_;
  mutable std::map<std::size_t, Entry> bands_;
  mutable std::uint64_t clock_ = 0;
  mutable std::size_t bytes_ = 0;
  mutable std::size_t largestRequest_ = 1;  // in bands
  mutable std::size_t aheadFrom_ = 0;       // the reader fetches from this band on
  mutable bool requested_ = false;          // a request has set aheadFrom_
  mutable bool stop_ = false;
  mutable Stats stats_;
  std::thread reader_;  // last: starts once the members it uses exist
};

#include "Foundation/NSCache.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>

namespace {

struct Registry {
  std::mutex mutex;
  std::vector<std::weak_ptr<NSCacheStorageBase>> caches;
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: caches may outlive static destruction order
  return *r;
}

void pruneLocked(Registry& r) {
  r.caches.erase(std::remove_if(r.caches.begin(), r.caches.end(),
                                [](const std::weak_ptr<NSCacheStorageBase>& w) { return w.expired(); }),
                 r.caches.end());
}

int gPressurePipe[2] = {-1, -1};

void onPressureSignal(int) {
  const char byte = 1;
  // Only async-signal-safe work here: wake the watcher thread.
  [[maybe_unused]] ssize_t n = write(gPressurePipe[1], &byte, 1);
}

}  // namespace

void NSCacheRegister(const std::shared_ptr<NSCacheStorageBase>& storage) {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  pruneLocked(r);
  r.caches.push_back(storage);
}

void NSCacheEvictAllUnderMemoryPressure() {
  // Take strong references under the registry lock, empty the caches outside it: emptying a
  // cache destroys its objects, which may themselves own caches.
  std::vector<std::shared_ptr<NSCacheStorageBase>> live;
  {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    pruneLocked(r);
    for (const auto& w : r.caches) {
      if (auto s = w.lock()) live.push_back(std::move(s));
    }
  }
  for (const auto& s : live) s->removeAllObjects();
}

std::size_t NSCacheLiveCount() {
  Registry& r = registry();
  std::lock_guard lock(r.mutex);
  pruneLocked(r);
  return r.caches.size();
}

bool NSCacheInstallMemoryPressureSignal(int signalNumber) {
  static std::once_flag once;
  static bool watcherStarted = false;
  std::call_once(once, [] {
    if (pipe2(gPressurePipe, O_CLOEXEC) != 0) return;
    std::thread([] {
      char buffer[64];
      for (;;) {
        const ssize_t n = read(gPressurePipe[0], buffer, sizeof buffer);
        if (n > 0) {
          NSCacheEvictAllUnderMemoryPressure();
        } else if (n == 0) {
          return;
        }
      }
    }).detach();
    watcherStarted = true;
  });
  if (!watcherStarted) return false;
  struct sigaction action {};
  action.sa_handler = onPressureSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  return sigaction(signalNumber, &action, nullptr) == 0;
}

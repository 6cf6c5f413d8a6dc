#include "CoreImage/Render/SpillFile.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

std::atomic<bool> gReported{false};

// All of the buffers moved from or to the file from `offset` on, in batches of at most IOV_MAX
// buffers, going on after partial transfers; false with errno set (0 for a read past the end).
bool transfer(bool writing, int fd, std::span<const iovec> buffers, std::uint64_t offset) {
  std::vector<iovec> left(buffers.begin(), buffers.end());
  std::size_t first = 0;
  while (first < left.size()) {
    if (left[first].iov_len == 0) {
      ++first;
      continue;
    }
    const int count = int(std::min<std::size_t>(left.size() - first, IOV_MAX));
    const ssize_t done = writing ? ::pwritev(fd, left.data() + first, count, off_t(offset))
                                 : ::preadv(fd, left.data() + first, count, off_t(offset));
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) {
      if (done == 0) errno = writing ? ENOSPC : 0;
      return false;
    }
    offset += std::uint64_t(done);
    for (std::size_t moved = std::size_t(done); moved > 0 && first < left.size();) {
      const std::size_t part = std::min(moved, left[first].iov_len);
      left[first].iov_base = static_cast<char*>(left[first].iov_base) + part;
      left[first].iov_len -= part;
      moved -= part;
      if (left[first].iov_len == 0) ++first;
    }
  }
  return true;
}

}  // namespace

SpillFile::~SpillFile() {
  if (fd_ >= 0) ::close(fd_);
}

std::string SpillFile::directory() {
  const char* dir = std::getenv("TMPDIR");
  return dir && *dir ? std::string(dir) : std::string("/tmp");
}

std::string SpillFile::error() const {
  std::lock_guard lock(mutex_);
  return error_;
}

void SpillFile::fail(const std::string& reason) const {
  {
    std::lock_guard lock(mutex_);
    if (failed_.load()) return;
    error_ = reason;
    failed_.store(true, std::memory_order_release);
  }
  // Once per process: a batch of renders would otherwise repeat it for every file.
  if (!gReported.exchange(true))
    std::fprintf(stderr, "warning: %s; rows that do not fit in memory are decoded again instead\n", reason.c_str());
}

int SpillFile::descriptor() {
  std::unique_lock lock(mutex_);
  if (failed_.load()) return -1;
  if (fd_ >= 0) return fd_;
  const std::string dir = directory();
  int fd = -1;
#ifdef O_TMPFILE
  fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
#endif
  if (fd < 0) {
    // No O_TMPFILE on this file system (or kernel): a named file, unlinked at once.
    std::string name = dir + "/qvfilter-spill-XXXXXX";
    fd = ::mkstemp(name.data());
    if (fd >= 0) {
      ::unlink(name.c_str());
      ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
  }
  if (fd < 0) {
    const std::string reason = "cannot create a spill file in " + dir + ": " + std::strerror(errno);
    lock.unlock();
    fail(reason);
    return -1;
  }
  fd_ = fd;
  return fd_;
}

bool SpillFile::write(std::span<const iovec> buffers, std::uint64_t offset) {
  if (!usable()) return false;
  const int fd = descriptor();
  if (fd < 0) return false;
  if (!transfer(true, fd, buffers, offset)) {
    fail("cannot write the spill file in " + directory() + ": " + std::strerror(errno));
    return false;
  }
  std::size_t bytes = 0;
  for (const iovec& b : buffers) bytes += b.iov_len;
  written_.fetch_add(bytes, std::memory_order_relaxed);
  return true;
}

bool SpillFile::read(std::span<const iovec> buffers, std::uint64_t offset) const {
  int fd = -1;
  {
    std::lock_guard lock(mutex_);
    fd = fd_;
  }
  if (fd < 0) return false;
  if (!transfer(false, fd, buffers, offset)) {
    fail("cannot read the spill file in " + directory() + ": " +
         (errno ? std::strerror(errno) : std::string("it ends early")));
    return false;
  }
  std::size_t bytes = 0;
  for (const iovec& b : buffers) bytes += b.iov_len;
  read_.fetch_add(bytes, std::memory_order_relaxed);
  return true;
}

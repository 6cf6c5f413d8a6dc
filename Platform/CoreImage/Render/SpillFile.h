// SpillFile: an unlinked temporary file that a render writes decoded pixels to once and reads
// back with positioned reads, instead of decoding them again (see StripCache).
//
// The file is created on the first write, in the directory TMPDIR names (/tmp when unset), with
// O_TMPFILE where the file system has it and mkstemp + unlink where it has not: it has no name,
// so nothing is left behind whatever way the process ends, and its blocks go back when it is
// closed. What is written lands in the kernel's page cache (and on the disc only if the kernel
// needs the memory back): that memory is not the process's resident set, so a cache that keeps
// a bounded budget in memory and spills the rest stays bounded in resident memory at any
// picture size.
//
// When the file cannot be created or written (a missing or read-only directory, a full disc, a
// file size limit), write returns false, the file is unusable from then on, error() says why,
// and the first such failure in the process is reported once on stderr; the caller decodes
// again instead. Reads and writes of different ranges may run on several threads at once.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

struct iovec;

class SpillFile {
 public:
  SpillFile() = default;
  ~SpillFile();
  SpillFile(const SpillFile&) = delete;
  SpillFile& operator=(const SpillFile&) = delete;

  // Writes the buffers one after another from `offset` on; false when the file cannot be
  // created or written (then and from then on).
  bool write(std::span<const iovec> buffers, std::uint64_t offset);
  // Reads into the buffers one after another from `offset` on what write put there; false when
  // the file cannot be read (it is unusable from then on).
  bool read(std::span<const iovec> buffers, std::uint64_t offset) const;

  // Whether writes may still succeed: no creation or write has failed.
  bool usable() const { return !failed_.load(std::memory_order_acquire); }
  std::string error() const;
  std::uint64_t bytesWritten() const { return written_.load(std::memory_order_relaxed); }
  std::uint64_t bytesRead() const { return read_.load(std::memory_order_relaxed); }

  // The directory spill files are made in: TMPDIR, or /tmp when it is unset or empty.
  static std::string directory();

 private:
  int descriptor();  // opened on first use; -1 once failed
  void fail(const std::string& reason) const;

  mutable std::mutex mutex_;  // guards fd_'s creation and error_
  int fd_ = -1;
  mutable std::string error_;
  mutable std::atomic<bool> failed_{false};
  std::atomic<std::uint64_t> written_{0};
  mutable std::atomic<std::uint64_t> read_{0};
};

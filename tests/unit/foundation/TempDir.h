// A fresh directory under the system's temporary directory, removed with its contents when
// the object goes away.
#pragma once

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>

class TempDir {
 public:
  TempDir() {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("qv-foundation-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string operator/(const std::string& relative) const { return (path_ / relative).string(); }

  // Writes a file (creating its folders) and returns its path.
  std::string write(const std::string& relative, const std::string& bytes) const {
    const std::filesystem::path p = path_ / relative;
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary | std::ios::trunc) << bytes;
    return p.string();
  }

 private:
  std::filesystem::path path_;
};

// Small files the recipe tests write: solid-colour PNGs and text.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ImageIO/ImageIO.h"

namespace qvtest {

// A fresh, empty directory for one test.
inline std::filesystem::path scratchDirectory(const std::string& name) {
  auto dir = std::filesystem::path(QV_BINARY_DIR) / "recipes-test-tmp" / name;
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  return dir;
}

inline void writeSolidPNG(const std::string& path, std::size_t w, std::size_t h, std::array<std::uint8_t, 4> rgba) {
  std::vector<std::uint8_t> rows(w * h * 4);
  for (std::size_t i = 0; i < w * h; ++i) std::copy(rgba.begin(), rgba.end(), rows.begin() + std::ptrdiff_t(i * 4));
  auto dest = CGImageDestinationCreateWithURL(path, "public.png", 1);
  if (!dest || !CGImageDestinationBeginImage(dest, w, h, 8, true, {}) ||
      !CGImageDestinationWriteRows(dest, rows.data(), w * 4, h) || !CGImageDestinationFinalize(dest)) {
    throw std::runtime_error("cannot write test PNG " + path);
  }
}

inline void writeText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

}  // namespace qvtest

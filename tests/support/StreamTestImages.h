// Test pictures written to files for the tests of on-demand decoding: a grainy RGB picture (so
// that a JPEG of it has real entropy-coded content), a PNG whose alpha varies, and JPEGs with
// or without an EXIF orientation.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>

#include "ImageIO/ImageIO.h"

namespace qvtest {

// width x height of smooth gradients plus deterministic grain; alpha varies across the picture
// when `alpha` is set (and is 255 otherwise).
inline std::shared_ptr<CGImage> grainyPicture(std::size_t width, std::size_t height, bool alpha) {
  auto image = CGImageCreateBlank(width, height, 8);
  std::uint32_t state = 12345;
  for (std::size_t y = 0; y < height; ++y) {
    std::uint8_t* p = image->row(y);
    for (std::size_t x = 0; x < width; ++x, p += 4) {
      state = state * 1664525u + 1013904223u;
      const int grain = int(state >> 27) - 16;
      auto clamp = [](int v) { return std::uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); };
      p[0] = clamp(int(x * 255 / width) + grain);
      p[1] = clamp(int(y * 255 / height) - grain);
      p[2] = clamp(int((x + y) * 128 / (width + height)) + 60 + grain / 2);
      p[3] = alpha ? clamp(int(255 - (x * 200 / width)) - int(y % 7) * 5) : 255;
    }
  }
  image->hasAlpha = alpha;
  return image;
}

// Writes `image` to `path` (the extension picks the format); orientation 1 writes none.
inline bool writePicture(const std::shared_ptr<CGImage>& image, const std::string& path, int orientation = 1,
                         double quality = 0.9) {
  auto dest = CGImageDestinationCreateWithURL(path, CGImageDestinationTypeForPath(path));
  if (!dest) return false;
  Dictionary props{{kCGImageDestinationLossyCompressionQuality, Value(quality)}};
  if (orientation != 1) props[kCGImageDestinationOrientation] = Value::integer(orientation);
  return CGImageDestinationAddImage(dest, image, props) && CGImageDestinationFinalize(dest);
}

// A scratch directory for one test program.
inline std::filesystem::path streamTestDir() {
  const auto dir = std::filesystem::temp_directory_path() / ("qv-stream-tests-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  return dir;
}

}  // namespace qvtest

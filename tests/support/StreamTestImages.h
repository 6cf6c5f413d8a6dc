// Test pictures written to files for the tests of on-demand decoding: a grainy RGB picture (so
// that a JPEG of it has real entropy-coded content), a PNG whose alpha varies, and JPEGs with
// or without an EXIF orientation.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>
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

// Writes `image` to `path` (the extension picks the format); for a JPEG, an orientation other
// than 1 is written as an EXIF segment (an APP1 with one IFD0 entry) right after the SOI.
inline bool writePicture(const std::shared_ptr<CGImage>& image, const std::string& path, int orientation = 1,
                         double quality = 0.9) {
  auto dest = CGImageDestinationCreateWithURL(path, CGImageDestinationTypeForPath(path));
  if (!dest) return false;
  Dictionary props{{kCGImageDestinationLossyCompressionQuality, Value(quality)}};
  if (!CGImageDestinationAddImage(dest, image, props) || !CGImageDestinationFinalize(dest)) return false;
  if (orientation == 1 || !(path.ends_with(".jpg") || path.ends_with(".jpeg"))) return true;
  std::ifstream in(path, std::ios::binary);
  std::vector<char> jpeg((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  in.close();
  if (jpeg.size() < 2) return false;
  // "Exif\0\0", a big-endian TIFF header, IFD0 with Orientation (SHORT) and no next IFD.
  const unsigned char o = static_cast<unsigned char>(orientation);
  const unsigned char exif[] = {'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12,
                                0,   3,   0,   0,   0, 1, 0, o,   0, 0,  0, 0, 0, 0};
  const std::size_t length = sizeof exif + 2;
  const char segment[] = {char(0xFF), char(0xE1), char(length >> 8), char(length & 0xFF)};
  jpeg.insert(jpeg.begin() + 2, reinterpret_cast<const char*>(exif), reinterpret_cast<const char*>(exif) + sizeof exif);
  jpeg.insert(jpeg.begin() + 2, segment, segment + 4);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(jpeg.data(), std::streamsize(jpeg.size()));
  return bool(out);
}

// A scratch directory for one test program.
inline std::filesystem::path streamTestDir() {
  const auto dir = std::filesystem::temp_directory_path() / ("qv-stream-tests-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  return dir;
}

}  // namespace qvtest

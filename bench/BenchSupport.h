// What the benchmark programs share: a photo-like test picture and loading the plug-in bundle.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "CoreImage/CIPlugIn.h"
#include "ImageIO/CGImage.h"
#include "ImageIO/ImageIO.h"

namespace qvbench {

// A photo-like picture, w x h opaque RGBA8, top row first: sky and ground with a wavy horizon,
// smooth gradients, a sun, fence posts and per-pixel grain, so that JPEG coding and the filters
// cost what they cost on photographs.
inline std::vector<std::uint8_t> photoPixels(std::size_t w, std::size_t h) {
  std::vector<std::uint8_t> px(w * h * 4);
  std::uint32_t state = 2463534242u;
  auto clamp8 = [](float c) { return static_cast<std::uint8_t>(c < 0 ? 0 : c > 255 ? 255 : c); };
  for (std::size_t y = 0; y < h; ++y) {
    for (std::size_t x = 0; x < w; ++x) {
      state ^= state << 13;
      state ^= state >> 17;
      state ^= state << 5;
      const float grain = static_cast<float>(state & 31) - 15.5f;
      const float u = static_cast<float>(x) / static_cast<float>(w), v = static_cast<float>(y) / static_cast<float>(h);
      const bool ground = v > 0.6f + 0.08f * std::sin(9.0f * u);
      float r = ground ? 70 + 60 * u : 60 + 150 * v;
      float g = ground ? 120 - 40 * v + 30 * std::sin(40 * u) : 110 + 110 * v;
      float b = ground ? 50 : 200 + 40 * v;
      const float du = u - 0.35f, dv = v - 0.3f;
      if (du * du + dv * dv < 0.005f) r = 250, g = 215, b = 90;
      if (ground && (x / 40) % 7 == 0) r = g = b = 235;
      std::uint8_t* p = &px[(y * w + x) * 4];
      p[0] = clamp8(r + grain);
      p[1] = clamp8(g + grain);
      p[2] = clamp8(b + grain);
      p[3] = 255;
    }
  }
  return px;
}

// The same picture as an 8-bit CGImage.
inline CGImageRef photoImage(std::size_t w, std::size_t h) {
  const std::vector<std::uint8_t> px = photoPixels(w, h);
  auto img = CGImageCreateBlank(w, h, 8);
  for (std::size_t y = 0; y < h; ++y) std::memcpy(img->row(y), &px[y * w * 4], w * 4);
  return img;
}

// Loads the plug-in bundle from QV_BUNDLE_DIR, or from <dir of this program>/../lib/qvfilter/;
// says why on stderr when it cannot.
inline bool loadBundle() {
  std::string bundle;
  if (const char* env = std::getenv("QV_BUNDLE_DIR")) {
    bundle = env;
  } else {
    const auto exe = std::filesystem::read_symlink("/proc/self/exe");
    bundle = (exe.parent_path() / ".." / "lib" / "qvfilter" / "QVFilterImageUnits.plugin").string();
  }
  std::string error;
  if (!CIPlugIn::loadPlugIn(bundle, &error)) {
    std::fprintf(stderr, "cannot load the bundle %s: %s\n", bundle.c_str(), error.c_str());
    return false;
  }
  return true;
}

// Writes the generated photo of w x h as a Q90 JPEG at `path` unless it is already there, then
// loads the bundle. False (with the reason on stderr) when either fails.
inline bool preparePhotoJPEG(const char* path, std::size_t w, std::size_t h) {
  if (!std::filesystem::exists(path)) {
    auto dest = CGImageDestinationCreateWithURL(path, kUTTypeJPEG);
    if (!dest || !CGImageDestinationAddImage(dest, photoImage(w, h), {{kCGImageDestinationLossyCompressionQuality, 0.9}}) ||
        !CGImageDestinationFinalize(dest)) {
      std::fprintf(stderr, "cannot write %s\n", path);
      return false;
    }
  }
  return loadBundle();
}

}  // namespace qvbench

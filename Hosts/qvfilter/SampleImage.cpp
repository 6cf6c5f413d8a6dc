// The generated sample picture: a photo-like landscape (sky gradient, a sun with its glow, two
// ranges of hills, grass texture and fine grain). The picture depends only on its size, and is
// drawn and encoded in strips, so large samples cost little memory.
#include "SampleImage.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include <tbb/parallel_for.h>

#include "Command.h"
#include "ImageIO/ImageIO.h"

namespace {

constexpr float kPi = 3.14159265358979f;

std::uint32_t hash(std::int32_t x, std::int32_t y, std::uint32_t seed) {
  std::uint32_t h = static_cast<std::uint32_t>(x) * 0x8da6b343u ^ static_cast<std::uint32_t>(y) * 0xd8163841u ^
                    seed * 0xcb1ab31fu;
  h ^= h >> 13;
  h *= 0x5bd1e995u;
  h ^= h >> 15;
  return h;
}

float hash01(std::int32_t x, std::int32_t y, std::uint32_t seed) {
  return static_cast<float>(hash(x, y, seed) >> 8) * (1.0f / 16777216.0f);
}

// Smooth value noise in 0..1 with a cell of `cell` pixels.
float valueNoise(float x, float y, float cell, std::uint32_t seed) {
  const float fx = x / cell, fy = y / cell;
  const float ix = std::floor(fx), iy = std::floor(fy);
  float tx = fx - ix, ty = fy - iy;
  tx = tx * tx * (3 - 2 * tx);
  ty = ty * ty * (3 - 2 * ty);
  const auto x0 = static_cast<std::int32_t>(ix), y0 = static_cast<std::int32_t>(iy);
  const float a = hash01(x0, y0, seed), b = hash01(x0 + 1, y0, seed);
  const float c = hash01(x0, y0 + 1, seed), d = hash01(x0 + 1, y0 + 1, seed);
  return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
}

float smoothstep(float e0, float e1, float x) {
  const float t = std::clamp((x - e0) / (e1 - e0), 0.0f, 1.0f);
  return t * t * (3 - 2 * t);
}

struct RGB {
  float r, g, b;
};
RGB mix(RGB a, RGB b, float t) { return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t}; }

class Landscape {
 public:
  Landscape(std::size_t width, std::size_t height)
      : w_(static_cast<float>(width)), h_(static_cast<float>(height)), scale_(w_ / 1200.0f) {
    farRidge_.resize(width);
    nearRidge_.resize(width);
    for (std::size_t x = 0; x < width; ++x) {
      const float u = (static_cast<float>(x) + 0.5f) / w_;
      farRidge_[x] = h_ * (0.56f + 0.05f * std::sin(2 * kPi * (1.3f * u + 0.1f)) +
                           0.025f * std::sin(2 * kPi * (3.7f * u + 0.4f)) +
                           0.012f * (valueNoise(static_cast<float>(x), 0, 40 * scale_, 7) - 0.5f));
      nearRidge_[x] = h_ * (0.69f + 0.06f * std::sin(2 * kPi * (0.8f * u + 0.6f)) +
                            0.02f * std::sin(2 * kPi * (5.1f * u)) +
                            0.015f * (valueNoise(static_cast<float>(x), 0, 25 * scale_, 11) - 0.5f));
    }
  }

  void drawRow(std::size_t row, std::uint8_t* out) const {
    const float y = static_cast<float>(row) + 0.5f;
    const float v = y / h_;
    const float sunX = 0.72f * w_, sunY = 0.24f * h_, sunR = 0.045f * std::min(w_, h_);
    for (std::size_t col = 0; col < farRidge_.size(); ++col) {
      const float x = static_cast<float>(col) + 0.5f;
      // Sky: deep blue overhead to a pale, warm horizon, with soft clouds.
      RGB c = mix(RGB{38, 86, 168}, RGB{206, 222, 236}, std::pow(std::clamp(v / 0.62f, 0.0f, 1.0f), 1.4f));
      const float cloud = smoothstep(0.55f, 0.8f, 0.65f * valueNoise(x, y * 2.2f, 140 * scale_, 3) +
                                                      0.35f * valueNoise(x, y * 2.2f, 45 * scale_, 5));
      c = mix(c, RGB{245, 245, 248}, cloud * 0.7f * (1 - smoothstep(0.3f, 0.55f, v)));
      // The sun: a bright disc with a warm glow.
      const float d = std::hypot(x - sunX, y - sunY);
      const float glow = std::exp(-d / (sunR * 2.5f));
      c = mix(c, RGB{255, 226, 170}, 0.55f * glow);
      c = mix(c, RGB{255, 250, 228}, smoothstep(sunR + 1.0f, sunR - 1.0f, d));
      // Far hills, hazy blue-green.
      const float far = smoothstep(farRidge_[col] - 0.7f, farRidge_[col] + 0.7f, y);
      if (far > 0) {
        const float depth = std::clamp((y - farRidge_[col]) / (0.2f * h_), 0.0f, 1.0f);
        RGB hill = mix(RGB{112, 146, 140}, RGB{78, 112, 96}, depth);
        hill = mix(hill, RGB{92, 124, 110}, valueNoise(x, y, 18 * scale_, 13) * 0.5f);
        c = mix(c, hill, far);
      }
      // Near hills: grass with texture, darker towards the bottom.
      const float nearHill = smoothstep(nearRidge_[col] - 0.7f, nearRidge_[col] + 0.7f, y);
      if (nearHill > 0) {
        const float depth = std::clamp((y - nearRidge_[col]) / (0.3f * h_), 0.0f, 1.0f);
        RGB grass = mix(RGB{96, 150, 62}, RGB{40, 84, 30}, depth);
        const float texture = 0.5f * valueNoise(x, y, 6 * scale_, 17) + 0.3f * valueNoise(x, y, 2.5f * scale_, 19) +
                              0.2f * valueNoise(x * 0.5f, y * 3.0f, 3 * scale_, 23);
        grass = mix(grass, RGB{grass.r * 0.6f, grass.g * 0.7f, grass.b * 0.5f}, texture);
        grass = mix(grass, RGB{150, 170, 80},
                    0.2f * smoothstep(0.5f, 0.95f, 0.6f * valueNoise(x, y, 70 * scale_, 29) +
                                                       0.4f * valueNoise(x, y, 22 * scale_, 37)));
        c = mix(c, grass, nearHill);
      }
      // Fine sensor-like grain everywhere.
      const float grain = (hash01(static_cast<std::int32_t>(col), static_cast<std::int32_t>(row), 31) - 0.5f) * 6.0f;
      std::uint8_t* p = out + col * 4;
      p[0] = static_cast<std::uint8_t>(std::clamp(c.r + grain, 0.0f, 255.0f) + 0.5f);
      p[1] = static_cast<std::uint8_t>(std::clamp(c.g + grain, 0.0f, 255.0f) + 0.5f);
      p[2] = static_cast<std::uint8_t>(std::clamp(c.b + grain, 0.0f, 255.0f) + 0.5f);
      p[3] = 255;
    }
  }

 private:
  float w_, h_, scale_;
  std::vector<float> farRidge_, nearRidge_;
};

}  // namespace

namespace qv {

void writeSampleImage(const std::string& path, const std::string& type, std::size_t width, std::size_t height) {
  if (width * height > CGImageSourceGetMaximumPixelCount())
    throw CommandError{"sample of " + std::to_string(width) + "x" + std::to_string(height) +
                       " pixels is over the pixel limit of " + std::to_string(CGImageSourceGetMaximumPixelCount())};
  CGImageDestinationRef dest = CGImageDestinationCreateWithURL(path, type);
  if (!dest || !CGImageDestinationBeginImage(dest, width, height, 8, false, {}))
    throw CommandError{dest ? CGImageDestinationGetLastError(dest) : "cannot write " + path};
  const Landscape landscape(width, height);
  constexpr std::size_t kStrip = 64;
  std::vector<std::uint8_t> strip(width * 4 * kStrip);
  for (std::size_t first = 0; first < height; first += kStrip) {
    const std::size_t count = std::min(kStrip, height - first);
    tbb::parallel_for(std::size_t{0}, count, [&](std::size_t i) { landscape.drawRow(first + i, strip.data() + i * width * 4); });
    if (!CGImageDestinationWriteRows(dest, strip.data(), width * 4, count))
      throw CommandError{CGImageDestinationGetLastError(dest)};
  }
  if (!CGImageDestinationFinalize(dest)) throw CommandError{CGImageDestinationGetLastError(dest)};
}

}  // namespace qv

// Bilinear reads of the evaluator bit for bit against the sampling rule written out per pixel in
// single precision: the position less half a texel, clamped to two texels around the readable
// range, its floor and fractions, the four texels under the wrap rule, along x in each row and
// then between the rows, a pair that reads one texel giving it exactly, a position on a texel
// centre giving its texel. Lanes inside the picture and lanes over its edges and beyond, both
// wrap modes, an image away from the origin, texel centres and half-texel steps.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>

#include "CoreImage/CIKernel.h"
#include "CoreImage/Kernel/Evaluator.h"

namespace {

constexpr std::int64_t kW = 41, kH = 23, kX = 7, kY = -4;  // the picture: kW x kH at (kX, kY)

struct Picture {
  std::vector<float> texels;
  Picture() {
    std::mt19937 rng(77);
    std::uniform_real_distribution<float> u(-0.5f, 1.5f);  // extended range, signs of zero aside
    texels.resize(std::size_t(kW * kH * 4));
    for (auto& t : texels) t = u(rng);
  }
  // The texel at absolute (x, y) under the wrap rule; null for transparent.
  const float* texel(std::int64_t x, std::int64_t y, bool clamp) const {
    if (clamp) {
      x = std::clamp<std::int64_t>(x, kX, kX + kW - 1);
      y = std::clamp<std::int64_t>(y, kY, kY + kH - 1);
    } else if (x < kX || y < kY || x >= kX + kW || y >= kY + kH) {
      return nullptr;
    }
    return &texels[std::size_t(((y - kY) * kW + (x - kX)) * 4)];
  }
  std::array<float, 4> bilinear(float u, float v, bool clamp) const {
    static const float zero[4] = {0, 0, 0, 0};
    const float px = std::clamp(u - 0.5f, float(kX) - 2, float(kX + kW) + 1);
    const float py = std::clamp(v - 0.5f, float(kY) - 2, float(kY + kH) + 1);
    const float fx = std::floor(px), fy = std::floor(py), tx = px - fx, ty = py - fy;
    const auto ix = std::int64_t(fx), iy = std::int64_t(fy);
    const float* a = texel(ix, iy, clamp);
    std::array<float, 4> r{};
    if (tx == 0 && ty == 0) {
      std::memcpy(r.data(), a ? a : zero, sizeof r);
      return r;
    }
    const float* b = texel(ix + 1, iy, clamp);
    const float* c = texel(ix, iy + 1, clamp);
    const float* d = texel(ix + 1, iy + 1, clamp);
    a = a ? a : zero;
    b = b ? b : zero;
    c = c ? c : zero;
    d = d ? d : zero;
    for (int k = 0; k < 4; ++k) {
      const float r0 = a == b ? a[k] : a[k] * (1 - tx) + b[k] * tx;
      const float r1 = c == d ? c[k] : c[k] * (1 - tx) + d[k] * tx;
      r[std::size_t(k)] = (a == c && b == d) ? r0 : r0 * (1 - ty) + r1 * ty;
    }
    return r;
  }
};

struct Case {
  float scale, ox, oy;
  bool clamp;
};

class BilinearBits : public ::testing::TestWithParam<Case> {};

}  // namespace

TEST_P(BilinearBits, EveryLaneFollowsTheRule) {
  const Case c = GetParam();
  const Picture pic;
  std::vector<KernelDiagnostic> diags;
  auto kernels = CIKernel::kernelsWithString(
      "kernel vec4 k(sampler s, vec4 a) { return sample(s, destCoord() * a.x + a.yz); }", &diags);
  ASSERT_EQ(kernels.size(), 1u) << (diags.empty() ? "" : diags[0].description());
  cikl::SamplerInput in;
  in.tile = ConstPixelTile{pic.texels.data(), PixelRect{kX, kY, kW, kH}, kW * 4};
  in.extent = CGRectMake(kX, kY, kW, kH);
  in.clamp = c.clamp;
  // Wider than one batch of lanes, beyond the picture on every side.
  const PixelRect rect{kX - 9, kY - 6, kW + 19, kH + 13};
  std::vector<float> out(std::size_t(rect.width * rect.height * 4), -1.0f);
  PixelTile tile{out.data(), rect, rect.width * 4};
  const std::array<float, 4> params = {c.scale, c.ox, c.oy, 0};
  cikl::evaluate(*kernels[0]->program(), tile, std::span<const cikl::SamplerInput>(&in, 1), params);
  int bad = 0;
  for (std::int64_t y = rect.y; y < rect.maxY(); ++y)
    for (std::int64_t x = rect.x; x < rect.maxX(); ++x) {
      const float u = (float(x) + 0.5f) * c.scale + c.ox, v = (float(y) + 0.5f) * c.scale + c.oy;
      const auto want = pic.bilinear(u, v, c.clamp);
      if (std::memcmp(tile.at(x, y), want.data(), sizeof want) != 0 && bad++ < 5)
        ADD_FAILURE() << "pixel (" << x << ", " << y << "): got " << tile.at(x, y)[0] << ", want " << want[0];
    }
  EXPECT_EQ(bad, 0);
}

INSTANTIATE_TEST_SUITE_P(Evaluator, BilinearBits,
                         ::testing::Values(Case{0.83f, 0.37f, -0.61f, false}, Case{0.83f, 0.37f, -0.61f, true},
                                           Case{1.21f, -3.3f, 2.9f, false}, Case{1.21f, -3.3f, 2.9f, true},
                                           // Texel centres, and half texels along x only.
                                           Case{1.0f, 0.0f, 0.0f, false}, Case{1.0f, 0.5f, 0.0f, true},
                                           Case{1.0f, 0.0f, 0.5f, false}));

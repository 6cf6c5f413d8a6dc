// The vectorised evaluator against plain per-pixel C++ on random inputs: arithmetic, built-in
// functions, per-pixel branches and loops, and bilinear sampling with both wrap modes, over a
// region whose size is not a multiple of the batch width and that crosses the image's edges.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <random>

#include "CoreImage/CIKernel.h"
#include "CoreImage/Kernel/Evaluator.h"

namespace {

using Px = std::array<float, 4>;

struct Fixture {
  static constexpr int W = 30, H = 20;
  std::vector<float> texels;  // bottom row first
  std::array<float, 8> params;
  Fixture() {
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    texels.resize(W * H * 4);
    for (auto& t : texels) t = u(rng);
    std::uniform_real_distribution<float> p(-2.0f, 2.0f);
    for (auto& v : params) v = p(rng);
  }
  Px texel(std::int64_t x, std::int64_t y, bool clamp) const {
    if (clamp) {
      x = std::clamp<std::int64_t>(x, 0, W - 1);
      y = std::clamp<std::int64_t>(y, 0, H - 1);
    } else if (x < 0 || y < 0 || x >= W || y >= H) {
      return {0, 0, 0, 0};
    }
    const float* t = &texels[std::size_t((y * W + x) * 4)];
    return {t[0], t[1], t[2], t[3]};
  }
  // Bilinear filtering with texel centres at +0.5.
  Px bilinear(double u, double v, bool clamp) const {
    double x = u - 0.5, y = v - 0.5;
    double fx = std::floor(x), fy = std::floor(y);
    double tx = x - fx, ty = y - fy;
    auto ix = std::int64_t(fx), iy = std::int64_t(fy);
    Px a = texel(ix, iy, clamp), b = texel(ix + 1, iy, clamp), c = texel(ix, iy + 1, clamp), d = texel(ix + 1, iy + 1, clamp);
    Px r;
    for (int k = 0; k < 4; ++k)
      r[k] = float((a[k] * (1 - tx) + b[k] * tx) * (1 - ty) + (c[k] * (1 - tx) + d[k] * tx) * ty);
    return r;
  }
};

// Evaluates `source` over (-5, -3, 37 x 29), with the fixture's image as the sampler and its
// params as vec4 a, vec4 b, and compares with `reference(x, y)` for each pixel.
void compare(const std::string& source, bool clamp, const std::function<Px(const Fixture&, double, double)>& reference,
             float tolerance = 2e-5f) {
  Fixture f;
  std::vector<KernelDiagnostic> diags;
  auto kernels = CIKernel::kernelsWithString(source, &diags);
  ASSERT_EQ(kernels.size(), 1u) << (diags.empty() ? "" : diags[0].description());
  cikl::SamplerInput in;
  in.tile = ConstPixelTile{f.texels.data(), PixelRect{0, 0, Fixture::W, Fixture::H}, Fixture::W * 4};
  in.extent = CGRectMake(0, 0, Fixture::W, Fixture::H);
  in.clamp = clamp;
  const PixelRect rect{-5, -3, 37, 29};
  std::vector<float> out(std::size_t(rect.width * rect.height * 4), 0.0f);
  PixelTile tile{out.data(), rect, rect.width * 4};
  cikl::evaluate(*kernels[0]->program(), tile, std::span<const cikl::SamplerInput>(&in, 1), f.params);
  int bad = 0;
  for (std::int64_t y = rect.y; y < rect.maxY(); ++y) {
    for (std::int64_t x = rect.x; x < rect.maxX(); ++x) {
      Px want = reference(f, double(x) + 0.5, double(y) + 0.5);
      const float* got = tile.at(x, y);
      for (int k = 0; k < 4; ++k) {
        float tol = tolerance * std::max(1.0f, std::fabs(want[std::size_t(k)]));
        if (!(std::fabs(got[k] - want[std::size_t(k)]) <= tol) && bad++ < 5)
          ADD_FAILURE() << "pixel (" << x << ", " << y << ") channel " << k << ": got " << got[k] << ", want "
                        << want[std::size_t(k)];
      }
    }
  }
  EXPECT_EQ(bad, 0);
}

const char* kHeader = "kernel vec4 k(sampler s, vec4 a, vec4 b)\n";

TEST(EvaluatorReference, Arithmetic) {
  compare(std::string(kHeader) + R"({
    vec4 c = sample(s, samplerCoord(s));
    return c * a + b / (abs(c.gbar) + 1.0) - vec4(c.r);
})",
          false, [](const Fixture& f, double x, double y) {
            Px c = f.texel(std::int64_t(std::floor(x)), std::int64_t(std::floor(y)), false);
            const auto& p = f.params;
            Px g = {c[1], c[2], c[3], c[0]};
            Px r;
            for (int k = 0; k < 4; ++k) r[k] = c[k] * p[k] + p[4 + k] / (std::fabs(g[k]) + 1.0f) - c[0];
            return r;
          });
}

TEST(EvaluatorReference, Functions) {
  compare(std::string(kHeader) + R"({
    vec4 c = sample(s, samplerCoord(s));
    vec2 d = destCoord();
    return vec4(sin(c.r * 6.0) + atan(c.g, a.x), sqrt(c.g) * inversesqrt(c.b + 0.5),
                pow(c.b + 0.1, abs(a.y)) + mod(d.x, 3.0), smoothstep(0.2, 0.8, c.a) + length(d) * 0.01);
})",
          false, [](const Fixture& f, double x, double y) {
            Px c = f.texel(std::int64_t(std::floor(x)), std::int64_t(std::floor(y)), false);
            const auto& p = f.params;
            double t = std::clamp((c[3] - 0.2) / 0.6, 0.0, 1.0);
            return Px{float(std::sin(c[0] * 6.0) + std::atan2(c[1], p[0])),
                      float(std::sqrt(c[1]) / std::sqrt(c[2] + 0.5)),
                      float(std::pow(c[2] + 0.1, std::fabs(p[1])) + (x - 3.0 * std::floor(x / 3.0))),
                      float(t * t * (3 - 2 * t) + std::sqrt(x * x + y * y) * 0.01)};
          },
          1e-4f);
}

TEST(EvaluatorReference, BranchesAndLoops) {
  compare(std::string(kHeader) + R"({
    vec4 c = sample(s, samplerCoord(s));
    float n = floor(c.r * 8.0);
    float acc = 0.0;
    for (float i = 0.0; i < n; i += 1.0) {
        acc += c.g;
        if (acc > 2.0) acc -= 0.5;
    }
    int steps = 0;
    float v = c.b;
    while (v < 1.0) { v *= 2.0; steps++; if (steps > 20) v = 5.0; }
    if (c.a > 0.5) {
        acc = -acc;
    } else if (c.a > 0.25) {
        return vec4(1.0, n, float(steps), 0.0);
    }
    return vec4(acc, n, float(steps), v);
})",
          false, [](const Fixture& f, double x, double y) {
            Px c = f.texel(std::int64_t(std::floor(x)), std::int64_t(std::floor(y)), false);
            float n = std::floor(c[0] * 8.0f), acc = 0;
            for (float i = 0; i < n; i += 1) {
              acc += c[1];
              if (acc > 2) acc -= 0.5f;
            }
            int steps = 0;
            float v = c[2];
            while (v < 1) {
              v *= 2;
              steps++;
              if (steps > 20) v = 5;
            }
            if (c[3] > 0.5f) acc = -acc;
            else if (c[3] > 0.25f) return Px{1, n, float(steps), 0};
            return Px{acc, n, float(steps), v};
          });
}

TEST(EvaluatorReference, BilinearSamplingBlackWrap) {
  compare(std::string(kHeader) + R"({
    vec2 p = destCoord() + a.xy * 1.7;
    return sample(s, samplerTransform(s, p));
})",
          false, [](const Fixture& f, double x, double y) {
            return f.bilinear(double(float(x) + f.params[0] * 1.7f), double(float(y) + f.params[1] * 1.7f), false);
          });
}

TEST(EvaluatorReference, BilinearSamplingClampWrap) {
  compare(std::string(kHeader) + R"({
    vec2 p = destCoord() * 0.9 + b.zw;
    return sample(s, p);
})",
          true, [](const Fixture& f, double x, double y) {
            return f.bilinear(double(float(x) * 0.9f + f.params[6]), double(float(y) * 0.9f + f.params[7]), true);
          });
}

TEST(EvaluatorReference, UniformWorkIsHoistedOutOfThePixelLoop) {
  auto k = CIKernel::kernelWithString(R"(
kernel vec4 k(sampler s, vec2 a, vec2 b)
{
    vec2 dir = normalize(b - a);
    float len = length(b - a) * 2.0 + samplerSize(s).x;
    return sample(s, samplerCoord(s)) * dot(dir, destCoord()) + vec4(len);
})");
  ASSERT_NE(k, nullptr);
  const auto& body = k->program()->body;
  for (const auto& in : body)
    EXPECT_TRUE(in.op != cikl::Op::Sqrt && in.op != cikl::Op::Div) << cikl::dump(*k->program());
  EXPECT_EQ(body.size(), 14u) << cikl::dump(*k->program());
}

TEST(EvaluatorReference, PassThroughIsRecognised) {
  auto k = CIKernel::kernelWithString("kernel vec4 p(sampler s) { return sample(s, samplerCoord(s)); }");
  ASSERT_NE(k, nullptr);
  EXPECT_EQ(k->program()->passThroughInput, 0);
  auto notQuite = CIKernel::kernelWithString("kernel vec4 p(sampler s) { return sample(s, samplerCoord(s)).bgra; }");
  ASSERT_NE(notQuite, nullptr);
  EXPECT_EQ(notQuite->program()->passThroughInput, -1);
}

}  // namespace

// The vector running-sum kernels of the box passes against plain scalar loops of the rule they
// must follow bit for bit (gridValue, sums slid in one order), on every instruction set the
// build generated code for and this processor runs, at lengths that end inside a vector.
#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "CoreImage/Builtins/BlurKernels.h"
#include "HighwayTargets.h"

namespace {

using qv::blur::gridValue;
using qv::blur::kGridQuantum;

using qvtest::forEachTarget;

std::uint32_t bits(float v) { return std::bit_cast<std::uint32_t>(v); }
std::uint64_t bits(double v) { return std::bit_cast<std::uint64_t>(v); }

// Deterministic pseudo-random values: mostly photo-like values in [0, 1], some of them on the
// grid's halves (where rounding goes to even), some HDR values up to the grid's limit, where
// a grid value is no longer a float and narrowing rounds it once more.
struct Values {
  std::uint32_t state = 12345;
  float uniform() { return float((state = state * 1664525u + 1013904223u) >> 8) / 16777216.0f; }
  float next() {
    const float u = uniform(), pick = uniform();
    if (pick < 0.1f) return (std::floor(u * 4096.0f) + 0.5f) * kGridQuantum;  // a half of the grid
    if (pick < 0.2f) return 2.0f + u * 254.0f;                                  // HDR
    if (pick < 0.25f) return -u * 3.0f;
    if (pick < 0.27f) return -u * kGridQuantum;  // rounds to zero from below
    return u;
  }
  std::vector<float> onGrid(std::size_t n) {
    std::vector<float> v(n);
    for (float& x : v) x = gridValue(next());
    return v;
  }
};

TEST(BoxKernels, GridCopyIsGridValueOfEveryFloat) {
  Values values;
  std::vector<float> in;
  for (int i = 0; i < 997; ++i) in.push_back(values.next());
  const float specials[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity(), 1e30f, -1e30f, 256.0f, 300.0f, -300.0f,
                            255.99998f, 1.9999999f, 2.0000002f, 3.0000005f, -0.0f, 0.5f * kGridQuantum,
                            1.5f * kGridQuantum, 2.5f * kGridQuantum, -2.5f * kGridQuantum, 1e-30f};
  for (float s : specials) in.push_back(s);
  forEachTarget([&] {
    // Every length up to 40 from every start up to 17, so the scalar tail meets every value.
    for (std::size_t start = 0; start < 17; ++start)
      for (std::size_t n = 0; n <= 40 && start + n <= in.size(); ++n) {
        std::vector<float> out(n + 1, -7.0f);
        qv::blur::gridCopy(in.data() + start, out.data(), std::int64_t(n));
        for (std::size_t i = 0; i < n; ++i)
          ASSERT_EQ(bits(out[i]), bits(gridValue(double(in[start + i])))) << "value " << in[start + i];
        ASSERT_EQ(out[n], -7.0f) << "wrote past the end";
      }
    std::vector<float> out(in.size());
    qv::blur::gridCopy(in.data(), out.data(), std::int64_t(in.size()));
    for (std::size_t i = 0; i < in.size(); ++i)
      ASSERT_EQ(bits(out[i]), bits(gridValue(double(in[i])))) << "value " << in[i];
  });
}

TEST(BoxKernels, ColumnSlidesEqualTheScalarRule) {
  Values values;
  const double weight = 0.0123456789, innerWeight = 0.0345678901;
  forEachTarget([&] {
    for (std::int64_t nf = 4; nf <= 84; nf += 4) {
      const std::size_t n = std::size_t(nf);
      std::vector<float> add = values.onGrid(n), sub = values.onGrid(n);
      const std::vector<float> addInner = values.onGrid(n), subInner = values.onGrid(n);
      std::vector<double> sums(n), innerSums(n);
      for (std::size_t i = 0; i < sums.size(); ++i) {
        sums[i] = double(values.onGrid(1)[0]) * 41.0;
        innerSums[i] = double(values.onGrid(1)[0]) * 17.0;
      }
      // A sum of one quantum below zero: its weighted value rounds to zero from below.
      sums[0] = innerSums[0] = 0.0;
      add[0] = 0.0f;
      sub[0] = kGridQuantum;
      std::vector<double> s1 = sums, t1 = innerSums, s2 = sums;
      std::vector<float> out1(n), out2(n);
      qv::blur::boxSlideEmitInner(out1.data(), s1.data(), add.data(), sub.data(), weight, t1.data(), addInner.data(),
                                  subInner.data(), innerWeight, nf);
      qv::blur::boxSlideEmit(out2.data(), s2.data(), add.data(), sub.data(), weight, nf);
      for (std::size_t i = 0; i < n; ++i) {
        const double s = sums[i] + (double(add[i]) - double(sub[i]));
        const double t = innerSums[i] + (double(addInner[i]) - double(subInner[i]));
        ASSERT_EQ(bits(s1[i]), bits(s)) << "nf " << nf << ", float " << i;
        ASSERT_EQ(bits(t1[i]), bits(t)) << "nf " << nf << ", float " << i;
        ASSERT_EQ(bits(out1[i]), bits(gridValue(s * weight + t * innerWeight))) << "nf " << nf << ", float " << i;
        ASSERT_EQ(bits(s2[i]), bits(s)) << "nf " << nf << ", float " << i;
        ASSERT_EQ(bits(out2[i]), bits(gridValue(s * weight))) << "nf " << nf << ", float " << i;
      }
    }
  });
}

// out pixel j = gridValue(weight · (in j .. j + 2l) + innerWeight · (in j + l - inner ..
// j + l + inner)), each sum started from 0 in order along the first window and then slid.
std::vector<float> boxRowOracle(const std::vector<float>& in, std::int64_t nOut, int l, double weight, int inner,
                                double innerWeight) {
  std::vector<float> out(std::size_t(nOut * 4));
  for (int c = 0; c < 4; ++c) {
    double s = 0, t = 0;
    for (int k = 0; k <= 2 * l; ++k) s += double(in[std::size_t(k * 4 + c)]);
    if (inner >= 0)
      for (int k = l - inner; k <= l + inner; ++k) t += double(in[std::size_t(k * 4 + c)]);
    for (std::int64_t j = 0; j < nOut; ++j) {
      out[std::size_t(j * 4 + c)] = inner >= 0 ? gridValue(s * weight + t * innerWeight) : gridValue(s * weight);
      if (j + 1 == nOut) break;  // the window ends at the row's last pixel
      auto at = [&](std::int64_t p) { return double(in[std::size_t(p * 4 + c)]); };
      s += at(j + 2 * l + 1) - at(j);
      if (inner >= 0) t += at(j + l + inner + 1) - at(j + l - inner);
    }
  }
  return out;
}

TEST(BoxKernels, RowPassEqualsTheScalarRule) {
  Values values;
  forEachTarget([&] {
    for (int l : {1, 3, 12, 25}) {
      for (int inner : {-1, 0, l / 2}) {
        if (inner >= l) continue;
        const double weight = 0.6 / (2.0 * l + 1.0), innerWeight = inner >= 0 ? 0.4 / (2.0 * inner + 1.0) : 0.0;
        const double w = inner >= 0 ? weight : 1.0 / (2.0 * l + 1.0);
        for (std::int64_t nOut : {1, 2, 7, 64}) {
          const std::vector<float> in = values.onGrid(std::size_t((nOut + 2 * l) * 4));
          std::vector<float> out(std::size_t(nOut * 4));
          qv::blur::boxRow(in.data(), out.data(), nOut, l, w, inner, innerWeight);
          const std::vector<float> expected = boxRowOracle(in, nOut, l, w, inner, innerWeight);
          for (std::size_t i = 0; i < out.size(); ++i)
            ASSERT_EQ(bits(out[i]), bits(expected[i])) << "l " << l << ", inner " << inner << ", float " << i;
        }
      }
    }
  });
}

}  // namespace

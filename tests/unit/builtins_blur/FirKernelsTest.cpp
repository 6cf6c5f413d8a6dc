// The direct convolution kernels of the Gaussian (pairs of symmetric taps added, then
// multiplied once) against the sum they compute taken in double precision and against the plain
// float sum tap by tap; and the promise that makes tiled renders exact: every output value has
// the same bits wherever it lies (any column, any row of a block, any block of rows), on every
// instruction set the build generated code for and this processor runs.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <vector>

#include "CoreImage/Builtins/BlurKernels.h"
#include "CoreImage/Builtins/BlurNode.h"
#include "CoreImage/CIImage.h"
#include "HighwayTargets.h"

namespace {

using qv::blur::kGridLimit;
using qvtest::forEachTarget;

// Deterministic values: mostly photo-like in [0, 1], some HDR up to the clamp limit, some
// negative.
struct Values {
  std::uint32_t state = 777;
  float uniform() { return float((state = state * 1664525u + 1013904223u) >> 8) / 16777216.0f; }
  float next() {
    const float u = uniform(), pick = uniform();
    if (pick < 0.1f) return 2.0f + u * 250.0f;
    if (pick < 0.15f) return -u * 2.0f;
    return u;
  }
  std::vector<float> floats(std::size_t n) {
    std::vector<float> v(n);
    for (float& x : v) x = next();
    return v;
  }
};

std::vector<float> gaussianTaps(double sigma) { return qv::blur::planGaussianDirect(sigma).horizontal.at(0).taps; }

// What the float kernels may differ from the exact sum by: a few roundings of each product's
// size, over the number of terms.
double tolerance(const std::vector<float>& taps, const std::vector<double>& absTerms) {
  double s = 0;
  for (double t : absTerms) s += t;
  return double(taps.size() + 2) * 1.2e-7 * s + 1e-30;
}

// Rows of one column block: `rows` nOut + nTaps - 1 rows of nf floats, each its own vector (not
// one contiguous block), the last float of each row's storage a sentinel.
struct Column {
  std::vector<std::vector<float>> storage;
  std::vector<const float*> rows;
  Column(Values& values, std::int64_t nRows, std::int64_t nf) {
    for (std::int64_t r = 0; r < nRows; ++r) storage.push_back(values.floats(std::size_t(nf)));
    for (const auto& s : storage) rows.push_back(s.data());
  }
  float at(std::int64_t r, std::int64_t i) const { return storage[std::size_t(r)][std::size_t(i)]; }
};

TEST(FirKernels, ColumnsMatchTheExactSum) {
  for (double sigma : {0.5, 2.0, 6.0, 10.0, 20.0}) {
    const std::vector<float> taps = gaussianTaps(sigma);
    const int nTaps = int(taps.size());
    for (std::int64_t nf : {4, 12, 20, 36, 68, 132, 580}) {  // 1 to 145 pixels: odd widths, past a strip and a group
      for (std::int64_t nOut : {1, 3, 9, 17}) {
        Values values;
        const Column column(values, nOut + nTaps - 1, nf);
        forEachTarget([&] {
          std::vector<float> out(std::size_t(nOut * nf + 1), -5.0f);
          qv::blur::firColumns(column.rows.data(), out.data(), nf, nOut, nf, taps.data(), nTaps);
          ASSERT_EQ(out.back(), -5.0f) << "wrote past the output";
          for (std::int64_t j = 0; j < nOut; ++j)
            for (std::int64_t i = 0; i < nf; ++i) {
              double exact = 0;
              float plain = 0;  // the float sum tap by tap, as the kernel computed before folding
              std::vector<double> terms;
              for (int k = 0; k < nTaps; ++k) {
                const float x = column.at(j + k, i);
                exact += double(taps[std::size_t(k)]) * double(x);
                plain = k == 0 ? taps[0] * x : std::fma(taps[std::size_t(k)], x, plain);
                terms.push_back(std::fabs(double(taps[std::size_t(k)]) * double(x)));
              }
              const double got = out[std::size_t(j * nf + i)], tol = tolerance(taps, terms);
              ASSERT_NEAR(got, exact, tol) << "sigma " << sigma << " nf " << nf << " row " << j << " float " << i;
              ASSERT_NEAR(got, double(plain), 2 * tol) << "sigma " << sigma << " nf " << nf;
            }
        });
      }
    }
  }
}

TEST(FirKernels, ColumnsGiveTheSameBitsAtEveryPosition) {
  // One block of 23 output rows of 153 pixels, and the same values computed as parts: from any
  // column (pixel) and any row on, in narrower and shorter pieces; with a short kernel (rows
  // read in place) and a longer one (rows copied first).
  for (double sigma : {1.0, 3.0}) {
    const std::vector<float> taps = gaussianTaps(sigma);
    const int nTaps = int(taps.size());
    constexpr std::int64_t nf = 612, nOut = 23;
    Values values;
    const Column column(values, nOut + nTaps - 1, nf);
    forEachTarget([&] {
      std::vector<float> whole(std::size_t(nOut * nf));
      qv::blur::firColumns(column.rows.data(), whole.data(), nf, nOut, nf, taps.data(), nTaps);
      for (std::int64_t x0 : {0, 4, 28, 60, 508, 600})
        for (std::int64_t j0 : {0, 1, 5, 14})
          for (std::int64_t w : {4, 8, 16}) {
            const std::int64_t n = std::min<std::int64_t>(nOut - j0, 9), width = std::min(w, nf - x0);
            std::vector<const float*> rows;
            for (std::int64_t r = 0; r < n + nTaps - 1; ++r) rows.push_back(column.rows[std::size_t(j0 + r)] + x0);
            std::vector<float> part(std::size_t(n * width));
            qv::blur::firColumns(rows.data(), part.data(), width, n, width, taps.data(), nTaps);
            for (std::int64_t j = 0; j < n; ++j)
              for (std::int64_t i = 0; i < width; ++i)
                ASSERT_EQ(std::bit_cast<std::uint32_t>(part[std::size_t(j * width + i)]),
                          std::bit_cast<std::uint32_t>(whole[std::size_t((j0 + j) * nf + x0 + i)]))
                    << "sigma " << sigma << " from pixel " << x0 / 4 << ", row " << j0 << ": row " << j
                    << " float " << i;
          }
    });
  }
}

TEST(FirKernels, RowsMatchTheExactSumOfTheClampedInput) {
  const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
  for (double sigma : {0.7, 4.0, 10.0}) {
    const std::vector<float> taps = gaussianTaps(sigma);
    const int nTaps = int(taps.size());
    for (std::int64_t nRows : {1, 2, 3, 4, 5, 7, 9}) {  // whole groups of rows and groups cut short
      for (std::int64_t nOut : {1, 3, 17, 40}) {
        const std::int64_t nIn = nOut + nTaps - 1, inStride = nIn * 4 + 8, outStride = nOut * 4 + 4;
        Values values;
        std::vector<float> in = values.floats(std::size_t(nRows * inStride));
        in[5] = nan, in[std::size_t((nRows - 1) * inStride + 2)] = inf, in[std::size_t(nRows * inStride - 11)] = -1e30f;
        forEachTarget([&] {
          std::vector<float> out(std::size_t(nRows * outStride), -5.0f);
          qv::blur::firRows(in.data(), inStride, out.data(), outStride, nRows, nOut, taps.data(), nTaps);
          for (std::int64_t r = 0; r < nRows; ++r) {
            for (std::int64_t j = 0; j < nOut; ++j)
              for (int c = 0; c < 4; ++c) {
                double exact = 0;
                std::vector<double> terms;
                for (int k = 0; k < nTaps; ++k) {
                  float x = in[std::size_t(r * inStride + (j + k) * 4 + c)];
                  x = x == x ? std::clamp(x, -kGridLimit, kGridLimit) : 0.0f;
                  exact += double(taps[std::size_t(k)]) * double(x);
                  terms.push_back(std::fabs(double(taps[std::size_t(k)]) * double(x)));
                }
                ASSERT_NEAR(out[std::size_t(r * outStride + j * 4 + c)], exact, tolerance(taps, terms))
                    << "sigma " << sigma << " rows " << nRows << " row " << r << " pixel " << j;
              }
            for (std::int64_t i = nOut * 4; i < outStride; ++i)
              ASSERT_EQ(out[std::size_t(r * outStride + i)], -5.0f) << "wrote past a row";
          }
        });
      }
    }
  }
}

TEST(FirKernels, RowsGiveTheSameBitsInAnyBlockAndAsColumns) {
  // Each row alone, each row in a block of rows, and the same pixels filtered down a column:
  // the same bits, so that a tiled render equals the whole one and a blur commutes with a
  // transposition of the picture.
  const std::vector<float> taps = gaussianTaps(5.0);
  const int nTaps = int(taps.size());
  constexpr std::int64_t nRows = 7, nOut = 29;
  const std::int64_t nIn = nOut + nTaps - 1;
  Values values;
  const std::vector<float> in = values.floats(std::size_t(nRows * nIn * 4));
  forEachTarget([&] {
    std::vector<float> block(std::size_t(nRows * nOut * 4));
    qv::blur::firRows(in.data(), nIn * 4, block.data(), nOut * 4, nRows, nOut, taps.data(), nTaps);
    for (std::int64_t r = 0; r < nRows; ++r) {
      std::vector<float> alone(std::size_t(nOut * 4)), down(std::size_t(nOut * 4));
      qv::blur::firRows(in.data() + r * nIn * 4, nIn * 4, alone.data(), nOut * 4, 1, nOut, taps.data(), nTaps);
      // The row's pixels as a column of rows one pixel wide.
      std::vector<const float*> rows;
      for (std::int64_t x = 0; x < nIn; ++x) rows.push_back(in.data() + r * nIn * 4 + x * 4);
      qv::blur::firColumns(rows.data(), down.data(), 4, nOut, 4, taps.data(), nTaps);
      for (std::int64_t i = 0; i < nOut * 4; ++i) {
        const std::uint32_t b = std::bit_cast<std::uint32_t>(block[std::size_t(r * nOut * 4 + i)]);
        ASSERT_EQ(std::bit_cast<std::uint32_t>(alone[std::size_t(i)]), b) << "row " << r << " float " << i;
        ASSERT_EQ(std::bit_cast<std::uint32_t>(down[std::size_t(i)]), b) << "row " << r << " float " << i;
      }
    }
  });
}

}  // namespace

namespace {

TEST(FirKernels, ColumnNodeKeepsItsRowsAcrossTilesOfAnyHeight) {
  // The vertical node's tiles down one column, of heights that shrink and grow again, 150
  // pixels wide (strips of 16 pixels and a narrower last one), continuing from the rows the tile
  // above left: each equals the same rows rendered as one tile.
  for (double sigma : {1.0, 4.0}) {
    const qv::blur::Pass1D pass = qv::blur::planGaussianDirect(sigma).vertical.at(0);
    const int support = pass.support();
    constexpr std::int64_t w = 150, top = 200;
    const PixelRect inRect{-3, -40, w, 260};  // covers every tile's window
    Values values;
    const std::vector<float> pixels = values.floats(std::size_t(inRect.area() * 4));
    const ConstPixelTile input{pixels.data(), inRect, inRect.width * 4};
    const CIImage source = CIImage::imageWithRGBAf(pixels.data(), std::size_t(w), std::size_t(inRect.height));
    const auto node = qv::blur::firColumnsImage("test", source, pass).node();
    auto renderTile = [&](const PixelRect& rect, std::shared_ptr<void>* state) {
      std::vector<float> out(std::size_t(rect.area() * 4), -9.0f);
      RenderInfo info;
      info.state = state;
      const ConstPixelTile in[1] = {input};
      node->render(PixelTile{out.data(), rect, rect.width * 4}, std::span<const ConstPixelTile>(in, 1), info);
      return out;
    };
    std::shared_ptr<void> state;
    std::int64_t maxY = top;
    for (std::int64_t h : {24, 24, 5, 3, 31, 1, 40, 24}) {
      const PixelRect rect{inRect.x, maxY - h, w, h};
      ASSERT_GE(rect.y - support, inRect.y);
      const std::vector<float> streamed = renderTile(rect, &state);
      std::shared_ptr<void> fresh;
      const std::vector<float> alone = renderTile(rect, &fresh);
      for (std::size_t i = 0; i < alone.size(); ++i)
        ASSERT_EQ(std::bit_cast<std::uint32_t>(streamed[i]), std::bit_cast<std::uint32_t>(alone[i]))
            << "sigma " << sigma << ", tile of " << h << " rows from row " << rect.y << ", float " << i;
      maxY = rect.y;
    }
  }
}

}  // namespace

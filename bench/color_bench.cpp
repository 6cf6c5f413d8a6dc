// Colour-matrix and source-over throughput: the composite step of the filter family (a layer
// faded through a colour matrix, then laid over a flat colour) on a 6000 × 4000 picture, end to
// end through the renderer from 8-bit pixels to 8-bit pixels, plus the two per-pixel kernels on
// one tile, to separate kernel cost from the renderer's.
//
// The peer comparison (bench/peers.sh, when present) runs the same work through libvips:
//   vips recomb in.v t.v matrix.mat; then a composite over a flat colour.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "CoreImage/Builtins/ColorMatrixNode.h"
#include "CoreImage/Builtins/CompositeOperations.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"

namespace {

constexpr std::size_t kWidth = 6000, kHeight = 4000;

std::vector<std::uint8_t> picture(std::size_t w, std::size_t h) {
  std::vector<std::uint8_t> px(w * h * 4);
  std::mt19937 rng(7);
  for (std::size_t i = 0; i < px.size(); i += 4) {
    const std::uint32_t v = rng();
    px[i] = static_cast<std::uint8_t>(v);
    px[i + 1] = static_cast<std::uint8_t>(v >> 8);
    px[i + 2] = static_cast<std::uint8_t>(v >> 16);
    px[i + 3] = 255;
  }
  return px;
}

CIImage matrixOverColour(const CIImage& input) {
  CIFilterRef matrix = CIFilter::filterWithName("CIColorMatrix");
  matrix->setDefaults();
  matrix->setValue(CIVector::vectorWithX(0.8, 0.1, 0.1, 0), "inputRVector");
  matrix->setValue(CIVector::vectorWithX(0.1, 0.8, 0.1, 0), "inputGVector");
  matrix->setValue(CIVector::vectorWithX(0.1, 0.1, 0.8, 0), "inputBVector");
  matrix->setValue(CIVector::vectorWithX(0, 0, 0, 0.7), "inputAVector");
  matrix->setValue(input, kCIInputImageKey);
  const CIImage faded = CIImage::fromValue(matrix->valueForKey(kCIOutputImageKey));

  CIFilterRef over = CIFilter::filterWithName("CISourceOverCompositing");
  over->setDefaults();
  over->setValue(faded, kCIInputImageKey);
  over->setValue(CIImage::imageWithColor(CIColor::colorWithRed(0.2, 0.3, 0.4, 1)), kCIInputBackgroundImageKey);
  return CIImage::fromValue(over->valueForKey(kCIOutputImageKey)).imageByCroppingToRect(input.extent());
}

void BM_MatrixThenOverColour_6000x4000_RGBA8(benchmark::State& state) {
  const std::vector<std::uint8_t> src = picture(kWidth, kHeight);
  const CIImage input = CIImage::imageWithRGBA8(src.data(), kWidth, kHeight, kWidth * 4);
  const CIImage out = matrixOverColour(input);
  std::vector<std::uint8_t> dst(kWidth * kHeight * 4);
  CIContextOptions options;
  options.threads = static_cast<int>(state.range(0));
  CIContext context(options);
  for (auto _ : state) {
    context.render(out, dst.data(), static_cast<std::ptrdiff_t>(kWidth * 4), out.extent(), CIRenderFormat::RGBA8);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kWidth * kHeight));
}
BENCHMARK(BM_MatrixThenOverColour_6000x4000_RGBA8)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same graph without colour management: the arithmetic runs on the encoded values, as
// libvips does on 8-bit sRGB.
void BM_MatrixThenOverColour_6000x4000_RGBA8_Unmanaged(benchmark::State& state) {
  const std::vector<std::uint8_t> src = picture(kWidth, kHeight);
  const CIImage input = CIImage::imageWithRGBA8(src.data(), kWidth, kHeight, kWidth * 4);
  const CIImage out = matrixOverColour(input);
  std::vector<std::uint8_t> dst(kWidth * kHeight * 4);
  CIContextOptions options;
  options.colorManagement = false;
  CIContext context(options);
  for (auto _ : state) {
    context.render(out, dst.data(), static_cast<std::ptrdiff_t>(kWidth * 4), out.extent(), CIRenderFormat::RGBA8);
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kWidth * kHeight));
}
BENCHMARK(BM_MatrixThenOverColour_6000x4000_RGBA8_Unmanaged)->Unit(benchmark::kMillisecond)->UseRealTime();

// ---- Kernels alone, on one 256 × 256 tile ----

constexpr std::int64_t kTile = 256;

std::vector<float> tilePixels(unsigned seed) {
  std::vector<float> px(kTile * kTile * 4);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> u(0, 1);
  for (std::size_t i = 0; i < px.size(); i += 4) {
    const float a = 0.2f + 0.8f * u(rng);
    px[i] = u(rng) * a;
    px[i + 1] = u(rng) * a;
    px[i + 2] = u(rng) * a;
    px[i + 3] = a;
  }
  return px;
}

void runMatrixKernel(benchmark::State& state, const ColorMatrix& m) {
  std::vector<float> src = tilePixels(1), dst(src.size());
  const CIImage input = CIImage::imageWithRGBAf(src.data(), kTile, kTile);
  const ColorMatrixNode node(input, m);
  const PixelRect rect{0, 0, kTile, kTile};
  const ConstPixelTile in{src.data(), rect, kTile * 4};
  const PixelTile out{dst.data(), rect, kTile * 4};
  for (auto _ : state) {
    node.render(out, std::span<const ConstPixelTile>(&in, 1), RenderInfo{});
    benchmark::DoNotOptimize(dst.data());
  }
  state.SetItemsProcessed(state.iterations() * kTile * kTile);
}

void BM_ColorMatrixKernel_Linear(benchmark::State& state) {
  ColorMatrix m = ColorMatrix::identity();
  m.m[0] = {0.8, 0.1, 0.1, 0, 0};
  m.m[3][3] = 0.7;
  runMatrixKernel(state, m);
}
BENCHMARK(BM_ColorMatrixKernel_Linear);

void BM_ColorMatrixKernel_General(benchmark::State& state) {
  ColorMatrix m = ColorMatrix::identity();
  m.m[0] = {0.8, 0.1, 0.1, 0, 0.05};
  m.m[3] = {0.1, 0, 0, 0.7, 0};
  runMatrixKernel(state, m);
}
BENCHMARK(BM_ColorMatrixKernel_General);

void BM_CompositeKernel(benchmark::State& state, const char* name) {
  const CompositeOperation* op = compositeOperationNamed(name);
  std::vector<float> s = tilePixels(2), b = tilePixels(3), o(s.size());
  for (auto _ : state) {
    op->row(s.data(), b.data(), o.data(), kTile * kTile);
    benchmark::DoNotOptimize(o.data());
  }
  state.SetItemsProcessed(state.iterations() * kTile * kTile);
}
BENCHMARK_CAPTURE(BM_CompositeKernel, SourceOver, "CISourceOverCompositing");
BENCHMARK_CAPTURE(BM_CompositeKernel, Multiply, "CIMultiplyBlendMode");
BENCHMARK_CAPTURE(BM_CompositeKernel, SoftLight, "CISoftLightBlendMode");
BENCHMARK_CAPTURE(BM_CompositeKernel, Hue, "CIHueBlendMode");

}  // namespace

BENCHMARK_MAIN();

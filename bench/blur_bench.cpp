// Gaussian blur throughput: the blur the plug-in runs most (clamped input, Gaussian, crop back)
// on a 6000 × 4000 photo, end to end from a JPEG file to a JPEG file, from 8-bit pixels in
// memory to 8-bit pixels, and the bare kernel on one tile. Below kDirectSigma the blur is a
// direct convolution whose cost grows with the radius; from there on three passes of nested
// boxes whose cost does not (radii 20 and 100); 1 and 2 threads show the scaling. BM_GaussianPlan_RGBAf
// runs both ways over a range of radii: where they cross is where planGaussian switches.
//
// The peer comparison (bench/peers.sh) runs the same JPEG-to-JPEG work through
// `vips gaussblur in.jpg out.jpg 20`, ImageMagick's `-gaussian-blur` and Pillow's
// ImageFilter.GaussianBlur(20).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "CoreImage/Builtins/BlurKernels.h"
#include "CoreImage/Builtins/BlurNode.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"

namespace {

constexpr std::size_t kWidth = 6000, kHeight = 4000;

const std::vector<std::uint8_t>& photoPixels() {
  static const std::vector<std::uint8_t> px = qvbench::photoPixels(kWidth, kHeight);
  return px;
}

// The photo as a JPEG (quality 90) in a scratch folder, written once per process.
const std::string& photoJPEG() {
  static std::string path;
  static std::once_flag once;
  std::call_once(once, [] {
    const char* tmp = std::getenv("TMPDIR");
    const std::filesystem::path dir = std::filesystem::path(tmp ? tmp : "/tmp") / "qv-blur-bench";
    std::filesystem::create_directories(dir);
    path = (dir / "photo-6000x4000.jpg").string();
    if (!std::filesystem::exists(path)) {
      const auto& px = photoPixels();
      const CIImage image = CIImage::imageWithRGBA8(px.data(), kWidth, kHeight, kWidth * 4);
      CIContext().writeToFile(image, path, image.extent(), 0.9);
    }
  });
  return path;
}

// What the plug-in's blur does: edge pixels extended, Gaussian, crop back to the input.
CIImage clampedGaussian(const CIImage& input, double radius) {
  CIFilterRef blur = CIFilter::filterWithName("CIGaussianBlur");
  blur->setDefaults();
  blur->setValue(Value(radius), kCIInputRadiusKey);
  blur->setValue(input.imageByClampingToExtent(), kCIInputImageKey);
  return blur->outputImage().imageByCroppingToRect(input.extent());
}

void setRate(benchmark::State& state, double pixels) {
  state.counters["Mpx/s"] =
      benchmark::Counter(pixels / 1e6, benchmark::Counter::kIsRate | benchmark::Counter::kIsIterationInvariant);
}

// JPEG file in, JPEG file out (quality 90), 6000 × 4000.
void BM_GaussianBlur_JPEGtoJPEG_6000x4000(benchmark::State& state) {
  const std::string& in = photoJPEG();
  const std::string out = std::filesystem::path(in).replace_filename("blurred.jpg").string();
  CIContextOptions options;
  options.threads = int(state.range(1));
  const CIContext context(options);
  for (auto _ : state) {
    const CIImage input = CIImage::imageWithContentsOfFile(in);
    const CIImage blurred = clampedGaussian(input, double(state.range(0)));
    context.writeToFile(blurred, out, blurred.extent(), 0.9);
  }
  setRate(state, double(kWidth * kHeight));
}
BENCHMARK(BM_GaussianBlur_JPEGtoJPEG_6000x4000)
    ->ArgNames({"radius", "threads"})
    ->Args({5, 2})
    ->Args({20, 1})
    ->Args({20, 2})
    ->Args({100, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

// 8-bit pixels in memory to 8-bit pixels, 6000 × 4000: the blur and the conversions only.
void BM_GaussianBlur_RGBA8_6000x4000(benchmark::State& state) {
  const auto& px = photoPixels();
  const CIImage input = CIImage::imageWithRGBA8(px.data(), kWidth, kHeight, kWidth * 4);
  const CIImage blurred = clampedGaussian(input, double(state.range(0)));
  std::vector<std::uint8_t> dst(kWidth * kHeight * 4);
  CIContextOptions options;
  options.threads = int(state.range(1));
  const CIContext context(options);
  for (auto _ : state)
    context.render(blurred, dst.data(), std::ptrdiff_t(kWidth * 4), input.extent(), CIRenderFormat::RGBA8);
  setRate(state, double(kWidth * kHeight));
}
BENCHMARK(BM_GaussianBlur_RGBA8_6000x4000)
    ->ArgNames({"radius", "threads"})
    ->Args({5, 1})
    ->Args({5, 2})
    ->Args({20, 1})
    ->Args({20, 2})
    ->Args({100, 1})
    ->Args({100, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(3);

// The kernel alone on one 1024 × 1024 output tile of premultiplied floats, one thread: path 0
// is the direct convolution, 1 the three box passes.
void BM_GaussianKernel_Tile1024(benchmark::State& state) {
  const double sigma = double(state.range(0));
  const auto plan = state.range(1) == 0 ? qv::blur::planGaussianDirect(sigma) : qv::blur::planGaussianBoxes(sigma);
  const PixelRect outRect{0, 0, 1024, 1024};
  const PixelRect inRect = outRect.outset(plan.supportX(), plan.supportY());
  std::vector<float> in(std::size_t(inRect.width * inRect.height * 4));
  std::uint32_t s = 1;
  for (float& v : in) v = float((s = s * 1664525u + 1013904223u) >> 8) / 16777216.0f;
  std::vector<float> out(std::size_t(outRect.width * outRect.height * 4));
  const ConstPixelTile inTile{in.data(), inRect, inRect.width * 4};
  const PixelTile outTile{out.data(), outRect, outRect.width * 4};
  for (auto _ : state) {
    qv::blur::applySeparable(inTile, outTile, plan);
    benchmark::DoNotOptimize(out.data());
  }
  setRate(state, double(outRect.area()));
}
BENCHMARK(BM_GaussianKernel_Tile1024)
    ->ArgNames({"sigma", "boxes"})
    ->ArgsProduct({{2, 5, 10, 20}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// The two ways of computing the Gaussian, through the renderer as the filter runs them (a node
// along x, a node streaming down the columns), one thread, premultiplied floats in and out of a
// 3000 × 2000 picture: path 0 is the direct convolution, 1 the three box passes. The
// radius where the box passes become faster is where planGaussian switches (kDirectSigma).
// The 3000 × 2000 top-left part of the photo as premultiplied floats.
const std::vector<float>& planPixels() {
  constexpr std::size_t w = 3000, h = 2000;
  static const std::vector<float> px = [] {
    const auto& rgba8 = photoPixels();
    std::vector<float> f(w * h * 4);
    for (std::size_t y = 0; y < h; ++y)
      for (std::size_t x = 0; x < w * 4; ++x) f[y * w * 4 + x] = float(rgba8[y * kWidth * 4 + x]) / 255.0f;
    return f;
  }();
  return px;
}

// Renders the 3000 x 2000 plan picture through `plan` on one thread, once per iteration.
void renderPlan(benchmark::State& state, const qv::blur::SeparablePlan& plan) {
  constexpr std::size_t w = 3000, h = 2000;
  const CIImage input = CIImage::imageWithRGBAf(planPixels().data(), w, h);
  const CIImage blurred = qv::blur::separableImage("CIGaussianBlur", input, plan);
  std::vector<float> dst(w * h * 4);
  CIContextOptions options;
  options.threads = 1;
  options.colorManagement = false;
  const CIContext context(options);
  for (auto _ : state)
    context.render(blurred, dst.data(), std::ptrdiff_t(w * 16), input.extent(), CIRenderFormat::RGBAf);
  setRate(state, double(w * h));
}

void BM_GaussianPlan_RGBAf(benchmark::State& state) {
  const double sigma = double(state.range(0)) / 2.0;
  renderPlan(state, state.range(1) == 0 ? qv::blur::planGaussianDirect(sigma) : qv::blur::planGaussianBoxes(sigma));
  state.counters["sigma"] = sigma;
}
BENCHMARK(BM_GaussianPlan_RGBAf)
    ->ArgNames({"sigma_x2", "boxes"})
    ->ArgsProduct({{2, 4, 6, 8, 10, 12, 16, 20, 24, 32, 34, 36, 38, 40, 44, 48, 52, 56, 64}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.3);

// Constant-cost Gaussians weighed against each other (bench/README.md, "Gaussian blur: direct
// kernel or box passes"), as BM_GaussianPlan_RGBAf runs them: σ 20, one thread, 3000 × 2000
// floats. Shape 0: planGaussianBoxes (three passes of two nested boxes); 3, 4, 5: that many
// extended box passes (a box of one width plus end taps, the variance exact: Gwosdek et al.),
// written as nested boxes of half-widths l and l + 1, which they are.
qv::blur::SeparablePlan extendedBoxes(double sigma, int passes) {
  const double variance = sigma * sigma / passes;
  const int l = std::max(0, int(std::floor((std::sqrt(12.0 * variance + 1.0) - 1.0) / 2.0)));
  const double a = std::clamp(
      (2.0 * l + 1.0) * (l * (l + 1.0) - 3.0 * variance) / (6.0 * (variance - (l + 1.0) * (l + 1.0))), 0.0, 1.0);
  const double norm = 1.0 / (2.0 * l + 1.0 + 2.0 * a);
  qv::blur::Pass1D p;
  p.l = l + 1;
  p.weight = a * norm;
  p.inner = l;
  p.innerWeight = (1.0 - a) * norm;
  qv::blur::SeparablePlan plan;
  plan.horizontal.assign(std::size_t(passes), p);
  plan.vertical = plan.horizontal;
  return plan;
}

void BM_GaussianShape_RGBAf(benchmark::State& state) {
  const double sigma = double(state.range(1));
  renderPlan(state, state.range(0) == 0 ? qv::blur::planGaussianBoxes(sigma) : extendedBoxes(sigma, int(state.range(0))));
}
BENCHMARK(BM_GaussianShape_RGBAf)
    ->ArgNames({"shape", "sigma"})
    ->ArgsProduct({{0, 3, 4, 5}, {20, 100}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(0.3);

}  // namespace

BENCHMARK_MAIN();

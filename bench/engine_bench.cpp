// Engine benchmarks: building a graph (no pixels), and rendering a colour-matrix + source-over
// chain through the tiled renderer.
#include <benchmark/benchmark.h>

#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIVector.h"

namespace {

CIImage source(int w, int h) {
  std::vector<float> px(std::size_t(w) * std::size_t(h) * 4);
  for (std::size_t i = 0; i < px.size(); i += 4) {
    px[i] = float(i % 251) / 251.0f;
    px[i + 1] = float(i % 127) / 127.0f;
    px[i + 2] = 0.5f;
    px[i + 3] = 1.0f;
  }
  return CIImage::imageWithRGBAf(px.data(), std::size_t(w), std::size_t(h));
}

// Ten steps: transforms, crops, a clamp and built-ins by name. Target: under 50 µs.
void BM_BuildTenStepChain(benchmark::State& state) {
  const CIImage img = source(64, 64);
  CIFilter::filterWithName("CIAffineTransform");  // registry warmed up
  for (auto _ : state) {
    CIImage g = img.imageByApplyingTransform(CGAffineTransformMakeScale(0.5, 0.5));
    g = g.imageByApplyingTransform(CGAffineTransformMakeRotation(0.1));
    g = g.imageByCroppingToRect(CGRectMake(1, 1, 30, 30));
    g = g.imageByApplyingTransform(CGAffineTransformMakeTranslation(3, 4));
    g = g.imageByClampingToExtent();
    auto crop = CIFilter::filterWithName("CICrop");
    crop->setDefaults();
    crop->setValue(g, kCIInputImageKey);
    crop->setValue(Value(CIVector::vectorWithX(0, 0, 40, 40)), "inputRectangle");
    g = crop->outputImage();
    auto tf = CIFilter::filterWithName("CIAffineTransform");
    tf->setDefaults();
    tf->setValue(g, kCIInputImageKey);
    tf->setValue(Value(CGAffineTransformMakeScale(2, 2)), kCIInputTransformKey);
    g = tf->outputImage();
    g = g.imageByCroppingToRect(CGRectMake(2, 2, 60, 60));
    g = g.imageByApplyingTransform(CGAffineTransformMakeTranslation(-1, 0));
    auto matrix = CIFilter::filterWithName("CIColorMatrix");
    if (matrix) {
      matrix->setDefaults();
      matrix->setValue(g, kCIInputImageKey);
      g = matrix->outputImage();
    }
    benchmark::DoNotOptimize(g);
  }
}
BENCHMARK(BM_BuildTenStepChain)->Unit(benchmark::kMicrosecond);

// Colour matrix (opacity) + source-over a constant background, 2048 × 2048, RGBAf out.
void BM_RenderMatrixOver(benchmark::State& state) {
  const int n = 2048;
  const CIImage img = source(n, n);
  CIImage g = img;
  if (auto m = CIFilter::filterWithName("CIColorMatrix")) {
    m->setDefaults();
    m->setValue(g, kCIInputImageKey);
    m->setValue(Value(CIVector::vectorWithX(0, 0, 0, 0.7)), "inputAVector");
    g = m->outputImage();
  }
  if (auto over = CIFilter::filterWithName("CISourceOverCompositing")) {
    over->setDefaults();
    over->setValue(g, kCIInputImageKey);
    over->setValue(CIImage::imageWithColor(CIColor::colorWithRed(0.1, 0.2, 0.3)), kCIInputBackgroundImageKey);
    g = over->outputImage();
  }
  CIContextOptions opts;
  opts.threads = int(state.range(0));
  CIContext ctx(opts);
  std::vector<float> out(std::size_t(n) * n * 4);
  for (auto _ : state) {
    ctx.render(g, out.data(), n * 16, CGRectMake(0, 0, n, n), CIRenderFormat::RGBAf);
    benchmark::ClobberMemory();
  }
  state.counters["Mpx/s"] = benchmark::Counter(double(n) * n * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RenderMatrixOver)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// A 4000 × 3000 bitmap downscaled by a transform, RGBA8 out.
void BM_RenderDownscale(benchmark::State& state) {
  const CIImage img = source(4000, 3000).imageByApplyingTransform(CGAffineTransformMakeScale(0.3, 0.3));
  CIContext ctx;
  const CGRect r = CGRectIntegral(img.extent());
  std::vector<std::uint8_t> out(std::size_t(r.size.width * r.size.height * 4));
  for (auto _ : state) ctx.render(img, out.data(), std::ptrdiff_t(r.size.width * 4), r, CIRenderFormat::RGBA8);
}
BENCHMARK(BM_RenderDownscale)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

// The cost of running a kernel: the pass-through kernel over a 24-megapixel image, rendered to
// working floats, against rendering the image itself (the built-in copy). The target is a
// ratio within 1.5x. Applying a pass-through kernel simplifies to the input (black wrap with a
// definition) or its clamped extension; the clamp variant and a copy that the evaluator must
// run are measured too. Also a kernel with real per-pixel arithmetic and a bilinear offset read,
// to show the evaluator's throughput when no shortcut applies.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

#include "CoreImage/CIContext.h"
#include "CoreImage/CIKernel.h"
#include "CoreImage/CISampler.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;  // 24 megapixels

const CIImage& sourceImage() {
  static const CIImage image = [] {
    std::vector<float> px(std::size_t(kWidth) * kHeight * 4);
    for (std::size_t i = 0; i < px.size(); i += 4) {
      float v = float((i / 4) % 997) / 997.0f;
      px[i] = v;
      px[i + 1] = 1.0f - v;
      px[i + 2] = 0.5f;
      px[i + 3] = 1.0f;
    }
    return CIImage::imageWithRGBAf(px.data(), kWidth, kHeight);
  }();
  return image;
}

std::vector<float>& outputBuffer() {
  static std::vector<float> out(std::size_t(kWidth) * kHeight * 4);
  return out;
}

void renderToFloats(benchmark::State& state, const CIImage& image) {
  CIContextOptions options;
  options.colorManagement = false;
  CIContext context(options);
  auto& out = outputBuffer();
  const CGRect bounds = CGRectMake(0, 0, kWidth, kHeight);
  for (auto _ : state) {
    context.render(image, out.data(), std::ptrdiff_t(kWidth) * 4 * sizeof(float), bounds, CIRenderFormat::RGBAf);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.counters["Mpx/s"] = benchmark::Counter(double(kWidth) * kHeight * 1e-6, benchmark::Counter::kIsIterationInvariantRate);
}

CIImage applyKernel(const char* text, const Dictionary& samplerOptions, Array extra = {}) {
  auto kernel = CIKernel::kernelWithString(text);
  auto sampler = CISampler::samplerWithImage(sourceImage(), samplerOptions);
  Array args{Value(sampler)};
  args.insert(args.end(), extra.begin(), extra.end());
  return kernel->apply(args, {{kCIApplyOptionDefinition, Value(CIFilterShape::shapeWithRect(sourceImage().extent()))}});
}

void BM_BuiltinCopy(benchmark::State& state) { renderToFloats(state, sourceImage()); }

void BM_PassThroughKernel(benchmark::State& state) {
  renderToFloats(state, applyKernel("kernel vec4 noOp(sampler image) { return sample(image, samplerCoord(image)); }", {}));
}

void BM_PassThroughKernelClamp(benchmark::State& state) {
  renderToFloats(state, applyKernel("kernel vec4 noOp(sampler image) { return sample(image, samplerCoord(image)); }",
                                    {{kCISamplerWrapMode, kCISamplerWrapClamp}}));
}

// The same copy forced through the evaluator (the multiply keeps it from being recognised as a
// pass-through): one batch of 256 pixels at a time, through planar registers.
void BM_PassThroughKernelEvaluated(benchmark::State& state) {
  renderToFloats(state, applyKernel("kernel vec4 copy(sampler image) { return sample(image, samplerCoord(image)) * 1.0; }", {}));
}

void BM_ArithmeticKernel(benchmark::State& state) {
  renderToFloats(state, applyKernel(R"(
kernel vec4 shade(sampler image, float amount)
{
    vec4 c = sample(image, samplerTransform(image, destCoord() + vec2(0.25, 0.0)));
    float y = dot(c.rgb, vec3(0.2126, 0.7152, 0.0722));
    return vec4(mix(c.rgb, vec3(y), amount), c.a);
})",
                                    {}, {Value(0.5)}));
}

}  // namespace

BENCHMARK(BM_BuiltinCopy)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PassThroughKernel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PassThroughKernelClamp)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PassThroughKernelEvaluated)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ArithmeticKernel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();

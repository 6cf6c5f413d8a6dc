// The adjustment filters of the plug-in with their defaults on a 6000 x 4000 photo, JPEG file
// in and JPEG file out (quality 90), each beside the slowest built-in it runs, given the same
// parameters on the same image (the filter's own work is the graph around that built-in:
// clamps, crops, the pass-through kernel). Target: each filter within 1.5x of its built-in.
// Ratios are in bench/README.md.
//
// The bundle is loaded from QV_BUNDLE_DIR, or from <dir of this program>/../lib/qvfilter/.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIPlugIn.h"
#include "CoreImage/CIVector.h"

namespace {

constexpr std::size_t kWidth = 6000, kHeight = 4000;
const char* const kInput = "/tmp/qv_filters_bench_6000x4000.jpg";
const char* const kOutput = "/tmp/qv_filters_bench_out.jpg";

bool prepare() {
  static const bool ready = [] {
    if (!std::filesystem::exists(kInput)) {
      const auto px = qvbench::photoPixels(kWidth, kHeight);
      const CIImage image = CIImage::imageWithRGBA8(px.data(), kWidth, kHeight, kWidth * 4);
      CIContext().writeToFile(image, kInput, image.extent(), 0.9);
    }
    return qvbench::loadBundle();
  }();
  return ready;
}

CIFilterRef withDefaults(const std::string& name) {
  CIFilterRef f = CIFilter::filterWithName(name);
  if (f) f->setDefaults();
  return f;
}

CIImage outputOf(const CIFilterRef& f) { return f ? f->outputImage() : CIImage(); }

// The plug-in filter with its defaults.
CIImage plugInFilter(const std::string& name, const CIImage& in) {
  CIFilterRef f = withDefaults(name);
  if (!f) return {};
  f->setValue(in, kCIInputImageKey);
  return outputOf(f);
}

// The built-in the filter runs, with the values the filter's defaults give it, cropped.
CIImage builtinFor(const std::string& name, const CIImage& in) {
  CIFilterRef plugIn = withDefaults(name);
  if (!plugIn) return {};
  const CGRect e = in.extent();
  CIFilterRef b;
  auto copy = [&](const char* key) { b->setValue(plugIn->valueForKey(key), key); };
  if (name == "QVFilterPixellate") {
    b = withDefaults("CIPixellate");
    copy(kCIInputCenterKey);
    copy(kCIInputScaleKey);
  } else if (name == "QVFilterBumpDistortion") {
    b = withDefaults("CIBumpDistortion");
    b->setValue(Value(CIVector::vectorWithX(CGRectGetMidX(e), CGRectGetMidY(e))), kCIInputCenterKey);
    copy(kCIInputRadiusKey);
    copy(kCIInputScaleKey);
  } else if (name == "QVFilterZoomBlur") {
    b = withDefaults("CIZoomBlur");
    b->setValue(Value(CIVector::vectorWithX(CGRectGetMidX(e), CGRectGetMidY(e))), kCIInputCenterKey);
    b->setValue(Value(std::floor(plugIn->valueForKey(kCIInputRadiusKey).doubleValue())), "inputAmount");
  } else if (name == "QVFilterBlur") {
    const Value blurName = plugIn->valueForKey("inputBlurFilterName");
    b = withDefaults(blurName.string() ? *blurName.string() : "CIGaussianBlur");
    copy(kCIInputRadiusKey);
  } else {
    static const std::vector<std::pair<std::string, std::string>> colour{
        {"QVFilterColorControls", "CIColorControls"},   {"QVFilterColorMatrix", "CIColorMatrix"},
        {"QVFilterUnsharpMask", "CIUnsharpMask"},       {"QVFilterExposureAdjust", "CIExposureAdjust"},
        {"QVFilterWhitePointAdjust", "CIWhitePointAdjust"}, {"QVFilterGammaAdjust", "CIGammaAdjust"}};
    for (const auto& [filter, builtin] : colour)
      if (filter == name) b = withDefaults(builtin);
    if (!b) return {};
    for (const auto& key : plugIn->inputKeys())
      if (key != kCIInputImageKey) copy(key.c_str());
  }
  if (!b) return {};
  b->setValue(in, kCIInputImageKey);
  return outputOf(b).imageByCroppingToRect(e);
}

void run(benchmark::State& state, const std::string& name, bool plugIn) {
  if (!prepare()) {
    state.SkipWithError("no bundle");
    return;
  }
  const CIContext context;
  for (auto _ : state) {
    const CIImage in = CIImage::imageWithContentsOfFile(kInput);
    const CIImage out = plugIn ? plugInFilter(name, in) : builtinFor(name, in);
    if (!out) {
      state.SkipWithError("no output");
      return;
    }
    context.writeToFile(out, kOutput, in.extent(), 0.9);
  }
  state.counters["Mpx/s"] = benchmark::Counter(double(kWidth * kHeight) / 1e6,
                                               benchmark::Counter::kIsRate | benchmark::Counter::kIsIterationInvariant);
}

const int registered = [] {
  for (const char* name : {"QVFilterPixellate", "QVFilterBumpDistortion", "QVFilterColorControls", "QVFilterColorMatrix",
                           "QVFilterUnsharpMask", "QVFilterExposureAdjust", "QVFilterWhitePointAdjust",
                           "QVFilterGammaAdjust", "QVFilterBlur", "QVFilterZoomBlur"}) {
    const std::string n = name;
    benchmark::RegisterBenchmark((n + "/filter").c_str(), [n](benchmark::State& s) { run(s, n, true); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(2);
    benchmark::RegisterBenchmark((n + "/builtin").c_str(), [n](benchmark::State& s) { run(s, n, false); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(2);
  }
  return 0;
}();

}  // namespace

BENCHMARK_MAIN();

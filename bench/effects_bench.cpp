// The effect filters of the plug-in on a 6000 x 4000 photo, JPEG in and JPEG out (quality 0.9),
// each with its defaults, beside the references they are held to:
//   - a plain decode and encode of the same file (border, reflection, watermark and shine
//     should stay within 1.2x of it);
//   - the slowest built-in each filter uses, run alone on the same file with the same
//     settings (every filter should stay within 1.5x of it).
// The bundle is loaded from QV_BUNDLE_DIR, or from <dir of this program>/../lib/qvfilter/
// QVFilterImageUnits.plugin (build the bundle target first). The input JPEG is written to
// /tmp when the program starts.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "BenchSupport.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIPlugIn.h"
#include "CoreImage/CIVector.h"
#include "ImageIO/ImageIO.h"

namespace {

constexpr std::size_t kWidth = 6000, kHeight = 4000;
const char* const kInput = "/tmp/qv_effects_bench_6000x4000.jpg";

bool prepare() {
  static const bool ready = qvbench::preparePhotoJPEG(kInput, kWidth, kHeight);
  return ready;
}

// A small signature-like watermark, 480 x 140.
CIImage watermark() {
  const std::size_t w = 480, h = 140;
  std::vector<float> px(w * h * 4, 0.0f);
  for (std::size_t y = 0; y < h; ++y)
    for (std::size_t x = 0; x < w; ++x) {
      const bool inside = x > 10 && x < w - 10 && y > 10 && y < h - 10;
      float* p = &px[(y * w + x) * 4];
      p[0] = p[1] = p[2] = p[3] = inside ? 1.0f : 0.0f;
    }
  return CIImage::imageWithRGBAf(px.data(), w, h);
}

CIFilterRef withDefaults(const std::string& name) {
  CIFilterRef f = CIFilter::filterWithName(name);
  if (f) f->setDefaults();
  return f;
}

CIImage run(const std::string& name, const CIImage& input, const std::vector<std::pair<std::string, Value>>& inputs) {
  CIFilterRef f = withDefaults(name);
  if (!f) return {};
  f->setValue(input, kCIInputImageKey);
  for (const auto& [k, v] : inputs) f->setValue(v, k);
  return CIImage::fromValue(f->valueForKey(kCIOutputImageKey));
}

// One case: the graph made from the decoded input, written as JPEG.
template <class MakeGraph>
void jpegToJpeg(benchmark::State& state, MakeGraph make) {
  if (!prepare()) {
    state.SkipWithError("no input or no bundle");
    return;
  }
  const std::string out = "/tmp/qv_effects_bench_out_" + std::to_string(::getpid()) + ".jpg";
  CIContext context;
  for (auto _ : state) {
    const CIImage input = CIImage::imageWithContentsOfFile(kInput);
    const CIImage graph = make(input);
    if (!graph) {
      state.SkipWithError("no output");
      break;
    }
    context.writeToFile(graph, out, graph.extent(), 0.9);
  }
  std::filesystem::remove(out);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kWidth * kHeight));
}

#define QV_EFFECT_BENCH(NAME, ...)                                                                 \
  void NAME(benchmark::State& state) { jpegToJpeg(state, __VA_ARGS__); }                           \
  BENCHMARK(NAME)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.1)

// ---- References ----------------------------------------------------------------------------
QV_EFFECT_BENCH(BM_Copy, [](const CIImage& in) { return in; });
// The slowest built-in of border, reflection and watermark: a masked blend / source-over of the
// whole picture.
QV_EFFECT_BENCH(BM_Builtin_SourceOverColour, [](const CIImage& in) {
  return run("CISourceOverCompositing", in, {{kCIInputBackgroundImageKey, CIImage::imageWithColor(CIColor::colorWithRed(1, 1, 1))}})
      .imageByCroppingToRect(in.extent());
});
QV_EFFECT_BENCH(BM_Builtin_BlendWithMask, [](const CIImage& in) {
  const CGRect e = in.extent();
  return run("CIBlendWithMask", in,
             {{kCIInputBackgroundImageKey, CIImage::imageWithColor(CIColor::colorWithRed(1, 1, 1)).imageByCroppingToRect(e)},
              {kCIInputMaskImageKey, CIImage::imageWithColor(CIColor::colorWithRed(1, 1, 1))
                                         .imageByCroppingToRect(CGRectInset(e, 12, 12))}});
});
// Shine: the gradient over the picture.
QV_EFFECT_BENCH(BM_Builtin_LinearGradientOver, [](const CIImage& in) {
  const CGRect e = in.extent();
  CIFilterRef g = withDefaults("CILinearGradient");
  g->setValue(CIVector::vectorWithX(0, CGRectGetMaxY(e)), "inputPoint0");
  g->setValue(CIVector::vectorWithX(CGRectGetMidX(e), CGRectGetMidY(e)), "inputPoint1");
  g->setValue(CIColor::colorWithRed(1, 1, 1, 0.8), "inputColor0");
  g->setValue(CIColor::colorWithRed(1, 1, 1, 0.05), "inputColor1");
  return run("CISourceOverCompositing", g->outputImage().imageByCroppingToRect(e), {{kCIInputBackgroundImageKey, in}});
});
// Tilt at its default intensity 0.5: the heavy box blur has radius 15.
QV_EFFECT_BENCH(BM_Builtin_BoxBlur15, [](const CIImage& in) {
  return run("CIBoxBlur", in, {{kCIInputRadiusKey, 15.0}}).imageByCroppingToRect(in.extent());
});
// Stereoscopic: a lighten blend of the picture with a colour-matrix layer of it.
QV_EFFECT_BENCH(BM_Builtin_LightenWithMatrix, [](const CIImage& in) {
  const CIImage layer = run("CIColorMatrix", in, {{"inputGVector", CIVector::vectorWithX(0, 0, 0, 0)}});
  return run("CILightenBlendMode", layer, {{kCIInputBackgroundImageKey, in}});
});

// ---- The effect filters with their defaults -------------------------------------------------
QV_EFFECT_BENCH(BM_QVFilterBorder, [](const CIImage& in) { return run("QVFilterBorder", in, {}); });
QV_EFFECT_BENCH(BM_QVFilterBorder_Outside, [](const CIImage& in) {
  return run("QVFilterBorder", in, {{"inputBorderType", 1}});
});
QV_EFFECT_BENCH(BM_QVFilterReflection, [](const CIImage& in) { return run("QVFilterReflection", in, {}); });
QV_EFFECT_BENCH(BM_QVFilterWatermark, [](const CIImage& in) {
  static const CIImage mark = watermark();
  return run("QVFilterWatermark", in, {{"inputWatermarkImage", mark}});
});
QV_EFFECT_BENCH(BM_QVFilterShine, [](const CIImage& in) { return run("QVFilterShine", in, {}); });
QV_EFFECT_BENCH(BM_QVFilterShineStraight, [](const CIImage& in) { return run("QVFilterShineStraight", in, {}); });
QV_EFFECT_BENCH(BM_QVFilterShineCurved, [](const CIImage& in) { return run("QVFilterShineCurved", in, {}); });
QV_EFFECT_BENCH(BM_QVFilterTilt, [](const CIImage& in) { return run("QVFilterTilt", in, {}); });
QV_EFFECT_BENCH(BM_QVFilterStereoscopic, [](const CIImage& in) { return run("QVFilterStereoscopic", in, {}); });

}  // namespace

BENCHMARK_MAIN();

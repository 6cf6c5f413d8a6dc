// The mask and composite filters of the plug-in on a 6000 x 4000 photo, JPEG in and JPEG out
// (quality 0.9), each with its defaults, beside two copies of the same file in the same run:
//   - BM_StreamCopy: decoded strips go straight to the encoder, as `qvfilter convert` does (the
//     whole picture is never in memory): every composite should stay within 1.4x of its time;
//   - BM_Copy: the engine's own decode and encode of the file with no filter, which every
//     filter pays too: the difference to it is what the composite itself costs.
// Every case reports peak_MB, the process's peak resident memory during the case (the peak is
// reset before the case runs), base_MB, what was resident when it started (the bundle, the
// benchmark library), and cpu_s, the CPU time of all the process's threads per iteration, which
// other work on a shared machine disturbs far less than wall time. The texture composite's peak
// should stay within 1.3x of the copy's. Run each case in a process of its own for peaks that
// owe nothing to earlier cases: bench/composite_table.sh does, and prints the table.
// The second texture render (BM_QVFilterTextureComposite_SecondRender) renders a filter object
// that has rendered once already, as an interactive host does on every edit.
//
// The bundle is loaded from QV_BUNDLE_DIR, or from <dir of this program>/../lib/qvfilter/
// QVFilterImageUnits.plugin (build the bundle target first). The input JPEG is written to /tmp
// when the program starts.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "BenchSupport.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "ImageIO/ImageIO.h"

namespace {

constexpr std::size_t kWidth = 6000, kHeight = 4000;
const char* const kInput = "/tmp/qv_composite_bench_6000x4000.jpg";

bool prepare() {
  static const bool ready = qvbench::preparePhotoJPEG(kInput, kWidth, kHeight);
  return ready;
}

// A "VmRSS:" or "VmHWM:" line of /proc/self/status, in MB.
double statusMB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(field, 0) == 0) return std::stod(line.substr(std::string(field).size())) / 1024.0;
  return 0;
}

// Gives freed memory back to the system and starts a new peak from what is resident now.
double resetPeak() {
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << "5";
  return statusMB("VmRSS:");
}

// User and system CPU time of every thread of the process so far, in seconds.
double processCPUSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) * 1e-6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void reportMemory(benchmark::State& state, double base) {
  state.counters["base_MB"] = base;
  state.counters["peak_MB"] = statusMB("VmHWM:");
}

void reportCPU(benchmark::State& state, double cpuBefore) {
  state.counters["cpu_s"] = (processCPUSeconds() - cpuBefore) / double(std::max<std::int64_t>(1, state.iterations()));
}

std::string outputPath() { return "/tmp/qv_composite_bench_out_" + std::to_string(::getpid()) + ".jpg"; }

CIFilterRef filterWithDefaults(const std::string& name) {
  CIFilterRef f = CIFilter::filterWithName(name);
  if (f) f->setDefaults();
  return f;
}

void BM_StreamCopy(benchmark::State& state) {
  if (!prepare()) return state.SkipWithError("no input or no bundle");
  const std::string out = outputPath();
  const double base = resetPeak();
  const double cpu = processCPUSeconds();
  for (auto _ : state) {
    CGImageSourceRef source = CGImageSourceCreateWithURL(kInput);
    CGImageDestinationRef dest = CGImageDestinationCreateWithURL(out, kUTTypeJPEG);
    bool begun = false, ok = source && dest;
    if (ok)
      ok = CGImageSourceDecodeStripsAtIndex(source, 0, [&](const CGImageSourceStrip& s) {
        if (!begun) {
          begun = true;
          if (!CGImageDestinationBeginImage(dest, s.width, s.height, s.bitsPerComponent, false,
                                            {{kCGImageDestinationLossyCompressionQuality, 0.9}}))
            return false;
        }
        return CGImageDestinationWriteRows(dest, s.rows, s.bytesPerRow, s.rowCount);
      });
    if (!ok || !CGImageDestinationFinalize(dest)) {
      state.SkipWithError("stream copy failed");
      break;
    }
  }
  reportCPU(state, cpu);
  reportMemory(state, base);
  std::filesystem::remove(out);
}

// The file decoded into the engine, through `filter` with its defaults (none: the copy) and
// written as JPEG. With `renderTwice`, each iteration renders a filter that has rendered once
// before the timing started.
void filterToJpeg(benchmark::State& state, const std::string& filter, bool renderTwice = false) {
  if (!prepare()) return state.SkipWithError("no input or no bundle");
  const std::string out = outputPath();
  CIContext context;
  CIFilterRef f;
  if (!filter.empty() && !(f = filterWithDefaults(filter))) return state.SkipWithError("no such filter");
  if (renderTwice) {
    f->setValue(CIImage::imageWithContentsOfFile(kInput), kCIInputImageKey);
    const CIImage first = f->outputImage();
    context.writeToFile(first, out, first.extent(), 0.9);
  }
  const double base = resetPeak();
  const double cpu = processCPUSeconds();
  for (auto _ : state) {
    const CIImage input = CIImage::imageWithContentsOfFile(kInput);
    CIImage graph = input;
    if (f) {
      f->setValue(input, kCIInputImageKey);
      graph = f->outputImage();
    }
    if (!graph) {
      state.SkipWithError("no output");
      break;
    }
    context.writeToFile(graph, out, graph.extent(), 0.9);
  }
  reportCPU(state, cpu);
  reportMemory(state, base);
  std::filesystem::remove(out);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kWidth * kHeight));
}

#define QV_COMPOSITE_BENCH(NAME, ...)                                                    \
  void NAME(benchmark::State& state) { filterToJpeg(state, __VA_ARGS__); }               \
  BENCHMARK(NAME)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.1)

BENCHMARK(BM_StreamCopy)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(0.1);
QV_COMPOSITE_BENCH(BM_Copy, "");
QV_COMPOSITE_BENCH(BM_QVFilterColorComposite, "QVFilterColorComposite");
QV_COMPOSITE_BENCH(BM_QVFilterBlurComposite, "QVFilterBlurComposite");
QV_COMPOSITE_BENCH(BM_QVFilterNoiseComposite, "QVFilterNoiseComposite");
QV_COMPOSITE_BENCH(BM_QVFilterTextureComposite, "QVFilterTextureComposite");
QV_COMPOSITE_BENCH(BM_QVFilterTextureComposite_SecondRender, "QVFilterTextureComposite", true);
QV_COMPOSITE_BENCH(BM_QVFilterTextureTile, "QVFilterTextureTile");
QV_COMPOSITE_BENCH(BM_QVFilterTextureBorder, "QVFilterTextureBorder");
QV_COMPOSITE_BENCH(BM_QVFilterGradientComposite, "QVFilterGradientComposite");
QV_COMPOSITE_BENCH(BM_QVFilterOffsetComposite, "QVFilterOffsetComposite");
QV_COMPOSITE_BENCH(BM_QVFilterScaleComposite, "QVFilterScaleComposite");

}  // namespace

BENCHMARK_MAIN();

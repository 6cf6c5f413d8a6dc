// Decoding benchmarks: full and streaming decodes and bounded thumbnails of a 6000x4000 Q90
// JPEG (written to /tmp when the program starts), PNG decode, the resampler and orientation;
// and the conversions between 8-bit pixels and the working format, scalar against vector.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "CoreImage/Render/PixelConvert.h"
#include "ImageIO/ImageIO.h"

namespace {

std::vector<std::uint8_t> encodeToFile(const CGImageRef& image, const std::string& path, const char* type) {
  auto dest = CGImageDestinationCreateWithURL(path, type);
  if (!dest || !CGImageDestinationAddImage(dest, image, {{kCGImageDestinationLossyCompressionQuality, 0.9}}) ||
      !CGImageDestinationFinalize(dest)) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(1);
  }
  std::ifstream in(path, std::ios::binary);
  return std::vector<std::uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

const std::vector<std::uint8_t>& bigJPEG() {
  static const std::vector<std::uint8_t> bytes = encodeToFile(qvbench::photoImage(6000, 4000), "/tmp/qv_bench_6000x4000.jpg", kUTTypeJPEG);
  return bytes;
}

const std::vector<std::uint8_t>& texturePNG() {
  static const std::vector<std::uint8_t> bytes = encodeToFile(qvbench::photoImage(2048, 1365), "/tmp/qv_bench_2048x1365.png", kUTTypePNG);
  return bytes;
}

void BM_JPEGFullDecode(benchmark::State& state) {
  auto source = CGImageSourceCreateWithData(bigJPEG());
  for (auto _ : state) {
    CGImageRef image = CGImageSourceCreateImageAtIndex(source, 0);
    benchmark::DoNotOptimize(image);
  }
  state.SetItemsProcessed(state.iterations() * 6000 * 4000);
}
BENCHMARK(BM_JPEGFullDecode)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_JPEGStripDecode(benchmark::State& state) {
  auto source = CGImageSourceCreateWithData(bigJPEG());
  for (auto _ : state) {
    std::uint64_t sum = 0;
    CGImageSourceDecodeStripsAtIndex(source, 0, [&](const CGImageSourceStrip& s) {
      sum += s.rows[0];
      return true;
    });
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * 6000 * 4000);
}
BENCHMARK(BM_JPEGStripDecode)->Unit(benchmark::kMillisecond)->UseRealTime();

// Thumbnail with the larger side state.range(0): DCT-scaled decode plus the Lanczos finish.
void BM_JPEGThumbnail(benchmark::State& state) {
  auto source = CGImageSourceCreateWithData(bigJPEG());
  const Dictionary options{{kCGImageSourceThumbnailMaxPixelSize, Value::integer(state.range(0))},
                           {kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)},
                           {kCGImageSourceCreateThumbnailFromImageIfAbsent, Value::boolean(true)}};
  for (auto _ : state) {
    CGImageRef image = CGImageSourceCreateThumbnailAtIndex(source, 0, options);
    benchmark::DoNotOptimize(image);
  }
  state.SetItemsProcessed(state.iterations() * 6000 * 4000);
}
BENCHMARK(BM_JPEGThumbnail)->Arg(1000)->Arg(600)->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PNGDecode(benchmark::State& state) {
  auto source = CGImageSourceCreateWithData(texturePNG());
  for (auto _ : state) {
    CGImageRef image = CGImageSourceCreateImageAtIndex(source, 0);
    benchmark::DoNotOptimize(image);
  }
  state.SetItemsProcessed(state.iterations() * 2048 * 1365);
}
BENCHMARK(BM_PNGDecode)->Unit(benchmark::kMillisecond)->UseRealTime();

// The resampler alone: 1500x1000 (a 1/4 DCT decode) to 1000x667, and a PNG-sized 4:1 reduce.
void BM_Scale(benchmark::State& state) {
  const auto w = static_cast<std::size_t>(state.range(0)), h = w * 2 / 3;
  const CGImageRef source = qvbench::photoImage(w, h);
  const std::size_t outW = static_cast<std::size_t>(state.range(1)), outH = outW * 2 / 3;
  for (auto _ : state) {
    CGImageRef image = CGImageCreateScaled(source, outW, outH);
    benchmark::DoNotOptimize(image);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(w * h));
}
BENCHMARK(BM_Scale)->Args({1500, 1000})->Args({2048, 512})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Orientation6(benchmark::State& state) {
  const CGImageRef source = qvbench::photoImage(1500, 1000);
  for (auto _ : state) {
    CGImageRef image = CGImageCreateByApplyingOrientation(source, 6);
    benchmark::DoNotOptimize(image);
  }
  state.SetItemsProcessed(state.iterations() * 1500 * 1000);
}
BENCHMARK(BM_Orientation6)->Unit(benchmark::kMillisecond)->UseRealTime();

// ---- 8-bit pixels <-> working floats, one row of a 256-pixel-wide tile at a time ----
//
// Arguments: vector (1) or scalar (0) code; opaque (1) or translucent (0) pixels; colour
// management on (1) or off (0). The ns_per_pixel counter is the time of one pixel.

constexpr std::size_t kConvertPixels = 256 * 256;

std::vector<std::uint8_t> convertBytes(bool opaque) {
  std::vector<std::uint8_t> px(kConvertPixels * 4);
  std::mt19937 rng(11);
  for (std::size_t i = 0; i < px.size(); i += 4) {
    const std::uint32_t v = rng();
    px[i] = std::uint8_t(v);
    px[i + 1] = std::uint8_t(v >> 8);
    px[i + 2] = std::uint8_t(v >> 16);
    px[i + 3] = opaque ? 255 : std::uint8_t(v >> 24);
  }
  return px;
}

void setPixelCounters(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * std::int64_t(kConvertPixels));
  state.counters["ns_per_pixel"] = benchmark::Counter(double(kConvertPixels) * 1e-9,
                                                      benchmark::Counter::kIsIterationInvariantRate |
                                                          benchmark::Counter::kInvert);
}

void BM_DecodeStraightRGBA8(benchmark::State& state) {
  const bool vector = state.range(0) != 0, managed = state.range(2) != 0;
  const std::vector<std::uint8_t> src = convertBytes(state.range(1) != 0);
  std::vector<float> dst(kConvertPixels * 4);
  for (auto _ : state) {
    for (std::size_t row = 0; row < kConvertPixels; row += 256) {
      if (vector)
        qvpixel::decodeStraightRGBA8(src.data() + 4 * row, dst.data() + 4 * row, 256, managed);
      else
        qvpixel::decodeStraightRGBA8Scalar(src.data() + 4 * row, dst.data() + 4 * row, 256, managed);
    }
    benchmark::DoNotOptimize(dst.data());
  }
  setPixelCounters(state);
}
BENCHMARK(BM_DecodeStraightRGBA8)
    ->ArgNames({"vector", "opaque", "managed"})
    ->Args({0, 1, 1})->Args({1, 1, 1})->Args({0, 0, 1})->Args({1, 0, 1})->Args({0, 1, 0})->Args({1, 1, 0});

void BM_EncodeStraightRGBA8(benchmark::State& state) {
  const bool vector = state.range(0) != 0, managed = state.range(2) != 0;
  std::vector<float> src(kConvertPixels * 4);
  qvpixel::decodeStraightRGBA8Scalar(convertBytes(state.range(1) != 0).data(), src.data(), kConvertPixels, managed);
  std::vector<std::uint8_t> dst(kConvertPixels * 4);
  for (auto _ : state) {
    for (std::size_t row = 0; row < kConvertPixels; row += 256) {
      if (vector)
        qvpixel::encodeStraightRGBA8(src.data() + 4 * row, dst.data() + 4 * row, 256, managed);
      else
        qvpixel::encodeStraightRGBA8Scalar(src.data() + 4 * row, dst.data() + 4 * row, 256, managed);
    }
    benchmark::DoNotOptimize(dst.data());
  }
  setPixelCounters(state);
}
BENCHMARK(BM_EncodeStraightRGBA8)
    ->ArgNames({"vector", "opaque", "managed"})
    ->Args({0, 1, 1})->Args({1, 1, 1})->Args({0, 0, 1})->Args({1, 0, 1})->Args({0, 1, 0})->Args({1, 1, 0});

}  // namespace

BENCHMARK_MAIN();

// Texture library benchmarks: a 4000x3000 JPEG texture asked for at {1000, 800} against a
// full decode (time and decoded bytes), a repeated request for the same hint (a cache hit
// that decodes nothing), and the first request for a texture of the index (at most one index
// parse per process). A fixture bundle is written to /tmp when the program starts.
//
// Counters: decoded_MB = bytes of the decoded bitmap per iteration; dct_scale_denominator = the
// JPEG reduction the decode used (1, 2, 4 or 8); decodes = decodes per iteration;
// index_parses_per_iteration = index parses per fresh store state.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>

#include "Foundation/NSBundle.h"
#include "Foundation/PropertyList.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "ImageIO/ImageIO.h"
#include "Textures/_QVFilterTextureImageProvider.h"
#include "Textures/_QVFilterTextureStore.h"

namespace {

namespace fs = std::filesystem;

struct Fixture {
  fs::path dir;
  std::string file;
  std::shared_ptr<NSBundle> bundle;
  NSURLRef identifier;

  Fixture() {
    dir = fs::temp_directory_path() / ("qv-textures-bench-" + std::to_string(::getpid()));
    fs::create_directories(dir / "Resources" / "Textures");
    file = (dir / "Resources" / "Textures" / "big.jpg").string();
    auto image = CGImageCreateBlank(4000, 3000);
    std::uint32_t s = 2463534242u;
    for (std::size_t y = 0; y < 3000; ++y)
      for (std::size_t x = 0; x < 4000; ++x) {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        // Smooth shading with a fine grain, as the collection's photographic textures have.
        std::uint8_t* p = image->row(y) + x * 4;
        const int grain = int(s & 7) - 4;
        p[0] = std::uint8_t(std::clamp(60 + int(x) / 24 + grain, 0, 255));
        p[1] = std::uint8_t(std::clamp(50 + int(y) / 16 + grain, 0, 255));
        p[2] = std::uint8_t(std::clamp(90 + int((x + y) % 700) / 6 + grain, 0, 255));
        p[3] = 255;
      }
    auto dest = CGImageDestinationCreateWithURL(file, kUTTypeJPEG);
    if (!dest || !CGImageDestinationAddImage(dest, image, {{kCGImageDestinationLossyCompressionQuality, 0.9}}) ||
        !CGImageDestinationFinalize(dest)) {
      std::fprintf(stderr, "cannot write %s\n", file.c_str());
      std::exit(1);
    }
    writePropertyList(Value(Dictionary{{"CFBundleIdentifier", QVFilterImageUnitsBundleIdentifier}}),
                      (dir / "Info.plist").string());
    writePropertyList(Value(Dictionary{{"textures", Value(Dictionary{{"big", Value(Dictionary{
                                                                                 {"fileName", "big.jpg"},
                                                                                 {"tags", Value(Array{"tile"})}})}})}}),
                      (dir / "Resources" / "TextureIndex.plist").string());
    bundle = std::make_shared<NSBundle>(dir.string(), propertyListFromFile((dir / "Info.plist").string()));
    _QVFilterTextureStore::_resetForTesting(bundle);
    identifier = NSURL::URLWithString(_QVFilterTextureStore::_textureIdentifierWithKey("big"));
  }
  ~Fixture() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

// The provider's decode of the fixture at a hint: the bitmap's bytes and the JPEG DCT scale
// denominator that ImageIO chose for it.
void decodeAtHint(benchmark::State& state, CGSize hint) {
  auto source = CGImageSourceCreateWithURL(fixture().file);
  _QVFilterTextureImageProvider provider(source, hint);
  std::size_t bytes = 0;
  for (auto _ : state) {
    CGImageRef bitmap = provider._faultBitmap();
    bytes = bitmap->bytesPerRow * bitmap->height;
    benchmark::DoNotOptimize(bitmap);
  }
  state.counters["decoded_MB"] = double(bytes) / 1e6;
  state.counters["dct_scale_denominator"] = double(
      CGImageSourceCopyPropertiesAtIndex(source, 0, {{kQVDecodeScaleDenominator, 1}})[kQVDecodeScaleDenominator]
          .integerValue());
}

// The provider's decode at the hint (what a render of the texture costs): 4000 / 4 = 1000, so
// the DCT-domain 1/4 reduction gives 1000x750 at once and no resampling is left to do.
void BM_TextureDecodeAtHint_1000x800(benchmark::State& state) { decodeAtHint(state, CGSizeMake(1000, 800)); }
BENCHMARK(BM_TextureDecodeAtHint_1000x800)->Unit(benchmark::kMillisecond);

// The cheapest decode of the same file: the 1/8 reduction, where the JPEG decoder needs only
// each block's DC coefficient and skips all inverse-transform work on the others. What is left
// is reading the entropy-coded data of the whole file, which no reduction avoids: the floor of
// any bounded decode of this file.
void BM_TextureDecodeAtHint_500x400(benchmark::State& state) { decodeAtHint(state, CGSizeMake(500, 400)); }
BENCHMARK(BM_TextureDecodeAtHint_500x400)->Unit(benchmark::kMillisecond);

// The same texture decoded whole (hint {0, 0}): the reference for the two ratios.
void BM_TextureDecodeFull(benchmark::State& state) { decodeAtHint(state, CGSizeMake(0, 0)); }
BENCHMARK(BM_TextureDecodeFull)->Unit(benchmark::kMillisecond);

// A repeated request for the same hint: served from the per-texture cache, no decode.
void BM_TextureStoreCacheHit(benchmark::State& state) {
  Fixture& f = fixture();
  if (!_QVFilterTextureStore::imageForTextureIdentifier(f.identifier, CGSizeMake(1000, 800))) {
    state.SkipWithError("no texture image");
    return;
  }
  const std::uint64_t before = _QVFilterTextureImageProvider::decodeCount();
  for (auto _ : state) {
    CIImage image = _QVFilterTextureStore::imageForTextureIdentifier(f.identifier, CGSizeMake(1000, 800));
    benchmark::DoNotOptimize(image);
  }
  state.counters["decodes"] = double(_QVFilterTextureImageProvider::decodeCount() - before);
}
BENCHMARK(BM_TextureStoreCacheHit);

// The first request of a texture from the index, in a fresh store state each time (index
// parse + lookup + image creation; nothing decoded). index_parses must equal iterations:
// one parse per fresh process state, never more.
void BM_TextureStoreFirstRequest(benchmark::State& state) {
  Fixture& f = fixture();
  const std::size_t before = _QVFilterTextureStore::_indexLoadCount();
  for (auto _ : state) {
    _QVFilterTextureStore::_resetForTesting(f.bundle);
    CIImage image = _QVFilterTextureStore::imageForTextureIdentifier(f.identifier, CGSizeMake(1000, 800));
    CIImage again = _QVFilterTextureStore::imageForTextureIdentifier(f.identifier, CGSizeMake(500, 400));
    benchmark::DoNotOptimize(image);
    benchmark::DoNotOptimize(again);
  }
  state.counters["index_parses_per_iteration"] =
      double(_QVFilterTextureStore::_indexLoadCount() - before) / double(state.iterations());
}
BENCHMARK(BM_TextureStoreFirstRequest)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

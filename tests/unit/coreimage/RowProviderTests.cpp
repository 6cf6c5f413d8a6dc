// Images whose rows a provider hands out on demand: they render exactly as the same pixels in
// memory (8-bit, 16-bit and float rows, through a blur, on several threads, in small tiles and
// through the 8-bit shortcut), each band is asked once while the budget holds it, a reader
// thread fetches the bands below the latest request, a budget smaller than the image still
// gives the right rows, and a provider's failure fails the render with its message.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>

#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/Render/RowBands.h"
#include "RenderSupport.h"

namespace {

// Straight, encoded 8-bit RGBA with every alpha from 0 to 255 somewhere, and colours that vary
// by row and column (row 0 = top).
std::vector<std::uint8_t> eightBitPixels(std::size_t w, std::size_t h, bool opaque) {
  std::vector<std::uint8_t> px(w * h * 4);
  for (std::size_t y = 0; y < h; ++y)
    for (std::size_t x = 0; x < w; ++x) {
      std::uint8_t* p = &px[(y * w + x) * 4];
      p[0] = std::uint8_t(x * 7 + y);
      p[1] = std::uint8_t(y * 5 + x / 3);
      p[2] = std::uint8_t((x * y) % 251);
      p[3] = opaque ? 255 : std::uint8_t((x + y * w) % 256);
    }
  return px;
}

// Serves rows of a buffer in memory, `bytesPerPixel` per pixel, and records every request.
class BufferRows final : public CIImageRowProvider {
 public:
  BufferRows(std::vector<std::uint8_t> bytes, std::size_t width, std::size_t bytesPerPixel)
      : bytes_(std::move(bytes)), rowBytes_(width * bytesPerPixel) {}
  void provideRows(void* rows, std::size_t rowBytes, std::size_t first, std::size_t count) override {
    {
      std::lock_guard lock(mutex);
      requests.push_back({first, count});
      threads.push_back(std::this_thread::get_id());
      if (failAt >= 0 && std::size_t(failAt) >= first && std::size_t(failAt) < first + count)
        throw std::runtime_error("cannot read row " + std::to_string(failAt) + " of the source");
    }
    if (delay.count() > 0) std::this_thread::sleep_for(delay);
    for (std::size_t r = 0; r < count; ++r)
      std::memcpy(static_cast<std::uint8_t*>(rows) + r * rowBytes, bytes_.data() + (first + r) * rowBytes_, rowBytes_);
  }
  std::size_t requestCount() {
    std::lock_guard lock(mutex);
    return requests.size();
  }

  std::mutex mutex;
  std::vector<std::pair<std::size_t, std::size_t>> requests;
  std::vector<std::thread::id> threads;
  long failAt = -1;
  std::chrono::milliseconds delay{0};

 private:
  std::vector<std::uint8_t> bytes_;
  std::size_t rowBytes_;
};

CIImage blurred(const CIImage& image, double radius) {
  auto blur = CIFilter::filterWithName("CIGaussianBlur");
  blur->setDefaults();
  blur->setValue(Value(image), kCIInputImageKey);
  blur->setValue(Value(radius), "inputRadius");
  return blur->outputImage();
}

}  // namespace

TEST(RowProvider, EightBitRowsRenderAsTheSameBitmapInMemory) {
  const std::size_t w = 173, h = 301;
  for (bool opaque : {false, true}) {
    const auto px = eightBitPixels(w, h, opaque);
    auto rows = std::make_shared<BufferRows>(px, w, 4);
    CIRowProviderOptions options;
    options.bandRows = 16;
    options.opaque = opaque;
    const CIImage image = CIImage::imageWithRowProvider(rows, w, h, options);
    const CIImage memory = CIImage::imageWithRGBA8(px.data(), w, h, w * 4);
    ASSERT_EQ(image.extent(), CGRectMake(0, 0, double(w), double(h)));
    EXPECT_EQ(rows->requestCount(), 0u);  // nothing asked while building
    for (bool managed : {true, false}) {
      for (int threads : {1, 2, 4}) {
        SCOPED_TRACE(testing::Message() << "opaque " << opaque << " managed " << managed << " threads " << threads);
        EXPECT_TRUE(bitwiseEqual(renderRGBAf(image, image.extent(), renderOptions(threads, 32, managed)),
                                 renderRGBAf(memory, memory.extent(), renderOptions(threads, 32, managed))));
        // A part of it, and through a blur that reads beyond each tile.
        const CGRect part = CGRectMake(20, 33, 101, 190);
        EXPECT_TRUE(bitwiseEqual(renderRGBAf(image, part, renderOptions(threads, 32, managed)),
                                 renderRGBAf(memory, part, renderOptions(threads, 32, managed))));
        EXPECT_TRUE(bitwiseEqual(renderRGBAf(blurred(image, 6), image.extent(), renderOptions(threads, 32, managed)),
                                 renderRGBAf(blurred(memory, 6), memory.extent(), renderOptions(threads, 32, managed))));
        // The 8-bit render writes the stored rows without working floats: the same bytes.
        EXPECT_EQ(renderRGBA8(image, part, renderOptions(threads, 32, managed)),
                  renderRGBA8(memory, part, renderOptions(threads, 32, managed)));
      }
    }
  }
}

TEST(RowProvider, SixteenBitAndFloatRowsDecodeAsTheirBitmaps) {
  const std::size_t w = 61, h = 47;
  // 16-bit: each 8-bit value v as v * 257, which decodes to the same fraction of full scale.
  const auto px8 = eightBitPixels(w, h, false);
  std::vector<std::uint8_t> px16(w * h * 8);
  for (std::size_t i = 0; i < w * h * 4; ++i) {
    const std::uint16_t v = std::uint16_t(px8[i] * 257);
    std::memcpy(&px16[i * 2], &v, 2);
  }
  CIRowProviderOptions options;
  options.format = CIRowFormat::RGBA16;
  options.bandRows = 8;
  const CIImage sixteen = CIImage::imageWithRowProvider(std::make_shared<BufferRows>(px16, w, 8), w, h, options);
  const CIImage eight = CIImage::imageWithRGBA8(px8.data(), w, h, w * 4);
  for (bool managed : {true, false})
    EXPECT_LE(maxAbsDifference(renderRGBAf(sixteen, sixteen.extent(), renderOptions(2, 16, managed)),
                               renderRGBAf(eight, eight.extent(), renderOptions(2, 16, managed))),
              1e-6f);

  // Float rows are working floats, taken as they are.
  const auto floats = makeTestPixels(int(w), int(h), 3, true);
  std::vector<std::uint8_t> bytes(floats.size() * 4);
  std::memcpy(bytes.data(), floats.data(), bytes.size());
  options.format = CIRowFormat::RGBAf;
  const CIImage rows = CIImage::imageWithRowProvider(std::make_shared<BufferRows>(bytes, w, 16), w, h, options);
  const CIImage memory = CIImage::imageWithRGBAf(floats.data(), w, h);
  for (bool managed : {true, false})
    EXPECT_TRUE(bitwiseEqual(renderRGBAf(rows, rows.extent(), renderOptions(2, 16, managed)),
                             renderRGBAf(memory, memory.extent(), renderOptions(2, 16, managed))));
}

TEST(RowProvider, EveryBandIsAskedOnceWhileTheBudgetHoldsIt) {
  const std::size_t w = 200, h = 250;
  auto rows = std::make_shared<BufferRows>(eightBitPixels(w, h, true), w, 4);
  CIRowProviderOptions options;
  options.bandRows = 64;
  const CIImage image = CIImage::imageWithRowProvider(rows, w, h, options);
  // A blur reads each band from several tiles and threads, with margins across band edges.
  renderRGBAf(blurred(image, 9), image.extent(), renderOptions(2, 32, true));
  std::map<std::size_t, int> asked;
  for (const auto& [first, count] : rows->requests) {
    EXPECT_EQ(first % 64, 0u);
    EXPECT_EQ(count, std::min<std::size_t>(64, h - first));
    ++asked[first];
  }
  EXPECT_EQ(asked.size(), 4u);  // rows 0, 64, 128, 192
  for (const auto& [first, times] : asked) EXPECT_EQ(times, 1) << "band at row " << first;
}

TEST(RowProvider, ABudgetSmallerThanTheImageStillGivesItsRows) {
  const std::size_t w = 128, h = 400;
  const auto px = eightBitPixels(w, h, false);
  auto rows = std::make_shared<BufferRows>(px, w, 4);
  CIRowProviderOptions options;
  options.bandRows = 8;
  options.budgetBytes = 6 * 8 * w * 4;  // six bands of fifty
  const CIImage image = CIImage::imageWithRowProvider(rows, w, h, options);
  const CIImage memory = CIImage::imageWithRGBA8(px.data(), w, h, w * 4);
  // Flipped, so that the tiles read the rows bottom-up, against the read-ahead's direction.
  const CGAffineTransform flip = CGAffineTransformMake(1, 0, 0, -1, 0, double(h));
  for (const auto& [a, b] : {std::pair{image, memory}, std::pair{image.imageByApplyingTransform(flip),
                                                                  memory.imageByApplyingTransform(flip)}})
    EXPECT_TRUE(bitwiseEqual(renderRGBAf(blurred(a, 5), a.extent(), renderOptions(2, 16, true)),
                             renderRGBAf(blurred(b, 5), b.extent(), renderOptions(2, 16, true))));
  EXPECT_GT(rows->requestCount(), 2 * 50u);  // bands evicted and asked again
}

TEST(RowProvider, TheBandsAreSharedByThreadsReadingAnyRows) {
  const std::size_t w = 33, h = 500;
  const auto px = eightBitPixels(w, h, false);
  auto rows = std::make_shared<BufferRows>(px, w, 4);
  const RowBands bands(rows, h, w * 4, 7, 10 * 7 * w * 4, true);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 random(t + 1);
      for (int i = 0; i < 300; ++i) {
        const std::size_t first = random() % h, count = 1 + random() % std::min<std::size_t>(40, h - first);
        std::size_t expected = first;
        bands.forEachRow(first, count, [&](std::size_t row, const std::uint8_t* p) {
          if (row != expected++ || std::memcmp(p, px.data() + row * w * 4, w * 4) != 0) ++wrong;
        });
        if (expected != first + count) ++wrong;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_THROW(bands.forEachRow(495, 6, [](std::size_t, const std::uint8_t*) {}), CIRenderError);
  // The budget grows to twice the largest request (7 bands), and a band may be stored before
  // the least recent one goes.
  EXPECT_LE(bands.stats().peakBytes, std::size_t(15 * 7 * w * 4));
}

TEST(RowProvider, AReaderThreadFetchesTheBandsBelowTheLatestRequest) {
  const std::size_t w = 16, h = 640;
  for (bool readAhead : {true, false}) {
    auto rows = std::make_shared<BufferRows>(eightBitPixels(w, h, true), w, 4);
    rows->delay = std::chrono::milliseconds(1);
    const RowBands bands(rows, h, w * 4, 64, 1 << 20, readAhead);
    bands.forEachRow(0, 10, [](std::size_t, const std::uint8_t*) {});
    // Within the budget's half the reader fetches every band below band 0 by itself.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (readAhead && rows->requestCount() < 10 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (!readAhead) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(rows->requestCount(), readAhead ? 10u : 1u);
    std::size_t others = 0;
    for (const auto& id : rows->threads) others += id != std::this_thread::get_id();
    EXPECT_EQ(others, readAhead ? 9u : 0u);
    // What the reader fetched is read without asking again.
    bands.forEachRow(100, 500, [](std::size_t, const std::uint8_t*) {});
    EXPECT_EQ(rows->requestCount(), 10u);
    EXPECT_EQ(bands.stats().fetchedAhead, readAhead ? 9u : 0u);
  }
}

TEST(RowProvider, AProvidersFailureFailsTheRenderWithItsMessage) {
  const std::size_t w = 90, h = 300;
  auto rows = std::make_shared<BufferRows>(eightBitPixels(w, h, true), w, 4);
  rows->failAt = 130;
  CIRowProviderOptions options;
  options.bandRows = 32;
  const CIImage image = CIImage::imageWithRowProvider(rows, w, h, options);
  for (int threads : {1, 2}) {
    try {
      renderRGBAf(blurred(image, 4), image.extent(), renderOptions(threads, 32, true));
      ADD_FAILURE() << "the render succeeded";
    } catch (const std::exception& e) {
      EXPECT_NE(std::string(e.what()).find("cannot read row 130 of the source"), std::string::npos) << e.what();
    }
  }
  // Rows the failing band does not hold still render.
  EXPECT_NO_THROW(renderRGBAf(image, CGRectMake(0, 0, double(w), 100), renderOptions(1, 32, true)));
}

TEST(RowProvider, NilAndEmpty) {
  EXPECT_TRUE(CIImage::imageWithRowProvider(nullptr, 10, 10).isNil());
  auto rows = std::make_shared<BufferRows>(std::vector<std::uint8_t>{}, 0, 4);
  EXPECT_TRUE(CGRectIsEmpty(CIImage::imageWithRowProvider(rows, 0, 10).extent()));
  EXPECT_TRUE(CIImage::imageWithRowProvider(rows, std::size_t{1} << 41, 10).isNil());
}

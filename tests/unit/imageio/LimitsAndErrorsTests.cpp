// Limits checked from headers before any allocation, and damaged files refused with a
// message rather than a crash.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <filesystem>

#include "ImageIOTestSupport.h"

using namespace imageio_test;

namespace {

CGImageRef noise(std::size_t w, std::size_t h) {
  std::uint32_t state = 12345;
  return makeImage(w, h, false, [&](std::size_t, std::size_t) {
    state = state * 1664525u + 1013904223u;
    return std::array<std::uint8_t, 4>{static_cast<std::uint8_t>(state >> 24), static_cast<std::uint8_t>(state >> 16),
                                       static_cast<std::uint8_t>(state >> 8), 255};
  });
}

// Restores the process-wide pixel limit when a test ends.
struct PixelLimitGuard {
  std::uint64_t saved = CGImageSourceGetMaximumPixelCount();
  ~PixelLimitGuard() { CGImageSourceSetMaximumPixelCount(saved); }
};

// Finds the SOF0/SOF2 segment of a JPEG and rewrites its height and width.
Bytes withJPEGSize(Bytes jpg, std::uint16_t w, std::uint16_t h) {
  for (std::size_t i = 2; i + 9 < jpg.size(); ++i) {
    if (jpg[i] == 0xff && (jpg[i + 1] == 0xc0 || jpg[i + 1] == 0xc2)) {
      jpg[i + 5] = static_cast<std::uint8_t>(h >> 8);
      jpg[i + 6] = static_cast<std::uint8_t>(h);
      jpg[i + 7] = static_cast<std::uint8_t>(w >> 8);
      jpg[i + 8] = static_cast<std::uint8_t>(w);
      return jpg;
    }
  }
  return {};
}

}  // namespace

TEST(ImageIOLimits, DefaultPixelLimit) { EXPECT_EQ(CGImageSourceGetMaximumPixelCount(), 268'435'456u); }

TEST(ImageIOLimits, HugePNGHeaderIsRefusedWithoutAllocating) {
  // IHDR claims 100000 x 100000 RGBA (40 GB decoded); the data holds one row.
  Bytes png = pngSignature();
  pngChunk(png, "IHDR", ihdr(100000, 100000, 8, 6));
  pngChunk(png, "IDAT", zlibStored(Bytes(400001, 0)));
  pngChunk(png, "IEND", {});
  auto src = CGImageSourceCreateWithData(png);
  ASSERT_TRUE(src);  // the signature is a PNG's
  EXPECT_EQ(CGImageSourceGetCount(src), 0u);
  EXPECT_TRUE(CGImageSourceCopyPropertiesAtIndex(src, 0).empty());
  EXPECT_EQ(CGImageSourceCreateImageAtIndex(src, 0), nullptr);
  EXPECT_NE(CGImageSourceGetLastError(src).find("pixel limit"), std::string::npos) << CGImageSourceGetLastError(src);
  EXPECT_EQ(CGImageSourceCreateThumbnailAtIndex(src, 0, {{kCGImageSourceThumbnailMaxPixelSize, 100}}), nullptr);
  EXPECT_NE(CGImageSourceGetLastError(src).find("100000x100000"), std::string::npos);
}

TEST(ImageIOLimits, PNGBombWithinTheLimitButShortOfDataFailsFast) {
  // 16000 x 16000 grey is under the limit (256 Mpx) but the deflate stream ends after a few
  // rows: the decode must fail on the missing data rather than produce an image.
  PixelLimitGuard guard;
  Bytes png = pngSignature();
  pngChunk(png, "IHDR", ihdr(16000, 16000, 8, 0));
  Bytes rows;
  for (int r = 0; r < 4; ++r) {
    rows.push_back(0);
    rows.insert(rows.end(), 16000, 0);
  }
  Bytes z = zlibStored(rows);
  ASSERT_GT(z.size(), 4u);
  z.erase(z.end() - 4, z.end());  // the stream is cut before its end
  pngChunk(png, "IDAT", z);
  auto src = CGImageSourceCreateWithData(png);
  ASSERT_EQ(CGImageSourceGetCount(src), 1u);
  CGImageSourceSetMaximumPixelCount(16000ull * 1000);  // keeps the test light under sanitizers
  auto refused = CGImageSourceCreateWithData(png);
  EXPECT_EQ(CGImageSourceGetCount(refused), 0u);
  CGImageSourceSetMaximumPixelCount(16000ull * 16000);
  auto src2 = CGImageSourceCreateWithData(png);
  // Use a thumbnail through the strip decoder to avoid a 1 GB allocation: strips stream.
  std::size_t rowsSeen = 0;
  EXPECT_FALSE(CGImageSourceDecodeStripsAtIndex(src2, 0, [&](const CGImageSourceStrip& s) {
    rowsSeen += s.rowCount;
    return true;
  }));
  EXPECT_LT(rowsSeen, 16000u);
  EXPECT_NE(CGImageSourceGetLastError(src2).find("PNG"), std::string::npos) << CGImageSourceGetLastError(src2);
}

TEST(ImageIOLimits, HugeJPEGAndWebPHeadersAreRefused) {
  Bytes jpg = withJPEGSize(encode(noise(16, 16), kUTTypeJPEG), 65000, 65000);
  ASSERT_FALSE(jpg.empty());
  auto src = CGImageSourceCreateWithData(jpg);
  ASSERT_TRUE(src);
  EXPECT_EQ(CGImageSourceGetCount(src), 0u);
  EXPECT_EQ(CGImageSourceCreateImageAtIndex(src, 0), nullptr);
  EXPECT_NE(CGImageSourceGetLastError(src).find("pixel limit"), std::string::npos);

  PixelLimitGuard guard;
  CGImageSourceSetMaximumPixelCount(100);
  auto webp = CGImageSourceCreateWithData(encode(noise(16, 16), kUTTypeWebP));
  ASSERT_TRUE(webp);
  EXPECT_EQ(CGImageSourceGetCount(webp), 0u);
  EXPECT_EQ(CGImageSourceCreateImageAtIndex(webp, 0), nullptr);
  EXPECT_NE(CGImageSourceGetLastError(webp).find("pixel limit of 100"), std::string::npos);
  auto small = CGImageSourceCreateWithData(encode(noise(10, 10), kUTTypePNG));
  EXPECT_EQ(CGImageSourceGetCount(small), 1u);  // exactly at the limit is allowed
  EXPECT_TRUE(CGImageSourceCreateImageAtIndex(small, 0));
}

// The process's peak resident size so far, in KiB.
long peakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(ImageIOLimits, AJPEGClaimingMorePixelsThanItsDataCanCodeIsRefusedBeforeDecoding) {
  // 16 x 16 pixels of data under a header claiming 16000 x 16000: Huffman coding spends at
  // least a bit per 8 x 8 block, so the file cannot hold them.
  const Bytes jpg = withJPEGSize(encode(noise(16, 16), kUTTypeJPEG), 16000, 16000);
  ASSERT_FALSE(jpg.empty());
  auto src = CGImageSourceCreateWithData(jpg);
  ASSERT_EQ(CGImageSourceGetCount(src), 1u);
  const long before = peakResidentKiB();
  EXPECT_EQ(CGImageSourceCreateImageAtIndex(src, 0), nullptr);
  EXPECT_EQ(CGImageSourceGetLastError(src),
            "corrupt JPEG: 16000 x 16000 pixels cannot be coded in " + std::to_string(jpg.size()) + " bytes");
  EXPECT_LT(peakResidentKiB() - before, 100 * 1024);
}

TEST(ImageIOLimits, APNGChunkLongerThanTheFileIsRefusedBeforeItIsAllocated) {
  // 44 bytes whose text chunk claims 2 GB.
  Bytes png = pngSignature();
  pngChunk(png, "IHDR", ihdr(1, 1, 8, 2));
  putBE32(png, 0x7fff0000u);
  for (char c : std::string("tEXtabc")) png.push_back(static_cast<std::uint8_t>(c));
  ASSERT_EQ(png.size(), 44u);
  const long before = peakResidentKiB();
  auto src = CGImageSourceCreateWithData(png);
  EXPECT_EQ(CGImageSourceGetCount(src), 0u);
  EXPECT_EQ(CGImageSourceGetLastError(src), "corrupt PNG: chunk tEXt claims 2147418112 bytes but the file has 3 left");
  EXPECT_LT(peakResidentKiB() - before, 100 * 1024);
}

TEST(ImageIOLimits, AWholeImageDecodeGrowsWithTheRowsReallyThere) {
  // 16000 x 16000 grey, under the pixel limit, whose data ends after four rows: the whole-image
  // decode fails without sizing a 1 GB buffer by the header.
  Bytes png = pngSignature();
  pngChunk(png, "IHDR", ihdr(16000, 16000, 8, 0));
  Bytes rows;
  for (int r = 0; r < 4; ++r) {
    rows.push_back(0);
    rows.insert(rows.end(), 16000, 0);
  }
  pngChunk(png, "IDAT", zlibStored(rows));
  auto src = CGImageSourceCreateWithData(png);
  ASSERT_EQ(CGImageSourceGetCount(src), 1u);
  const long before = peakResidentKiB();
  EXPECT_EQ(CGImageSourceCreateImageAtIndex(src, 0), nullptr);
  EXPECT_EQ(CGImageSourceGetLastError(src), "corrupt PNG: file is truncated");
  EXPECT_LT(peakResidentKiB() - before, 100 * 1024);
}

TEST(ImageIOErrors, TruncatedFilesGiveNilAndAMessage) {
  auto img = noise(64, 64);
  for (const char* type : {kUTTypeJPEG, kUTTypePNG, kUTTypeWebP}) {
    Bytes full = encode(img, type);
    ASSERT_FALSE(full.empty());
    for (double fraction : {0.5, 0.9}) {
      Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(static_cast<double>(full.size()) * fraction));
      auto src = CGImageSourceCreateWithData(cut);
      ASSERT_TRUE(src) << type;
      auto decoded = CGImageSourceCreateImageAtIndex(src, 0);
      EXPECT_EQ(decoded, nullptr) << type << " cut at " << fraction;
      EXPECT_FALSE(CGImageSourceGetLastError(src).empty()) << type;
      EXPECT_EQ(CGImageSourceCreateThumbnailAtIndex(src, 0, {{kCGImageSourceThumbnailMaxPixelSize, 8}}), nullptr) << type;
    }
    // Cut inside the header: no image at all.
    Bytes header(full.begin(), full.begin() + 14);
    auto src = CGImageSourceCreateWithData(header);
    ASSERT_TRUE(src) << type;
    EXPECT_EQ(CGImageSourceGetCount(src), 0u) << type;
    EXPECT_EQ(CGImageSourceCreateImageAtIndex(src, 0), nullptr);
    EXPECT_FALSE(CGImageSourceGetLastError(src).empty());
  }
}

TEST(ImageIOErrors, CorruptBytesNeverCrash) {
  auto img = noise(48, 32);
  for (const char* type : {kUTTypeJPEG, kUTTypePNG, kUTTypeWebP}) {
    const Bytes good = encode(img, type);
    std::uint32_t state = 99;
    int refused = 0;
    for (int trial = 0; trial < 60; ++trial) {
      Bytes bad = good;
      for (int k = 0; k < 4; ++k) {
        state = state * 1664525u + 1013904223u;
        bad[12 + state % (bad.size() - 12)] ^= static_cast<std::uint8_t>(1 + (state >> 24) % 255);
      }
      auto src = CGImageSourceCreateWithData(bad);
      if (!src) continue;
      CGImageSourceCopyPropertiesAtIndex(src, 0);
      auto decoded = CGImageSourceCreateImageAtIndex(src, 0);
      if (!decoded) {
        ++refused;
        EXPECT_FALSE(CGImageSourceGetLastError(src).empty());
      } else {
        EXPECT_EQ(decoded->pixels.size(), decoded->bytesPerRow * decoded->height);
      }
    }
    EXPECT_GT(refused, 0) << type;
  }
  // A corrupt header right after the signature.
  Bytes jpg = {0xff, 0xd8, 0xff, 0xe0, 0x00, 0x02, 0xff, 0xc0, 0x00, 0x03, 0x00};
  auto src = CGImageSourceCreateWithData(jpg);
  ASSERT_TRUE(src);
  EXPECT_EQ(CGImageSourceGetCount(src), 0u);
  EXPECT_NE(CGImageSourceGetLastError(src).find("JPEG"), std::string::npos);
}

TEST(ImageIOErrors, UnknownDataMissingFilesAndBadIndexes) {
  EXPECT_EQ(CGImageSourceCreateWithData(Bytes{'G', 'I', 'F', '8', '9', 'a', 0, 0}), nullptr);
  EXPECT_EQ(CGImageSourceGetCreateError(), "not a JPEG, PNG or WebP image");
  EXPECT_EQ(CGImageSourceCreateWithData(Bytes{}), nullptr);
  EXPECT_EQ(CGImageSourceGetCreateError(), "file is empty");
  EXPECT_EQ(CGImageSourceCreateWithURL("/nonexistent/x.png"), nullptr);
  EXPECT_EQ(CGImageSourceGetCreateError(), "no such file: /nonexistent/x.png");
  EXPECT_EQ(CGImageSourceCreateWithURL(tempDir()), nullptr);
  EXPECT_NE(CGImageSourceGetCreateError().find("not a regular file"), std::string::npos);
  // A file URL with escapes reaches the same file.
  const std::string path = tempDir() + "/with space.png";
  writeFile(path, encode(noise(4, 4), kUTTypePNG));
  auto src = CGImageSourceCreateWithURL("file://" + tempDir() + "/with%20space.png");
  ASSERT_TRUE(src);
  EXPECT_EQ(CGImageSourceGetCount(src), 1u);
  EXPECT_EQ(CGImageSourceCreateImageAtIndex(src, 1), nullptr);
  EXPECT_EQ(CGImageSourceGetLastError(src), "no image at index 1");
  EXPECT_TRUE(CGImageSourceCopyPropertiesAtIndex(src, 3).empty());
  EXPECT_TRUE(CGImageSourceCreateImageAtIndex(src, 0));
  EXPECT_EQ(CGImageSourceGetLastError(src), "");
  // nil sources answer nothing.
  EXPECT_EQ(CGImageSourceGetCount(nullptr), 0u);
  EXPECT_EQ(CGImageSourceGetType(nullptr), "");
  EXPECT_EQ(CGImageSourceCreateImageAtIndex(nullptr, 0), nullptr);
  EXPECT_TRUE(CGImageSourceCopyPropertiesAtIndex(nullptr, 0).empty());
}

TEST(ImageIODestination, TypesAndFailures) {
  EXPECT_EQ(CGImageDestinationTypeForPath("a/b.PNG"), "public.png");
  EXPECT_EQ(CGImageDestinationTypeForPath("x.jpg"), "public.jpeg");
  EXPECT_EQ(CGImageDestinationTypeForPath("x.JPEG"), "public.jpeg");
  EXPECT_EQ(CGImageDestinationTypeForPath("x.webp"), "org.webmproject.webp");
  EXPECT_EQ(CGImageDestinationTypeForPath("x.gif"), "");
  EXPECT_EQ(CGImageDestinationTypeForPath("dir.png/file"), "");
  EXPECT_EQ(CGImageDestinationTypeForPath("noext"), "");
  const std::string dir = tempDir();
  EXPECT_EQ(CGImageDestinationCreateWithURL(dir + "/a.gif", "com.compuserve.gif"), nullptr);
  EXPECT_EQ(CGImageDestinationCreateWithURL(dir + "/a.png", "public.png", 2), nullptr);

  // Too few rows: Finalize fails and leaves no file behind.
  for (const char* type : {kUTTypePNG, kUTTypeJPEG, kUTTypeWebP}) {
    const std::string path = dir + "/short";
    std::filesystem::remove(path);
    auto dest = CGImageDestinationCreateWithURL(path, type);
    ASSERT_TRUE(dest);
    ASSERT_TRUE(CGImageDestinationBeginImage(dest, 10, 10, 8, true, {}));
    std::vector<std::uint8_t> rows(10 * 4 * 5, 128);
    EXPECT_TRUE(CGImageDestinationWriteRows(dest, rows.data(), 40, 5));
    EXPECT_FALSE(CGImageDestinationWriteRows(dest, rows.data(), 40, 6)) << "more rows than the image has";
    EXPECT_FALSE(CGImageDestinationFinalize(dest));
    EXPECT_FALSE(CGImageDestinationGetLastError(dest).empty());
    EXPECT_FALSE(std::filesystem::exists(path)) << type;
    for (const auto& e : std::filesystem::directory_iterator(dir))
      EXPECT_EQ(e.path().filename().string().find("short.partial"), std::string::npos);
  }
  auto dest = CGImageDestinationCreateWithURL(dir + "/q.jpg", kUTTypeJPEG);
  EXPECT_FALSE(CGImageDestinationBeginImage(dest, 4, 4, 8, false, {{kCGImageDestinationLossyCompressionQuality, 1.5}}));
  EXPECT_NE(CGImageDestinationGetLastError(dest).find("quality"), std::string::npos);
  dest = CGImageDestinationCreateWithURL(dir + "/z.png", kUTTypePNG);
  EXPECT_FALSE(CGImageDestinationBeginImage(dest, 0, 4, 8, false, {}));
  dest = CGImageDestinationCreateWithURL(dir + "/z.png", kUTTypePNG);
  EXPECT_FALSE(CGImageDestinationBeginImage(dest, 4, 4, 12, false, {}));
  dest = CGImageDestinationCreateWithURL("/nonexistent-dir/z.png", kUTTypePNG);
  EXPECT_FALSE(CGImageDestinationBeginImage(dest, 4, 4, 8, false, {}));
  EXPECT_NE(CGImageDestinationGetLastError(dest).find("cannot create"), std::string::npos);
  dest = CGImageDestinationCreateWithURL(dir + "/big.webp", kUTTypeWebP);
  EXPECT_FALSE(CGImageDestinationBeginImage(dest, 20000, 4, 8, false, {}));
  EXPECT_NE(CGImageDestinationGetLastError(dest).find("16383"), std::string::npos);
  EXPECT_FALSE(CGImageDestinationAddImage(CGImageDestinationCreateWithURL(dir + "/n.png", kUTTypePNG), nullptr, {}));
  // Streaming in strips gives the same file as adding the image at once.
  auto img = noise(33, 20);
  dest = CGImageDestinationCreateWithURL(dir + "/strips.png", kUTTypePNG);
  ASSERT_TRUE(CGImageDestinationBeginImage(dest, 33, 20, 8, false, {}));
  for (std::size_t y = 0; y < 20; y += 7)
    ASSERT_TRUE(CGImageDestinationWriteRows(dest, img->row(y), img->bytesPerRow, std::min<std::size_t>(7, 20 - y)));
  ASSERT_TRUE(CGImageDestinationFinalize(dest));
  EXPECT_FALSE(CGImageDestinationFinalize(dest));
  EXPECT_EQ(readFile(dir + "/strips.png"), encode(img, kUTTypePNG));
}

TEST(ImageIOLimits, ALosslessWebPClaimingMorePixelsThanItsDataHoldsFailsWithoutSizingThemAll) {
  // 16 x 16 pixels of lossless data under a header claiming 16384 x 16384 (at the pixel limit):
  // the decode fails at the data's end without a 1 GB picture made resident first.
  Bytes webp = encode(noise(16, 16), kUTTypeWebP, {{kCGImageDestinationLossless, Value::boolean(true)}});
  ASSERT_GT(webp.size(), 25u);
  ASSERT_EQ(std::string(webp.begin() + 12, webp.begin() + 16), "VP8L");
  ASSERT_EQ(webp[20], 0x2f);
  std::uint32_t bits = std::uint32_t(webp[21]) | std::uint32_t(webp[22]) << 8 | std::uint32_t(webp[23]) << 16 |
                       std::uint32_t(webp[24]) << 24;
  bits = (bits & ~0x0fffffffu) | 16383u | 16383u << 14;  // width - 1, height - 1: 14 bits each
  for (int i = 0; i < 4; ++i) webp[21 + i] = std::uint8_t(bits >> (8 * i));
  auto src = CGImageSourceCreateWithData(webp);
  ASSERT_EQ(CGImageSourceGetCount(src), 1u);
  const Dictionary props = CGImageSourceCopyPropertiesAtIndex(src, 0);
  ASSERT_EQ(props.at(kCGImagePropertyPixelWidth).integerValue(), 16384);
  const long before = peakResidentKiB();
  EXPECT_EQ(CGImageSourceCreateImageAtIndex(src, 0), nullptr);
  EXPECT_EQ(CGImageSourceGetLastError(src).rfind("corrupt WebP: ", 0), 0u) << CGImageSourceGetLastError(src);
  // libwebp reserves its picture and pixel buffers by the header (1 GB each, never written).
  // AddressSanitizer marks the shadow of every allocation, an eighth of its size, so under it
  // the bound grows by that bookkeeping; a whole picture made resident still exceeds it.
  long boundKiB = 100 * 1024;
#if defined(__SANITIZE_ADDRESS__)
  boundKiB += 2 * (16384L * 16384L * 4 / 8) / 1024;
#endif
  EXPECT_LT(peakResidentKiB() - before, boundKiB);
}

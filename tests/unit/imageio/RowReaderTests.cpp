// The caller-driven row readers: any sequence of reads and skips hands out exactly the rows of
// the whole-image decode, for every format, also with many readers of one source at once;
// damaged data fails naming the rows.
#include <gtest/gtest.h>

#include <tbb/parallel_for.h>

#include <atomic>
#include <cstring>
#include <fstream>

#include "ImageIOTestSupport.h"
#include "StreamTestImages.h"

using namespace qvtest;

namespace {

CGImageRef wholeDecode(const std::string& path) {
  auto src = CGImageSourceCreateWithURL(path);
  return src ? CGImageSourceCreateImageAtIndex(src, 0) : nullptr;
}

// Reads the file through a row reader in the given steps (negative: skip), checking every row
// read against the whole decode; returns the reader.
std::unique_ptr<CGImageSourceRowReader> readInSteps(const std::string& path, const std::vector<int>& steps) {
  const CGImageRef whole = wholeDecode(path);
  EXPECT_TRUE(whole);
  auto reader = CGImageSourceCreateRowReaderAtIndex(CGImageSourceCreateWithURL(path), 0);
  EXPECT_TRUE(reader);
  if (!reader || !whole) return reader;
  EXPECT_EQ(reader->width(), whole->width);
  EXPECT_EQ(reader->height(), whole->height);
  EXPECT_EQ(reader->bitsPerComponent(), whole->bitsPerComponent);
  std::vector<std::uint8_t> rows;
  for (int step : steps) {
    const std::size_t first = reader->nextRow();
    if (step < 0) {
      EXPECT_TRUE(reader->skipRows(std::size_t(-step))) << reader->error();
      EXPECT_EQ(reader->nextRow(), first + std::size_t(-step));
      continue;
    }
    rows.assign(std::size_t(step) * reader->bytesPerRow(), 0);
    EXPECT_TRUE(reader->readRows(rows.data(), std::size_t(step), reader->bytesPerRow())) << reader->error();
    for (std::size_t i = 0; i < std::size_t(step); ++i)
      EXPECT_EQ(std::memcmp(rows.data() + i * reader->bytesPerRow(), whole->row(first + i), whole->bytesPerRow), 0)
          << path << " row " << first + i;
  }
  return reader;
}

class RowReaderTest : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return (streamTestDir() / name).string(); }
};

}  // namespace

TEST_F(RowReaderTest, JPEGReadsAndSkipsToTheRowsOfTheWholeDecode) {
  const std::string file = path("reader.jpg");
  ASSERT_TRUE(writePicture(grainyPicture(203, 150, false), file));
  auto reader = readInSteps(file, {1, 7, 16, -5, 3, -40, 17, 1, -29, 31});
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->wholeImage());
  EXPECT_EQ(reader->nextRow(), 150u);
  // Past the end: refused, without a crash.
  std::vector<std::uint8_t> row(reader->bytesPerRow());
  EXPECT_FALSE(reader->readRows(row.data(), 1, row.size()));
}

TEST_F(RowReaderTest, PNGWithAlphaReadsRowByRow) {
  const std::string file = path("reader.png");
  ASSERT_TRUE(writePicture(grainyPicture(97, 61, true), file));
  auto reader = readInSteps(file, {5, -9, 16, 1, -10, 20});
  ASSERT_TRUE(reader);
  EXPECT_FALSE(reader->wholeImage());
}

TEST_F(RowReaderTest, SixteenBitPNGKeepsItsDepth) {
  auto image = CGImageCreateBlank(40, 30, 16);
  for (std::size_t y = 0; y < 30; ++y) {
    auto* p = reinterpret_cast<std::uint16_t*>(image->row(y));
    for (std::size_t i = 0; i < 40 * 4; ++i) p[i] = std::uint16_t(y * 2000 + i * 300);
  }
  image->hasAlpha = true;
  const std::string file = path("reader16.png");
  ASSERT_TRUE(writePicture(image, file));
  auto reader = readInSteps(file, {3, -4, 23});
  ASSERT_TRUE(reader);
  EXPECT_EQ(reader->bitsPerComponent(), 16);
}

TEST_F(RowReaderTest, InterlacedPNGAndWebPAreHeldWhole) {
  imageio_test::PNGSpec spec;
  spec.width = 21;
  spec.height = 19;
  spec.colorType = 6;
  spec.interlaced = true;
  for (std::uint32_t y = 0; y < spec.height; ++y) {
    imageio_test::Bytes row;
    for (std::uint32_t x = 0; x < spec.width * 4; ++x) row.push_back(std::uint8_t(x * 7 + y * 13));
    spec.rows.push_back(row);
  }
  const imageio_test::Bytes png = imageio_test::makePNG(spec);
  const std::string interlaced = path("interlaced.png");
  std::ofstream(interlaced, std::ios::binary).write(reinterpret_cast<const char*>(png.data()), std::streamsize(png.size()));
  auto reader = readInSteps(interlaced, {4, -6, 9});
  ASSERT_TRUE(reader);
  EXPECT_TRUE(reader->wholeImage());
  EXPECT_TRUE(reader->rewind());
  EXPECT_EQ(reader->nextRow(), 0u);

  const std::string webp = path("reader.webp");
  ASSERT_TRUE(writePicture(grainyPicture(50, 40, true), webp));
  auto webpReader = readInSteps(webp, {10, -10, 20});
  ASSERT_TRUE(webpReader);
  EXPECT_TRUE(webpReader->wholeImage());
}

TEST_F(RowReaderTest, TruncatedJPEGFailsNamingTheRowsWhereTheDataBreaks) {
  const std::string file = path("truncated.jpg");
  ASSERT_TRUE(writePicture(grainyPicture(256, 256, false), file));
  std::filesystem::resize_file(file, std::filesystem::file_size(file) / 2);
  auto reader = CGImageSourceCreateRowReaderAtIndex(CGImageSourceCreateWithURL(file), 0);
  ASSERT_TRUE(reader);  // the header is intact
  std::vector<std::uint8_t> rows(16 * reader->bytesPerRow());
  std::size_t good = 0;
  while (reader->nextRow() < reader->height() && reader->readRows(rows.data(), 16, reader->bytesPerRow())) good += 16;
  EXPECT_LT(good, 256u);
  EXPECT_NE(reader->error().find("corrupt JPEG"), std::string::npos) << reader->error();
  EXPECT_NE(reader->error().find("in rows " + std::to_string(good) + "-" + std::to_string(good + 15) + " of 256"),
            std::string::npos)
      << reader->error();
  // The reader is finished: the next call fails with the same reason.
  const std::string first = reader->error();
  EXPECT_FALSE(reader->readRows(rows.data(), 1, reader->bytesPerRow()));
  EXPECT_EQ(reader->error(), first);
}

// Readers of one source (one file's bytes) opened and read on the renderer's thread pool at
// once, each from its own row on, between whole decodes of the same source: every one hands out
// the rows of the whole decode; readers of a damaged file all fail, each with its own reason.
// Run under ThreadSanitizer by scripts/tsan-tests.
TEST_F(RowReaderTest, ReadersOfOneSourceOnParallelWorkersSeeTheWholeDecode) {
  const std::string jpeg = path("parallel.jpg"), png = path("parallel.png"), webp = path("parallel.webp");
  ASSERT_TRUE(writePicture(grainyPicture(120, 96, false), jpeg));
  ASSERT_TRUE(writePicture(grainyPicture(120, 96, true), png));
  ASSERT_TRUE(writePicture(grainyPicture(120, 96, true), webp));
  for (const std::string& file : {jpeg, png, webp}) {
    const CGImageRef whole = wholeDecode(file);
    ASSERT_TRUE(whole) << file;
    const CGImageSourceRef source = CGImageSourceCreateWithURL(file);
    ASSERT_TRUE(source) << file;
    std::atomic<int> mismatches{0}, failures{0};
    tbb::parallel_for(0, 24, [&](int i) {
      if (i % 6 == 5) {
        const CGImageRef again = CGImageSourceCreateImageAtIndex(source, 0);
        if (!again || again->pixels != whole->pixels || !CGImageSourceGetLastError(source).empty()) ++mismatches;
        return;
      }
      auto reader = CGImageSourceCreateRowReaderAtIndex(source, 0);
      if (!reader) {
        ++failures;
        return;
      }
      const std::size_t first = std::size_t(i) * 4, count = 96 - first < 20 ? 96 - first : 20;
      std::vector<std::uint8_t> rows(count * reader->bytesPerRow());
      if (!reader->skipRows(first) || !reader->readRows(rows.data(), count, reader->bytesPerRow())) {
        ++failures;
        return;
      }
      for (std::size_t r = 0; r < count; ++r)
        if (std::memcmp(rows.data() + r * reader->bytesPerRow(), whole->row(first + r), whole->bytesPerRow) != 0)
          ++mismatches;
    });
    EXPECT_EQ(failures.load(), 0) << file;
    EXPECT_EQ(mismatches.load(), 0) << file;
  }

  const std::string cut = path("parallel-cut.jpg");
  ASSERT_TRUE(writePicture(grainyPicture(256, 256, false), cut));
  std::filesystem::resize_file(cut, std::filesystem::file_size(cut) / 2);
  const CGImageSourceRef source = CGImageSourceCreateWithURL(cut);
  ASSERT_TRUE(source);
  std::atomic<int> failed{0};
  tbb::parallel_for(0, 8, [&](int) {
    auto reader = CGImageSourceCreateRowReaderAtIndex(source, 0);
    if (!reader) return;
    std::vector<std::uint8_t> rows(16 * reader->bytesPerRow());
    while (reader->nextRow() < reader->height() && reader->readRows(rows.data(), 16, reader->bytesPerRow())) {
    }
    if (reader->error().find("corrupt JPEG") != std::string::npos) ++failed;
  });
  EXPECT_EQ(failed.load(), 8);
}

// A JPEG or PNG file is read in pieces as it decodes, a buffer at a time: a file of many
// buffers decodes to the same rows as the same bytes held in memory, and a file cut short
// fails in a later buffer, naming the rows where its data ends.
TEST_F(RowReaderTest, AFileOfManyReadBuffersDecodesAsItsBytesInMemory) {
  for (const std::string name : {"buffers.jpg", "buffers.png"}) {
    const std::string file = path(name);
    ASSERT_TRUE(writePicture(grainyPicture(900, 700, false), file, 1, 0.98));
    const std::size_t size = std::filesystem::file_size(file);
    ASSERT_GT(size, 4 * std::size_t(64 << 10)) << name;
    std::ifstream in(file, std::ios::binary);
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size(), size);
    const CGImageRef fromMemory = CGImageSourceCreateImageAtIndex(CGImageSourceCreateWithData(bytes), 0);
    ASSERT_TRUE(fromMemory) << name;
    const CGImageRef fromFile = wholeDecode(file);
    ASSERT_TRUE(fromFile) << name;
    EXPECT_EQ(fromFile->pixels, fromMemory->pixels) << name;
    auto reader = CGImageSourceCreateRowReaderAtIndex(CGImageSourceCreateWithURL(file), 0);
    ASSERT_TRUE(reader) << name;
    std::vector<std::uint8_t> rows(700 * reader->bytesPerRow());
    ASSERT_TRUE(reader->skipRows(100)) << reader->error();
    ASSERT_TRUE(reader->readRows(rows.data(), 600, reader->bytesPerRow())) << reader->error();
    EXPECT_EQ(std::memcmp(rows.data(), fromMemory->row(100), 600 * fromMemory->bytesPerRow), 0) << name;
  }

  const std::string cut = path("buffers-cut.jpg");
  ASSERT_TRUE(writePicture(grainyPicture(900, 700, false), cut, 1, 0.98));
  std::filesystem::resize_file(cut, std::filesystem::file_size(cut) * 3 / 4);
  auto reader = CGImageSourceCreateRowReaderAtIndex(CGImageSourceCreateWithURL(cut), 0);
  ASSERT_TRUE(reader);
  std::vector<std::uint8_t> rows(16 * reader->bytesPerRow());
  std::size_t good = 0;
  while (reader->nextRow() < reader->height() && reader->readRows(rows.data(), 16, reader->bytesPerRow())) good += 16;
  EXPECT_GT(good, 350u);  // three quarters of the data: more than half the rows decode
  EXPECT_LT(good, 700u);
  EXPECT_NE(reader->error().find("corrupt JPEG"), std::string::npos) << reader->error();
  EXPECT_NE(reader->error().find("in rows " + std::to_string(good) + "-" + std::to_string(good + 15) + " of 700"),
            std::string::npos)
      << reader->error();
}

// A source keeps the file it opened: its name given to another file meanwhile changes nothing;
// the file cut short under it makes the decode fail with the reason and the rows, not crash.
TEST_F(RowReaderTest, ASourceReadsTheFileItOpenedEvenWhenTheNameMovesOrTheFileShrinks) {
  const std::string file = path("moved.jpg"), other = path("other.jpg");
  ASSERT_TRUE(writePicture(grainyPicture(300, 200, false), file));
  const CGImageRef original = wholeDecode(file);
  ASSERT_TRUE(original);
  const CGImageSourceRef source = CGImageSourceCreateWithURL(file);
  ASSERT_TRUE(source);
  ASSERT_TRUE(writePicture(grainyPicture(120, 80, true), other));
  std::filesystem::rename(other, file);
  const CGImageRef again = CGImageSourceCreateImageAtIndex(source, 0);
  ASSERT_TRUE(again) << CGImageSourceGetLastError(source);
  EXPECT_EQ(again->width, 300u);
  EXPECT_EQ(again->pixels, original->pixels);

  for (const std::string name : {"shrunk.jpg", "shrunk.png"}) {
    const std::string shrunk = path(name);
    ASSERT_TRUE(writePicture(grainyPicture(900, 700, false), shrunk, 1, 0.98));
    ASSERT_GT(std::filesystem::file_size(shrunk), 4 * std::size_t(64 << 10)) << name;
    const CGImageSourceRef opened = CGImageSourceCreateWithURL(shrunk);
    ASSERT_TRUE(opened);
    auto reader = CGImageSourceCreateRowReaderAtIndex(opened, 0);
    ASSERT_TRUE(reader);
    std::filesystem::resize_file(shrunk, std::filesystem::file_size(shrunk) / 3);
    std::vector<std::uint8_t> rows(700 * reader->bytesPerRow());
    EXPECT_FALSE(reader->readRows(rows.data(), 700, reader->bytesPerRow())) << name;
    EXPECT_NE(reader->error().find(name.ends_with(".jpg") ? "corrupt JPEG" : "corrupt PNG"), std::string::npos)
        << reader->error();
    EXPECT_NE(reader->error().find("in rows 0-699 of 700"), std::string::npos) << reader->error();
    EXPECT_FALSE(CGImageSourceCreateImageAtIndex(opened, 0)) << name;
    EXPECT_NE(CGImageSourceGetLastError(opened).find("corrupt"), std::string::npos) << CGImageSourceGetLastError(opened);
  }
}

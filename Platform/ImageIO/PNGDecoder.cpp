// PNG decoding through libpng: 1-16 bit grey, grey+alpha, RGB, RGBA and palette images, tRNS,
// interlaced files. Rows come out as RGBA at 8 bits, or 16 bits (native-endian) for 16-bit
// files.
//
// libpng reports errors through a callback that keeps the message and jumps back with
// longjmp; only trivially destructible locals live between setjmp and libpng calls.
#include <csetjmp>
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <png.h>

#include "ImageIO/ImageIOCodecs.h"

namespace imageio_detail {

namespace {

// Ancillary chunks (text, profiles) larger than this are refused instead of allocated.
constexpr png_alloc_size_t kMaximumChunkBytes = 32u << 20;

struct Reader {
  explicit Reader(const EncodedBytes& bytes) : stream(bytes) {}
  EncodedByteStream stream;
  char message[256] = {0};
};

void readData(png_structp png, png_bytep out, png_size_t length) {
  auto* r = static_cast<Reader*>(png_get_io_ptr(png));
  if (!r->stream.readExactly(out, length)) png_error(png, "file is truncated");
}

void errorFn(png_structp png, png_const_charp message) {
  auto* r = static_cast<Reader*>(png_get_error_ptr(png));
  std::snprintf(r->message, sizeof r->message, "%s", message ? message : "unknown error");
  png_longjmp(png, 1);
}

void warningFn(png_structp, png_const_charp) {}

struct ReadStruct {
  explicit ReadStruct(const EncodedBytes& bytes) : reader(bytes) {}
  png_structp png = nullptr;
  png_infop info = nullptr;
  Reader reader;
  ~ReadStruct() {
    if (png) png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
  }
};

// The chunks up to the first IDAT, checked against the bytes really there: libpng sizes its
// buffer for an ancillary chunk (text, profile) by the length the chunk claims, so a file of a
// few bytes could make it allocate gigabytes before finding the data missing. Empty when every
// chunk fits; otherwise the reason. (IDAT data is read in pieces, and chunks after it are never
// read.)
std::string chunkLengthProblem(const EncodedBytes& bytes) {
  const std::size_t size = bytes.size();
  std::size_t offset = 8;  // after the signature
  std::uint8_t head[8];
  while (offset + 8 <= size) {
    if (bytes.read(offset, head, 8) != 8) return "the file cannot be read";
    const std::uint32_t length = (std::uint32_t{head[0]} << 24) | (std::uint32_t{head[1]} << 16) |
                                 (std::uint32_t{head[2]} << 8) | std::uint32_t{head[3]};
    const std::string type(reinterpret_cast<const char*>(head + 4), 4);
    if (type == "IDAT") return {};
    const std::size_t left = size - offset - 8;
    if (std::uint64_t{length} + 4 > left) {
      std::string printable;
      for (char c : type) printable += (c >= 0x20 && c < 0x7f) ? c : '?';
      return "chunk " + printable + " claims " + std::to_string(length) + " bytes but the file has " +
             std::to_string(left) + " left";
    }
    offset += 8 + std::size_t{length} + 4;
  }
  return {};
}

// Creates the read structures; false when out of memory.
bool open(ReadStruct& s) {
  s.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &s.reader, errorFn, warningFn);
  if (!s.png) return false;
  s.info = png_create_info_struct(s.png);
  if (!s.info) return false;
  png_set_read_fn(s.png, &s.reader, readData);
  // Our own pixel limit is checked from IHDR; libpng's default of 1,000,000 per side would
  // refuse legitimate long strips first.
  png_set_user_limits(s.png, 0x7fffffff, 0x7fffffff);
  png_set_chunk_malloc_max(s.png, kMaximumChunkBytes);
  png_set_chunk_cache_max(s.png, 1000);
  return true;
}

// What the header pass collects inside the guarded region.
struct RawHeader {
  png_uint_32 width = 0, height = 0;
  int bitDepth = 0, colorType = 0, interlace = 0;
  bool hasTRNS = false, hasSRGB = false;
  png_charp iccName = nullptr;
  png_bytep icc = nullptr;
  png_uint_32 iccLength = 0;
  png_bytep exif = nullptr;
  png_uint_32 exifLength = 0;
};

void readRawHeader(ReadStruct& s, RawHeader& raw) {
  png_read_info(s.png, s.info);
  png_get_IHDR(s.png, s.info, &raw.width, &raw.height, &raw.bitDepth, &raw.colorType, &raw.interlace, nullptr,
               nullptr);
  raw.hasTRNS = png_get_valid(s.png, s.info, PNG_INFO_tRNS) != 0;
  raw.hasSRGB = png_get_valid(s.png, s.info, PNG_INFO_sRGB) != 0;
  int compression = 0;
  if (!png_get_iCCP(s.png, s.info, &raw.iccName, &compression, &raw.icc, &raw.iccLength)) raw.icc = nullptr;
#ifdef PNG_eXIf_SUPPORTED
  if (!png_get_eXIf_1(s.png, s.info, &raw.exifLength, &raw.exif)) raw.exif = nullptr;
#endif
}

void fillHeaderInfo(const RawHeader& raw, HeaderInfo& info) {
  info.width = raw.width;
  info.height = raw.height;
  info.depth = raw.bitDepth;
  info.outputBits = raw.bitDepth == 16 ? 16 : 8;
  info.isIndexed = raw.colorType == PNG_COLOR_TYPE_PALETTE;
  info.isProgressive = raw.interlace != PNG_INTERLACE_NONE;
  info.colorModel = (raw.colorType & PNG_COLOR_MASK_COLOR) ? "RGB" : "Gray";
  info.hasAlpha = (raw.colorType & PNG_COLOR_MASK_ALPHA) || raw.hasTRNS;
  if (raw.icc) {
    info.hasICCProfile = true;
    info.profileName = iccProfileDescription(raw.icc, raw.iccLength);
    if (info.profileName.empty() && raw.iccName && *raw.iccName) info.profileName = raw.iccName;
    if (info.profileName.empty()) info.profileName = "Embedded ICC profile";
  } else if (raw.hasSRGB) {
    info.profileName = "sRGB IEC61966-2.1";
  }
  if (raw.exif && raw.exifLength > 0) info.orientation = exifOrientation(raw.exif, raw.exifLength);
}

enum class DecodeStatus { OK, OverLimit, Unsupported, Stopped };

// Reads the header and sets up RGBA output at 8 or 16 bits; `passes` is 1 unless the file is
// interlaced. Guarded: trivially destructible locals only.
DecodeStatus startBody(ReadStruct& s, RawHeader& raw, int& passes) {
  readRawHeader(s, raw);
  const png_uint_32 w = raw.width, h = raw.height;
  if (exceedsPixelLimit(w, h)) return DecodeStatus::OverLimit;
  const bool sixteen = raw.bitDepth == 16;
  // Palette to RGB, grey below 8 bits to 8, tRNS to an alpha channel.
  png_set_expand(s.png);
  if (!(raw.colorType & PNG_COLOR_MASK_COLOR)) png_set_gray_to_rgb(s.png);
  if (!(raw.colorType & PNG_COLOR_MASK_ALPHA) && !raw.hasTRNS)
    png_set_add_alpha(s.png, sixteen ? 0xffff : 0xff, PNG_FILLER_AFTER);
  if (sixteen) {
    const std::uint16_t probe = 1;
    std::uint8_t first = 0;
    std::memcpy(&first, &probe, 1);
    if (first == 1) png_set_swap(s.png);  // PNG stores big-endian samples
  }
  passes = png_set_interlace_handling(s.png);
  png_read_update_info(s.png, s.info);
  const std::size_t bytesPerPixel = sixteen ? 8 : 4;
  if (png_get_rowbytes(s.png, s.info) != std::size_t{w} * bytesPerPixel) return DecodeStatus::Unsupported;
  return DecodeStatus::OK;
}

// The guarded part of a decode: trivially destructible locals only.
DecodeStatus decodeBody(ReadStruct& s, RowSink& sink, RawHeader& raw) {
  int passes = 1;
  if (const DecodeStatus status = startBody(s, raw, passes); status != DecodeStatus::OK) return status;
  const png_uint_32 w = raw.width, h = raw.height;
  const bool sixteen = raw.bitDepth == 16;
  if (!sink.begin(w, h, sixteen ? 16 : 8)) return DecodeStatus::Stopped;
  if (passes > 1) {
    // Interlaced: every pass touches every row, so the whole image is needed at once.
    std::size_t bytesPerRow = 0;
    std::uint8_t* rows = sink.rows(0, h, bytesPerRow);
    if (!rows) return DecodeStatus::Stopped;
    for (int pass = 0; pass < passes; ++pass)
      for (png_uint_32 y = 0; y < h; ++y) png_read_row(s.png, rows + y * bytesPerRow, nullptr);
    if (!sink.commit(0, h)) return DecodeStatus::Stopped;
    return DecodeStatus::OK;
  }
  const std::size_t strip = sink.maxStripRows() < 1 ? 1 : sink.maxStripRows();
  for (std::size_t first = 0; first < h; first += strip) {
    const std::size_t count = std::min<std::size_t>(strip, h - first);
    std::size_t bytesPerRow = 0;
    std::uint8_t* rows = sink.rows(first, count, bytesPerRow);
    if (!rows) return DecodeStatus::Stopped;
    for (std::size_t i = 0; i < count; ++i) png_read_row(s.png, rows + i * bytesPerRow, nullptr);
    if (!sink.commit(first, count)) return DecodeStatus::Stopped;
  }
  // The end chunks are not read: a damaged trailer must not refuse good pixels.
  return DecodeStatus::OK;
}

}  // namespace

bool readPNGHeader(const EncodedBytes& bytes, HeaderInfo& info, std::string& error) {
  if (const std::string problem = chunkLengthProblem(bytes); !problem.empty()) {
    error = "corrupt PNG: " + problem;
    return false;
  }
  ReadStruct s(bytes);
  if (!open(s)) {
    error = "out of memory";
    return false;
  }
  RawHeader raw;
  if (!runGuarded(png_jmpbuf(s.png), [&] { readRawHeader(s, raw); })) {
    error = std::string("corrupt PNG: ") + s.reader.message;
    return false;
  }
  fillHeaderInfo(raw, info);
  error = checkPixelLimit(info.width, info.height);
  return error.empty();
}

namespace {

// Reads a non-interlaced PNG row by row through png_read_row, keeping libpng's state between
// calls. (An interlaced file spreads every row over seven passes, so it is decoded whole; see
// openPNGRowReader.)
class PNGRowReader final : public RowReader {
 public:
  // False with `error` set on failure; false with `error` empty when the file is interlaced.
  explicit PNGRowReader(const EncodedBytes& bytes) : s_(bytes) {}

  bool open(const EncodedBytes& bytes, std::string& error) {
    if (const std::string problem = chunkLengthProblem(bytes); !problem.empty()) {
      error = "corrupt PNG: " + problem;
      return false;
    }
    if (!imageio_detail::open(s_)) {
      error = "out of memory";
      return false;
    }
    RawHeader raw;
    DecodeStatus status = DecodeStatus::OK;
    int passes = 1;
    if (!runGuarded(png_jmpbuf(s_.png), [&] { status = startBody(s_, raw, passes); })) {
      error = std::string("corrupt PNG: ") + s_.reader.message;
      return false;
    }
    switch (status) {
      case DecodeStatus::OK: break;
      case DecodeStatus::OverLimit: error = checkPixelLimit(raw.width, raw.height); return false;
      default: error = "unsupported PNG layout"; return false;
    }
    if (passes > 1) return false;
    width = raw.width;
    height = raw.height;
    bitsPerComponent = raw.bitDepth == 16 ? 16 : 8;
    return true;
  }

  bool read(std::uint8_t* rows, std::size_t count, std::size_t bytesPerRow, std::string& error) override {
    return advance(rows, count, bytesPerRow, error);
  }
  bool skip(std::size_t count, std::string& error) override {
    // Every row must be inflated and unfiltered anyway (filters refer to the row above).
    if (scratch_.empty()) scratch_.resize(width * std::size_t(bitsPerComponent / 2));
    return advance(nullptr, count, 0, error);
  }

 private:
  bool advance(std::uint8_t* rows, std::size_t count, std::size_t bytesPerRow, std::string& error) {
    if (!canAdvance(count, error)) return false;
    std::uint8_t* scratch = scratch_.data();
    if (!runGuarded(png_jmpbuf(s_.png), [&] {
          for (std::size_t i = 0; i < count; ++i) png_read_row(s_.png, rows ? rows + i * bytesPerRow : scratch, nullptr);
        }))
      return fail(std::string("corrupt PNG: ") + s_.reader.message, count, error);
    nextRow += count;
    return true;
  }

  ReadStruct s_;
  std::vector<std::uint8_t> scratch_;
};

}  // namespace

std::unique_ptr<RowReader> openPNGRowReader(const EncodedBytes& bytes, std::string& error) {
  auto reader = std::make_unique<PNGRowReader>(bytes);
  error.clear();
  if (reader->open(bytes, error)) return reader;
  if (!error.empty()) return nullptr;
  // Interlaced: decoded whole.
  return openWholeImageRowReader([&](RowSink& sink, std::string& e) { return decodePNG(bytes, sink, e); }, error);
}

bool decodePNG(const EncodedBytes& bytes, RowSink& sink, std::string& error) {
  if (const std::string problem = chunkLengthProblem(bytes); !problem.empty()) {
    error = "corrupt PNG: " + problem;
    return false;
  }
  ReadStruct s(bytes);
  if (!open(s)) {
    error = "out of memory";
    return false;
  }
  RawHeader raw;
  DecodeStatus status = DecodeStatus::OK;
  if (!runGuarded(png_jmpbuf(s.png), [&] { status = decodeBody(s, sink, raw); })) {
    error = std::string("corrupt PNG: ") + s.reader.message;
    return false;
  }
  switch (status) {
    case DecodeStatus::OK: return true;
    case DecodeStatus::OverLimit: error = checkPixelLimit(raw.width, raw.height); break;
    case DecodeStatus::Unsupported: error = "unsupported PNG layout"; break;
    case DecodeStatus::Stopped: error = "stopped"; break;
  }
  return false;
}

}  // namespace imageio_detail

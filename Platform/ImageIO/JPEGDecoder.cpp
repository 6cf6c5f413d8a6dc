// JPEG decoding through libjpeg-turbo: header properties, full and DCT-scaled decodes.
//
// Errors never leave libjpeg through exit(): the error manager keeps the message and jumps
// back with longjmp. Only trivially destructible locals live between setjmp and any libjpeg
// call, as longjmp does not run destructors. Warnings that mean the data is damaged (premature
// end, bad Huffman codes, unexpected markers) are treated as errors, so a truncated file is
// refused instead of being decoded with a grey bottom.
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <jpeglib.h>
#include <jerror.h>

#include "ImageIO/ImageIOCodecs.h"

namespace imageio_detail {

namespace {

// A progressive file may hold many scans; a scan bomb holds thousands of tiny ones.
constexpr int kMaximumScans = 500;

struct ErrorManager {
  jpeg_error_mgr pub;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX + 64];
  jpeg_progress_mgr progress;
};

[[noreturn]] void failWith(j_common_ptr cinfo) {
  auto* err = reinterpret_cast<ErrorManager*>(cinfo->err);
  char buffer[JMSG_LENGTH_MAX];
  (*cinfo->err->format_message)(cinfo, buffer);
  std::snprintf(err->message, sizeof err->message, "%s", buffer);
  std::longjmp(err->jump, 1);
}

void errorExit(j_common_ptr cinfo) { failWith(cinfo); }

void emitMessage(j_common_ptr cinfo, int level) {
  if (level != -1) return;  // trace messages
  switch (cinfo->err->msg_code) {
    case JWRN_JPEG_EOF:
    case JWRN_HIT_MARKER:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_MUST_RESYNC:
    case JWRN_NOT_SEQUENTIAL:
      failWith(cinfo);
    default:
      cinfo->err->num_warnings++;  // harmless (extraneous bytes, odd Adobe transform...)
  }
}

void outputMessage(j_common_ptr) {}

void progressMonitor(j_common_ptr cinfo) {
  if (!cinfo->is_decompressor) return;
  auto* d = reinterpret_cast<j_decompress_ptr>(cinfo);
  if (d->input_scan_number > kMaximumScans) {
    auto* err = reinterpret_cast<ErrorManager*>(cinfo->err);
    std::snprintf(err->message, sizeof err->message, "progressive JPEG has more than %d scans", kMaximumScans);
    std::longjmp(err->jump, 1);
  }
}

// libjpeg's source manager over EncodedBytes: bytes in memory are handed over whole, a file a
// buffer at a time. At the end of the data it does what libjpeg's own memory source does:
// warns of the premature end (an error here, see emitMessage) and inserts an end marker.
struct ByteSource {
  jpeg_source_mgr pub;
  EncodedByteStream* stream;
};

const JOCTET kEndOfImage[2] = {0xFF, JPEG_EOI};

void initSource(j_decompress_ptr) {}

boolean fillInputBuffer(j_decompress_ptr cinfo) {
  auto* source = reinterpret_cast<ByteSource*>(cinfo->src);
  std::size_t got = 0;
  const std::uint8_t* bytes = source->stream->next(SIZE_MAX, got);
  if (got == 0) {
    WARNMS(cinfo, JWRN_JPEG_EOF);
    source->pub.next_input_byte = kEndOfImage;
    source->pub.bytes_in_buffer = 2;
    return TRUE;
  }
  source->pub.next_input_byte = bytes;
  source->pub.bytes_in_buffer = got;
  return TRUE;
}

void skipInputData(j_decompress_ptr cinfo, long count) {
  if (count <= 0) return;
  auto* source = reinterpret_cast<ByteSource*>(cinfo->src);
  const std::size_t n = static_cast<std::size_t>(count);
  if (n <= source->pub.bytes_in_buffer) {
    source->pub.next_input_byte += n;
    source->pub.bytes_in_buffer -= n;
    return;
  }
  source->stream->skip(n - source->pub.bytes_in_buffer);
  source->pub.bytes_in_buffer = 0;
}

void termSource(j_decompress_ptr) {}

// Owns the decompressor so that every path, including a jump back from libjpeg, destroys it.
struct Decompressor {
  jpeg_decompress_struct cinfo;
  ErrorManager err;
  bool created = false;
  EncodedByteStream stream;
  ByteSource source;
  std::size_t size;
  explicit Decompressor(const EncodedBytes& bytes) : stream(bytes), size(bytes.size()) {
    std::memset(&cinfo, 0, sizeof cinfo);
    std::memset(&err, 0, sizeof err);
    std::memset(&source, 0, sizeof source);
  }
  ~Decompressor() {
    if (created) jpeg_destroy_decompress(&cinfo);
  }
  Decompressor(const Decompressor&) = delete;
  Decompressor& operator=(const Decompressor&) = delete;
};

// Sets up the error manager, the byte source and the markers to keep. Must be called inside
// runGuarded(d.err.jump, ...).
void openDecompressor(Decompressor& d) {
  d.cinfo.err = jpeg_std_error(&d.err.pub);
  d.err.pub.error_exit = errorExit;
  d.err.pub.emit_message = emitMessage;
  d.err.pub.output_message = outputMessage;
  jpeg_create_decompress(&d.cinfo);
  d.created = true;
  d.err.progress.progress_monitor = progressMonitor;
  d.cinfo.progress = &d.err.progress;
  // Coefficient buffers of progressive files are the only large allocations inside libjpeg;
  // with no backing store, going over this budget is an error rather than a swap storm.
  const std::uint64_t budget = maximumPixelCount() * 8 + (std::uint64_t{64} << 20);
  d.cinfo.mem->max_memory_to_use = static_cast<long>(budget > 0x7fffffffffffULL ? 0x7fffffffffffULL : budget);
  d.source.stream = &d.stream;
  d.source.pub.init_source = initSource;
  d.source.pub.fill_input_buffer = fillInputBuffer;
  d.source.pub.skip_input_data = skipInputData;
  d.source.pub.resync_to_restart = jpeg_resync_to_restart;
  d.source.pub.term_source = termSource;
  d.cinfo.src = &d.source.pub;
  jpeg_save_markers(&d.cinfo, JPEG_APP0 + 1, 0xffff);
  jpeg_save_markers(&d.cinfo, JPEG_APP0 + 2, 0xffff);
}

// What the header pass collects inside the guarded region, for the caller to turn into
// properties afterwards.
struct RawHeader {
  const std::uint8_t* exif = nullptr;
  std::size_t exifLength = 0;
  JOCTET* icc = nullptr;
  unsigned int iccLength = 0;
};

void readRawHeader(Decompressor& d, RawHeader& raw) {
  openDecompressor(d);
  jpeg_read_header(&d.cinfo, TRUE);
  for (jpeg_saved_marker_ptr m = d.cinfo.marker_list; m; m = m->next) {
    if (m->marker == JPEG_APP0 + 1 && m->data_length >= 6 && std::memcmp(m->data, "Exif\0\0", 6) == 0) {
      raw.exif = m->data;
      raw.exifLength = m->data_length;
      break;
    }
  }
  if (!jpeg_read_icc_profile(&d.cinfo, &raw.icc, &raw.iccLength)) raw.icc = nullptr;
}

void fillHeaderInfo(const Decompressor& d, const RawHeader& raw, HeaderInfo& info) {
  const jpeg_decompress_struct& c = d.cinfo;
  info.width = c.image_width;
  info.height = c.image_height;
  info.depth = c.data_precision;
  info.outputBits = 8;
  info.hasAlpha = false;
  info.isProgressive = c.progressive_mode != 0;
  switch (c.jpeg_color_space) {
    case JCS_GRAYSCALE: info.colorModel = "Gray"; break;
    case JCS_CMYK:
    case JCS_YCCK: info.colorModel = "CMYK"; break;
    default: info.colorModel = "RGB"; break;
  }
  if (raw.exif) info.orientation = exifOrientation(raw.exif, raw.exifLength);
  if (raw.icc) {
    info.hasICCProfile = true;
    info.profileName = iccProfileDescription(raw.icc, raw.iccLength);
    if (info.profileName.empty()) info.profileName = "Embedded ICC profile";
  }
}

// Adobe files store CMYK inverted; both kinds become RGB with the naive K-multiplied formula.
void cmykRowsToRGBA(std::uint8_t* row, std::size_t width, bool inverted) {
  for (std::size_t x = 0; x < width; ++x) {
    std::uint8_t* p = row + 4 * x;
    unsigned c = p[0], m = p[1], y = p[2], k = p[3];
    if (!inverted) {
      c = 255 - c;
      m = 255 - m;
      y = 255 - y;
      k = 255 - k;
    }
    p[0] = static_cast<std::uint8_t>((c * k + 127) / 255);
    p[1] = static_cast<std::uint8_t>((m * k + 127) / 255);
    p[2] = static_cast<std::uint8_t>((y * k + 127) / 255);
    p[3] = 255;
  }
}

}  // namespace

bool readJPEGHeader(const EncodedBytes& bytes, HeaderInfo& info, std::string& error) {
  Decompressor d(bytes);
  RawHeader raw;
  const bool ok = runGuarded(d.err.jump, [&] { readRawHeader(d, raw); });
  if (!ok) {
    if (raw.icc) std::free(raw.icc);
    error = std::string("corrupt JPEG: ") + d.err.message;
    return false;
  }
  fillHeaderInfo(d, raw, info);
  if (raw.icc) std::free(raw.icc);
  if (info.width == 0 || info.height == 0) {
    error = "corrupt JPEG: zero image size";
    return false;
  }
  error = checkPixelLimit(info.width, info.height);
  return error.empty();
}

namespace {

enum class DecodeStatus { OK, ZeroSize, OverLimit, TooLittleData, Unsupported, Stopped, NoRows };

// Huffman coding spends at least one bit on every 8 x 8 block of the first scan (a DC code),
// so no such file codes more than 512 pixels per byte; a header claiming more describes data
// that is not there, and is refused before a row buffer or a progressive file's coefficient
// arrays are sized by it. (Arithmetic coding has no such floor.)
constexpr std::uint64_t kMaximumPixelsPerByte = 1024;

// Reads the header and starts the decompressor at a DCT scale of 1/denom, with RGBA (or CMYK,
// converted per row) output. Guarded: trivially destructible locals only.
DecodeStatus startBody(Decompressor& d, int denom, bool& cmyk, bool& inverted) {
  openDecompressor(d);
  jpeg_read_header(&d.cinfo, TRUE);
  jpeg_decompress_struct& c = d.cinfo;
  if (c.image_width == 0 || c.image_height == 0) return DecodeStatus::ZeroSize;
  if (exceedsPixelLimit(c.image_width, c.image_height)) return DecodeStatus::OverLimit;
  if (!c.arith_code && std::uint64_t{c.image_width} * c.image_height > kMaximumPixelsPerByte * d.size)
    return DecodeStatus::TooLittleData;
  cmyk = c.jpeg_color_space == JCS_CMYK || c.jpeg_color_space == JCS_YCCK;
  inverted = cmyk && c.saw_Adobe_marker;
  c.out_color_space = cmyk ? JCS_CMYK : JCS_EXT_RGBA;
  c.scale_num = 1;
  c.scale_denom = (denom == 2 || denom == 4 || denom == 8) ? static_cast<unsigned>(denom) : 1;
  jpeg_start_decompress(&c);
  if (c.output_components != 4) return DecodeStatus::Unsupported;
  return DecodeStatus::OK;
}

// The guarded part of a decode: trivially destructible locals only.
DecodeStatus decodeBody(Decompressor& d, int denom, RowSink& sink) {
  bool cmyk = false, inverted = false;
  if (const DecodeStatus s = startBody(d, denom, cmyk, inverted); s != DecodeStatus::OK) return s;
  jpeg_decompress_struct& c = d.cinfo;
  const std::size_t width = c.output_width, height = c.output_height;
  if (!sink.begin(width, height, 8)) return DecodeStatus::Stopped;
  std::size_t strip = sink.maxStripRows();
  strip = strip < 1 ? 1 : (strip > 64 ? 64 : strip);
  JSAMPROW rowPointers[64];
  while (c.output_scanline < height) {
    const std::size_t first = c.output_scanline;
    const std::size_t count = height - first < strip ? height - first : strip;
    std::size_t bytesPerRow = 0;
    std::uint8_t* rows = sink.rows(first, count, bytesPerRow);
    if (!rows) {
      jpeg_abort_decompress(&c);
      return DecodeStatus::Stopped;
    }
    for (std::size_t i = 0; i < count; ++i) rowPointers[i] = rows + i * bytesPerRow;
    std::size_t done = 0;
    while (done < count) {
      const JDIMENSION got = jpeg_read_scanlines(&c, rowPointers + done, static_cast<JDIMENSION>(count - done));
      if (got == 0) break;
      done += got;
    }
    if (done == 0) return DecodeStatus::NoRows;
    if (cmyk)
      for (std::size_t i = 0; i < done; ++i) cmykRowsToRGBA(rows + i * bytesPerRow, width, inverted);
    if (!sink.commit(first, done)) {
      jpeg_abort_decompress(&c);
      return DecodeStatus::Stopped;
    }
  }
  jpeg_finish_decompress(&c);
  return DecodeStatus::OK;
}

}  // namespace

namespace {

std::string statusText(const Decompressor& d, DecodeStatus status) {
  switch (status) {
    case DecodeStatus::OK: return "";
    case DecodeStatus::ZeroSize: return "corrupt JPEG: zero image size";
    case DecodeStatus::OverLimit: return checkPixelLimit(d.cinfo.image_width, d.cinfo.image_height);
    case DecodeStatus::TooLittleData:
      return "corrupt JPEG: " + std::to_string(d.cinfo.image_width) + " x " + std::to_string(d.cinfo.image_height) +
             " pixels cannot be coded in " + std::to_string(d.size) + " bytes";
    case DecodeStatus::Unsupported: return "unsupported JPEG colour space";
    case DecodeStatus::Stopped: return "stopped";
    case DecodeStatus::NoRows: return "corrupt JPEG: no rows decoded";
  }
  return "";
}

// Reads a JPEG through libjpeg's scanline interface, keeping the decompressor between calls.
// Progressive files are the exception to streaming inside libjpeg: starting the decompressor
// reads every scan into whole-image coefficient buffers.
class JPEGRowReader final : public RowReader {
 public:
  explicit JPEGRowReader(const EncodedBytes& bytes) : d_(bytes) {}

  bool open(int denom, std::string& error) {
    DecodeStatus status = DecodeStatus::OK;
    if (!runGuarded(d_.err.jump, [&] { status = startBody(d_, denom, cmyk_, inverted_); })) {
      error = std::string("corrupt JPEG: ") + d_.err.message;
      return false;
    }
    if (status != DecodeStatus::OK) {
      error = statusText(d_, status);
      return false;
    }
    width = d_.cinfo.output_width;
    height = d_.cinfo.output_height;
    bitsPerComponent = 8;
    return true;
  }

  bool read(std::uint8_t* rows, std::size_t count, std::size_t bytesPerRow, std::string& error) override {
    if (!canAdvance(count, error)) return false;
    std::size_t done = 0;
    const bool ok = runGuarded(d_.err.jump, [&] {
      JSAMPROW pointers[32];
      while (done < count) {
        const std::size_t n = count - done < 32 ? count - done : 32;
        for (std::size_t i = 0; i < n; ++i) pointers[i] = rows + (done + i) * bytesPerRow;
        const JDIMENSION got = jpeg_read_scanlines(&d_.cinfo, pointers, static_cast<JDIMENSION>(n));
        if (got == 0) break;
        done += got;
      }
    });
    if (!ok || done < count) return fail(ok ? "corrupt JPEG: no rows decoded" : std::string("corrupt JPEG: ") + d_.err.message,
                                         count, error);
    if (cmyk_)
      for (std::size_t i = 0; i < count; ++i) cmykRowsToRGBA(rows + i * bytesPerRow, width, inverted_);
    nextRow += count;
    return true;
  }

  bool skip(std::size_t count, std::string& error) override {
    if (!canAdvance(count, error)) return false;
    std::size_t done = 0;
    const bool ok = runGuarded(d_.err.jump, [&] {
      while (done < count) {
        const JDIMENSION got = jpeg_skip_scanlines(&d_.cinfo, static_cast<JDIMENSION>(count - done));
        if (got == 0) break;
        done += got;
      }
    });
    if (!ok || done < count) return fail(ok ? "corrupt JPEG: no rows decoded" : std::string("corrupt JPEG: ") + d_.err.message,
                                         count, error);
    nextRow += count;
    return true;
  }

 private:
  Decompressor d_;
  bool cmyk_ = false, inverted_ = false;
};

}  // namespace

bool decodeJPEG(const EncodedBytes& bytes, const DecodeRequest& request, RowSink& sink, std::string& error) {
  Decompressor d(bytes);
  DecodeStatus status = DecodeStatus::OK;
  if (!runGuarded(d.err.jump, [&] { status = decodeBody(d, request.scaleDenominator, sink); })) {
    error = std::string("corrupt JPEG: ") + d.err.message;
    return false;
  }
  if (status == DecodeStatus::OK) return true;
  error = statusText(d, status);
  return false;
}

std::unique_ptr<RowReader> openJPEGRowReader(const EncodedBytes& bytes, std::string& error, int scaleDenominator) {
  auto reader = std::make_unique<JPEGRowReader>(bytes);
  if (!reader->open(scaleDenominator, error)) return nullptr;
  return reader;
}

}  // namespace imageio_detail

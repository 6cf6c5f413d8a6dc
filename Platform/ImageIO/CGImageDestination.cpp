// CGImageDestination: PNG (libpng, row by row), JPEG (libjpeg-turbo, row by row) and WebP
// (libwebp, whole picture) files, written under a temporary name and renamed on success.
#include "ImageIO/CGImageDestination.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <new>
#include <unistd.h>

#include <jerror.h>
#include <jpeglib.h>
#include <png.h>
#include <webp/encode.h>

#include "ImageIO/CGImageSource.h"
#include "ImageIO/ImageIOCodecs.h"

using imageio_detail::runGuarded;

namespace {

enum class Kind { PNG, JPEG, WebP };

bool littleEndian() {
  const std::uint16_t probe = 1;
  std::uint8_t first = 0;
  std::memcpy(&first, &probe, 1);
  return first == 1;
}

struct JPEGError {
  jpeg_error_mgr pub;
  std::jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr cinfo) {
  auto* err = reinterpret_cast<JPEGError*>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, err->message);
  std::longjmp(err->jump, 1);
}
void jpegOutputMessage(j_common_ptr) {}

struct PNGError {
  char message[256] = {0};
};
void pngErrorFn(png_structp png, png_const_charp message) {
  auto* e = static_cast<PNGError*>(png_get_error_ptr(png));
  std::snprintf(e->message, sizeof e->message, "%s", message ? message : "unknown error");
  png_longjmp(png, 1);
}
void pngWarningFn(png_structp, png_const_charp) {}

// The temporary files being written, kept where a signal handler can reach them without
// allocating or locking: when the process is stopped by SIGINT, SIGTERM, SIGHUP or SIGXFSZ
// (a write past the file-size limit), the handler removes them before the signal's default
// action ends the process. Handlers are installed only for signals the program leaves at
// their default action, so a host's own handling is never replaced.
struct PartialFileSlot {
  enum : int { kFree = 0, kFilling = 1, kInUse = 2 };
  static constexpr std::size_t kPathMax = 4096;
  std::atomic<int> state{kFree};
  std::array<char, kPathMax> path{};
};
std::array<PartialFileSlot, 64> partialFileSlots{};

void removePartialFilesOnSignal(int sig) {
  for (PartialFileSlot& slot : partialFileSlots)
    if (slot.state.load() == PartialFileSlot::kInUse) ::unlink(slot.path.data());
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}

class PartialFiles {
 public:
  // The slot that now holds `path`, or -1 when every slot is taken or the path is too long
  // (the file is then still removed on every ordinary failure, only not on a signal).
  static int add(const std::string& path) {
    installHandlers();
    if (path.size() >= PartialFileSlot::kPathMax) return -1;
    for (std::size_t i = 0; i < partialFileSlots.size(); ++i) {
      PartialFileSlot& slot = partialFileSlots[i];
      int expected = PartialFileSlot::kFree;
      if (!slot.state.compare_exchange_strong(expected, PartialFileSlot::kFilling)) continue;
      std::memcpy(slot.path.data(), path.c_str(), path.size() + 1);
      slot.state.store(PartialFileSlot::kInUse);
      return int(i);
    }
    return -1;
  }
  static void remove(int slot) {
    if (slot >= 0) partialFileSlots[std::size_t(slot)].state.store(PartialFileSlot::kFree);
  }

 private:
  static void installHandlers() {
    static const bool installed = [] {
      for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGXFSZ}) {
        struct sigaction current {};
        if (::sigaction(sig, nullptr, &current) != 0 || current.sa_handler != SIG_DFL) continue;
        struct sigaction action {};
        action.sa_handler = removePartialFilesOnSignal;
        sigemptyset(&action.sa_mask);
        ::sigaction(sig, &action, nullptr);
      }
      return true;
    }();
    (void)installed;
  }
};

}  // namespace

class CGImageDestination {
 public:
  CGImageDestination(std::string path, Kind kind) : path_(std::move(path)), kind_(kind) {}
  ~CGImageDestination() { abandon(); }

  bool begin(std::size_t width, std::size_t height, int bits, bool hasAlpha, const Dictionary& properties);
  bool writeRows(const std::uint8_t* rows, std::size_t rowBytes, std::size_t rowCount);
  bool finalize();
  std::string error;

 private:
  bool fail(std::string message) {
    error = std::move(message);
    abandon();
    failed_ = true;
    return false;
  }
  void abandon();
  bool openFile();
  bool closeAndRename();
  bool beginPNG();
  bool beginJPEG();
  // Each writes one row of straight RGBA at the begun depth; setjmp is inside.
  bool writePNGRow(const std::uint8_t* row);
  bool writeJPEGRows(const std::uint8_t* rows, std::size_t rowBytes, std::size_t count);
  bool finishPNG();
  bool finishJPEG();
  bool finishWebP();

  std::string path_, tempPath_;
  int partialSlot_ = -1;  // the temporary file's entry in PartialFiles
  Kind kind_;
  std::FILE* file_ = nullptr;
  std::size_t width_ = 0, height_ = 0, rowsWritten_ = 0;
  int bits_ = 8;
  bool hasAlpha_ = false, gray_ = false, begun_ = false, finished_ = false, failed_ = false;
  double quality_ = 0.9;
  bool lossless_ = false;
  std::vector<std::uint8_t> scratch_;  // one converted row (or, for WebP, the whole picture)

  png_structp png_ = nullptr;
  png_infop pngInfo_ = nullptr;
  PNGError pngError_;
  jpeg_compress_struct jpeg_{};
  JPEGError jpegError_{};
  bool jpegCreated_ = false;
};

void CGImageDestination::abandon() {
  if (png_) png_destroy_write_struct(&png_, pngInfo_ ? &pngInfo_ : nullptr);
  png_ = nullptr;
  pngInfo_ = nullptr;
  if (jpegCreated_) jpeg_destroy_compress(&jpeg_);
  jpegCreated_ = false;
  if (file_) std::fclose(file_);
  file_ = nullptr;
  if (!tempPath_.empty()) ::unlink(tempPath_.c_str());
  tempPath_.clear();
  PartialFiles::remove(partialSlot_);
  partialSlot_ = -1;
}

bool CGImageDestination::openFile() {
  tempPath_ = path_ + ".partial-" + std::to_string(::getpid());
  partialSlot_ = PartialFiles::add(tempPath_);
  file_ = std::fopen(tempPath_.c_str(), "wb");
  if (!file_) {
    tempPath_.clear();
    PartialFiles::remove(partialSlot_);
    partialSlot_ = -1;
    return fail("cannot create " + path_ + ": " + std::strerror(errno));
  }
  return true;
}

bool CGImageDestination::closeAndRename() {
  const bool writeFailed = std::ferror(file_) != 0;
  const bool closeFailed = std::fclose(file_) != 0;
  file_ = nullptr;
  if (writeFailed || closeFailed) return fail("cannot write " + path_ + ": " + std::strerror(errno));
  if (std::rename(tempPath_.c_str(), path_.c_str()) != 0) return fail("cannot write " + path_ + ": " + std::strerror(errno));
  tempPath_.clear();
  PartialFiles::remove(partialSlot_);
  partialSlot_ = -1;
  finished_ = true;
  return true;
}

bool CGImageDestination::begin(std::size_t width, std::size_t height, int bits, bool hasAlpha,
                               const Dictionary& properties) {
  if (begun_) return fail("the image has already been begun");
  if (width == 0 || height == 0) return fail("cannot write an empty image");
  if (bits != 8 && bits != 16) return fail("bits per component must be 8 or 16");
  if (width > 0x7fffffff || height > 0x7fffffff) return fail("image is too large");
  begun_ = true;
  width_ = width;
  height_ = height;
  bits_ = bits;
  hasAlpha_ = hasAlpha && kind_ != Kind::JPEG;
  auto it = properties.find(kCGImagePropertyColorModel);
  gray_ = it != properties.end() && it->second.string() && *it->second.string() == "Gray";
  it = properties.find(kCGImageDestinationLossyCompressionQuality);
  if (it != properties.end() && it->second.isNumber()) {
    const double q = it->second.doubleValue();
    if (!std::isfinite(q) || q < 0 || q > 1) return fail("compression quality must be between 0 and 1");
    quality_ = q;
  }
  it = properties.find(kCGImageDestinationLossless);
  lossless_ = (it != properties.end() && it->second.boolValue()) || quality_ >= 1.0;
  switch (kind_) {
    case Kind::PNG: return openFile() && beginPNG();
    case Kind::JPEG:
      if (width > JPEG_MAX_DIMENSION || height > JPEG_MAX_DIMENSION)
        return fail("JPEG images are limited to " + std::to_string(JPEG_MAX_DIMENSION) + " pixels per side");
      return openFile() && beginJPEG();
    case Kind::WebP:
      if (width > WEBP_MAX_DIMENSION || height > WEBP_MAX_DIMENSION)
        return fail("WebP images are limited to " + std::to_string(WEBP_MAX_DIMENSION) + " pixels per side");
      try {
        scratch_.resize(width * height * 4);
      } catch (const std::bad_alloc&) {
        return fail("out of memory");
      }
      return true;
  }
  return false;
}

bool CGImageDestination::beginPNG() {
  png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, &pngError_, pngErrorFn, pngWarningFn);
  if (!png_) return fail("out of memory");
  pngInfo_ = png_create_info_struct(png_);
  if (!pngInfo_) return fail("out of memory");
  const int colorType = gray_ ? (hasAlpha_ ? PNG_COLOR_TYPE_GRAY_ALPHA : PNG_COLOR_TYPE_GRAY)
                              : (hasAlpha_ ? PNG_COLOR_TYPE_RGBA : PNG_COLOR_TYPE_RGB);
  const bool swap = bits_ == 16 && littleEndian();
  const bool ok = runGuarded(png_jmpbuf(png_), [&] {
    png_init_io(png_, file_);
    png_set_IHDR(png_, pngInfo_, static_cast<png_uint_32>(width_), static_cast<png_uint_32>(height_), bits_,
                 colorType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png_, 6);
    png_write_info(png_, pngInfo_);
    if (swap) png_set_swap(png_);
  });
  if (!ok) return fail(std::string("PNG encoder: ") + pngError_.message);
  const std::size_t channels = gray_ ? (hasAlpha_ ? 2 : 1) : (hasAlpha_ ? 4 : 3);
  try {
    scratch_.resize(width_ * channels * static_cast<std::size_t>(bits_ / 8));
  } catch (const std::bad_alloc&) {
    return fail("out of memory");
  }
  return true;
}

bool CGImageDestination::beginJPEG() {
  jpeg_.err = jpeg_std_error(&jpegError_.pub);
  jpegError_.pub.error_exit = jpegErrorExit;
  jpegError_.pub.output_message = jpegOutputMessage;
  const int q = std::clamp(static_cast<int>(std::lround(quality_ * 100.0)), 1, 100);
  const bool ok = runGuarded(jpegError_.jump, [&] {
    jpeg_create_compress(&jpeg_);
    jpegCreated_ = true;
    jpeg_stdio_dest(&jpeg_, file_);
    jpeg_.image_width = static_cast<JDIMENSION>(width_);
    jpeg_.image_height = static_cast<JDIMENSION>(height_);
    if (gray_) {
      jpeg_.input_components = 1;
      jpeg_.in_color_space = JCS_GRAYSCALE;
    } else {
      jpeg_.input_components = 4;
      jpeg_.in_color_space = JCS_EXT_RGBA;  // the fourth byte is ignored
    }
    jpeg_set_defaults(&jpeg_);
    jpeg_set_quality(&jpeg_, q, TRUE);
    jpeg_start_compress(&jpeg_, TRUE);
  });
  if (!ok) return fail(std::string("JPEG encoder: ") + jpegError_.message);
  if (gray_ || bits_ == 16) {
    try {
      scratch_.resize(width_ * 4 * 16);
    } catch (const std::bad_alloc&) {
      return fail("out of memory");
    }
  }
  return true;
}

// Converts `count` straight RGBA rows (at bits_) to the channel layout and depth of `dst`:
// outChannels 1 (grey), 2 (grey+alpha), 3 (RGB), 4 (RGBA); outBits 8 or 16.
static void convertRow(const std::uint8_t* src, int bits, std::size_t width, std::uint8_t* dst, int outChannels,
                       int outBits) {
  for (std::size_t x = 0; x < width; ++x) {
    std::uint32_t v[4];
    if (bits == 16) {
      std::uint16_t s[4];
      std::memcpy(s, src + x * 8, 8);
      for (int c = 0; c < 4; ++c) v[c] = s[c];
    } else {
      for (int c = 0; c < 4; ++c) v[c] = src[x * 4 + static_cast<std::size_t>(c)];
    }
    if (bits != outBits) {
      for (int c = 0; c < 4; ++c) v[c] = outBits == 8 ? (v[c] * 255u + 32767u) / 65535u : v[c] * 257u;
    }
    std::uint32_t out[4];
    int n = 0;
    if (outChannels <= 2) {
      // Grey sources were expanded to equal R, G, B; a luma mix covers edited colour too.
      out[n++] = (v[0] * 2126u + v[1] * 7152u + v[2] * 722u + 5000u) / 10000u;
      if (outChannels == 2) out[n++] = v[3];
    } else {
      for (int c = 0; c < outChannels; ++c) out[n++] = v[c];
    }
    for (int c = 0; c < n; ++c) {
      if (outBits == 16) {
        const std::uint16_t s = static_cast<std::uint16_t>(out[c]);
        std::memcpy(dst + (x * static_cast<std::size_t>(n) + static_cast<std::size_t>(c)) * 2, &s, 2);
      } else {
        dst[x * static_cast<std::size_t>(n) + static_cast<std::size_t>(c)] = static_cast<std::uint8_t>(out[c]);
      }
    }
  }
}

bool CGImageDestination::writePNGRow(const std::uint8_t* row) {
  const int channels = gray_ ? (hasAlpha_ ? 2 : 1) : (hasAlpha_ ? 4 : 3);
  if (channels != 4) {
    convertRow(row, bits_, width_, scratch_.data(), channels, bits_);
    row = scratch_.data();
  }
  if (!runGuarded(png_jmpbuf(png_), [&] { png_write_row(png_, row); }))
    return fail(std::string("PNG encoder: ") + pngError_.message);
  return true;
}

bool CGImageDestination::writeJPEGRows(const std::uint8_t* rows, std::size_t rowBytes, std::size_t count) {
  JSAMPROW pointers[16];
  for (std::size_t done = 0; done < count;) {
    const std::size_t n = std::min<std::size_t>(16, count - done);
    for (std::size_t i = 0; i < n; ++i) {
      const std::uint8_t* src = rows + (done + i) * rowBytes;
      if (gray_ || bits_ == 16) {
        std::uint8_t* dst = scratch_.data() + i * width_ * 4;
        convertRow(src, bits_, width_, dst, gray_ ? 1 : 4, 8);
        pointers[i] = dst;
      } else {
        pointers[i] = const_cast<JSAMPROW>(src);
      }
    }
    bool stalled = false;
    const bool ok = runGuarded(jpegError_.jump, [&] {
      std::size_t written = 0;
      while (written < n) {
        const JDIMENSION w = jpeg_write_scanlines(&jpeg_, pointers + written, static_cast<JDIMENSION>(n - written));
        if (w == 0) {
          stalled = true;
          return;
        }
        written += w;
      }
    });
    if (!ok) return fail(std::string("JPEG encoder: ") + jpegError_.message);
    if (stalled) return fail("JPEG encoder made no progress");
    done += n;
  }
  return true;
}

bool CGImageDestination::writeRows(const std::uint8_t* rows, std::size_t rowBytes, std::size_t rowCount) {
  if (failed_) return false;
  if (!begun_) return fail("no image has been begun");
  if (finished_) return fail("the destination is already finalized");
  if (!rows && rowCount > 0) return fail("no pixels given");
  const std::size_t minimumRowBytes = width_ * 4 * static_cast<std::size_t>(bits_ / 8);
  if (rowCount > 0 && rowBytes < minimumRowBytes) return fail("row bytes are smaller than a row");
  if (rowCount > height_ - rowsWritten_) return fail("more rows written than the image has");
  switch (kind_) {
    case Kind::PNG:
      for (std::size_t i = 0; i < rowCount; ++i)
        if (!writePNGRow(rows + i * rowBytes)) return false;
      break;
    case Kind::JPEG:
      if (!writeJPEGRows(rows, rowBytes, rowCount)) return false;
      break;
    case Kind::WebP:
      for (std::size_t i = 0; i < rowCount; ++i)
        convertRow(rows + i * rowBytes, bits_, width_, scratch_.data() + (rowsWritten_ + i) * width_ * 4, 4, 8);
      break;
  }
  rowsWritten_ += rowCount;
  return true;
}

bool CGImageDestination::finishPNG() {
  if (!runGuarded(png_jmpbuf(png_), [&] { png_write_end(png_, pngInfo_); }))
    return fail(std::string("PNG encoder: ") + pngError_.message);
  png_destroy_write_struct(&png_, &pngInfo_);
  png_ = nullptr;
  pngInfo_ = nullptr;
  return true;
}

bool CGImageDestination::finishJPEG() {
  if (!runGuarded(jpegError_.jump, [&] { jpeg_finish_compress(&jpeg_); }))
    return fail(std::string("JPEG encoder: ") + jpegError_.message);
  jpeg_destroy_compress(&jpeg_);
  jpegCreated_ = false;
  return true;
}

bool CGImageDestination::finishWebP() {
  std::uint8_t* output = nullptr;
  std::size_t size = 0;
  const int w = static_cast<int>(width_), h = static_cast<int>(height_), stride = w * 4;
  if (lossless_) {
    size = WebPEncodeLosslessRGBA(scratch_.data(), w, h, stride, &output);
  } else if (hasAlpha_) {
    size = WebPEncodeRGBA(scratch_.data(), w, h, stride, static_cast<float>(quality_ * 100.0), &output);
  } else {
    // Without alpha the encoder is given RGB so that no alpha plane is stored.
    for (std::size_t i = 0; i < width_ * height_; ++i) std::memmove(&scratch_[i * 3], &scratch_[i * 4], 3);
    size = WebPEncodeRGB(scratch_.data(), w, h, w * 3, static_cast<float>(quality_ * 100.0), &output);
  }
  std::vector<std::uint8_t>().swap(scratch_);
  if (size == 0 || !output) {
    if (output) WebPFree(output);
    return fail("WebP encoder failed");
  }
  if (!openFile()) {
    WebPFree(output);
    return false;
  }
  const std::size_t written = std::fwrite(output, 1, size, file_);
  WebPFree(output);
  if (written != size) return fail("cannot write " + path_ + ": " + std::strerror(errno));
  return true;
}

bool CGImageDestination::finalize() {
  if (failed_) return false;
  if (!begun_) return fail("no image was added");
  if (finished_) return fail("the destination is already finalized");
  if (rowsWritten_ != height_)
    return fail("only " + std::to_string(rowsWritten_) + " of " + std::to_string(height_) + " rows were written");
  bool ok = false;
  switch (kind_) {
    case Kind::PNG: ok = finishPNG(); break;
    case Kind::JPEG: ok = finishJPEG(); break;
    case Kind::WebP: ok = finishWebP(); break;
  }
  return ok && closeAndRename();
}

// ---- public functions --------------------------------------------------------------------

std::string CGImageDestinationTypeForPath(const std::string& path) {
  const auto slash = path.find_last_of('/');
  const auto dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string ext = path.substr(dot + 1);
  for (auto& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (ext == "png") return kUTTypePNG;
  if (ext == "jpg" || ext == "jpeg") return kUTTypeJPEG;
  if (ext == "webp") return kUTTypeWebP;
  return "";
}

CGImageDestinationRef CGImageDestinationCreateWithURL(const std::string& path, const std::string& type,
                                                      std::size_t count) {
  if (path.empty() || count != 1) return nullptr;
  std::string p = path;
  if (p.rfind("file://", 0) == 0) p = p.substr(7);
  if (type == kUTTypePNG) return std::make_shared<CGImageDestination>(p, Kind::PNG);
  if (type == kUTTypeJPEG) return std::make_shared<CGImageDestination>(p, Kind::JPEG);
  if (type == kUTTypeWebP) return std::make_shared<CGImageDestination>(p, Kind::WebP);
  return nullptr;
}

bool CGImageDestinationBeginImage(const CGImageDestinationRef& dest, std::size_t width, std::size_t height,
                                  int bitsPerComponent, bool hasAlpha, const Dictionary& properties) {
  return dest && dest->begin(width, height, bitsPerComponent, hasAlpha, properties);
}

bool CGImageDestinationWriteRows(const CGImageDestinationRef& dest, const void* rgbaRows, std::size_t rowBytes,
                                 std::size_t rowCount) {
  return dest && dest->writeRows(static_cast<const std::uint8_t*>(rgbaRows), rowBytes, rowCount);
}

bool CGImageDestinationFinalize(const CGImageDestinationRef& dest) { return dest && dest->finalize(); }

bool CGImageDestinationAddImage(const CGImageDestinationRef& dest, const CGImageRef& image,
                                const Dictionary& properties) {
  if (!dest) return false;
  if (!image || image->width == 0 || image->height == 0) {
    dest->error = "no image given";
    return false;
  }
  Dictionary props = properties;
  if (!props.count(kCGImagePropertyColorModel)) props[kCGImagePropertyColorModel] = Value(image->colorModel);
  return dest->begin(image->width, image->height, image->bitsPerComponent, image->hasAlpha, props) &&
         dest->writeRows(image->pixels.data(), image->bytesPerRow, image->height);
}

std::string CGImageDestinationGetLastError(const CGImageDestinationRef& dest) { return dest ? dest->error : ""; }

// CGImageSource: format detection, header properties, full decodes and bounded thumbnails.
#include "ImageIO/CGImageSource.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <new>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ImageIO/ImageIOCodecs.h"

using namespace imageio_detail;

namespace {

std::atomic<std::uint64_t> gMaximumPixelCount{268'435'456};
thread_local std::string tCreateError;

enum class Format { JPEG, PNG, WebP };

bool detectFormat(const std::uint8_t* b, std::size_t size, Format& format) {
  static const std::uint8_t kPNG[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (size >= 3 && b[0] == 0xff && b[1] == 0xd8 && b[2] == 0xff) {
    format = Format::JPEG;
    return true;
  }
  if (size >= 8 && std::memcmp(b, kPNG, 8) == 0) {
    format = Format::PNG;
    return true;
  }
  if (size >= 12 && std::memcmp(b, "RIFF", 4) == 0 && std::memcmp(b + 8, "WEBP", 4) == 0) {
    format = Format::WebP;
    return true;
  }
  return false;
}

std::string humanSize(std::uint64_t bytes) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.1f MiB", static_cast<double>(bytes) / (1024.0 * 1024.0));
  return buffer;
}

bool optionBool(const Dictionary& options, const char* key) {
  auto it = options.find(key);
  return it != options.end() && it->second.boolValue();
}

double optionNumber(const Dictionary& options, const char* key) {
  auto it = options.find(key);
  return it != options.end() ? it->second.doubleValue() : 0.0;
}

// Collects a whole image. The pixel buffer grows with the rows the decoder really delivers
// (doubling, up to the whole image), never to the size a header claims up front: a file that
// claims a huge picture and ends after a few rows costs memory for those rows only.
class ImageSink final : public RowSink {
 public:
  bool begin(std::size_t width, std::size_t height, int bits) override {
    image_ = std::make_shared<CGImage>();
    image_->width = width;
    image_->height = height;
    image_->bitsPerComponent = bits;
    image_->bytesPerRow = width * 4 * static_cast<std::size_t>(bits / 8);
    return true;
  }
  std::uint8_t* rows(std::size_t firstRow, std::size_t rowCount, std::size_t& bytesPerRow) override {
    bytesPerRow = image_->bytesPerRow;
    if (!reserveRows(firstRow + rowCount)) return nullptr;
    return image_->row(firstRow);
  }
  bool commit(std::size_t, std::size_t) override { return true; }
  std::size_t maxStripRows() const override { return 32; }
  std::shared_ptr<CGImage> take() {
    if (image_ && !reserveRows(image_->height)) image_.reset();
    return std::move(image_);
  }

 private:
  // A buffer the header sizes at no more than this is made whole at once: a small image (a
  // texture, a thumbnail's source) is then never copied while it grows, and a header that lies
  // costs no more than this. Larger buffers grow with the rows really there.
  static constexpr std::size_t kWholeAtOnceBytes = std::size_t(16) << 20;

  bool reserveRows(std::size_t rowCount) {
    const std::size_t needed = std::min(rowCount, image_->height) * image_->bytesPerRow;
    std::vector<std::uint8_t>& pixels = image_->pixels;
    if (pixels.size() >= needed) return true;
    const std::size_t whole = image_->height * image_->bytesPerRow;
    try {
      pixels.resize(whole <= kWholeAtOnceBytes ? whole : std::min(whole, std::max(needed, pixels.size() * 2)));
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }

 public:

 private:
  std::shared_ptr<CGImage> image_;
};

// Collects an image scaled to a target size as its rows arrive: the decoded rows pass through
// a streaming scaler and are not kept, so a large file (a compression bomb under the pixel
// limit) costs a strip and the scaler's small intermediate, not its whole decoded size. A
// decode that already has the target size is collected whole.
class ScalingSink final : public RowSink {
 public:
  ScalingSink(std::size_t width, std::size_t height) : width_(width), height_(height) {}
  bool begin(std::size_t width, std::size_t height, int bits) override {
    if (width == width_ && height == height_) {
      whole_ = std::make_unique<ImageSink>();
      return whole_->begin(width, height, bits);
    }
    bytesPerRow_ = width * 4 * static_cast<std::size_t>(bits / 8);
    scaler_ = std::make_unique<CGImageStreamingScaler>(width, height, bits, width_, height_);
    return true;
  }
  std::uint8_t* rows(std::size_t firstRow, std::size_t rowCount, std::size_t& bytesPerRow) override {
    if (whole_) return whole_->rows(firstRow, rowCount, bytesPerRow);
    bytesPerRow = bytesPerRow_;
    try {
      if (strip_.size() < rowCount * bytesPerRow_) strip_.resize(rowCount * bytesPerRow_);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    return strip_.data();
  }
  bool commit(std::size_t firstRow, std::size_t rowCount) override {
    if (whole_) return whole_->commit(firstRow, rowCount);
    return scaler_->addRows(strip_.data(), bytesPerRow_, rowCount);
  }
  std::size_t maxStripRows() const override { return 32; }
  std::shared_ptr<CGImage> take() {
    if (whole_) return whole_->take();
    return scaler_ ? scaler_->finish() : nullptr;
  }

 private:
  std::size_t width_, height_, bytesPerRow_ = 0;
  std::unique_ptr<ImageSink> whole_;
  std::unique_ptr<CGImageStreamingScaler> scaler_;
  std::vector<std::uint8_t> strip_;
};

// Hands strips to a consumer, through one reusable strip buffer.
class StripSink final : public RowSink {
 public:
  explicit StripSink(const CGImageSourceStripConsumer& consumer) : consumer_(consumer) {}
  bool begin(std::size_t width, std::size_t height, int bits) override {
    width_ = width;
    height_ = height;
    bits_ = bits;
    bytesPerRow_ = width * 4 * static_cast<std::size_t>(bits / 8);
    return true;
  }
  std::uint8_t* rows(std::size_t, std::size_t rowCount, std::size_t& bytesPerRow) override {
    bytesPerRow = bytesPerRow_;
    try {
      if (buffer_.size() < rowCount * bytesPerRow_) buffer_.resize(rowCount * bytesPerRow_);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    return buffer_.data();
  }
  bool commit(std::size_t firstRow, std::size_t rowCount) override {
    // A whole-image commit (interlaced PNG, WebP) is passed on in ordinary strips.
    const std::size_t step = std::max<std::size_t>(rowCount > maxStripRows() ? maxStripRows() : rowCount, 1);
    for (std::size_t done = 0; done < rowCount; done += step) {
      CGImageSourceStrip strip;
      strip.width = width_;
      strip.height = height_;
      strip.bitsPerComponent = bits_;
      strip.firstRow = firstRow + done;
      strip.rowCount = std::min(step, rowCount - done);
      strip.bytesPerRow = bytesPerRow_;
      strip.rows = buffer_.data() + done * bytesPerRow_;
      if (!consumer_(strip)) return false;
    }
    return true;
  }
  std::size_t maxStripRows() const override { return 64; }

 private:
  const CGImageSourceStripConsumer& consumer_;
  std::size_t width_ = 0, height_ = 0, bytesPerRow_ = 0;
  int bits_ = 8;
  std::vector<std::uint8_t> buffer_;
};

}  // namespace

namespace imageio_detail {

EncodedBytes::EncodedBytes(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)), size_(bytes_.size()) {}

EncodedBytes::EncodedBytes(int fd, std::size_t size) : fd_(fd), size_(size) {}

EncodedBytes::~EncodedBytes() {
  if (fd_ >= 0) ::close(fd_);
}

std::size_t EncodedBytes::read(std::size_t offset, std::uint8_t* out, std::size_t count) const {
  if (offset >= size_) return 0;
  count = std::min(count, size_ - offset);
  if (fd_ < 0) {
    std::memcpy(out, bytes_.data() + offset, count);
    return count;
  }
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got = ::pread(fd_, out + done, count - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

const std::uint8_t* EncodedBytes::whole(std::vector<std::uint8_t>& scratch) const {
  if (fd_ < 0) return bytes_.data();
  try {
    scratch.resize(size_);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return read(0, scratch.data(), size_) == size_ ? scratch.data() : nullptr;
}

EncodedByteStream::EncodedByteStream(const EncodedBytes& bytes) : bytes_(&bytes) {
  // Allocated here, never while a decoder (C code that cannot pass an exception) reads.
  if (!bytes.memory()) buffer_.resize(std::min(kBufferBytes, bytes.size()));
}

const std::uint8_t* EncodedByteStream::next(std::size_t wanted, std::size_t& got) {
  const std::size_t left = bytes_->size() - offset_;
  got = std::min(wanted, left);
  if (got == 0) return nullptr;
  if (const std::uint8_t* memory = bytes_->memory()) {
    offset_ += got;
    return memory + offset_ - got;
  }
  got = std::min(got, buffer_.size());
  got = bytes_->read(offset_, buffer_.data(), got);
  offset_ += got;
  return buffer_.data();
}

bool EncodedByteStream::readExactly(std::uint8_t* out, std::size_t count) {
  while (count > 0) {
    std::size_t got = 0;
    const std::uint8_t* p = next(count, got);
    if (got == 0) return false;
    std::memcpy(out, p, got);
    out += got;
    count -= got;
  }
  return true;
}

std::uint64_t maximumPixelCount() { return gMaximumPixelCount.load(std::memory_order_relaxed); }

bool exceedsPixelLimit(std::size_t width, std::size_t height) {
  const std::uint64_t limit = maximumPixelCount();
  return width != 0 && height > limit / width;  // width * height > limit, without overflow
}

std::string checkPixelLimit(std::size_t width, std::size_t height) {
  const std::uint64_t limit = maximumPixelCount();
  if (!exceedsPixelLimit(width, height)) return "";
  return "image of " + std::to_string(width) + "x" + std::to_string(height) +
         " pixels is over the pixel limit of " + std::to_string(limit);
}

}  // namespace imageio_detail

class CGImageSource {
 public:
  CGImageSource(std::unique_ptr<EncodedBytes> bytes, Format format) : bytes_(std::move(bytes)), format_(format) {
    headerOK_ = readHeader(info_, headerError_);
    lastError_ = headerError_;
  }

  Format format() const { return format_; }
  bool headerOK() const { return headerOK_; }
  const HeaderInfo& info() const { return info_; }
  const std::string& headerError() const { return headerError_; }

  bool decode(const DecodeRequest& request, RowSink& sink, std::string& error) const {
    switch (format_) {
      case Format::JPEG: return decodeJPEG(*bytes_, request, sink, error);
      case Format::PNG: return decodePNG(*bytes_, sink, error);
      case Format::WebP: {
        std::vector<std::uint8_t> scratch;
        const std::uint8_t* d = wholeBytes(scratch, error);
        return d && decodeWebP(d, bytes_->size(), request, sink, error);
      }
    }
    return false;
  }

  std::unique_ptr<RowReader> openRowReader(std::string& error, int scaleDenominator) const {
    if (scaleDenominator != 1 && format_ != Format::JPEG) {
      error = "only JPEG images can be decoded at a reduced scale";
      return nullptr;
    }
    switch (format_) {
      case Format::JPEG: return openJPEGRowReader(*bytes_, error, scaleDenominator);
      case Format::PNG: return openPNGRowReader(*bytes_, error);
      case Format::WebP:
        return openWholeImageRowReader(
            [&](RowSink& sink, std::string& e) { return decode(DecodeRequest{}, sink, e); }, error);
    }
    return nullptr;
  }

  void setError(std::string e) {
    std::lock_guard<std::mutex> lock(mutex_);
    lastError_ = std::move(e);
  }
  std::string lastError() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastError_;
  }

  std::atomic<int> lastScaleDenominator{0};

 private:
  bool readHeader(HeaderInfo& info, std::string& error) const {
    switch (format_) {
      case Format::JPEG: return readJPEGHeader(*bytes_, info, error);
      case Format::PNG: return readPNGHeader(*bytes_, info, error);
      case Format::WebP: {
        std::vector<std::uint8_t> scratch;
        const std::uint8_t* d = wholeBytes(scratch, error);
        return d && readWebPHeader(d, bytes_->size(), info, error);
      }
    }
    return false;
  }

  const std::uint8_t* wholeBytes(std::vector<std::uint8_t>& scratch, std::string& error) const {
    const std::uint8_t* d = bytes_->whole(scratch);
    if (!d) error = "cannot read the file";
    return d;
  }

  std::unique_ptr<EncodedBytes> bytes_;
  Format format_;
  HeaderInfo info_;
  bool headerOK_ = false;
  std::string headerError_;
  mutable std::mutex mutex_;
  std::string lastError_;
};

std::uint64_t CGImageSourceGetMaximumPixelCount() { return maximumPixelCount(); }
void CGImageSourceSetMaximumPixelCount(std::uint64_t count) { gMaximumPixelCount.store(count); }

std::string CGImageSourceGetCreateError() { return tCreateError; }

CGImageSourceRef CGImageSourceCreateWithData(std::vector<std::uint8_t> bytes, const Dictionary&) {
  tCreateError.clear();
  if (bytes.size() > kCGImageSourceMaximumFileSize) {
    tCreateError = "data of " + humanSize(bytes.size()) + " is over the 1 GiB limit";
    return nullptr;
  }
  Format format;
  if (!detectFormat(bytes.data(), bytes.size(), format)) {
    tCreateError = bytes.empty() ? "file is empty" : "not a JPEG, PNG or WebP image";
    return nullptr;
  }
  return std::make_shared<CGImageSource>(std::make_unique<EncodedBytes>(std::move(bytes)), format);
}

CGImageSourceRef CGImageSourceCreateWithURL(const std::string& pathOrFileURL, const Dictionary&) {
  tCreateError.clear();
  std::string path = pathOrFileURL;
  if (path.rfind("file://", 0) == 0) {
    path = path.substr(7);
    // Percent-escapes of a file URL.
    std::string decoded;
    for (std::size_t i = 0; i < path.size(); ++i) {
      if (path[i] == '%' && i + 2 < path.size() && std::isxdigit(static_cast<unsigned char>(path[i + 1])) &&
          std::isxdigit(static_cast<unsigned char>(path[i + 2]))) {
        decoded.push_back(static_cast<char>(std::stoi(path.substr(i + 1, 2), nullptr, 16)));
        i += 2;
      } else {
        decoded.push_back(path[i]);
      }
    }
    path = decoded;
  }
  struct stat st {};
  if (path.empty() || ::stat(path.c_str(), &st) != 0) {
    tCreateError = "no such file: " + path;
    return nullptr;
  }
  if (!S_ISREG(st.st_mode)) {
    tCreateError = "not a regular file: " + path;
    return nullptr;
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  // The size of the file opened (the name may have been given to another file since the stat).
  if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (fd >= 0) ::close(fd);
    tCreateError = "cannot read file: " + path;
    return nullptr;
  }
  if (static_cast<std::uint64_t>(st.st_size) > kCGImageSourceMaximumFileSize) {
    ::close(fd);
    tCreateError = "file of " + humanSize(static_cast<std::uint64_t>(st.st_size)) + " is over the 1 GiB limit: " + path;
    return nullptr;
  }
  auto bytes = std::make_unique<EncodedBytes>(fd, static_cast<std::size_t>(st.st_size));  // closes fd
  std::uint8_t signature[12] = {};
  const std::size_t signatureSize = bytes->read(0, signature, sizeof signature);
  Format format;
  if (!detectFormat(signature, signatureSize, format)) {
    tCreateError = (bytes->size() == 0 ? "file is empty: " : "not a JPEG, PNG or WebP image: ") + path;
    return nullptr;
  }
  // JPEG and PNG files are read in pieces as they decode (the source holds the descriptor).
  // WebP files are read whole: their decoder takes the whole file, and holds the whole picture
  // anyway.
  if (format == Format::WebP) {
    std::vector<std::uint8_t> whole;
    if (!bytes->whole(whole)) {
      tCreateError = (whole.size() < bytes->size() ? "out of memory reading " : "cannot read file: ") + path;
      return nullptr;
    }
    bytes = std::make_unique<EncodedBytes>(std::move(whole));
  }
  return std::make_shared<CGImageSource>(std::move(bytes), format);
}

std::size_t CGImageSourceGetCount(const CGImageSourceRef& source) {
  return source && source->headerOK() ? 1 : 0;
}

std::string CGImageSourceGetType(const CGImageSourceRef& source) {
  if (!source) return "";
  switch (source->format()) {
    case Format::JPEG: return kUTTypeJPEG;
    case Format::PNG: return kUTTypePNG;
    case Format::WebP: return kUTTypeWebP;
  }
  return "";
}

std::string CGImageSourceGetLastError(const CGImageSourceRef& source) {
  if (!source) return CGImageSourceGetCreateError();
  return source->lastError();
}

namespace {

bool checkIndex(const CGImageSourceRef& source, std::size_t index) {
  if (!source) return false;
  if (!source->headerOK()) {
    source->setError(source->headerError());
    return false;
  }
  if (index != 0) {
    source->setError("no image at index " + std::to_string(index));
    return false;
  }
  return true;
}

}  // namespace

Dictionary CGImageSourceCopyPropertiesAtIndex(const CGImageSourceRef& source, std::size_t index,
                                              const Dictionary& options) {
  Dictionary p;
  if (!checkIndex(source, index)) return p;
  const HeaderInfo& info = source->info();
  p[kCGImagePropertyPixelWidth] = Value::integer(static_cast<std::int64_t>(info.width));
  p[kCGImagePropertyPixelHeight] = Value::integer(static_cast<std::int64_t>(info.height));
  p[kCGImagePropertyOrientation] = Value::integer(info.orientation);
  p[kCGImagePropertyColorModel] = Value(info.colorModel);
  p[kCGImagePropertyHasAlpha] = Value::boolean(info.hasAlpha);
  p[kCGImagePropertyDepth] = Value::integer(info.depth);
  p[kCGImagePropertyIsIndexed] = Value::boolean(info.isIndexed);
  p[kCGImagePropertyIsProgressive] = Value::boolean(info.isProgressive);
  p[kCGImagePropertyHasICCProfile] = Value::boolean(info.hasICCProfile);
  if (!info.profileName.empty()) p[kCGImagePropertyProfileName] = Value(info.profileName);
  p[kCGImagePropertyFileType] = Value(CGImageSourceGetType(source));
  if (options.count(kQVDecodeScaleDenominator))
    p[kQVDecodeScaleDenominator] = Value::integer(source->lastScaleDenominator.load());
  return p;
}

namespace {

CGImageRef decodeWhole(const CGImageSourceRef& source, const DecodeRequest& request) {
  ImageSink sink;
  std::string error;
  if (!source->decode(request, sink, error)) {
    source->setError(error == "stopped" ? "out of memory" : error);
    return nullptr;
  }
  auto image = sink.take();
  if (!image) {
    source->setError("out of memory");
    return nullptr;
  }
  const HeaderInfo& info = source->info();
  image->hasAlpha = info.hasAlpha;
  image->colorModel = info.colorModel == "Gray" ? "Gray" : "RGB";
  source->setError("");
  return image;
}

}  // namespace

CGImageRef CGImageSourceCreateImageAtIndex(const CGImageSourceRef& source, std::size_t index, const Dictionary&) {
  if (!checkIndex(source, index)) return nullptr;
  return decodeWhole(source, DecodeRequest{});
}

namespace {
// The thumbnail's size in the file's own orientation: the larger side becomes the requested
// size (never more than the image), the other keeps the aspect ratio.
std::pair<std::size_t, std::size_t> thumbnailSize(const HeaderInfo& info, double requested) {
  const std::size_t larger = std::max(info.width, info.height);
  std::size_t targetWidth = info.width, targetHeight = info.height;
  if (std::isfinite(requested) && requested >= 1 && requested < static_cast<double>(larger)) {
    const double maxSide = std::floor(requested);
    const double scale = maxSide / static_cast<double>(larger);
    auto side = [&](std::size_t s) {
      if (s == larger) return static_cast<std::size_t>(maxSide);
      return std::max<std::size_t>(1, static_cast<std::size_t>(std::lround(static_cast<double>(s) * scale)));
    };
    targetWidth = side(info.width);
    targetHeight = side(info.height);
    if (info.width == info.height) targetWidth = targetHeight = static_cast<std::size_t>(maxSide);
  }
  return {targetWidth, targetHeight};
}
}  // namespace

CGSize CGImageSourceGetThumbnailSizeAtIndex(const CGImageSourceRef& source, std::size_t index, double maxPixelSize) {
  if (!checkIndex(source, index)) return CGSizeMake(0, 0);
  const auto [width, height] = thumbnailSize(source->info(), maxPixelSize);
  return CGSizeMake(static_cast<double>(width), static_cast<double>(height));
}

CGImageRef CGImageSourceCreateThumbnailAtIndex(const CGImageSourceRef& source, std::size_t index,
                                               const Dictionary& options) {
  if (!checkIndex(source, index)) return nullptr;
  const HeaderInfo& info = source->info();
  const double requested = optionNumber(options, kCGImageSourceThumbnailMaxPixelSize);
  const std::size_t larger = std::max(info.width, info.height);
  const auto [targetWidth, targetHeight] = thumbnailSize(info, requested);
  DecodeRequest request;
  if (source->format() == Format::JPEG) {
    // The largest SIMD-accelerated DCT reduction that keeps the decoded larger side at least
    // the requested size; the rest is left to the resampler.
    const std::size_t wanted = std::max(targetWidth, targetHeight);
    for (int d : {8, 4, 2}) {
      if ((larger + static_cast<std::size_t>(d) - 1) / static_cast<std::size_t>(d) >= wanted) {
        request.scaleDenominator = d;
        break;
      }
    }
  } else if (source->format() == Format::WebP) {
    request.targetWidth = targetWidth;
    request.targetHeight = targetHeight;
  }
  source->lastScaleDenominator.store(request.scaleDenominator);
  ScalingSink sink(targetWidth, targetHeight);
  std::string error;
  if (!source->decode(request, sink, error)) {
    source->setError(error == "stopped" ? "out of memory" : error);
    return nullptr;
  }
  const std::shared_ptr<CGImage> scaled = sink.take();
  if (!scaled) {
    source->setError("out of memory");
    return nullptr;
  }
  scaled->hasAlpha = info.hasAlpha;
  scaled->colorModel = info.colorModel == "Gray" ? "Gray" : "RGB";
  source->setError("");
  CGImageRef image = scaled;
  if (optionBool(options, kCGImageSourceCreateThumbnailWithTransform) && info.orientation != 1)
    image = CGImageCreateByApplyingOrientation(image, info.orientation);
  return image;
}

bool CGImageSourceDecodeStripsAtIndex(const CGImageSourceRef& source, std::size_t index,
                                      const CGImageSourceStripConsumer& consumer) {
  if (!checkIndex(source, index)) return false;
  StripSink sink(consumer);
  std::string error;
  if (!source->decode(DecodeRequest{}, sink, error)) {
    source->setError(error);
    return false;
  }
  source->setError("");
  return true;
}

// ---- Row readers ----

namespace imageio_detail {

bool RowReader::canAdvance(std::size_t count, std::string& error) const {
  if (!failure_.empty()) {
    error = failure_;
    return false;
  }
  if (count > height - nextRow) {
    error = "rows past the end of the image";
    return false;
  }
  return true;
}

bool RowReader::fail(const std::string& reason, std::size_t count, std::string& error) {
  failure_ = reason + " (in rows " + std::to_string(nextRow) + "-" + std::to_string(nextRow + count - 1) + " of " +
             std::to_string(height) + ")";
  error = failure_;
  return false;
}

bool RowReader::skip(std::size_t count, std::string& error) {
  std::vector<std::uint8_t> row(width * 4 * std::size_t(bitsPerComponent / 8));
  for (std::size_t i = 0; i < count; ++i)
    if (!read(row.data(), 1, row.size(), error)) return false;
  return true;
}

namespace {

// Holds a whole decoded image and hands out its rows.
class WholeImageRowReader final : public RowReader {
 public:
  explicit WholeImageRowReader(std::shared_ptr<CGImage> image) : image_(std::move(image)) {
    width = image_->width;
    height = image_->height;
    bitsPerComponent = image_->bitsPerComponent;
    wholeImage = true;
  }
  bool read(std::uint8_t* rows, std::size_t count, std::size_t bytesPerRow, std::string& error) override {
    if (!canAdvance(count, error)) return false;
    for (std::size_t i = 0; i < count; ++i)
      std::memcpy(rows + i * bytesPerRow, image_->row(nextRow + i), image_->bytesPerRow);
    nextRow += count;
    return true;
  }
  bool skip(std::size_t count, std::string& error) override {
    if (!canAdvance(count, error)) return false;
    nextRow += count;
    return true;
  }
  bool rewind() override {
    nextRow = 0;
    return true;
  }

 private:
  std::shared_ptr<CGImage> image_;
};

}  // namespace

std::unique_ptr<RowReader> openWholeImageRowReader(const std::function<bool(RowSink&, std::string&)>& decode,
                                                   std::string& error) {
  ImageSink sink;
  if (!decode(sink, error)) return nullptr;
  auto image = sink.take();
  if (!image) {
    error = "out of memory";
    return nullptr;
  }
  return std::make_unique<WholeImageRowReader>(std::move(image));
}

}  // namespace imageio_detail

CGImageSourceRowReader::CGImageSourceRowReader(CGImageSourceRef source, std::unique_ptr<RowReader> reader)
    : source_(std::move(source)), reader_(std::move(reader)) {}
CGImageSourceRowReader::~CGImageSourceRowReader() = default;
std::size_t CGImageSourceRowReader::width() const { return reader_->width; }
std::size_t CGImageSourceRowReader::height() const { return reader_->height; }
int CGImageSourceRowReader::bitsPerComponent() const { return reader_->bitsPerComponent; }
bool CGImageSourceRowReader::wholeImage() const { return reader_->wholeImage; }
std::size_t CGImageSourceRowReader::nextRow() const { return reader_->nextRow; }
bool CGImageSourceRowReader::readRows(std::uint8_t* rows, std::size_t count, std::size_t bytesPerRow) {
  return reader_->read(rows, count, bytesPerRow, error_);
}
bool CGImageSourceRowReader::skipRows(std::size_t count) { return reader_->skip(count, error_); }
bool CGImageSourceRowReader::rewind() { return reader_->rewind(); }

std::unique_ptr<CGImageSourceRowReader> CGImageSourceCreateRowReaderAtIndex(const CGImageSourceRef& source,
                                                                            std::size_t index, int scaleDenominator) {
  if (!checkIndex(source, index)) return nullptr;
  if (scaleDenominator != 1 && scaleDenominator != 2 && scaleDenominator != 4 && scaleDenominator != 8) {
    source->setError("the scale denominator of a decode is 1, 2, 4 or 8");
    return nullptr;
  }
  std::string error;
  auto reader = source->openRowReader(error, scaleDenominator);
  if (!reader) {
    source->setError(error.empty() ? "cannot decode the image" : error);
    return nullptr;
  }
  return std::make_unique<CGImageSourceRowReader>(source, std::move(reader));
}

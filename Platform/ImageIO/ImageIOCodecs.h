// The decoders behind CGImageSource: one per format, each answering the header and decoding
// rows into a RowSink. Private to ImageIO.
#pragma once

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace imageio_detail {

// The encoded bytes of an image: held in memory, or left in their file and read in pieces as
// a decoder asks for them, so that decoding a large file holds a read buffer rather than the
// whole file. A file is read through a descriptor opened once (pread, so that the readers of
// several threads share it): the bytes stay those of the file that was opened, even if its
// name is given to another file meanwhile.
class EncodedBytes {
 public:
  explicit EncodedBytes(std::vector<std::uint8_t> bytes);
  // Takes ownership of the open descriptor `fd` of a file of `size` bytes.
  EncodedBytes(int fd, std::size_t size);
  ~EncodedBytes();
  EncodedBytes(const EncodedBytes&) = delete;
  EncodedBytes& operator=(const EncodedBytes&) = delete;

  std::size_t size() const { return size_; }
  // The bytes when they are held in memory; null when they are read from the file.
  const std::uint8_t* memory() const { return fd_ < 0 ? bytes_.data() : nullptr; }
  // Copies up to `count` bytes from `offset` into `out`: how many were copied, fewer than asked
  // only at the end of the bytes (or when the file can no longer be read, as if it ended there).
  std::size_t read(std::size_t offset, std::uint8_t* out, std::size_t count) const;
  // All the bytes at once: the memory itself, or the file read into `scratch`. Null when the
  // file cannot be read whole (or is shorter than it was when opened).
  const std::uint8_t* whole(std::vector<std::uint8_t>& scratch) const;

 private:
  std::vector<std::uint8_t> bytes_;
  int fd_ = -1;
  std::size_t size_ = 0;
};

// Reads EncodedBytes front to back, through a buffer of its own when they are in a file (the
// decoders' input stream).
class EncodedByteStream {
 public:
  static constexpr std::size_t kBufferBytes = std::size_t(64) << 10;
  explicit EncodedByteStream(const EncodedBytes& bytes);
  // The next bytes: at most `wanted` of them (and at most a buffer's), at least 1 unless the
  // end is reached (0 at the end), valid until the next call. Moves past them. Never allocates.
  const std::uint8_t* next(std::size_t wanted, std::size_t& got);
  // Copies the next `count` bytes into `out`; false (copying what there is) when fewer are left.
  bool readExactly(std::uint8_t* out, std::size_t count);
  // Moves `count` bytes further without reading them.
  void skip(std::size_t count) { offset_ = count > bytes_->size() - offset_ ? bytes_->size() : offset_ + count; }
  std::size_t offset() const { return offset_; }

 private:
  const EncodedBytes* bytes_;
  std::size_t offset_ = 0;
  std::vector<std::uint8_t> buffer_;
};

struct HeaderInfo {
  std::size_t width = 0, height = 0;
  int depth = 8;                   // bits per component in the file
  int outputBits = 8;              // bits per component of decoded rows (8 or 16)
  std::string colorModel = "RGB";  // "RGB", "Gray" or "CMYK"
  bool hasAlpha = false;
  bool isIndexed = false;
  bool isProgressive = false;
  bool isAnimated = false;
  int orientation = 1;
  bool hasICCProfile = false;
  std::string profileName;  // "" when none
};

// Where a decoder puts its rows. begin() is called once with the decoded size; then for each
// strip the decoder asks for a buffer, fills it and commits it. A false return stops decoding.
class RowSink {
 public:
  virtual ~RowSink() = default;
  virtual bool begin(std::size_t width, std::size_t height, int bitsPerComponent) = 0;
  // A buffer for rows [firstRow, firstRow + rowCount), rowCount <= maxStripRows() unless the
  // decoder needs the whole image at once (interlaced PNG), bytesPerRow apart.
  virtual std::uint8_t* rows(std::size_t firstRow, std::size_t rowCount, std::size_t& bytesPerRow) = 0;
  virtual bool commit(std::size_t firstRow, std::size_t rowCount) = 0;
  virtual std::size_t maxStripRows() const { return 16; }
};

struct DecodeRequest {
  int scaleDenominator = 1;                        // JPEG: 1, 2, 4 or 8
  std::size_t targetWidth = 0, targetHeight = 0;  // WebP: scaled decode when non-zero
};

// Each returns false with a one-line reason in `error`.
bool readJPEGHeader(const EncodedBytes& bytes, HeaderInfo& info, std::string& error);
bool decodeJPEG(const EncodedBytes& bytes, const DecodeRequest& request, RowSink& sink, std::string& error);
bool readPNGHeader(const EncodedBytes& bytes, HeaderInfo& info, std::string& error);
bool decodePNG(const EncodedBytes& bytes, RowSink& sink, std::string& error);
bool readWebPHeader(const std::uint8_t* data, std::size_t size, HeaderInfo& info, std::string& error);
bool decodeWebP(const std::uint8_t* data, std::size_t size, const DecodeRequest& request, RowSink& sink,
                std::string& error);

// A decoder driven by its caller: rows come out top-down, as many at a time as asked for (RGBA,
// straight alpha, at `bitsPerComponent` 8 or 16, not oriented). The state persists between
// calls, so that a consumer can decode an image strip by strip while it works on the strips it
// already has. After a failure the reader is finished: every later call fails with the same
// reason.
class RowReader {
 public:
  virtual ~RowReader() = default;
  std::size_t width = 0, height = 0;
  int bitsPerComponent = 8;
  // The row the next read or skip starts at.
  std::size_t nextRow = 0;
  // Whether the reader holds the whole decoded image (formats without a partial decode).
  bool wholeImage = false;
  // Decodes rows [nextRow, nextRow + count) into `rows`, bytesPerRow apart.
  virtual bool read(std::uint8_t* rows, std::size_t count, std::size_t bytesPerRow, std::string& error) = 0;
  // Moves past `count` rows without producing them (more cheaply than reading where the format
  // allows).
  virtual bool skip(std::size_t count, std::string& error);
  // Goes back to row 0 where that costs no decoding (a reader holding the whole image).
  virtual bool rewind() { return false; }

 protected:
  // Whether `count` more rows can be decoded: false with the reason when the reader failed
  // before (the same reason again) or the rows run past the end of the image.
  bool canAdvance(std::size_t count, std::string& error) const;
  // Finishes the reader: `reason`, with the rows being decoded when the data broke off, is the
  // answer to this call and every later one. Returns false.
  bool fail(const std::string& reason, std::size_t count, std::string& error);

 private:
  std::string failure_;
};

// Each returns null with a one-line reason in `error`; `bytes` must outlive the reader. The JPEG
// reader decodes at a DCT scale of 1/scaleDenominator (2, 4 or 8; anything else: full size):
// ceil(width / denominator) columns.
std::unique_ptr<RowReader> openJPEGRowReader(const EncodedBytes& bytes, std::string& error, int scaleDenominator = 1);
std::unique_ptr<RowReader> openPNGRowReader(const EncodedBytes& bytes, std::string& error);
// Decodes the whole image at once through the sink-driven `decode` and hands out its rows.
std::unique_ptr<RowReader> openWholeImageRowReader(const std::function<bool(RowSink&, std::string&)>& decode,
                                                   std::string& error);

// Helpers shared by the decoders.
std::uint64_t maximumPixelCount();
// "" when width * height is within the limit, else the reason.
std::string checkPixelLimit(std::size_t width, std::size_t height);
bool exceedsPixelLimit(std::size_t width, std::size_t height);

// Runs `body` under a setjmp of `jump`: false when the library jumped back (an error). The body
// must hold only trivially destructible locals, as longjmp runs no destructors; everything that
// needs a string is done by the caller after the call.
template <class JumpBuffer, class Body>
[[gnu::noinline]] bool runGuarded(JumpBuffer& jump, Body&& body) {
  if (setjmp(jump)) return false;
  body();
  return true;
}
// Orientation (1-8) from EXIF data, which may start with "Exif\0\0" or directly with the TIFF
// header; 1 when absent or unreadable.
int exifOrientation(const std::uint8_t* data, std::size_t size);
// The description of an ICC profile, "" when it cannot be read.
std::string iccProfileDescription(const std::uint8_t* data, std::size_t size);

}  // namespace imageio_detail

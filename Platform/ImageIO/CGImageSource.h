// CGImageSource: reads JPEG, PNG and WebP files or memory, answers their properties from the
// header alone, and decodes full images or bounded thumbnails.
//
// Everything is checked before anything large is allocated: files above 1 GiB are refused,
// and an image whose header claims more pixels than CGImageSourceGetMaximumPixelCount() is
// refused at its header. A truncated or corrupt file yields nil and a one-line reason from
// CGImageSourceGetLastError(), never a crash.
//
// A source may be used from several threads at once: decoding only reads the immutable bytes,
// and the last-error slot is guarded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "Foundation/Value.h"
#include "ImageIO/CGImage.h"

class CGImageSource;
using CGImageSourceRef = std::shared_ptr<CGImageSource>;
namespace imageio_detail {
class RowReader;
}

// Property keys of CGImageSourceCopyPropertiesAtIndex.
inline constexpr char kCGImagePropertyPixelWidth[] = "PixelWidth";    // integer
inline constexpr char kCGImagePropertyPixelHeight[] = "PixelHeight";  // integer
inline constexpr char kCGImagePropertyOrientation[] = "Orientation";  // integer 1-8 (1 when the file has none)
inline constexpr char kCGImagePropertyColorModel[] = "ColorModel";    // "RGB" or "Gray" ("CMYK" for CMYK JPEGs, decoded as RGB)
inline constexpr char kCGImagePropertyHasAlpha[] = "HasAlpha";        // boolean
inline constexpr char kCGImagePropertyDepth[] = "Depth";              // integer, bits per component of the file (1-16)
inline constexpr char kCGImagePropertyIsIndexed[] = "IsIndexed";      // boolean, palette PNGs
inline constexpr char kCGImagePropertyIsProgressive[] = "IsProgressive";  // boolean: progressive JPEG or interlaced PNG
// Present only when the file embeds an ICC profile: the profile's description when it can be
// read, else "Embedded ICC profile". PNGs marked sRGB (sRGB chunk) report "sRGB IEC61966-2.1".
inline constexpr char kCGImagePropertyProfileName[] = "ProfileName";
// Boolean, always present: true when the file embeds an ICC profile (iCCP, APP2 ICC_PROFILE, ICCP).
inline constexpr char kCGImagePropertyHasICCProfile[] = "HasICCProfile";
// The file type, as CGImageSourceGetType answers it ("public.jpeg"...).
inline constexpr char kCGImagePropertyFileType[] = "FileType";

// Option keys of the thumbnail and decode calls.
inline constexpr char kCGImageSourceShouldCache[] = "kCGImageSourceShouldCache";
inline constexpr char kCGImageSourceCreateThumbnailFromImageIfAbsent[] =
    "kCGImageSourceCreateThumbnailFromImageIfAbsent";
inline constexpr char kCGImageSourceCreateThumbnailFromImageAlways[] = "kCGImageSourceCreateThumbnailFromImageAlways";
inline constexpr char kCGImageSourceCreateThumbnailWithTransform[] = "kCGImageSourceCreateThumbnailWithTransform";
// Number: the larger side of the thumbnail. Absent or <= 0: full size. Never enlarges.
inline constexpr char kCGImageSourceThumbnailMaxPixelSize[] = "kCGImageSourceThumbnailMaxPixelSize";
// A type hint for CGImageSourceCreateWith...; the content decides when it disagrees.
inline constexpr char kCGImageSourceTypeIdentifierHint[] = "kCGImageSourceTypeIdentifierHint";

// Diagnostic property of the last thumbnail made by a source (CGImageSourceCopyPropertiesAtIndex
// with this key in the options answers it under the same key): the reduction the decoder applied
// while decoding, 1, 2, 4 or 8 for JPEG's DCT-domain scaling, 1 for formats without one.
inline constexpr char kQVDecodeScaleDenominator[] = "QVDecodeScaleDenominator";

// Type identifiers.
inline constexpr char kUTTypeJPEG[] = "public.jpeg";
inline constexpr char kUTTypePNG[] = "public.png";
inline constexpr char kUTTypeWebP[] = "org.webmproject.webp";

// nil if the file cannot be read (missing, a directory, larger than 1 GiB) or is not a JPEG,
// PNG or WebP. Accepts a path or a "file://" URL. A JPEG or PNG file is left in the file and read
// in pieces as it decodes (the source keeps it open: its bytes stay those of the file opened,
// even if the name is given to another file); a WebP file is read once, into memory.
CGImageSourceRef CGImageSourceCreateWithURL(const std::string& pathOrFileURL, const Dictionary& options = {});
// nil when the bytes are not a JPEG, PNG or WebP (by their signature) or exceed 1 GiB.
CGImageSourceRef CGImageSourceCreateWithData(std::vector<std::uint8_t> bytes, const Dictionary& options = {});

// Why the last CGImageSourceCreateWith... call in this thread returned nil ("" if it did not).
std::string CGImageSourceGetCreateError();

std::size_t CGImageSourceGetCount(const CGImageSourceRef& source);  // 1, or 0 when the header is bad
std::string CGImageSourceGetType(const CGImageSourceRef& source);   // "public.jpeg", "public.png", "org.webmproject.webp"
// Header properties (keys above); empty when the index is out of range or the header is bad.
Dictionary CGImageSourceCopyPropertiesAtIndex(const CGImageSourceRef& source, std::size_t index,
                                              const Dictionary& options = {});
// Full decode, not oriented; nil on failure.
CGImageRef CGImageSourceCreateImageAtIndex(const CGImageSourceRef& source, std::size_t index,
                                           const Dictionary& options = {});
// A thumbnail made from the image: its larger side is kCGImageSourceThumbnailMaxPixelSize (or
// the full size when absent), oriented when kCGImageSourceCreateThumbnailWithTransform is true.
// JPEGs are decoded with DCT-domain scaling by the largest of 1/2, 1/4, 1/8 that keeps the
// decoded larger side >= the requested size; WebPs are decoded straight at the final size;
// the rest is finished by CGImageCreateScaled. nil on failure.
CGImageRef CGImageSourceCreateThumbnailAtIndex(const CGImageSourceRef& source, std::size_t index,
                                               const Dictionary& options);
// The width and height of the thumbnail CGImageSourceCreateThumbnailAtIndex makes for a
// kCGImageSourceThumbnailMaxPixelSize of maxPixelSize (below 1, or not finite: the full size),
// in the file's stored orientation (before the transform option); {0, 0} for a bad index.
CGSize CGImageSourceGetThumbnailSizeAtIndex(const CGImageSourceRef& source, std::size_t index, double maxPixelSize);
// One-line reason of the last failure of a call on this source ("" if none).
std::string CGImageSourceGetLastError(const CGImageSourceRef& source);

// The largest image (width * height) any source decodes; default 268'435'456 (16384^2).
std::uint64_t CGImageSourceGetMaximumPixelCount();
void CGImageSourceSetMaximumPixelCount(std::uint64_t count);
// The largest file or data accepted: 1 GiB.
inline constexpr std::uint64_t kCGImageSourceMaximumFileSize = std::uint64_t{1} << 30;

// Streaming full-size decode: hands image `index` to `consumer` top-down in strips of rows
// (RGBA, straight alpha, at the file's 8 or 16 bits as CGImageSourceCopyPropertiesAtIndex's
// Depth says: 16 for 16-bit PNGs, else 8), without holding the whole image where the format
// allows (JPEG; non-interlaced PNG). Not oriented. The consumer returns false to stop, which
// makes the call return false with the error "stopped". Returns false with a reason in
// CGImageSourceGetLastError on a decode failure.
struct CGImageSourceStrip {
  std::size_t width = 0, height = 0;  // of the whole image
  int bitsPerComponent = 8;
  std::size_t firstRow = 0, rowCount = 0, bytesPerRow = 0;
  const std::uint8_t* rows = nullptr;
};
using CGImageSourceStripConsumer = std::function<bool(const CGImageSourceStrip&)>;
bool CGImageSourceDecodeStripsAtIndex(const CGImageSourceRef& source, std::size_t index,
                                      const CGImageSourceStripConsumer& consumer);

// Decoding driven by the caller: image `index` read top-down, a few rows at a time, with the
// decoder's state kept between calls (RGBA, straight alpha, 8 or 16 bits as
// CGImageSourceDecodeStripsAtIndex hands them out; not oriented). JPEG goes through libjpeg's
// scanline interface and skips rows in the compressed domain; non-interlaced PNG is read row
// by row. Interlaced PNG and WebP cannot be decoded in part: their reader decodes the whole
// image when it is created and holds it (wholeImage() answers true). A reader keeps its source
// alive and is used by one thread at a time.
class CGImageSourceRowReader {
 public:
  CGImageSourceRowReader(CGImageSourceRef source, std::unique_ptr<imageio_detail::RowReader> reader);
  ~CGImageSourceRowReader();
  std::size_t width() const;
  std::size_t height() const;
  int bitsPerComponent() const;
  std::size_t bytesPerRow() const { return width() * 4 * std::size_t(bitsPerComponent() / 8); }
  bool wholeImage() const;
  // The row the next read or skip starts at.
  std::size_t nextRow() const;
  // Decodes the next `count` rows into `rows`, bytesPerRow apart. False on a decode failure,
  // with the reason (naming the rows where the data breaks) in error(); the reader is then
  // finished.
  bool readRows(std::uint8_t* rows, std::size_t count, std::size_t bytesPerRow);
  // Moves past the next `count` rows without producing them.
  bool skipRows(std::size_t count);
  // Goes back to row 0 where that costs no decoding (wholeImage()); false otherwise.
  bool rewind();
  const std::string& error() const { return error_; }

 private:
  CGImageSourceRef source_;
  std::unique_ptr<imageio_detail::RowReader> reader_;
  std::string error_;
};
// Null on failure, with the reason in CGImageSourceGetLastError. A JPEG can be read at a DCT
// scale of 1/scaleDenominator (2, 4 or 8: ceil(width / denominator) × ceil(height /
// denominator) pixels, each the average of its block as libjpeg's scaled inverse DCT makes it);
// other formats only at 1.
std::unique_ptr<CGImageSourceRowReader> CGImageSourceCreateRowReaderAtIndex(const CGImageSourceRef& source,
                                                                            std::size_t index,
                                                                            int scaleDenominator = 1);

// CIImage: an immutable, lazily evaluated image. A value handle to an ImageNode; the empty
// handle is nil, and every operation on nil yields nil (its extent reads as zeros).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "CoreGraphics/CGGeometry.h"
#include "Foundation/Value.h"

class ImageNode;
class CIColor;
struct CGImage;

// The pixel formats a provider may deliver.
enum class CIFormat { ARGB8, RGBA8 };

// An object asked for pixels on demand (provider-backed images). The buffer is 8-bit,
// premultiplied, alpha first for ARGB8; row 0 is the top row of the requested rectangle, whose
// origin (x, y) is measured from the image's top-left corner.
class CIImageProvider {
 public:
  virtual ~CIImageProvider() = default;
  virtual void provideImageData(void* data, std::size_t rowBytes, std::size_t x, std::size_t y, std::size_t width,
                                std::size_t height, const Value& userInfo) = 0;
  // A provider whose pixels are one decoded bitmap may hand it out whole (straight, encoded
  // RGBA of 8 or 16 bits, row 0 = top row). When it has the image's own size, the renderer
  // converts the rows a tile reads straight from it instead of asking provideImageData for an
  // 8-bit premultiplied copy of the whole image. Null (the default): provideImageData is asked.
  virtual std::shared_ptr<const CGImage> sharedBitmap() { return nullptr; }
};

// How a row provider lays out its rows: straight, encoded RGBA of 8 or 16 bits per component
// (as image files hold them), or premultiplied working-space floats (as imageWithRGBAf takes
// them).
enum class CIRowFormat { RGBA8, RGBA16, RGBAf };

// An object that hands out an image's rows on demand, for pixels kept elsewhere that cost a wait
// to fetch (another process's memory, a remote store) and can be fetched in any order. The
// renderer asks for bands of whole rows, each once per render while its byte budget holds it,
// from the threads of the render and from a reader thread of its own that fetches the bands
// below the latest request before the tiles reach them; two bands may be asked at once from
// different threads (a provider whose source serves one request at a time serialises them).
class CIImageRowProvider {
 public:
  virtual ~CIImageRowProvider() = default;
  // Writes rows [first, first + count) (row 0 = the top row) into `rows`, `rowBytes` apart,
  // each the image's width of pixels. An exception fails the render that asked.
  virtual void provideRows(void* rows, std::size_t rowBytes, std::size_t first, std::size_t count) = 0;
};

struct CIRowProviderOptions {
  CIRowFormat format = CIRowFormat::RGBA8;
  std::size_t bandRows = 64;    // rows per request (a multiple of the source's own blocks serves best)
  std::size_t budgetBytes = 0;  // rows held per render (0: 32 MiB), at least twice the largest request
  bool opaque = false;          // RGBA8: every alpha is 255
  bool readAhead = true;        // a reader thread fetches the bands below the latest request
};

// imageWithContentsOfFile option (a boolean number): apply the file's EXIF orientation.
inline constexpr char kCIImageApplyOrientationProperty[] = "kCIImageApplyOrientationProperty";

class CIImage {
 public:
  CIImage() = default;
  explicit CIImage(std::shared_ptr<const ImageNode> node) : node_(std::move(node)) {}

  explicit operator bool() const { return node_ != nullptr; }
  bool isNil() const { return node_ == nullptr; }
  const std::shared_ptr<const ImageNode>& node() const { return node_; }

  // The bounding rectangle; possibly infinite (CGRectInfinite); zeros for nil.
  CGRect extent() const;

  CIImage imageByApplyingTransform(const CGAffineTransform& t) const;
  CIImage imageByCroppingToRect(const CGRect& r) const;
  // Edge pixels repeated without limit (infinite extent).
  CIImage imageByClampingToExtent() const;

  static CIImage imageWithColor(const std::shared_ptr<const CIColor>& color);
  static CIImage emptyImage();
  // Decoded through ImageIO on first render; nil if the file cannot be opened.
  static CIImage imageWithContentsOfFile(const std::string& path);
  // With kCIImageApplyOrientationProperty true in `options`, the picture upright as its EXIF
  // orientation says (the extent's width and height swapped for a quarter turn); the tiles
  // still read only the file's rows (or, for a quarter turn, bands of its columns) they need.
  static CIImage imageWithContentsOfFile(const std::string& path, const Dictionary& options);
  // Pixels asked from `provider` on demand; with no "CIImageProviderTileSize" option the
  // provider is asked for the whole image once per render.
  static CIImage imageWithImageProvider(std::shared_ptr<CIImageProvider> provider, std::size_t width,
                                        std::size_t height, CIFormat format, const std::string& colorSpace,
                                        const Dictionary& options);

  // Rows asked from `provider` as the tiles read them (see CIImageRowProvider), held in bands
  // within a byte budget per render: the whole image is never copied. Nil for a null provider
  // or a size beyond the pixel limit.
  static CIImage imageWithRowProvider(std::shared_ptr<CIImageRowProvider> provider, std::size_t width,
                                      std::size_t height, const CIRowProviderOptions& options = {});

  // Images from pixels in memory (copied). RGBAf: premultiplied working-space floats;
  // RGBA8: straight, encoded 8-bit values as files hold them. Row 0 is the top row; the
  // image's extent is (origin, width × height).
  static CIImage imageWithRGBAf(const float* pixels, std::size_t width, std::size_t height, CGPoint origin = {0, 0});
  static CIImage imageWithRGBA8(const std::uint8_t* pixels, std::size_t width, std::size_t height,
                                std::size_t rowBytes, CGPoint origin = {0, 0});

  // Value conversions for key-value coding.
  operator Value() const;
  static CIImage fromValue(const Value& v);

  bool operator==(const CIImage& o) const { return node_ == o.node_; }

 private:
  std::shared_ptr<const ImageNode> node_;
};

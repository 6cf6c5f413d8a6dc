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

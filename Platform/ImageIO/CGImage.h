// CGImage: a decoded bitmap as the image sources hand it out, and the few bitmap operations
// the rest of the system needs (orientation, scaling, cropping).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CoreGraphics/CGGeometry.h"

// Decoded pixels: always 4 components RGBA, straight (un-premultiplied) alpha, row 0 = top row.
struct CGImage {
  std::size_t width = 0, height = 0;
  int bitsPerComponent = 8;        // 8 or 16 (16: native-endian uint16_t)
  std::size_t bytesPerRow = 0;
  bool hasAlpha = false;           // the source had an alpha channel
  std::string colorModel = "RGB";  // "RGB" or "Gray" (grey sources are expanded to RGBA)
  std::vector<std::uint8_t> pixels;

  const std::uint8_t* row(std::size_t y) const { return pixels.data() + y * bytesPerRow; }
  std::uint8_t* row(std::size_t y) { return pixels.data() + y * bytesPerRow; }
};
using CGImageRef = std::shared_ptr<const CGImage>;

inline std::size_t CGImageGetWidth(const CGImageRef& image) { return image ? image->width : 0; }
inline std::size_t CGImageGetHeight(const CGImageRef& image) { return image ? image->height : 0; }

// A new, zero-filled (transparent) image; nil when the size is 0 or bitsPerComponent is not
// 8 or 16. bytesPerRow is width * 4 * bitsPerComponent / 8.
std::shared_ptr<CGImage> CGImageCreateBlank(std::size_t width, std::size_t height, int bitsPerComponent = 8);

// Applies an EXIF orientation (1-8) to decoded pixels: the result is the image as it should be
// displayed. 5-8 swap width and height. Any other value returns the image unchanged.
//   1 as is            2 mirrored left-right   3 rotated 180        4 mirrored top-bottom
//   5 transposed       6 rotated 90 clockwise  7 transversed        8 rotated 90 anticlockwise
CGImageRef CGImageCreateByApplyingOrientation(const CGImageRef& image, int orientation);

// Resamples to width x height (both >= 1): an area-correct box pre-reduction for large factors
// followed by a separable Lanczos-3 filter on premultiplied values, so edges of transparent
// regions do not bleed. Keeps the depth, colour model and alpha flag. nil on a nil image or a
// zero size; the same image when the size is unchanged.
CGImageRef CGImageCreateScaled(const CGImageRef& image, std::size_t width, std::size_t height);

// CGImageCreateScaled for an image that arrives in rows, top down: the same result, bit for
// bit, holding only one box group of source rows and the horizontally filtered intermediate
// rows (width x about twice the height) instead of the whole source. Bounded decodes of large
// files into small thumbnails use it. The output has the given depth; the caller sets its
// alpha flag and colour model.
class CGImageStreamingScaler {
 public:
  CGImageStreamingScaler(std::size_t srcWidth, std::size_t srcHeight, int bitsPerComponent, std::size_t width,
                         std::size_t height);
  ~CGImageStreamingScaler();
  CGImageStreamingScaler(const CGImageStreamingScaler&) = delete;
  CGImageStreamingScaler& operator=(const CGImageStreamingScaler&) = delete;
  // False when out of memory (at construction) or given more rows than the source has.
  bool addRows(const std::uint8_t* rows, std::size_t bytesPerRow, std::size_t count);
  // The scaled image once every source row has arrived; nil otherwise.
  std::shared_ptr<CGImage> finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The part of the image inside rect (pixel coordinates, origin at the top-left corner, as the
// platform's image coordinates are), clipped to the bounds; nil when nothing is left.
CGImageRef CGImageCreateWithImageInRect(const CGImageRef& image, const CGRect& rect);

// Converts the depth to 8 bits (rounding) or 16 bits (v * 257); the same image if already so.
CGImageRef CGImageCreateWithBitsPerComponent(const CGImageRef& image, int bitsPerComponent);

// _QVFilterTextureImageProvider: the image provider behind every texture image. It holds an
// opened texture file and a size hint, and decodes the file only when the renderer asks for
// pixels, as a thumbnail whose larger side is the hint's larger side (the full size when the
// hint is {0, 0}). The image it makes keeps the texture's nominal pixel size as its extent.
//
// A provider made with a decoded-texture cache (the texture store's) takes its thumbnail from
// that cache, which outlives renders: a texture is decoded once per decode size, however many
// renders, tiles and threads ask for it, until the cache's byte bound evicts it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "Foundation/NSCache.h"

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIImage.h"
#include "ImageIO/CGImageSource.h"

// Decoded texture bitmaps kept across renders: bounded by their bytes, least recently used
// evicted first, keyed by the caller (the store: texture identifier and decode size).
// Thread-safe; concurrent requests for a key that is being decoded wait for that one decode.
class _QVFilterDecodedTextureCache {
 public:
  static constexpr std::size_t kDefaultByteLimit = std::size_t(128) << 20;

  _QVFilterDecodedTextureCache();
  // The bitmap under `key`, made by `decode` when the cache does not hold it (not cached when
  // `decode` gives null, so that a failed decode is tried again next time).
  CGImageRef bitmapForKey(const std::string& key, const std::function<CGImageRef()>& decode);

  std::size_t byteLimit() const { return bitmaps_.totalCostLimit(); }
  // A bitmap larger than the limit is decoded for its request but not kept.
  void setByteLimit(std::size_t bytes) { bitmaps_.setTotalCostLimit(bytes); }
  std::size_t totalBytes() const { return bitmaps_.totalCost(); }
  std::size_t count() const { return bitmaps_.count(); }
  void removeAll() { bitmaps_.removeAllObjects(); }

 private:
  NSCache<CGImageRef> bitmaps_;
  std::mutex mutex_;
  std::condition_variable decoded_;
  std::set<std::string> decoding_;  // keys being decoded now
};

class _QVFilterTextureImageProvider final : public CIImageProvider {
 public:
  // A provider-backed image of the source's image 0: extent = the file's full pixel size,
  // ARGB8 pixels in the generic RGB (sRGB) colour space, no tile size (the renderer asks
  // for the whole image in one request). The source must not be null. With a cache, the
  // thumbnail is taken from it under `cacheKey`.
  static CIImage imageWithImageSource(const CGImageSourceRef& imageSource, CGSize maximumSize,
                                      std::shared_ptr<_QVFilterDecodedTextureCache> cache = nullptr,
                                      std::string cacheKey = {});

  // The store's image of a texture: the same extent as imageWithImageSource's (the file's
  // nominal size), but when the thumbnail the size hint asks for is smaller than the file (and
  // the file is stored upright), it is a provider-backed image of the thumbnail's own size
  // scaled up to the nominal size by the engine. A fit to the drawn size then folds into that
  // scale: the decoded pixels are resampled once, straight to the drawn size, and nothing of
  // the nominal size is ever held in memory.
  static CIImage imageAtDecodedSizeWithImageSource(const CGImageSourceRef& imageSource, CGSize maximumSize,
                                                   std::shared_ptr<_QVFilterDecodedTextureCache> cache = nullptr,
                                                   std::string cacheKey = {});

  // Asserts "imageSource != NULL" through the assertion handler.
  _QVFilterTextureImageProvider(const CGImageSourceRef& imageSource, CGSize maximumSize);
  static std::shared_ptr<_QVFilterTextureImageProvider> initWithImageSource(const CGImageSourceRef& imageSource,
                                                                            CGSize maximumSize);

  // The renderer's request for the rectangle (x, y, width, height) of the nominal image
  // (origin at the top-left corner): premultiplied ARGB, row 0 = top row. The rectangle is
  // cut out of the thumbnail as it is (clipped to the thumbnail's bounds) and the cut-out is
  // drawn scaled over the whole buffer; where nothing can be cut, the buffer stays clear.
  void provideImageData(void* data, std::size_t rowBytes, std::size_t x, std::size_t y, std::size_t width,
                        std::size_t height, const Value& userInfo) override;

  // The thumbnail (_thumbnail()), handed to the renderer to read in place: no premultiplied
  // copy of the whole texture is made for a render.
  std::shared_ptr<const CGImage> sharedBitmap() override { return _thumbnail(); }

  // Decodes a new thumbnail of the texture at every call (null when the file cannot be
  // decoded). Oriented by the file's orientation.
  CGImageRef _faultBitmap() const;
  // The thumbnail for a request: from the decoded-texture cache when the provider has one,
  // else _faultBitmap().
  CGImageRef _thumbnail() const;
  void setDecodedTextureCache(std::shared_ptr<_QVFilterDecodedTextureCache> cache, std::string key) {
    cache_ = std::move(cache);
    cacheKey_ = std::move(key);
  }

  const CGImageSourceRef& imageSource() const { return imageSource_; }
  void setImageSource(CGImageSourceRef source) { imageSource_ = std::move(source); }
  CGSize maximumSize() const { return maximumSize_; }
  void setMaximumSize(CGSize size) { maximumSize_ = size; }
  const CGImageRef& bitmap() const { return bitmap_; }
  void setBitmap(CGImageRef bitmap) { bitmap_ = std::move(bitmap); }

  // Number of texture decodes (_faultBitmap calls) made in this process, for tests and
  // benchmarks that check how often textures are decoded.
  static std::uint64_t decodeCount();
  // Pixels (width x height) of the last thumbnail decoded in this process.
  static std::uint64_t lastDecodedPixelCount();

 private:
  CGImageSourceRef imageSource_;
  CGSize maximumSize_{0, 0};
  CGImageRef bitmap_;  // declared cache slot; nothing sets it
  std::shared_ptr<_QVFilterDecodedTextureCache> cache_;  // may be null
  std::string cacheKey_;
};

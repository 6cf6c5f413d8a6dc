#include "Textures/_QVFilterTextureImageProvider.h"

#include <algorithm>
#include <cstring>

#include "Foundation/NSAssertionHandler.h"
#include "ImageIO/CGImage.h"

namespace {

constexpr const char* kProviderFile = "FilterActions/ImageUnit/_QVFilterTextureImageProvider";
constexpr int kInitLine = 41;

// The colour space texture images are tagged with: generic RGB, taken as sRGB.
constexpr const char* kCGColorSpaceGenericRGB = "kCGColorSpaceGenericRGB";

std::atomic<std::uint64_t> gDecodes{0};
std::atomic<std::uint64_t> gLastDecodedPixels{0};

std::uint8_t premultiply(std::uint8_t c, std::uint8_t a) {
  return static_cast<std::uint8_t>((unsigned(c) * unsigned(a) + 127u) / 255u);
}

}  // namespace

_QVFilterDecodedTextureCache::_QVFilterDecodedTextureCache() {
  bitmaps_.setName("decoded textures");
  bitmaps_.setTotalCostLimit(kDefaultByteLimit);
}

CGImageRef _QVFilterDecodedTextureCache::bitmapForKey(const std::string& key, const std::function<CGImageRef()>& decode) {
  {
    std::unique_lock lock(mutex_);
    // While another request decodes this key, wait for it and take its result from the cache.
    // When it kept nothing (a failed decode, or a bitmap over the limit), decode here.
    for (;;) {
      if (auto hit = bitmaps_.objectForKey(key)) return *hit;
      if (!decoding_.count(key)) break;
      decoded_.wait(lock);
    }
    decoding_.insert(key);
  }
  struct Done {
    _QVFilterDecodedTextureCache& cache;
    const std::string& key;
    ~Done() {
      {
        std::lock_guard lock(cache.mutex_);
        cache.decoding_.erase(key);
      }
      cache.decoded_.notify_all();
    }
  } done{*this, key};
  CGImageRef bitmap = decode();
  if (bitmap) bitmaps_.setObject(bitmap, key, bitmap->bytesPerRow * bitmap->height);
  return bitmap;
}

CIImage _QVFilterTextureImageProvider::imageWithImageSource(const CGImageSourceRef& imageSource, CGSize maximumSize,
                                                            std::shared_ptr<_QVFilterDecodedTextureCache> cache,
                                                            std::string cacheKey) {
  auto provider = initWithImageSource(imageSource, maximumSize);
  if (cache) provider->setDecodedTextureCache(std::move(cache), std::move(cacheKey));
  const Dictionary properties = CGImageSourceCopyPropertiesAtIndex(imageSource, 0);
  auto integerOf = [&](const char* key) -> std::int64_t {
    auto it = properties.find(key);
    return it == properties.end() ? 0 : it->second.integerValue();
  };
  const std::int64_t width = std::max<std::int64_t>(0, integerOf(kCGImagePropertyPixelWidth));
  const std::int64_t height = std::max<std::int64_t>(0, integerOf(kCGImagePropertyPixelHeight));
  return CIImage::imageWithImageProvider(provider, std::size_t(width), std::size_t(height), CIFormat::ARGB8,
                                         kCGColorSpaceGenericRGB, Dictionary{});
}

CIImage _QVFilterTextureImageProvider::imageAtDecodedSizeWithImageSource(
    const CGImageSourceRef& imageSource, CGSize maximumSize, std::shared_ptr<_QVFilterDecodedTextureCache> cache,
    std::string cacheKey) {
  CIImage nominal = imageWithImageSource(imageSource, maximumSize, cache, cacheKey);
  if (!nominal || !imageSource) return nominal;
  const CGRect extent = nominal.extent();
  const Dictionary properties = CGImageSourceCopyPropertiesAtIndex(imageSource, 0);
  auto orientation = properties.find(kCGImagePropertyOrientation);
  if (orientation != properties.end() && orientation->second.integerValue() != 1) return nominal;
  const CGSize decoded = CGImageSourceGetThumbnailSizeAtIndex(imageSource, 0, std::max(maximumSize.width, maximumSize.height));
  if (decoded.width < 1 || decoded.height < 1 ||
      (decoded.width == extent.size.width && decoded.height == extent.size.height))
    return nominal;
  auto provider = initWithImageSource(imageSource, maximumSize);
  if (cache) provider->setDecodedTextureCache(std::move(cache), std::move(cacheKey));
  const CIImage thumbnail =
      CIImage::imageWithImageProvider(provider, std::size_t(decoded.width), std::size_t(decoded.height),
                                      CIFormat::ARGB8, kCGColorSpaceGenericRGB, Dictionary{});
  const CIImage scaled = thumbnail.imageByApplyingTransform(CGAffineTransformMakeScale(
      extent.size.width / decoded.width, extent.size.height / decoded.height));
  // Only when the scale lands exactly on the nominal extent (it does for every size but a few
  // whose quotient rounds): the texture's extent must not change.
  return CGRectEqualToRect(scaled.extent(), extent) ? scaled : nominal;
}

_QVFilterTextureImageProvider::_QVFilterTextureImageProvider(const CGImageSourceRef& imageSource, CGSize maximumSize)
    : imageSource_(imageSource), maximumSize_(maximumSize) {
  if (!(imageSource != nullptr)) {
    NSAssertionHandler::currentHandler().handleFailureInMethod(
        "-[_QVFilterTextureImageProvider initWithImageSource:maximumSize:]", "_QVFilterTextureImageProvider",
        kProviderFile, kInitLine, "imageSource != NULL");
  }
}

std::shared_ptr<_QVFilterTextureImageProvider> _QVFilterTextureImageProvider::initWithImageSource(
    const CGImageSourceRef& imageSource, CGSize maximumSize) {
  return std::make_shared<_QVFilterTextureImageProvider>(imageSource, maximumSize);
}

CGImageRef _QVFilterTextureImageProvider::_faultBitmap() const {
  Dictionary options{{kCGImageSourceShouldCache, Value::boolean(false)},
                     {kCGImageSourceCreateThumbnailFromImageIfAbsent, Value::boolean(true)},
                     {kCGImageSourceCreateThumbnailWithTransform, Value::boolean(true)}};
  const double m = std::max(maximumSize_.width, maximumSize_.height);
  if (m != 0) options[kCGImageSourceThumbnailMaxPixelSize] = Value::real(m);
  if (!imageSource_) return nullptr;
  gDecodes.fetch_add(1, std::memory_order_relaxed);
  CGImageRef bitmap = CGImageSourceCreateThumbnailAtIndex(imageSource_, 0, options);
  if (bitmap) gLastDecodedPixels.store(std::uint64_t(bitmap->width) * bitmap->height, std::memory_order_relaxed);
  return bitmap;
}

CGImageRef _QVFilterTextureImageProvider::_thumbnail() const {
  if (!cache_) return _faultBitmap();
  return cache_->bitmapForKey(cacheKey_, [this] { return _faultBitmap(); });
}

void _QVFilterTextureImageProvider::provideImageData(void* data, std::size_t rowBytes, std::size_t x, std::size_t y,
                                                     std::size_t width, std::size_t height, const Value&) {
  if (!data || width == 0 || height == 0 || rowBytes < width * 4) return;
  auto* bytes = static_cast<std::uint8_t*>(data);
  // Clear the whole rectangle first: whatever cannot be drawn stays transparent.
  for (std::size_t r = 0; r < height; ++r) std::memset(bytes + r * rowBytes, 0, width * 4);

  CGImageRef bitmap = _thumbnail();
  if (!bitmap) return;
  // The rectangle is in nominal coordinates and is applied to the thumbnail as it is.
  CGImageRef cut = CGImageCreateWithImageInRect(
      bitmap, CGRectMake(double(x), double(y), double(width), double(height)));
  bitmap.reset();
  if (!cut) return;
  cut = CGImageCreateWithBitsPerComponent(cut, 8);
  if (!cut) return;
  // Drawn into (0, 0, width, height): a smaller cut-out is scaled up to fill the buffer.
  CGImageRef drawn = CGImageCreateScaled(cut, width, height);
  if (!drawn) return;
  for (std::size_t r = 0; r < height; ++r) {
    const std::uint8_t* src = drawn->row(r);
    std::uint8_t* dst = bytes + r * rowBytes;
    for (std::size_t c = 0; c < width; ++c, src += 4, dst += 4) {
      const std::uint8_t a = src[3];
      dst[0] = a;
      dst[1] = premultiply(src[0], a);
      dst[2] = premultiply(src[1], a);
      dst[3] = premultiply(src[2], a);
    }
  }
}

std::uint64_t _QVFilterTextureImageProvider::decodeCount() { return gDecodes.load(std::memory_order_relaxed); }

std::uint64_t _QVFilterTextureImageProvider::lastDecodedPixelCount() {
  return gLastDecodedPixels.load(std::memory_order_relaxed);
}

#include "CoreImage/CIImage.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "CoreImage/CIColor.h"
#include "CoreImage/ImageNode.h"
#include "CoreImage/Nodes/CoreNodes.h"
#include "CoreImage/Nodes/RowProviderNode.h"
#include "ImageIO/ImageIO.h"

namespace {

bool isIntegral(double v) { return std::isfinite(v) && v == std::floor(v) && std::fabs(v) < 1e15; }

bool isIntegerTranslation(const CGAffineTransform& t) {
  return t.a == 1 && t.b == 0 && t.c == 0 && t.d == 1 && isIntegral(t.tx) && isIntegral(t.ty);
}

bool isUsableTransform(const CGAffineTransform& t) {
  const double det = t.a * t.d - t.b * t.c;
  return std::isfinite(t.a) && std::isfinite(t.b) && std::isfinite(t.c) && std::isfinite(t.d) && std::isfinite(t.tx) &&
         std::isfinite(t.ty) && det != 0 && std::isfinite(det);
}

// Offsets an image by whole pixels, folding into an existing offset.
CIImage offsetImage(const CIImage& image, std::int64_t dx, std::int64_t dy) {
  if (dx == 0 && dy == 0) return image;
  if (auto* off = dynamic_cast<const OffsetNode*>(image.node().get()))
    return offsetImage(off->inputs()[0], off->dx() + dx, off->dy() + dy);
  // Infinite images without position-dependent content do not move.
  if (auto* cc = dynamic_cast<const ConstantColorNode*>(image.node().get()); cc && CGRectIsInfinite(cc->extent()))
    return image;
  if (dynamic_cast<const EmptyNode*>(image.node().get())) return image;
  return CIImage(std::make_shared<OffsetNode>(image, dx, dy));
}

}  // namespace

CGRect CIImage::extent() const { return node_ ? node_->extent() : CGRectZero; }

CIImage CIImage::imageByApplyingTransform(const CGAffineTransform& t) const {
  if (!node_) return {};
  if (CGAffineTransformIsIdentity(t)) return *this;
  if (!isUsableTransform(t)) return emptyImage();
  if (dynamic_cast<const EmptyNode*>(node_.get())) return *this;
  if (auto* cc = dynamic_cast<const ConstantColorNode*>(node_.get()); cc && CGRectIsInfinite(cc->extent())) return *this;
  // A generator that draws itself transformed is drawn at the output's pixels, not resampled;
  // a crop of one becomes that drawing cropped to the transformed rectangle.
  if (auto drawn = node_->transformedBy(t)) return CIImage(std::move(drawn));
  if (auto* crop = dynamic_cast<const CropNode*>(node_.get()))
    if (auto drawn = crop->inputs()[0].node()->transformedBy(t))
      return CIImage(std::move(drawn)).imageByCroppingToRect(CGRectApplyAffineTransform(crop->rect(), t));
  if (isIntegerTranslation(t)) return offsetImage(*this, std::int64_t(t.tx), std::int64_t(t.ty));
  // A transform of a transform (or of an offset) is one transform.
  if (auto* tn = dynamic_cast<const TransformNode*>(node_.get()))
    return tn->inputs()[0].imageByApplyingTransform(CGAffineTransformConcat(tn->transform(), t));
  if (auto* off = dynamic_cast<const OffsetNode*>(node_.get()))
    return off->inputs()[0].imageByApplyingTransform(
        CGAffineTransformConcat(CGAffineTransformMakeTranslation(double(off->dx()), double(off->dy())), t));
  return CIImage(std::make_shared<TransformNode>(*this, t));
}

CIImage CIImage::imageByCroppingToRect(const CGRect& r) const {
  if (!node_) return {};
  const CGRect e = extent();
  const CGRect inter = CGRectIntersection(e, r);
  if (CGRectIsNull(inter) || CGRectIsEmpty(inter)) return emptyImage();
  // Nothing to remove.
  if (CGRectIsInfinite(r) || CGRectContainsRect(r, e)) return *this;
  // A crop of a crop is one crop of the intersection (pixel-centre inclusion composes exactly).
  if (auto* crop = dynamic_cast<const CropNode*>(node_.get()))
    return crop->inputs()[0].imageByCroppingToRect(CGRectIntersection(crop->rect(), r));
  // A cropped constant colour is a finite constant colour.
  if (auto* cc = dynamic_cast<const ConstantColorNode*>(node_.get()))
    return CIImage(std::make_shared<ConstantColorNode>(cc->color(), inter));
  return CIImage(std::make_shared<CropNode>(*this, r));
}

CIImage CIImage::imageByClampingToExtent() const {
  if (!node_) return {};
  const CGRect e = extent();
  if (CGRectIsInfinite(e)) return *this;
  if (CGRectIsNull(e) || CGRectIsEmpty(e) || PixelRect::covering(e).empty()) return emptyImage();
  return CIImage(std::make_shared<ClampNode>(*this));
}

CIImage CIImage::imageWithColor(const std::shared_ptr<const CIColor>& color) {
  if (!color) return {};
  return CIImage(std::make_shared<ConstantColorNode>(color, CGRectInfinite));
}

CIImage CIImage::emptyImage() {
  static const CIImage empty(std::make_shared<EmptyNode>());
  return empty;
}

CIImage CIImage::imageWithContentsOfFile(const std::string& path) { return imageWithContentsOfFile(path, {}); }

CIImage CIImage::imageWithContentsOfFile(const std::string& path, const Dictionary& options) {
  // The header is read now (size, and whether the file is an image at all); pixels are decoded
  // as tiles read them. The file's EXIF orientation is applied only when the options ask:
  // otherwise the image is the stored pixels, as the platform's image-from-file does.
  auto src = CGImageSourceCreateWithURL(path);
  if (!src || CGImageSourceGetCount(src) < 1) return {};
  const Dictionary props = CGImageSourceCopyPropertiesAtIndex(src, 0);
  auto w = props.find(kCGImagePropertyPixelWidth), h = props.find(kCGImagePropertyPixelHeight);
  if (w == props.end() || h == props.end()) return {};
  const std::int64_t width = w->second.integerValue(), height = h->second.integerValue();
  if (width <= 0 || height <= 0) return {};
  const std::int64_t depth = props.count(kCGImagePropertyDepth) ? props.at(kCGImagePropertyDepth).integerValue() : 8;
  FileNode::Stored stored;
  stored.bitsPerComponent = depth == 16 ? 16 : 8;
  const auto alpha = props.find(kCGImagePropertyHasAlpha);
  stored.opaque = alpha != props.end() && !alpha->second.boolValue();
  stored.jpeg = CGImageSourceGetType(src) == kUTTypeJPEG;
  const auto apply = options.find(kCIImageApplyOrientationProperty);
  const auto orientation = props.find(kCGImagePropertyOrientation);
  if (apply != options.end() && apply->second.boolValue() && orientation != props.end())
    stored.orientation = int(orientation->second.integerValue());
  return CIImage(std::make_shared<FileNode>(path, std::size_t(width), std::size_t(height), stored));
}

CIImage CIImage::imageWithImageProvider(std::shared_ptr<CIImageProvider> provider, std::size_t width,
                                        std::size_t height, CIFormat format, const std::string& colorSpace,
                                        const Dictionary& options) {
  if (!provider) return {};
  if (width == 0 || height == 0) return emptyImage();
  if (width > std::size_t(PixelRect::kPixelLimit) || height > std::size_t(PixelRect::kPixelLimit)) return {};
  return CIImage(std::make_shared<ProviderNode>(std::move(provider), width, height, format, colorSpace, options));
}

CIImage CIImage::imageWithRowProvider(std::shared_ptr<CIImageRowProvider> provider, std::size_t width,
                                      std::size_t height, const CIRowProviderOptions& options) {
  if (!provider) return {};
  if (width == 0 || height == 0) return emptyImage();
  if (width > std::size_t(PixelRect::kPixelLimit) || height > std::size_t(PixelRect::kPixelLimit)) return {};
  return CIImage(std::make_shared<RowProviderNode>(std::move(provider), width, height, options));
}

namespace {
// A bitmap lands on the pixel grid at the integral part of its origin; a fractional origin is
// then a (resampling) translation.
CIImage placeBitmap(std::shared_ptr<const ImageNode> node, CGPoint origin) {
  CIImage image(std::move(node));
  const double fx = origin.x - std::floor(origin.x), fy = origin.y - std::floor(origin.y);
  if (fx != 0 || fy != 0) image = image.imageByApplyingTransform(CGAffineTransformMakeTranslation(fx, fy));
  return image;
}

bool validBitmapSize(std::size_t w, std::size_t h, CGPoint origin) {
  return w > 0 && h > 0 && w <= (std::size_t{1} << 31) && h <= (std::size_t{1} << 31) && std::isfinite(origin.x) &&
         std::isfinite(origin.y) && std::fabs(origin.x) < 1e12 && std::fabs(origin.y) < 1e12;
}
}  // namespace

CIImage CIImage::imageWithRGBAf(const float* pixels, std::size_t width, std::size_t height, CGPoint origin) {
  if (!pixels) return {};
  if (width == 0 || height == 0) return emptyImage();
  if (!validBitmapSize(width, height, origin)) return {};
  std::vector<float> copy(pixels, pixels + width * height * 4);
  return placeBitmap(std::make_shared<BitmapNode>(std::move(copy), width, height, std::int64_t(std::floor(origin.x)),
                                                  std::int64_t(std::floor(origin.y))),
                     origin);
}

CIImage CIImage::imageWithRGBA8(const std::uint8_t* pixels, std::size_t width, std::size_t height,
                                std::size_t rowBytes, CGPoint origin) {
  if (!pixels) return {};
  if (width == 0 || height == 0) return emptyImage();
  if (!validBitmapSize(width, height, origin)) return {};
  if (rowBytes == 0) rowBytes = width * 4;
  if (rowBytes < width * 4) return {};
  std::vector<std::uint8_t> copy(width * height * 4);
  for (std::size_t y = 0; y < height; ++y) std::memcpy(copy.data() + y * width * 4, pixels + y * rowBytes, width * 4);
  return placeBitmap(std::make_shared<Bitmap8Node>(std::move(copy), width, height, std::int64_t(std::floor(origin.x)),
                                                   std::int64_t(std::floor(origin.y))),
                     origin);
}

CIImage::operator Value() const { return Value(node_); }

CIImage CIImage::fromValue(const Value& v) { return CIImage(v.object<ImageNode>()); }

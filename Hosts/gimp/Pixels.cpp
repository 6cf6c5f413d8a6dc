#include "Pixels.h"

#include <libgimp/gimp.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIContext.h"

namespace qvgimp {
namespace {

// The engine's working format in the drawable's colour space.
const Babl* workingFormat(gint32 drawable) {
  return babl_format_with_space("RaGaBaA float", gimp_drawable_get_format(drawable));
}

// True when the drawable holds 8-bit sRGB-encoded RGB in sRGB, the encoding of the engine's own
// 8-bit images (as files hold them). Its pixels then cross as 8-bit values, a quarter of the
// floats' size, and the engine converts them on its render threads instead of babl on one.
bool isSRGB8(gint32 drawable) {
  const Babl* format = gimp_drawable_get_format(drawable);
  if (!format || babl_format_get_type(format, 0) != babl_type("u8")) return false;
  if (babl_format_get_space(format) != babl_space("sRGB")) return false;
  const Babl* model = babl_format_get_model(format);
  return model == babl_model("R'G'B'A") || model == babl_model("R'G'B'");
}

const Babl* srgb8Format() { return babl_format("R'G'B'A u8"); }

// What the output is written as: straight linear float, which GIMP converts to the drawable's
// own precision and encoding.
const Babl* outputFormat(gint32 drawable) {
  return babl_format_with_space("RGBA float", gimp_drawable_get_format(drawable));
}

// Working pixels as the engine's file encoders store them: alpha clamped to 0..1 (a sharpened
// edge may overshoot it), colour divided by that alpha, nothing where alpha is not positive.
// Colours stay unclamped, so float images keep values beyond 1.
void straighten(std::vector<float>& pixels) {
  for (std::size_t i = 0; i + 3 < pixels.size(); i += 4) {
    const float a = std::min(pixels[i + 3], 1.0f);
    if (!(a > 0.0f)) {
      pixels[i] = pixels[i + 1] = pixels[i + 2] = pixels[i + 3] = 0.0f;
      continue;
    }
    for (std::size_t c = 0; c < 3; ++c) {
      const float v = pixels[i + c] / a;
      pixels[i + c] = std::isfinite(v) ? v : 0.0f;
    }
    pixels[i + 3] = a;
  }
}

// Rows per strip, so that one strip of floats stays near 32 MB whatever the width.
std::int64_t stripRows(int width) {
  return std::max(64, static_cast<int>((32u << 20) / (16u * static_cast<unsigned>(std::max(width, 1)))));
}

// Renders the engine rectangle that covers buffer rows [top, top + height) of a buffer whose top
// row is engine row `engineTop` (exclusive upper edge) and whose first column is `engineLeft`,
// and stores it in the buffer.
// One renderer for all strips, so that a filter reaching beyond a strip (a blur) carries its
// margins from one strip to the next instead of computing them again at every strip's edges.
// `srgb8`: the drawable is 8-bit sRGB, and the engine's own 8-bit rendering is written as is.
void renderInto(GeglBuffer* buffer, const Babl* format, bool srgb8, const CIImage& output, int left, int top,
                int width, int height, double engineLeft, double engineTop) {
  const CIContext context;
  const CGRect bounds = CGRectMake(engineLeft + left, engineTop - (top + height), width, height);
  if (srgb8) {
    context.renderStrips(output, bounds, CIRenderFormat::RGBA8, stripRows(width) * 4,
                         [&](const void* pixels, std::ptrdiff_t rowBytes, std::int64_t y, std::int64_t h) {
                           const GeglRectangle rect{left, top + static_cast<int>(y), width, static_cast<int>(h)};
                           gegl_buffer_set(buffer, &rect, 0, srgb8Format(), pixels, rowBytes);
                         });
    return;
  }
  std::vector<float> strip;
  context.renderStrips(output, bounds, CIRenderFormat::RGBAf, stripRows(width),
                       [&](const void* pixels, std::ptrdiff_t rowBytes, std::int64_t y, std::int64_t h) {
                         const auto* rows = static_cast<const float*>(pixels);
                         strip.assign(rows, rows + static_cast<std::size_t>(rowBytes / 4) * static_cast<std::size_t>(h));
                         straighten(strip);
                         const GeglRectangle rect{left, top + static_cast<int>(y), width, static_cast<int>(h)};
                         gegl_buffer_set(buffer, &rect, 0, format, strip.data(), rowBytes);
                       });
}

}  // namespace

CIImage drawableImage(std::int32_t drawable) {
  GeglBuffer* buffer = gimp_drawable_get_buffer(drawable);
  if (!buffer) throw PixelError("cannot read the drawable's pixels");
  const int width = gegl_buffer_get_width(buffer), height = gegl_buffer_get_height(buffer);
  const GeglRectangle rect{0, 0, width, height};
  if (isSRGB8(drawable)) {
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4u);
    gegl_buffer_get(buffer, &rect, 1.0, srgb8Format(), pixels.data(), GEGL_AUTO_ROWSTRIDE, GEGL_ABYSS_NONE);
    g_object_unref(buffer);
    return CIImage::imageWithRGBA8(pixels.data(), static_cast<std::size_t>(width), static_cast<std::size_t>(height),
                                   static_cast<std::size_t>(width) * 4u);
  }
  std::vector<float> pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4u);
  gegl_buffer_get(buffer, &rect, 1.0, workingFormat(drawable), pixels.data(), GEGL_AUTO_ROWSTRIDE, GEGL_ABYSS_NONE);
  g_object_unref(buffer);
  return CIImage::imageWithRGBAf(pixels.data(), static_cast<std::size_t>(width), static_cast<std::size_t>(height));
}

CIImage drawablePreviewImage(std::int32_t drawable, int maxSide, double& scale) {
  GeglBuffer* buffer = gimp_drawable_get_buffer(drawable);
  if (!buffer) throw PixelError("cannot read the drawable's pixels");
  const int width = gegl_buffer_get_width(buffer), height = gegl_buffer_get_height(buffer);
  scale = std::min(1.0, static_cast<double>(std::max(maxSide, 1)) / std::max({width, height, 1}));
  const int w = std::max(1, static_cast<int>(std::lround(width * scale)));
  const int h = std::max(1, static_cast<int>(std::lround(height * scale)));
  std::vector<float> pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h) * 4u);
  // At a scale below 1 the rectangle is in the scaled buffer's coordinates.
  const GeglRectangle rect{0, 0, w, h};
  gegl_buffer_get(buffer, &rect, scale, workingFormat(drawable), pixels.data(), GEGL_AUTO_ROWSTRIDE, GEGL_ABYSS_CLAMP);
  g_object_unref(buffer);
  return CIImage::imageWithRGBAf(pixels.data(), static_cast<std::size_t>(w), static_cast<std::size_t>(h));
}

ApplyResult applyOutput(std::int32_t image, std::int32_t drawable, const CIImage& output) {
  if (!output) throw PixelError("the filter produced no image");
  const int width = gimp_drawable_width(drawable), height = gimp_drawable_height(drawable);
  CGRect extent = output.extent();
  if (CGRectIsInfinite(extent)) extent = CGRectMake(0, 0, width, height);
  extent = CGRectIntegral(extent);
  if (CGRectIsNull(extent) || CGRectIsEmpty(extent)) throw PixelError("the filter's output is empty");
  ApplyResult result;
  const bool srgb8 = isSRGB8(drawable);
  const bool sameExtent =
      extent.origin.x == 0 && extent.origin.y == 0 && extent.size.width == width && extent.size.height == height;
  if (sameExtent) {
    gint x = 0, y = 0, w = 0, h = 0;
    if (!gimp_drawable_mask_intersect(drawable, &x, &y, &w, &h)) return result;
    gimp_image_undo_group_start(image);
    GeglBuffer* shadow = gimp_drawable_get_shadow_buffer(drawable);
    renderInto(shadow, outputFormat(drawable), srgb8, output, x, y, w, h, 0, height);
    gegl_buffer_flush(shadow);
    g_object_unref(shadow);
    gimp_drawable_merge_shadow(drawable, TRUE);
    gimp_drawable_update(drawable, x, y, w, h);
    gimp_image_undo_group_end(image);
    result = ApplyResult{x, y, w, h, false};
    return result;
  }

  if (!gimp_item_is_layer(drawable))
    throw PixelError("the filter changes the size of the picture, which only a layer can take");
  const double maxSide = GIMP_MAX_IMAGE_SIZE;
  if (extent.size.width > maxSide || extent.size.height > maxSide)
    throw PixelError("the filter's output is larger than GIMP's largest image");
  const int newWidth = static_cast<int>(extent.size.width), newHeight = static_cast<int>(extent.size.height);
  // The old layer's top-left corner within the new one (engine y grows upward).
  const int offX = static_cast<int>(-extent.origin.x);
  const int offY = static_cast<int>(extent.origin.y + extent.size.height) - height;
  gimp_image_undo_group_start(image);
  // The whole output replaces the layer, so the selection does not take part: it is put aside
  // and restored inside the same undo group.
  gint32 savedSelection = -1;
  if (!gimp_selection_is_empty(image)) {
    savedSelection = gimp_selection_save(image);
    gimp_selection_none(image);
  }
  if (!gimp_drawable_has_alpha(drawable)) gimp_layer_add_alpha(drawable);
  gimp_layer_resize(drawable, newWidth, newHeight, offX, offY);
  GeglBuffer* shadow = gimp_drawable_get_shadow_buffer(drawable);
  renderInto(shadow, outputFormat(drawable), srgb8, output, 0, 0, newWidth, newHeight, extent.origin.x,
             extent.origin.y + extent.size.height);
  gegl_buffer_flush(shadow);
  g_object_unref(shadow);
  gimp_drawable_merge_shadow(drawable, TRUE);
  gimp_drawable_update(drawable, 0, 0, newWidth, newHeight);
  if (savedSelection != -1) {
    gimp_image_select_item(image, GIMP_CHANNEL_OP_REPLACE, savedSelection);
    gimp_image_remove_channel(image, savedSelection);
  }
  gimp_image_undo_group_end(image);
  result = ApplyResult{0, 0, newWidth, newHeight, true};
  return result;
}

}  // namespace qvgimp

#include "Pixels.h"

#include <libgimp/gimp.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <utility>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIContext.h"
#include "Timing.h"

namespace qvgimp {
namespace {

// The engine's working format in the drawable's colour space.
const Babl* workingFormat(gint32 drawable) {
  return babl_format_with_space("RaGaBaA float", gimp_drawable_get_format(drawable));
}

// The drawable's own format when it holds 8-bit sRGB-encoded RGB or RGBA in sRGB, the encoding
// of the engine's own 8-bit images (as files hold them); null otherwise. Such pixels cross in
// the format they are stored in: babl converts nothing, the wire carries a quarter of the
// floats' bytes, and the engine decodes them on its render threads.
const Babl* srgb8Format(gint32 drawable) {
  const Babl* format = gimp_drawable_get_format(drawable);
  if (!format || babl_format_get_type(format, 0) != babl_type("u8")) return nullptr;
  if (babl_format_get_space(format) != babl_space("sRGB")) return nullptr;
  const Babl* model = babl_format_get_model(format);
  return model == babl_model("R'G'B'A") || model == babl_model("R'G'B'") ? format : nullptr;
}

// Widens `count` packed 3-byte pixels at the start of `pixels` to opaque 4-byte ones in place,
// from the last pixel back, so that no pixel is overwritten before it is read.
void widenRGBToRGBA(std::uint8_t* pixels, std::size_t count) {
  for (std::size_t i = count; i-- > 0;) {
    const std::uint8_t r = pixels[i * 3], g = pixels[i * 3 + 1], b = pixels[i * 3 + 2];
    pixels[i * 4] = r;
    pixels[i * 4 + 1] = g;
    pixels[i * 4 + 2] = b;
    pixels[i * 4 + 3] = 255;
  }
}

// What the output is written as: straight linear float, which GIMP converts to the drawable's
// own precision and encoding.
const Babl* outputFormat(gint32 drawable) {
  return babl_format_with_space("RGBA float", gimp_drawable_get_format(drawable));
}

// Working pixels as the engine's file encoders store them: alpha clamped to 0..1 (a sharpened
// edge may overshoot it), colour divided by that alpha, nothing where alpha is not positive.
// Colours stay unclamped, so float images keep values beyond 1.
void straighten(float* pixels, std::size_t count) {
  for (std::size_t i = 0; i + 3 < count * 4; i += 4) {
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

// Rows per strip, so that one strip of floats stays near 32 MB whatever the width (8-bit
// strips, a quarter of that), in whole rows of GIMP's tiles: a strip that ends inside a tile
// would have GEGL fetch that tile's old pixels from GIMP to keep its other rows, and send the
// tile twice. The renderer rounds a strip up to whole rows of its own tiles (32 rows for the
// blur and the exposure change), which keeps it aligned where those divide GIMP's.
std::int64_t stripRows(int width) {
  const int tileRows = std::max(static_cast<int>(gimp_tile_height()), 1);
  const int rows = std::max(64, static_cast<int>((32u << 20) / (16u * static_cast<unsigned>(std::max(width, 1)))));
  return (rows + tileRows - 1) / tileRows * tileRows;
}

// Stores rendered strips in a GEGL buffer and sends their tiles to GIMP on a thread of its own,
// so that the wire to GIMP carries one strip while the renderer computes the next instead of
// the two taking turns. The thread is the only user of the buffer and of the wire while it
// runs (the caller only renders). At most two strips wait, which bounds the memory held.
class StripWriter {
 public:
  StripWriter(GeglBuffer* buffer, const Babl* format) : buffer_(buffer), format_(format), thread_([this] { run(); }) {}
  ~StripWriter() {
    try {
      finish();
    } catch (...) {  // already unwinding from the render's own failure
    }
  }

  // Queues `bytes` (rows `rowstride` apart) for `rect`; waits while two strips are queued.
  void write(const GeglRectangle& rect, std::vector<std::uint8_t> bytes, int rowstride) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return queue_.size() < 2 || error_; });
    if (error_) std::rethrow_exception(error_);
    queue_.push_back(Strip{rect, std::move(bytes), rowstride});
    changed_.notify_all();
  }

  // Waits until every queued strip is stored and sent; rethrows what the thread failed with.
  void finish() {
    {
      std::lock_guard lock(mutex_);
      done_ = true;
      changed_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
    if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
  }

 private:
  struct Strip {
    GeglRectangle rect;
    std::vector<std::uint8_t> bytes;
    int rowstride;
  };

  void run() {
    try {
      for (;;) {
        Strip strip;
        {
          std::unique_lock lock(mutex_);
          changed_.wait(lock, [&] { return !queue_.empty() || done_; });
          if (queue_.empty()) return;
          strip = std::move(queue_.front());
        }
        gegl_buffer_set(buffer_, &strip.rect, 0, format_, strip.bytes.data(), strip.rowstride);
        gegl_buffer_flush(buffer_);  // the strip's tiles to GIMP now, not all at the end
        std::lock_guard lock(mutex_);
        queue_.pop_front();
        changed_.notify_all();
      }
    } catch (...) {
      std::lock_guard lock(mutex_);
      error_ = std::current_exception();
      changed_.notify_all();
    }
  }

  GeglBuffer* buffer_;
  const Babl* format_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Strip> queue_;  // the front one is being written
  bool done_ = false;
  std::exception_ptr error_;
  std::thread thread_;  // last: starts once the members it uses exist
};

// Renders the engine rectangle that covers buffer rows [top, top + height) of a buffer whose top
// row is engine row `engineTop` (exclusive upper edge) and whose first column is `engineLeft`,
// and stores it in the buffer, flushed to GIMP.
// One renderer for all strips, so that a filter reaching beyond a strip (a blur) carries its
// margins from one strip to the next instead of computing them again at every strip's edges.
// An 8-bit sRGB drawable takes the engine's own 8-bit rendering as is (its alpha left out where
// the drawable has none); any other takes straight linear float.
void renderInto(GeglBuffer* buffer, gint32 drawable, const CIImage& output, int left, int top, int width, int height,
                double engineLeft, double engineTop) {
  const CIContext context;
  const CGRect bounds = CGRectMake(engineLeft + left, engineTop - (top + height), width, height);
  const std::size_t columns = static_cast<std::size_t>(width);
  if (const Babl* format = srgb8Format(drawable)) {
    const std::size_t bytesPerPixel = static_cast<std::size_t>(babl_format_get_bytes_per_pixel(format));
    StripWriter writer(buffer, format);
    context.renderStrips(output, bounds, CIRenderFormat::RGBA8, stripRows(width),
                         [&](const void* pixels, std::ptrdiff_t rowBytes, std::int64_t y, std::int64_t h) {
                           const auto rows = static_cast<std::size_t>(h);
                           std::vector<std::uint8_t> strip(columns * rows * bytesPerPixel);
                           std::uint8_t* out = strip.data();
                           for (std::size_t row = 0; row < rows; ++row) {
                             const auto* in = static_cast<const std::uint8_t*>(pixels) +
                                              static_cast<std::ptrdiff_t>(row) * rowBytes;
                             if (bytesPerPixel == 4) {
                               std::memcpy(out, in, columns * 4);
                               out += columns * 4;
                               continue;
                             }
                             for (std::size_t x = 0; x < columns; ++x, in += 4, out += 3) {
                               out[0] = in[0];
                               out[1] = in[1];
                               out[2] = in[2];
                             }
                           }
                           writer.write(GeglRectangle{left, top + static_cast<int>(y), width, static_cast<int>(h)},
                                        std::move(strip), static_cast<int>(columns * bytesPerPixel));
                         });
    writer.finish();
    return;
  }
  StripWriter writer(buffer, outputFormat(drawable));
  context.renderStrips(output, bounds, CIRenderFormat::RGBAf, stripRows(width),
                       [&](const void* pixels, std::ptrdiff_t rowBytes, std::int64_t y, std::int64_t h) {
                         const auto rows = static_cast<std::size_t>(h);
                         std::vector<std::uint8_t> strip(columns * rows * 16u);
                         for (std::size_t row = 0; row < rows; ++row)
                           std::memcpy(strip.data() + row * columns * 16u,
                                       static_cast<const std::uint8_t*>(pixels) + static_cast<std::ptrdiff_t>(row) * rowBytes,
                                       columns * 16u);
                         straighten(reinterpret_cast<float*>(strip.data()), columns * rows);
                         writer.write(GeglRectangle{left, top + static_cast<int>(y), width, static_cast<int>(h)},
                                      std::move(strip), static_cast<int>(columns * 16u));
                       });
  writer.finish();
}

}  // namespace

// The drawable's rows as GIMP holds them, for the engine's row-provider images: 8-bit sRGB
// drawables in their own format (RGB widened to opaque RGBA in place), every other precision as
// premultiplied linear floats in the image's own colour space, converted by babl. libgimp
// serialises the tile requests of every thread on its wire to GIMP, so bands may be asked from
// the render's threads and its reader thread at once, beside the strip writer.
class DrawableRows final : public CIImageRowProvider {
 public:
  DrawableRows(GeglBuffer* buffer, const Babl* format, bool widen)
      : buffer_(buffer),
        format_(format),
        widen_(widen),
        width_(gegl_buffer_get_width(buffer)),
        height_(gegl_buffer_get_height(buffer)) {}
  ~DrawableRows() override { g_object_unref(buffer_); }
  DrawableRows(const DrawableRows&) = delete;
  DrawableRows& operator=(const DrawableRows&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }

  void provideRows(void* rows, std::size_t rowBytes, std::size_t first, std::size_t count) override {
    auto* out = static_cast<std::uint8_t*>(rows);
    if (!held_.empty()) {
      for (std::size_t r = 0; r < count; ++r)
        std::memcpy(out + r * rowBytes, held_.data() + (first + r) * rowBytes, rowBytes);
      return;
    }
    const GeglRectangle rect{0, static_cast<int>(first), width_, static_cast<int>(count)};
    gegl_buffer_get(buffer_, &rect, 1.0, format_, out, static_cast<int>(rowBytes), GEGL_ABYSS_NONE);
    if (widen_)
      for (std::size_t r = 0; r < count; ++r) widenRGBToRGBA(out + r * rowBytes, static_cast<std::size_t>(width_));
  }

  // Reads every row now and serves them from memory from then on: the layer may change after
  // this (a resize), the image computed from it may not. Called between renders.
  void holdAll(std::size_t rowBytes) {
    if (!held_.empty()) return;
    std::vector<std::uint8_t> all(rowBytes * static_cast<std::size_t>(height_));
    provideRows(all.data(), rowBytes, 0, static_cast<std::size_t>(height_));
    held_ = std::move(all);
  }

 private:
  GeglBuffer* buffer_;
  const Babl* format_;
  bool widen_;
  int width_, height_;
  std::vector<std::uint8_t> held_;
};

bool crossesUnconverted(std::int32_t image, std::int32_t drawable) {
  if (gimp_image_get_precision(image) != GIMP_PRECISION_U8_GAMMA || !gimp_drawable_is_rgb(drawable)) return false;
  GimpColorProfile* profile = gimp_image_get_color_profile(image);
  if (!profile) return true;
  g_object_unref(profile);
  return false;
}

namespace {

// The drawable's rows with the engine image of them: `bandRows` rows a request, within
// `budgetBytes` (0: the engine's default).
DrawableInput rowsImage(std::int32_t drawable, std::size_t budgetBytes) {
  GeglBuffer* buffer = gimp_drawable_get_buffer(drawable);
  if (!buffer) throw PixelError("cannot read the drawable's pixels");
  CIRowProviderOptions options;
  options.bandRows = static_cast<std::size_t>(std::max(static_cast<int>(gimp_tile_height()), 1));
  options.budgetBytes = budgetBytes;
  std::shared_ptr<DrawableRows> rows;
  if (const Babl* format = srgb8Format(drawable)) {
    options.format = CIRowFormat::RGBA8;
    options.opaque = babl_format_get_bytes_per_pixel(format) == 3;
    rows = std::make_shared<DrawableRows>(buffer, format, options.opaque);
  } else {
    options.format = CIRowFormat::RGBAf;
    rows = std::make_shared<DrawableRows>(buffer, workingFormat(drawable), false);
  }
  const auto width = static_cast<std::size_t>(rows->width()), height = static_cast<std::size_t>(rows->height());
  return DrawableInput{CIImage::imageWithRowProvider(rows, width, height, options), rows};
}

// Bytes of one of the drawable's pixels as the engine reads them: 8-bit RGBA or four floats.
std::size_t bytesPerPixel(std::int32_t drawable) { return srgb8Format(drawable) ? 4u : 16u; }

std::size_t rowBytes(const DrawableRows& rows, std::int32_t drawable) {
  return static_cast<std::size_t>(rows.width()) * bytesPerPixel(drawable);
}

}  // namespace

DrawableInput drawableInput(std::int32_t drawable) {
  // Room for four of the output's strips (the read-ahead gets half): the two workers read rows
  // of the strip they render and of the next, with a blur's margins.
  const int width = gimp_drawable_width(drawable);
  const std::size_t budget = 4u * static_cast<std::size_t>(stripRows(width)) *
                             static_cast<std::size_t>(std::max(width, 1)) * bytesPerPixel(drawable);
  return rowsImage(drawable, budget);
}

CIImage drawableImage(std::int32_t drawable) {
  DrawableInput input = rowsImage(drawable, 0);
  input.rows->holdAll(rowBytes(*input.rows, drawable));
  return input.image;
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

ApplyResult applyOutput(std::int32_t image, std::int32_t drawable, const CIImage& output, DrawableRows* input) {
  if (!output) throw PixelError("the filter produced no image");
  const int width = gimp_drawable_width(drawable), height = gimp_drawable_height(drawable);
  CGRect extent = output.extent();
  if (CGRectIsInfinite(extent)) extent = CGRectMake(0, 0, width, height);
  extent = CGRectIntegral(extent);
  if (CGRectIsNull(extent) || CGRectIsEmpty(extent)) throw PixelError("the filter's output is empty");
  ApplyResult result;
  const bool sameExtent =
      extent.origin.x == 0 && extent.origin.y == 0 && extent.size.width == width && extent.size.height == height;
  if (sameExtent) {
    gint x = 0, y = 0, w = 0, h = 0;
    if (!gimp_drawable_mask_intersect(drawable, &x, &y, &w, &h)) return result;
    gimp_image_undo_group_start(image);
    GeglBuffer* shadow = gimp_drawable_get_shadow_buffer(drawable);
    timingMark("shadow buffer");
    renderInto(shadow, drawable, output, x, y, w, h, 0, height);
    timingMark("rendered into the shadow");
    gegl_buffer_flush(shadow);
    g_object_unref(shadow);
    timingMark("shadow flushed");
    gimp_drawable_merge_shadow(drawable, TRUE);
    timingMark("shadow merged");
    gimp_drawable_update(drawable, x, y, w, h);
    gimp_image_undo_group_end(image);
    timingMark("drawable updated");
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
  // The layer's rows change below; the output is computed from the ones it has now.
  if (input) input->holdAll(rowBytes(*input, drawable));
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
  renderInto(shadow, drawable, output, 0, 0, newWidth, newHeight, extent.origin.x,
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

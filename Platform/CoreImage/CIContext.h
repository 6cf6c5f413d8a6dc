// CIContext: the renderer. Splits a requested rectangle into columns, one worker each on a
// thread pool, and each column into tiles rendered from the top down; propagates regions of
// interest down the graph, carries the rows that vertically adjacent tiles share from one
// tile to the next, and converts working pixels to the requested format at the edge.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIImage.h"

class CIRenderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A render that failed because an image file it reads cannot be decoded (damaged or cut
// short); the message names the file and the rows where its data breaks.
class CIImageDecodeError : public CIRenderError {
 public:
  using CIRenderError::CIRenderError;
};

enum class CIRenderFormat {
  RGBA8,   // sRGB-encoded (or raw when colour management is off), straight alpha
  RGBA16,  // as RGBA8, 16 bits per component
  RGBAf,   // working space, premultiplied, 32-bit float
};

struct CIContextOptions {
  bool colorManagement = true;
  int threads = 0;   // 0: one per core
  int tileSize = 0;  // square tiles of this size; 0: columns and tile height chosen per render
  // Called with the fraction done (0..1), from any thread, at most once per tile; 1 always last.
  std::function<void(double)> progress;
};

class CIContext {
 public:
  explicit CIContext(CIContextOptions options = {});
  static std::shared_ptr<CIContext> contextWithOptions(CIContextOptions options = {}) {
    return std::make_shared<CIContext>(std::move(options));
  }
  const CIContextOptions& options() const { return options_; }

  // Renders `bounds` (made integral) of the image into `buffer`, whose row 0 is the top row.
  // A null `bounds` means the image's extent. Throws CIRenderError for an infinite extent
  // without bounds, a nil image, or a buffer too small.
  void render(const CIImage& image, void* buffer, std::ptrdiff_t rowBytes, const CGRect& bounds,
              CIRenderFormat format) const;

  // Renders `bounds` (made integral; null: the image's extent) from the top down in strips of
  // whole tile rows, at least `minStripRows` rows each, and hands every strip to `consume`
  // before rendering the next: its pixels (top row first, `rowBytes` apart), its first row
  // counted from the bounds' top, and its height. Unlike separate render calls, the strips
  // share one renderer, which carries every column's margins from one strip to the next (a
  // blur is not computed again at each strip's edges). Exceptions from `consume` propagate.
  using StripConsumer =
      std::function<void(const void* pixels, std::ptrdiff_t rowBytes, std::int64_t top, std::int64_t height)>;
  void renderStrips(const CIImage& image, const CGRect& bounds, CIRenderFormat format, std::int64_t minStripRows,
                    const StripConsumer& consume) const;

  // Renders to a file through ImageIO in strips; the type comes from the extension (.png,
  // .jpg/.jpeg, .webp). Throws CIRenderError with a one-line reason on failure.
  void writeToFile(const CIImage& image, const std::string& path, const CGRect& bounds, double quality = 0.9) const;
  // "cannot write PATH: DETAIL", or DETAIL itself when it already says which file it could
  // not write or create (so a message passed up through several layers names the file once).
  static std::string writeErrorMessage(const std::string& path, const std::string& detail);

 private:
  CIContextOptions options_;
};

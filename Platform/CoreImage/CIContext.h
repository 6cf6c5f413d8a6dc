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

// A render refused before it started: even its smallest tiling needs more working memory
// than the context's budget allows (memory), or its nodes would compute more pixels than the
// context's limit of work (work).
class CIRenderBudgetError : public CIRenderError {
 public:
  enum class Kind { memory, work };
  CIRenderBudgetError(const std::string& message, Kind kind, double needed, double budget)
      : CIRenderError(message), kind_(kind), needed_(needed), budget_(budget) {}
  Kind kind() const { return kind_; }
  // Bytes (memory) or pixels computed by all nodes together (work).
  double needed() const { return needed_; }
  double budget() const { return budget_; }

 private:
  Kind kind_;
  double needed_, budget_;
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
  // The most working memory (bytes) one render may hold: the tile buffers of every column and,
  // for a file, the strip buffers of the encoder. 0: CIContext::defaultMaxMemory().
  std::int64_t maxMemory = 0;
  // The most pixels all nodes of one render may compute together (each node counted over the
  // part of its extent the render reaches); what bounds the time of a render whatever its
  // graph. 0: CIContext::kDefaultMaxPixelWork.
  double maxPixelWork = 0;
  // Parts of an 8-bit render that are a constant colour or a source's stored 8-bit pixels
  // unchanged (a crop, a whole-pixel move, a mask's constant part...) are written directly,
  // bit for bit what rendering them gives, without rendering them. False renders every
  // pixel (as does QV_NO_PASS_THROUGH=1 in the environment, for comparisons).
  bool passThrough = true;
  // Shrink on load: where a JPEG file's only consumer is a Lanczos downscale
  // (CILanczosScaleTransform) by 1/4 or less, the file is decoded at the DCT scale of 1/2, 1/4
  // or 1/8 that still leaves the Lanczos a downscale by at least 2, and the Lanczos resamples
  // that decode onto the same output rectangle: up to 64 times fewer pixels decoded and
  // converted. The pixels differ from the full decode's (the decoder averages its 8 × 8 blocks
  // in the file's encoded values, not in linear light), by more than the golden-image tolerance
  // at sharp edges of a grainy photo, hence off unless asked for.
  bool fastShrink = false;
};

class CIContext {
 public:
  explicit CIContext(CIContextOptions options = {});
  static std::shared_ptr<CIContext> contextWithOptions(CIContextOptions options = {}) {
    return std::make_shared<CIContext>(std::move(options));
  }
  const CIContextOptions& options() const { return options_; }

  // 2^34 node pixels: a 100-megapixel picture through some 170 nodes, minutes of work.
  static constexpr double kDefaultMaxPixelWork = 17179869184.0;

  // A quarter of the machine's physical memory: what a render may hold unless told otherwise.
  static std::int64_t defaultMaxMemory();
  // The budget this context renders within (options().maxMemory, or the default).
  std::int64_t maxMemory() const;
  // The limit of work this context renders within (options().maxPixelWork, or the default).
  double maxPixelWork() const;

  // "12.5 MB": a size in binary units, as the budget's messages give it.
  static std::string formatBytes(std::int64_t bytes);

  // The working memory (bytes) that rendering `bounds` of `image` (null: its extent) will hold
  // at most, with the tiling this context chooses for it; `toFile` adds the encoder's strip
  // buffers of writeToFile. Throws CIRenderBudgetError when that is over the budget (or the
  // render's work over the limit of work), and
  // CIRenderError for what render() refuses (nil image, infinite bounds).
  std::int64_t workingMemory(const CIImage& image, const CGRect& bounds, bool toFile = false) const;

  // Renders `bounds` (made integral) of the image into `buffer`, whose row 0 is the top row.
  // A null `bounds` means the image's extent. Throws CIRenderError for an infinite extent
  // without bounds, a nil image, or a buffer too small, and CIRenderBudgetError (before
  // rendering anything) for a graph that cannot be rendered within the memory budget.
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

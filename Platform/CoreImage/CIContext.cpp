#include "CoreImage/CIContext.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

#include "CoreImage/ImageNode.h"
#include "CoreImage/Render/PixelConvert.h"
#include "CoreImage/Render/RenderCache.h"
#include "ImageIO/ImageIO.h"

namespace {

// The largest buffer one node may need for one tile (pixels): 1 GiB of working floats.
constexpr std::int64_t kMaxBufferPixels = std::int64_t{1} << 26;
// The budget of all buffers of one tile when choosing the tile size (bytes).
constexpr std::int64_t kTileBudgetBytes = std::int64_t{64} << 20;
// The largest image the renderer accepts in one call (pixels).
constexpr std::int64_t kMaxRenderPixels = std::int64_t{1} << 34;

// The graph of one render, flattened: every node once, consumers before their inputs.
struct Plan {
  std::vector<const ImageNode*> nodes;
  std::vector<std::vector<int>> inputs;  // per node, the node index of each input (-1: nil input)
  std::vector<int> edges;                // per node, how many input slots refer to it
  std::vector<PixelRect> extent;         // per node, the pixels its extent touches
};

Plan makePlan(const ImageNode* root) {
  Plan plan;
  std::unordered_map<const ImageNode*, int> index;
  std::vector<const ImageNode*> post;
  // Iterative depth-first search; post-order puts inputs before consumers.
  struct Frame {
    const ImageNode* node;
    std::size_t next;
  };
  std::vector<Frame> stack{{root, 0}};
  std::unordered_map<const ImageNode*, bool> seen{{root, true}};
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next < f.node->inputs().size()) {
      const ImageNode* in = f.node->inputs()[f.next++].node().get();
      if (in && !seen.count(in)) {
        seen[in] = true;
        stack.push_back({in, 0});
      }
      continue;
    }
    post.push_back(f.node);
    stack.pop_back();
  }
  plan.nodes.assign(post.rbegin(), post.rend());
  for (std::size_t i = 0; i < plan.nodes.size(); ++i) index[plan.nodes[i]] = int(i);
  plan.inputs.resize(plan.nodes.size());
  plan.edges.assign(plan.nodes.size(), 0);
  plan.extent.resize(plan.nodes.size());
  for (std::size_t i = 0; i < plan.nodes.size(); ++i) {
    plan.extent[i] = PixelRect::covering(plan.nodes[i]->extent());
    for (const CIImage& in : plan.nodes[i]->inputs()) {
      const int k = in ? index.at(in.node().get()) : -1;
      plan.inputs[i].push_back(k);
      if (k >= 0) ++plan.edges[std::size_t(k)];
    }
  }
  return plan;
}

// Regions of one tile: what each node must hold (the union of its consumers' regions of
// interest), what it renders (that, within its extent) and what each of its inputs must give.
struct Regions {
  std::vector<PixelRect> needed, work;
  std::vector<std::vector<PixelRect>> roi;
};

void computeRegions(const Plan& plan, const PixelRect& tile, Regions& r) {
  const std::size_t n = plan.nodes.size();
  r.needed.assign(n, PixelRect{});
  r.work.assign(n, PixelRect{});
  r.roi.resize(n);
  r.needed[0] = tile;
  for (std::size_t i = 0; i < n; ++i) {
    r.roi[i].assign(plan.inputs[i].size(), PixelRect{});
    if (r.needed[i].empty()) continue;
    r.work[i] = r.needed[i].intersection(plan.extent[i]);
    if (r.work[i].empty()) continue;
    for (std::size_t k = 0; k < plan.inputs[i].size(); ++k) {
      const int in = plan.inputs[i][k];
      if (in < 0) continue;
      const PixelRect roi = plan.nodes[i]->regionOfInterest(k, r.work[i]);
      r.roi[i][k] = roi;
      r.needed[std::size_t(in)] = r.needed[std::size_t(in)].unionWith(roi);
    }
  }
}

std::int64_t regionBytes(const Regions& r) {
  std::int64_t total = 0;
  for (const PixelRect& p : r.needed) total += p.area() * 16;
  return total;
}

// Evaluates tiles of one plan; one per thread, reusing its buffers from tile to tile.
class TileEvaluator {
 public:
  TileEvaluator(const Plan& plan, RenderInfo info) : plan_(plan), info_(info) {}

  // Renders `tile` of the root and returns a view of it (valid until the next call).
  ConstPixelTile evaluate(const PixelRect& tile) {
    computeRegions(plan_, tile, regions_);
    const std::size_t n = plan_.nodes.size();
    held_.assign(n, -1);
    remaining_ = plan_.edges;
    free_.clear();
    for (std::size_t b = 0; b < buffers_.size(); ++b) free_.push_back(int(b));
    std::vector<ConstPixelTile> ins;
    for (std::size_t ii = n; ii-- > 0;) {
      const PixelRect& need = regions_.needed[ii];
      if (need.empty()) continue;
      if (need.area() > kMaxBufferPixels)
        throw CIRenderError("the region of interest of \"" + plan_.nodes[ii]->name() + "\" is too large to render");
      const int b = acquire(std::size_t(need.area()) * 4);
      held_[ii] = b;
      float* base = buffers_[std::size_t(b)].data();
      const PixelRect& work = regions_.work[ii];
      if (!work.empty()) {
        ins.clear();
        for (std::size_t k = 0; k < plan_.inputs[ii].size(); ++k) {
          const int in = plan_.inputs[ii][k];
          const PixelRect& roi = regions_.roi[ii][k];
          if (in < 0 || roi.empty())
            ins.push_back(ConstPixelTile{nullptr, PixelRect{}, 0});
          else
            ins.push_back(view(std::size_t(in), roi));
        }
        PixelTile out{base + ((work.y - need.y) * need.width + (work.x - need.x)) * 4, work, need.width * 4};
        plan_.nodes[ii]->render(out, ins, info_);
      }
      for (int in : plan_.inputs[ii]) {
        if (in < 0) continue;
        if (--remaining_[std::size_t(in)] == 0 && held_[std::size_t(in)] >= 0) {
          release(held_[std::size_t(in)]);
          held_[std::size_t(in)] = -1;
        }
      }
    }
    return view(0, tile);
  }

 private:
  ConstPixelTile view(std::size_t node, const PixelRect& rect) const {
    const PixelRect& need = regions_.needed[node];
    const float* base = buffers_[std::size_t(held_[node])].data();
    return ConstPixelTile{base + ((rect.y - need.y) * need.width + (rect.x - need.x)) * 4, rect, need.width * 4};
  }

  int acquire(std::size_t floats) {
    int best = -1;
    for (int i : free_) {
      if (buffers_[std::size_t(i)].capacity() >= floats &&
          (best < 0 || buffers_[std::size_t(i)].capacity() < buffers_[std::size_t(best)].capacity()))
        best = i;
    }
    if (best < 0 && !free_.empty()) best = free_.back();  // grow the last freed one
    if (best < 0) {
      buffers_.emplace_back();
      best = int(buffers_.size() - 1);
    } else {
      free_.erase(std::find(free_.begin(), free_.end(), best));
    }
    auto& buf = buffers_[std::size_t(best)];
    buf.assign(floats, 0.0f);
    return best;
  }
  void release(int b) { free_.push_back(b); }

  const Plan& plan_;
  RenderInfo info_;
  Regions regions_;
  std::vector<int> held_, remaining_, free_;
  std::vector<std::vector<float>> buffers_;
};

int chooseTileSize(const Plan& plan, const PixelRect& bounds, int requested) {
  if (requested > 0) return std::clamp(requested, 16, 8192);
  static constexpr int kSizes[] = {32, 64, 128, 256, 512, 1024, 2048};
  Regions r;
  struct Probe {
    int size;
    double ratio;
    std::int64_t bytes;
  };
  std::vector<Probe> probes;
  for (int ts : kSizes) {
    const PixelRect tile = PixelRect{bounds.x, bounds.y, std::min<std::int64_t>(ts, bounds.width),
                                     std::min<std::int64_t>(ts, bounds.height)};
    computeRegions(plan, tile, r);
    const std::int64_t bytes = regionBytes(r);
    probes.push_back({ts, double(bytes) / double(tile.area() * 16), bytes});
    if (ts >= bounds.width && ts >= bounds.height) break;  // larger tiles are the same tile
  }
  double best = 1e300;
  for (const Probe& p : probes)
    if (p.bytes <= kTileBudgetBytes) best = std::min(best, p.ratio);
  if (best == 1e300) return probes.front().size;  // nothing fits the budget: the smallest
  // Tiles whose overhead (buffer pixels per output pixel) is close to the best: the smallest of
  // at least 256 pixels, or the largest when all are smaller (small renders).
  int choice = 0;
  for (const Probe& p : probes) {
    if (p.bytes > kTileBudgetBytes || p.ratio > best * 1.25) continue;
    if (p.size >= 256) return p.size;
    choice = p.size;
  }
  return choice ? choice : 256;
}

struct Progress {
  std::function<void(double)> fn;
  std::size_t total = 0;
  std::atomic<std::size_t> done{0};
  std::mutex mutex;
  double last = -1;

  void tileDone() {
    const std::size_t d = ++done;
    if (!fn || d >= total) return;
    std::lock_guard lock(mutex);
    const double f = double(d) / double(total);
    if (f > last) {
      last = f;
      fn(f);
    }
  }
  void finish() {
    if (fn) fn(1.0);
  }
};

int bytesPerPixel(CIRenderFormat f) {
  switch (f) {
    case CIRenderFormat::RGBA8: return 4;
    case CIRenderFormat::RGBA16: return 8;
    case CIRenderFormat::RGBAf: return 16;
  }
  return 16;
}

// Writes a rendered tile into the caller's buffer (row 0 = top row of `bounds`).
void store(const ConstPixelTile& t, const PixelRect& bounds, void* buffer, std::ptrdiff_t rowBytes,
           CIRenderFormat format, bool managed) {
  const int bpp = bytesPerPixel(format);
  for (std::int64_t y = t.rect.y; y < t.rect.maxY(); ++y) {
    const std::int64_t row = bounds.maxY() - 1 - y;
    auto* dst = static_cast<std::uint8_t*>(buffer) + row * rowBytes + (t.rect.x - bounds.x) * bpp;
    const float* src = t.at(t.rect.x, y);
    const std::size_t n = std::size_t(t.rect.width);
    switch (format) {
      case CIRenderFormat::RGBAf: std::memcpy(dst, src, n * 16); break;
      case CIRenderFormat::RGBA8: qvpixel::encodeStraightRGBA8(src, dst, n, managed); break;
      case CIRenderFormat::RGBA16:
        qvpixel::encodeStraightRGBA16(src, reinterpret_cast<std::uint16_t*>(dst), n, managed);
        break;
    }
  }
}

// Renders `bounds` of the plan's root in tiles of `tileSize`, on `threads` threads.
void renderTiles(const Plan& plan, const PixelRect& bounds, int tileSize, void* buffer, std::ptrdiff_t rowBytes,
                 CIRenderFormat format, const CIContextOptions& options, RenderCache& cache, Progress& progress) {
  if (bounds.empty()) return;
  const std::int64_t cols = (bounds.width + tileSize - 1) / tileSize, rows = (bounds.height + tileSize - 1) / tileSize;
  const std::size_t count = std::size_t(cols * rows);
  RenderInfo info;
  info.colorManaged = options.colorManagement;
  info.cache = &cache;
  auto tileRect = [&](std::size_t i) {
    const std::int64_t c = std::int64_t(i) % cols, r = std::int64_t(i) / cols;
    // Tiles run from the top row down, so that strips reach the encoder in order.
    const std::int64_t y1 = bounds.maxY() - r * tileSize;
    const std::int64_t y0 = std::max(bounds.y, y1 - tileSize);
    const std::int64_t x0 = bounds.x + c * tileSize;
    return PixelRect{x0, y0, std::min<std::int64_t>(tileSize, bounds.maxX() - x0), y1 - y0};
  };
  auto one = [&](TileEvaluator& ev, std::size_t i) {
    const PixelRect t = tileRect(i);
    const ConstPixelTile result = ev.evaluate(t);
    store(result, bounds, buffer, rowBytes, format, options.colorManagement);
    progress.tileDone();
  };
  const int threads = options.threads > 0 ? options.threads : tbb::this_task_arena::max_concurrency();
  if (threads == 1 || count == 1) {
    TileEvaluator ev(plan, info);
    for (std::size_t i = 0; i < count; ++i) one(ev, i);
    return;
  }
  tbb::enumerable_thread_specific<TileEvaluator> evaluators([&] { return TileEvaluator(plan, info); });
  tbb::task_arena arena(threads);
  arena.execute([&] {
    tbb::parallel_for(
        tbb::blocked_range<std::size_t>(0, count, 1),
        [&](const tbb::blocked_range<std::size_t>& range) {
          TileEvaluator& ev = evaluators.local();
          for (std::size_t i = range.begin(); i != range.end(); ++i) one(ev, i);
        },
        tbb::simple_partitioner());
  });
}

PixelRect renderBounds(const CIImage& image, const CGRect& bounds) {
  if (!image) throw CIRenderError("cannot render a nil image");
  CGRect r = bounds;
  if (CGRectIsNull(r)) {
    if (CGRectIsInfinite(image.extent()))
      throw CIRenderError("cannot render an image of infinite extent without bounds; crop it or give bounds");
    r = image.extent();
  }
  if (CGRectIsInfinite(r)) throw CIRenderError("cannot render infinite bounds; give finite bounds");
  const PixelRect p = PixelRect::covering(r);
  if (p.width >= PixelRect::kPixelLimit || p.height >= PixelRect::kPixelLimit || p.area() > kMaxRenderPixels)
    throw CIRenderError("the render bounds are too large");
  return p;
}

}  // namespace

CIContext::CIContext(CIContextOptions options) : options_(std::move(options)) {}

void CIContext::render(const CIImage& image, void* buffer, std::ptrdiff_t rowBytes, const CGRect& bounds,
                       CIRenderFormat format) const {
  const PixelRect b = renderBounds(image, bounds);
  Progress progress;
  progress.fn = options_.progress;
  if (b.empty()) {
    progress.finish();
    return;
  }
  if (!buffer) throw CIRenderError("cannot render into a null buffer");
  if (rowBytes < b.width * bytesPerPixel(format)) throw CIRenderError("the buffer's rows are too short for the bounds");
  const Plan plan = makePlan(image.node().get());
  const int ts = chooseTileSize(plan, b, options_.tileSize);
  progress.total = std::size_t(((b.width + ts - 1) / ts) * ((b.height + ts - 1) / ts));
  RenderCache cache;
  renderTiles(plan, b, ts, buffer, rowBytes, format, options_, cache, progress);
  progress.finish();
}

void CIContext::writeToFile(const CIImage& image, const std::string& path, const CGRect& bounds, double quality) const {
  const PixelRect b = renderBounds(image, bounds);
  if (b.empty()) throw CIRenderError("cannot write " + path + ": the image is empty");
  const std::string type = CGImageDestinationTypeForPath(path);
  if (type.empty()) throw CIRenderError("cannot write " + path + ": unknown file type (use .png, .jpg, .jpeg or .webp)");
  auto dest = CGImageDestinationCreateWithURL(path, type, 1);
  if (!dest) throw CIRenderError("cannot write " + path);
  const bool alpha = type != kUTTypeJPEG;
  Dictionary props{{kCGImageDestinationLossyCompressionQuality, Value(std::clamp(quality, 0.0, 1.0))}};
  if (!CGImageDestinationBeginImage(dest, std::size_t(b.width), std::size_t(b.height), 8, alpha, props))
    throw CIRenderError("cannot write " + path + ": " + CGImageDestinationGetLastError(dest));

  const Plan plan = makePlan(image.node().get());
  const int ts = chooseTileSize(plan, b, options_.tileSize);
  // Strips of whole tile rows, top down: the encoder never sees the whole image at once.
  const std::int64_t stripRows = std::max<std::int64_t>(ts, 64);
  const std::int64_t strips = (b.height + stripRows - 1) / stripRows;
  Progress progress;
  progress.fn = options_.progress;
  progress.total = 0;
  for (std::int64_t s = 0; s < strips; ++s) {
    const std::int64_t h = std::min(stripRows, b.height - s * stripRows);
    progress.total += std::size_t(((b.width + ts - 1) / ts) * ((h + ts - 1) / ts));
  }
  RenderCache cache;
  const std::ptrdiff_t rowBytes = b.width * 4;
  std::vector<std::uint8_t> strip(std::size_t(rowBytes) * std::size_t(std::min(stripRows, b.height)));
  for (std::int64_t s = 0; s < strips; ++s) {
    const std::int64_t top = b.maxY() - s * stripRows;
    const std::int64_t h = std::min(stripRows, top - b.y);
    const PixelRect sb{b.x, top - h, b.width, h};
    renderTiles(plan, sb, ts, strip.data(), rowBytes, CIRenderFormat::RGBA8, options_, cache, progress);
    if (!CGImageDestinationWriteRows(dest, strip.data(), std::size_t(rowBytes), std::size_t(h)))
      throw CIRenderError("cannot write " + path + ": " + CGImageDestinationGetLastError(dest));
  }
  if (!CGImageDestinationFinalize(dest))
    throw CIRenderError("cannot write " + path + ": " + CGImageDestinationGetLastError(dest));
  progress.finish();
}

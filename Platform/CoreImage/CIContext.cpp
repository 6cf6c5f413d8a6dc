#include "CoreImage/CIContext.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <future>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>

#include "CoreImage/ImageNode.h"
#include "CoreImage/Nodes/CoreNodes.h"
#include "CoreImage/Nodes/GeometryNodes.h"
#include "CoreImage/Render/PixelConvert.h"
#include "CoreImage/Render/RenderCache.h"
#include "ImageIO/ImageIO.h"

namespace {

// The largest buffer one node may need for one tile (pixels): 1 GiB of working floats.
constexpr std::int64_t kMaxBufferPixels = std::int64_t{1} << 26;
// The budget of all buffers of one row of tiles (all columns together) when choosing the tile
// size (bytes): what keeps the working set small enough to be fast. The memory budget of the
// context is the hard limit.
constexpr std::int64_t kTileBudgetBytes = std::int64_t{64} << 20;
// A tile in which some node reads at least kHeavyReadRatio input pixels per pixel it computes
// (a downscale) is worth its overhead from kMinTileWork pixels computed and read on, even when
// its row of tiles holds fewer than kMinTileRowPixels: lower tiles hold fewer input rows at once.
constexpr double kHeavyReadRatio = 8.0;
constexpr std::int64_t kMinTileWork = std::int64_t{1} << 18;
// The pixels per output pixel from which a render counts as heavy (a large downscale): then a
// narrow render is still split into one column per thread.
constexpr double kHeavyWorkPerPixel = 16.0;
// What the buffers of one row of tiles should hold where the graph allows (bytes): the tile
// height is chosen within it, so that twice as wide a picture gets tiles of about half the
// rows, not twice the memory.
constexpr std::int64_t kTileTargetBytes = std::int64_t{16} << 20;
// The least pixels of one row of tiles (all columns together) the tile-height probe settles
// for: below that the work per tile (regions, strip look-ups, one call per node) outweighs the
// pixels. Counted across the row, not per tile, so that the row's bytes stay the same when a
// wider picture has more columns.
constexpr std::int64_t kMinTileRowPixels = std::int64_t{1} << 17;
// The widest column of tiles (pixels) the tiling chooses by itself.
constexpr std::int64_t kMaxColumnPixels = 4096;
// Bytes of one strip handed to the encoder (8-bit RGBA): two of them are held, one encoding
// while the next renders. In bytes, not rows, so that a wider picture gets shorter strips.
constexpr std::int64_t kEncoderStripBytes = std::int64_t{1} << 20;
// Bytes of one working pixel: four floats.
constexpr std::int64_t kWorkingPixelBytes = 16;
// The most working bytes of one band of rows that a node reading its input in bands
// (ImageNode::readsInputInBands) is handed at once: in bytes, not rows, so that a wider picture
// gets lower bands rather than twice the memory.
constexpr std::int64_t kInputBandBytes = std::int64_t{1} << 20;
// The largest image the renderer accepts in one call (pixels).
constexpr std::int64_t kMaxRenderPixels = std::int64_t{1} << 34;

// The graph of one render, flattened: every node once, consumers before their inputs, except
// that a source that renders again cheaply has an entry of its own for each input slot that
// reads it (see ImageNode::rendersAgainCheaply).
struct Plan {
  std::vector<const ImageNode*> nodes;
  std::vector<std::vector<int>> inputs;  // per node, the node index of each input (-1: nil input)
  std::vector<int> edges;                // per node, how many input slots refer to it
  std::vector<PixelRect> extent;         // per node, the pixels its extent touches
  std::vector<std::shared_ptr<const ImageNode>> owned;  // nodes the plan put in place of the graph's
  // Per node that is handed its input in bands (ImageNode::readsInputInBands), the nodes of its
  // input's subgraph, the input first; empty for every other node.
  std::vector<std::vector<int>> bandedSubgraph;
};

Plan makeGraphPlan(const ImageNode* root) {
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
  // Every slot but the first that reads a cheap source reads a copy of its entry, appended
  // after every consumer (a source has no inputs, so the order stays consumers first). A
  // consumer that resamples the source (a scaled copy over the picture) drifts away from the
  // others down the picture: with a buffer each, the strip cache keeps the rows between them
  // (it decodes down to a request not far below instead of skipping), where one buffer
  // spanning both held them as working floats (31 MB for a copy scaled by 1.08 over a
  // 6000 x 4000 picture).
  const std::size_t count = plan.nodes.size();
  std::vector<char> first(count, 1);
  for (std::size_t i = 0; i < count; ++i)
    for (int& k : plan.inputs[i]) {
      if (k < 0 || plan.edges[std::size_t(k)] < 2 || !plan.nodes[std::size_t(k)]->rendersAgainCheaply() ||
          !plan.nodes[std::size_t(k)]->inputs().empty())
        continue;
      if (first[std::size_t(k)]) {
        first[std::size_t(k)] = 0;
        continue;
      }
      --plan.edges[std::size_t(k)];
      plan.nodes.push_back(plan.nodes[std::size_t(k)]);
      plan.inputs.emplace_back();
      plan.edges.push_back(1);
      plan.extent.push_back(plan.extent[std::size_t(k)]);
      k = int(plan.nodes.size() - 1);
    }
  return plan;
}

// Shrink on load (CIContextOptions::fastShrink): a Lanczos downscale whose input is a JPEG file
// read by nothing else reads instead a reduced decode of the file, resampled onto the same
// output rectangle. Only the plan changes; the graph the caller holds stays as it was.
void shrinkOnLoad(Plan& plan) {
  for (std::size_t i = 0; i < plan.nodes.size(); ++i) {
    const auto* scale = dynamic_cast<const LanczosScaleNode*>(plan.nodes[i]);
    if (!scale || plan.inputs[i].size() != 1 || plan.inputs[i][0] < 0) continue;
    const auto k = std::size_t(plan.inputs[i][0]);
    const auto* file = dynamic_cast<const FileNode*>(plan.nodes[k]);
    if (!file || !file->reducible() || plan.edges[k] != 1) continue;
    // A file that renders again cheaply has an entry for each slot that reads it: read by any
    // other node, it is decoded at full size anyway.
    if (std::count(plan.nodes.begin(), plan.nodes.end(), plan.nodes[k]) != 1) continue;
    const int denominator = LanczosScaleNode::shrinkOnLoadDenominator(scale->scaleX(), scale->scaleY());
    if (denominator == 1) continue;
    std::shared_ptr<const FileNode> reduced = file->reducedBy(denominator);
    auto resample = std::make_shared<const LanczosScaleNode>(CIImage(reduced), *scale);
    plan.nodes[i] = resample.get();
    plan.nodes[k] = reduced.get();
    plan.extent[k] = PixelRect::covering(reduced->extent());
    plan.owned.push_back(std::move(resample));
    plan.owned.push_back(std::move(reduced));
  }
}

// Marks the nodes that read their input in bands (ImageNode::readsInputInBands) where that is
// possible: their one input and everything below it are read by nothing outside that subgraph,
// so that rendering the subgraph a band at a time changes nothing any other node sees.
void markBandedReads(Plan& plan) {
  const std::size_t n = plan.nodes.size();
  plan.bandedSubgraph.assign(n, {});
  for (std::size_t b = 0; b < n; ++b) {
    if (!plan.nodes[b]->readsInputInBands() || plan.inputs[b].size() != 1 || plan.inputs[b][0] < 0) continue;
    const int top = plan.inputs[b][0];
    if (plan.edges[std::size_t(top)] != 1) continue;
    std::vector<char> inside(n, 0);
    std::vector<int> nodes{top}, slots(n, 0);
    inside[std::size_t(top)] = 1;
    for (std::size_t k = 0; k < nodes.size(); ++k)
      for (int in : plan.inputs[std::size_t(nodes[k])]) {
        if (in < 0) continue;
        ++slots[std::size_t(in)];
        if (!inside[std::size_t(in)]) {
          inside[std::size_t(in)] = 1;
          nodes.push_back(in);
        }
      }
    bool exclusive = true;
    for (std::size_t k = 1; k < nodes.size(); ++k)
      exclusive = exclusive && slots[std::size_t(nodes[k])] == plan.edges[std::size_t(nodes[k])];
    if (exclusive) plan.bandedSubgraph[b] = std::move(nodes);
  }
}

Plan makePlan(const ImageNode* root, const CIContextOptions& options) {
  Plan plan = makeGraphPlan(root);
  if (options.fastShrink) shrinkOnLoad(plan);
  markBandedReads(plan);
  return plan;
}

// Regions of one tile. A worker renders a column of tiles from the top down. Where a node's
// region reaches below the tile (the margin of a blur or another neighbourhood operation), the
// rows of its buffer that the tile below needs again are carried over instead of being
// computed twice, so the node computes only its `fresh` rows; and nodes that stream down a
// column (ImageNode::continuesDown) ask for only the input rows they have not yet read.
struct Regions {
  std::vector<PixelRect> needed;  // what each node must hold: the union of its consumers' ROIs
  std::vector<PixelRect> work;    // the part of `needed` not carried over from the tile above,
                                  // within the node's extent: what the node renders
  std::vector<char> carried;      // whether part of `needed` is carried over
  std::vector<std::vector<PixelRect>> roi;
  // Per node handed its input in bands, the whole region of its input when that is more than
  // one band (roi then holds only the lowest band, the one render() is handed); else empty.
  std::vector<PixelRect> banded;
};

// Whether a node that holds `held` from the tile above can keep part of it for `needed`: the
// same columns, and `needed` reaching from below `held` into it, no higher than its top.
bool carries(const PixelRect& held, const PixelRect& needed) {
  return !held.empty() && !needed.empty() && held.x == needed.x && held.width == needed.width && needed.y <= held.y &&
         needed.maxY() > held.y && needed.maxY() <= held.maxY();
}

// Whether a node that rendered `last` continues with `work`: the tile directly below it.
bool continues(const ImageNode& node, const PixelRect& last, const PixelRect& work) {
  return node.continuesDown() && !last.empty() && !work.empty() && last.x == work.x && last.width == work.width &&
         last.y == work.maxY();
}

// The rows of one band of `region` handed to a node that reads its input in bands.
std::int64_t bandRows(const PixelRect& region) {
  return std::max<std::int64_t>(1, kInputBandBytes / (std::max<std::int64_t>(1, region.width) * kWorkingPixelBytes));
}

// The regions of `rect` of node `start` and of what it reads (`start` 0, the root: of a tile).
// `held` is what each node holds from the tile above and `last` what it rendered last (empty:
// nothing). With `bands`, a node that is handed its input in bands asks here for the lowest
// band only (Regions::banded).
void computeRegions(const Plan& plan, std::size_t start, const PixelRect& rect, const std::vector<PixelRect>& held,
                    const std::vector<PixelRect>& last, Regions& r, bool bands = true) {
  const std::size_t n = plan.nodes.size();
  r.needed.assign(n, PixelRect{});
  r.work.assign(n, PixelRect{});
  r.carried.assign(n, 0);
  r.roi.resize(n);
  r.banded.assign(n, PixelRect{});
  r.needed[start] = rect;
  for (std::size_t i = 0; i < start; ++i) r.roi[i].clear();
  for (std::size_t i = start; i < n; ++i) {
    r.roi[i].assign(plan.inputs[i].size(), PixelRect{});
    const PixelRect& need = r.needed[i];
    if (need.empty()) continue;
    PixelRect fresh = need;
    if (i < held.size() && carries(held[i], need)) {
      r.carried[i] = 1;
      fresh.height = held[i].y - need.y;
    }
    r.work[i] = fresh.intersection(plan.extent[i]);
    if (r.work[i].empty()) continue;
    const ImageNode& node = *plan.nodes[i];
    const bool below = i < last.size() && continues(node, last[i], r.work[i]);
    for (std::size_t k = 0; k < plan.inputs[i].size(); ++k) {
      const int in = plan.inputs[i][k];
      if (in < 0) continue;
      PixelRect roi = below ? node.regionOfInterestBelow(k, r.work[i]) : node.regionOfInterest(k, r.work[i]);
      if (bands && !plan.bandedSubgraph[i].empty() && roi.height > bandRows(roi)) {
        r.banded[i] = roi;
        roi.height = bandRows(roi);
      }
      r.roi[i][k] = roi;
      r.needed[std::size_t(in)] = r.needed[std::size_t(in)].unionWith(roi);
    }
  }
}

// Evaluates the tiles of one column of a plan, top down, reusing its buffers from tile to tile
// and carrying the rows that vertically adjacent tiles share.
class TileEvaluator {
 public:
  // keep[i]: whether node i's buffer is carried to the tile below (see Tiling::keep);
  // `maxFloats`: what the buffers of this column may hold between two tiles (Tiling::columnBytes).
  TileEvaluator(const Plan& plan, RenderInfo info, std::vector<char> keep, std::size_t maxFloats)
      : plan_(plan),
        info_(info),
        keep_(std::move(keep)),
        maxFloats_(maxFloats),
        held_(plan.nodes.size()),
        last_(plan.nodes.size()),
        buffer_(plan.nodes.size(), -1),
        state_(plan.nodes.size()) {}

  // Renders `tile` of the root and returns a view of it (valid until the next call). After an
  // exception the evaluator is not used again: the render it belongs to has failed.
  ConstPixelTile evaluate(const PixelRect& tile) {
    renderRegion(0, tile, 0);
    const ConstPixelTile result = view(0, tile);
    const int resultBuffer = buffer_[0];
    if (!keep_[0]) drop(0);  // stays intact until the next acquire
    // Free buffers far larger than this tile needed (the first tile of a column may need much
    // more than the others) give their memory back; and so do the largest free ones while all
    // buffers together hold more than the column's share of the memory budget, so that the
    // pool never grows past what the budget was checked against.
    std::size_t largest = 0;
    for (const PixelRect& need : regions_[0].needed) largest = std::max(largest, std::size_t(need.area()) * 4);
    std::size_t total = 0;
    for (const auto& buf : buffers_) total += buf.capacity();
    std::vector<int> byCapacity(free_);
    std::sort(byCapacity.begin(), byCapacity.end(),
              [&](int a, int b) { return buffers_[std::size_t(a)].capacity() > buffers_[std::size_t(b)].capacity(); });
    for (int b : byCapacity) {
      auto& buf = buffers_[std::size_t(b)];
      if (b == resultBuffer) continue;
      if (buf.capacity() > 2 * largest || total > maxFloats_) {
        total -= buf.capacity();
        std::vector<float>().swap(buf);
      }
    }
    return result;
  }

  // Frees the buffers of the pool (between two runs down a strip of a column whose nodes carry
  // nothing from tile to tile); the nodes' stream states stay.
  void releaseBuffers() {
    for (int b : free_) std::vector<float>().swap(buffers_[std::size_t(b)]);
  }

 private:
  // Renders `rect` of node `start` (0: a tile of the root) and what it reads. `depth` counts the
  // nodes handed their input in bands that this render serves (0 for a tile).
  void renderRegion(std::size_t start, const PixelRect& rect, std::size_t depth) {
    if (regions_.size() <= depth) regions_.resize(depth + 1);
    Regions& r = regions_[depth];
    const std::size_t n = plan_.nodes.size();
    // A node handed its input in bands first reads every band but the lowest: each is rendered
    // by the input's subgraph alone, top down, so that its nodes continue from band to band as
    // from tile to tile. The regions are then computed again, with what the bands left behind.
    // Consumers first: the bands of a node below another banded one are the ones it needs for
    // its consumer's lowest band.
    std::vector<char> read(n, 0);
    for (;;) {
      computeRegions(plan_, start, rect, held_, last_, r);
      std::size_t b = start;
      while (b < n && (r.banded[b].empty() || read[b])) ++b;
      if (b == n) break;
      read[b] = 1;
      const PixelRect whole = r.banded[b], lowest = r.roi[b][0], work = r.work[b];
      const auto input = std::size_t(plan_.inputs[b][0]);
      const std::int64_t rows = lowest.height;
      for (std::int64_t y1 = whole.maxY(); y1 > lowest.maxY();) {
        const std::int64_t y0 = std::max(lowest.maxY(), y1 - rows);
        const PixelRect band{whole.x, y0, whole.width, y1 - y0};
        renderRegion(input, band, depth + 1);
        info_.state = &state_[b];
        plan_.nodes[b]->readInputBand(work, view(input, band), info_);
        y1 = y0;
        if (buffer_[input] >= 0 && !keep_[input]) drop(input);
      }
    }
    // Buffers held from the tile above that this tile cannot use go back to the pool (for the
    // band of a subgraph, only its own nodes' buffers).
    if (start == 0) {
      for (std::size_t i = 0; i < n; ++i)
        if (buffer_[i] >= 0 && !r.carried[i]) drop(i);
    } else {
      for (int i : subgraphOf(start))
        if (buffer_[std::size_t(i)] >= 0 && !r.carried[std::size_t(i)]) drop(std::size_t(i));
    }
    std::vector<int> remaining = plan_.edges;
    std::vector<ConstPixelTile> ins;
    for (std::size_t ii = n; ii-- > start;) {
      const PixelRect& need = r.needed[ii];
      if (need.empty()) continue;
      if (need.area() > kMaxBufferPixels)
        throw CIRenderError("the region of interest of \"" + plan_.nodes[ii]->name() + "\" is too large to render");
      const PixelRect& work = r.work[ii];
      // The rows the node renders afresh (below those carried from the tile above) need no
      // clearing when the node writes all of them: its extent covers them and it writes every
      // pixel it renders.
      const std::int64_t freshArea = r.carried[ii] ? (held_[ii].y - need.y) * need.width : need.area();
      const bool clear = !(plan_.nodes[ii]->writesEveryPixel() && work.area() == freshArea);
      if (r.carried[ii])
        shiftDown(ii, need, clear);
      else
        buffer_[ii] = acquire(std::size_t(need.area()) * 4, clear);
      held_[ii] = need;
      float* base = buffers_[std::size_t(buffer_[ii])].data();
      if (!work.empty()) {
        ins.clear();
        for (std::size_t k = 0; k < plan_.inputs[ii].size(); ++k) {
          const int in = plan_.inputs[ii][k];
          const PixelRect& roi = r.roi[ii][k];
          if (in < 0 || roi.empty())
            ins.push_back(ConstPixelTile{nullptr, PixelRect{}, 0});
          else
            ins.push_back(view(std::size_t(in), roi));
        }
        PixelTile out{base + ((work.y - need.y) * need.width + (work.x - need.x)) * 4, work, need.width * 4};
        info_.state = &state_[ii];
        plan_.nodes[ii]->render(out, ins, info_);
        last_[ii] = work;
      }
      for (int in : plan_.inputs[ii]) {
        if (in < 0) continue;
        const auto k = std::size_t(in);
        if (--remaining[k] == 0 && buffer_[k] >= 0 && !keep_[k]) drop(k);
      }
    }
  }

  // The nodes of the subgraph whose top node is `top`, the input of a node handed it in bands.
  const std::vector<int>& subgraphOf(std::size_t top) const {
    for (const auto& nodes : plan_.bandedSubgraph)
      if (!nodes.empty() && std::size_t(nodes[0]) == top) return nodes;
    static const std::vector<int> none;
    return none;
  }

  ConstPixelTile view(std::size_t node, const PixelRect& rect) const {
    const PixelRect& need = held_[node];
    const float* base = buffers_[std::size_t(buffer_[node])].data();
    return ConstPixelTile{base + ((rect.y - need.y) * need.width + (rect.x - need.x)) * 4, rect, need.width * 4};
  }

  // Moves the rows of node i's buffer that `need` keeps to their place in `need` (they are its
  // top rows) and, when `clear`, clears the fresh rows below them.
  void shiftDown(std::size_t i, const PixelRect& need, bool clear) {
    auto& buf = buffers_[std::size_t(buffer_[i])];
    const std::size_t rowFloats = std::size_t(need.width) * 4;
    const std::size_t freshRows = std::size_t(held_[i].y - need.y);
    const std::size_t keptRows = std::size_t(need.maxY() - held_[i].y);
    buf.resize(std::size_t(need.area()) * 4);
    std::memmove(buf.data() + freshRows * rowFloats, buf.data(), keptRows * rowFloats * sizeof(float));
    if (clear) std::memset(buf.data(), 0, freshRows * rowFloats * sizeof(float));
  }

  // A free buffer of at least `floats`, cleared to transparent when `clear` (otherwise holding
  // whatever it held: only for a node that writes all of it).
  int acquire(std::size_t floats, bool clear) {
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
    if (clear)
      buf.assign(floats, 0.0f);
    else if (buf.size() < floats)
      buf.resize(floats);
    return best;
  }
  void drop(std::size_t node) {
    free_.push_back(buffer_[node]);
    buffer_[node] = -1;
    held_[node] = PixelRect{};
  }

  const Plan& plan_;
  RenderInfo info_;
  std::vector<char> keep_;
  std::size_t maxFloats_;
  std::deque<Regions> regions_;  // of the tile, then of the bands it reads (see renderRegion)
  std::vector<PixelRect> held_;  // per node, the region its buffer holds
  std::vector<PixelRect> last_;  // per node, the region it rendered last
  std::vector<int> buffer_;      // per node, its buffer (-1: none)
  std::vector<std::shared_ptr<void>> state_;  // per node, its RenderInfo::state
  std::vector<int> free_;
  std::vector<std::vector<float>> buffers_;
};

// How a render is cut: columns of `width` pixels, each rendered top down in tiles of `height`
// rows by one worker.
struct Tiling {
  std::int64_t width = 256, height = 256;
  // Per node, whether the tile below carries part of its buffer over (probed on two tiles):
  // only those buffers are kept from one tile to the next.
  std::vector<char> keep;
  // The most the buffers of one column hold: every node's region at once, in the first tile
  // of a column or in the steady state, whichever is larger.
  std::int64_t columnBytes = 0;
  // The node whose region is the largest part of columnBytes, and its bytes.
  std::size_t largestNode = 0;
  std::int64_t largestBytes = 0;
  int threads = 1;
  std::int64_t columns(const PixelRect& bounds) const { return (bounds.width + width - 1) / width; }
  // Whether some node's buffer is carried from tile to tile: then every column's evaluator
  // keeps its buffers until the render ends; otherwise a column gives them back after each run
  // down a strip, and only the columns the threads run at once hold buffers.
  bool carries() const { return std::find(keep.begin(), keep.end(), 1) != keep.end(); }
  std::int64_t liveColumns(const PixelRect& bounds) const {
    return carries() ? columns(bounds) : std::min<std::int64_t>(columns(bounds), threads);
  }
  // Working memory of the whole render.
  std::int64_t bytes(const PixelRect& bounds) const { return columnBytes * liveColumns(bounds); }
};

// Bytes node i holds for one tile of regions `r`: its buffer and, for a node handed its input in
// bands, the input rows it keeps (at most those of its whole region of interest at its own
// width; see ImageNode::readsInputInBands).
std::int64_t nodeBytes(const Plan& plan, const Regions& r, std::size_t i) {
  std::int64_t bytes = r.needed[i].area() * kWorkingPixelBytes;
  if (!plan.bandedSubgraph[i].empty() && !r.work[i].empty())
    bytes += plan.nodes[i]->regionOfInterest(0, r.work[i]).height * r.work[i].width * kWorkingPixelBytes;
  return bytes;
}

// Bytes of all buffers of one tile's regions; raises `perNode` (sized like the plan) to each
// node's bytes.
std::int64_t regionBytes(const Plan& plan, const Regions& r, std::vector<std::int64_t>& perNode) {
  std::int64_t bytes = 0;
  for (std::size_t i = 0; i < r.needed.size(); ++i) {
    const std::int64_t b = nodeBytes(plan, r, i);
    perNode[i] = std::max(perNode[i], b);
    bytes += b;
  }
  return bytes;
}

// The regions of a tile of `width` × `height` at the top of `bounds` and, when there is one, of
// the tile below it with what the first left behind; returns those of the second (steady) tile.
// With `bands` as the render has them (Regions::banded); without, each node's whole regions,
// which count the pixels the nodes compute and read.
const Regions& probeTiles(const Plan& plan, const PixelRect& bounds, std::int64_t width, std::int64_t height,
                          Regions& first, Regions& steady, bool bands = true) {
  static const std::vector<PixelRect> none;
  const PixelRect top{bounds.x, std::max(bounds.y, bounds.maxY() - height), width, std::min(height, bounds.height)};
  computeRegions(plan, 0, top, none, none, first, bands);
  const std::int64_t y0 = std::max(bounds.y, top.y - height);
  if (y0 >= top.y) return first;
  computeRegions(plan, 0, PixelRect{bounds.x, y0, width, top.y - y0}, first.needed, first.work, steady, bands);
  return steady;
}

Tiling withKeep(const Plan& plan, const PixelRect& bounds, std::int64_t width, std::int64_t height, int threads) {
  Regions first, steady;
  const Regions& r = probeTiles(plan, bounds, width, height, first, steady);
  Tiling t{width, height, std::vector<char>(plan.nodes.size(), 0)};
  if (&r == &steady) t.keep = steady.carried;
  t.threads = std::max(threads, 1);
  std::vector<std::int64_t> perNode(plan.nodes.size(), 0);
  t.columnBytes = regionBytes(plan, first, perNode);
  if (&r == &steady) t.columnBytes = std::max(t.columnBytes, regionBytes(plan, steady, perNode));
  for (std::size_t i = 0; i < perNode.size(); ++i) {
    if (perNode[i] > t.largestBytes) {
      t.largestBytes = perNode[i];
      t.largestNode = i;
    }
  }
  return t;
}

// The pixels all nodes compute when `bounds` is rendered as one tile: each node's extent within
// what its consumers ask of it. Tiles compute the margins their neighbours share again, so a
// tiled render computes at least this much.
double pixelWork(const Plan& plan, const PixelRect& bounds) {
  static const std::vector<PixelRect> none;
  Regions whole;
  computeRegions(plan, 0, bounds, none, none, whole, false);
  double pixels = 0;
  for (const PixelRect& work : whole.work) pixels += double(work.area());
  return pixels;
}

// The tiling of a render. A worker per column, so that each carries its own column's margins
// from tile to tile; columns no narrower than 256 pixels (narrower when the budget demands)
// and no wider than kMaxColumnPixels.
// The tile height is probed: the cost of a tile in the steady state (with the rows carried
// from the tile above) counts the pixels every node computes and reads; of the rows of tiles of
// at least kMinTileRowPixels within kTileTargetBytes (else within the tile budget,
// kTileBudgetBytes; either no more than the context's memory budget), the lowest whose cost is
// close to the best of them. The heights probed step by about 1.5x, so that the tile's bytes,
// not its rows, stay about the same when the picture is wider. When no tiling is within the
// budget, the one that needs the least memory of those probed (the memory budget then decides
// whether it may run at all).
Tiling chooseTiling(const Plan& plan, const PixelRect& bounds, int requested, int threads, std::int64_t budget) {
  if (requested > 0) {
    const std::int64_t t = std::clamp(requested, 16, 8192);
    return withKeep(plan, bounds, t, t, threads);
  }
  const std::int64_t tileBudget = std::min(kTileBudgetBytes, budget);
  const std::int64_t target = std::min(kTileTargetBytes, tileBudget);
  std::int64_t leastBytes = -1, leastWidth = 0, leastHeight = 0;
  // From 8 rows on, heights step by about 1.5x, so that a tile's bytes, not its rows, stay about
  // the same when the picture is wider. Tiles lower than 8 rows are for nodes that read many
  // input rows per output row (a large downscale): there a tile of a few rows already computes
  // and reads enough pixels.
  static constexpr std::int64_t kHeights[] = {1, 2, 4, 8, 12, 16, 24, 32, 48, 64, 96, 128, 192, 256, 384, 512, 768, 1024};
  std::int64_t columns = std::clamp<std::int64_t>((bounds.width + 255) / 256, 1, std::max(threads, 1));
  // A render narrower than a column per thread still gets one per thread (no narrower than 16
  // pixels) when its nodes compute many pixels for each pixel of it: a downscale's work is in
  // its input, which the columns then share.
  if (columns < threads && bounds.width >= 32 && pixelWork(plan, bounds) >= kHeavyWorkPerPixel * double(bounds.area()))
    columns = std::min<std::int64_t>(threads, bounds.width / 16);
  // No column wider than kMaxColumnPixels: the first tile of a column holds every node's
  // margins across its width at once, so a wider picture gets more columns (a multiple of the
  // workers, so that they stay balanced), not wider ones.
  const std::int64_t byWidth = (bounds.width + kMaxColumnPixels - 1) / kMaxColumnPixels;
  if (byWidth > columns) columns = (byWidth + columns - 1) / columns * columns;
  Regions first, steady, wholeFirst, wholeSteady;
  const bool banded = std::any_of(plan.bandedSubgraph.begin(), plan.bandedSubgraph.end(),
                                  [](const std::vector<int>& nodes) { return !nodes.empty(); });
  // The best tile height for `cols` columns: of the tiles worth their overhead within the tile
  // budget (within the target where some are), the lowest whose cost is close to the best.
  struct Choice {
    std::int64_t width = 0, height = 0;
    double cost = 0;
    bool fits = false;
    bool withinTarget = false;  // of the tiles worth their overhead, some are within the target
  };
  auto choose = [&](std::int64_t cols) {
    const std::int64_t width = (bounds.width + cols - 1) / cols;
    struct Probe {
      std::int64_t height;
      double cost;
      std::int64_t bytes;
      bool heavy;
    };
    std::vector<Probe> probes;
    for (std::int64_t h : kHeights) {
      const Regions& r = probeTiles(plan, bounds, width, h, first, steady);
      // Where a node is handed its input in bands: the pixels computed and read count every
      // band; a steady tile cut short by the picture's bottom counts with the first tile (alone
      // it looks cheap only for the rows it lacks, and would pick a tile whose first one keeps
      // many input rows); such a node's bytes are those of the first tile where they are more.
      const Regions& whole = banded ? probeTiles(plan, bounds, width, h, wholeFirst, wholeSteady, false) : r;
      const bool both = banded && &whole == &wholeSteady && wholeSteady.needed[0].height < h;
      const std::int64_t area = r.needed[0].area() + (both ? wholeFirst.needed[0].area() : 0);
      // Columns whose nodes carry nothing from tile to tile give their buffers back after each
      // run down a strip: only one per thread holds buffers at a time.
      const bool carried = std::find(r.carried.begin(), r.carried.end(), 1) != r.carried.end();
      const std::int64_t live = carried ? cols : std::min<std::int64_t>(cols, std::max(threads, 1));
      std::int64_t bytes = 0, pixels = 0;
      bool heavy = false;
      for (std::size_t i = 0; i < r.needed.size(); ++i) {
        std::int64_t b = nodeBytes(plan, r, i);
        if (&r == &steady && !plan.bandedSubgraph[i].empty()) b = std::max(b, nodeBytes(plan, first, i));
        bytes += b * live;
      }
      auto count = [&](const Regions& regions) {
        for (std::size_t i = 0; i < regions.needed.size(); ++i) {
          pixels += regions.work[i].area();
          for (const PixelRect& roi : regions.roi[i]) {
            pixels += roi.area();
            heavy = heavy || double(roi.area()) >=
                                 kHeavyReadRatio * double(std::max<std::int64_t>(1, regions.work[i].area()));
          }
        }
      };
      count(whole);
      if (both) count(wholeFirst);
      if (leastBytes < 0 || bytes < leastBytes) {
        leastBytes = bytes;
        leastWidth = width;
        leastHeight = h;
      }
      if (bytes > tileBudget) break;
      probes.push_back({h, double(pixels) / double(area), bytes, heavy});
      if (h >= bounds.height) break;
    }
    Choice c{width, 0, 0.0, !probes.empty(), false};
    if (!c.fits) return c;
    // Worth its overhead: a row of tiles of at least kMinTileRowPixels (counted across the row,
    // so that its bytes stay the same when a wider picture has more columns), the whole
    // picture's height, or a heavy tile that computes and reads at least kMinTileWork. Tiles
    // not worth it do not set the best cost either (a low tile can look cheap only because its
    // margins fall outside the picture).
    auto worth = [&](const Probe& p) {
      return p.height * bounds.width >= kMinTileRowPixels || p.height >= bounds.height ||
             (p.heavy && p.cost * double(p.height * width) >= double(kMinTileWork));
    };
    for (const Probe& p : probes) c.withinTarget |= worth(p) && p.bytes <= target;
    auto candidate = [&](const Probe& p) { return worth(p) && (!c.withinTarget || p.bytes <= target); };
    double best = -1;
    for (const Probe& p : probes)
      if (candidate(p) && (best < 0 || p.cost < best)) best = p.cost;
    c.height = probes.back().height;
    c.cost = probes.back().cost;
    for (const Probe& p : probes)
      if (best >= 0 && candidate(p) && p.cost <= best * 1.1) {
        c.height = p.height;
        c.cost = p.cost;
        break;
      }
    return c;
  };
  for (;;) {
    Choice c = choose(columns);
    const std::int64_t width = (bounds.width + columns - 1) / columns;
    if (!c.fits && width > 16) {
      columns *= 2;  // even the lowest tiles are over the budget: narrower columns
      continue;
    }
    if (!c.fits) return withKeep(plan, bounds, leastWidth, leastHeight, threads);
    // Narrower columns (more than one per thread, no narrower than 256 pixels) where their
    // tiles fit the target when the wider ones do not, or cost clearly less: the region of
    // interest of a turned tile is its bounding box in the input, which grows with the tile's
    // width times the sine of the angle.
    while ((bounds.width + 2 * columns - 1) / (2 * columns) >= 256) {
      const Choice n = choose(2 * columns);
      const bool better = n.withinTarget != c.withinTarget ? n.withinTarget : n.cost <= 0.97 * c.cost;
      if (!n.fits || !better) break;
      c = n;
      columns *= 2;
    }
    return withKeep(plan, bounds, c.width, c.height, threads);
  }
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

}  // namespace

std::string CIContext::formatBytes(std::int64_t bytes) {
  static const char* const kUnits[] = {"bytes", "KB", "MB", "GB", "TB", "PB", "EB"};
  double v = double(bytes);
  int unit = 0;
  while (v >= 1024 && unit < 6) {
    v /= 1024;
    ++unit;
  }
  char text[32];
  // Two decimals below 10, so that a size just over a budget does not read as the budget.
  if (unit == 0 || v >= 100 || v == std::floor(v))
    std::snprintf(text, sizeof text, "%.0f %s", v, kUnits[unit]);
  else
    std::snprintf(text, sizeof text, v < 10 ? "%.2f %s" : "%.1f %s", v, kUnits[unit]);
  return text;
}

namespace {

// The rows of one strip that writeToFile hands to the encoder: whole tile rows, at least
// kEncoderStripBytes of 8-bit pixels (at least one tile row).
std::int64_t stripRowsFor(const PixelRect& bounds, std::int64_t tileHeight) {
  const std::int64_t rowBytes = std::max<std::int64_t>(1, bounds.width * 4);
  const std::int64_t wanted = std::max<std::int64_t>(1, (kEncoderStripBytes + rowBytes - 1) / rowBytes);
  return std::min(bounds.height, tileHeight * std::max<std::int64_t>(1, (wanted + tileHeight - 1) / tileHeight));
}

// The working memory of rendering `bounds` with `tiling`: the buffers of every column and, for
// a file, the encoder's two strip buffers of 8-bit pixels.
std::int64_t renderBytes(const Tiling& tiling, const PixelRect& bounds, bool toFile) {
  std::int64_t bytes = tiling.bytes(bounds);
  if (toFile) bytes += 2 * bounds.width * 4 * stripRowsFor(bounds, tiling.height);
  return bytes;
}


// Refuses, before anything is rendered, a render whose nodes compute more than `maxWork` pixels,
// or that needs more than `budget` bytes; names the node whose region is the largest part of
// the memory.
void checkBudget(const Plan& plan, const Tiling& tiling, const PixelRect& bounds, bool toFile, std::int64_t budget,
                 double maxWork) {
  const double work = pixelWork(plan, bounds);
  if (work > maxWork) {
    char text[160];
    std::snprintf(text, sizeof text, "rendering %lldx%lld pixels computes %.3g pixels in %zu nodes, more than the limit of %.3g",
                  static_cast<long long>(bounds.width), static_cast<long long>(bounds.height), work, plan.nodes.size(),
                  maxWork);
    throw CIRenderBudgetError(text, CIRenderBudgetError::Kind::work, work, maxWork);
  }
  const std::int64_t bytes = renderBytes(tiling, bounds, toFile);
  if (bytes <= budget) return;
  const std::int64_t largest = tiling.largestBytes * tiling.liveColumns(bounds);
  throw CIRenderBudgetError("rendering " + std::to_string(bounds.width) + "x" + std::to_string(bounds.height) +
                                " pixels needs " + CIContext::formatBytes(bytes) +
                                " of working memory, more than the budget of " + CIContext::formatBytes(budget) +
                                " (the region of interest of \"" + plan.nodes[tiling.largestNode]->name() +
                                "\" holds " + CIContext::formatBytes(largest) + ")",
                            CIRenderBudgetError::Kind::memory, double(bytes), double(budget));
}

int renderThreads(const CIContextOptions& options) {
  return options.threads > 0 ? options.threads : tbb::this_task_arena::max_concurrency();
}

// An encoder that refused a strip (its reason is the destination's last error).
struct StripEncodeFailed : std::exception {};

// Renders rows of a plan's root column by column, each column by its own evaluator, which is
// kept from one call to the next: a render in strips still carries every column's margins
// down the whole image. Tiles run from the top row down, so that strips reach an encoder in
// order.
class ColumnRenderer {
 public:
  // Throws CIRenderBudgetError when the render would need more than `budget` (with the strip
  // buffers of a file when `toFile`).
  ColumnRenderer(const Plan& plan, const PixelRect& bounds, const CIContextOptions& options, std::int64_t budget,
                 double maxWork, bool toFile, Progress& progress)
      : plan_(plan),
        bounds_(bounds),
        options_(options),
        threads_(renderThreads(options)),
        tiling_(chooseTiling(plan, bounds, options.tileSize, threads_, budget)),
        columns_(std::size_t(tiling_.columns(bounds))),
        release_(std::int64_t(columns_) > tiling_.liveColumns(bounds)),
        progress_(progress),
        arena_(threads_) {
    checkBudget(plan, tiling_, bounds, toFile, budget, maxWork);
    info_.colorManaged = options.colorManagement;
    info_.cache = &cache_;
    evaluators_.reserve(columns_);
    for (std::size_t c = 0; c < columns_; ++c)
      evaluators_.emplace_back(plan, info_, tiling_.keep, std::size_t(tiling_.columnBytes) / sizeof(float));
    const char* off = std::getenv("QV_NO_PASS_THROUGH");
    passThrough_ = options.passThrough && !(off && *off && std::strcmp(off, "0") != 0);
  }

  const Tiling& tiling() const { return tiling_; }
  std::size_t tilesIn(std::int64_t rows) const {
    return columns_ * std::size_t((rows + tiling_.height - 1) / tiling_.height);
  }
  // The tiles of `rows` rendered as strips of `stripRows` rows from the top (the last one shorter).
  std::size_t tilesInStrips(std::int64_t rows, std::int64_t stripRows) const {
    std::size_t n = 0;
    for (std::int64_t top = 0; top < rows; top += stripRows) n += tilesIn(std::min(stripRows, rows - top));
    return n;
  }

  // Renders `rows` (the full width of the bounds) into `buffer`, row 0 = the top row of `rows`.
  void render(const PixelRect& rows, void* buffer, std::ptrdiff_t rowBytes, CIRenderFormat format) {
    auto column = [&](std::size_t c) { renderColumn(c, rows, buffer, rowBytes, format); };
    if (threads_ == 1 || columns_ == 1) {
      for (std::size_t c = 0; c < columns_; ++c) column(c);
      return;
    }
    // The workers take the columns in order from the left, each the next one not taken: the
    // input rows that neighbouring columns read lie close together (for a turned image they
    // move steadily down the file across the strip), so that the workers read a file's strips
    // close to each other and in order instead of from two far halves of the strip.
    // A turned picture's strip reads a band of the file as high as the strip plus its width
    // times the sine of the angle (750 rows of a 6000-pixel-wide picture turned by 5 degrees);
    // the strip cache keeps the part of it the columns to come still read, in pieces of
    // columns, growing its budget up to a bound for it: one decode of each of the 250 strips
    // of that picture on one or two threads (bench/README.md, "Turned reads").
    std::atomic<std::size_t> next{0};
    const std::size_t workers = std::min(columns_, std::size_t(threads_));
    arena_.execute([&] {
      tbb::parallel_for(
          tbb::blocked_range<std::size_t>(0, workers, 1),
          [&](const tbb::blocked_range<std::size_t>&) {
            for (std::size_t c = next++; c < columns_; c = next++) column(c);
          },
          tbb::simple_partitioner());
    });
  }

  // Renders the bounds in strips of `stripRows` rows from the top (the last one shorter) into
  // two buffers in turn, strip s into buffers[s % 2], RGBA8, and hands each strip, in order and
  // once all its columns are written, to `encode` on a thread of its own, which writes one strip
  // while the workers render the next ones. A worker that has finished its column of a strip
  // goes on to the next strip's column (into the other buffer, once the encoder has released
  // it) instead of waiting for the other columns of this strip: the workers meet only where the
  // encoder is two strips behind. Stops at the first error (of a worker or of `encode`) and
  // rethrows it; throws StripEncodeFailed when `encode` returns false.
  void renderStripsToEncoder(std::int64_t stripRows, std::vector<std::uint8_t> (&buffers)[2], std::ptrdiff_t rowBytes,
                             const std::function<bool(const std::uint8_t*, std::int64_t rows)>& encode) {
    const PixelRect b = bounds_;
    const std::int64_t strips = (b.height + stripRows - 1) / stripRows;
    auto stripRect = [&](std::int64_t s) {
      const std::int64_t top = b.maxY() - s * stripRows;
      const std::int64_t h = std::min(stripRows, top - b.y);
      return PixelRect{b.x, top - h, b.width, h};
    };
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::int64_t> nextStrip(columns_, 0);  // of each column
    std::vector<char> busy(columns_, 0);
    std::vector<std::size_t> columnsDone(std::size_t(strips), 0);
    std::int64_t complete = 0, encoded = 0;  // strips with every column written; strips encoded
    std::exception_ptr error;
    std::thread encoder([&] {
      std::unique_lock lock(mutex);
      while (encoded < strips && !error) {
        if (encoded == complete) {
          changed.wait(lock);
          continue;
        }
        const std::int64_t s = encoded;
        lock.unlock();
        bool ok = false;
        std::exception_ptr failure;
        try {
          ok = encode(buffers[s % 2].data(), stripRect(s).height);
        } catch (...) {
          failure = std::current_exception();
        }
        lock.lock();
        if (failure || !ok) {
          if (!error) error = failure ? failure : std::make_exception_ptr(StripEncodeFailed());
        } else {
          ++encoded;
        }
        changed.notify_all();
      }
    });
    // A worker: the column whose next strip comes first (the leftmost of equals), not rendered by
    // another worker, its buffer released by the encoder; none left: done. A worker never waits
    // for another worker, only for the encoder, so one worker alone renders every strip.
    auto work = [&] {
      std::unique_lock lock(mutex);
      for (;;) {
        if (error) return;
        std::size_t pick = columns_;
        bool left = false;
        for (std::size_t c = 0; c < columns_; ++c) {
          if (nextStrip[c] >= strips) continue;
          left = true;
          if (busy[c] || nextStrip[c] >= encoded + 2) continue;
          if (pick == columns_ || nextStrip[c] < nextStrip[pick]) pick = c;
        }
        if (!left) return;
        if (pick == columns_) {
          changed.wait(lock);
          continue;
        }
        const std::int64_t s = nextStrip[pick];
        busy[pick] = 1;
        lock.unlock();
        std::exception_ptr failure;
        try {
          renderColumn(pick, stripRect(s), buffers[s % 2].data(), rowBytes, CIRenderFormat::RGBA8);
        } catch (...) {
          failure = std::current_exception();
        }
        lock.lock();
        busy[pick] = 0;
        if (failure) {
          if (!error) error = failure;
        } else {
          ++nextStrip[pick];
          if (++columnsDone[std::size_t(s)] == columns_) {
            while (complete < strips && columnsDone[std::size_t(complete)] == columns_) ++complete;
          }
        }
        changed.notify_all();
      }
    };
    const std::size_t workers = std::min(columns_, std::size_t(std::max(threads_, 1)));
    try {
      if (workers == 1) {
        work();
      } else {
        arena_.execute([&] {
          tbb::parallel_for(
              tbb::blocked_range<std::size_t>(0, workers, 1), [&](const tbb::blocked_range<std::size_t>&) { work(); },
              tbb::simple_partitioner());
        });
      }
    } catch (...) {
      std::lock_guard lock(mutex);
      if (!error) error = std::current_exception();
    }
    {
      std::lock_guard lock(mutex);
      changed.notify_all();
    }
    encoder.join();
    if (error) std::rethrow_exception(error);
  }

 private:
  // Renders column c of `rows` (its tiles from the top down) into `buffer`, row 0 = the top row
  // of `rows`.
  void renderColumn(std::size_t c, const PixelRect& rows, void* buffer, std::ptrdiff_t rowBytes, CIRenderFormat format) {
    const std::int64_t x0 = bounds_.x + std::int64_t(c) * tiling_.width;
    const std::int64_t w = std::min(tiling_.width, bounds_.maxX() - x0);
    for (std::int64_t y1 = rows.maxY(); y1 > rows.y; y1 -= tiling_.height) {
      const std::int64_t y0 = std::max(rows.y, y1 - tiling_.height);
      const PixelRect tile{x0, y0, w, y1 - y0};
      if (passThrough_ && format == CIRenderFormat::RGBA8)
        writeRegion(evaluators_[c], tile, rows, static_cast<std::uint8_t*>(buffer), rowBytes, 0);
      else
        store(evaluators_[c].evaluate(tile), rows, buffer, rowBytes, format, options_.colorManagement);
      progress_.tileDone();
    }
    if (release_) evaluators_[c].releaseBuffers();
  }

  // Writes `rect` of an RGBA8 render (within `rows`, whose top row is row 0 of `buffer`): where
  // the root's answer is a colour or a source's stored pixels (resolveRegion), those bytes
  // directly; where the answer cuts the rectangle, each part in turn (top part first, so that
  // the parts a column renders still run downwards); elsewhere by rendering it. A rendered part
  // that follows written ones is not directly below what its nodes rendered last, so the
  // evaluator starts it afresh (regionOfInterest, no carried rows), exactly as a render
  // beginning there would.
  void writeRegion(TileEvaluator& evaluator, const PixelRect& rect, const PixelRect& rows, std::uint8_t* buffer,
                   std::ptrdiff_t rowBytes, int depth) {
    // Every cut lies strictly inside the part, so the recursion ends; the bound on its depth
    // keeps a graph of many edges from cutting a tile into slivers.
    constexpr int kMaxCuts = 24;
    const RegionAnswer a = resolveRegion(*plan_.nodes[0], rect, options_.colorManagement);
    std::uint8_t* dst = buffer + (rows.maxY() - rect.maxY()) * rowBytes + (rect.x - rows.x) * 4;
    if (a.kind == RegionAnswer::Kind::constant) {
      std::uint8_t code[4];
      qvpixel::encodeStraightRGBA8(a.color.data(), code, 1, options_.colorManagement);
      for (std::int64_t y = 0; y < rect.height; ++y, dst += rowBytes)
        for (std::int64_t x = 0; x < rect.width; ++x) std::memcpy(dst + x * 4, code, 4);
      return;
    }
    if (a.kind == RegionAnswer::Kind::stored && a.node->writeStored8(rect.offset(-a.dx, -a.dy), dst, rowBytes, info_))
      return;
    if (a.kind == RegionAnswer::Kind::render && a.cut != RegionAnswer::Cut::none && depth < kMaxCuts) {
      if (a.cut == RegionAnswer::Cut::y) {
        writeRegion(evaluator, PixelRect{rect.x, a.at, rect.width, rect.maxY() - a.at}, rows, buffer, rowBytes, depth + 1);
        writeRegion(evaluator, PixelRect{rect.x, rect.y, rect.width, a.at - rect.y}, rows, buffer, rowBytes, depth + 1);
      } else {
        writeRegion(evaluator, PixelRect{rect.x, rect.y, a.at - rect.x, rect.height}, rows, buffer, rowBytes, depth + 1);
        writeRegion(evaluator, PixelRect{a.at, rect.y, rect.maxX() - a.at, rect.height}, rows, buffer, rowBytes, depth + 1);
      }
      return;
    }
    store(evaluator.evaluate(rect), rows, buffer, rowBytes, CIRenderFormat::RGBA8, options_.colorManagement);
  }

  const Plan& plan_;
  PixelRect bounds_;
  const CIContextOptions& options_;
  int threads_;
  Tiling tiling_;
  std::size_t columns_;
  bool release_;  // columns give their buffers back after each run down a strip
  Progress& progress_;
  RenderCache cache_;
  RenderInfo info_;
  bool passThrough_ = true;
  std::vector<TileEvaluator> evaluators_;
  tbb::task_arena arena_;
};

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

std::int64_t CIContext::defaultMaxMemory() {
  const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || pageSize <= 0) return std::int64_t{1} << 30;
  return std::int64_t(pages) * std::int64_t(pageSize) / 4;
}

std::int64_t CIContext::maxMemory() const {
  return options_.maxMemory > 0 ? options_.maxMemory : defaultMaxMemory();
}

double CIContext::maxPixelWork() const {
  return options_.maxPixelWork > 0 ? options_.maxPixelWork : kDefaultMaxPixelWork;
}

std::int64_t CIContext::workingMemory(const CIImage& image, const CGRect& bounds, bool toFile) const {
  const PixelRect b = renderBounds(image, bounds);
  if (b.empty()) return 0;
  const Plan plan = makePlan(image.node().get(), options_);
  const Tiling tiling = chooseTiling(plan, b, options_.tileSize, renderThreads(options_), maxMemory());
  checkBudget(plan, tiling, b, toFile, maxMemory(), maxPixelWork());
  return renderBytes(tiling, b, toFile);
}

namespace {

// Runs `draw(renderer)` with a column renderer over the bounds `b` of `image` (none for empty
// bounds), then reports the render done.
template <class Draw>
void renderInColumns(const CIImage& image, const PixelRect& b, const CIContextOptions& options, std::int64_t budget,
                     double maxWork, Draw&& draw) {
  Progress progress;
  progress.fn = options.progress;
  if (!b.empty()) {
    const Plan plan = makePlan(image.node().get(), options);
    ColumnRenderer renderer(plan, b, options, budget, maxWork, false, progress);
    draw(renderer, progress);
  }
  progress.finish();
}

}  // namespace

void CIContext::render(const CIImage& image, void* buffer, std::ptrdiff_t rowBytes, const CGRect& bounds,
                       CIRenderFormat format) const {
  const PixelRect b = renderBounds(image, bounds);
  if (!b.empty() && !buffer) throw CIRenderError("cannot render into a null buffer");
  if (!b.empty() && rowBytes < b.width * bytesPerPixel(format))
    throw CIRenderError("the buffer's rows are too short for the bounds");
  renderInColumns(image, b, options_, maxMemory(), maxPixelWork(), [&](ColumnRenderer& renderer, Progress& progress) {
    progress.total = renderer.tilesIn(b.height);
    renderer.render(b, buffer, rowBytes, format);
  });
}

void CIContext::renderStrips(const CIImage& image, const CGRect& bounds, CIRenderFormat format,
                             std::int64_t minStripRows, const StripConsumer& consume) const {
  const PixelRect b = renderBounds(image, bounds);
  renderInColumns(image, b, options_, maxMemory(), maxPixelWork(), [&](ColumnRenderer& renderer, Progress& progress) {
    const std::int64_t th = std::max<std::int64_t>(1, renderer.tiling().height);
    const std::int64_t wanted = std::max<std::int64_t>(1, minStripRows);
    const std::int64_t stripRows = std::min(b.height, th * ((wanted + th - 1) / th));
    const std::int64_t strips = (b.height + stripRows - 1) / stripRows;
    progress.total = renderer.tilesInStrips(b.height, stripRows);
    const std::ptrdiff_t rowBytes = b.width * bytesPerPixel(format);
    std::vector<std::uint8_t> strip(std::size_t(rowBytes) * std::size_t(stripRows));
    for (std::int64_t s = 0; s < strips; ++s) {
      const std::int64_t top = b.maxY() - s * stripRows;
      const std::int64_t h = std::min(stripRows, top - b.y);
      renderer.render(PixelRect{b.x, top - h, b.width, h}, strip.data(), rowBytes, format);
      consume(strip.data(), rowBytes, s * stripRows, h);
    }
  });
}

std::string CIContext::writeErrorMessage(const std::string& path, const std::string& detail) {
  if (detail.rfind("cannot write ", 0) == 0 || detail.rfind("cannot create ", 0) == 0) return detail;
  return "cannot write " + path + (detail.empty() ? "" : ": " + detail);
}

void CIContext::writeToFile(const CIImage& image, const std::string& path, const CGRect& bounds, double quality) const {
  const PixelRect b = renderBounds(image, bounds);
  if (b.empty()) throw CIRenderError("cannot write " + path + ": the image is empty");
  const std::string type = CGImageDestinationTypeForPath(path);
  if (type.empty()) throw CIRenderError("cannot write " + path + ": unknown file type (use .png, .jpg, .jpeg or .webp)");
  // The plan and its budget are checked before the file is created: a refused render leaves
  // nothing behind.
  const Plan plan = makePlan(image.node().get(), options_);
  Progress progress;
  progress.fn = options_.progress;
  ColumnRenderer renderer(plan, b, options_, maxMemory(), maxPixelWork(), true, progress);
  auto dest = CGImageDestinationCreateWithURL(path, type, 1);
  if (!dest) throw CIRenderError("cannot write " + path);
  const bool alpha = type != kUTTypeJPEG;
  Dictionary props{{kCGImageDestinationLossyCompressionQuality, Value(std::clamp(quality, 0.0, 1.0))}};
  if (!CGImageDestinationBeginImage(dest, std::size_t(b.width), std::size_t(b.height), 8, alpha, props))
    throw CIRenderError(writeErrorMessage(path, CGImageDestinationGetLastError(dest)));
  // Strips of whole tile rows of a bounded size, top down: the encoder never sees the whole
  // image at once.
  const std::int64_t stripRows = stripRowsFor(b, renderer.tiling().height);
  const std::int64_t strips = (b.height + stripRows - 1) / stripRows;
  progress.total = renderer.tilesInStrips(b.height, stripRows);
  // The encoder writes one strip while the workers render the next: two strip buffers, and
  // the encoder never more than one strip behind; the workers do not wait for each other at the
  // end of a strip (ColumnRenderer::renderStripsToEncoder). A context of one thread encodes on
  // that thread, after each strip: a caller that renders several files at once (a batch) asked
  // for exactly one thread per file.
  const bool encodeAlongside = options_.threads != 1;
  const std::ptrdiff_t rowBytes = b.width * 4;
  std::vector<std::uint8_t> stripBuffers[2];
  for (auto& buffer : stripBuffers) buffer.resize(std::size_t(rowBytes) * std::size_t(stripRows));
  if (encodeAlongside) {
    try {
      renderer.renderStripsToEncoder(stripRows, stripBuffers, rowBytes, [&](const std::uint8_t* strip, std::int64_t h) {
        return CGImageDestinationWriteRows(dest, strip, std::size_t(rowBytes), std::size_t(h));
      });
    } catch (const StripEncodeFailed&) {
      throw CIRenderError(writeErrorMessage(path, CGImageDestinationGetLastError(dest)));
    }
    if (!CGImageDestinationFinalize(dest))
      throw CIRenderError(writeErrorMessage(path, CGImageDestinationGetLastError(dest)));
    progress.finish();
    return;
  }
  std::future<bool> written;
  auto finishWriting = [&] {
    if (written.valid() && !written.get())
      throw CIRenderError(writeErrorMessage(path, CGImageDestinationGetLastError(dest)));
  };
  try {
    for (std::int64_t s = 0; s < strips; ++s) {
      const std::int64_t top = b.maxY() - s * stripRows;
      const std::int64_t h = std::min(stripRows, top - b.y);
      std::vector<std::uint8_t>& strip = stripBuffers[s % 2];
      renderer.render(PixelRect{b.x, top - h, b.width, h}, strip.data(), rowBytes, CIRenderFormat::RGBA8);
      finishWriting();
      const auto policy = encodeAlongside ? std::launch::async : std::launch::deferred;
      written = std::async(policy, [&dest, &strip, rowBytes, h] {
        return CGImageDestinationWriteRows(dest, strip.data(), std::size_t(rowBytes), std::size_t(h));
      });
    }
    finishWriting();
  } catch (...) {
    if (written.valid() && encodeAlongside) written.wait();  // the encoder still reads a strip buffer
    throw;
  }
  if (!CGImageDestinationFinalize(dest))
    throw CIRenderError(writeErrorMessage(path, CGImageDestinationGetLastError(dest)));
  progress.finish();
}

// Bitmap operations on decoded images: orientation, resampling, cropping, depth conversion.
#include "ImageIO/CGImage.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

namespace {

std::shared_ptr<CGImage> blankLike(const CGImage& src, std::size_t width, std::size_t height, int bits) {
  auto out = CGImageCreateBlank(width, height, bits);
  if (!out) return nullptr;
  out->hasAlpha = src.hasAlpha;
  out->colorModel = src.colorModel;
  return out;
}

// ---- resampling --------------------------------------------------------------------------

// Contributions of source samples to each output sample along one axis.
struct Weights {
  std::vector<int> start;      // first source index per output index
  std::vector<int> count;      // number of taps per output index
  std::vector<float> weights;  // taps, `stride` per output index
  int stride = 0;
};

double lanczos3(double x) {
  x = std::fabs(x);
  if (x < 1e-9) return 1.0;
  if (x >= 3.0) return 0.0;
  const double px = M_PI * x;
  return 3.0 * std::sin(px) * std::sin(px / 3.0) / (px * px);
}

Weights makeWeights(std::size_t srcSize, std::size_t dstSize) {
  Weights w;
  const double scale = static_cast<double>(srcSize) / static_cast<double>(dstSize);
  const double filterScale = std::max(scale, 1.0);
  const double support = 3.0 * filterScale;
  w.stride = static_cast<int>(std::ceil(support) * 2 + 1);
  w.start.resize(dstSize);
  w.count.resize(dstSize);
  w.weights.assign(dstSize * static_cast<std::size_t>(w.stride), 0.0f);
  std::vector<double> taps(static_cast<std::size_t>(w.stride));
  for (std::size_t i = 0; i < dstSize; ++i) {
    const double center = (static_cast<double>(i) + 0.5) * scale;  // in source pixel edges
    int first = static_cast<int>(std::floor(center - support));
    int last = static_cast<int>(std::ceil(center + support));
    first = std::max(first, 0);
    last = std::min(last, static_cast<int>(srcSize) - 1);
    if (last - first + 1 > w.stride) last = first + w.stride - 1;
    double sum = 0;
    int n = 0;
    for (int j = first; j <= last; ++j, ++n) {
      const double t = lanczos3((static_cast<double>(j) + 0.5 - center) / filterScale);
      taps[static_cast<std::size_t>(n)] = t;
      sum += t;
    }
    if (std::fabs(sum) < 1e-12) sum = 1.0;
    w.start[i] = first;
    w.count[i] = n;
    for (int k = 0; k < n; ++k)
      w.weights[i * static_cast<std::size_t>(w.stride) + static_cast<std::size_t>(k)] =
          static_cast<float>(taps[static_cast<std::size_t>(k)] / sum);
  }
  return w;
}

// Reads one source row as premultiplied floats in 0..1, box-averaging kx columns and the ky
// rows starting at y0 (clipped at the image's edge).
void readBoxRow(const CGImage& src, std::size_t y0, std::size_t ky, std::size_t kx, std::size_t outWidth,
                float* out) {
  const bool sixteen = src.bitsPerComponent == 16;
  const float unit = sixteen ? 1.0f / 65535.0f : 1.0f / 255.0f;
  const std::size_t y1 = std::min(src.height, y0 + ky);
  std::fill(out, out + outWidth * 4, 0.0f);
  for (std::size_t y = y0; y < y1; ++y) {
    const std::uint8_t* row = src.row(y);
    for (std::size_t ox = 0; ox < outWidth; ++ox) {
      const std::size_t x0 = ox * kx, x1 = std::min(src.width, x0 + kx);
      float r = 0, g = 0, b = 0, a = 0;
      for (std::size_t x = x0; x < x1; ++x) {
        float pr, pg, pb, pa;
        if (sixteen) {
          std::uint16_t v[4];
          std::memcpy(v, row + x * 8, 8);
          pr = v[0], pg = v[1], pb = v[2], pa = v[3];
        } else {
          const std::uint8_t* p = row + x * 4;
          pr = p[0], pg = p[1], pb = p[2], pa = p[3];
        }
        pa *= unit;
        r += pr * pa;
        g += pg * pa;
        b += pb * pa;
        a += pa;
      }
      float* o = out + ox * 4;
      o[0] += r * unit;
      o[1] += g * unit;
      o[2] += b * unit;
      o[3] += a;
    }
  }
  // Partial blocks at the right and bottom edges average only the pixels they hold.
  const float rows = static_cast<float>(y1 - y0);
  for (std::size_t ox = 0; ox < outWidth; ++ox) {
    const std::size_t x0 = ox * kx, x1 = std::min(src.width, x0 + kx);
    const float inv = 1.0f / (rows * static_cast<float>(x1 - x0));
    float* o = out + ox * 4;
    o[0] *= inv;
    o[1] *= inv;
    o[2] *= inv;
    o[3] *= inv;
  }
}

void writePixel(std::uint8_t* row, std::size_t x, const float* premultiplied, bool sixteen) {
  float a = std::clamp(premultiplied[3], 0.0f, 1.0f);
  float c[3] = {0, 0, 0};
  if (a > 0) {
    const float inv = 1.0f / a;
    for (int k = 0; k < 3; ++k) c[k] = std::clamp(premultiplied[k] * inv, 0.0f, 1.0f);
  }
  if (sixteen) {
    std::uint16_t v[4];
    for (int k = 0; k < 3; ++k) v[k] = static_cast<std::uint16_t>(c[k] * 65535.0f + 0.5f);
    v[3] = static_cast<std::uint16_t>(a * 65535.0f + 0.5f);
    std::memcpy(row + x * 8, v, 8);
  } else {
    std::uint8_t* p = row + x * 4;
    for (int k = 0; k < 3; ++k) p[k] = static_cast<std::uint8_t>(c[k] * 255.0f + 0.5f);
    p[3] = static_cast<std::uint8_t>(a * 255.0f + 0.5f);
  }
}

}  // namespace

std::shared_ptr<CGImage> CGImageCreateBlank(std::size_t width, std::size_t height, int bitsPerComponent) {
  if (width == 0 || height == 0 || (bitsPerComponent != 8 && bitsPerComponent != 16)) return nullptr;
  const std::size_t bytesPerPixel = static_cast<std::size_t>(bitsPerComponent / 2);
  if (width > SIZE_MAX / bytesPerPixel / height) return nullptr;
  auto image = std::make_shared<CGImage>();
  image->width = width;
  image->height = height;
  image->bitsPerComponent = bitsPerComponent;
  image->bytesPerRow = width * bytesPerPixel;
  try {
    image->pixels.assign(image->bytesPerRow * height, 0);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return image;
}

CGImageRef CGImageCreateByApplyingOrientation(const CGImageRef& image, int orientation) {
  if (!image || orientation <= 1 || orientation > 8) return image;
  const CGImage& src = *image;
  const std::size_t W = src.width, H = src.height;
  const bool swap = orientation >= 5;
  auto out = blankLike(src, swap ? H : W, swap ? W : H, src.bitsPerComponent);
  if (!out) return nullptr;
  const std::size_t px = static_cast<std::size_t>(src.bitsPerComponent / 2);
  const std::size_t outW = out->width, outH = out->height;
  // For each output pixel (x, y), the source pixel it shows.
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, outH, 16), [&](const tbb::blocked_range<std::size_t>& r) {
    for (std::size_t y = r.begin(); y < r.end(); ++y) {
      std::uint8_t* dst = out->row(y);
      for (std::size_t x = 0; x < outW; ++x) {
        std::size_t sx = x, sy = y;
        switch (orientation) {
          case 2: sx = W - 1 - x; sy = y; break;
          case 3: sx = W - 1 - x; sy = H - 1 - y; break;
          case 4: sx = x; sy = H - 1 - y; break;
          case 5: sx = y; sy = x; break;
          case 6: sx = y; sy = H - 1 - x; break;
          case 7: sx = W - 1 - y; sy = H - 1 - x; break;
          case 8: sx = W - 1 - y; sy = x; break;
          default: break;
        }
        std::memcpy(dst + x * px, src.row(sy) + sx * px, px);
      }
    }
  });
  return out;
}

namespace {

// How an image of srcWidth x srcHeight is brought to width x height: a box pre-reduction by
// whole factors (kx, ky), leaving at least a factor of two for the Lanczos pass, so that the
// filter never needs more than about a dozen taps per axis; then the Lanczos weights from the
// intermediate size (midW x midH).
struct ScalePlan {
  std::size_t width = 0, height = 0, kx = 1, ky = 1, midW = 0, midH = 0;
  Weights wx, wy;
  ScalePlan(std::size_t srcWidth, std::size_t srcHeight, std::size_t w, std::size_t h)
      : width(w),
        height(h),
        kx(std::max<std::size_t>(1, srcWidth / w / 2)),
        ky(std::max<std::size_t>(1, srcHeight / h / 2)),
        midW((srcWidth + kx - 1) / kx),
        midH((srcHeight + ky - 1) / ky),
        wx(makeWeights(midW, w)),
        wy(makeWeights(midH, h)) {}

  // The horizontal pass of one intermediate row (midW premultiplied pixels) into dst (width).
  void horizontalRow(const float* row, float* dst) const {
    for (std::size_t x = 0; x < width; ++x) {
      const float* w = wx.weights.data() + x * static_cast<std::size_t>(wx.stride);
      const float* s = row + static_cast<std::size_t>(wx.start[x]) * 4;
      float acc[4] = {0, 0, 0, 0};
      for (int k = 0; k < wx.count[x]; ++k)
        for (int c = 0; c < 4; ++c) acc[c] += w[k] * s[k * 4 + c];
      for (int c = 0; c < 4; ++c) dst[x * 4 + c] = acc[c];
    }
  }

  // The vertical pass over the horizontally filtered rows (width x midH) into the output.
  void verticalPass(const std::vector<float>& horizontal, CGImage& out) const {
    const bool sixteen = out.bitsPerComponent == 16;
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, height, 8), [&](const tbb::blocked_range<std::size_t>& r) {
      std::vector<float> acc(width * 4);
      for (std::size_t y = r.begin(); y < r.end(); ++y) {
        std::fill(acc.begin(), acc.end(), 0.0f);
        const float* w = wy.weights.data() + y * static_cast<std::size_t>(wy.stride);
        for (int k = 0; k < wy.count[y]; ++k) {
          const float* s = horizontal.data() + (static_cast<std::size_t>(wy.start[y] + k)) * width * 4;
          const float wk = w[k];
          for (std::size_t i = 0; i < width * 4; ++i) acc[i] += wk * s[i];
        }
        std::uint8_t* dst = out.row(y);
        for (std::size_t x = 0; x < width; ++x) writePixel(dst, x, acc.data() + x * 4, sixteen);
      }
    });
  }
};

}  // namespace

CGImageRef CGImageCreateScaled(const CGImageRef& image, std::size_t width, std::size_t height) {
  if (!image || width == 0 || height == 0 || image->width == 0 || image->height == 0) return nullptr;
  if (width == image->width && height == image->height) return image;
  const CGImage& src = *image;
  const ScalePlan plan(src.width, src.height, width, height);
  auto out = blankLike(src, width, height, src.bitsPerComponent);
  if (!out) return nullptr;
  // Horizontal pass over every intermediate row into a float buffer (width x midH).
  std::vector<float> horizontal;
  try {
    horizontal.resize(width * plan.midH * 4);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, plan.midH, 8), [&](const tbb::blocked_range<std::size_t>& r) {
    std::vector<float> row(plan.midW * 4);
    for (std::size_t y = r.begin(); y < r.end(); ++y) {
      readBoxRow(src, y * plan.ky, plan.ky, plan.kx, plan.midW, row.data());
      plan.horizontalRow(row.data(), horizontal.data() + y * width * 4);
    }
  });
  plan.verticalPass(horizontal, *out);
  return out;
}

struct CGImageStreamingScaler::State {
  ScalePlan plan;
  CGImage band;  // the source rows of one box group, as an image of up to ky rows
  std::size_t srcHeight = 0, filled = 0, rowsSeen = 0, group = 0;
  std::vector<float> row, horizontal;
  std::shared_ptr<CGImage> out;
  State(std::size_t srcWidth, std::size_t srcHeight_, std::size_t w, std::size_t h)
      : plan(srcWidth, srcHeight_, w, h), srcHeight(srcHeight_) {}
};

CGImageStreamingScaler::CGImageStreamingScaler(std::size_t srcWidth, std::size_t srcHeight, int bitsPerComponent,
                                               std::size_t width, std::size_t height) {
  if (srcWidth == 0 || srcHeight == 0 || width == 0 || height == 0 ||
      (bitsPerComponent != 8 && bitsPerComponent != 16))
    return;
  try {
    auto state = std::make_unique<State>(srcWidth, srcHeight, width, height);
    state->band.width = srcWidth;
    state->band.height = state->plan.ky;
    state->band.bitsPerComponent = bitsPerComponent;
    state->band.bytesPerRow = srcWidth * 4 * static_cast<std::size_t>(bitsPerComponent / 8);
    state->band.pixels.resize(state->band.bytesPerRow * state->plan.ky);
    state->row.resize(state->plan.midW * 4);
    state->horizontal.resize(width * state->plan.midH * 4);
    state->out = CGImageCreateBlank(width, height, bitsPerComponent);
    if (state->out) state_ = std::move(state);
  } catch (const std::bad_alloc&) {
  }
}

CGImageStreamingScaler::~CGImageStreamingScaler() = default;

bool CGImageStreamingScaler::addRows(const std::uint8_t* rows, std::size_t bytesPerRow, std::size_t count) {
  if (!state_) return false;
  State& s = *state_;
  for (std::size_t i = 0; i < count; ++i) {
    if (s.rowsSeen == s.srcHeight) return false;
    std::memcpy(s.band.row(s.filled), rows + i * bytesPerRow, s.band.bytesPerRow);
    ++s.filled;
    ++s.rowsSeen;
    if (s.filled == s.plan.ky || s.rowsSeen == s.srcHeight) {
      // The group's box rows, clipped at the bottom edge as the whole-image scaler clips them.
      s.band.height = s.filled;
      readBoxRow(s.band, 0, s.plan.ky, s.plan.kx, s.plan.midW, s.row.data());
      s.plan.horizontalRow(s.row.data(), s.horizontal.data() + s.group * s.plan.width * 4);
      s.band.height = s.plan.ky;
      s.filled = 0;
      ++s.group;
    }
  }
  return true;
}

std::shared_ptr<CGImage> CGImageStreamingScaler::finish() {
  if (!state_ || state_->rowsSeen != state_->srcHeight) return nullptr;
  state_->plan.verticalPass(state_->horizontal, *state_->out);
  std::shared_ptr<CGImage> out = std::move(state_->out);
  state_.reset();
  return out;
}

CGImageRef CGImageCreateWithImageInRect(const CGImageRef& image, const CGRect& rect) {
  if (!image) return nullptr;
  const CGRect r = CGRectIntegral(CGRectStandardize(rect));
  const double x0 = std::max(0.0, static_cast<double>(r.origin.x));
  const double y0 = std::max(0.0, static_cast<double>(r.origin.y));
  const double x1 = std::min(static_cast<double>(image->width), static_cast<double>(r.origin.x + r.size.width));
  const double y1 = std::min(static_cast<double>(image->height), static_cast<double>(r.origin.y + r.size.height));
  if (!(x1 > x0) || !(y1 > y0)) return nullptr;
  const auto ix = static_cast<std::size_t>(x0), iy = static_cast<std::size_t>(y0);
  const auto w = static_cast<std::size_t>(x1) - ix, h = static_cast<std::size_t>(y1) - iy;
  if (ix == 0 && iy == 0 && w == image->width && h == image->height) return image;
  auto out = blankLike(*image, w, h, image->bitsPerComponent);
  if (!out) return nullptr;
  const std::size_t px = static_cast<std::size_t>(image->bitsPerComponent / 2);
  for (std::size_t y = 0; y < h; ++y) std::memcpy(out->row(y), image->row(iy + y) + ix * px, w * px);
  return out;
}

CGImageRef CGImageCreateWithBitsPerComponent(const CGImageRef& image, int bitsPerComponent) {
  if (!image || image->bitsPerComponent == bitsPerComponent) return image;
  if (bitsPerComponent != 8 && bitsPerComponent != 16) return nullptr;
  auto out = blankLike(*image, image->width, image->height, bitsPerComponent);
  if (!out) return nullptr;
  const std::size_t n = image->width * 4;
  for (std::size_t y = 0; y < image->height; ++y) {
    if (bitsPerComponent == 8) {
      const std::uint8_t* s = image->row(y);
      std::uint8_t* d = out->row(y);
      for (std::size_t i = 0; i < n; ++i) {
        std::uint16_t v;
        std::memcpy(&v, s + 2 * i, 2);
        d[i] = static_cast<std::uint8_t>((v * 255u + 32767u) / 65535u);
      }
    } else {
      const std::uint8_t* s = image->row(y);
      std::uint8_t* d = out->row(y);
      for (std::size_t i = 0; i < n; ++i) {
        const std::uint16_t v = static_cast<std::uint16_t>(s[i] * 257u);
        std::memcpy(d + 2 * i, &v, 2);
      }
    }
  }
  return out;
}

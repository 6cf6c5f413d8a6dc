// texturegen: draws the plug-in's texture collection and writes its index.
//
//   texturegen OUTPUT_RESOURCES_DIR [--only KEY]... [--list]
//
// writes OUTPUT_RESOURCES_DIR/Textures/<file> for every texture and
// OUTPUT_RESOURCES_DIR/TextureIndex.plist. Every texture is drawn from fixed seeds, so a run
// always makes the same pictures. The pictures are made of procedural noise (gradient noise
// summed over octaves, domain-warped where it helps), and finished through the engine:
// radial gradients, Gaussian blurs, colour matrices and composites, rendered and encoded by
// CIContext.
//
// Kinds and their sub-tags:
//   mask       vignette, grunge, brush-edge       greyscale, full frame, JPEG
//   composite  light-leak, dust-and-scratches,    light on black (for screen / add composites),
//              film-burn                          some pinned by placement constraints, JPEG
//   tile       paper, fabric                      seamless, JPEG
//   border     film-frame, deckle-edge,           frames with a transparent centre, PNG
//              grunge-frame
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/CIImage.h"
#include "CoreImage/CIVector.h"
#include "Foundation/PropertyList.h"

namespace fs = std::filesystem;

namespace {

constexpr double kPi = 3.14159265358979323846;

// ---- Deterministic noise ----

std::uint32_t hash3(std::int32_t x, std::int32_t y, std::uint32_t seed) {
  std::uint32_t h = seed * 0x9E3779B9u ^ std::uint32_t(x) * 0x85EBCA6Bu ^ std::uint32_t(y) * 0xC2B2AE35u;
  h ^= h >> 16;
  h *= 0x7FEB352Du;
  h ^= h >> 15;
  h *= 0x846CA68Bu;
  h ^= h >> 16;
  return h;
}

double unitHash(std::int32_t x, std::int32_t y, std::uint32_t seed) { return hash3(x, y, seed) / 4294967296.0; }

// A small deterministic generator for placing things (specks, hairs, holes).
struct Rng {
  std::uint64_t s;
  explicit Rng(std::uint64_t seed) : s(seed * 6364136223846793005ull + 1442695040888963407ull) {}
  double next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return double(s >> 11) / 9007199254740992.0;
  }
  double range(double a, double b) { return a + (b - a) * next(); }
  double gauss() {
    double u = std::max(next(), 1e-12), v = next();
    return std::sqrt(-2 * std::log(u)) * std::cos(2 * kPi * v);
  }
};

double fade(double t) { return t * t * t * (t * (t * 6 - 15) + 10); }
double lerp(double a, double b, double t) { return a + (b - a) * t; }
double clamp01(double v) { return v < 0 ? 0 : (v > 1 ? 1 : v); }
double smoothstep(double e0, double e1, double x) {
  const double t = clamp01((x - e0) / (e1 - e0));
  return t * t * (3 - 2 * t);
}

int wrap(int i, int period) { return period > 0 ? ((i % period) + period) % period : i; }

// Gradient noise in about [-1, 1]; with periods > 0 it repeats every period cells.
double gradientNoise(double x, double y, std::uint32_t seed, int px = 0, int py = 0) {
  const int ix = int(std::floor(x)), iy = int(std::floor(y));
  const double fx = x - ix, fy = y - iy;
  static const std::array<std::array<double, 2>, 256> table = [] {
    std::array<std::array<double, 2>, 256> t{};
    for (std::size_t i = 0; i < t.size(); ++i) t[i] = {std::cos(2 * kPi * double(i) / 256), std::sin(2 * kPi * double(i) / 256)};
    return t;
  }();
  auto grad = [&](int cx, int cy, double dx, double dy) {
    const auto& g = table[hash3(wrap(cx, px), wrap(cy, py), seed) >> 24];
    return g[0] * dx + g[1] * dy;
  };
  const double n00 = grad(ix, iy, fx, fy), n10 = grad(ix + 1, iy, fx - 1, fy);
  const double n01 = grad(ix, iy + 1, fx, fy - 1), n11 = grad(ix + 1, iy + 1, fx - 1, fy - 1);
  const double u = fade(fx), v = fade(fy);
  return lerp(lerp(n00, n10, u), lerp(n01, n11, u), v) * 1.41421356;
}

// Octaves of gradient noise; frequency doubles and amplitude halves (by gain) per octave.
double fbm(double x, double y, std::uint32_t seed, int octaves, int px = 0, int py = 0, double gain = 0.5) {
  double sum = 0, amp = 1, norm = 0, f = 1;
  for (int o = 0; o < octaves; ++o) {
    sum += amp * gradientNoise(x * f, y * f, seed + std::uint32_t(o) * 101u, px * int(f), py * int(f));
    norm += amp;
    amp *= gain;
    f *= 2;
  }
  return sum / norm;
}

// Ridged octaves: sharp crests, as cracks and veins look.
double ridged(double x, double y, std::uint32_t seed, int octaves, int px = 0, int py = 0) {
  double sum = 0, amp = 1, norm = 0, f = 1;
  for (int o = 0; o < octaves; ++o) {
    const double n = 1 - std::fabs(gradientNoise(x * f, y * f, seed + std::uint32_t(o) * 131u, px * int(f), py * int(f)));
    sum += amp * n * n;
    norm += amp;
    amp *= 0.5;
    f *= 2;
  }
  return sum / norm;
}

// ---- Canvas: straight RGBA, encoded values 0..1, row 0 = top ----

struct Canvas {
  int w = 0, h = 0;
  std::vector<float> px;
  Canvas(int width, int height, std::array<float, 4> fill = {0, 0, 0, 1}) : w(width), h(height), px(std::size_t(width) * std::size_t(height) * 4) {
    for (std::size_t i = 0; i < px.size(); i += 4) std::copy(fill.begin(), fill.end(), px.begin() + std::ptrdiff_t(i));
  }
  float* at(int x, int y) { return &px[(std::size_t(y) * std::size_t(w) + std::size_t(x)) * 4]; }
  // Runs f(x, y, pixel) over every pixel, rows in parallel chunks.
  void each(const std::function<void(int, int, float*)>& f) {
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) f(x, y, at(x, y));
  }
  void grey(int x, int y, double v) {
    float* p = at(x, y);
    p[0] = p[1] = p[2] = float(clamp01(v));
  }
  // Adds a soft round speck (screen-like: towards white) of radius r.
  void speck(double cx, double cy, double r, double strength, std::array<float, 3> colour = {1, 1, 1}) {
    const int x0 = std::max(0, int(cx - r - 2)), x1 = std::min(w - 1, int(cx + r + 2));
    const int y0 = std::max(0, int(cy - r - 2)), y1 = std::min(h - 1, int(cy + r + 2));
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) {
        const double d = std::hypot(x + 0.5 - cx, y + 0.5 - cy);
        const double a = strength * (1 - smoothstep(r - 0.8, r + 0.8, d));
        if (a <= 0) continue;
        float* p = at(x, y);
        for (int c = 0; c < 3; ++c) p[c] = float(1 - (1 - p[c]) * (1 - a * colour[std::size_t(c)]));
      }
  }
  // Sets alpha to zero inside a soft disc (a punched hole).
  void punch(double cx, double cy, double r) {
    const int x0 = std::max(0, int(cx - r - 2)), x1 = std::min(w - 1, int(cx + r + 2));
    const int y0 = std::max(0, int(cy - r - 2)), y1 = std::min(h - 1, int(cy + r + 2));
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) {
        const double d = std::hypot(x + 0.5 - cx, y + 0.5 - cy);
        float* p = at(x, y);
        p[3] = float(std::min<double>(p[3], smoothstep(r - 0.7, r + 0.7, d)));
      }
  }
};

CIImage toImage(const Canvas& c) {
  std::vector<std::uint8_t> bytes(c.px.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = std::uint8_t(std::lround(clamp01(c.px[i]) * 255.0));
  return CIImage::imageWithRGBA8(bytes.data(), std::size_t(c.w), std::size_t(c.h), std::size_t(c.w) * 4);
}

// ---- Engine helpers ----

CIImage apply(const std::string& name, std::initializer_list<std::pair<std::string, Value>> inputs) {
  CIFilterRef f = CIFilter::filterWithName(name);
  if (!f) throw std::runtime_error("no built-in filter " + name);
  f->setDefaults();
  for (const auto& [k, v] : inputs) f->setValue(v, k);
  CIImage out = CIImage::fromValue(f->valueForKey(kCIOutputImageKey));
  if (!out) throw std::runtime_error(name + " gave no image");
  return out;
}

CIImage blur(const CIImage& image, double radius) {
  const CGRect extent = image.extent();
  return apply("CIGaussianBlur", {{kCIInputImageKey, image.imageByClampingToExtent()}, {"inputRadius", radius}})
      .imageByCroppingToRect(extent);
}


// Screens a glow of one colour onto the canvas: a Gaussian falloff around (cx, cy) (origin
// bottom-left, as image coordinates), stretched by (sx, sy) and turned by angle (radians).
// Gaussian, not linear: a linear ramp to zero shows its end as a hard rim once encoded.
void glow(Canvas& c, double cx, double cy, double radius, double sx, double sy, double angle, double r, double g,
          double b, double intensity) {
  const double ca = std::cos(angle), sa = std::sin(angle);
  const std::array<double, 3> colour{r * intensity, g * intensity, b * intensity};
  c.each([&](int x, int y, float* p) {
    const double dx = x + 0.5 - cx, dy = (c.h - y - 0.5) - cy;
    const double u = (dx * ca + dy * sa) / (sx * radius), v = (-dx * sa + dy * ca) / (sy * radius);
    const double weight = std::exp(-2.2 * (u * u + v * v));
    for (int k = 0; k < 3; ++k) p[k] = float(1 - (1 - p[k]) * (1 - clamp01(colour[std::size_t(k)] * weight)));
  });
}

CIImage add(const CIImage& top, const CIImage& bottom) {
  return apply("CIAdditionCompositing", {{kCIInputImageKey, top}, {kCIInputBackgroundImageKey, bottom}});
}
CIImage screen(const CIImage& top, const CIImage& bottom) {
  return apply("CIScreenBlendMode", {{kCIInputImageKey, top}, {kCIInputBackgroundImageKey, bottom}});
}
CIImage multiply(const CIImage& top, const CIImage& bottom) {
  return apply("CIMultiplyCompositing", {{kCIInputImageKey, top}, {kCIInputBackgroundImageKey, bottom}});
}
// Per-channel gains and a bias (the colour matrix's diagonal form).
CIImage tint(const CIImage& image, double r, double g, double b, double bias = 0) {
  return apply("CIColorMatrix", {{kCIInputImageKey, image},
                                 {"inputRVector", CIVector::vectorWithX(r, 0, 0, 0)},
                                 {"inputGVector", CIVector::vectorWithX(0, g, 0, 0)},
                                 {"inputBVector", CIVector::vectorWithX(0, 0, b, 0)},
                                 {"inputBiasVector", CIVector::vectorWithX(bias, bias, bias, 0)}});
}

// A grey image of film grain centred on mid-grey (for overlay / soft-light) or on black.
Canvas grainCanvas(int w, int h, std::uint32_t seed, double amount, double base) {
  Canvas c(w, h);
  c.each([&](int x, int y, float* p) {
    const double g = (unitHash(x, y, seed) + unitHash(x, y, seed + 7) + unitHash(x, y, seed + 13) - 1.5) * amount;
    p[0] = p[1] = p[2] = float(clamp01(base + g));
  });
  return c;
}

// ---- The catalogue ----

struct Texture {
  std::string key, displayName, fileName, kind, subTag;
  Array constraints;
  std::function<void(const fs::path&)> draw;
};

Value rule(const std::string& destination, const std::string& source, double scale = NAN, double offset = NAN) {
  Dictionary d{{"destinationAttribute", destination}, {"sourceAttribute", source}};
  if (!std::isnan(scale)) d["scale"] = Value::real(scale);
  if (!std::isnan(offset)) d["offset"] = Value::real(offset);
  return Value(d);
}

const CIContext& context() {
  static const CIContext ctx;
  return ctx;
}

void write(const CIImage& image, const fs::path& path, double quality = 0.9) {
  context().writeToFile(image, path.string(), image.extent(), quality);
}

// ---- Masks ----

void drawVignetteSoft(const fs::path& out) {
  const int w = 2048, h = 1536;
  // A smooth elliptical falloff in the frame's aspect, then a touch of grain multiplied in so
  // that it never bands when stretched over a large picture.
  Canvas c(w, h);
  c.each([&](int x, int y, float*) {
    const double u = ((x + 0.5) / w - 0.5) * 2, v = ((y + 0.5) / h - 0.5) * 2;
    const double d = std::sqrt(u * u + v * v) / std::sqrt(2.0);
    c.grey(x, y, std::pow(1 - smoothstep(0.25, 1.0, d), 1.6));
  });
  CIImage grain = blur(toImage(grainCanvas(w, h, 11, 0.05, 0.985)), 0.6);
  write(multiply(grain, blur(toImage(c), 1.5)), out, 0.92);
}

void drawVignetteRough(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  c.each([&](int x, int y, float* p) {
    const double u = (x + 0.5) / w - 0.5, v = (y + 0.5) / h - 0.5;
    const double a = std::atan2(v, u);
    const double d = std::hypot(u / 0.5, v / 0.5);
    // The edge wanders with angle and with a finer mottling, as a burnt-in darkroom vignette.
    const double wobble = 0.10 * fbm(std::cos(a) * 2.2 + 5, std::sin(a) * 2.2 + 5, 21, 4) +
                          0.07 * fbm(x / 90.0, y / 90.0, 22, 5);
    double m = 1 - smoothstep(0.55 + wobble, 1.15 + wobble, d);
    m *= 0.93 + 0.07 * fbm(x / 300.0, y / 300.0, 23, 3);
    c.grey(x, y, std::pow(clamp01(m), 1.3));
    p[3] = 1;
  });
  write(blur(toImage(c), 2.5), out, 0.92);
}

void drawGrungeConcrete(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  c.each([&](int x, int y, float*) {
    const double base = fbm(x / 420.0, y / 420.0, 31, 7);
    const double fine = fbm(x / 18.0, y / 18.0, 32, 3);
    const double stain = smoothstep(0.05, 0.45, fbm(x / 260.0 + 3, y / 260.0, 33, 5));
    const double pits = smoothstep(0.72, 0.9, gradientNoise(x / 3.1, y / 3.1, 34)) * 0.5;
    double v = 0.78 + 0.22 * base + 0.07 * fine - 0.45 * stain - pits;
    c.grey(x, y, v);
  });
  Rng rng(35);
  for (int i = 0; i < 450; ++i) {  // dark flecks
    const double cx = rng.range(0, w), cy = rng.range(0, h), r = std::pow(rng.next(), 3) * 5 + 0.6;
    const int x0 = std::max(0, int(cx - r - 1)), x1 = std::min(w - 1, int(cx + r + 1));
    const int y0 = std::max(0, int(cy - r - 1)), y1 = std::min(h - 1, int(cy + r + 1));
    for (int y = y0; y <= y1; ++y)
      for (int x = x0; x <= x1; ++x) {
        const double a = 1 - smoothstep(r - 0.7, r + 0.7, std::hypot(x + 0.5 - cx, y + 0.5 - cy));
        float* p = c.at(x, y);
        p[0] = p[1] = p[2] = float(p[0] * (1 - 0.45 * a));
      }
  }
  write(blur(toImage(c), 0.7), out, 0.9);
}

void drawGrungeCracked(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  c.each([&](int x, int y, float*) {
    const double wx = x + 40 * fbm(x / 200.0, y / 200.0, 41, 3), wy = y + 40 * fbm(x / 200.0 + 9, y / 200.0, 42, 3);
    const double crack = std::pow(ridged(wx / 260.0, wy / 260.0, 43, 5), 7);
    const double peel = smoothstep(0.3, 0.45, fbm(x / 340.0, y / 340.0, 44, 6));
    const double tone = 0.86 + 0.1 * fbm(x / 60.0, y / 60.0, 45, 4);
    c.grey(x, y, tone * (1 - 0.85 * crack) * (1 - 0.35 * peel));
  });
  write(toImage(c), out, 0.9);
}

// Distance inside the frame's inset rectangle (negative outside), in pixels.
double insideDistance(double x, double y, int w, int h, double inset) {
  const double dx = std::min(x - inset, w - inset - x), dy = std::min(y - inset, h - inset - y);
  return std::min(dx, dy);
}

void drawBrushEdgeRough(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  const double inset = 170;
  c.each([&](int x, int y, float*) {
    const double d = insideDistance(x, y, w, h, inset);
    // Near a vertical edge the bristle marks run up and down; near a horizontal one, across.
    const bool vertical = std::min(x - inset, w - inset - x) < std::min(y - inset, h - inset - y);
    const double along = vertical ? y : x, across = vertical ? x : y;
    const double bristles = fbm(along / 260.0, across / 7.0, 51, 4);
    const double clumps = fbm(along / 90.0, across / 40.0, 52, 3);
    const double edge = 85 * bristles + 45 * clumps;
    const double dry = smoothstep(0.15, 0.5, fbm(along / 400.0, across / 3.0, 53, 3)) * smoothstep(60, 0, d - edge);
    c.grey(x, y, smoothstep(-3, 3, d - edge) * (1 - 0.8 * dry));
  });
  write(toImage(c), out, 0.92);
}

void drawBrushEdgeDry(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  // Horizontal strokes: each band of rows ends at its own place on both sides, with
  // bristle streaks thinning out towards the ends.
  c.each([&](int x, int y, float*) {
    const double band = fbm(0.5, y / 55.0, 61, 3);
    const double streak = fbm(x / 700.0, y / 2.2, 62, 3);
    const double left = 170 + 110 * band + 60 * fbm(3.5, y / 14.0, 63, 2);
    const double right = w - 170 - 110 * fbm(7.5, y / 55.0, 64, 3) - 60 * fbm(9.5, y / 14.0, 65, 2);
    const double top = 150 + 50 * fbm(x / 300.0, 2.5, 66, 3), bottom = h - 150 - 50 * fbm(x / 300.0, 8.5, 67, 3);
    const double inX = std::min(x - left, right - x), inY = std::min(y - top, bottom - y);
    const double coverage = smoothstep(-10, 60, inX + 40 * streak) * smoothstep(-6, 20, inY + 18 * streak);
    const double gaps = smoothstep(0.35, 0.6, streak) * smoothstep(220, 0, inX);
    c.grey(x, y, coverage * (1 - gaps));
  });
  write(blur(toImage(c), 0.8), out, 0.92);
}

// ---- Composite overlays (light on black) ----

CIImage organic(int w, int h, std::uint32_t seed, double scale, double low, double high) {
  Canvas c(w, h);
  c.each([&](int x, int y, float*) { c.grey(x, y, low + (high - low) * (0.5 + 0.6 * fbm(x / scale, y / scale, seed, 4))); });
  return toImage(c);
}

CIImage filmGrainOnBlack(int w, int h, std::uint32_t seed) {
  return blur(toImage(grainCanvas(w, h, seed, 0.035, 0.012)), 0.5);
}

void drawLightLeakAmberCorner(const fs::path& out) {
  const int w = 1600, h = 1200;
  Canvas glows(w, h);
  glow(glows, w * 1.02, h * 1.0, w * 0.75, 1.0, 0.75, 0.4, 1.0, 0.45, 0.08, 0.95);
  glow(glows, w * 0.92, h * 0.9, w * 0.35, 1.2, 0.6, -0.5, 1.0, 0.82, 0.45, 0.8);
  glow(glows, w * 0.7, h * 1.05, w * 0.4, 1.6, 0.5, 0.1, 0.95, 0.2, 0.15, 0.45);
  CIImage leak = multiply(organic(w, h, 71, 380, 0.6, 1.15), toImage(glows));
  write(add(filmGrainOnBlack(w, h, 72), blur(leak, 6)), out, 0.9);
}

void drawLightLeakRoseEdge(const fs::path& out) {
  const int w = 1024, h = 2048;
  Canvas glows(w, h);
  glow(glows, -w * 0.05, h * 0.55, h * 0.55, 0.55, 1.0, 0.0, 1.0, 0.28, 0.38, 0.9);
  glow(glows, w * 0.05, h * 0.3, h * 0.3, 0.5, 1.0, 0.15, 1.0, 0.55, 0.3, 0.7);
  glow(glows, w * 0.12, h * 0.8, h * 0.22, 0.6, 1.0, -0.2, 0.85, 0.3, 0.75, 0.45);
  CIImage leak = multiply(organic(w, h, 73, 300, 0.55, 1.2), toImage(glows));
  write(add(filmGrainOnBlack(w, h, 74), blur(leak, 8)), out, 0.9);
}

void drawLightLeakSunrise(const fs::path& out) {
  const int w = 2048, h = 1024;
  Canvas glows(w, h);
  glow(glows, w * 0.5, -h * 0.15, w * 0.55, 1.0, 0.55, 0.0, 1.0, 0.62, 0.18, 1.0);
  glow(glows, w * 0.3, h * 0.05, w * 0.28, 1.4, 0.5, 0.2, 1.0, 0.3, 0.1, 0.6);
  glow(glows, w * 0.72, h * 0.02, w * 0.3, 1.3, 0.5, -0.15, 1.0, 0.85, 0.55, 0.55);
  CIImage leak = multiply(organic(w, h, 75, 420, 0.65, 1.1), toImage(glows));
  write(add(filmGrainOnBlack(w, h, 76), blur(leak, 6)), out, 0.9);
}

void drawLightLeakPrism(const fs::path& out) {
  const int w = 2048, h = 1365;
  Canvas glows(w, h);
  // A diagonal band split into colours, as light through the edge of a lens.
  const std::array<std::array<double, 3>, 5> colours{{{1, 0.2, 0.1}, {1, 0.6, 0.1}, {0.9, 0.9, 0.3}, {0.3, 0.8, 0.6}, {0.4, 0.3, 1}}};
  for (std::size_t i = 0; i < colours.size(); ++i) {
    const double t = double(i) / (colours.size() - 1);
    glow(glows, w * (0.25 + 0.3 * t), h * (0.75 - 0.35 * t), w * 0.28, 1.8, 0.35, -0.6,
                    colours[i][0], colours[i][1], colours[i][2], 0.55);
  }
  glow(glows, w * 0.12, h * 0.92, w * 0.3, 1, 1, 0, 1, 0.85, 0.7, 0.5);
  CIImage leak = multiply(organic(w, h, 77, 350, 0.6, 1.15), toImage(glows));
  // Warmed slightly through the colour matrix, as light leaks look on film.
  write(add(filmGrainOnBlack(w, h, 78), tint(blur(leak, 10), 1.0, 0.96, 0.9)), out, 0.9);
}

// A dust speck: a few overlapping soft discs, so that it is not a perfect dot.
void mote(Canvas& c, Rng& rng, double cx, double cy, double r, double strength) {
  const int parts = 1 + int(rng.next() * 3);
  for (int k = 0; k < parts; ++k)
    c.speck(cx + rng.gauss() * r * 0.6, cy + rng.gauss() * r * 0.6, std::max(0.5, r * rng.range(0.5, 1.0)),
            strength * rng.range(0.6, 1.0));
}

// A hair or fibre: a smooth random walk drawn with soft specks.
void hair(Canvas& c, Rng& rng, double length, double width, double strength) {
  double x = rng.range(0, c.w), y = rng.range(0, c.h), a = rng.range(0, 2 * kPi), turn = rng.range(-0.006, 0.006);
  for (double s = 0; s < length; s += 0.6) {
    c.speck(x, y, width, strength * (0.6 + 0.4 * std::sin(s / length * kPi)));
    turn += rng.gauss() * 0.0012;
    turn = std::clamp(turn, -0.012, 0.012);
    a += turn;
    x += std::cos(a) * 0.6;
    y += std::sin(a) * 0.6;
  }
}

void drawDustFine(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  Rng rng(81);
  for (int i = 0; i < 2600; ++i) {
    const double r = 0.5 + std::pow(rng.next(), 4) * 3.5;
    mote(c, rng, rng.range(0, w), rng.range(0, h), r, rng.range(0.25, 0.9));
  }
  for (int i = 0; i < 14; ++i) hair(c, rng, rng.range(40, 160), 0.6, rng.range(0.4, 0.8));
  CIImage dust = blur(toImage(c), 0.6);
  write(add(filmGrainOnBlack(w, h, 82), dust), out, 0.92);
}

void drawDustHeavy(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  Rng rng(83);
  for (int i = 0; i < 900; ++i) {
    // Clumps of dust: specks gathered around a few centres.
    const double cx = rng.range(0, w), cy = rng.range(0, h);
    const int n = 1 + int(rng.next() * 4);
    for (int k = 0; k < n; ++k)
      mote(c, rng, cx + rng.gauss() * 6, cy + rng.gauss() * 6, 0.6 + std::pow(rng.next(), 3) * 5, rng.range(0.4, 1));
  }
  for (int i = 0; i < 40; ++i) hair(c, rng, rng.range(60, 420), rng.range(0.5, 1.1), rng.range(0.5, 0.95));
  // Blotches of grime, faint.
  Canvas grime(w, h);
  grime.each([&](int x, int y, float*) {
    grime.grey(x, y, 0.09 * smoothstep(0.25, 0.6, fbm(x / 240.0, y / 240.0, 84, 5)));
  });
  write(add(filmGrainOnBlack(w, h, 85), screen(toImage(grime), blur(toImage(c), 0.7))), out, 0.92);
}

void drawScratchesVertical(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  Rng rng(91);
  for (int i = 0; i < 24; ++i) {
    double x = rng.range(0, w);
    const double y0 = rng.next() < 0.5 ? 0 : rng.range(0, h * 0.6), y1 = rng.next() < 0.5 ? h : rng.range(y0 + 100, h);
    const double width = rng.range(0.4, 1.1), strength = rng.range(0.2, 0.75);
    double drift = rng.gauss() * 0.008;
    for (double y = y0; y < y1; y += 0.7) {
      // Scratches flicker along their length.
      const double flick = 0.55 + 0.45 * (0.5 + 0.5 * gradientNoise(y / 40.0, i * 3.7, 92));
      c.speck(x, y, width, strength * flick);
      drift += rng.gauss() * 0.0002;
      x += drift * 0.7;
    }
  }
  for (int i = 0; i < 700; ++i) c.speck(rng.range(0, w), rng.range(0, h), 0.5 + std::pow(rng.next(), 4) * 2.5, rng.range(0.3, 0.9));
  write(add(filmGrainOnBlack(w, h, 93), blur(toImage(c), 0.55)), out, 0.92);
}

// Film burn: heat spreading from a source; the distance field is warped by noise, coloured
// from deep red through orange to white.
void burnColour(double heat, float* p) {
  const double r = smoothstep(0.0, 0.5, heat), g = smoothstep(0.25, 0.9, heat), b = smoothstep(0.6, 1.0, heat);
  p[0] = float(0.95 * r + 0.05 * g);
  p[1] = float(0.12 * r + 0.83 * g);
  p[2] = float(0.04 * r + 0.72 * b);
  p[3] = 1;
}

void drawFilmBurnEdge(const fs::path& out) {
  const int w = 1024, h = 2048;
  Canvas c(w, h);
  c.each([&](int x, int y, float* p) {
    const double warp = 170 * fbm(x / 320.0, y / 320.0, 101, 5) + 25 * fbm(x / 60.0, y / 60.0, 102, 3);
    const double reach = 520 + 220 * fbm(0.3, y / 500.0, 103, 4);
    const double d = (w - x) + warp;  // distance from the right edge
    burnColour(std::pow(clamp01(1.05 - d / reach), 1.5), p);
  });
  write(add(filmGrainOnBlack(w, h, 104), blur(toImage(c), 10)), out, 0.9);
}

void drawFilmBurnCentre(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  c.each([&](int x, int y, float* p) {
    const double u = x - w * 0.5, v = y - h * 0.5;
    const double warp = 180 * fbm(x / 350.0, y / 350.0, 111, 5) + 22 * fbm(x / 70.0, y / 70.0, 112, 3);
    const double d = std::hypot(u, v * 1.25) + warp;
    burnColour(std::pow(clamp01(1.1 - d / 720.0), 1.4), p);
  });
  // A darker scorched ring just outside the hot area.
  Canvas ring(w, h, {1, 1, 1, 1});
  ring.each([&](int x, int y, float*) {
    const double u = x - w * 0.5, v = y - h * 0.5;
    const double d = std::hypot(u, v * 1.25) + 180 * fbm(x / 350.0, y / 350.0, 111, 5);
    ring.grey(x, y, 1 - 0.6 * smoothstep(560, 700, d) * smoothstep(900, 720, d));
  });
  write(add(filmGrainOnBlack(w, h, 113), multiply(blur(toImage(ring), 6), blur(toImage(c), 10))), out, 0.9);
}

// ---- Tiles (seamless: every noise repeats over the tile) ----

void drawPaper(const fs::path& out, std::uint32_t seed, std::array<double, 3> colour, double fibreAmount,
               double blotchAmount, double flecks) {
  const int n = 1024;
  Canvas c(n, n);
  Rng rng(seed);
  c.each([&](int x, int y, float* p) {
    const double u = x / double(n), v = y / double(n);
    const double blotch = fbm(u * 4, v * 4, seed, 5, 4, 4);
    const double fibreA = fbm(u * 64, v * 16, seed + 1, 3, 64, 16), fibreB = fbm(u * 16, v * 64, seed + 2, 3, 16, 64);
    const double tooth = fbm(u * 256, v * 256, seed + 3, 2, 256, 256);
    const double shade = 1 + blotchAmount * blotch + fibreAmount * (0.6 * fibreA + 0.6 * fibreB) + 0.035 * tooth;
    for (int k = 0; k < 3; ++k) p[k] = float(clamp01(colour[std::size_t(k)] * shade));
  });
  // Flecks: wrapped, so that they repeat across the tile's edges too.
  for (int i = 0; i < int(flecks); ++i) {
    const double cx = rng.range(0, n), cy = rng.range(0, n), r = rng.range(0.5, 1.8), s = rng.range(0.2, 0.55);
    for (int dy = -1; dy <= 1; ++dy)
      for (int dx = -1; dx <= 1; ++dx) {
        const double px = cx + dx * n, py = cy + dy * n;
        const int x0 = std::max(0, int(px - r - 1)), x1 = std::min(n - 1, int(px + r + 1));
        const int y0 = std::max(0, int(py - r - 1)), y1 = std::min(n - 1, int(py + r + 1));
        for (int y = y0; y <= y1; ++y)
          for (int x = x0; x <= x1; ++x) {
            const double a = s * (1 - smoothstep(r - 0.6, r + 0.6, std::hypot(x + 0.5 - px, y + 0.5 - py)));
            float* q = c.at(x, y);
            for (int k = 0; k < 3; ++k) q[k] = float(q[k] * (1 - a * 0.8));
          }
      }
  }
  write(toImage(c), out, 0.9);
}

// A woven cloth: warp threads (vertical) and weft threads (horizontal) crossing over and
// under; `twill` lifts the warp over three wefts of four, shifted by one thread per row, for
// the diagonal of denim. Every thread has its own shade and thickness along its length.
void drawWeave(const fs::path& out, std::uint32_t seed, int threads, std::array<double, 3> warpColour,
               std::array<double, 3> weftColour, bool twill, double slub) {
  const int n = 1024;
  const double cell = double(n) / threads;
  const int slubPeriod = std::max(1, threads / 8);
  Canvas c(n, n);
  c.each([&](int x, int y, float* p) {
    const double u = x / cell, v = y / cell;
    const int i = int(std::floor(u)), j = int(std::floor(v));
    const double fu = u - i, fv = v - j;
    const bool warpOnTop = twill ? ((i + j) % 4 != 0) : ((i + j) % 2 == 0);
    // Thickness changes along each thread (slubs), and a shade of its own per thread.
    const double warpThick = 0.82 + slub * 0.5 * fbm(i * 3.7, v / 8.0, seed, 2, 0, slubPeriod);
    const double weftThick = 0.82 + slub * 0.5 * fbm(u / 8.0, j * 3.7, seed + 1, 2, slubPeriod, 0);
    const double warpShade = 0.9 + 0.2 * unitHash(i % threads, 0, seed + 2);
    const double weftShade = 0.9 + 0.2 * unitHash(0, j % threads, seed + 3);
    auto profile = [](double f, double thick) {
      const double t = std::fabs(f - 0.5) * 2 / thick;  // 0 at the thread's middle, 1 at its edge
      return t >= 1 ? 0.0 : std::sqrt(1 - t * t);
    };
    const double pw = profile(fu, warpThick), pf = profile(fv, weftThick);
    // Fibres run along each thread.
    const double warpFibre = 0.08 * gradientNoise(u * 6, v, seed + 4, threads * 6, threads);
    const double weftFibre = 0.08 * gradientNoise(u, v * 6, seed + 5, threads, threads * 6);
    const double mottle = 0.06 * fbm(x / 128.0, y / 128.0, seed + 6, 3, n / 128, n / 128);
    double shade;
    const std::array<double, 3>* col;
    if ((warpOnTop && pw > 0) || pf == 0) {
      col = &warpColour;
      shade = (0.72 + 0.28 * pw) * warpShade * (0.93 + 0.07 * std::sin(kPi * fv)) + warpFibre;
      if (pw == 0) shade *= 0.55;  // the gap between threads
    } else {
      col = &weftColour;
      shade = (0.72 + 0.28 * pf) * weftShade * (0.93 + 0.07 * std::sin(kPi * fu)) + weftFibre;
    }
    shade *= 1 + mottle;
    for (int k = 0; k < 3; ++k) p[k] = float(clamp01((*col)[std::size_t(k)] * shade));
  });
  write(toImage(c), out, 0.9);
}

// ---- Borders (transparent centre) ----

void drawFilmFrame(const fs::path& out, bool negative) {
  const int w = 2048, h = 1536;
  const std::array<float, 4> base = negative ? std::array<float, 4>{0.70f, 0.46f, 0.28f, 1} : std::array<float, 4>{0.03f, 0.03f, 0.03f, 1};
  Canvas c(w, h, base);
  const double side = 90, band = 200, radius = 26;
  c.each([&](int x, int y, float* p) {
    // The picture window: a rounded rectangle.
    const double hx = w / 2.0 - side, hy = h / 2.0 - band;
    const double qx = std::fabs(x + 0.5 - w / 2.0) - (hx - radius), qy = std::fabs(y + 0.5 - h / 2.0) - (hy - radius);
    const double outside = std::hypot(std::max(qx, 0.0), std::max(qy, 0.0)) + std::min(std::max(qx, qy), 0.0) - radius;
    p[3] = float(smoothstep(-1.0, 1.0, outside));
    // Base density varies a little, with grain.
    const double mottle = 1 + 0.06 * fbm(x / 200.0, y / 200.0, 121, 3) + 0.05 * (unitHash(x, y, 122) - 0.5);
    for (int k = 0; k < 3; ++k) p[k] = float(clamp01(base[std::size_t(k)] * mottle + (negative ? 0 : 0.012 * unitHash(x, y, 123))));
  });
  // Sprocket holes along the top and bottom bands.
  const double holeW = 52, holeH = 72, pitch = 96;
  for (double x = pitch / 2; x < w; x += pitch)
    for (double yc : {band * 0.42, h - band * 0.42}) {
      for (int y = int(yc - holeH / 2 - 2); y <= int(yc + holeH / 2 + 2); ++y)
        for (int xx = int(x - holeW / 2 - 2); xx <= int(x + holeW / 2 + 2); ++xx) {
          if (xx < 0 || xx >= w || y < 0 || y >= h) continue;
          const double qx = std::fabs(xx + 0.5 - x) - (holeW / 2 - 7), qy = std::fabs(y + 0.5 - yc) - (holeH / 2 - 7);
          const double d = std::hypot(std::max(qx, 0.0), std::max(qy, 0.0)) + std::min(std::max(qx, qy), 0.0) - 7;
          float* p = c.at(xx, y);
          p[3] = float(std::min<double>(p[3], smoothstep(-0.8, 0.8, d)));
        }
    }
  // Frame numbers: small bright marks in the band, as edge print.
  Rng rng(negative ? 124 : 125);
  for (double x = 180; x < w - 100; x += 420)
    for (int k = 0; k < 6; ++k) c.speck(x + k * 14, h - band * 0.85, 3.2, 0.55, negative ? std::array<float, 3>{1, 0.9, 0.7} : std::array<float, 3>{0.9, 0.75, 0.3});
  write(toImage(c), out);
}

void drawDeckle(const fs::path& out, std::array<double, 3> colour, std::uint32_t seed, double inset) {
  const int w = 2048, h = 1536;
  Canvas c(w, h);
  c.each([&](int x, int y, float* p) {
    const double d = insideDistance(x, y, w, h, inset);
    const bool vertical = std::min(x - inset, w - inset - x) < std::min(y - inset, h - inset - y);
    const double along = vertical ? y : x;
    // A torn edge: coarse wander plus fine fibres sticking out.
    const double tear = 22 * fbm(along / 120.0, vertical ? 1.5 : 4.5, seed, 5) + 6 * fbm(along / 9.0, d / 9.0, seed + 1, 2);
    const double edge = d - tear;
    p[3] = float(1 - smoothstep(-1.2, 1.2, edge));
    // Paper: fibres, slight blotches, a soft shadow of thickness near the torn edge.
    const double fibre = 0.05 * fbm(x / 40.0, y / 6.0, seed + 2, 3) + 0.05 * fbm(x / 6.0, y / 40.0, seed + 3, 3);
    const double blotch = 0.05 * fbm(x / 300.0, y / 300.0, seed + 4, 4);
    const double rim = 0.12 * smoothstep(-14, 0, edge);
    for (int k = 0; k < 3; ++k) p[k] = float(clamp01(colour[std::size_t(k)] * (1 + fibre + blotch - rim)));
  });
  write(toImage(c), out);
}

void drawGrungeFrame(const fs::path& out) {
  const int w = 2048, h = 1536;
  Canvas c(w, h, {0.02f, 0.02f, 0.02f, 1});
  const double inset = 150;
  c.each([&](int x, int y, float* p) {
    const double d = insideDistance(x, y, w, h, inset);
    const bool vertical = std::min(x - inset, w - inset - x) < std::min(y - inset, h - inset - y);
    const double along = vertical ? y : x, across = vertical ? x : y;
    const double rough = 45 * fbm(along / 180.0, across / 9.0, 131, 5) + 20 * fbm(x / 25.0, y / 25.0, 132, 3);
    const double edge = d - rough;
    double a = 1 - smoothstep(-2, 2, edge);
    // Splatter inside the window near the edge.
    const double splat = smoothstep(0.55, 0.62, gradientNoise(x / 7.0, y / 7.0, 133)) * smoothstep(120, 10, edge);
    a = std::max(a, splat);
    // Worn patches in the black.
    const double wear = 0.12 * smoothstep(0.2, 0.6, fbm(x / 90.0, y / 90.0, 134, 4));
    p[3] = float(a);
    p[0] = p[1] = p[2] = float(0.02 + wear * 0.5 + 0.02 * unitHash(x, y, 135));
  });
  write(toImage(c), out);
}

std::vector<Texture> catalogue() {
  std::vector<Texture> t;
  auto add = [&](std::string key, std::string name, std::string ext, std::string kind, std::string sub, Array rules,
                 std::function<void(const fs::path&)> draw) {
    t.push_back({key, std::move(name), key + "." + ext, std::move(kind), std::move(sub), std::move(rules), std::move(draw)});
  };
  // Masks.
  add("vignette-soft", "Soft Vignette", "jpg", "mask", "vignette", {}, drawVignetteSoft);
  add("vignette-darkroom", "Darkroom Vignette", "jpg", "mask", "vignette", {}, drawVignetteRough);
  add("grunge-concrete", "Concrete Grunge", "jpg", "mask", "grunge", {}, drawGrungeConcrete);
  add("grunge-cracked-paint", "Cracked Paint", "jpg", "mask", "grunge", {}, drawGrungeCracked);
  add("brush-edge-bristle", "Bristle Brush Edge", "jpg", "mask", "brush-edge", {}, drawBrushEdgeRough);
  add("brush-edge-dry", "Dry Brush Strokes", "jpg", "mask", "brush-edge", {}, drawBrushEdgeDry);
  // Composite overlays. Size rules come before the position rules that depend on the size;
  // offsets go only with edge and centre attributes.
  add("light-leak-amber-corner", "Amber Corner Leak", "jpg", "composite", "light-leak",
      {rule("width", "width", 0.6), rule("MaxX", "MaxX"), rule("MaxY", "MaxY")}, drawLightLeakAmberCorner);
  add("light-leak-rose-edge", "Rose Edge Leak", "jpg", "composite", "light-leak",
      {rule("height", "height"), rule("MinX", "MinX", NAN, -0.02), rule("MidY", "MidY")}, drawLightLeakRoseEdge);
  add("light-leak-sunrise", "Sunrise Leak", "jpg", "composite", "light-leak",
      {rule("width", "width", 0.9), rule("MidX", "MidX"), rule("MinY", "MinY")}, drawLightLeakSunrise);
  add("light-leak-prism", "Prism Flare", "jpg", "composite", "light-leak", {}, drawLightLeakPrism);
  add("dust-fine", "Fine Dust", "jpg", "composite", "dust-and-scratches", {}, drawDustFine);
  add("dust-heavy", "Dust and Hairs", "jpg", "composite", "dust-and-scratches", {}, drawDustHeavy);
  add("scratches-vertical", "Projector Scratches", "jpg", "composite", "dust-and-scratches", {}, drawScratchesVertical);
  add("film-burn-edge", "Edge Burn", "jpg", "composite", "film-burn",
      {rule("height", "height", 1.0), rule("MaxX", "MaxX", NAN, 0.02), rule("MidY", "MidY")}, drawFilmBurnEdge);
  add("film-burn-centre", "Centre Burn", "jpg", "composite", "film-burn",
      {rule("width", "width", 0.8), rule("MidX", "MidX"), rule("MidY", "MidY", NAN, 0.0)}, drawFilmBurnCentre);
  // Tiles.
  add("paper-cotton", "Cotton Paper", "jpg", "tile", "paper", {},
      [](const fs::path& p) { drawPaper(p, 141, {0.95, 0.94, 0.90}, 0.05, 0.05, 60); });
  add("paper-kraft", "Kraft Paper", "jpg", "tile", "paper", {},
      [](const fs::path& p) { drawPaper(p, 151, {0.72, 0.55, 0.37}, 0.12, 0.08, 900); });
  add("paper-parchment", "Parchment", "jpg", "tile", "paper", {},
      [](const fs::path& p) { drawPaper(p, 161, {0.93, 0.84, 0.64}, 0.05, 0.22, 150); });
  add("fabric-linen", "Linen", "jpg", "tile", "fabric", {},
      [](const fs::path& p) { drawWeave(p, 171, 128, {0.84, 0.80, 0.72}, {0.80, 0.76, 0.67}, false, 0.45); });
  add("fabric-canvas", "Artist Canvas", "jpg", "tile", "fabric", {},
      [](const fs::path& p) { drawWeave(p, 181, 96, {0.94, 0.92, 0.87}, {0.91, 0.89, 0.83}, false, 0.2); });
  add("fabric-denim", "Denim", "jpg", "tile", "fabric", {},
      [](const fs::path& p) { drawWeave(p, 191, 256, {0.17, 0.26, 0.46}, {0.82, 0.82, 0.80}, true, 0.5); });
  // Borders.
  add("border-film-35mm", "35 mm Film Frame", "png", "border", "film-frame", {},
      [](const fs::path& p) { drawFilmFrame(p, false); });
  add("border-film-negative", "Film Negative Frame", "png", "border", "film-frame", {},
      [](const fs::path& p) { drawFilmFrame(p, true); });
  add("border-deckle-cream", "Cream Deckle Edge", "png", "border", "deckle-edge", {},
      [](const fs::path& p) { drawDeckle(p, {0.95, 0.92, 0.84}, 201, 110); });
  add("border-deckle-white", "White Deckle Edge", "png", "border", "deckle-edge", {},
      [](const fs::path& p) { drawDeckle(p, {0.98, 0.98, 0.97}, 211, 70); });
  add("border-grunge-black", "Black Grunge Frame", "png", "border", "grunge-frame", {}, drawGrungeFrame);
  return t;
}

Value indexOf(const std::vector<Texture>& textures) {
  Dictionary map;
  for (const auto& t : textures) {
    Dictionary record{{"displayName", t.displayName},
                      {"fileName", t.fileName},
                      {"tags", Value(Array{t.kind, t.subTag})}};
    if (!t.constraints.empty()) record["constraints"] = Value(t.constraints);
    map[t.key] = Value(record);
  }
  return Value(Dictionary{{"textures", Value(map)}});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: texturegen RESOURCES_DIR [--only KEY]... [--list]\n");
    return 2;
  }
  const fs::path resources = argv[1];
  std::set<std::string> only;
  bool listOnly = false;
  for (int i = 2; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--only" && i + 1 < argc) {
      only.insert(argv[++i]);
    } else if (a == "--list") {
      listOnly = true;
    } else {
      std::fprintf(stderr, "texturegen: unknown argument %s\n", a.c_str());
      return 2;
    }
  }
  const auto textures = catalogue();
  for (const auto& key : only) {
    if (std::none_of(textures.begin(), textures.end(), [&](const Texture& t) { return t.key == key; })) {
      std::fprintf(stderr, "texturegen: no texture is named %s (see --list)\n", key.c_str());
      return 2;
    }
  }
  if (listOnly) {
    for (const auto& t : textures) std::printf("%s\t%s\t%s/%s\n", t.key.c_str(), t.fileName.c_str(), t.kind.c_str(), t.subTag.c_str());
    return 0;
  }
  try {
    fs::create_directories(resources / "Textures");
    for (const auto& t : textures) {
      if (!only.empty() && !only.count(t.key)) continue;
      std::printf("drawing %s\n", t.fileName.c_str());
      std::fflush(stdout);
      t.draw(resources / "Textures" / t.fileName);
    }
    if (!writePropertyList(indexOf(textures), (resources / "TextureIndex.plist").string())) {
      std::fprintf(stderr, "texturegen: cannot write %s\n", (resources / "TextureIndex.plist").c_str());
      return 1;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "texturegen: %s\n", e.what());
    return 1;
  }
  return 0;
}

// The blur category and CIUnsharpMask.
//
// Every blur returns a node whose extent is the input's grown by the kernel's reach, so that a
// caller that clamps the input first and crops back afterwards sees no fringe. Algorithms, where
// the platform leaves them open:
//   CIGaussianBlur   inputRadius is the standard deviation. Below 0.16 the input comes back
//                    unchanged; below kDirectSigma a direct convolution with the sampled
//                    Gaussian truncated at ceil(3σ); above, three passes of two nested boxes per
//                    axis (cost independent of σ, within the golden tolerance of the direct
//                    kernel), whichever is faster (BlurKernels.h); σ is capped at 500.
//                    The extent grows by the kernel's reach: ceil(3σ) per side below the switch,
//                    about 3.75σ above.
//   CIBoxBlur        mean over a square of side 2r+1, r = inputRadius rounded (capped at 1000);
//                    r = 0 returns the input.
//   CIDiscBlur       mean over the pixels with dx² + dy² <= r² (hard edge); r < 1 returns the input.
//   CIMotionBlur     mean of 2·ceil(r)+1 bilinear samples evenly spaced on the segment from
//                    p − r·u to p + r·u, u = (cos angle, sin angle): a symmetric smear.
//   CIMedianFilter   per-channel median of the 3×3 neighbourhood; extent the input's.
//   CINoiseReduction each pixel becomes the mean of those 3×3 neighbours whose luminance differs
//                    from its own by less than inputNoiseLevel (itself always included); the
//                    result is then sharpened: d + inputSharpness · (d − 3×3 mean of d).
//   CIMaskedVariableBlur  Gaussians of σ = r·k/4, k = 1..4; per pixel the mask's luminance
//                    (0..1) picks σ = r·luminance, interpolating linearly between the two
//                    nearest levels (level 0 is the input). A nil mask returns the input.
//   CIBokehBlur      a disc of radius r whose rim (r·(1 − ringSize) < d <= r) weighs
//                    1 + ringAmount, followed by a Gaussian of σ = softness.
//   CIMorphologyMaximum/Minimum   per-channel max/min over the disc dx² + dy² <= r².
//   CIMorphologyGradient          colour: max − min over the disc; alpha: the max's alpha.
//   CIMorphologyRectangleMaximum/Minimum  per-channel max/min over a rectangle whose sides are
//                    inputWidth and inputHeight rounded to the nearest odd integer (at least 1).
//   CIZoomBlur       mean of bilinear samples along the ray through p and inputCenter, from p
//                    towards the centre over a length of inputAmount pixels (stopping at the
//                    centre), or away from it for a negative amount; ceil(length)+1 samples.
//   CIUnsharpMask    image + intensity · (image − Gaussian(image, radius)); extent the input's.
// Sizes are capped (radii at 1000 pixels, disc and morphology-disc radii at 200, blur σ at 500) so that no tile asks for an unbounded
// region; the morphology, disc and zoom blurs are exact in any tiling; the box sums are exact too
// (see BlurKernels.h), so a tiled render equals a whole render bit for bit.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

#include "CoreImage/Builtins/BlurKernels.h"
#include "CoreImage/Builtins/BlurNode.h"
#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/Builtins/InputTables.h"
#include "CoreImage/Builtins/ZoomBlurKernel.h"

namespace {

using qv::blur::BlurNode;
using qv::blur::Float4;
using qv::blur::growExtent;
using qv::blur::separableImage;
using qv::blur::SeparablePlan;
using qv::blur::TileBuffer;

constexpr double kMaxRadius = 1000.0;
// Discs cost O(radius) per pixel: their radius is capped lower.
constexpr double kMaxDiscRadius = 200.0;
using qv::blur::kMaxLineSamples;

using qv::builtins::numberInput;
using qv::builtins::positionInput;
using qv::builtins::kAbsent;

// A finite radius in [0, limit]; NaN reads as 0.
double clampRadius(double r, double limit = kMaxRadius) { return std::isfinite(r) || r > 0 ? std::clamp(r, 0.0, limit) : 0.0; }

// Premultiplied working-space luminance (Rec. 709 weights).
inline float luminance(const float* p) { return 0.2126f * p[0] + 0.7152f * p[1] + 0.0722f * p[2]; }

// ---- Gaussian, box, disc ----

class GaussianBlurFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const SeparablePlan plan = qv::blur::planGaussian(inputDouble(kCIInputRadiusKey));
    if (plan.identity()) return image;
    return separableImage("CIGaussianBlur", image, plan);
  }
};

class BoxBlurFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const int r = int(std::floor(clampRadius(inputDouble(kCIInputRadiusKey)) + 0.5));
    if (r == 0) return image;
    return separableImage("CIBoxBlur", image, qv::blur::planBox(r, r));
  }
};

class DiscBlurFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const double r = clampRadius(inputDouble(kCIInputRadiusKey), kMaxDiscRadius);
    const int s = qv::blur::discSupport(r);
    if (s == 0) return image;
    return BlurNode::make("CIDiscBlur", growExtent(image.extent(), s, s), {image}, s, s,
                          [r](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            qv::blur::discBlur(in[0], out, r);
                          });
  }
};

class BokehBlurFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const double r = clampRadius(inputDouble(kCIInputRadiusKey), kMaxDiscRadius);
    const double ringAmount = std::clamp(inputDouble("inputRingAmount"), 0.0, 1.0);
    const double ringSize = std::clamp(inputDouble("inputRingSize"), 0.0, 1.0);
    const SeparablePlan soft = qv::blur::planGaussian(inputDouble("inputSoftness"));
    const int ds = qv::blur::discSupport(r);
    if (ds == 0 && soft.identity()) return image;
    const int sx = ds + soft.supportX(), sy = ds + soft.supportY();
    return BlurNode::make("CIBokehBlur", growExtent(image.extent(), sx, sy), {image}, sx, sy,
                          [=](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            if (soft.identity()) return qv::blur::discBlur(in[0], out, r, ringAmount, ringSize);
                            TileBuffer disc(out.rect.outset(soft.supportX(), soft.supportY()));
                            qv::blur::discBlur(in[0], disc.tile(), r, ringAmount, ringSize);
                            qv::blur::applySeparable(disc.constTile(), out, soft);
                          });
  }
};

// ---- Motion and zoom ----

class MotionBlurFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const double r = clampRadius(inputDouble(kCIInputRadiusKey));
    double angle = inputDouble(kCIInputAngleKey);
    if (!std::isfinite(angle)) angle = 0;
    if (r <= 0) return image;
    const double ux = std::cos(angle), uy = std::sin(angle);
    const int sx = int(std::ceil(r * std::fabs(ux))) + 1, sy = int(std::ceil(r * std::fabs(uy))) + 1;
    const int n = std::min(2 * int(std::ceil(r)) + 1, kMaxLineSamples);
    return BlurNode::make("CIMotionBlur", growExtent(image.extent(), sx, sy), {image}, sx, sy,
                          [=](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            const float inv = 1.0f / float(n);
                            for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
                              float* o = out.row(y);
                              for (std::int64_t x = 0; x < out.rect.width; ++x) {
                                Float4 acc = {0, 0, 0, 0};
                                const double px = double(out.rect.x + x) + 0.5, py = double(y) + 0.5;
                                for (int k = 0; k < n; ++k) {
                                  const double t = -r + 2.0 * r * k / (n - 1);
                                  qv::blur::addBilinear(in[0], px + t * ux, py + t * uy, acc);
                                }
                                acc *= inv;
                                std::memcpy(o + x * 4, &acc, sizeof acc);
                              }
                            }
                          });
  }
};

class ZoomBlurFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    double amount = inputDouble("inputAmount");
    if (!std::isfinite(amount)) amount = 0;
    amount = std::clamp(amount, -kMaxRadius, kMaxRadius);
    if (amount == 0) return image;
    const CIVectorRef centre = inputVector(kCIInputCenterKey);
    const double cx = centre ? centre->X() : 150.0, cy = centre ? centre->Y() : 150.0;
    if (!std::isfinite(cx) || !std::isfinite(cy)) return image;
    const int s = int(std::ceil(std::fabs(amount))) + 1;
    return BlurNode::make("CIZoomBlur", growExtent(image.extent(), s, s), {image}, s, s,
                          [=](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            qv::blur::zoomBlur(in[0], out, cx, cy, amount);
                          });
  }
};

// ---- Median and noise reduction ----

class MedianFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    return BlurNode::make("CIMedianFilter", image.extent(), {image}, 1, 1,
                          [](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            qv::blur::median3x3(in[0], out);
                          });
  }
};

class NoiseReductionFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    double noise = inputDouble("inputNoiseLevel"), sharpness = inputDouble("inputSharpness");
    if (!std::isfinite(noise)) noise = 0;
    if (!std::isfinite(sharpness)) sharpness = 0;
    if (noise <= 0 && sharpness == 0) return image;
    const float level = float(noise), sharp = float(std::clamp(sharpness, -100.0, 100.0));
    return BlurNode::make("CINoiseReduction", growExtent(image.extent(), 2, 2), {image}, 2, 2,
                          [=](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            // Stage 1: luminance-gated 3×3 mean over the output grown by one.
                            TileBuffer d(out.rect.outset(1, 1));
                            const ConstPixelTile& src = in[0];
                            for (std::int64_t y = d.rect.y; y < d.rect.maxY(); ++y)
                              for (std::int64_t x = d.rect.x; x < d.rect.maxX(); ++x) {
                                const float* p = src.at(x, y);
                                const float yp = luminance(p);
                                float acc[4] = {p[0], p[1], p[2], p[3]};
                                int count = 1;
                                for (int dy = -1; dy <= 1; ++dy)
                                  for (int dx = -1; dx <= 1; ++dx) {
                                    if (dx == 0 && dy == 0) continue;
                                    const float* q = src.at(x + dx, y + dy);
                                    if (std::fabs(luminance(q) - yp) < level) {
                                      for (int c = 0; c < 4; ++c) acc[c] += q[c];
                                      ++count;
                                    }
                                  }
                                float* t = d.tile().at(x, y);
                                for (int c = 0; c < 4; ++c) t[c] = acc[c] / float(count);
                              }
                            // Stage 2: unsharp against the 3×3 mean of stage 1.
                            const ConstPixelTile dt = d.constTile();
                            for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
                              for (std::int64_t x = out.rect.x; x < out.rect.maxX(); ++x) {
                                float mean[4] = {0, 0, 0, 0};
                                for (int dy = -1; dy <= 1; ++dy)
                                  for (int dx = -1; dx <= 1; ++dx) {
                                    const float* q = dt.at(x + dx, y + dy);
                                    for (int c = 0; c < 4; ++c) mean[c] += q[c];
                                  }
                                const float* c0 = dt.at(x, y);
                                float* o = out.at(x, y);
                                for (int c = 0; c < 4; ++c) o[c] = c0[c] + sharp * (c0[c] - mean[c] / 9.0f);
                              }
                          });
  }
};

// ---- Masked variable blur ----

class MaskedVariableBlurFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const CIImage mask = inputImageForKey("inputMask");
    if (!mask) return image;
    const double r = std::min(clampRadius(inputDouble(kCIInputRadiusKey)), qv::blur::kMaxSigma);
    constexpr int kLevels = 4;
    std::vector<SeparablePlan> plans;
    for (int k = 1; k <= kLevels; ++k) plans.push_back(qv::blur::planGaussian(r * k / kLevels));
    if (plans.back().identity()) return image;
    const int sx = plans.back().supportX(), sy = plans.back().supportY();
    // Each level is a Gaussian of its own pair of passes (bounded work per tile whatever the
    // radius); the node only mixes the image and the levels by the mask, pixel by pixel.
    std::vector<CIImage> inputs{image, mask};
    for (std::size_t k = 0; k < plans.size(); ++k)
      inputs.push_back(plans[k].identity() ? image : separableImage("CIMaskedVariableBlur level", image, plans[k]));
    return BlurNode::make("CIMaskedVariableBlur", growExtent(image.extent(), sx, sy), std::move(inputs), 0, 0,
                          [](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y)
                              for (std::int64_t x = out.rect.x; x < out.rect.maxX(); ++x) {
                                const float m = std::clamp(luminance(in[1].at(x, y)), 0.0f, 1.0f) * float(kLevels);
                                const int k = std::min(int(m), kLevels - 1);
                                const float f = m - float(k);
                                const float* a = k == 0 ? in[0].at(x, y) : in[std::size_t(k) + 1].at(x, y);
                                const float* b = in[std::size_t(k) + 2].at(x, y);
                                float* o = out.at(x, y);
                                for (int c = 0; c < 4; ++c) o[c] = a[c] + f * (b[c] - a[c]);
                              }
                          });
  }
};

// ---- Morphology ----

CIImage morphologyDiscImage(const CIImage& image, double radius, bool maximum) {
  if (!image) return {};
  const double r = clampRadius(radius, kMaxDiscRadius);
  const int s = qv::blur::discSupport(r);
  if (s == 0) return image;
  // A minimum cannot reach beyond the input (the transparent surround is in every window).
  const CGRect extent = maximum ? growExtent(image.extent(), s, s) : image.extent();
  return BlurNode::make(maximum ? "CIMorphologyMaximum" : "CIMorphologyMinimum", extent, {image}, s, s,
                        [=](const PixelTile& out, std::span<const ConstPixelTile> in) {
                          qv::blur::morphologyDisc(in[0], out, r, maximum);
                        });
}

class MorphologyMaximumFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    return morphologyDiscImage(inputImageForKey(kCIInputImageKey), inputDouble(kCIInputRadiusKey), true);
  }
};

class MorphologyMinimumFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    return morphologyDiscImage(inputImageForKey(kCIInputImageKey), inputDouble(kCIInputRadiusKey), false);
  }
};

class MorphologyGradientFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    const double r = clampRadius(inputDouble(kCIInputRadiusKey), kMaxDiscRadius);
    const int s = qv::blur::discSupport(r);
    return BlurNode::make("CIMorphologyGradient", growExtent(image.extent(), s, s), {image}, s, s,
                          [=](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            TileBuffer lo(out.rect);
                            qv::blur::morphologyDisc(in[0], out, r, true);
                            qv::blur::morphologyDisc(in[0], lo.tile(), r, false);
                            const ConstPixelTile l = lo.constTile();
                            for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
                              float* o = out.row(y);
                              const float* m = l.row(y);
                              for (std::int64_t i = 0; i < out.rect.width * 4; i += 4)
                                for (int c = 0; c < 3; ++c) o[i + c] -= m[i + c];
                            }
                          });
  }
};

// Rounds a side to the nearest odd whole number, at least 1; returns the half-width.
int oddHalfWidth(double side) {
  if (!std::isfinite(side) || side < 1) return 0;
  side = std::min(side, 2 * kMaxRadius + 1);
  return int(std::floor((side - 1) / 2 + 0.5));
}

CIImage morphologyRectangleImage(const CIImage& image, double width, double height, bool maximum) {
  if (!image) return {};
  const int rx = oddHalfWidth(width), ry = oddHalfWidth(height);
  if (rx == 0 && ry == 0) return image;
  // A rectangle's extremum is separable, and exactly so: along rows, then along columns, as two
  // nodes, so that a tile reads a band of (tile + 2 rx) by tile pixels and then one of tile by
  // (tile + 2 ry), never the square of both that one node would need at the largest sides.
  const std::string name = maximum ? "CIMorphologyRectangleMaximum" : "CIMorphologyRectangleMinimum";
  const CGRect rowsExtent = maximum ? growExtent(image.extent(), rx, 0) : image.extent();
  const CIImage rows = rx == 0 ? image
                               : BlurNode::make(name + " rows", rowsExtent, {image}, rx, 0,
                                                [=](const PixelTile& out, std::span<const ConstPixelTile> in) {
                                                  qv::blur::morphologyRect(in[0], out, rx, 0, maximum);
                                                });
  if (ry == 0) return rows;
  const CGRect extent = maximum ? growExtent(image.extent(), rx, ry) : image.extent();
  return BlurNode::make(name, extent, {rows}, 0, ry, [=](const PixelTile& out, std::span<const ConstPixelTile> in) {
    qv::blur::morphologyRect(in[0], out, 0, ry, maximum);
  });
}

class MorphologyRectangleMaximumFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    return morphologyRectangleImage(inputImageForKey(kCIInputImageKey), inputDouble(kCIInputWidthKey),
                                    inputDouble("inputHeight"), true);
  }
};

class MorphologyRectangleMinimumFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    return morphologyRectangleImage(inputImageForKey(kCIInputImageKey), inputDouble(kCIInputWidthKey),
                                    inputDouble("inputHeight"), false);
  }
};

// ---- Unsharp mask ----

class UnsharpMaskFilter final : public CIBuiltinFilter {
 public:
  CIImage outputImage() const override {
    const CIImage image = inputImageForKey(kCIInputImageKey);
    if (!image) return {};
    double intensity = inputDouble(kCIInputIntensityKey);
    if (!std::isfinite(intensity)) intensity = 0;
    const SeparablePlan plan = qv::blur::planGaussian(inputDouble(kCIInputRadiusKey));
    if (intensity == 0 || plan.identity()) return image;
    const float k = float(std::clamp(intensity, -1000.0, 1000.0));
    // The blur is the Gaussian's own pair of passes, whose tiles read a band of rows and stream
    // down columns; one node blurring in both directions would read a square of (tile + twice
    // the support) per tile, gigabytes at the largest radii.
    const CIImage blurred = separableImage("CIUnsharpMask blur", image, plan);
    return BlurNode::make("CIUnsharpMask", image.extent(), {image, blurred}, 0, 0,
                          [k](const PixelTile& out, std::span<const ConstPixelTile> in) {
                            for (std::int64_t y = out.rect.y; y < out.rect.maxY(); ++y) {
                              float* o = out.row(y);
                              const float* p = in[0].at(out.rect.x, y);
                              const float* b = in[1].at(out.rect.x, y);
                              for (std::int64_t i = 0; i < out.rect.width * 4; ++i) o[i] = p[i] + k * (p[i] - b[i]);
                            }
                          });
  }
};

template <class T>
void registerBlur(const char* name, const char* displayName, std::vector<CIInputSpec> inputs) {
  inputs.insert(inputs.begin(), imageInputSpec());
  registerBuiltin<T>(name, displayName, {kCICategoryBlur, kCICategoryStillImage, "CICategoryVideo"}, std::move(inputs));
}

}  // namespace

void registerBlurBuiltins() {
  const double pi = std::numbers::pi;
  registerBlur<GaussianBlurFilter>(
      "CIGaussianBlur", "Gaussian Blur",
      {numberInput(kCIInputRadiusKey, kCIAttributeTypeScalar, 10.0, 0.0, 0.0, kAbsent, 0.0, 100.0)});
  registerBlur<BoxBlurFilter>("CIBoxBlur", "Box Blur",
                              {numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 10.0, kAbsent, 1.0, kAbsent, 1.0, 100.0)});
  registerBlur<DiscBlurFilter>("CIDiscBlur", "Disc Blur",
                               {numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 8.0, kAbsent, 0.0, kAbsent, 0.0, 100.0)});
  registerBlur<MotionBlurFilter>(
      "CIMotionBlur", "Motion Blur",
      {numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 20.0, 0.0, 0.0, kAbsent, 0.0, 100.0),
       numberInput(kCIInputAngleKey, kCIAttributeTypeAngle, 0.0, 0.0, kAbsent, kAbsent, -pi, pi)});
  registerBlur<MedianFilter>("CIMedianFilter", "Median", {});
  registerBlur<NoiseReductionFilter>(
      "CINoiseReduction", "Noise Reduction",
      {numberInput("inputNoiseLevel", kCIAttributeTypeScalar, 0.02, 0.0, 0.0, kAbsent, 0.0, 0.1),
       numberInput("inputSharpness", kCIAttributeTypeScalar, 0.4, 0.0, 0.0, kAbsent, 0.0, 2.0)});
  {
    CIInputSpec mask = imageInputSpec("inputMask");
    registerBlur<MaskedVariableBlurFilter>(
        "CIMaskedVariableBlur", "Masked Variable Blur",
        {mask, numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 5.0, kAbsent, 0.0, kAbsent, 0.0, 10.0)});
  }
  registerBlur<BokehBlurFilter>(
      "CIBokehBlur", "Bokeh Blur",
      {numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 20.0, kAbsent, 0.0, 500.0, 0.0, 100.0),
       numberInput("inputRingAmount", kCIAttributeTypeScalar, 0.0, kAbsent, 0.0, 1.0, 0.0, 1.0),
       numberInput("inputRingSize", kCIAttributeTypeScalar, 0.1, kAbsent, 0.0, 0.2, 0.0, 0.2),
       numberInput("inputSoftness", kCIAttributeTypeScalar, 1.0, kAbsent, 0.0, 10.0, 0.25, 0.4)});
  registerBlur<MorphologyGradientFilter>(
      "CIMorphologyGradient", "Morphology Gradient",
      {numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 5.0, 0.0, 0.0, kAbsent, 0.0, 50.0)});
  registerBlur<MorphologyMaximumFilter>(
      "CIMorphologyMaximum", "Morphology Maximum",
      {numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 0.0, 0.0, kAbsent, kAbsent, 0.0, 50.0)});
  registerBlur<MorphologyMinimumFilter>(
      "CIMorphologyMinimum", "Morphology Minimum",
      {numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 0.0, 0.0, kAbsent, kAbsent, 0.0, 50.0)});
  auto rectInputs = [] {
    return std::vector<CIInputSpec>{
        numberInput(kCIInputWidthKey, kCIAttributeTypeInteger, 5, 1, 1, kAbsent, 1, 49),
        numberInput("inputHeight", kCIAttributeTypeInteger, 5, 1, 1, kAbsent, 1, 49)};
  };
  registerBlur<MorphologyRectangleMaximumFilter>("CIMorphologyRectangleMaximum", "Morphology Rectangle Maximum",
                                                 rectInputs());
  registerBlur<MorphologyRectangleMinimumFilter>("CIMorphologyRectangleMinimum", "Morphology Rectangle Minimum",
                                                 rectInputs());
  registerBlur<ZoomBlurFilter>("CIZoomBlur", "Zoom Blur",
                               {positionInput(kCIInputCenterKey, 150, 150),
                                numberInput("inputAmount", kCIAttributeTypeDistance, 20.0, 0.0, kAbsent, kAbsent, -200.0, 200.0)});

  registerBuiltin<UnsharpMaskFilter>(
      "CIUnsharpMask", "Unsharp Mask", {kCICategorySharpen, kCICategoryStillImage, "CICategoryVideo"},
      {imageInputSpec(), numberInput(kCIInputRadiusKey, kCIAttributeTypeDistance, 2.5, 0.0, 0.0, kAbsent, 0.0, 100.0),
       numberInput(kCIInputIntensityKey, kCIAttributeTypeScalar, 0.5, 0.0, 0.0, kAbsent, 0.0, 1.0)});
}

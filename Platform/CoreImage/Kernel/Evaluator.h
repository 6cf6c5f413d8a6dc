// The vectorised evaluator of kernel programs: runs each IR instruction over a batch of up to
// kLanes pixels at once.
#pragma once

#include <span>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/ImageNode.h"
#include "CoreImage/Kernel/IR.h"

namespace cikl {

inline constexpr int kLanes = 256;
// Loops stop after this many iterations per loop entry, and a batch stops all loops after
// kMaxLoopIterationsPerBatch iterations in total, so no program can run without end.
inline constexpr int kMaxLoopIterationsPerBatch = 1 << 16;

// One input image as a kernel reads it: the pixels the renderer delivered (its region of
// interest), the image's extent, and how reads outside the extent and between texels behave.
struct SamplerInput {
  ConstPixelTile tile;
  CGRect extent = CGRectNull;
  bool clamp = false;    // outside the extent: the nearest edge texel (else transparent)
  bool nearest = false;  // nearest texel (else bilinear between texel centres)
};

// Produces out.rect: destCoord of pixel (x, y) is (x + 0.5, y + 0.5). `params` holds the
// program's parameter floats.
void evaluate(const Program& program, const PixelTile& out, std::span<const SamplerInput> inputs,
              std::span<const float> params);

// The texel range of `extent` (the pixels it touches), clamped to ±PixelRect::kPixelLimit.
PixelRect texelRange(const CGRect& extent);

}  // namespace cikl

// The zoom blur's per-tile loop (CIZoomBlur, see BlurBuiltins.cpp for its definition).
#pragma once

#include "CoreImage/ImageNode.h"

namespace qv::blur {

// Samples along one pixel's line in the motion and zoom blurs: one per pixel of the line up to
// this many, then spread evenly, so a pixel's cost stays bounded whatever the radius.
constexpr int kMaxLineSamples = 257;

// Renders `out`: each pixel p the mean of ceil(length) + 1 bilinear samples of `in` spaced evenly
// from p along the ray through p and (cx, cy), over length = min(amount, |p - c|) towards the
// centre, or -amount away from it for a negative amount (at most kMaxLineSamples samples). `in`
// covers out.rect grown by ceil(|amount|) + 1 on every side.
//
// Where a pixel's whole line lies inside `in` (all pixels but those whose line leaves the
// input's pixels), the samples are placed in single precision relative to the pixel's own
// texel, eight at a time, and each reads its two rows of two texels as two 8-float loads: the
// placements differ from the double-precision ones by at most a few 1e-4 of a pixel at the
// line's far end (results within 1e-4 of a sample's range, far inside the 8-bit golden
// tolerance). Results depend only on the pixel, not on the tiling: tiled renders equal whole
// ones bit for bit.
void zoomBlur(const ConstPixelTile& in, const PixelTile& out, double cx, double cy, double amount);

}  // namespace qv::blur

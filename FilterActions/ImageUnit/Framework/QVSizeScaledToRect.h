// Fitting a size into a rectangle under a named gravity.
//
//   kCAGravityResizeAspect      scale by the smaller of the two ratios (target / size), so the
//                               size fits wholly inside the rectangle and touches it on two
//                               sides; centred on the other axis.
//   kCAGravityResizeAspectFill  scale by the larger ratio, so the size covers the whole
//                               rectangle; centred, the overflow split equally on both sides.
//   kQVGravityResizeAspectMax   the gravity of textures laid over (or framing) an image: scale
//                               by the larger ratio, so the texture keeps its proportions and
//                               reaches every edge of the image, centred on the rectangle. A
//                               texture placed by it never leaves a bare strip of the image,
//                               and a picture placed in a frame's rectangle by it fills the
//                               frame completely.
//
// Any other gravity name leaves the rectangle as given (the size stretched over it).
// A size with a side that is not positive (zero, negative or not a number) has no scale that
// fits it; the result is then the empty rectangle at the rectangle's centre.
#pragma once

#include <string>

#include "CoreGraphics/CGGeometry.h"

inline constexpr const char* kCAGravityResizeAspect = "resizeAspect";
inline constexpr const char* kCAGravityResizeAspectFill = "resizeAspectFill";
inline constexpr const char* kQVGravityResizeAspectMax = "resizeAspectMax";

CGRect QVSizeScaledToRect(CGSize size, CGRect rect, const std::string& gravity);

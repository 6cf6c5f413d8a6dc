// Pixels between a GIMP drawable and the image engine, through GEGL buffers: the drawable as an
// input image (8-bit sRGB drawables as the engine's own 8-bit images, read and written as they
// are stored and converted by the engine on its render threads; every other precision as
// premultiplied linear RGBA float in the image's own colour space), and a filter's output
// written back in strips of one renderer through the shadow buffer, each strip sent to GIMP
// while the next renders, so that GIMP merges it through the selection in one undo step.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "CoreImage/CIImage.h"

namespace qvgimp {

class PixelError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// True when the drawable's pixels cross between GIMP and the engine in the format they are
// stored in, with no conversion by babl: 8-bit perceptual RGB or RGBA of an image without a
// colour profile of its own (so in sRGB). Asked of GIMP alone, so that it is known before GEGL
// and babl are started.
bool crossesUnconverted(std::int32_t image, std::int32_t drawable);

// The whole drawable as an image with its extent at (0, 0, width, height), origin bottom-left
// as the engine has it.
CIImage drawableImage(std::int32_t drawable);

// The drawable scaled down to fit `maxSide` x `maxSide` (never up), read through GEGL's own
// downsampling so that only the small copy is held, with its extent at (0, 0, w, h). `scale`
// receives the factor from the drawable's size to the copy's.
CIImage drawablePreviewImage(std::int32_t drawable, int maxSide, double& scale);

// What applyOutput did: the rectangle of the drawable that changed, in drawable coordinates
// (origin top-left), and whether the layer was resized to the output's extent.
struct ApplyResult {
  int x = 0, y = 0, width = 0, height = 0;
  bool resized = false;
};

// Writes `output` (an image computed from drawableImage(drawable)) into the drawable in one undo
// group. When its integral extent is the drawable's, only the selection's bounds are rendered
// and GIMP merges them through the (feathered) selection; otherwise the layer is resized to the
// output's extent, the whole output written and the selection left out. Throws PixelError.
ApplyResult applyOutput(std::int32_t image, std::int32_t drawable, const CIImage& output);

}  // namespace qvgimp

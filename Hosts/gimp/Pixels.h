// Pixels between a GIMP drawable and the image engine, through GEGL buffers: the drawable as an
// input image whose rows are read as the render needs them (8-bit sRGB drawables as the
// engine's own 8-bit rows, read and written as they are stored and converted by the engine on
// its render threads; every other precision as premultiplied linear RGBA float in the image's
// own colour space), and a filter's output written back in strips of one renderer through the
// shadow buffer, each strip sent to GIMP while the next renders, so that GIMP merges it
// through the selection in one undo step.
#pragma once

#include <cstdint>
#include <memory>
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

// Where an input image's rows come from: the drawable's buffer in GIMP, read as the render's
// tiles need them (see drawableInput).
class DrawableRows;

// The drawable as the input image of a render, with its extent at (0, 0, width, height), origin
// bottom-left as the engine has it. Its rows are read from GIMP's tiles in bands of whole tile
// rows as the render's tiles need them, by the render's threads and by a reader thread ahead of
// them, so that the read overlaps the render and the layer is never copied whole. `rows` is
// their source, which applyOutput reads whole before it changes the layer's size.
struct DrawableInput {
  CIImage image;
  std::shared_ptr<DrawableRows> rows;
};
DrawableInput drawableInput(std::int32_t drawable);

// The whole drawable read now and held in memory, with its extent at (0, 0, width, height): an
// image input chosen in a dialog, which keeps the pixels it had when it was chosen.
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
// output's extent, the whole output written and the selection left out; `input` (the
// drawable's own rows the output is computed from, or null) is then read whole first. Throws
// PixelError.
ApplyResult applyOutput(std::int32_t image, std::int32_t drawable, const CIImage& output, DrawableRows* input);

}  // namespace qvgimp

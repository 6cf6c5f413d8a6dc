// The image node of an applied kernel: its inputs are the images of the kernel's sampler and
// __sample arguments, in argument order; it evaluates the compiled program over each region the
// renderer asks for.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CoreImage/CIColor.h"
#include "CoreImage/ImageNode.h"
#include "CoreImage/Kernel/IR.h"

class KernelNode final : public ImageNode {
 public:
  struct InputMode {
    bool clamp = false;
    bool nearest = false;
    bool exact = false;  // a __sample input: only the texel under each pixel is read
  };
  struct ColorSlot {
    int firstFloat;
    CIColorRef color;
  };

  KernelNode(CGRect extent, std::vector<CIImage> inputs, std::vector<InputMode> modes,
             std::shared_ptr<const cikl::Program> program, std::vector<float> floats, std::vector<ColorSlot> colors,
             std::string kernelName);

  // One-to-one: the destination rectangle, with a one-texel apron for bilinear reads at
  // computed positions; for clamp samplers the rectangle is brought inside the image, whose
  // edge texels then repeat.
  PixelRect regionOfInterest(std::size_t index, const PixelRect& rect) const override;
  void render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const override;
  std::string name() const override { return "kernel " + kernelName_; }

  const cikl::Program& program() const { return *program_; }

 private:
  std::vector<InputMode> modes_;
  // Per input: whether the program reads it between texels (a sample at a computed position),
  // which needs a one-texel apron; inputs read only under each pixel need none.
  std::vector<char> apron_;
  std::shared_ptr<const cikl::Program> program_;
  std::vector<float> floats_;
  std::vector<ColorSlot> colors_;
  std::string kernelName_;
};

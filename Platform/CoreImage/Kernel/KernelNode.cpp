#include "CoreImage/Kernel/KernelNode.h"

#include <algorithm>

#include "CoreImage/ColorSpace.h"
#include "CoreImage/Kernel/Evaluator.h"

KernelNode::KernelNode(CGRect extent, std::vector<CIImage> inputs, std::vector<InputMode> modes,
                       std::shared_ptr<const cikl::Program> program, std::vector<float> floats,
                       std::vector<ColorSlot> colors, std::string kernelName)
    : ImageNode(extent, std::move(inputs)),
      modes_(std::move(modes)),
      program_(std::move(program)),
      floats_(std::move(floats)),
      colors_(std::move(colors)),
      kernelName_(std::move(kernelName)) {
  apron_.assign(modes_.size(), 0);
  for (const auto* code : {&program_->prologue, &program_->body})
    for (const cikl::Instr& in : *code)
      if (in.op == cikl::Op::Sample && in.aux >= 0 && std::size_t(in.aux) < apron_.size()) apron_[std::size_t(in.aux)] = 1;
}

PixelRect KernelNode::regionOfInterest(std::size_t index, const PixelRect& rect) const {
  if (index >= modes_.size() || index >= inputs().size() || rect.empty()) return {};
  const InputMode& mode = modes_[index];
  const PixelRect image = cikl::texelRange(inputs()[index].extent());
  if (image.empty()) return {};
  const PixelRect want = (mode.exact || mode.nearest || !apron_[index]) ? rect : rect.outset(1, 1);
  if (mode.clamp) {
    // Every read lands on a texel of the image: bring the rectangle inside it.
    auto span = [](std::int64_t lo, std::int64_t hi, std::int64_t min, std::int64_t max) {
      std::int64_t a = std::clamp(lo, min, max - 1), b = std::clamp(hi, min + 1, max);
      return std::pair{a, b};
    };
    auto [x0, x1] = span(want.x, want.maxX(), image.x, image.maxX());
    auto [y0, y1] = span(want.y, want.maxY(), image.y, image.maxY());
    return {x0, y0, x1 - x0, y1 - y0};
  }
  std::int64_t x0 = std::max(want.x, image.x), y0 = std::max(want.y, image.y);
  std::int64_t x1 = std::min(want.maxX(), image.maxX()), y1 = std::min(want.maxY(), image.maxY());
  if (x1 <= x0 || y1 <= y0) return {};
  return {x0, y0, x1 - x0, y1 - y0};
}

void KernelNode::render(const PixelTile& out, std::span<const ConstPixelTile> in, const RenderInfo& info) const {
  std::vector<cikl::SamplerInput> samplers(modes_.size());
  for (std::size_t i = 0; i < modes_.size(); ++i) {
    if (i < in.size()) samplers[i].tile = in[i];
    samplers[i].extent = i < inputs().size() ? inputs()[i].extent() : CGRectNull;
    samplers[i].clamp = modes_[i].clamp;
    samplers[i].nearest = modes_[i].nearest || modes_[i].exact;
  }
  std::vector<float> floats = floats_;
  for (const ColorSlot& slot : colors_) {
    auto c = workingColor(*slot.color, info.colorManaged);
    for (int k = 0; k < 4; ++k) floats[std::size_t(slot.firstFloat + k)] = c[std::size_t(k)];
  }
  cikl::evaluate(*program_, out, samplers, floats);
}

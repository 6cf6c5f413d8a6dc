// Kernel text fuzzer: compiling arbitrary text must give kernels or a diagnostic, never a
// crash, a hang or an unbounded allocation. Kernels that compile are also run over a small
// region with arbitrary argument values.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CoreImage/CIKernel.h"
#include "CoreImage/Kernel/Evaluator.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<KernelDiagnostic> diagnostics;
  auto kernels = CIKernel::kernelsWithString(text, &diagnostics);
  if (kernels.empty()) return 0;
  float texels[4 * 4] = {0.1f, 0.2f, 0.3f, 1, 0.5f, 0.5f, 0.5f, 0.5f, 1, 0, 0, 1, 0, 0, 0, 0};
  for (auto& kernel : kernels) {
    const cikl::Program& program = *kernel->program();
    std::vector<cikl::SamplerInput> inputs(std::size_t(program.inputCount));
    for (std::size_t i = 0; i < inputs.size(); ++i) {
      inputs[i].tile = ConstPixelTile{texels, PixelRect{0, 0, 2, 2}, 8};
      inputs[i].extent = CGRectMake(0, 0, 2, 2);
      inputs[i].clamp = (i % 2) == 1;
    }
    std::vector<float> params(std::size_t(program.floatCount));
    for (std::size_t i = 0; i < params.size(); ++i) params[i] = float(i) * 0.37f - 1.0f;
    std::vector<float> out(4 * 5 * 3, 0.0f);
    PixelTile tile{out.data(), PixelRect{-1, -1, 5, 3}, 20};
    cikl::evaluate(program, tile, inputs, params);
  }
  return 0;
}

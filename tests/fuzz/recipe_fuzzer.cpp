// Recipe text from the fuzzer: parsed, built into a graph and, when the output is small,
// probed. Files are neither read nor written. Any exception other than a RecipeError, any
// crash, hang or runaway allocation is a finding.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "CoreGraphics/CGGeometry.h"
#include "Recipe.h"

namespace {

// Rendering is limited to outputs of at most this many pixels and a few probes, so that a
// recipe asking for a huge render does not stall the fuzzer.
constexpr double kMaxFuzzPixels = 64.0 * 64.0;
constexpr std::size_t kMaxFuzzProbes = 4;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  qv::RecipeOptions options;
  options.allowFiles = false;
  options.threads = 1;
  try {
    const auto doc = qv::parseRecipeJSON(text);
    qv::RecipeGraph graph = qv::buildRecipe(doc, "", options);
    if (!graph.output) return 0;
    const CGRect bounds = graph.outputSpec.rect ? *graph.outputSpec.rect : graph.output.extent();
    const bool small = !CGRectIsInfinite(bounds) && !CGRectIsNull(bounds) &&
                       bounds.size.width * bounds.size.height <= kMaxFuzzPixels;
    if (!small || graph.outputSpec.probes.size() > kMaxFuzzProbes) graph.outputSpec.probes.clear();
    for (const CGPoint& p : graph.outputSpec.probes) {
      // Probes far outside the output only exercise the transparent path; keep them near it.
      if (!CGRectContainsPoint(CGRectInset(bounds, -4, -4), p)) {
        graph.outputSpec.probes.clear();
        break;
      }
    }
    qv::renderRecipe(graph, options);
  } catch (const qv::RecipeError&) {
  }
  return 0;
}

// Recipes: a JSON document naming input images (files or generated), a chain of filters with
// their inputs, and what to output. `qvfilter run` reads and runs them; the studio exports them;
// the command-line tests are written as recipes.
//
//   {
//     "images": {
//       "photo": {"file": "photo.jpg", "transform": [1, 0, 0, 1, 0, 0]},
//       "red":   {"color": [1, 0, 0, 1], "extent": [0, 0, 64, 64]},
//       "grad":  {"filter": "CILinearGradient", "inputs": {...}, "extent": [0, 0, 64, 64]}
//     },
//     "chain": [
//       {"filter": "CIColorMatrix", "inputs": {"inputImage": "@photo", "inputRVector": {"vector": [0.5, 0, 0, 0]}}},
//       {"filter": "CISourceOverCompositing", "inputs": {"inputBackgroundImage": "@red"}, "defaults": true}
//     ],
//     "output": {"file": "out.png", "rect": [0, 0, 64, 64], "quality": 0.9, "colorManagement": true,
//                "probes": [[10, 10]], "image": "@name"}
//   }
//
// A chain step calls setDefaults first unless "defaults" is false, then takes the previous
// step's output as its inputImage (when the filter has one and the step does not give it), then
// its "inputs". The output image is the last step's output, or "output"."image" when given.
// Relative paths (input files and the output file) are relative to the recipe's directory.
//
// The result: {"extent": [x,y,w,h] | "infinite" | null, "file": PATH?, "probes": [{"at": [x,y],
// "rgba": [r,g,b,a]}]}. A probe is the pixel whose lower-left corner is (x, y), as the output
// file would store it (straight alpha, sRGB-encoded when colour management is on, clamped to
// 0..1) but not quantised.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIImage.h"

namespace qv {

// Anything wrong with a recipe or its run, as one line for the user.
class RecipeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Limits that keep a bad or hostile recipe from exhausting the machine.
inline constexpr std::size_t kMaxRecipeBytes = 16u * 1024u * 1024u;
inline constexpr int kMaxRecipeDepth = 64;
inline constexpr std::size_t kMaxRecipeImages = 256;
inline constexpr std::size_t kMaxRecipeSteps = 1024;
inline constexpr std::size_t kMaxRecipeProbes = 4096;
inline constexpr std::uint64_t kMaxOutputPixels = std::uint64_t{1} << 30;

struct RecipeOptions {
  // Whether input files may be read and an output file written (the fuzzer turns both off).
  bool allowFiles = true;
  // Render threads (0: one per core).
  int threads = 0;
  // Shrink on load (CIContextOptions::fastShrink).
  bool fastShrink = false;
  // The working memory one render may hold (bytes; 0: the renderer's default share).
  std::int64_t maxMemory = 0;
  // Largest output rectangle (in pixels) that may be rendered to a file.
  std::uint64_t maxOutputPixels = kMaxOutputPixels;
  // Replaces "output"."file" when not empty (taken as given, not relative to the recipe).
  std::string outputFileOverride;
  // Render progress (fraction done), passed to the context.
  std::function<void(double)> progress;
  // Receives one line per input that a filter of the recipe will silently ignore (a texture
  // name or tag that resolves to no texture, an operation name that names no filter; see
  // checkFilterInputs). Unset: each is printed on stderr as "qvfilter: warning: LINE".
  std::function<void(const std::string&)> warn;
  // When set, the host's own picture (a batch's file, GIMP's drawable) in place of the first
  // chain step's inputImage: the image that step names ("@name") stands for this one wherever
  // it is used and is not built from its entry; a first step naming none gets it as its
  // inputImage, and every later step takes the previous step's output.
  CIImage chainInput;
  // Replaces "output"."quality" (0...1) when set.
  std::optional<double> quality;
};

struct RecipeOutputSpec {
  std::string file;  // resolved path, or empty
  std::optional<CGRect> rect;
  double quality = 0.9;
  bool colorManagement = true;
  std::vector<CGPoint> probes;
};

// A recipe read into an image graph; nothing has been rendered.
// One step of a chain as the user wrote it ("chain step 3 (CIGaussianBlur) with inputRadius=20")
// and its output image.
struct ChainStep {
  std::string label;
  CIImage output;
};

struct RecipeGraph {
  std::map<std::string, CIImage> images;
  CIImage output;
  RecipeOutputSpec outputSpec;
  std::vector<ChainStep> steps;
};

// The message for a render refused by its memory budget or its limit of work, naming the step
// that makes the graph too large: the first of `steps` whose own output, rendered whole with
// `options` (to a file when `toFile`), is refused for the same reason, as "LABEL needs N of working memory, more than
// the budget of M (--max-memory)" or "LABEL makes the render compute N pixels, more than the
// limit of M"; the refusal's own message when no single step is.
std::string budgetMessage(const std::vector<ChainStep>& steps, const CIRenderBudgetError& refusal,
                          const CIContextOptions& options, bool toFile);

// Parses recipe text: a clear RecipeError for malformed JSON (with line and column), nesting
// deeper than kMaxRecipeDepth, text larger than kMaxRecipeBytes, or a non-object document.
nlohmann::json parseRecipeJSON(std::string_view text);

// Reads a recipe file ("-" for standard input) of at most kMaxRecipeBytes.
std::string readRecipeText(const std::string& path);

// The directory that relative paths of the recipe at `path` are resolved against.
std::string recipeBaseDirectory(const std::string& path);

// Builds the graph of a parsed recipe. Throws RecipeError.
RecipeGraph buildRecipe(const nlohmann::json& recipe, const std::string& baseDir, const RecipeOptions& options = {});

// Renders what the recipe's output asks for (file, probes) and returns the result document.
// Throws RecipeError.
nlohmann::json renderRecipe(const RecipeGraph& graph, const RecipeOptions& options = {});

// parseRecipeJSON + buildRecipe + renderRecipe.
nlohmann::json runRecipe(std::string_view text, const std::string& baseDir, const RecipeOptions& options = {});

// The stored form of one working-space pixel (premultiplied RGBA float): un-premultiplied,
// sRGB-encoded when colour-managed, clamped to 0..1.
std::array<float, 4> storedPixelFromWorking(const std::array<float, 4>& working, bool colorManaged);

// Every filter the host can create: the built-ins, registered on first use.
void prepareFilterRegistry();

}  // namespace qv

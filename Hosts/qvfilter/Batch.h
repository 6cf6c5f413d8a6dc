// Batches: one recipe's chain applied to many image files, each file's result kept apart so
// that a bad file is reported and the rest go on. Shared by `qvfilter batch` and the Python
// module's batch runners, which all write the same JSON report:
//
//   {"recipe": PATH, "outputDirectory": DIR, "interrupted": false,
//    "summary": {"files": N, "written": N, "skipped": N, "failed": N, "notRun": N, "seconds": S},
//    "files": [{"input": PATH, "output": PATH, "status": "written" | "skipped" | "failed" | "not run",
//               "error": "..." (failed only), "seconds": S}, ...]}
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Recipe.h"

namespace qv {

// One file of a batch: where it comes from, where its result goes, and (when not empty) why
// it cannot be run at all (an input that does not exist, two inputs with one output name).
struct BatchEntry {
  std::string input;
  std::string output;
  std::string error;
};

// The output formats a batch writes, as --format names them.
inline constexpr const char* kBatchFormats[] = {"jpg", "png", "webp"};

// The files of a batch. Each argument is a file, a directory (its .jpg, .jpeg, .png and .webp
// files, any case, not descending into subdirectories) or a glob pattern; files are kept in
// the order given, directories and patterns in name order, each file once. Each output is
// OUTDIR/<input name without extension>.<format>; an empty format keeps the input's type
// (.jpeg stays .jpeg; any other extension becomes .png). An argument that names nothing
// becomes an entry with an error, and so does every input after the first whose output name
// is taken. Throws RecipeError for an unknown format.
std::vector<BatchEntry> planBatch(const std::vector<std::string>& inputs, const std::string& outputDirectory,
                                  const std::string& format);

struct BatchFileOptions {
  int threads = 1;                 // render threads per file (0: one per core)
  std::optional<double> quality;   // 0...1, replaces the recipe's output quality
  bool skipExisting = false;       // leave an output that exists alone
  std::int64_t maxMemory = 0;      // working memory of one file's render (0: the renderer's default)
  bool fastShrink = false;         // shrink on load (CIContextOptions::fastShrink)
};

// A recipe read once and run over many files. Its chain's first step takes each file as its
// inputImage, each later step the previous output; the recipe's "output" gives rect, quality
// and colour management, never the file.
class BatchRecipe {
 public:
  // Reads, parses and checks the recipe at `path` ("-" for standard input). Throws RecipeError.
  static BatchRecipe fromFile(const std::string& path);
  // A parsed recipe whose relative paths are relative to `baseDirectory`. Throws RecipeError
  // when the recipe cannot run as a batch (no chain; a first step that names its own
  // inputImage; an "output" "image").
  BatchRecipe(nlohmann::json recipe, std::string baseDirectory, std::string name = "");

  const std::string& name() const { return name_; }
  const nlohmann::json& recipe() const { return recipe_; }
  const std::string& baseDirectory() const { return baseDirectory_; }

  // Runs one entry: {"input", "output", "status", "error"?, "seconds"}. Never throws for a bad
  // file; the output is written under a temporary name and renamed when complete, so a
  // failure leaves nothing behind, and the temporary file of an earlier attempt whose process
  // died (a killed worker) is removed when the file is run again.
  nlohmann::json run(const BatchEntry& entry, const BatchFileOptions& options) const;

 private:
  nlohmann::json recipe_;
  std::string baseDirectory_;
  std::string name_;
};

// The result of an entry that was never started ("not run"), e.g. after an interruption.
nlohmann::json batchNotRunResult(const BatchEntry& entry);

// The report of a batch from its per-file results (in any order; reported in input order of
// `files`), with the summary counted from them.
nlohmann::json batchReport(const std::string& recipeName, const std::string& outputDirectory,
                           const std::vector<nlohmann::json>& files, double seconds, bool interrupted);

// Writes a report (or any JSON document) atomically: a temporary file renamed over `path`.
// Throws RecipeError with the reason.
void writeJSONFile(const std::string& path, const nlohmann::json& document);

}  // namespace qv

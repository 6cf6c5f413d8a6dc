#include "Batch.h"

#include <glob.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "ValueParsing.h"

namespace qv {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

std::string lowercase(std::string s) {
  for (auto& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

bool isImageExtension(const std::string& ext) {
  const std::string e = lowercase(ext);
  return e == ".jpg" || e == ".jpeg" || e == ".png" || e == ".webp";
}

bool hasGlobCharacters(const std::string& s) { return s.find_first_of("*?[") != std::string::npos; }

// The image files directly inside `dir`, in name order.
std::vector<std::string> imagesInDirectory(const fs::path& dir, std::string& error) {
  std::vector<std::string> files;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code typeError;
    if (it->is_regular_file(typeError) && isImageExtension(it->path().extension().string()))
      files.push_back(it->path().string());
  }
  if (ec) error = "cannot list " + dir.string() + ": " + ec.message();
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::string> globMatches(const std::string& pattern) {
  std::vector<std::string> files;
  glob_t g{};
  if (glob(pattern.c_str(), 0, nullptr, &g) == 0) {
    for (std::size_t i = 0; i < g.gl_pathc; ++i) {
      std::error_code ec;
      if (fs::is_regular_file(g.gl_pathv[i], ec)) files.emplace_back(g.gl_pathv[i]);
    }
  }
  globfree(&g);
  std::sort(files.begin(), files.end());
  return files;
}

std::string outputName(const std::string& input, const std::string& format) {
  const fs::path p(input);
  std::string ext = format.empty() ? lowercase(p.extension().string()) : "." + format;
  if (!isImageExtension(ext)) ext = ".png";
  return p.stem().string() + ext;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Removes what an earlier attempt at `output` left when its process died while writing: the
// temporary files "<output>.partial-<pid>" whose process is gone. A live writer's are kept.
void removeAbandonedPartials(const std::string& output) {
  const std::string prefix = output + ".partial-";
  glob_t g{};
  std::string pattern;
  for (char c : prefix) {
    if (c == '*' || c == '?' || c == '[' || c == '\\') pattern += '\\';
    pattern += c;
  }
  if (glob((pattern + "*").c_str(), 0, nullptr, &g) == 0) {
    for (std::size_t i = 0; i < g.gl_pathc; ++i) {
      const std::string path = g.gl_pathv[i];
      const std::string digits = path.substr(prefix.size());
      if (digits.empty() || digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) continue;
      const pid_t pid = static_cast<pid_t>(std::stol(digits));
      if (pid != ::getpid() && ::kill(pid, 0) != 0 && errno == ESRCH) std::remove(path.c_str());
    }
  }
  globfree(&g);
}

double rounded(double seconds) { return std::round(seconds * 1000.0) / 1000.0; }

}  // namespace

std::vector<BatchEntry> planBatch(const std::vector<std::string>& inputs, const std::string& outputDirectory,
                                  const std::string& format) {
  const std::string fmt = lowercase(format);
  if (!fmt.empty() && std::none_of(std::begin(kBatchFormats), std::end(kBatchFormats),
                                   [&](const char* f) { return fmt == f; })) {
    throw RecipeError("unknown output format \"" + format + "\" (use jpg, png or webp)");
  }
  std::vector<BatchEntry> entries;
  std::set<std::string> seenInputs;
  auto addFile = [&](const std::string& file) {
    const std::string key = fs::path(file).lexically_normal().string();
    if (!seenInputs.insert(key).second) return;
    entries.push_back({file, (fs::path(outputDirectory) / outputName(file, fmt)).string(), ""});
  };
  for (const std::string& input : inputs) {
    std::error_code ec;
    const auto status = fs::status(input, ec);
    if (!ec && fs::is_directory(status)) {
      std::string error;
      const auto files = imagesInDirectory(input, error);
      if (!error.empty()) entries.push_back({input, "", error});
      for (const auto& f : files) addFile(f);
    } else if (!ec && fs::exists(status)) {
      addFile(input);
    } else if (hasGlobCharacters(input)) {
      const auto files = globMatches(input);
      if (files.empty()) entries.push_back({input, "", "no file matches " + input});
      for (const auto& f : files) addFile(f);
    } else {
      entries.push_back({input, "", "cannot read " + input + ": no such file"});
    }
  }
  // Two inputs must never write one output: the later ones fail instead of overwriting.
  std::map<std::string, std::string> owners;
  for (auto& e : entries) {
    if (e.output.empty() || !e.error.empty()) continue;
    const auto [it, fresh] = owners.emplace(fs::path(e.output).lexically_normal().string(), e.input);
    if (!fresh) e.error = "its output " + e.output + " is already the output of " + it->second;
  }
  return entries;
}

BatchRecipe BatchRecipe::fromFile(const std::string& path) {
  const std::string text = readRecipeText(path);
  return BatchRecipe(parseRecipeJSON(text), recipeBaseDirectory(path), path);
}

BatchRecipe::BatchRecipe(nlohmann::json recipe, std::string baseDirectory, std::string name)
    : recipe_(std::move(recipe)), baseDirectory_(std::move(baseDirectory)), name_(std::move(name)) {
  if (!recipe_.is_object()) throw RecipeError("a recipe must be a JSON object");
  const json* chain = recipe_.contains("chain") ? &recipe_["chain"] : nullptr;
  if (!chain || !chain->is_array() || chain->empty()) {
    throw RecipeError("a batch recipe needs a \"chain\" of at least one step: its first step takes each input file");
  }
  const json& first = chain->front();
  if (first.is_object() && first.contains("inputs") && first["inputs"].is_object() &&
      first["inputs"].contains(kCIInputImageKey)) {
    throw RecipeError("the first chain step of a batch recipe must not set inputImage: each input file is its "
                      "inputImage");
  }
  if (recipe_.contains("output") && recipe_["output"].is_object() && recipe_["output"].contains("image")) {
    throw RecipeError("a batch recipe's \"output\" must not name an \"image\": the output is the chain's result");
  }
}

nlohmann::json BatchRecipe::run(const BatchEntry& entry, const BatchFileOptions& options) const {
  const auto start = std::chrono::steady_clock::now();
  json result = {{"input", entry.input}, {"output", entry.output}};
  auto failed = [&](const std::string& error) {
    result["status"] = "failed";
    result["error"] = error;
    result["seconds"] = rounded(secondsSince(start));
    return result;
  };
  if (!entry.error.empty()) return failed(entry.error);
  std::error_code ec;
  if (options.skipExisting && fs::is_regular_file(entry.output, ec) && fs::file_size(entry.output, ec) > 0 && !ec) {
    result["status"] = "skipped";
    result["seconds"] = rounded(secondsSince(start));
    return result;
  }
  try {
    RecipeOptions recipeOptions;
    recipeOptions.threads = options.threads;
    recipeOptions.maxMemory = options.maxMemory;
    recipeOptions.fastShrink = options.fastShrink;
    recipeOptions.quality = options.quality;
    recipeOptions.outputFileOverride = entry.output;
    try {
      recipeOptions.chainInput = imageFromFile(entry.input);
    } catch (const ValueError& e) {
      return failed(e.what());
    }
    RecipeGraph graph = buildRecipe(recipe_, baseDirectory_, recipeOptions);
    graph.outputSpec.probes.clear();
    const fs::path dir = fs::path(entry.output).parent_path();
    if (!dir.empty()) {
      fs::create_directories(dir, ec);
      if (ec) return failed("cannot create " + dir.string() + ": " + ec.message());
    }
    removeAbandonedPartials(entry.output);
    renderRecipe(graph, recipeOptions);
  } catch (const std::exception& e) {
    return failed(e.what());
  }
  result["status"] = "written";
  result["seconds"] = rounded(secondsSince(start));
  return result;
}

nlohmann::json batchNotRunResult(const BatchEntry& entry) {
  return {{"input", entry.input}, {"output", entry.output}, {"status", "not run"}, {"seconds", 0}};
}

nlohmann::json batchReport(const std::string& recipeName, const std::string& outputDirectory,
                           const std::vector<nlohmann::json>& files, double seconds, bool interrupted) {
  std::size_t written = 0, skipped = 0, failed = 0, notRun = 0;
  for (const auto& f : files) {
    const std::string status = f.value("status", "");
    if (status == "written") ++written;
    else if (status == "skipped") ++skipped;
    else if (status == "failed") ++failed;
    else ++notRun;
  }
  json report = json::object();
  report["recipe"] = recipeName;
  report["outputDirectory"] = outputDirectory;
  report["interrupted"] = interrupted;
  report["summary"] = {{"files", files.size()}, {"written", written}, {"skipped", skipped},
                       {"failed", failed},      {"notRun", notRun},   {"seconds", rounded(seconds)}};
  report["files"] = files;
  return report;
}

void writeJSONFile(const std::string& path, const nlohmann::json& document) {
  const std::string text = document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
  const std::string temp = path + ".partial-" + std::to_string(::getpid());
  std::FILE* f = std::fopen(temp.c_str(), "wb");
  if (!f) throw RecipeError("cannot write " + path + ": " + std::strerror(errno));
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  const bool closed = std::fclose(f) == 0;
  if (!ok || !closed || std::rename(temp.c_str(), path.c_str()) != 0) {
    const std::string reason = std::strerror(errno);
    std::remove(temp.c_str());
    throw RecipeError("cannot write " + path + ": " + reason);
  }
}

}  // namespace qv

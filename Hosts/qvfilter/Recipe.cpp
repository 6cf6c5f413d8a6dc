#include "Recipe.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <set>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/CIColor.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "CoreImage/ColorSpace.h"
#include "TextureCatalogue.h"
#include "ValueParsing.h"

namespace qv {
namespace {

using json = nlohmann::json;

std::string quote(std::string_view s) {
  std::string out = "\"";
  std::size_t n = 0;
  for (char c : s) {
    if (++n > 80) {
      out += "...";
      break;
    }
    out += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
  }
  return out + "\"";
}

// Line and column (1-based) of byte `offset` of `text`.
std::pair<std::size_t, std::size_t> lineAndColumn(std::string_view text, std::size_t offset) {
  offset = std::min(offset, text.size());
  std::size_t line = 1, column = 1;
  for (std::size_t i = 0; i < offset; ++i) {
    if (text[i] == '\n') {
      ++line;
      column = 1;
    } else {
      ++column;
    }
  }
  return {line, column};
}

// Rejects nesting deeper than kMaxRecipeDepth before the parser sees the text.
void checkNesting(std::string_view text) {
  int depth = 0;
  bool inString = false, escaped = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxRecipeDepth) {
        auto [line, column] = lineAndColumn(text, i);
        throw RecipeError("recipe nesting too deep (more than " + std::to_string(kMaxRecipeDepth) +
                          " levels) at line " + std::to_string(line) + ", column " + std::to_string(column));
      }
    } else if (c == ']' || c == '}') {
      if (depth > 0) --depth;
    }
  }
}

double finiteNumber(const json& j, const std::string& what) {
  if (!j.is_number()) throw RecipeError(what + " must be a number");
  const double d = j.get<double>();
  if (!std::isfinite(d)) throw RecipeError(what + " is out of range");
  return d;
}

std::vector<double> numberArray(const json& j, std::size_t count, const std::string& what, const char* form) {
  if (!j.is_array() || j.size() != count) throw RecipeError(what + " must be an array " + form);
  std::vector<double> out;
  for (const auto& e : j) out.push_back(finiteNumber(e, what));
  return out;
}

CGRect rectFromJSON(const json& j, const std::string& what, bool allowEmpty) {
  auto n = numberArray(j, 4, what, "[x, y, width, height]");
  if (n[2] < 0 || n[3] < 0 || (!allowEmpty && (n[2] == 0 || n[3] == 0))) {
    throw RecipeError(what + " needs a positive width and height");
  }
  return CGRectMake(n[0], n[1], n[2], n[3]);
}

void checkKeys(const json& object, std::initializer_list<const char*> allowed, const std::string& what) {
  for (auto item = object.begin(); item != object.end(); ++item) {
    // A named key, not a structured binding: clang before 16 cannot capture bindings in lambdas.
    const std::string& key = item.key();
    if (std::none_of(allowed.begin(), allowed.end(), [&](const char* a) { return key == a; })) {
      std::string list;
      for (const char* a : allowed) list += (list.empty() ? "" : ", ") + std::string("\"") + a + "\"";
      throw RecipeError(what + ": unknown key " + quote(key) + " (expected " + list + ")");
    }
  }
}

// A path of the recipe, relative to its folder. A NUL inside the text would end the name the
// system sees early (another file than the one checked), so it is refused.
std::string resolvePath(const std::string& path, const std::string& baseDir, const std::string& what) {
  if (path.find('\0') != std::string::npos) throw RecipeError(what + ": a file name cannot contain a NUL character");
  std::filesystem::path p(path);
  if (p.is_relative() && !baseDir.empty()) p = std::filesystem::path(baseDir) / p;
  return p.lexically_normal().string();
}

std::string lowercaseExtension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (auto& c : ext) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return ext;
}

void reportWarning(const RecipeOptions& options, const std::string& line) {
  if (options.warn)
    options.warn(line);
  else
    printWarning(line);
}

class Builder {
 public:
  Builder(const json& recipe, std::string baseDir, const RecipeOptions& options)
      : recipe_(recipe), baseDir_(std::move(baseDir)), options_(options) {}

  RecipeGraph build() {
    checkKeys(recipe_, {"images", "chain", "output", "name", "description", "comment"}, "recipe");
    readImageSpecs();
    bindChainInput();
    // Every image is built, referenced or not, so that a broken one is reported.
    for (const auto& [name, spec] : imageSpecs_) {
      (void)spec;
      resolve(name);
    }
    RecipeGraph graph;
    bool haveOutput = false;
    if (recipe_.contains("chain")) {
      const json& chain = recipe_["chain"];
      if (!chain.is_array()) throw RecipeError("recipe \"chain\" must be an array of steps");
      if (chain.size() > kMaxRecipeSteps) {
        throw RecipeError("recipe \"chain\" has more than " + std::to_string(kMaxRecipeSteps) + " steps");
      }
      CIImage previous = options_.chainInput;
      for (std::size_t i = 0; i < chain.size(); ++i) {
        const bool hostInput = i == 0 && options_.chainInput;
        if (hostInput) previous = options_.chainInput;
        const std::string where = "chain step " + std::to_string(i + 1);
        previous = applyStep(chain[i], i == 0 && !hostInput ? nullptr : &previous, where, false);
        graph.steps.push_back({where + " (" + chain[i]["filter"].get<std::string>() + ")" + givenInputs(chain[i]),
                               previous});
      }
      graph.output = previous;
      haveOutput = !chain.empty();
    }
    graph.outputSpec = readOutput(graph.output, haveOutput);
    graph.images = images_;
    return graph;
  }

 private:
  // The image the first step names as its inputImage is the host's picture (chainInput).
  void bindChainInput() {
    if (!options_.chainInput || !recipe_.contains("chain") || !recipe_["chain"].is_array() ||
        recipe_["chain"].empty())
      return;
    const json& first = recipe_["chain"][0];
    if (!first.is_object() || !first.contains("inputs") || !first["inputs"].is_object()) return;
    const json& inputs = first["inputs"];
    if (!inputs.contains(kCIInputImageKey) || !inputs[kCIInputImageKey].is_string()) return;
    const std::string& ref = inputs[kCIInputImageKey].get_ref<const std::string&>();
    if (ref.size() < 2 || ref[0] != '@' || ref[1] == '@') return;
    images_[ref.substr(1)] = options_.chainInput;
  }

  void readImageSpecs() {
    if (!recipe_.contains("images")) return;
    const json& images = recipe_["images"];
    if (!images.is_object()) throw RecipeError("recipe \"images\" must be an object of named images");
    if (images.size() > kMaxRecipeImages) {
      throw RecipeError("recipe \"images\" has more than " + std::to_string(kMaxRecipeImages) + " images");
    }
    for (const auto& [name, spec] : images.items()) {
      if (name.empty()) throw RecipeError("recipe \"images\" has an image with an empty name");
      imageSpecs_.emplace(name, &spec);
    }
  }

  CIImage resolve(const std::string& name) {
    if (auto it = images_.find(name); it != images_.end()) return it->second;
    auto spec = imageSpecs_.find(name);
    if (spec == imageSpecs_.end()) throw ValueError("unknown image " + quote("@" + name));
    if (!building_.insert(name).second) throw ValueError("image " + quote("@" + name) + " refers to itself");
    CIImage image = buildImage(name, *spec->second);
    building_.erase(name);
    images_.emplace(name, image);
    return image;
  }

  CIImage buildImage(const std::string& name, const json& spec) {
    const std::string what = "image " + quote(name);
    if (!spec.is_object()) throw RecipeError(what + " must be an object with \"file\", \"color\" or \"filter\"");
    const int kinds = int(spec.contains("file")) + int(spec.contains("color")) + int(spec.contains("filter"));
    if (kinds != 1) throw RecipeError(what + " needs exactly one of \"file\", \"color\" or \"filter\"");
    CIImage image;
    if (spec.contains("file")) {
      checkKeys(spec, {"file", "transform"}, what);
      if (!spec["file"].is_string()) throw RecipeError(what + ": \"file\" must be a path string");
      if (!options_.allowFiles) throw RecipeError(what + ": file inputs are not allowed here");
      try {
        image = imageFromFile(resolvePath(spec["file"].get<std::string>(), baseDir_, what + ": \"file\""));
      } catch (const ValueError& e) {
        throw RecipeError(what + ": " + e.what());
      }
      if (spec.contains("transform")) {
        auto t = numberArray(spec["transform"], 6, what + ": \"transform\"", "[a, b, c, d, tx, ty]");
        image = image.imageByApplyingTransform(CGAffineTransformMake(t[0], t[1], t[2], t[3], t[4], t[5]));
      }
      return image;
    }
    if (spec.contains("color")) {
      checkKeys(spec, {"color", "extent"}, what);
      Value color;
      try {
        color = valueFromJSON(spec["color"], "CIColor", what + " \"color\"", nullptr);
      } catch (const ValueError& e) {
        throw RecipeError(e.what());
      }
      if (color.isNil()) throw RecipeError(what + ": \"color\" must be [r, g, b, a] or \"r g b a\"");
      image = CIImage::imageWithColor(CIColor::fromValue(color));
    } else {
      checkKeys(spec, {"filter", "inputs", "defaults", "extent"}, what);
      image = applyStep(spec, nullptr, what, true);
    }
    if (spec.contains("extent")) image = image.imageByCroppingToRect(rectFromJSON(spec["extent"], what + ": \"extent\"", true));
    return image;
  }

  // Creates, sets up and runs one filter; returns its output image.
  // " with KEY=VALUE, ..." for the inputs a step gives other than images (empty when none).
  static std::string givenInputs(const json& step) {
    std::string text;
    if (!step.contains("inputs") || !step["inputs"].is_object()) return text;
    for (const auto& [key, given] : step["inputs"].items()) {
      if (given.is_string() && given.get<std::string>().rfind("@", 0) == 0) continue;
      text += (text.empty() ? " with " : ", ") + key + "=" + given.dump();
    }
    return text;
  }

  CIImage applyStep(const json& step, const CIImage* previous, const std::string& where, bool keysChecked) {
    if (!step.is_object()) throw RecipeError(where + " must be an object with a \"filter\"");
    if (!keysChecked) checkKeys(step, {"filter", "inputs", "defaults"}, where);
    if (!step.contains("filter") || !step["filter"].is_string()) {
      throw RecipeError(where + " needs a \"filter\" name string");
    }
    const std::string name = step["filter"].get<std::string>();
    const std::string context = where + " (" + name + ")";
    CIFilterRef filter = CIFilter::filterWithName(name);
    if (!filter) throw RecipeError(where + ": unknown filter " + quote(name));
    bool defaults = true;
    if (step.contains("defaults")) {
      if (!step["defaults"].is_boolean()) throw RecipeError(context + ": \"defaults\" must be true or false");
      defaults = step["defaults"].get<bool>();
    }
    static const json kNoInputs = json::object();
    const json& inputs = step.contains("inputs") ? step["inputs"] : kNoInputs;
    if (!inputs.is_object()) throw RecipeError(context + ": \"inputs\" must be an object of input keys");
    try {
      if (defaults) filter->setDefaults();
      const auto keys = filter->inputKeys();
      auto hasKey = [&](const std::string& k) { return std::find(keys.begin(), keys.end(), k) != keys.end(); };
      if (previous && hasKey(kCIInputImageKey) && !inputs.contains(kCIInputImageKey)) {
        filter->setValue(Value(*previous), kCIInputImageKey);
      }
      for (const auto& [key, given] : inputs.items()) {
        if (!hasKey(key)) {
          std::string list;
          for (const auto& k : keys) list += (list.empty() ? "" : ", ") + k;
          throw RecipeError(context + ": unknown key " + quote(key) + " (input keys: " + list + ")");
        }
        Value value = valueFromJSON(given, attributeClassForKey(*filter, key), key,
                                    [this](const std::string& n) { return resolve(n); }, baseDir_);
        checkInputValue(*filter, key, value);
        filter->setValue(value, key);
      }
      filter->setCalculatedValues();
      for (const std::string& warning : checkFilterInputs(*filter)) reportWarning(options_, where + ": " + warning);
      CIImage output = filter->outputImage();
      if (!output && previous && *previous) throw RecipeError(context + ": " + noImageMessage(name, *filter));
      return output;
    } catch (const RecipeError&) {
      throw;
    } catch (const ValueError& e) {
      throw RecipeError(context + ": " + e.what());
    } catch (const std::exception& e) {
      throw RecipeError(context + ": " + e.what());
    }
  }

  RecipeOutputSpec readOutput(CIImage& output, bool haveOutput) {
    RecipeOutputSpec spec;
    static const json kEmpty = json::object();
    const json& out = recipe_.contains("output") ? recipe_["output"] : kEmpty;
    if (!out.is_object()) throw RecipeError("recipe \"output\" must be an object");
    checkKeys(out, {"file", "rect", "quality", "colorManagement", "probes", "image"}, "recipe \"output\"");
    if (out.contains("image")) {
      const json& ref = out["image"];
      if (!ref.is_string() || ref.get_ref<const std::string&>().size() < 2 ||
          ref.get_ref<const std::string&>()[0] != '@') {
        throw RecipeError("recipe \"output\": \"image\" must be \"@name\"");
      }
      try {
        output = resolve(ref.get<std::string>().substr(1));
      } catch (const ValueError& e) {
        throw RecipeError(std::string("recipe \"output\": ") + e.what());
      }
      haveOutput = true;
    }
    if (!haveOutput) throw RecipeError("recipe has no \"chain\" steps and its \"output\" names no \"image\"");
    if (!options_.outputFileOverride.empty()) {
      spec.file = options_.outputFileOverride;
    } else if (out.contains("file")) {
      if (!out["file"].is_string() || out["file"].get_ref<const std::string&>().empty()) {
        throw RecipeError("recipe \"output\": \"file\" must be a path string");
      }
      spec.file = resolvePath(out["file"].get<std::string>(), baseDir_, "recipe \"output\": \"file\"");
    }
    if (!spec.file.empty()) {
      if (!options_.allowFiles) throw RecipeError("recipe \"output\": writing files is not allowed here");
      const std::string ext = lowercaseExtension(spec.file);
      if (ext != ".png" && ext != ".jpg" && ext != ".jpeg" && ext != ".webp") {
        throw RecipeError("cannot write " + spec.file + ": unknown image type " + quote(ext) +
                          " (use .png, .jpg or .webp)");
      }
    }
    if (out.contains("rect")) spec.rect = rectFromJSON(out["rect"], "recipe \"output\": \"rect\"", false);
    if (out.contains("quality")) {
      spec.quality = finiteNumber(out["quality"], "recipe \"output\": \"quality\"");
      if (spec.quality < 0 || spec.quality > 1) throw RecipeError("recipe \"output\": \"quality\" must lie in 0...1");
    }
    if (options_.quality) spec.quality = std::clamp(*options_.quality, 0.0, 1.0);
    if (out.contains("colorManagement")) {
      if (!out["colorManagement"].is_boolean()) {
        throw RecipeError("recipe \"output\": \"colorManagement\" must be true or false");
      }
      spec.colorManagement = out["colorManagement"].get<bool>();
    }
    if (out.contains("probes")) {
      const json& probes = out["probes"];
      if (!probes.is_array()) throw RecipeError("recipe \"output\": \"probes\" must be an array of [x, y]");
      if (probes.size() > kMaxRecipeProbes) {
        throw RecipeError("recipe \"output\" has more than " + std::to_string(kMaxRecipeProbes) + " probes");
      }
      for (const auto& p : probes) {
        auto xy = numberArray(p, 2, "recipe \"output\": each probe", "[x, y]");
        constexpr double kLimit = 2147483647.0;
        if (std::fabs(xy[0]) > kLimit || std::fabs(xy[1]) > kLimit) {
          throw RecipeError("recipe \"output\": probe coordinates must lie within +-2147483647");
        }
        spec.probes.push_back(CGPointMake(xy[0], xy[1]));
      }
    }
    return spec;
  }

  const json& recipe_;
  std::string baseDir_;
  const RecipeOptions& options_;
  std::map<std::string, const json*> imageSpecs_;
  std::map<std::string, CIImage> images_;
  std::set<std::string> building_;
};

// The DOM parser, also remembering where the parser stopped: a number too large for a double
// is reported by the library without a position of its own.
struct PositionedParser : nlohmann::detail::json_sax_dom_parser<json> {
  using nlohmann::detail::json_sax_dom_parser<json>::json_sax_dom_parser;
  std::size_t stoppedAt = 0, tokenLength = 0;
  template <class Exception>
  bool parse_error(std::size_t position, const std::string& token, const Exception& ex) {
    stoppedAt = position;
    tokenLength = token.size();
    return nlohmann::detail::json_sax_dom_parser<json>::parse_error(position, token, ex);
  }
};

}  // namespace

nlohmann::json parseRecipeJSON(std::string_view text) {
  if (text.size() > kMaxRecipeBytes) {
    throw RecipeError("recipe is larger than " + std::to_string(kMaxRecipeBytes / (1024 * 1024)) + " MB");
  }
  checkNesting(text);
  json doc;
  PositionedParser parser(doc);
  try {
    json::sax_parse(text.begin(), text.end(), &parser);
  } catch (const json::out_of_range& e) {
    const std::size_t offset = parser.stoppedAt >= parser.tokenLength ? parser.stoppedAt - parser.tokenLength : 0;
    auto [line, column] = lineAndColumn(text, offset);
    throw RecipeError("malformed recipe JSON at line " + std::to_string(line) + ", column " + std::to_string(column) +
                      ": a number too large for a double");
  } catch (const json::parse_error& e) {
    // e.byte is 1-based: the byte at which the parser stopped.
    const std::size_t offset = e.byte > 0 ? e.byte - 1 : 0;
    auto [line, column] = lineAndColumn(text, offset);
    std::string detail = e.what();
    if (auto pos = detail.find(": "); pos != std::string::npos) detail = detail.substr(pos + 2);
    throw RecipeError("malformed recipe JSON at line " + std::to_string(line) + ", column " + std::to_string(column) +
                      ": " + detail);
  }
  if (!doc.is_object()) throw RecipeError("a recipe must be a JSON object");
  return doc;
}

std::string readRecipeText(const std::string& path) {
  std::string text;
  if (path == "-") {
    char buffer[65536];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) {
      text.append(buffer, n);
      if (text.size() > kMaxRecipeBytes) {
        throw RecipeError("recipe is larger than " + std::to_string(kMaxRecipeBytes / (1024 * 1024)) + " MB");
      }
    }
    return text;
  }
  std::error_code ec;
  const auto status = std::filesystem::status(path, ec);
  if (ec || !std::filesystem::exists(status)) throw RecipeError("cannot read recipe " + path + ": no such file");
  if (!std::filesystem::is_regular_file(status)) throw RecipeError("cannot read recipe " + path + ": not a regular file");
  const auto size = std::filesystem::file_size(path, ec);
  if (ec) throw RecipeError("cannot read recipe " + path + ": " + ec.message());
  if (size > kMaxRecipeBytes) {
    throw RecipeError("cannot read recipe " + path + ": larger than " +
                      std::to_string(kMaxRecipeBytes / (1024 * 1024)) + " MB");
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) throw RecipeError("cannot read recipe " + path + ": cannot open it");
  text.resize(size);
  in.read(text.data(), static_cast<std::streamsize>(size));
  text.resize(static_cast<std::size_t>(in.gcount()));
  return text;
}

std::string recipeBaseDirectory(const std::string& path) {
  if (path == "-") return {};
  auto parent = std::filesystem::path(path).parent_path();
  return parent.empty() ? std::string(".") : parent.string();
}

RecipeGraph buildRecipe(const nlohmann::json& recipe, const std::string& baseDir, const RecipeOptions& options) {
  prepareFilterRegistry();
  if (!recipe.is_object()) throw RecipeError("a recipe must be a JSON object");
  try {
    return Builder(recipe, baseDir, options).build();
  } catch (const ValueError& e) {
    throw RecipeError(e.what());
  }
}

std::array<float, 4> storedPixelFromWorking(const std::array<float, 4>& working, bool colorManaged) {
  std::array<float, 4> out{0, 0, 0, 0};
  const float a = std::clamp(working[3], 0.0f, 1.0f);
  if (!(working[3] > 0.0f)) return out;
  for (int c = 0; c < 3; ++c) {
    float v = working[c] / working[3];
    if (colorManaged) v = linearToSrgb(v);
    out[c] = std::isfinite(v) ? std::clamp(v, 0.0f, 1.0f) : 0.0f;
  }
  out[3] = a;
  return out;
}

nlohmann::json renderRecipe(const RecipeGraph& graph, const RecipeOptions& options) {
  const RecipeOutputSpec& spec = graph.outputSpec;
  json result = json::object();
  result["extent"] = graph.output ? jsonFromRect(graph.output.extent()) : json(nullptr);
  const bool wantsPixels = !spec.file.empty() || !spec.probes.empty();
  if (!wantsPixels) return result;
  if (!graph.output) throw RecipeError("the recipe's output image is nil (does a filter lack its input image?)");
  const CGRect bounds = spec.rect ? *spec.rect : graph.output.extent();
  if (CGRectIsInfinite(bounds)) {
    throw RecipeError("the output image is infinite: give \"output\" a \"rect\" [x, y, width, height] to render");
  }
  CIContextOptions contextOptions;
  contextOptions.colorManagement = spec.colorManagement;
  contextOptions.threads = options.threads;
  contextOptions.fastShrink = options.fastShrink;
  contextOptions.maxMemory = options.maxMemory;
  if (!spec.file.empty()) {
    const CGRect integral = CGRectIntegral(bounds);
    if (CGRectIsNull(integral) || CGRectIsEmpty(integral)) {
      throw RecipeError("the output image is empty: nothing to write to " + spec.file);
    }
    const double pixels = integral.size.width * integral.size.height;
    if (pixels > static_cast<double>(options.maxOutputPixels)) {
      throw RecipeError("cannot write " + spec.file + ": " + NSStringFromSize(integral.size) +
                        " pixels is more than the limit of " + std::to_string(options.maxOutputPixels));
    }
    CIContextOptions fileOptions = contextOptions;
    fileOptions.progress = options.progress;
    try {
      CIContext(fileOptions).writeToFile(graph.output, spec.file, integral, spec.quality);
    } catch (const CIRenderBudgetError& e) {
      throw RecipeError(CIContext::writeErrorMessage(spec.file, budgetMessage(graph.steps, e, fileOptions, true)));
    } catch (const std::exception& e) {
      throw RecipeError(CIContext::writeErrorMessage(spec.file, e.what()));
    }
    result["file"] = spec.file;
  }
  if (!spec.probes.empty()) {
    CIContext context(contextOptions);
    auto probes = json::array();
    // Probes within a modest rectangle are read from one render of it (a tiled render equals
    // the pixel-by-pixel one bit for bit), so many probes do not render the chain's region of
    // interest once each; scattered probes are rendered one by one.
    double minX = HUGE_VAL, minY = HUGE_VAL, maxX = -HUGE_VAL, maxY = -HUGE_VAL;
    for (const CGPoint& p : spec.probes) {
      minX = std::min(minX, std::floor(p.x)), minY = std::min(minY, std::floor(p.y));
      maxX = std::max(maxX, std::floor(p.x) + 1), maxY = std::max(maxY, std::floor(p.y) + 1);
    }
    constexpr double kMaxProbeRectPixels = 1 << 20;
    std::vector<float> block;
    const CGRect blockRect = CGRectMake(minX, minY, maxX - minX, maxY - minY);
    if (spec.probes.size() > 1 && blockRect.size.width * blockRect.size.height <= kMaxProbeRectPixels) {
      block.resize(std::size_t(blockRect.size.width * blockRect.size.height) * 4);
      try {
        context.render(graph.output, block.data(), std::ptrdiff_t(blockRect.size.width) * 4 * sizeof(float), blockRect,
                       CIRenderFormat::RGBAf);
      } catch (const std::exception&) {
        block.clear();  // each probe then reports its own failure
      }
    }
    for (const CGPoint& p : spec.probes) {
      const double x = std::floor(p.x), y = std::floor(p.y);
      std::array<float, 4> working{0, 0, 0, 0};
      try {
        if (!block.empty()) {
          // Row 0 of the buffer is the rectangle's top row.
          const std::size_t col = std::size_t(x - minX), row = std::size_t(maxY - 1 - y);
          std::copy_n(block.data() + (row * std::size_t(blockRect.size.width) + col) * 4, 4, working.data());
        } else {
          context.render(graph.output, working.data(), sizeof working, CGRectMake(x, y, 1, 1), CIRenderFormat::RGBAf);
        }
      } catch (const std::exception& e) {
        throw RecipeError("cannot render the probe at (" + std::to_string(std::int64_t(x)) + ", " +
                          std::to_string(std::int64_t(y)) + "): " + e.what());
      }
      const auto stored = storedPixelFromWorking(working, spec.colorManagement);
      probes.push_back({{"at", {jsonNumber(x), jsonNumber(y)}},
                        {"rgba", {double(stored[0]), double(stored[1]), double(stored[2]), double(stored[3])}}});
    }
    result["probes"] = probes;
  }
  return result;
}

nlohmann::json runRecipe(std::string_view text, const std::string& baseDir, const RecipeOptions& options) {
  const json doc = parseRecipeJSON(text);
  const RecipeGraph graph = buildRecipe(doc, baseDir, options);
  return renderRecipe(graph, options);
}

std::string budgetMessage(const std::vector<ChainStep>& steps, const CIRenderBudgetError& refusal,
                          const CIContextOptions& options, bool toFile) {
  CIContextOptions quiet = options;
  quiet.progress = nullptr;
  const CIContext context(quiet);
  for (const ChainStep& step : steps) {
    if (!step.output || CGRectIsInfinite(step.output.extent()) || CGRectIsEmpty(step.output.extent())) continue;
    try {
      context.workingMemory(step.output, CGRectNull, toFile);
    } catch (const CIRenderBudgetError& e) {
      if (e.kind() != refusal.kind()) continue;
      if (e.kind() == CIRenderBudgetError::Kind::memory)
        return step.label + " needs " + CIContext::formatBytes(std::int64_t(e.needed())) +
               " of working memory, more than the budget of " + CIContext::formatBytes(std::int64_t(e.budget())) +
               " (--max-memory)";
      char text[96];
      std::snprintf(text, sizeof text, " makes the render compute %.3g pixels, more than the limit of %.3g", e.needed(),
                    e.budget());
      return step.label + text;
    } catch (const std::exception&) {
      continue;
    }
  }
  return refusal.what();
}

void prepareFilterRegistry() { registerBuiltinFilters(); }

}  // namespace qv

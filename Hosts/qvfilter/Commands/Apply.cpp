// `qvfilter apply IN OUT -f NAME [-s KEY=VALUE]... [-f NAME ...]`: a chain of filters applied
// to an image file, for people. Each -f starts a new step (setDefaults, then the previous
// step's output as its inputImage, then its -s values parsed by the input's attribute class).
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Command.h"
#include "CoreImage/CIContext.h"
#include "CoreImage/CIFilter.h"
#include "ImageFiles.h"
#include "PlugIns.h"
#include "Recipe.h"
#include "TextureCatalogue.h"
#include "ValueParsing.h"

namespace {

struct ApplyOptions {
  std::string input;
  std::string output;
  bool extentOnly = false;
  bool progress = false;
  int threads = 0;
  bool fastShrink = false;
  std::string maxMemory;
  std::string quality = "90";
  CLI::Option* filterOption = nullptr;
  CLI::Option* setOption = nullptr;
};

struct Step {
  std::string filter;
  std::vector<std::pair<std::string, std::string>> settings;
};

// The -f and -s options in the order they were given.
std::vector<Step> stepsInOrder(const CLI::App& cmd, const ApplyOptions& options) {
  std::vector<Step> steps;
  const auto& filters = options.filterOption->results();
  const auto& settings = options.setOption->results();
  std::size_t nextFilter = 0, nextSetting = 0;
  for (const CLI::Option* opt : cmd.parse_order()) {
    if (opt == options.filterOption && nextFilter < filters.size()) {
      steps.push_back(Step{filters[nextFilter++], {}});
    } else if (opt == options.setOption && nextSetting < settings.size()) {
      const std::string& setting = settings[nextSetting++];
      if (steps.empty()) throw qv::CommandError{"-s " + setting + " must follow the -f NAME of its filter"};
      const auto eq = setting.find('=');
      if (eq == std::string::npos || eq == 0) {
        throw qv::CommandError{"-s expects KEY=VALUE, got \"" + setting + "\""};
      }
      steps.back().settings.emplace_back(setting.substr(0, eq), setting.substr(eq + 1));
    }
  }
  if (steps.empty()) throw qv::CommandError{"apply needs at least one -f FILTER"};
  return steps;
}

CIImage runStep(const Step& step, const CIImage& previous) {
  CIFilterRef filter = CIFilter::filterWithName(step.filter);
  if (!filter) throw qv::CommandError{"unknown filter: " + step.filter};
  try {
    filter->setDefaults();
    const auto keys = filter->inputKeys();
    auto hasKey = [&](const std::string& k) { return std::find(keys.begin(), keys.end(), k) != keys.end(); };
    if (hasKey(kCIInputImageKey)) filter->setValue(Value(previous), kCIInputImageKey);
    for (const auto& [key, text] : step.settings) {
      if (!hasKey(key)) {
        std::string list;
        for (const auto& k : keys) list += (list.empty() ? "" : ", ") + k;
        throw qv::CommandError{step.filter + ": unknown key " + key + " (input keys: " + list + ")"};
      }
      const Value value = qv::parseValueForClass(text, qv::attributeClassForKey(*filter, key), key);
      qv::checkInputValue(*filter, key, value);
      filter->setValue(value, key);
    }
    filter->setCalculatedValues();
    for (const std::string& warning : qv::checkFilterInputs(*filter)) qv::printWarning(warning);
    CIImage output = filter->outputImage();
    if (!output && previous) throw qv::CommandError{qv::noImageMessage(step.filter, *filter)};
    return output;
  } catch (const qv::CommandError&) {
    throw;
  } catch (const std::exception& e) {
    throw qv::CommandError{step.filter + ": " + e.what()};
  }
}

std::string number(double v) { return qv::jsonNumber(v).dump(); }

// For a render that failed on a region of interest too large: the first step whose own output
// cannot be rendered even for one pixel at the middle of its extent, with the inputs it was
// given, as "CIAffineTransform with inputTransform=... needs more of its input than can be
// rendered"; empty when no single step explains it.
std::string stepThatCannotBeRendered(const std::vector<Step>& steps, const std::vector<CIImage>& outputs) {
  CIContextOptions one;
  one.threads = 1;
  for (std::size_t i = 0; i < steps.size() && i < outputs.size(); ++i) {
    const CGRect e = outputs[i].extent();
    if (!outputs[i] || CGRectIsEmpty(e)) continue;
    const CGRect pixel = CGRectIsInfinite(e) ? CGRectMake(0, 0, 1, 1)
                                             : CGRectMake(std::floor(CGRectGetMidX(e)), std::floor(CGRectGetMidY(e)), 1, 1);
    float rgba[4];
    try {
      CIContext(one).render(outputs[i], rgba, sizeof rgba, pixel, CIRenderFormat::RGBAf);
    } catch (const CIRenderError&) {
      std::string inputs;
      for (const auto& [key, text] : steps[i].settings) inputs += (inputs.empty() ? "" : ", ") + key + "=" + text;
      return steps[i].filter + (inputs.empty() ? std::string() : " with " + inputs) +
             " needs more of its input than can be rendered";
    }
  }
  return {};
}

// Prints "rendering: N%" lines on stderr, at most one per tenth.
class ProgressPrinter {
 public:
  void operator()(double fraction) {
    const int tenth = static_cast<int>(std::floor(std::clamp(fraction, 0.0, 1.0) * 10.0));
    std::lock_guard lock(mutex_);
    if (tenth <= printed_) return;
    printed_ = tenth;
    std::fprintf(stderr, "rendering: %d%%\n", tenth * 10);
  }

 private:
  std::mutex mutex_;
  int printed_ = 0;
};

void runApply(const CLI::App& cmd, const ApplyOptions& options) {
  qvLoadPlugIns();
  qv::prepareFilterRegistry();
  const std::vector<Step> steps = stepsInOrder(cmd, options);
  qv::parseQualityArgument(options.quality);  // checked before any decoding
  const std::int64_t maxMemory = options.maxMemory.empty() ? 0 : qv::parseMemoryArgument(options.maxMemory);
  CIImage image;
  try {
    image = qv::imageFromFile(options.input);
  } catch (const qv::ValueError& e) {
    throw qv::CommandError{e.what()};
  }
  std::vector<CIImage> stepOutputs;
  for (const Step& step : steps) {
    image = runStep(step, image);
    stepOutputs.push_back(image);
  }
  if (!image) throw qv::CommandError{"the filter chain produced no image"};
  const CGRect extent = image.extent();
  if (options.extentOnly) {
    std::string line;
    if (CGRectIsInfinite(extent)) {
      line = "infinite";
    } else if (CGRectIsNull(extent)) {
      line = "null";
    } else {
      line = number(extent.origin.x) + " " + number(extent.origin.y) + " " + number(extent.size.width) + " " +
             number(extent.size.height);
    }
    std::printf("%s\n", line.c_str());
    return;
  }
  if (options.output.empty()) throw qv::CommandError{"apply needs an output file (or --extent)"};
  if (CGRectIsInfinite(extent)) {
    throw qv::CommandError{"the output image is infinite; end the chain with a crop, e.g. -f CICrop -s "
                           "inputRectangle=\"0 0 WIDTH HEIGHT\""};
  }
  const CGRect bounds = CGRectIntegral(extent);
  if (CGRectIsNull(bounds) || CGRectIsEmpty(bounds)) throw qv::CommandError{"the output image is empty"};
  if (bounds.size.width * bounds.size.height > static_cast<double>(qv::kMaxOutputPixels)) {
    throw qv::CommandError{"the output image of " + number(bounds.size.width) + "x" + number(bounds.size.height) +
                           " pixels is more than the limit of " + std::to_string(qv::kMaxOutputPixels)};
  }
  std::string ext = std::filesystem::path(options.output).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
  if (ext != ".png" && ext != ".jpg" && ext != ".jpeg" && ext != ".webp") {
    throw qv::CommandError{"cannot write " + options.output + ": unknown image type \"" + ext +
                           "\" (use .png, .jpg or .webp)"};
  }
  CIContextOptions contextOptions;
  contextOptions.threads = options.threads;
  contextOptions.fastShrink = options.fastShrink;
  contextOptions.maxMemory = maxMemory;
  if (options.progress || isatty(STDERR_FILENO)) {
    auto printer = std::make_shared<ProgressPrinter>();
    contextOptions.progress = [printer](double f) { (*printer)(f); };
  }
  try {
    CIContext(contextOptions).writeToFile(image, options.output, bounds, qv::parseQualityArgument(options.quality) / 100.0);
  } catch (const CIImageDecodeError& e) {
    // The input file itself is damaged: no step is to blame.
    throw qv::CommandError{CIContext::writeErrorMessage(options.output, e.what())};
  } catch (const CIRenderBudgetError& e) {
    std::vector<qv::ChainStep> chain;
    for (std::size_t i = 0; i < steps.size() && i < stepOutputs.size(); ++i) {
      std::string inputs;
      for (const auto& [key, text] : steps[i].settings) inputs += (inputs.empty() ? " with " : ", ") + key + "=" + text;
      chain.push_back({"step " + std::to_string(i + 1) + " (" + steps[i].filter + ")" + inputs, stepOutputs[i]});
    }
    throw qv::CommandError{
        CIContext::writeErrorMessage(options.output, qv::budgetMessage(chain, e, contextOptions, true))};
  } catch (const CIRenderError& e) {
    // The renderer names the internal node it could not serve; the user asked for filters.
    const std::string step = stepThatCannotBeRendered(steps, stepOutputs);
    throw qv::CommandError{CIContext::writeErrorMessage(options.output, step.empty() ? e.what() : step)};
  } catch (const std::exception& e) {
    throw qv::CommandError{CIContext::writeErrorMessage(options.output, e.what())};
  }
  std::printf("%s -> %s (%sx%s)\n", options.input.c_str(), options.output.c_str(), number(bounds.size.width).c_str(),
              number(bounds.size.height).c_str());
}

const qv::CommandRegistration registration(30, [](CLI::App& app) {
  auto options = std::make_shared<ApplyOptions>();
  CLI::App* cmd = app.add_subcommand("apply", "Apply a chain of filters to an image file");
  cmd->add_option("input", options->input, "Input image file (the first filter's inputImage)")->required();
  cmd->add_option("output", options->output, "Output image file (.png, .jpg, .webp)");
  options->filterOption = cmd->add_option("-f,--filter", "Start a step with this filter (repeatable)")
                              ->option_text("NAME")
                              ->expected(1)
                              ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  options->setOption = cmd->add_option("-s,--set", "KEY=VALUE input of the current filter (repeatable)")
                           ->option_text("KEY=VALUE")
                           ->expected(1)
                           ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  cmd->add_flag("--extent", options->extentOnly, "Print the output extent (x y width height) without rendering");
  cmd->add_option("--threads", options->threads, "Render threads (0: one per core)")->check(CLI::Range(0, 256));
  qv::addFastShrinkFlag(cmd, options->fastShrink);
  cmd->add_option("--quality", options->quality, "JPEG/WebP quality, 0 to 100");
  qv::addMaxMemoryOption(cmd, options->maxMemory);
  cmd->add_flag("--progress", options->progress, "Print progress on stderr even when it is not a terminal");
  cmd->footer(
      "Values are read by the input's class (see qvfilter info NAME): NSNumber 3, 2.5 or true; CIVector \"x y\" "
      "or \"x y z w\"; CIColor \"r g b a\" or \"r g b\"; CIImage a file path; NSString as is; "
      "NSAffineTransform \"a b c d tx ty\".");
  cmd->callback([cmd, options] { runApply(*cmd, *options); });
});

}  // namespace

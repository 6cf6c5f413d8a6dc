// `qvfilter info FILE|FILTER [--json]`: an image file's header (size, orientation, format,
// colour model, alpha, depth, ICC profile), or a registered filter's description.
#include <filesystem>
#include <memory>
#include <string>

#include "Command.h"
#include "FilterInfo.h"
#include "ImageInfo.h"
#include "PlugIns.h"

namespace {

struct InfoOptions {
  std::string target;
  bool json = false;
};

void runInfo(const InfoOptions& options) {
  // A filter name wins over a file of the same name in the current directory.
  qvLoadPlugIns();
  if (qv::isRegisteredFilter(options.target)) {
    qv::runFilterInfo(options.target, options.json);
    return;
  }
  std::error_code ec;
  if (std::filesystem::exists(options.target, ec)) {
    qv::runImageInfo(options.target, options.json);
    return;
  }
  throw qv::CommandError{"no such file or filter: " + options.target};
}

const qv::CommandRegistration registration(30, [](CLI::App& app) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App* cmd = app.add_subcommand("info", "Describe an image file or a filter");
  cmd->add_option("target", options->target, "An image file (JPEG, PNG, WebP) or a filter name")->required();
  cmd->add_flag("--json", options->json, "Print JSON");
  cmd->callback([options] { runInfo(*options); });
});

}  // namespace

// `qvfilter list [--category NAME] [--json]`: the registered filters, sorted by name.
#include <cstdio>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "Command.h"
#include "CoreImage/CIFilter.h"
#include "PlugIns.h"
#include "Recipe.h"

namespace {

struct ListOptions {
  std::string category;
  bool json = false;
};

void runList(const ListOptions& options) {
  qvLoadPlugIns();
  qv::prepareFilterRegistry();
  const auto names = CIFilter::filterNamesInCategory(options.category);
  if (names.empty() && !options.category.empty()) {
    throw qv::CommandError{"no filter carries the category " + options.category};
  }
  std::string out;
  if (options.json) {
    auto array = nlohmann::json::array();
    for (const auto& name : names) {
      const CIFilterRegistration* r = CIFilter::registrationForName(name);
      nlohmann::json entry = nlohmann::json::object();
      entry["name"] = name;
      entry["displayName"] = r ? r->displayName : name;
      entry["categories"] = r ? nlohmann::json(r->categories) : nlohmann::json::array();
      array.push_back(std::move(entry));
    }
    out = array.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  } else {
    for (const auto& name : names) out += name + "\n";
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
}

const qv::CommandRegistration registration(20, [](CLI::App& app) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* cmd = app.add_subcommand("list", "List the registered filters");
  cmd->add_option("--category", options->category, "Only filters carrying this category (e.g. CICategoryBlur)");
  cmd->add_flag("--json", options->json, "Print a JSON array of {name, displayName, categories}");
  cmd->callback([options] { runList(*options); });
});

}  // namespace

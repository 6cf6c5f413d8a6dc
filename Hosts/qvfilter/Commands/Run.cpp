// `qvfilter run RECIPE.json|-`: runs a recipe and prints its JSON result on stdout.
#include <cstdio>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "Command.h"
#include "PlugIns.h"
#include "Recipe.h"

namespace {

struct RunOptions {
  std::string recipe;
  std::string output;
  int threads = 0;
};

void runRun(const RunOptions& options) {
  qvLoadPlugIns();
  qv::RecipeOptions recipeOptions;
  recipeOptions.threads = options.threads;
  recipeOptions.outputFileOverride = options.output;
  nlohmann::json result;
  try {
    const std::string text = qv::readRecipeText(options.recipe);
    result = qv::runRecipe(text, qv::recipeBaseDirectory(options.recipe), recipeOptions);
  } catch (const qv::RecipeError& e) {
    throw qv::CommandError{e.what()};
  }
  const std::string out = result.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::fwrite(out.data(), 1, out.size(), stdout);
}

const qv::CommandRegistration registration(40, [](CLI::App& app) {
  auto options = std::make_shared<RunOptions>();
  CLI::App* cmd = app.add_subcommand("run", "Run a JSON recipe and print its JSON result");
  cmd->add_option("recipe", options->recipe, "Recipe file, or - for standard input")->required();
  cmd->add_option("-o,--output", options->output, "Write the output image here instead of the recipe's \"file\"");
  cmd->add_option("--threads", options->threads, "Render threads (0: one per core)")->check(CLI::Range(0, 256));
  cmd->callback([options] { runRun(*options); });
});

}  // namespace

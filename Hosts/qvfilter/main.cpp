// qvfilter: the command-line host of the QVFilter image units.
#include <algorithm>
#include <cstdio>
#include <exception>

#include "Command.h"

namespace qv {

std::vector<std::pair<int, CommandRegistration::Setup>>& registeredCommands() {
  static std::vector<std::pair<int, CommandRegistration::Setup>> commands;
  return commands;
}

CommandRegistration::CommandRegistration(int order, Setup setup) {
  registeredCommands().emplace_back(order, std::move(setup));
}

}  // namespace qv

int main(int argc, char** argv) {
  CLI::App app{"qvfilter: apply, inspect and serve the QVFilter image units", "qvfilter"};
  app.set_version_flag("--version", std::string("qvfilter ") + QV_VERSION);
  app.require_subcommand(1);
  auto& commands = qv::registeredCommands();
  std::stable_sort(commands.begin(), commands.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (auto& [order, setup] : commands) setup(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  } catch (const qv::CommandError& e) {
    // An empty message: the command has said all there is to say and only sets the status.
    if (!e.message.empty()) std::fprintf(stderr, "qvfilter: %s\n", e.message.c_str());
    return e.exitCode;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qvfilter: %s\n", e.what());
    return 1;
  }
  return 0;
}

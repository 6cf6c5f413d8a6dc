// qvfilter: the command-line host of the QVFilter image units.
#include <malloc.h>

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
  // One malloc arena for all threads. The renderer's workers allocate little (their tile
  // buffers are pooled per column), but with an arena each, the buffers and decoded strips one
  // thread frees cannot serve another's next request, and the process's resident peak grows
  // by what the arenas hold apart: 5 to 7 MB on a one-filter pipeline over a 6000 x 4000 JPEG
  // (bench/README.md, "Mask and composite filters"), at the same CPU time.
  mallopt(M_ARENA_MAX, 1);
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

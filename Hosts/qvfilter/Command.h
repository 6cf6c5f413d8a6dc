// Self-registering subcommands of the qvfilter host. A command file defines a static
// CommandRegistration; main() builds the CLI11 app from every registration.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace qv {

// Thrown by a command for a user-facing failure: printed as one line on stderr, exit code 1.
struct CommandError {
  std::string message;
  int exitCode = 1;
};

struct CommandRegistration {
  // Adds the subcommand to `app` and sets its callback.
  using Setup = std::function<void(CLI::App& app)>;
  CommandRegistration(int order, Setup setup);
};

std::vector<std::pair<int, CommandRegistration::Setup>>& registeredCommands();

// The --max-memory option of the commands that render: its text, read by parseMemoryArgument.
inline CLI::Option* addMaxMemoryOption(CLI::App* cmd, std::string& text) {
  return cmd->add_option("--max-memory", text,
                         "Working memory one render may hold, e.g. 512M or 2G (default: a quarter of the machine's "
                         "memory); a render that needs more is refused before it starts")
      ->option_text("SIZE");
}

}  // namespace qv

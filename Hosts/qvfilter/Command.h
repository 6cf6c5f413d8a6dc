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

// The --fast-shrink flag of the commands that render files (CIContextOptions::fastShrink).
inline CLI::Option* addFastShrinkFlag(CLI::App* cmd, bool& flag) {
  return cmd->add_flag("--fast-shrink", flag,
                       "Decode a JPEG input at a reduced DCT scale (1/2, 1/4 or 1/8) where a Lanczos downscale by "
                       "1/4 or less is all that reads it, leaving the Lanczos at least a halving: faster and "
                       "smaller, but the pixels differ slightly from those of the full decode");
}

}  // namespace qv

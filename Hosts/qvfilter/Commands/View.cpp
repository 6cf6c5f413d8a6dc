// `qvfilter view NAME [--json] [--set KEY=VALUE]...`: the parameter view a host shows for a
// filter (its own view, or generic controls), as a tree of controls with their frames,
// bindings, values and menus. Each --set edits the control bound to KEY as a user would, so
// that the filter's inputs printed afterwards show what the binding wrote.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Command.h"
#include "Foundation/NSException.h"
#include "PlugIns.h"
#include "ValueParsing.h"
#include "ViewTree.h"

namespace {

struct ViewOptions {
  std::string filter;
  bool json = false;
  std::vector<std::string> sets;
};

void runView(const ViewOptions& options) {
  qvLoadPlugIns();
  qv::FilterView view;
  try {
    view = qv::makeFilterView(options.filter);
  } catch (const std::invalid_argument& e) {
    throw qv::CommandError{e.what()};
  } catch (const NSException& e) {
    throw qv::CommandError{"cannot build the view of " + options.filter + ": " + e.reason()};
  }
  for (const std::string& assignment : options.sets) {
    const std::size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0)
      throw qv::CommandError{"--set expects KEY=VALUE, got \"" + assignment + "\""};
    try {
      qv::editBoundControl(view, assignment.substr(0, eq), assignment.substr(eq + 1));
    } catch (const qv::ValueError& e) {
      throw qv::CommandError{e.what()};
    } catch (const NSException& e) {
      throw qv::CommandError{assignment.substr(0, eq) + ": " + e.reason()};
    }
  }
  const std::string out = options.json ? qv::filterViewJSON(view).dump(2) + "\n" : qv::filterViewText(view);
  std::fputs(out.c_str(), stdout);
}

const qv::CommandRegistration registration(35, [](CLI::App& app) {
  auto options = std::make_shared<ViewOptions>();
  CLI::App* cmd = app.add_subcommand("view", "Show a filter's parameter view: controls, bindings, values and menus");
  cmd->add_option("filter", options->filter, "A filter name")->required();
  cmd->add_flag("--json", options->json, "Print JSON");
  cmd->add_option("--set", options->sets, "Edit the control bound to KEY with VALUE, as a user would (repeatable)")
      ->option_text("KEY=VALUE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  cmd->callback([options] { runView(*options); });
});

}  // namespace

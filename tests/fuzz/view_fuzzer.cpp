// View description text from the fuzzer, read as a bundle's Views/<name>.json is: parsed and
// built into a view tree. A broken description must be refused with the reader's
// NSInternalInconsistencyException naming the description; any other exception, crash, hang or
// runaway allocation is a finding. A description that loads must give a tree that keeps what
// the reader promises: outlets unique and reachable in the tree under their own identifiers,
// frames finite with sizes not negative, nesting within the reader's limit, and every view of a
// kind the descriptions know.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "AppKit/NSViewDescription.h"
#include "Foundation/NSException.h"

namespace {

constexpr int kMaximumDepth = 32;  // the root at 0, its subviews at 1, and so on

const std::set<std::string> kKinds = {"view",     "label",     "textField", "slider",
                                      "popUpButton", "checkBox", "colorWell", "imageWell"};

// Counts the views of the tree and checks each one; aborts on a broken promise.
std::size_t checkTree(const NSView& view, int depth, std::set<const NSView*>& seen) {
  if (depth > kMaximumDepth) std::abort();
  if (!seen.insert(&view).second) std::abort();  // a view in the tree twice
  const CGRect f = view.frame();
  if (!std::isfinite(f.origin.x) || !std::isfinite(f.origin.y) || !std::isfinite(f.size.width) ||
      !std::isfinite(f.size.height) || f.size.width < 0 || f.size.height < 0)
    std::abort();
  if (!kKinds.count(NSViewDescriptionKind(view))) std::abort();
  std::size_t count = 1;
  for (const NSViewRef& sub : view.subviews()) {
    if (sub->superview() != &view) std::abort();
    count += checkTree(*sub, depth + 1, seen);
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  NSViewDescription description;
  try {
    description = NSViewDescriptionFromText(text, "FuzzView");
  } catch (const NSException& e) {
    if (e.name() != NSInternalInconsistencyException || e.reason().rfind("view description FuzzView: ", 0) != 0)
      std::abort();
    return 0;
  }
  if (!description.view) std::abort();
  std::set<const NSView*> seen;
  checkTree(*description.view, 0, seen);
  for (const auto& [outlet, view] : description.outlets)
    if (outlet.empty() || !seen.count(view) || view->identifier() != outlet) std::abort();
  return 0;
}

#include "Framework/QVFilterKernelLoader.h"

#include <atomic>

#include "Foundation/NSBundle.h"
#include "Foundation/NSException.h"
#include "Foundation/NSURL.h"
#include "Foundation/TextDecoding.h"
#include "Framework/QVFilterImageUnitsConstants.h"

namespace {

std::atomic<std::size_t> kernelResourceLoads{0};

}  // namespace

CIKernelRef QVFilterKernelList::kernelAtIndex(std::size_t index) const {
  if (!present) return nullptr;
  if (index >= kernels.size())
    NSException::raise(NSRangeException, "*** -[__NSArray objectAtIndex:]: index " + std::to_string(index) +
                                              " beyond bounds " +
                                              (kernels.empty() ? std::string("for empty array")
                                                               : "[0 .. " + std::to_string(kernels.size() - 1) + "]"));
  return kernels[index];
}

std::optional<std::string> QVFilterStringWithContentsOfFile(const std::string& path) {
  return QVReadTextFile(path, kQVFilterKernelResourceMaximumSize, QVUnmarkedText::UTF8OrLatin1).text;
}

QVFilterKernelList QVFilterKernelsFromResourceInBundle(const std::shared_ptr<NSBundle>& bundle,
                                                       const std::string& name) {
  ++kernelResourceLoads;
  QVFilterKernelList list;
  if (!bundle) return list;
  // Top level of the bundle's resources, no subdirectory.
  const auto url = bundle->URLForResource(name, "cikernel");
  if (!url) return list;
  // Read errors are not inspected: unreadable text is a nil list, like a missing file.
  const std::optional<std::string> text = QVFilterStringWithContentsOfFile(url->path());
  if (!text) return list;
  // A text that does not compile is a nil list too, silently: the diagnostic (line and
  // column) is for `qvfilter kernel check`, not for the host.
  std::vector<KernelDiagnostic> diagnostics;
  std::vector<CIKernelRef> kernels = CIKernel::kernelsWithString(*text, &diagnostics);
  if (!diagnostics.empty()) return list;
  list.present = true;
  list.kernels = std::move(kernels);
  return list;
}

QVFilterKernelList QVFilterKernelsFromResource(const std::string& name) {
  return QVFilterKernelsFromResourceInBundle(NSBundle::bundleWithIdentifier(QVFilterImageUnitsBundleIdentifier), name);
}

std::size_t QVFilterKernelResourceLoadCount() { return kernelResourceLoads.load(); }

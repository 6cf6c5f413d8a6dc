#include "PlugInSymbols.h"

#include <dlfcn.h>

#include "Foundation/NSBundle.h"

namespace qv {

void* loadedPlugInSymbol(const std::string& bundleIdentifier, const char* symbol) {
  const auto bundle = NSBundle::bundleWithIdentifier(bundleIdentifier);
  if (!bundle) return nullptr;
  const std::string library = bundle->executablePath();
  if (library.empty()) return nullptr;
  // The bundle is already loaded: this only finds it again.
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
  if (!handle) return nullptr;
  return dlsym(handle, symbol);
}

}  // namespace qv

// Reaching an exported function of a plug-in bundle that is already loaded, by symbol name:
// the few services a plug-in offers hosts besides its filter classes (texture resolution, the
// texture menus).
#pragma once

#include <string>

namespace qv {

// The symbol in the library of the loaded bundle with that identifier; nullptr when no such
// bundle is loaded or it does not export the symbol.
void* loadedPlugInSymbol(const std::string& bundleIdentifier, const char* symbol);

}  // namespace qv

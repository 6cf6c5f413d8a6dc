// Loading the image-unit bundles into a host (the qvfilter command line, the Python module, the
// GIMP plug-in).
#pragma once

#include <string>
#include <vector>

// Loads the plug-in bundles once per process; later calls do nothing. Bundles are searched
// for, in order, in the entries of QV_PLUGIN_PATH (colon-separated; each a *.plugin bundle or
// a directory holding *.plugin bundles), then in the executable's own directory (a host that
// is installed as one folder with the bundle beside it, like the GIMP plug-in), then in the
// install location beside the executable, <bindir>/../lib/qvfilter/. A bundle whose identifier was already loaded from an earlier
// entry is not loaded again. Each failure is printed once on stderr:
//   qvfilter: cannot load plug-in PATH: REASON
void qvLoadPlugIns();

// The same for a host that is itself a loaded library: `installedLocations` (directories
// holding *.plugin bundles, searched after QV_PLUGIN_PATH) replace the executable's.
void qvLoadPlugIns(const std::vector<std::string>& installedLocations);

// The directories and bundles qvLoadPlugIns searches, in order.
std::vector<std::string> qvPlugInSearchPath();
std::vector<std::string> qvPlugInSearchPath(const std::vector<std::string>& installedLocations);

// The directory of the shared object (executable or library) that holds `address`; "" when it
// cannot be found.
std::string qvDirectoryOfLoadedObject(const void* address);

// The directory of the running executable; "" when it cannot be found.
std::string qvExecutableDirectory();

// The filters the loaded bundles offer: the registered classes their filter descriptions name,
// sorted.
std::vector<std::string> qvPlugInFilterNames();

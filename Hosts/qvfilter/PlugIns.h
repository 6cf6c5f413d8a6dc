// Loading the image-unit bundles into the qvfilter host.
#pragma once

#include <string>
#include <vector>

// Loads the plug-in bundles once per process; later calls do nothing. Bundles are searched
// for, in order, in the entries of QV_PLUGIN_PATH (colon-separated; each a *.plugin bundle or
// a directory holding *.plugin bundles), then in the install location beside the executable,
// <bindir>/../lib/qvfilter/. A bundle whose identifier was already loaded from an earlier
// entry is not loaded again. Each failure is printed once on stderr:
//   qvfilter: cannot load plug-in PATH: REASON
void qvLoadPlugIns();

// The directories and bundles qvLoadPlugIns searches, in order.
std::vector<std::string> qvPlugInSearchPath();

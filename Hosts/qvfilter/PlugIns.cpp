#include "PlugIns.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>

#include "CoreImage/CIPlugIn.h"

namespace fs = std::filesystem;

namespace {

// Beside the executable (a plug-in host such as GIMP's keeps the bundle next to itself), then
// lib/qvfilter/ of the tree the executable is installed in.
std::vector<std::string> executableLocations() {
  const fs::path bin = qvExecutableDirectory();
  if (bin.empty()) return {};
  return {bin.string(), (bin / ".." / "lib" / "qvfilter").lexically_normal().string()};
}

}  // namespace

std::string qvExecutableDirectory() {
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (ec) return {};
  return exe.parent_path().string();
}

std::vector<std::string> qvPlugInSearchPath(const std::vector<std::string>& installedLocations) {
  std::vector<std::string> path;
  if (const char* env = std::getenv("QV_PLUGIN_PATH")) {
    std::string list(env);
    std::size_t start = 0;
    while (start <= list.size()) {
      std::size_t end = list.find(':', start);
      if (end == std::string::npos) end = list.size();
      if (end > start) path.push_back(list.substr(start, end - start));
      start = end + 1;
    }
  }
  path.insert(path.end(), installedLocations.begin(), installedLocations.end());
  return path;
}

std::vector<std::string> qvPlugInSearchPath() { return qvPlugInSearchPath(executableLocations()); }

void qvLoadPlugIns(const std::vector<std::string>& installedLocations) {
  static std::once_flag once;
  std::call_once(once, [&] {
    for (const std::string& failure : CIPlugIn::loadAllPlugIns(qvPlugInSearchPath(installedLocations)))
      std::fprintf(stderr, "qvfilter: cannot load plug-in %s\n", failure.c_str());
  });
}

void qvLoadPlugIns() { qvLoadPlugIns(executableLocations()); }

std::string qvDirectoryOfLoadedObject(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || !info.dli_fname) return {};
  std::error_code ec;
  const fs::path file = fs::canonical(info.dli_fname, ec);
  return ec ? std::string() : file.parent_path().string();
}

std::vector<std::string> qvPlugInFilterNames() {
  std::set<std::string> names;
  for (const std::string& bundle : CIPlugIn::loadedPlugIns()) {
    std::string error;
    const Value description = CIPlugIn::readFilterDescription(
        bundle + "/Resources/" + kCIPlugInDescriptionResource + "." + kCIPlugInDescriptionExtension, &error);
    if (const Dictionary* d = description.dictionary())
      for (const auto& [name, entry] : *d)
        if (CIFilter::registrationForName(name)) names.insert(name);
  }
  return {names.begin(), names.end()};
}

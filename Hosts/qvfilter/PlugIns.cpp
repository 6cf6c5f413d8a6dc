#include "PlugIns.h"


#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "CoreImage/CIPlugIn.h"

namespace fs = std::filesystem;

namespace {

// The directory of the running executable (empty when it cannot be found).
fs::path executableDirectory() {
  std::error_code ec;
  fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  if (ec) return {};
  return exe.parent_path();
}

}  // namespace

std::vector<std::string> qvPlugInSearchPath() {
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
  const fs::path bin = executableDirectory();
  if (!bin.empty()) {
    path.push_back(bin.string());
    path.push_back((bin / ".." / "lib" / "qvfilter").lexically_normal().string());
  }
  return path;
}

void qvLoadPlugIns() {
  static std::once_flag once;
  std::call_once(once, [] {
    for (const std::string& failure : CIPlugIn::loadAllPlugIns(qvPlugInSearchPath()))
      std::fprintf(stderr, "qvfilter: cannot load plug-in %s\n", failure.c_str());
  });
}

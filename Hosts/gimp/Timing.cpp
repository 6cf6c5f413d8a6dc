#include "Timing.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

namespace qvgimp {
namespace {

double bootSeconds() {
  timespec t{};
  clock_gettime(CLOCK_BOOTTIME, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// When the kernel started this process, in seconds since boot (field 22 of /proc/self/stat,
// in clock ticks); the first mark's time when that cannot be read.
double processStart() {
  std::ifstream in("/proc/self/stat");
  std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos) return bootSeconds();
  std::istringstream fields(stat.substr(close + 2));
  std::string field;
  // Fields from the third (state) on; the start time is the 22nd.
  for (int i = 3; i <= 22 && fields >> field; ++i) {
    if (i == 22) return std::strtod(field.c_str(), nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  return bootSeconds();
}

// CPU time of all the process's threads so far, user and system.
double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

// The most memory the process has held resident, in KB: VmHWM of /proc/self/status, which
// starts afresh at exec (getrusage's ru_maxrss keeps GIMP's own, from before the exec).
long peakResidentKB() {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return 0;
}

}  // namespace

bool timingEnabled() {
  static const bool enabled = [] {
    const char* v = std::getenv("QV_GIMP_TIMING");
    return v && *v && std::strcmp(v, "0") != 0;
  }();
  return enabled;
}

void timingMark(const char* step) {
  if (!timingEnabled()) return;
  static const double start = processStart();
  static double last = start, lastCPU = 0;
  const double now = bootSeconds(), cpu = cpuSeconds();
  std::fprintf(stderr, "qvfilter-gimp: %-28s %7.3f s, CPU %6.3f s (at %.3f s), peak RSS %ld MB\n", step, now - last,
               cpu - lastCPU, now - start, peakResidentKB() / 1024);
  last = now;
  lastCPU = cpu;
}

}  // namespace qvgimp

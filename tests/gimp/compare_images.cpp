// compare_images EXPECTED ACTUAL [--max-changed FRACTION]: compares two PNG files under the
// golden tolerances (per-value 0.004, at most 2% of values beyond it, none beyond 0.012, on a
// 0-1 scale); exit 0 when they match, 1 with the reason when they do not, 2 on unreadable input.
//
// compare_images --region ORIGINAL RESULT X Y W H: checks that RESULT equals ORIGINAL exactly
// outside the rectangle (top-left origin) and differs from it somewhere inside.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Golden.h"

namespace {

bool load(const char* path, std::vector<std::uint8_t>& rgba, std::size_t& w, std::size_t& h) {
  std::string error;
  if (!qv::golden::readPNG(path, rgba, w, h, error)) {
    std::fprintf(stderr, "%s: %s\n", path, error.c_str());
    return false;
  }
  return true;
}

int compareRegion(char** argv) {
  std::vector<std::uint8_t> a, b;
  std::size_t aw, ah, bw, bh;
  if (!load(argv[2], a, aw, ah) || !load(argv[3], b, bw, bh)) return 2;
  if (aw != bw || ah != bh) {
    std::printf("sizes differ: %zux%zu against %zux%zu\n", aw, ah, bw, bh);
    return 1;
  }
  const long x0 = std::atol(argv[4]), y0 = std::atol(argv[5]), x1 = x0 + std::atol(argv[6]),
             y1 = y0 + std::atol(argv[7]);
  std::size_t outsideChanged = 0, insideChanged = 0;
  for (std::size_t y = 0; y < ah; ++y)
    for (std::size_t x = 0; x < aw; ++x) {
      const std::size_t i = (y * aw + x) * 4;
      bool same = true;
      for (int c = 0; c < 4; ++c) same = same && a[i + c] == b[i + c];
      const bool inside = long(x) >= x0 && long(x) < x1 && long(y) >= y0 && long(y) < y1;
      if (!same) ++(inside ? insideChanged : outsideChanged);
    }
  std::printf("%zu pixels changed inside, %zu outside\n", insideChanged, outsideChanged);
  return outsideChanged == 0 && insideChanged > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 8 && std::string(argv[1]) == "--region") return compareRegion(argv);
  if (argc != 3) {
    std::fprintf(stderr, "usage: compare_images EXPECTED ACTUAL | --region ORIGINAL RESULT X Y W H\n");
    return 2;
  }
  std::vector<std::uint8_t> expected, actual;
  std::size_t ew, eh, aw, ah;
  if (!load(argv[1], expected, ew, eh) || !load(argv[2], actual, aw, ah)) return 2;
  if (ew != aw || eh != ah) {
    std::printf("sizes differ: expected %zux%zu, got %zux%zu\n", ew, eh, aw, ah);
    return 1;
  }
  const qv::golden::Result r = qv::golden::compareRGBA8(actual, expected, aw, ah);
  std::printf("%s (max %.4f, %zu of %zu values beyond 0.004)\n", r.ok ? "match" : r.message.c_str(), r.maxDifference,
              r.overTolerance, r.values);
  return r.ok ? 0 : 1;
}

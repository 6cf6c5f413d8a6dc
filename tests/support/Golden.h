// Golden-image comparison: a render compared with a reference PNG under tests/golden/.
//
// The render is 8-bit sRGB with straight alpha, compared value by value on a 0-1 scale: every
// value within 0.004 except at most 2% of them, none beyond 0.012. On a mismatch the actual
// render and a difference image are written to <build>/golden-failures/ and the test fails; a
// missing reference fails too. With QV_UPDATE_GOLDEN=1 in the environment the render is written
// as the new reference and the test still fails, so that every reference change is looked at
// before it is committed (see tests/golden/README.md).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIImage.h"

// gtest assertion helper (non-fatal): renders `rect` of `image` and compares it with
// tests/golden/<name>.png. `name` may contain '/' to group references in folders.
void expectMatchesGolden(const CIImage& image, const CGRect& rect, const std::string& name);

namespace qv::golden {

struct Tolerance {
  double perValue = 0.004;
  double fraction = 0.02;
  double hardLimit = 0.012;
};

struct Result {
  bool ok = false;
  std::size_t values = 0, overTolerance = 0;
  double maxDifference = 0;
  std::string message;
};

// Compares two straight RGBA8 buffers of width × height (row 0 = top) under the tolerance.
Result compareRGBA8(const std::vector<std::uint8_t>& actual, const std::vector<std::uint8_t>& expected,
                    std::size_t width, std::size_t height, const Tolerance& tolerance = {});

// The folder of the references and the folder failures are written to.
std::string referenceDirectory();
std::string failureDirectory();

// PNG I/O through ImageIO: straight 8-bit RGBA, row 0 = top. readPNG returns false (and a
// reason) when the file is missing or unreadable.
bool readPNG(const std::string& path, std::vector<std::uint8_t>& rgba, std::size_t& width, std::size_t& height,
             std::string& error);
bool writePNG(const std::string& path, const std::vector<std::uint8_t>& rgba, std::size_t width, std::size_t height);

}  // namespace qv::golden

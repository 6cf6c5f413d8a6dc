#include "Golden.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "CoreImage/CIContext.h"
#include "ImageIO/ImageIO.h"

namespace fs = std::filesystem;

namespace qv::golden {
namespace {

std::string environmentOr(const char* variable, const char* fallback) {
  const char* v = std::getenv(variable);
  return v != nullptr && *v != '\0' ? std::string(v) : std::string(fallback);
}

#ifndef QV_SOURCE_DIR
#define QV_SOURCE_DIR "."
#endif
#ifndef QV_BINARY_DIR
#define QV_BINARY_DIR "."
#endif

bool updateRequested() {
  const char* v = std::getenv("QV_UPDATE_GOLDEN");
  return v != nullptr && std::string(v) == "1";
}

// Difference image: the actual render in dim grey, and red where values differ, brighter
// the larger the difference (full red at three times the per-value tolerance).
std::vector<std::uint8_t> differenceImage(const std::vector<std::uint8_t>& actual,
                                          const std::vector<std::uint8_t>& expected, const Tolerance& t) {
  std::vector<std::uint8_t> diff(actual.size());
  for (std::size_t i = 0; i + 3 < actual.size(); i += 4) {
    double d = 0;
    for (int c = 0; c < 4; ++c) d = std::max(d, std::fabs(double(actual[i + c]) - double(expected[i + c])) / 255.0);
    const auto grey = std::uint8_t((int(actual[i]) + int(actual[i + 1]) + int(actual[i + 2])) / 12);
    const auto red = d > 0 ? std::uint8_t(std::min(255.0, 64.0 + 191.0 * d / (3 * t.perValue))) : grey;
    diff[i] = d > 0 ? red : grey;
    diff[i + 1] = grey;
    diff[i + 2] = grey;
    diff[i + 3] = 255;
  }
  return diff;
}

}  // namespace

std::string referenceDirectory() { return environmentOr("QV_SOURCE_DIR", QV_SOURCE_DIR) + "/tests/golden"; }
std::string failureDirectory() { return std::string(QV_BINARY_DIR) + "/golden-failures"; }

Result compareRGBA8(const std::vector<std::uint8_t>& actual, const std::vector<std::uint8_t>& expected,
                    std::size_t width, std::size_t height, const Tolerance& tolerance) {
  Result r;
  r.values = width * height * 4;
  if (actual.size() != r.values || expected.size() != r.values) {
    r.message = "buffer sizes differ from " + std::to_string(width) + " x " + std::to_string(height);
    return r;
  }
  for (std::size_t i = 0; i < r.values; ++i) {
    const double d = std::fabs(double(actual[i]) - double(expected[i])) / 255.0;
    r.maxDifference = std::max(r.maxDifference, d);
    if (d > tolerance.perValue) ++r.overTolerance;
  }
  r.ok = r.maxDifference <= tolerance.hardLimit && double(r.overTolerance) <= tolerance.fraction * double(r.values);
  std::ostringstream s;
  s << "largest difference " << r.maxDifference << " (limit " << tolerance.hardLimit << "), " << r.overTolerance
    << " of " << r.values << " values above " << tolerance.perValue << " (at most " << tolerance.fraction * 100
    << "% allowed)";
  r.message = s.str();
  return r;
}

bool readPNG(const std::string& path, std::vector<std::uint8_t>& rgba, std::size_t& width, std::size_t& height,
             std::string& error) {
  if (!fs::exists(path)) {
    error = "no such file";
    return false;
  }
  const CGImageSourceRef source = CGImageSourceCreateWithURL(path);
  if (!source) {
    error = CGImageSourceGetCreateError();
    return false;
  }
  CGImageRef image = CGImageSourceCreateImageAtIndex(source, 0);
  if (!image) {
    error = CGImageSourceGetLastError(source);
    return false;
  }
  if (image->bitsPerComponent != 8) image = CGImageCreateWithBitsPerComponent(image, 8);
  if (!image) {
    error = "cannot reduce the reference to 8 bits per component";
    return false;
  }
  width = image->width;
  height = image->height;
  rgba.resize(width * height * 4);
  for (std::size_t y = 0; y < height; ++y) std::copy_n(image->row(y), width * 4, rgba.data() + y * width * 4);
  return true;
}

bool writePNG(const std::string& path, const std::vector<std::uint8_t>& rgba, std::size_t width, std::size_t height) {
  std::error_code ec;
  fs::create_directories(fs::path(path).parent_path(), ec);
  const CGImageDestinationRef dest = CGImageDestinationCreateWithURL(path, kUTTypePNG);
  if (!dest || !CGImageDestinationBeginImage(dest, width, height, 8, true, {})) return false;
  if (!CGImageDestinationWriteRows(dest, rgba.data(), width * 4, height)) return false;
  return CGImageDestinationFinalize(dest);
}

}  // namespace qv::golden

void expectMatchesGolden(const CIImage& image, const CGRect& rect, const std::string& name) {
  using namespace qv::golden;
  const CGRect r = CGRectIntegral(rect);
  const auto width = static_cast<std::size_t>(CGRectGetWidth(r));
  const auto height = static_cast<std::size_t>(CGRectGetHeight(r));
  if (image.isNil() || width == 0 || height == 0) {
    ADD_FAILURE() << "golden '" << name << "': nothing to render (nil image or empty rectangle)";
    return;
  }
  std::vector<std::uint8_t> actual(width * height * 4);
  try {
    CIContext().render(image, actual.data(), static_cast<std::ptrdiff_t>(width * 4), r, CIRenderFormat::RGBA8);
  } catch (const std::exception& e) {
    ADD_FAILURE() << "golden '" << name << "': render failed: " << e.what();
    return;
  }

  const std::string reference = referenceDirectory() + "/" + name + ".png";
  if (updateRequested()) {
    if (writePNG(reference, actual, width, height))
      ADD_FAILURE() << "golden '" << name << "': reference written to " << reference
                    << " (QV_UPDATE_GOLDEN=1); review it, commit it, and run again without the variable";
    else
      ADD_FAILURE() << "golden '" << name << "': cannot write the reference " << reference;
    return;
  }

  std::vector<std::uint8_t> expected;
  std::size_t ew = 0, eh = 0;
  std::string error;
  const std::string actualPath = failureDirectory() + "/" + name + ".actual.png";
  if (!readPNG(reference, expected, ew, eh, error)) {
    writePNG(actualPath, actual, width, height);
    ADD_FAILURE() << "golden '" << name << "': missing or unreadable reference " << reference << " (" << error
                  << "); the render is in " << actualPath << "; run with QV_UPDATE_GOLDEN=1 to create the reference";
    return;
  }
  if (ew != width || eh != height) {
    writePNG(actualPath, actual, width, height);
    ADD_FAILURE() << "golden '" << name << "': reference is " << ew << " x " << eh << ", render is " << width << " x "
                  << height << "; the render is in " << actualPath;
    return;
  }
  const Tolerance tolerance;
  const Result result = compareRGBA8(actual, expected, width, height, tolerance);
  if (!result.ok) {
    const std::string diffPath = failureDirectory() + "/" + name + ".diff.png";
    writePNG(actualPath, actual, width, height);
    writePNG(diffPath, differenceImage(actual, expected, tolerance), width, height);
    ADD_FAILURE() << "golden '" << name << "' differs: " << result.message << "; see " << actualPath << " and "
                  << diffPath;
  }
}

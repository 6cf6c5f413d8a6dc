#include "ImageFiles.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "Command.h"
#include "ImageIO/ImageIO.h"

namespace qv {

std::size_t parseSizeArgument(const std::string& name, const std::string& text, std::size_t minimum,
                              std::size_t maximum) {
  const std::string message = name + " must be a whole number from " + std::to_string(minimum) + " to " +
                              std::to_string(maximum) + ": " + text;
  if (text.empty() || text.size() > 12) throw CommandError{message};
  for (char c : text)
    if (c < '0' || c > '9') throw CommandError{message};
  const unsigned long long v = std::strtoull(text.c_str(), nullptr, 10);
  if (v < minimum || v > maximum) throw CommandError{message};
  return static_cast<std::size_t>(v);
}

double parseQualityArgument(const std::string& text) {
  const std::string message = "--quality must be a number from 0 to 100: " + text;
  if (text.empty()) throw CommandError{message};
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(v) || v < 0 || v > 100)
    throw CommandError{message};
  return v;
}

std::string outputTypeForPath(const std::string& path) {
  const std::string type = CGImageDestinationTypeForPath(path);
  if (type.empty()) throw CommandError{"unknown output format: " + path + " (use .png, .jpg, .jpeg or .webp)"};
  return type;
}

}  // namespace qv

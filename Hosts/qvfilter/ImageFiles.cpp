#include "ImageFiles.h"

#include <cctype>
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

std::int64_t parseMemoryArgument(const std::string& text) {
  const std::string message = "--max-memory expects a size such as 512M or 2G, at least 1M: " + text;
  std::size_t numberEnd = 0;
  while (numberEnd < text.size() && ((text[numberEnd] >= '0' && text[numberEnd] <= '9') || text[numberEnd] == '.'))
    ++numberEnd;
  if (numberEnd == 0 || numberEnd > 24) throw CommandError{message};
  char* end = nullptr;
  const std::string digits = text.substr(0, numberEnd);
  const double v = std::strtod(digits.c_str(), &end);
  if (end != digits.c_str() + digits.size() || !std::isfinite(v)) throw CommandError{message};
  std::string unit = text.substr(numberEnd);
  for (char& c : unit) c = char(std::toupper(static_cast<unsigned char>(c)));
  double scale = 1;
  if (!unit.empty() && std::string("KMGT").find(unit[0]) != std::string::npos) {
    scale = std::ldexp(1.0, 10 * int(1 + std::string("KMGT").find(unit[0])));
    unit.erase(0, 1);
    if (unit == "IB") unit = "B";
  }
  if (!unit.empty() && unit != "B") throw CommandError{message};
  const double bytes = v * scale;
  // Beyond 2^60 bytes no machine has that memory; the cap keeps the conversion exact.
  if (bytes < double(1 << 20) || bytes > std::ldexp(1.0, 60)) throw CommandError{message};
  return static_cast<std::int64_t>(bytes);
}

std::string outputTypeForPath(const std::string& path) {
  const std::string type = CGImageDestinationTypeForPath(path);
  if (type.empty()) throw CommandError{"unknown output format: " + path + " (use .png, .jpg, .jpeg or .webp)"};
  return type;
}

}  // namespace qv

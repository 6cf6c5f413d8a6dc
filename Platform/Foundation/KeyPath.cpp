#include "Foundation/KeyPath.h"

namespace {
template <class Range>
std::string join(const Range& components) {
  std::string result;
  bool first = true;
  for (const std::string& c : components) {
    if (!first) result += '.';
    result += c;
    first = false;
  }
  return result;
}
}  // namespace

std::string stringWithKeyPathComponents(std::initializer_list<std::string> components) { return join(components); }
std::string stringWithKeyPathComponents(const std::vector<std::string>& components) { return join(components); }

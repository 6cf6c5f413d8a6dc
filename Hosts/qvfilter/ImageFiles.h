// Small helpers of the image commands: parsing size and quality arguments, and naming the
// output type of a path, each failing with a one-line qv::CommandError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qv {

// A whole number in [minimum, maximum] from the text of option `name`; otherwise throws
// CommandError "<name> must be a whole number from <minimum> to <maximum>: <text>".
std::size_t parseSizeArgument(const std::string& name, const std::string& text, std::size_t minimum,
                              std::size_t maximum);

// A number in [0, 100] (the command-line's quality scale); throws CommandError otherwise.
double parseQualityArgument(const std::string& text);

// A memory size such as 512M, 2G, 1.5G or 1048576 (bytes; K, M, G and T are binary multiples,
// an optional B or iB after them), at least 1M; throws CommandError otherwise.
std::int64_t parseMemoryArgument(const std::string& text);

// The destination type of an output path from its extension; throws CommandError
// "unknown output format: PATH (use .png, .jpg, .jpeg or .webp)".
std::string outputTypeForPath(const std::string& path);

}  // namespace qv

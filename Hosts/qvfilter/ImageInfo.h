// Describing an image file: `qvfilter info FILE [--json]`.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace qv {

// {"path", "type", "format", "width", "height", "orientation", "displayWidth", "displayHeight",
// "colorModel", "hasAlpha", "depth", "indexed", "progressive", "iccProfile", "profileName"}.
// Throws qv::CommandError when the file cannot be read or is not a readable image.
nlohmann::json imageInfoJSON(const std::string& path);

// Prints the image's description on stdout (readable lines, or JSON); returns the exit code.
// Throws qv::CommandError with a one-line message for a missing, unknown or damaged file.
int runImageInfo(const std::string& path, bool json);

// "JPEG", "PNG", "WebP" for a type identifier ("" for others).
std::string imageFormatName(const std::string& typeIdentifier);

}  // namespace qv

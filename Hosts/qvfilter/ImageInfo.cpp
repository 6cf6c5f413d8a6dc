// Describing an image file from its header, without decoding its pixels.
#include "ImageInfo.h"

#include <cstdio>

#include "Command.h"
#include "ImageIO/ImageIO.h"

namespace qv {

std::string imageFormatName(const std::string& typeIdentifier) {
  if (typeIdentifier == kUTTypeJPEG) return "JPEG";
  if (typeIdentifier == kUTTypePNG) return "PNG";
  if (typeIdentifier == kUTTypeWebP) return "WebP";
  return "";
}

nlohmann::json imageInfoJSON(const std::string& path) {
  CGImageSourceRef source = CGImageSourceCreateWithURL(path);
  if (!source) throw CommandError{CGImageSourceGetCreateError()};
  Dictionary p = CGImageSourceCopyPropertiesAtIndex(source, 0);
  if (p.empty()) throw CommandError{CGImageSourceGetLastError(source) + ": " + path};
  const auto width = p[kCGImagePropertyPixelWidth].integerValue();
  const auto height = p[kCGImagePropertyPixelHeight].integerValue();
  const auto orientation = p[kCGImagePropertyOrientation].integerValue();
  const bool swapped = orientation >= 5 && orientation <= 8;
  nlohmann::json j = nlohmann::json::object();
  j["path"] = path;
  j["type"] = CGImageSourceGetType(source);
  j["format"] = imageFormatName(CGImageSourceGetType(source));
  j["width"] = width;
  j["height"] = height;
  j["orientation"] = orientation;
  j["displayWidth"] = swapped ? height : width;
  j["displayHeight"] = swapped ? width : height;
  j["colorModel"] = p[kCGImagePropertyColorModel].string() ? *p[kCGImagePropertyColorModel].string() : "";
  j["hasAlpha"] = p[kCGImagePropertyHasAlpha].boolValue();
  j["depth"] = p[kCGImagePropertyDepth].integerValue();
  j["indexed"] = p[kCGImagePropertyIsIndexed].boolValue();
  j["progressive"] = p[kCGImagePropertyIsProgressive].boolValue();
  j["iccProfile"] = p[kCGImagePropertyHasICCProfile].boolValue();
  j["profileName"] = p[kCGImagePropertyProfileName].string() ? nlohmann::json(*p[kCGImagePropertyProfileName].string())
                                                            : nlohmann::json(nullptr);
  return j;
}

int runImageInfo(const std::string& path, bool json) {
  const nlohmann::json j = imageInfoJSON(path);
  std::string out;
  if (json) {
    out = j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  } else {
    auto line = [&](const char* label, const std::string& value) { out += std::string(label) + value + "\n"; };
    line("file:         ", path);
    line("format:       ", j["format"].get<std::string>() + " (" + j["type"].get<std::string>() + ")");
    line("size:         ", std::to_string(j["width"].get<long long>()) + "x" + std::to_string(j["height"].get<long long>()));
    std::string orientation = std::to_string(j["orientation"].get<long long>());
    if (j["orientation"].get<long long>() != 1)
      orientation += " (displayed " + std::to_string(j["displayWidth"].get<long long>()) + "x" +
                     std::to_string(j["displayHeight"].get<long long>()) + ")";
    line("orientation:  ", orientation);
    line("color model:  ", j["colorModel"].get<std::string>());
    line("alpha:        ", j["hasAlpha"].get<bool>() ? "yes" : "no");
    line("depth:        ", std::to_string(j["depth"].get<long long>()) + " bits per component" +
                               (j["indexed"].get<bool>() ? ", indexed" : ""));
    if (j["progressive"].get<bool>()) line("progressive:  ", "yes");
    std::string icc = j["iccProfile"].get<bool>() ? "embedded" : "none";
    if (!j["profileName"].is_null()) icc += " (" + j["profileName"].get<std::string>() + ")";
    line("ICC profile:  ", icc);
  }
  std::fwrite(out.data(), 1, out.size(), stdout);
  return 0;
}

}  // namespace qv

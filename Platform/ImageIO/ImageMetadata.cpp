// EXIF orientation (through libexif) and ICC profile descriptions, shared by the decoders.
#include <cstring>
#include <string>
#include <vector>

#include <libexif/exif-data.h>

#include "ImageIO/ImageIOCodecs.h"

namespace imageio_detail {

namespace {

// libexif logs through a callback that defaults to nothing; it is still given one, so that a
// future default cannot reach stderr.
void ignoreExifLog(ExifLog*, ExifLogCode, const char*, const char*, va_list, void*) {}

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

std::string trimmed(std::string s) {
  while (!s.empty() && (s.back() == '\0' || s.back() == ' ' || s.back() == '\n')) s.pop_back();
  std::size_t start = 0;
  while (start < s.size() && s[start] == ' ') ++start;
  return s.substr(start);
}

// Keeps printable ASCII and UTF-8; anything else becomes '?'.
std::string printable(const std::string& s) {
  std::string out;
  for (unsigned char c : s) out.push_back((c >= 0x20 && c != 0x7f) ? static_cast<char>(c) : '?');
  return out;
}

}  // namespace

int exifOrientation(const std::uint8_t* data, std::size_t size) {
  if (!data || size < 8 || size > (std::size_t{1} << 30)) return 1;
  // libexif expects the "Exif\0\0" preamble; eXIf (PNG) and WebP EXIF chunks often lack it.
  std::vector<std::uint8_t> withHeader;
  static const std::uint8_t kPreamble[6] = {'E', 'x', 'i', 'f', 0, 0};
  if (std::memcmp(data, kPreamble, 6) != 0) {
    withHeader.reserve(size + 6);
    withHeader.insert(withHeader.end(), kPreamble, kPreamble + 6);
    withHeader.insert(withHeader.end(), data, data + size);
    data = withHeader.data();
    size = withHeader.size();
  }
  ExifData* exif = exif_data_new();
  if (!exif) return 1;
  ExifLog* log = exif_log_new();
  if (log) {
    exif_log_set_func(log, ignoreExifLog, nullptr);
    exif_data_log(exif, log);
  }
  // Only the orientation tag is wanted: skip the maker notes and tag fix-ups.
  exif_data_unset_option(exif, EXIF_DATA_OPTION_FOLLOW_SPECIFICATION);
  exif_data_unset_option(exif, EXIF_DATA_OPTION_IGNORE_UNKNOWN_TAGS);
  exif_data_load_data(exif, data, static_cast<unsigned int>(size));
  int orientation = 1;
  if (ExifEntry* e = exif_content_get_entry(exif->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION)) {
    if (e->data && e->size >= 2 && e->components >= 1 && e->format == EXIF_FORMAT_SHORT) {
      const int v = exif_get_short(e->data, exif_data_get_byte_order(exif));
      if (v >= 1 && v <= 8) orientation = v;
    }
  }
  exif_data_unref(exif);
  if (log) exif_log_unref(log);
  return orientation;
}

std::string iccProfileDescription(const std::uint8_t* data, std::size_t size) {
  if (!data || size < 132) return "";
  if (std::memcmp(data + 36, "acsp", 4) != 0) return "";
  const std::uint32_t tagCount = be32(data + 128);
  if (tagCount > (size - 132) / 12) return "";
  for (std::uint32_t i = 0; i < tagCount; ++i) {
    const std::uint8_t* entry = data + 132 + 12 * i;
    if (std::memcmp(entry, "desc", 4) != 0) continue;
    const std::uint64_t offset = be32(entry + 4), length = be32(entry + 8);
    if (offset + length > size || length < 12) return "";
    const std::uint8_t* tag = data + offset;
    if (std::memcmp(tag, "desc", 4) == 0) {
      // textDescriptionType: count (including the terminating NUL), then ASCII.
      const std::uint64_t count = be32(tag + 8);
      if (count == 0 || 12 + count > length) return "";
      return printable(trimmed(std::string(reinterpret_cast<const char*>(tag + 12), count)));
    }
    if (std::memcmp(tag, "mluc", 4) == 0) {
      // multiLocalizedUnicodeType: records of (language, country, length, offset), UTF-16BE.
      if (length < 16) return "";
      const std::uint32_t records = be32(tag + 8), recordSize = be32(tag + 12);
      if (records == 0 || recordSize < 12 || 16 + std::uint64_t{recordSize} > length) return "";
      const std::uint64_t strLength = be32(tag + 16 + 4), strOffset = be32(tag + 16 + 8);
      if (strOffset + strLength > length) return "";
      std::string out;
      for (std::uint64_t k = 0; k + 1 < strLength; k += 2) {
        const unsigned c = (unsigned{tag[strOffset + k]} << 8) | tag[strOffset + k + 1];
        if (c == 0) break;
        if (c < 0x80) {
          out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
          out.push_back(static_cast<char>(0xc0 | (c >> 6)));
          out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
        } else if (c >= 0xd800 && c < 0xe000) {
          out.push_back('?');  // surrogate halves: not worth decoding for a description
        } else {
          out.push_back(static_cast<char>(0xe0 | (c >> 12)));
          out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3f)));
          out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
        }
      }
      return printable(trimmed(out));
    }
    return "";
  }
  return "";
}

}  // namespace imageio_detail

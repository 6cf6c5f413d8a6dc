#include "Foundation/TextDecoding.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <sys/stat.h>

namespace {

bool startsWith(std::string_view bytes, std::string_view mark) {
  return bytes.size() >= mark.size() && bytes.compare(0, mark.size(), mark) == 0;
}

std::string hex4(std::uint32_t unit) {
  char buffer[8];
  std::snprintf(buffer, sizeof buffer, "%04X", unit);
  return buffer;
}

QVDecodedText failure(QVTextEncoding encoding, bool mark, std::string error) {
  QVDecodedText result;
  result.encoding = encoding;
  result.hadByteOrderMark = mark;
  result.error = std::move(error);
  return result;
}

QVDecodedText success(QVTextEncoding encoding, bool mark, std::string text) {
  QVDecodedText result;
  result.text = std::move(text);
  result.encoding = encoding;
  result.hadByteOrderMark = mark;
  return result;
}

// UTF-16 code units after the two-byte mark; surrogates must come in high-low pairs.
QVDecodedText decodeUTF16(std::string_view bytes, bool bigEndian) {
  const QVTextEncoding encoding = bigEndian ? QVTextEncoding::UTF16BigEndian : QVTextEncoding::UTF16LittleEndian;
  const std::string name = QVTextEncodingName(encoding);
  if (bytes.size() % 2 != 0)
    return failure(encoding, true,
                   name + " text has an odd number of bytes (" + std::to_string(bytes.size()) + ")");
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  auto unit = [&](std::size_t i) -> std::uint32_t {
    return bigEndian ? (std::uint32_t{p[i]} << 8 | p[i + 1]) : (std::uint32_t{p[i + 1]} << 8 | p[i]);
  };
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t i = 2; i < bytes.size(); i += 2) {
    const std::uint32_t u = unit(i);
    if (u >= 0xDC00 && u <= 0xDFFF)
      return failure(encoding, true,
                     name + " text has an unpaired low surrogate " + hex4(u) + " at byte " + std::to_string(i));
    if (u >= 0xD800 && u <= 0xDBFF) {
      const std::uint32_t low = i + 3 < bytes.size() ? unit(i + 2) : 0;
      if (low < 0xDC00 || low > 0xDFFF)
        return failure(encoding, true,
                       name + " text has an unpaired high surrogate " + hex4(u) + " at byte " + std::to_string(i));
      QVAppendUTF8(out, static_cast<char32_t>(0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00)));
      i += 2;
      continue;
    }
    QVAppendUTF8(out, static_cast<char32_t>(u));
  }
  return success(encoding, true, std::move(out));
}

}  // namespace

const char* QVTextEncodingName(QVTextEncoding encoding) {
  switch (encoding) {
    case QVTextEncoding::UTF8: return "UTF-8";
    case QVTextEncoding::UTF16LittleEndian: return "UTF-16LE";
    case QVTextEncoding::UTF16BigEndian: return "UTF-16BE";
    case QVTextEncoding::Latin1: return "Latin-1";
  }
  return "UTF-8";
}

void QVAppendUTF8(std::string& out, char32_t codePoint) {
  const auto cp = static_cast<std::uint32_t>(codePoint);
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

std::size_t QVFirstInvalidUTF8Offset(std::string_view bytes) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t n = bytes.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t len;
    std::uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) {
      len = 2;
      cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      len = 3;
      cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      len = 4;
      cp = c & 0x07;
    } else {
      return i;
    }
    if (i + len > n) return i;
    for (std::size_t k = 1; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return i;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
      return i;
    i += len;
  }
  return std::string_view::npos;
}

QVDecodedText QVDecodeText(std::string_view bytes, QVUnmarkedText unmarked) {
  if (startsWith(bytes, "\xFF\xFE")) return decodeUTF16(bytes, false);
  if (startsWith(bytes, "\xFE\xFF")) return decodeUTF16(bytes, true);
  const bool mark = startsWith(bytes, "\xEF\xBB\xBF");
  const std::string_view body = mark ? bytes.substr(3) : bytes;
  const std::size_t bad = QVFirstInvalidUTF8Offset(body);
  if (bad == std::string_view::npos) return success(QVTextEncoding::UTF8, mark, std::string(body));
  if (!mark && unmarked == QVUnmarkedText::UTF8OrLatin1) {
    std::string out;
    out.reserve(bytes.size() * 2);
    for (char c : bytes) QVAppendUTF8(out, static_cast<unsigned char>(c));
    return success(QVTextEncoding::Latin1, false, std::move(out));
  }
  return failure(QVTextEncoding::UTF8, mark,
                 "text is not valid UTF-8 at byte " + std::to_string(bad + (mark ? 3 : 0)));
}

QVDecodedText QVReadTextFile(const std::string& path, std::size_t maximumSize, QVUnmarkedText unmarked) {
  auto fail = [&](const std::string& why) { return failure(QVTextEncoding::UTF8, false, why + ": " + path); };
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return fail(std::string("cannot open file (") + std::strerror(errno) + ")");
  if (!S_ISREG(st.st_mode)) return fail("not a regular file");
  const auto size = static_cast<std::uint64_t>(st.st_size);
  if (size > maximumSize)
    return fail("file of " + std::to_string(size) + " bytes is over the limit of " + std::to_string(maximumSize) +
                " bytes");
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return fail(std::string("cannot open file (") + std::strerror(errno) + ")");
  std::string bytes;
  try {
    bytes.resize(static_cast<std::size_t>(size));
  } catch (const std::bad_alloc&) {
    std::fclose(f);
    return fail("out of memory reading file");
  }
  const std::size_t got = bytes.empty() ? 0 : std::fread(bytes.data(), 1, bytes.size(), f);
  // A file that grew since stat is read only up to the size it had; one that shrank is an error.
  const bool readError = std::ferror(f) != 0;
  std::fclose(f);
  if (readError || got != bytes.size()) return fail("cannot read file");
  QVDecodedText result = QVDecodeText(bytes, unmarked);
  if (!result) result.error += " in " + path;
  return result;
}

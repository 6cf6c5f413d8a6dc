// Text files and byte buffers to UTF-8, their encoding detected from a byte-order mark, as the
// platform's string class reads text "with its encoding detected":
//   EF BB BF  UTF-8 (the mark is dropped)
//   FF FE     UTF-16 little-endian
//   FE FF     UTF-16 big-endian
//   no mark   UTF-8, or (when the caller allows it) Latin-1 for bytes that are not valid UTF-8
// Invalid input is refused with a reason that names what is wrong and where (byte offsets count
// from the start of the input, mark included), never patched up with replacement characters.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

enum class QVTextEncoding { UTF8, UTF16LittleEndian, UTF16BigEndian, Latin1 };

// What unmarked bytes that are not valid UTF-8 are taken to be.
enum class QVUnmarkedText {
  UTF8Only,      // an error
  UTF8OrLatin1,  // Latin-1: every byte is the code point of the same value
};

struct QVDecodedText {
  std::optional<std::string> text;  // UTF-8; nullopt on error
  QVTextEncoding encoding = QVTextEncoding::UTF8;
  bool hadByteOrderMark = false;
  std::string error;  // "" when text is set, otherwise one line, e.g.
                      // "UTF-16LE text has an unpaired high surrogate D83D at byte 6"

  explicit operator bool() const { return text.has_value(); }
};

// "UTF-8", "UTF-16LE", "UTF-16BE" or "Latin-1".
const char* QVTextEncodingName(QVTextEncoding encoding);

// Decodes `bytes`. Errors: UTF-16 text with an odd number of bytes, an unpaired high or low
// surrogate; unmarked (or UTF-8-marked) text that is not valid UTF-8, unless `unmarked` allows
// Latin-1 for unmarked text. Empty input is empty UTF-8 text.
QVDecodedText QVDecodeText(std::string_view bytes, QVUnmarkedText unmarked = QVUnmarkedText::UTF8Only);

// Reads the whole file at `path` and decodes it as above. Errors also name the file: it cannot
// be opened or read, it is not a regular file, or it is larger than `maximumSize` bytes.
QVDecodedText QVReadTextFile(const std::string& path, std::size_t maximumSize,
                             QVUnmarkedText unmarked = QVUnmarkedText::UTF8Only);

// The offset of the first byte of `bytes` that does not belong to a well-formed UTF-8 sequence
// (overlong forms, surrogates and code points above U+10FFFF are not well formed), or
// std::string_view::npos when all of it is valid UTF-8.
std::size_t QVFirstInvalidUTF8Offset(std::string_view bytes);

// Appends the UTF-8 form of `codePoint` (at most U+10FFFF, not a surrogate) to `out`.
void QVAppendUTF8(std::string& out, char32_t codePoint);

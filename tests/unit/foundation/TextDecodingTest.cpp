// Text decoding by byte-order mark: UTF-8 with and without its mark, UTF-16 of both byte
// orders, the Latin-1 fallback, and the errors for input that does not decode (unpaired
// surrogates, odd UTF-16 byte counts, broken UTF-8), from buffers and from files.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "Foundation/TextDecoding.h"
#include "TempDir.h"

namespace {

using namespace std::string_literals;

// UTF-16 bytes of `text` with the mark of the chosen byte order.
std::string utf16(std::u16string_view text, bool bigEndian) {
  std::string out = bigEndian ? "\xFE\xFF"s : "\xFF\xFE"s;
  for (char16_t c : text) {
    const char hi = static_cast<char>(c >> 8), lo = static_cast<char>(c & 0xFF);
    out += bigEndian ? hi : lo;
    out += bigEndian ? lo : hi;
  }
  return out;
}

}  // namespace

TEST(TextDecoding, UnmarkedUTF8PassesThrough) {
  const QVDecodedText d = QVDecodeText("caf\xC3\xA9 \xF0\x9F\x98\x80");
  ASSERT_TRUE(d) << d.error;
  EXPECT_EQ(*d.text, "caf\xC3\xA9 \xF0\x9F\x98\x80");
  EXPECT_EQ(d.encoding, QVTextEncoding::UTF8);
  EXPECT_FALSE(d.hadByteOrderMark);
  EXPECT_EQ(d.error, "");
}

TEST(TextDecoding, UTF8MarkIsDropped) {
  const QVDecodedText d = QVDecodeText("\xEF\xBB\xBF" "abc");
  ASSERT_TRUE(d) << d.error;
  EXPECT_EQ(*d.text, "abc");
  EXPECT_EQ(d.encoding, QVTextEncoding::UTF8);
  EXPECT_TRUE(d.hadByteOrderMark);
  // A mark alone is empty text; only the first mark is one (a second is U+FEFF in the text).
  EXPECT_EQ(QVDecodeText("\xEF\xBB\xBF").text, "");
  EXPECT_EQ(QVDecodeText("\xEF\xBB\xBF\xEF\xBB\xBF" "a").text, "\xEF\xBB\xBF" "a");
}

TEST(TextDecoding, UTF16OfBothByteOrders) {
  const std::u16string text = u"caf\u00e9 \u4e2d \U0001F600!";
  const std::string expected = "caf\xC3\xA9 \xE4\xB8\xAD \xF0\x9F\x98\x80!";
  for (bool bigEndian : {false, true}) {
    const QVDecodedText d = QVDecodeText(utf16(text, bigEndian));
    ASSERT_TRUE(d) << d.error;
    EXPECT_EQ(*d.text, expected) << bigEndian;
    EXPECT_EQ(d.encoding, bigEndian ? QVTextEncoding::UTF16BigEndian : QVTextEncoding::UTF16LittleEndian);
    EXPECT_TRUE(d.hadByteOrderMark);
  }
  // Hand-written bytes: "a" then U+1F600 as the pair D83D DE00.
  EXPECT_EQ(QVDecodeText("\xFF\xFE" "a\0\x3D\xD8\x00\xDE"s).text, "a\xF0\x9F\x98\x80");
  EXPECT_EQ(QVDecodeText("\xFE\xFF\0a\xD8\x3D\xDE\x00"s).text, "a\xF0\x9F\x98\x80");
  // U+0000 and U+FFFF decode like any other unit; the caller decides whether it wants them.
  EXPECT_EQ(QVDecodeText("\xFE\xFF\0\0\xFF\xFF"s).text, "\0\xEF\xBF\xBF"s);
  // A mark alone is empty text.
  EXPECT_EQ(QVDecodeText("\xFF\xFE").text, "");
  EXPECT_EQ(QVDecodeText("\xFE\xFF").text, "");
}

TEST(TextDecoding, UnpairedSurrogatesAreErrors) {
  // A high surrogate followed by an ordinary unit (byte 2 is the first unit after the mark).
  QVDecodedText d = QVDecodeText("\xFF\xFE\x3D\xD8" "a\0"s);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "UTF-16LE text has an unpaired high surrogate D83D at byte 2");
  EXPECT_EQ(d.encoding, QVTextEncoding::UTF16LittleEndian);
  // A high surrogate at the very end.
  d = QVDecodeText("\xFE\xFF\0a\xD8\x3D"s);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "UTF-16BE text has an unpaired high surrogate D83D at byte 4");
  // Two high surrogates in a row: the first has no low half.
  d = QVDecodeText("\xFE\xFF\xD8\x3D\xD8\x3D\xDE\x00"s);
  EXPECT_EQ(d.error, "UTF-16BE text has an unpaired high surrogate D83D at byte 2");
  // A low surrogate with no high one before it.
  d = QVDecodeText("\xFE\xFF\0a\0b\xDE\x00"s);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "UTF-16BE text has an unpaired low surrogate DE00 at byte 6");
  // Reversed pair.
  d = QVDecodeText("\xFF\xFE\x00\xDE\x3D\xD8"s);
  EXPECT_EQ(d.error, "UTF-16LE text has an unpaired low surrogate DE00 at byte 2");
}

TEST(TextDecoding, OddUTF16ByteCountsAreErrors) {
  QVDecodedText d = QVDecodeText("\xFF\xFE" "a\0b"s);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "UTF-16LE text has an odd number of bytes (5)");
  d = QVDecodeText("\xFE\xFF\0"s);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "UTF-16BE text has an odd number of bytes (3)");
  // The odd count is reported even when the units before it are fine.
  d = QVDecodeText(utf16(u"kernel", true) + "x");
  EXPECT_EQ(d.error, "UTF-16BE text has an odd number of bytes (15)");
}

TEST(TextDecoding, EmptyInputIsEmptyUTF8Text) {
  for (QVUnmarkedText mode : {QVUnmarkedText::UTF8Only, QVUnmarkedText::UTF8OrLatin1}) {
    const QVDecodedText d = QVDecodeText("", mode);
    ASSERT_TRUE(d);
    EXPECT_EQ(*d.text, "");
    EXPECT_EQ(d.encoding, QVTextEncoding::UTF8);
    EXPECT_FALSE(d.hadByteOrderMark);
  }
  // One byte is too short for any mark: ordinary (here invalid) UTF-8.
  EXPECT_EQ(QVDecodeText("\xFF").error, "text is not valid UTF-8 at byte 0");
}

TEST(TextDecoding, BrokenUTF8IsAnErrorUnlessLatin1IsAllowed) {
  QVDecodedText d = QVDecodeText("caf\xE9");
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "text is not valid UTF-8 at byte 3");
  d = QVDecodeText("caf\xE9", QVUnmarkedText::UTF8OrLatin1);
  ASSERT_TRUE(d);
  EXPECT_EQ(*d.text, "caf\xC3\xA9");
  EXPECT_EQ(d.encoding, QVTextEncoding::Latin1);
  // Valid UTF-8 stays UTF-8 even when Latin-1 is allowed.
  d = QVDecodeText("caf\xC3\xA9", QVUnmarkedText::UTF8OrLatin1);
  EXPECT_EQ(d.encoding, QVTextEncoding::UTF8);
  EXPECT_EQ(*d.text, "caf\xC3\xA9");
  // Behind a UTF-8 mark the text claims to be UTF-8: no fallback, and the offset counts the mark.
  d = QVDecodeText("\xEF\xBB\xBF" "ab\xC0\xAF", QVUnmarkedText::UTF8OrLatin1);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "text is not valid UTF-8 at byte 5");
  EXPECT_TRUE(d.hadByteOrderMark);
}

TEST(TextDecoding, FirstInvalidUTF8Offset) {
  constexpr auto npos = std::string_view::npos;
  EXPECT_EQ(QVFirstInvalidUTF8Offset(""), npos);
  EXPECT_EQ(QVFirstInvalidUTF8Offset("plain \xC3\xA9\xE4\xB8\xAD\xF4\x8F\xBF\xBF"), npos);  // up to U+10FFFF
  EXPECT_EQ(QVFirstInvalidUTF8Offset("ab\xC0\xAF"), 2u);          // overlong "/"
  EXPECT_EQ(QVFirstInvalidUTF8Offset("a\xE0\x80\xAF"), 1u);       // overlong three-byte form
  EXPECT_EQ(QVFirstInvalidUTF8Offset("a\xED\xA0\x80"), 1u);       // encoded surrogate D800
  EXPECT_EQ(QVFirstInvalidUTF8Offset("\xF4\x90\x80\x80"), 0u);    // past U+10FFFF
  EXPECT_EQ(QVFirstInvalidUTF8Offset("abc\xE4\xB8"), 3u);         // cut short at the end
  EXPECT_EQ(QVFirstInvalidUTF8Offset("\xC3\xA9\x80"), 2u);        // stray continuation byte
}

TEST(TextDecoding, AppendUTF8CoversEveryLength) {
  std::string out;
  for (char32_t cp : {U'A', U'\u00e9', U'\u4e2d', U'\U0001F600', U'\U0010FFFF'}) QVAppendUTF8(out, cp);
  EXPECT_EQ(out, "A\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF");
}

TEST(TextDecoding, ReadsFilesAndNamesTheFileInErrors) {
  TempDir dir;
  const std::string le = dir.write("le.txt", utf16(u"x = 1;", false));
  QVDecodedText d = QVReadTextFile(le, 1024);
  ASSERT_TRUE(d) << d.error;
  EXPECT_EQ(*d.text, "x = 1;");
  EXPECT_EQ(d.encoding, QVTextEncoding::UTF16LittleEndian);

  EXPECT_EQ(QVReadTextFile(dir.write("empty.txt", ""), 1024).text, "");
  EXPECT_EQ(QVReadTextFile(dir.write("latin.txt", "caf\xE9"), 1024, QVUnmarkedText::UTF8OrLatin1).text,
            "caf\xC3\xA9");

  const std::string odd = dir.write("odd.txt", "\xFE\xFF\0a\0"s);
  d = QVReadTextFile(odd, 1024);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "UTF-16BE text has an odd number of bytes (5) in " + odd);

  // Exactly at the limit is fine; one byte over is refused before anything is read.
  const std::string ten = dir.write("ten.txt", "0123456789");
  EXPECT_EQ(QVReadTextFile(ten, 10).text, "0123456789");
  d = QVReadTextFile(ten, 9);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "file of 10 bytes is over the limit of 9 bytes: " + ten);

  d = QVReadTextFile(dir / "missing.txt", 1024);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "cannot open file (No such file or directory): " + (dir / "missing.txt"));
  d = QVReadTextFile(dir.path().string(), 1024);
  EXPECT_FALSE(d);
  EXPECT_EQ(d.error, "not a regular file: " + dir.path().string());
}

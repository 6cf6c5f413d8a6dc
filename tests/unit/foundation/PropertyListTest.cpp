// Reading and writing property lists: XML, binary and old-style text.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Foundation/PropertyList.h"
#include "ValuePrinter.h"
#include "TempDir.h"

namespace {

const char* kXML = R"plist(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>textures</key>
  <dict>
    <key>rough stone</key>
    <dict>
      <key>displayName</key><string>Rough &amp; Stone</string>
      <key>fileName</key><string>stone.jpg</string>
      <key>tags</key><array><string>Stone</string><string>Grey</string></array>
      <key>constraints</key>
      <array>
        <dict>
          <key>destinationAttribute</key><string>width</string>
          <key>sourceAttribute</key><string>width</string>
          <key>scale</key><real>0.5</real>
          <key>offset</key><real>-2</real>
        </dict>
      </array>
    </dict>
  </dict>
  <key>version</key><integer>3</integer>
  <key>negative</key><integer>-7</integer>
  <key>enabled</key><true/>
  <key>disabled</key><false/>
  <key>blob</key><data>AAEC/w==</data>
  <key>when</key><date>2001-01-02T00:00:00Z</date>
</dict>
</plist>
)plist";

Value parse(const std::string& s) { return propertyListFromData(s.data(), s.size()); }

}  // namespace

TEST(PropertyList, ReadsXML) {
  const Value plist = parse(kXML);
  ASSERT_NE(plist.dictionary(), nullptr);
  const Value stone = plist["textures"]["rough stone"];
  EXPECT_EQ(stone["displayName"], Value("Rough & Stone"));
  EXPECT_EQ(stone["fileName"], Value("stone.jpg"));
  ASSERT_NE(stone["tags"].array(), nullptr);
  EXPECT_EQ(stone["tags"], Value(Array{"Stone", "Grey"}));
  const Value constraint = (*stone["constraints"].array())[0];
  EXPECT_TRUE(constraint["scale"].isReal());
  EXPECT_EQ(constraint["scale"].doubleValue(), 0.5);
  EXPECT_TRUE(constraint["offset"].isReal());
  EXPECT_EQ(constraint["offset"].doubleValue(), -2.0);
  EXPECT_TRUE(plist["version"].isInteger());
  EXPECT_EQ(plist["version"].integerValue(), 3);
  EXPECT_EQ(plist["negative"].integerValue(), -7);
  EXPECT_TRUE(plist["enabled"].isBoolean());
  EXPECT_TRUE(plist["enabled"].boolValue());
  EXPECT_TRUE(plist["disabled"].isBoolean());
  EXPECT_FALSE(plist["disabled"].boolValue());
  ASSERT_NE(plist["blob"].data(), nullptr);
  EXPECT_EQ(plist["blob"].data()->bytes, (std::vector<std::uint8_t>{0, 1, 2, 255}));
  ASSERT_NE(plist["when"].date(), nullptr);
  EXPECT_EQ(plist["when"].date()->secondsSinceReferenceDate, 86400.0);
}

TEST(PropertyList, BinaryRoundTrip) {
  const Value original = parse(kXML);
  ASSERT_TRUE(original.dictionary());
  const std::optional<std::string> binary = dataWithPropertyList(original, /*xml=*/false);
  ASSERT_TRUE(binary.has_value());
  EXPECT_EQ(binary->compare(0, 8, "bplist00"), 0);
  const Value back = parse(*binary);
  EXPECT_EQ(back, original);
  EXPECT_TRUE(back["version"].isInteger());
  EXPECT_TRUE(back["textures"]["rough stone"]["constraints"].array()->front()["scale"].isReal());
  EXPECT_TRUE(back["enabled"].isBoolean());
}

TEST(PropertyList, XMLRoundTripKeepsKinds) {
  const Value original = Dictionary{{"i", Value::integer(-12345678901LL)},
                                    {"r", 0.1},
                                    {"whole", 2.0},
                                    {"b", Value::boolean(true)},
                                    {"s", "text <with> & \"marks\" caf\xC3\xA9"},
                                    {"a", Array{1, "two", Array{}}},
                                    {"d", Dictionary{}},
                                    {"data", Data{{9, 8, 7}}},
                                    {"date", Date{1000}}};  // XML dates hold whole seconds
  const std::optional<std::string> xml = dataWithPropertyList(original);
  ASSERT_TRUE(xml.has_value());
  const Value back = parse(*xml);
  EXPECT_EQ(back, original) << *xml;
  EXPECT_TRUE(back["i"].isInteger());
  EXPECT_TRUE(back["r"].isReal());
  EXPECT_TRUE(back["whole"].isReal());
  EXPECT_TRUE(back["b"].isBoolean());
}

TEST(PropertyList, BinaryDatesKeepFractions) {
  const Value original = Array{Date{1000.5}, Date{-86400.25}};
  const std::optional<std::string> binary = dataWithPropertyList(original, false);
  ASSERT_TRUE(binary.has_value());
  EXPECT_EQ(parse(*binary), original);
}

TEST(PropertyList, WritesAndReadsFiles) {
  TempDir dir;
  const Value original = Dictionary{{"textures", Dictionary{{"k", Dictionary{{"fileName", "k.png"}}}}}};
  ASSERT_TRUE(writePropertyList(original, dir / "index.plist"));
  EXPECT_EQ(propertyListFromFile(dir / "index.plist"), original);
  ASSERT_TRUE(writePropertyList(original, dir / "index.bin.plist", /*xml=*/false));
  EXPECT_EQ(propertyListFromFile(dir / "index.bin.plist"), original);
}

TEST(PropertyList, RefusesValuesThatAreNotPropertyLists) {
  TempDir dir;
  EXPECT_FALSE(dataWithPropertyList(Value()).has_value());
  EXPECT_FALSE(dataWithPropertyList(Value(CGAffineTransformIdentity)).has_value());
  EXPECT_FALSE(dataWithPropertyList(Value(Array{Value()})).has_value());
  EXPECT_FALSE(writePropertyList(Value(Dictionary{{"x", Value()}}), dir / "bad.plist"));
  EXPECT_FALSE(std::filesystem::exists(dir / "bad.plist"));
  EXPECT_FALSE(writePropertyList(Value(Dictionary{}), dir / "no-such-dir/x.plist"));
}

TEST(PropertyList, MissingFileIsNil) {
  TempDir dir;
  EXPECT_TRUE(propertyListFromFile(dir / "absent.plist").isNil());
  EXPECT_TRUE(propertyListFromFile(dir.path().string()).isNil());  // a directory
  EXPECT_TRUE(propertyListFromFile("").isNil());
}

TEST(PropertyList, MalformedDataIsNil) {
  EXPECT_TRUE(parse("").isNil());
  EXPECT_TRUE(parse("garbage that is no list").isNil());
  EXPECT_TRUE(parse("<?xml version=\"1.0\"?><plist><dict><key>a</key>").isNil());
  EXPECT_TRUE(parse("<?xml version=\"1.0\"?><plist><integer>12</string></plist>").isNil());
  EXPECT_TRUE(parse("bplist00").isNil());
  EXPECT_TRUE(parse(std::string("bplist00\x00\x01\x02\x03garbage", 19)).isNil());
  EXPECT_TRUE(parse("{ a = b; ").isNil());
  EXPECT_TRUE(parse("( a, b").isNil());
  EXPECT_TRUE(parse("{ a = \"unterminated; }").isNil());
  EXPECT_TRUE(parse("<0fz>").isNil());
  EXPECT_TRUE(propertyListFromData(nullptr, 10).isNil());
}

TEST(PropertyList, TruncatedBinaryIsNil) {
  const std::optional<std::string> binary = dataWithPropertyList(parse(kXML), false);
  ASSERT_TRUE(binary.has_value());
  for (std::size_t cut : {binary->size() - 1, binary->size() / 2, std::size_t{12}}) {
    const std::string truncated = binary->substr(0, cut);
    EXPECT_TRUE(parse(truncated).isNil()) << cut;
  }
}

TEST(PropertyList, MalformedFileIsNil) {
  TempDir dir;
  EXPECT_TRUE(propertyListFromFile(dir.write("bad.plist", "<?xml version=\"1.0\"?><plist><dict>")).isNil());
}

TEST(PropertyList, RefusesOversizedFiles) {
  TempDir dir;
  const std::string path = dir / "huge.plist";
  {
    std::ofstream out(path, std::ios::binary);
    out << "( a )";
  }
  std::filesystem::resize_file(path, kPropertyListMaximumSize + 1);  // sparse: costs no disk
  EXPECT_TRUE(propertyListFromFile(path).isNil());
  // At or under the limit the same check passes the size test.
  EXPECT_FALSE(propertyListFromFile(dir.write("small.plist", "( a )")).isNil());
}

TEST(PropertyList, RefusesDeepNesting) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<array>";
  for (int i = 0; i < 100000; ++i) deep += "</array>";
  EXPECT_TRUE(parse("<?xml version=\"1.0\"?><plist>" + deep + "</plist>").isNil());
  std::string openStep(100000, '(');
  openStep += std::string(100000, ')');
  EXPECT_TRUE(parse(openStep).isNil());
  // Moderate nesting is fine.
  EXPECT_EQ(parse("<?xml version=\"1.0\"?><plist><array><array><array/></array></array></plist>"),
            Value(Array{Array{Array{}}}));
}

TEST(PropertyList, ReadsOldStyleText) {
  const Value v = parse(R"text(
    // a comment
    {
      name = "Rough stone";   /* block comment */
      tags = (Stone, "Grey tone", );
      size = 512;
      path = a/b.c-d_e:f$;
      bytes = <00 01 fF>;
      "escaped" = "tab\tquote\"nl\nu\U00e9oct\101";
      nested = { empty = (); inner = {}; };
    }
  )text");
  ASSERT_NE(v.dictionary(), nullptr);
  EXPECT_EQ(v["name"], Value("Rough stone"));
  EXPECT_EQ(v["tags"], Value(Array{"Stone", "Grey tone"}));
  EXPECT_EQ(v["size"], Value("512"));  // old-style lists have strings only
  EXPECT_EQ(v["path"], Value("a/b.c-d_e:f$"));
  EXPECT_EQ(v["bytes"], Value(Data{{0, 1, 255}}));
  EXPECT_EQ(v["escaped"], Value("tab\tquote\"nl\nu\xC3\xA9octA"));
  EXPECT_EQ(v["nested"], Value(Dictionary{{"empty", Array{}}, {"inner", Dictionary{}}}));
}

TEST(PropertyList, OldStyleTopLevelValues) {
  EXPECT_EQ(parse("(a, b)"), Value(Array{"a", "b"}));
  EXPECT_EQ(parse("\"just a string\""), Value("just a string"));
  EXPECT_EQ(parse("a = b; c = \"d\";"), Value(Dictionary{{"a", "b"}, {"c", "d"}}));
}

TEST(StringsTable, ClassicFormat) {
  const std::string text = R"strings(/* Menu titles */
"None" = "None";
"%@ (Random)" = "%@ (Random)";
// a line comment
"Quote \"here\"" = "Line\nbreak";
"Only key";
)strings";
  const Value table = stringsTableFromData(text.data(), text.size());
  ASSERT_NE(table.dictionary(), nullptr);
  EXPECT_EQ(table["None"], Value("None"));
  EXPECT_EQ(table["%@ (Random)"], Value("%@ (Random)"));
  EXPECT_EQ(table["Quote \"here\""], Value("Line\nbreak"));
  EXPECT_EQ(table["Only key"], Value("Only key"));
}

TEST(StringsTable, UTF16WithByteOrderMark) {
  const std::string utf8 = "\"caf\xC3\xA9\" = \"\xF0\x9F\x98\x80\";";
  // The same text as UTF-16LE with its mark, written out by hand.
  std::string le = "\xFF\xFE";
  const std::u16string text = u"\"caf\u00e9\" = \"\U0001F600\";";
  for (char16_t c : text) {
    le += static_cast<char>(c & 0xFF);
    le += static_cast<char>(c >> 8);
  }
  std::string be = "\xFE\xFF";
  for (char16_t c : text) {
    be += static_cast<char>(c >> 8);
    be += static_cast<char>(c & 0xFF);
  }
  const Value expected = Dictionary{{"caf\xC3\xA9", "\xF0\x9F\x98\x80"}};
  EXPECT_EQ(stringsTableFromData(utf8.data(), utf8.size()), expected);
  EXPECT_EQ(stringsTableFromData(le.data(), le.size()), expected);
  EXPECT_EQ(stringsTableFromData(be.data(), be.size()), expected);
  // Text that does not decode is malformed: a lone high surrogate, an odd UTF-16 byte count.
  const std::string lone = le.substr(0, le.size() - 8) + std::string("\x3D\xD8", 2) + le.substr(le.size() - 4);
  EXPECT_TRUE(stringsTableFromData(lone.data(), lone.size()).isNil());
  const std::string odd = be + "x";
  EXPECT_TRUE(stringsTableFromData(odd.data(), odd.size()).isNil());
  EXPECT_TRUE(propertyListFromData(odd.data(), odd.size()).isNil());
}

TEST(StringsTable, PropertyListForm) {
  const std::optional<std::string> xml = dataWithPropertyList(Dictionary{{"None", "Aucun"}, {"n", 3}});
  ASSERT_TRUE(xml);
  const Value table = stringsTableFromData(xml->data(), xml->size());
  EXPECT_EQ(table, Value(Dictionary{{"None", "Aucun"}}));  // non-string entries are dropped
  const std::optional<std::string> bin = dataWithPropertyList(Dictionary{{"None", "Keine"}}, false);
  ASSERT_TRUE(bin);
  EXPECT_EQ(stringsTableFromData(bin->data(), bin->size()), Value(Dictionary{{"None", "Keine"}}));
}

TEST(StringsTable, EmptyAndMalformed) {
  EXPECT_EQ(stringsTableFromData("", 0), Value(Dictionary{}));
  EXPECT_EQ(stringsTableFromData("  // nothing\n", 13), Value(Dictionary{}));
  const std::string bad = "\"a\" = \"b\"";  // missing semicolon
  EXPECT_TRUE(stringsTableFromData(bad.data(), bad.size()).isNil());
  const std::string notDict = "(a, b)";
  EXPECT_TRUE(stringsTableFromData(notDict.data(), notDict.size()).isNil());
}

TEST(PropertyList, StringsWithNulCharactersAreRefused) {
  // A binary list whose one key is the UTF-16 string "a", U+0000, "é".
  const unsigned char utf16Key[] = {0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd1, 0x01, 0x02, 0x63, 0x00, 0x61,
                                    0x00, 0x00, 0x00, 0xe9, 0x51, 0x78, 0x08, 0x0b, 0x12, 0x00, 0x00, 0x00, 0x00, 0x00,
                                    0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,
                                    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x14};
  EXPECT_TRUE(propertyListFromData(utf16Key, sizeof utf16Key).isNil());
  // The same list with the NUL unit replaced by "b" reads fine.
  unsigned char fixed[sizeof utf16Key];
  std::memcpy(fixed, utf16Key, sizeof utf16Key);
  fixed[15] = 0x62;
  EXPECT_EQ(propertyListFromData(fixed, sizeof fixed), Value(Dictionary{{"ab\xC3\xA9", "x"}}));

  const char xmlWithNul[] = "<?xml version=\"1.0\"?><plist><string>a\0b</string></plist>";
  EXPECT_TRUE(parse(std::string(xmlWithNul, sizeof xmlWithNul - 1)).isNil());
  EXPECT_TRUE(parse("<?xml version=\"1.0\"?><plist><dict><key>a&#0;b</key><string>x</string></dict></plist>").isNil());
  EXPECT_TRUE(parse("{ a = \"x\\000y\"; }").isNil());
  const char textWithNul[] = "{ a = \"x\0y\"; }";
  EXPECT_TRUE(parse(std::string(textWithNul, sizeof textWithNul - 1)).isNil());
}

TEST(PropertyList, BrokenUTF8IsRefused) {
  EXPECT_TRUE(parse("<?xml version=\"1.0\"?><plist><string>caf\xE9</string></plist>").isNil());
  EXPECT_TRUE(parse("<?xml version=\"1.0\"?><plist><dict><key>\xFF</key><string>x</string></dict></plist>").isNil());
  EXPECT_TRUE(parse("{ a = \"caf\xE9\"; }").isNil());
  EXPECT_FALSE(parse("<?xml version=\"1.0\"?><plist><string>caf\xC3\xA9</string></plist>").isNil());
}

TEST(PropertyList, WriterRefusesStringsThatAreNotText) {
  EXPECT_FALSE(dataWithPropertyList(Value("caf\xE9")).has_value());
  EXPECT_FALSE(dataWithPropertyList(Value(std::string("a\0b", 3))).has_value());
  EXPECT_FALSE(dataWithPropertyList(Value(Dictionary{{std::string("k\0", 2), "v"}})).has_value());
  EXPECT_FALSE(dataWithPropertyList(Value(Dictionary{{"\xFF", "v"}}), false).has_value());
  EXPECT_FALSE(dataWithPropertyList(Value(Date{1e12})).has_value());
  EXPECT_TRUE(dataWithPropertyList(Value("caf\xC3\xA9")).has_value());
}

// URL parsing, file URLs and percent escaping.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "Foundation/NSURL.h"

TEST(NSURL, ParsesSchemeHostAndPath) {
  auto url = NSURL::URLWithString("x-qvfilter-texture://com.example.filters.imageunits/stone");
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->scheme(), "x-qvfilter-texture");
  EXPECT_EQ(url->host(), "com.example.filters.imageunits");
  EXPECT_EQ(url->path(), "/stone");
  EXPECT_EQ(url->lastPathComponent(), "stone");
  EXPECT_EQ(url->absoluteString(), "x-qvfilter-texture://com.example.filters.imageunits/stone");
  EXPECT_EQ(url->description(), url->absoluteString());
  EXPECT_EQ(url->className(), "NSURL");
  EXPECT_FALSE(url->isFileURL());
}

TEST(NSURL, FullGenericSyntax) {
  auto url = NSURL::URLWithString("https://user:pw@example.com:8080/a/b/c.tar.gz?x=1&y=2#frag");
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->scheme(), "https");
  EXPECT_EQ(url->host(), "example.com");
  EXPECT_EQ(url->port(), 8080);
  EXPECT_EQ(url->path(), "/a/b/c.tar.gz");
  EXPECT_EQ(url->lastPathComponent(), "c.tar.gz");
  EXPECT_EQ(url->pathExtension(), "gz");
  EXPECT_EQ(url->query(), "x=1&y=2");
  EXPECT_EQ(url->fragment(), "frag");
}

TEST(NSURL, IPv6Host) {
  auto url = NSURL::URLWithString("http://[::1]:80/x");
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->host(), "::1");
  EXPECT_EQ(url->port(), 80);
  EXPECT_EQ(NSURL::URLWithString("http://[::1/x"), nullptr);
}

TEST(NSURL, PathIsPercentDecoded) {
  auto url = NSURL::URLWithString("x-qvfilter-texture://bundle/rough%20stone");
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->path(), "/rough stone");
  EXPECT_EQ(url->lastPathComponent(), "rough stone");
  EXPECT_EQ(url->percentEncodedPath(), "/rough%20stone");
  auto unicode = NSURL::URLWithString("x-qvfilter-tag://bundle/caf%C3%A9");
  ASSERT_NE(unicode, nullptr);
  EXPECT_EQ(unicode->lastPathComponent(), "caf\xC3\xA9");
}

TEST(NSURL, SlashesInTheKeyAreNotEscapedAndSplitThePath) {
  auto url = NSURL::URLWithString("x-qvfilter-tag://bundle/a/b");
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->lastPathComponent(), "b");
}

TEST(NSURL, TrailingSlashAndRoot) {
  auto dir = NSURL::URLWithString("file:///tmp/dir/");
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(dir->path(), "/tmp/dir");
  EXPECT_EQ(dir->lastPathComponent(), "dir");
  auto root = NSURL::URLWithString("http://host/");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->path(), "/");
  EXPECT_EQ(root->lastPathComponent(), "/");
  auto bare = NSURL::URLWithString("http://host");
  ASSERT_NE(bare, nullptr);
  EXPECT_EQ(bare->path(), "");
  EXPECT_EQ(bare->lastPathComponent(), "");
}

TEST(NSURL, PathExtension) {
  EXPECT_EQ(NSURL::URLWithString("file:///a/b.jpg")->pathExtension(), "jpg");
  EXPECT_EQ(NSURL::URLWithString("file:///a/b")->pathExtension(), "");
  EXPECT_EQ(NSURL::URLWithString("file:///a/.hidden")->pathExtension(), "");
  EXPECT_EQ(NSURL::URLWithString("file:///a.d/b")->pathExtension(), "");
}

TEST(NSURL, RelativeReferencesHaveNoScheme) {
  auto url = NSURL::URLWithString("textures/stone.jpg");
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->scheme(), "");
  EXPECT_EQ(url->path(), "textures/stone.jpg");
  EXPECT_EQ(url->lastPathComponent(), "stone.jpg");
}

TEST(NSURL, RejectsStringsThatAreNotURLs) {
  EXPECT_EQ(NSURL::URLWithString(""), nullptr);
  EXPECT_EQ(NSURL::URLWithString("has space"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("x-qvfilter-tag://bundle/rough stone"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/\"quoted\""), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/a<b"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/{x}"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/a|b"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/a\\b"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/caf\xC3\xA9"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/tab\there"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/%zz"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/%4"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/a#b#c"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host/[x]"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("http://host:8a/"), nullptr);
}

TEST(NSURL, RejectsInvalidSchemes) {
  EXPECT_EQ(NSURL::URLWithString("1http://host/"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("ht_tp://host/"), nullptr);
  EXPECT_EQ(NSURL::URLWithString("://host/"), nullptr);
  EXPECT_NE(NSURL::URLWithString("svn+ssh://host/"), nullptr);
  EXPECT_NE(NSURL::URLWithString("mailto:someone@example.com"), nullptr);
}

TEST(NSURL, EqualityByAbsoluteString) {
  auto a = NSURL::URLWithString("x-qvfilter-texture://b/k");
  auto b = NSURL::URLWithString("x-qvfilter-texture://b/k");
  auto c = NSURL::URLWithString("x-qvfilter-texture://b/K");
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_FALSE(a->isEqual(*c));
}

TEST(NSURL, FileURLs) {
  auto url = NSURL::fileURLWithPath("/tmp/no such dir/a#b?.png");
  ASSERT_NE(url, nullptr);
  EXPECT_TRUE(url->isFileURL());
  EXPECT_EQ(url->absoluteString(), "file:///tmp/no%20such%20dir/a%23b%3F.png");
  EXPECT_EQ(url->path(), "/tmp/no such dir/a#b?.png");
  EXPECT_EQ(url->lastPathComponent(), "a#b?.png");
  EXPECT_EQ(url->pathExtension(), "png");
  EXPECT_TRUE(NSURL::URLWithString("FILE:///x")->isFileURL());
}

TEST(NSURL, FileURLOfADirectoryEndsInASlash) {
  const std::string dir = std::filesystem::temp_directory_path().string();
  auto url = NSURL::fileURLWithPath(dir);
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->absoluteString().back(), '/');
  EXPECT_EQ(url->path(), std::filesystem::path(dir).lexically_normal().string());
}

TEST(NSURL, RelativeFileURLIsTakenFromTheCurrentDirectory) {
  auto url = NSURL::fileURLWithPath("some-file.txt");
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->path(), (std::filesystem::current_path() / "some-file.txt").string());
}

// ---- percent escaping ------------------------------------------------------------------------

TEST(PercentEscapes, LegalCharactersStay) {
  const std::string legal =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./:;=?@_~";
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding(legal), legal);
}

TEST(PercentEscapes, IllegalCharactersAreEscapedInUpperCase) {
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding(" "), "%20");
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("\"#%<>[\\]^`{|}"), "%22%23%25%3C%3E%5B%5C%5D%5E%60%7B%7C%7D");
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding(std::string("\x00\x01\x1f\x7f", 4)), "%00%01%1F%7F");
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("caf\xC3\xA9"), "caf%C3%A9");
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("\xF0\x9F\x98\x80"), "%F0%9F%98%80");
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("rough stone"), "rough%20stone");
}

TEST(PercentEscapes, EveryAsciiCharacterFollowsTheTable) {
  const std::string legal =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$&'()*+,-./:;=?@_~";
  for (int c = 0; c < 128; ++c) {
    const std::string in(1, static_cast<char>(c));
    const std::optional<std::string> out = stringByAddingPercentEscapesUsingEncoding(in);
    ASSERT_TRUE(out.has_value());
    if (legal.find(static_cast<char>(c)) != std::string::npos) {
      EXPECT_EQ(*out, in) << c;
    } else {
      char expected[4];
      std::snprintf(expected, sizeof expected, "%%%02X", c);
      EXPECT_EQ(*out, expected) << c;
    }
  }
}

TEST(PercentEscapes, EscapingTwiceEscapesThePercentSign) {
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("a%20b"), "a%2520b");
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding(*stringByAddingPercentEscapesUsingEncoding("a b")), "a%2520b");
}

TEST(PercentEscapes, InvalidUTF8GivesNothing) {
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("\xFF"), std::nullopt);
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("a\xC3"), std::nullopt);       // truncated
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("\xC0\xAF"), std::nullopt);    // overlong
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("\xED\xA0\x80"), std::nullopt);  // surrogate
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding("\xF4\x90\x80\x80"), std::nullopt);  // past U+10FFFF
  EXPECT_EQ(stringByAddingPercentEscapesUsingEncoding(""), "");
}

TEST(PercentEscapes, Unescaping) {
  EXPECT_EQ(stringByRemovingPercentEncoding("rough%20stone"), "rough stone");
  EXPECT_EQ(stringByRemovingPercentEncoding("caf%c3%a9"), "caf\xC3\xA9");
  EXPECT_EQ(stringByRemovingPercentEncoding("a%2520b"), "a%20b");
  EXPECT_EQ(stringByRemovingPercentEncoding("plain"), "plain");
  EXPECT_EQ(stringByRemovingPercentEncoding("%"), std::nullopt);
  EXPECT_EQ(stringByRemovingPercentEncoding("%2"), std::nullopt);
  EXPECT_EQ(stringByRemovingPercentEncoding("%zz"), std::nullopt);
  EXPECT_EQ(stringByRemovingPercentEncoding("%FF"), std::nullopt);  // not UTF-8 once decoded
}

TEST(PercentEscapes, KeyWithASpaceRoundTripsThroughAnIdentifier) {
  const std::string key = "rough stone";
  const std::optional<std::string> escaped = stringByAddingPercentEscapesUsingEncoding(key);
  ASSERT_TRUE(escaped.has_value());
  EXPECT_EQ(*escaped, "rough%20stone");
  const std::string identifier = "x-qvfilter-texture://com.example.filters.imageunits/" + *escaped;
  auto url = NSURL::URLWithString(identifier);
  ASSERT_NE(url, nullptr);
  EXPECT_EQ(url->absoluteString(), "x-qvfilter-texture://com.example.filters.imageunits/rough%20stone");
  EXPECT_EQ(url->lastPathComponent(), key);
}

TEST(PercentEscapes, EveryValidStringRoundTrips) {
  for (const std::string s : {"", "a b", "100%", "x/y?z", "caf\xC3\xA9 \xF0\x9F\x98\x80", "#[]{}", "\t\n"}) {
    const auto escaped = stringByAddingPercentEscapesUsingEncoding(s);
    ASSERT_TRUE(escaped.has_value()) << s;
    EXPECT_EQ(stringByRemovingPercentEncoding(*escaped), s);
  }
}

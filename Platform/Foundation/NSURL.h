// URLs: parsing by the generic syntax of RFC 3986, file URLs, and the classic percent-escape
// conversions of the platform's string class.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Foundation/Object.h"

class NSURL final : public Object {
 public:
  // nil when the string is not a URL: empty, containing characters that are not legal in a URL
  // (space, controls, non-ASCII, quotes, braces...), a malformed percent escape, or a scheme of
  // illegal characters. Relative references (no scheme) are accepted, as the platform does.
  static std::shared_ptr<const NSURL> URLWithString(const std::string& string);
  // A "file://" URL for a file-system path. A relative path is taken relative to the current
  // directory; a path that names an existing directory ends in "/".
  static std::shared_ptr<const NSURL> fileURLWithPath(const std::string& path);

  std::string className() const override { return "NSURL"; }
  std::string description() const override { return absoluteString_; }
  bool isEqual(const Object& other) const override;

  const std::string& absoluteString() const { return absoluteString_; }
  // As written in the URL (not lower-cased); empty when the URL has no scheme.
  const std::string& scheme() const { return scheme_; }
  // The host, percent-decoded; empty when the URL has no authority.
  std::string host() const;
  // The port, when the authority gives one.
  std::optional<int> port() const { return port_; }
  // The path, percent-decoded, without a trailing "/" (except for the root "/"); empty when
  // the URL has no path or the path does not decode to valid UTF-8.
  std::string path() const;
  // The path exactly as written in the URL (still escaped).
  const std::string& percentEncodedPath() const { return path_; }
  const std::optional<std::string>& query() const { return query_; }
  const std::optional<std::string>& fragment() const { return fragment_; }
  // The last component of the decoded path: "b.jpg" for ".../a/b.jpg", "/" for the root.
  std::string lastPathComponent() const;
  // The extension of the last path component, without the dot; empty when there is none.
  std::string pathExtension() const;
  bool isFileURL() const;

  // Construct with URLWithString / fileURLWithPath.
  NSURL() = default;

 private:
  std::string absoluteString_;
  std::string scheme_;
  bool hasAuthority_ = false;
  std::string host_;  // as written
  std::optional<int> port_;
  std::string path_;  // as written
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
};

// The platform's stringByAddingPercentEscapesUsingEncoding: with UTF-8: every byte of a
// character that is not legal in a URL (controls, space, " # % < > [ \ ] ^ ` { | } and every
// non-ASCII character) becomes %XX with upper-case hex digits; A-Z a-z 0-9 and
// ! $ & ' ( ) * + , - . / : ; = ? @ _ ~ stay as they are. "%" is always escaped, so escaping
// twice escapes twice. nullopt when the input is not valid UTF-8.
std::optional<std::string> stringByAddingPercentEscapesUsingEncoding(const std::string& utf8);
// Decodes every %XX escape. nullopt when a "%" is not followed by two hex digits, or when the
// decoded bytes are not valid UTF-8.
std::optional<std::string> stringByRemovingPercentEncoding(const std::string& string);

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values past
// U+10FFFF).
bool QVIsValidUTF8(const std::string& bytes);

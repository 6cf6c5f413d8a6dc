#include "Foundation/NSURL.h"

#include "Foundation/TextDecoding.h"

#include <cstdint>
#include <filesystem>
#include <system_error>

namespace {

bool isAlpha(unsigned char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
bool isHex(unsigned char c) { return isDigit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }
int hexValue(unsigned char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return c - 'a' + 10;
}
bool isUnreserved(unsigned char c) { return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~'; }
bool isSubDelim(unsigned char c) {
  switch (c) {
    case '!': case '$': case '&': case '\'': case '(': case ')': case '*': case '+': case ',': case ';': case '=':
      return true;
    default:
      return false;
  }
}
bool isGenDelim(unsigned char c) {
  switch (c) {
    case ':': case '/': case '?': case '#': case '[': case ']': case '@':
      return true;
    default:
      return false;
  }
}

// Every character is unreserved, reserved or part of a well-formed %XX escape.
bool hasOnlyURLCharacters(const std::string& s) {
  for (std::size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c == '%') {
      if (i + 2 >= s.size() || !isHex(static_cast<unsigned char>(s[i + 1])) ||
          !isHex(static_cast<unsigned char>(s[i + 2])))
        return false;
      i += 2;
      continue;
    }
    if (!isUnreserved(c) && !isSubDelim(c) && !isGenDelim(c)) return false;
  }
  return true;
}

bool isValidScheme(const std::string& s) {
  if (s.empty() || !isAlpha(static_cast<unsigned char>(s[0]))) return false;
  for (unsigned char c : s) {
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

// pchar plus "/" (and "?" where allowed): no "#", "[" or "]".
bool isValidPathOrQuery(const std::string& s, bool allowQuestionMark) {
  for (unsigned char c : s) {
    if (c == '#' || c == '[' || c == ']') return false;
    if (c == '?' && !allowQuestionMark) return false;
  }
  return true;
}

bool isValidRegName(const std::string& s) {
  for (unsigned char c : s) {
    if (!isUnreserved(c) && !isSubDelim(c) && c != '%') return false;
  }
  return true;
}

bool isValidUserInfo(const std::string& s) {
  for (unsigned char c : s) {
    if (!isUnreserved(c) && !isSubDelim(c) && c != '%' && c != ':') return false;
  }
  return true;
}

// An IP literal's inside: an IPv6 address or "v<hex>.<chars>" (checked loosely: the
// characters such literals may hold).
bool isValidIPLiteral(const std::string& s) {
  if (s.empty()) return false;
  for (unsigned char c : s) {
    if (!isUnreserved(c) && !isSubDelim(c) && c != ':') return false;
  }
  return true;
}

}  // namespace

bool QVIsValidUTF8(const std::string& bytes) { return QVFirstInvalidUTF8Offset(bytes) == std::string_view::npos; }

std::optional<std::string> stringByAddingPercentEscapesUsingEncoding(const std::string& utf8) {
  if (!QVIsValidUTF8(utf8)) return std::nullopt;
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(utf8.size());
  for (char ch : utf8) {
    const auto c = static_cast<unsigned char>(ch);
    const bool legal = isAlpha(c) || isDigit(c) || c == '!' || c == '$' || c == '&' || c == '\'' || c == '(' ||
                       c == ')' || c == '*' || c == '+' || c == ',' || c == '-' || c == '.' || c == '/' ||
                       c == ':' || c == ';' || c == '=' || c == '?' || c == '@' || c == '_' || c == '~';
    if (legal) {
      out += ch;
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
  return out;
}

std::optional<std::string> stringByRemovingPercentEncoding(const std::string& string) {
  std::string out;
  out.reserve(string.size());
  for (std::size_t i = 0; i < string.size(); ++i) {
    if (string[i] != '%') {
      out += string[i];
      continue;
    }
    if (i + 2 >= string.size() || !isHex(static_cast<unsigned char>(string[i + 1])) ||
        !isHex(static_cast<unsigned char>(string[i + 2])))
      return std::nullopt;
    out += static_cast<char>(hexValue(static_cast<unsigned char>(string[i + 1])) * 16 +
                             hexValue(static_cast<unsigned char>(string[i + 2])));
    i += 2;
  }
  if (!QVIsValidUTF8(out)) return std::nullopt;
  return out;
}

std::shared_ptr<const NSURL> NSURL::URLWithString(const std::string& string) {
  if (string.empty() || !hasOnlyURLCharacters(string)) return nullptr;
  auto url = std::make_shared<NSURL>();
  url->absoluteString_ = string;

  std::string rest = string;
  // Scheme: everything before the first ":" when no "/", "?" or "#" comes first. A relative
  // reference cannot have a ":" in its first segment, so a bad scheme makes the string invalid.
  const std::size_t delim = rest.find_first_of(":/?#");
  if (delim != std::string::npos && rest[delim] == ':') {
    std::string scheme = rest.substr(0, delim);
    if (!isValidScheme(scheme)) return nullptr;
    url->scheme_ = std::move(scheme);
    rest.erase(0, delim + 1);
  }

  if (const std::size_t hash = rest.find('#'); hash != std::string::npos) {
    std::string fragment = rest.substr(hash + 1);
    if (!isValidPathOrQuery(fragment, true)) return nullptr;
    url->fragment_ = std::move(fragment);
    rest.erase(hash);
  }
  if (const std::size_t question = rest.find('?'); question != std::string::npos) {
    std::string query = rest.substr(question + 1);
    if (!isValidPathOrQuery(query, true)) return nullptr;
    url->query_ = std::move(query);
    rest.erase(question);
  }

  if (rest.compare(0, 2, "//") == 0) {
    url->hasAuthority_ = true;
    const std::size_t slash = rest.find('/', 2);
    std::string authority = rest.substr(2, slash == std::string::npos ? std::string::npos : slash - 2);
    rest = slash == std::string::npos ? std::string() : rest.substr(slash);

    if (const std::size_t at = authority.rfind('@'); at != std::string::npos) {
      if (!isValidUserInfo(authority.substr(0, at))) return nullptr;
      authority.erase(0, at + 1);
    }
    std::string host;
    std::string port;
    if (!authority.empty() && authority[0] == '[') {
      const std::size_t close = authority.find(']');
      if (close == std::string::npos || !isValidIPLiteral(authority.substr(1, close - 1))) return nullptr;
      host = authority.substr(0, close + 1);
      std::string after = authority.substr(close + 1);
      if (!after.empty()) {
        if (after[0] != ':') return nullptr;
        port = after.substr(1);
      }
      url->host_ = host;
    } else {
      const std::size_t colon = authority.find(':');
      host = authority.substr(0, colon);
      if (colon != std::string::npos) port = authority.substr(colon + 1);
      if (!isValidRegName(host)) return nullptr;
      url->host_ = host;
    }
    for (unsigned char c : port) {
      if (!isDigit(c)) return nullptr;
    }
    if (!port.empty() && port.size() <= 5) {
      const int value = std::stoi(port);
      if (value <= 65535) url->port_ = value;
    }
  }
  if (!isValidPathOrQuery(rest, false)) return nullptr;
  url->path_ = std::move(rest);
  return url;
}

std::shared_ptr<const NSURL> NSURL::fileURLWithPath(const std::string& path) {
  std::string absolute = path;
  std::error_code ec;
  if (absolute.empty() || absolute[0] != '/') {
    std::filesystem::path cwd = std::filesystem::current_path(ec);
    if (ec) return nullptr;
    std::string base = cwd.string();
    if (base.empty() || base.back() != '/') base += '/';
    absolute = base + absolute;
  }
  if (absolute.back() != '/' && std::filesystem::is_directory(absolute, ec)) absolute += '/';

  static const char kHex[] = "0123456789ABCDEF";
  std::string escaped;
  for (char ch : absolute) {
    const auto c = static_cast<unsigned char>(ch);
    if (isUnreserved(c) || isSubDelim(c) || c == ':' || c == '@' || c == '/') {
      escaped += ch;
    } else {
      escaped += '%';
      escaped += kHex[c >> 4];
      escaped += kHex[c & 0xF];
    }
  }
  return URLWithString("file://" + escaped);
}

bool NSURL::isEqual(const Object& other) const {
  const auto* url = dynamic_cast<const NSURL*>(&other);
  return url && url->absoluteString_ == absoluteString_;
}

std::string NSURL::host() const {
  std::string host = host_;
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  return stringByRemovingPercentEncoding(host).value_or(std::string());
}

std::string NSURL::path() const {
  std::optional<std::string> decoded = stringByRemovingPercentEncoding(path_);
  if (!decoded) return {};
  std::string p = std::move(*decoded);
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

std::string NSURL::lastPathComponent() const {
  const std::string p = path();
  if (p.empty() || p == "/") return p;
  const std::size_t slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string NSURL::pathExtension() const {
  const std::string last = lastPathComponent();
  const std::size_t dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
  return last.substr(dot + 1);
}

bool NSURL::isFileURL() const {
  if (scheme_.size() != 4) return false;
  for (std::size_t i = 0; i < 4; ++i) {
    if ((scheme_[i] | 0x20) != "file"[i]) return false;
  }
  return true;
}

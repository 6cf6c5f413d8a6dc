#include "Foundation/TextureIdentifiers.h"

#include <algorithm>

#include "Foundation/NSURL.h"

std::string QVTextureURLString(const std::string& scheme, const std::string& bundleIdentifier, const std::string& key) {
  const auto escaped = stringByAddingPercentEscapesUsingEncoding(key);
  return scheme + "://" + bundleIdentifier + "/" + escaped.value_or(std::string());
}

std::optional<std::string> QVTextureURLKeyInCatalogue(const NSURL& url, const std::string& bundleIdentifier) {
  if (url.scheme() != kQVTextureIdentifierScheme && url.scheme() != kQVTextureTagKeyScheme) return std::nullopt;
  if (url.host() != bundleIdentifier) return std::nullopt;
  const std::string key = url.lastPathComponent();
  if (key.empty() || key == "/" || url.path() != "/" + key) return std::nullopt;
  return key;
}

std::vector<std::string> QVTextureRecordTags(const Value& record) {
  std::vector<std::string> tags;
  const Value value = record[kQVTextureRecordTagsKey];
  if (const Array* a = value.array())
    for (const auto& t : *a)
      if (const std::string* s = t.string()) tags.push_back(*s);
  return tags;
}

bool QVTextureRecordHasTags(const Value& record, const std::set<std::string>& tags) {
  if (tags.empty()) return true;
  const std::vector<std::string> carried = QVTextureRecordTags(record);
  return std::all_of(tags.begin(), tags.end(), [&](const std::string& tag) {
    return std::find(carried.begin(), carried.end(), tag) != carried.end();
  });
}

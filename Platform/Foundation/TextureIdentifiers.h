// Texture identifiers and tag keys of a texture catalogue: URLs "SCHEME://BUNDLE/KEY" whose
// last part is the percent-escaped texture key or tag. One definition for the plug-in's
// texture store, which builds and reads them, and for the hosts, which list catalogues and
// check the identifiers users give them; the hosts load the plug-in at run time and never
// link it, so the shared part lives here.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Foundation/Value.h"

class NSURL;

inline constexpr const char* kQVTextureIdentifierScheme = "x-qvfilter-texture";
inline constexpr const char* kQVTextureTagKeyScheme = "x-qvfilter-tag";
// The key of a texture record that holds its tags (an array of strings).
inline constexpr const char* kQVTextureRecordTagsKey = "tags";

// "SCHEME://BUNDLE/KEY" with KEY percent-escaped (UTF-8; "/" is left alone).
std::string QVTextureURLString(const std::string& scheme, const std::string& bundleIdentifier, const std::string& key);

// The key or tag that `url` names in the catalogue of `bundleIdentifier`: its scheme is one of
// the two above, its host is that bundle's identifier and its path one component. nullopt for
// an identifier of another catalogue or with a deeper path.
std::optional<std::string> QVTextureURLKeyInCatalogue(const NSURL& url, const std::string& bundleIdentifier);

// The tags of a texture record, in order (non-strings skipped).
std::vector<std::string> QVTextureRecordTags(const Value& record);
// True when the record carries every tag of `tags` (an empty set matches every record).
bool QVTextureRecordHasTags(const Value& record, const std::set<std::string>& tags);

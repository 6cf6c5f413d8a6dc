// The plug-in's texture catalogue as hosts see it: the bundle's TextureIndex.plist read into
// records, with each texture's identifier and tag keys, for `qvfilter textures` and the Python
// module's textures().
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Foundation/NSBundle.h"
#include "Foundation/Value.h"

namespace qv {

// The catalogue cannot be read, or a request names nothing in it; one line for the user.
class CatalogueError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr const char* kImageUnitsBundleIdentifier = "org.qvfilter.filters.imageunits";
inline constexpr const char* kTextureScheme = "x-qvfilter-texture";
inline constexpr const char* kTagScheme = "x-qvfilter-tag";
inline constexpr const char* kTexturesFolder = "Textures";

struct TextureCatalogue {
  std::shared_ptr<NSBundle> bundle;
  std::string identifier;  // the bundle's identifier
  Value textures;          // the index's "textures" dictionary (nil when unreadable)
  std::string indexPath;   // "" when the index is missing
  std::string indexError;  // why the index cannot be used
};

// The catalogue of the bundle at `bundleDir`, or of the loaded plug-in bundle when empty (the
// host loads the plug-ins first). Throws CatalogueError when there is no such bundle; an
// unreadable index is reported in indexError.
TextureCatalogue loadTextureCatalogue(const std::string& bundleDir);

// The index's textures; throws CatalogueError "cannot read the texture index: ..." without one.
const Dictionary& catalogueTextures(const TextureCatalogue& c);

std::string textureIdentifierFor(const TextureCatalogue& c, const std::string& key);
std::string textureTagKeyFor(const TextureCatalogue& c, const std::string& tag);
std::vector<std::string> textureTags(const Value& record);
// The texture file's path, when its name stays inside Textures/ and the file exists.
std::string texturePath(const TextureCatalogue& c, const Value& record);

// The textures carrying every tag of `tags` (all when empty), sorted by identifier:
// [{"identifier", "key", "displayName", "tags", "fileName", "width", "height"}]. Throws
// CatalogueError when the index cannot be read or no texture carries the tags.
nlohmann::json textureCatalogueJSON(const std::vector<std::string>& tags, const std::string& bundleDir = "");

}  // namespace qv

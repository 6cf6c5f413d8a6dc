// A bundle's texture index read from its file (TextureIndex.plist), for listing and checking a
// catalogue (`qvfilter textures`, the Python module's textures()), also of a bundle that is not
// loaded. Identifiers, tag keys and tag matching are the Foundation's texture-identifier
// functions, the ones the plug-in's store uses; what the loaded store resolves a name to is
// TextureCatalogue.h's.
#pragma once

#include <cstddef>
#include <functional>
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
inline constexpr const char* kTexturesFolder = "Textures";

struct TextureIndexFile {
  std::shared_ptr<NSBundle> bundle;
  std::string identifier;  // the bundle's identifier
  Value textures;          // the index's "textures" dictionary (nil when unreadable)
  std::string indexPath;   // "" when the index is missing
  std::string indexError;  // why the index cannot be used
};

// The catalogue of the bundle at `bundleDir`, or of the loaded plug-in bundle when empty (the
// host loads the plug-ins first). Throws CatalogueError when there is no such bundle; an
// unreadable index is reported in indexError.
TextureIndexFile loadTextureIndexFile(const std::string& bundleDir);

// The index's textures; throws CatalogueError "cannot read the texture index: ..." without one.
const Dictionary& catalogueTextures(const TextureIndexFile& c);

std::string textureIdentifierFor(const TextureIndexFile& c, const std::string& key);
std::string textureTagKeyFor(const TextureIndexFile& c, const std::string& tag);
std::vector<std::string> textureTags(const Value& record);
// The texture file's path, when its name stays inside Textures/ and the file exists.
std::string texturePath(const TextureIndexFile& c, const Value& record);

// Calls `each` with every texture carrying every tag of `tags` (all when empty), sorted by
// identifier, as {"identifier", "key", "displayName", "tags", "fileName", "width", "height"};
// the elements are made one at a time, so a listing of a large catalogue holds only its index.
// Throws CatalogueError when the index cannot be read or no texture carries the tags.
void forEachCatalogueTexture(const TextureIndexFile& c, const std::vector<std::string>& tags,
                             const std::function<void(const nlohmann::json& element, std::size_t count)>& each);
// The same, collected into one array.
nlohmann::json textureCatalogueJSON(const std::vector<std::string>& tags, const std::string& bundleDir = "");

}  // namespace qv

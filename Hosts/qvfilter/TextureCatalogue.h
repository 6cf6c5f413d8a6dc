// The texture catalogue of the loaded plug-in, as hosts see it, and the checks that tell the
// user what a filter would silently ignore.
//
// The catalogue, its identifiers and tag keys and the resolution of a name all come from the
// plug-in's own texture store, reached by name (dlsym) in the loaded bundle's library: hosts
// never build or parse identifiers themselves.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CoreImage/CIFilter.h"

namespace qv {

struct CatalogueTexture {
  std::string identifier;   // "x-qvfilter-texture://..."
  std::string displayName;  // may be empty
  std::vector<std::string> tags;
};

struct CatalogueTag {
  std::string tag;
  std::string key;  // "x-qvfilter-tag://..."
};

struct TextureCatalogue {
  bool available = false;  // false when no loaded bundle offers a texture store
  std::vector<CatalogueTexture> textures;
  std::vector<CatalogueTag> tags;

  const CatalogueTexture* textureWithIdentifier(const std::string& identifier) const;
};

// The catalogue of the loaded plug-in's store (read once per process).
const TextureCatalogue& loadedTextureCatalogue();

// What the loaded plug-in's store resolves a texture name or tag key to (with an optional
// hint); nullopt when it resolves to nothing or no loaded bundle offers a store.
std::optional<std::string> resolveTextureName(const std::string& name, const std::string& hint = "");
// True when a loaded bundle offers texture resolution.
bool textureResolutionAvailable();

// True for the inputs that name a texture ("inputTextureName", "inputMaskTextureName"...);
// their resolved identifier is the input of the same name ending in "Identifier".
bool isTextureNameKey(const std::string& key);
std::string textureIdentifierKeyForNameKey(const std::string& key);

// One warning line per input of `filter` whose value the filter will silently ignore: a
// texture name that resolves to no texture of the catalogue (an unknown identifier, a tag no
// texture has, text that is not a URL), and an operation name ("inputCompositeFilterName",
// "inputBlurFilterName"...) that names no filter. Called after the inputs are set. Throws
// std::invalid_argument, with a message for the user, for a texture name of another URL
// scheme (a bare word, a file path): the filter would refuse it with an assertion.
std::vector<std::string> checkFilterInputs(const CIFilter& filter);

// A symbol of the first loaded bundle whose library exports it (the services a plug-in offers
// hosts besides its filter classes); nullptr when none does.
void* loadedPlugInSymbol(const char* symbol);

// Prints one warning on stderr as "qvfilter: warning: LINE".
void printWarning(const std::string& line);

}  // namespace qv

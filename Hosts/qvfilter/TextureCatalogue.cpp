#include "TextureCatalogue.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "CoreImage/CIPlugIn.h"
#include "Foundation/NSBundle.h"
#include "Foundation/NSURL.h"
#include "Foundation/PropertyList.h"

namespace qv {

namespace {

constexpr std::string_view kNameSuffix = "TextureName";
constexpr std::string_view kFilterNameSuffix = "FilterName";
// The schemes of the store's texture identifiers and tag keys, only to tell them apart in
// messages: building and reading identifiers is the store's.
constexpr const char* kTextureScheme = "x-qvfilter-texture";
constexpr const char* kTagScheme = "x-qvfilter-tag";

bool endsWith(const std::string& s, std::string_view suffix) {
  return s.size() > suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

using CopyFunction = char* (*)();
using ResolveFunction = char* (*)(const char*, const char*);

std::string takeString(char* s) {
  std::string out = s ? s : "";
  std::free(s);
  return out;
}

TextureCatalogue readCatalogue() {
  TextureCatalogue catalogue;
  auto copy = reinterpret_cast<CopyFunction>(loadedPlugInSymbol("QVFilterTextureStoreCopyCatalogueJSON"));
  if (!copy) return catalogue;
  const nlohmann::json json = nlohmann::json::parse(takeString(copy()), nullptr, false);
  if (!json.is_object()) return catalogue;
  catalogue.available = true;
  for (const auto& t : json.value("textures", nlohmann::json::array())) {
    CatalogueTexture texture;
    texture.identifier = t.value("identifier", "");
    texture.displayName = t.value("displayName", "");
    for (const auto& tag : t.value("tags", nlohmann::json::array()))
      if (tag.is_string()) texture.tags.push_back(tag.get<std::string>());
    catalogue.textures.push_back(std::move(texture));
  }
  for (const auto& t : json.value("tags", nlohmann::json::array()))
    catalogue.tags.push_back(CatalogueTag{t.value("tag", ""), t.value("key", "")});
  return catalogue;
}

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

}  // namespace

void* loadedPlugInSymbol(const char* symbol) {
  for (const std::string& path : CIPlugIn::loadedPlugIns()) {
    auto bundle = NSBundle::bundleWithPath(path);
    if (!bundle) continue;
    const std::string library = bundle->executablePath();
    if (library.empty()) continue;
    // The bundle is already loaded: this only finds it again.
    void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
    if (!handle) continue;
    void* found = dlsym(handle, symbol);
    dlclose(handle);  // balances the lookup; the loader's own reference keeps it mapped
    if (found) return found;
  }
  return nullptr;
}

const CatalogueTexture* TextureCatalogue::textureWithIdentifier(const std::string& identifier) const {
  for (const auto& t : textures)
    if (t.identifier == identifier) return &t;
  return nullptr;
}

const TextureCatalogue& loadedTextureCatalogue() {
  static const TextureCatalogue catalogue = readCatalogue();
  return catalogue;
}

bool textureResolutionAvailable() { return loadedPlugInSymbol("QVFilterTextureStoreResolveKey") != nullptr; }

std::optional<std::string> resolveTextureName(const std::string& name, const std::string& hint) {
  auto resolve = reinterpret_cast<ResolveFunction>(loadedPlugInSymbol("QVFilterTextureStoreResolveKey"));
  if (!resolve) return std::nullopt;
  char* resolved = resolve(name.c_str(), hint.empty() ? nullptr : hint.c_str());
  if (!resolved) return std::nullopt;
  return takeString(resolved);
}

bool isTextureNameKey(const std::string& key) { return key.rfind("input", 0) == 0 && endsWith(key, kNameSuffix); }

std::string textureIdentifierKeyForNameKey(const std::string& key) {
  return key.substr(0, key.size() - std::string_view("Name").size()) + "Identifier";
}

std::vector<std::string> checkFilterInputs(const CIFilter& filter) {
  std::vector<std::string> warnings;
  const std::string prefix = filter.name() + ": ";
  for (const std::string& key : filter.inputKeys()) {
    const Value value = filter.valueForKey(key);
    const std::string* text = value.string();
    if (!text) continue;
    if (isTextureNameKey(key)) {
      const Value identifierValue = filter.valueForKey(textureIdentifierKeyForNameKey(key));
      const auto identifier = identifierValue.object<NSURL>();
      const TextureCatalogue& catalogue = loadedTextureCatalogue();
      if (identifier && identifier->scheme() != kTextureScheme) {
        throw std::invalid_argument(key + " " + quoted(*text) + " is neither a texture identifier (" +
                                    kTextureScheme + "://...) nor a tag key (" + kTagScheme + "://...)");
      }
      if (!identifier) {
        const auto url = NSURL::URLWithString(*text);
        const bool tagKey = url && url->scheme() == kTagScheme;
        warnings.push_back(prefix + key + " " + quoted(*text) +
                           (tagKey ? " is a tag that no texture of the catalogue carries" : " is not a URL") +
                           "; the filter goes on without the texture");
      } else if (catalogue.available && !catalogue.textureWithIdentifier(identifier->absoluteString())) {
        warnings.push_back(prefix + key + " " + quoted(*text) +
                           " names no texture of the catalogue; the filter goes on without the texture");
      }
    } else if (endsWith(key, kFilterNameSuffix) && !CIFilter::filterWithName(*text)) {
      warnings.push_back(prefix + key + " " + quoted(*text) +
                         " names no filter; the filter leaves the picture as it is");
    }
  }
  return warnings;
}

void printWarning(const std::string& line) { std::fprintf(stderr, "qvfilter: warning: %s\n", line.c_str()); }

}  // namespace qv

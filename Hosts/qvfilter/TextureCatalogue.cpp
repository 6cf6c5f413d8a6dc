#include "TextureCatalogue.h"

#include <algorithm>
#include <map>

#include "Foundation/NSURL.h"
#include "Foundation/PropertyList.h"
#include "ImageIO/ImageIO.h"

namespace qv {
namespace {

std::string escaped(const std::string& s) { return stringByAddingPercentEscapesUsingEncoding(s).value_or(s); }
std::string stringOf(const Value& v) { return v.string() ? *v.string() : std::string(); }

std::shared_ptr<NSBundle> pluginBundle(const std::string& bundleDir) {
  if (!bundleDir.empty()) {
    auto bundle = NSBundle::bundleWithPath(bundleDir);
    if (!bundle) throw CatalogueError("not a bundle (no readable Info.plist): " + bundleDir);
    return bundle;
  }
  auto bundle = NSBundle::bundleWithIdentifier(kImageUnitsBundleIdentifier);
  if (!bundle) throw CatalogueError(std::string("the plug-in bundle ") + kImageUnitsBundleIdentifier + " is not loaded");
  return bundle;
}

}  // namespace

TextureCatalogue loadTextureCatalogue(const std::string& bundleDir) {
  TextureCatalogue c;
  c.bundle = pluginBundle(bundleDir);
  c.identifier = c.bundle->bundleIdentifier();
  if (c.identifier.empty()) c.identifier = kImageUnitsBundleIdentifier;
  c.indexPath = c.bundle->pathForResource("TextureIndex", "plist");
  if (c.indexPath.empty()) {
    c.indexError = "Resources/TextureIndex.plist is missing";
    return c;
  }
  const Value index = propertyListFromFile(c.indexPath);
  if (!index.dictionary()) {
    c.indexError = "Resources/TextureIndex.plist is not a readable property list holding a dictionary";
    return c;
  }
  if (!index["textures"].dictionary()) {
    c.indexError = "Resources/TextureIndex.plist has no \"textures\" dictionary";
    return c;
  }
  c.textures = index["textures"];
  return c;
}

const Dictionary& catalogueTextures(const TextureCatalogue& c) {
  if (!c.textures.dictionary()) throw CatalogueError("cannot read the texture index: " + c.indexError);
  return *c.textures.dictionary();
}

std::string textureIdentifierFor(const TextureCatalogue& c, const std::string& key) {
  return std::string(kTextureScheme) + "://" + c.identifier + "/" + escaped(key);
}

std::string textureTagKeyFor(const TextureCatalogue& c, const std::string& tag) {
  return std::string(kTagScheme) + "://" + c.identifier + "/" + escaped(tag);
}

std::vector<std::string> textureTags(const Value& record) {
  std::vector<std::string> tags;
  const Value value = record["tags"];
  if (const Array* a = value.array())
    for (const auto& t : *a)
      if (const std::string* s = t.string()) tags.push_back(*s);
  return tags;
}

std::string texturePath(const TextureCatalogue& c, const Value& record) {
  const std::string name = stringOf(record["fileName"]);
  if (name.empty()) return {};
  return c.bundle->pathForResource(name, "", kTexturesFolder);
}

nlohmann::json textureCatalogueJSON(const std::vector<std::string>& tags, const std::string& bundleDir) {
  const TextureCatalogue c = loadTextureCatalogue(bundleDir);
  const Dictionary& textures = catalogueTextures(c);
  std::map<std::string, std::pair<std::string, Value>> selected;  // identifier -> (key, record)
  for (const auto& [key, record] : textures) {
    const auto has = textureTags(record);
    bool all = true;
    for (const auto& t : tags) all = all && std::find(has.begin(), has.end(), t) != has.end();
    if (all) selected.emplace(textureIdentifierFor(c, key), std::make_pair(key, record));
  }
  if (selected.empty() && !tags.empty()) {
    std::string list;
    for (const auto& t : tags) list += (list.empty() ? "" : ", ") + t;
    throw CatalogueError("no texture carries the tag(s) " + list);
  }
  auto json = nlohmann::json::array();
  for (const auto& [identifier, entry] : selected) {
    const auto& [key, record] = entry;
    const std::string path = texturePath(c, record);
    long long width = 0, height = 0;
    if (!path.empty()) {
      if (auto source = CGImageSourceCreateWithURL(path)) {
        const Dictionary props = CGImageSourceCopyPropertiesAtIndex(source, 0);
        if (auto it = props.find(kCGImagePropertyPixelWidth); it != props.end()) width = it->second.integerValue();
        if (auto it = props.find(kCGImagePropertyPixelHeight); it != props.end()) height = it->second.integerValue();
      }
    }
    const std::string display = stringOf(record["displayName"]);
    json.push_back({{"identifier", identifier},
                    {"key", key},
                    {"displayName", display.empty() ? identifier : display},
                    {"tags", textureTags(record)},
                    {"fileName", stringOf(record["fileName"])},
                    {"width", width},
                    {"height", height}});
  }
  return json;
}

}  // namespace qv

#include "TextureIndexFile.h"

#include <filesystem>
#include <map>
#include <set>

#include "Foundation/NSURL.h"
#include "Foundation/PropertyList.h"
#include "Foundation/TextureIdentifiers.h"
#include "ImageIO/ImageIO.h"

namespace qv {
namespace {

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

TextureIndexFile loadTextureIndexFile(const std::string& bundleDir) {
  TextureIndexFile c;
  c.bundle = pluginBundle(bundleDir);
  c.identifier = c.bundle->bundleIdentifier();
  if (c.identifier.empty()) c.identifier = kImageUnitsBundleIdentifier;
  c.indexPath = c.bundle->pathForResource("TextureIndex", "plist");
  if (c.indexPath.empty()) {
    c.indexError = "Resources/TextureIndex.plist is missing";
    return c;
  }
  std::error_code sizeError;
  const std::uintmax_t indexSize = std::filesystem::file_size(c.indexPath, sizeError);
  if (!sizeError && indexSize > kPropertyListMaximumSize) {
    c.indexError = "Resources/TextureIndex.plist is larger than the limit of " +
                   std::to_string(kPropertyListMaximumSize >> 20) + " MB for a property list";
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

const Dictionary& catalogueTextures(const TextureIndexFile& c) {
  if (!c.textures.dictionary()) throw CatalogueError("cannot read the texture index: " + c.indexError);
  return *c.textures.dictionary();
}

std::string textureIdentifierFor(const TextureIndexFile& c, const std::string& key) {
  return QVTextureURLString(kQVTextureIdentifierScheme, c.identifier, key);
}

std::string textureTagKeyFor(const TextureIndexFile& c, const std::string& tag) {
  return QVTextureURLString(kQVTextureTagKeyScheme, c.identifier, tag);
}

std::vector<std::string> textureTags(const Value& record) { return QVTextureRecordTags(record); }

std::string texturePath(const TextureIndexFile& c, const Value& record) {
  const std::string name = stringOf(record["fileName"]);
  if (name.empty()) return {};
  return c.bundle->pathForResource(name, "", kTexturesFolder);
}

void forEachCatalogueTexture(const TextureIndexFile& c, const std::vector<std::string>& tags,
                             const std::function<void(const nlohmann::json& element, std::size_t count)>& each) {
  const Dictionary& textures = catalogueTextures(c);
  const std::set<std::string> wanted(tags.begin(), tags.end());
  // The selection refers to the index's records instead of copying them.
  std::map<std::string, std::pair<const std::string*, const Value*>> selected;  // identifier -> (key, record)
  for (const auto& [key, record] : textures)
    if (QVTextureRecordHasTags(record, wanted)) selected.emplace(textureIdentifierFor(c, key), std::make_pair(&key, &record));
  if (selected.empty() && !tags.empty()) {
    std::string list;
    for (const auto& t : tags) list += (list.empty() ? "" : ", ") + t;
    throw CatalogueError("no texture carries the tag(s) " + list);
  }
  for (const auto& [identifier, entry] : selected) {
    const Value& record = *entry.second;
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
    each({{"identifier", identifier},
          {"key", *entry.first},
          {"displayName", display.empty() ? identifier : display},
          {"tags", textureTags(record)},
          {"fileName", stringOf(record["fileName"])},
          {"width", width},
          {"height", height}},
         selected.size());
  }
}

nlohmann::json textureCatalogueJSON(const std::vector<std::string>& tags, const std::string& bundleDir) {
  auto json = nlohmann::json::array();
  forEachCatalogueTexture(loadTextureIndexFile(bundleDir), tags,
                          [&](const nlohmann::json& element, std::size_t) { json.push_back(element); });
  return json;
}

}  // namespace qv

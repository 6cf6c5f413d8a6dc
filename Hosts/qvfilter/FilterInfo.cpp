#include "FilterInfo.h"

#include <cstdio>
#include <stdexcept>

#include "CoreImage/CIFilter.h"
#include "Recipe.h"
#include "TextureCatalogue.h"
#include "ValueParsing.h"

namespace qv {
namespace {

CIFilterRef makeFilter(const std::string& name) {
  prepareFilterRegistry();
  CIFilterRef filter = CIFilter::filterWithName(name);
  if (!filter) throw std::invalid_argument("no such filter: " + name);
  return filter;
}

std::string joined(const std::vector<std::string>& items) {
  std::string out;
  for (const auto& s : items) out += (out.empty() ? "" : ", ") + s;
  return out;
}

// One attribute value on one line: strings bare, everything else in its readable form.
std::string attributeText(const Value& v) {
  if (auto* s = v.string()) return *s;
  if (v.isBoolean()) return v.boolValue() ? "true" : "false";
  if (auto* a = v.array()) {
    std::vector<std::string> parts;
    for (const auto& e : *a) parts.push_back(attributeText(e));
    return "(" + joined(parts) + ")";
  }
  if (v.transform()) return NSStringFromCGAffineTransform(*v.transform());
  return v.description();
}

void appendDictionary(std::string& out, const Dictionary& dict, int indent) {
  for (const auto& [key, value] : dict) {
    out.append(static_cast<std::size_t>(indent), ' ');
    out += key + ":";
    if (auto* nested = value.dictionary()) {
      out += "\n";
      appendDictionary(out, *nested, indent + 2);
    } else {
      out += " " + attributeText(value) + "\n";
    }
  }
}

// The texture name inputs of a filter, each with the textures and tags of the loaded catalogue
// it accepts: {"inputTextureName": {"textures": [{"identifier", "displayName", "tags"}...],
// "tags": [{"tag", "key"}...]}}. Empty when the filter has none or no catalogue is loaded.
nlohmann::json textureChoicesJSON(const CIFilter& filter) {
  nlohmann::json out = nlohmann::json::object();
  const TextureCatalogue& catalogue = loadedTextureCatalogue();
  if (!catalogue.available) return out;
  for (const std::string& key : filter.inputKeys()) {
    if (!isTextureNameKey(key)) continue;
    nlohmann::json choices{{"textures", nlohmann::json::array()}, {"tags", nlohmann::json::array()}};
    for (const auto& t : catalogue.textures)
      choices["textures"].push_back({{"identifier", t.identifier}, {"displayName", t.displayName}, {"tags", t.tags}});
    for (const auto& t : catalogue.tags) choices["tags"].push_back({{"tag", t.tag}, {"key", t.key}});
    out[key] = std::move(choices);
  }
  return out;
}

}  // namespace

bool isRegisteredFilter(const std::string& name) {
  prepareFilterRegistry();
  return CIFilter::registrationForName(name) != nullptr || CIFilter::filterWithName(name) != nullptr;
}

nlohmann::json filterInfoJSON(const std::string& name) {
  CIFilterRef filter = makeFilter(name);
  nlohmann::json out = nlohmann::json::object();
  out["name"] = name;
  out["inputKeys"] = filter->inputKeys();
  out["outputKeys"] = filter->outputKeys();
  out["attributes"] = jsonFromValue(Value(filter->attributes()));
  const nlohmann::json textures = textureChoicesJSON(*filter);
  if (!textures.empty()) out["textureChoices"] = textures;
  return out;
}

std::string filterInfoText(const std::string& name) {
  CIFilterRef filter = makeFilter(name);
  const Dictionary attributes = filter->attributes();
  std::string out = name;
  if (auto it = attributes.find(kCIAttributeFilterDisplayName); it != attributes.end() && it->second.string()) {
    out += " (" + *it->second.string() + ")";
  }
  out += "\n";
  if (auto it = attributes.find(kCIAttributeFilterCategories); it != attributes.end()) {
    out += "categories: " + attributeText(it->second) + "\n";
  }
  out += "input keys: " + joined(filter->inputKeys()) + "\n";
  out += "output keys: " + joined(filter->outputKeys()) + "\n";
  out += "attributes:\n";
  appendDictionary(out, attributes, 2);
  const nlohmann::json textures = textureChoicesJSON(*filter);
  for (const auto& [key, choices] : textures.items()) {
    out += key + " accepts a texture identifier:\n";
    for (const auto& t : choices["textures"]) {
      out += "  " + t["identifier"].get<std::string>();
      const std::string display = t["displayName"].get<std::string>();
      if (!display.empty()) out += "  (" + display + ")";
      out += "\n";
    }
    out += key + " accepts a tag key, for a random texture of the tag:\n";
    for (const auto& t : choices["tags"]) out += "  " + t["key"].get<std::string>() + "\n";
  }
  return out;
}

int runFilterInfo(const std::string& name, bool json) {
  const std::string text =
      json ? filterInfoJSON(name).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n"
           : filterInfoText(name);
  std::fwrite(text.data(), 1, text.size(), stdout);
  return 0;
}

}  // namespace qv

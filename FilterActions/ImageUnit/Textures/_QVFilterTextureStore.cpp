#include "Textures/_QVFilterTextureStore.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <cstdlib>
#include <map>
#include <mutex>
#include <vector>

#include <nlohmann/json.hpp>

#include "Foundation/Dispatch.h"
#include "Foundation/KeyPath.h"
#include "Foundation/NSAssertionHandler.h"
#include "Foundation/NSBundle.h"
#include "Foundation/NSCache.h"
#include "Foundation/PropertyList.h"
#include "Foundation/TextureIdentifiers.h"
#include "Framework/QVFilterImageUnitsConstants.h"
#include "ImageIO/CGImageSource.h"
#include "Textures/_QVFilterTextureImageProvider.h"

namespace {

// Where assertions of the store say they sit.
constexpr const char* kStoreFile = "FilterActions/ImageUnit/_QVFilterTextureStore";
constexpr int kTextureForTextureIdentifierLine = 92;

using TextureCache = NSCache<CIImage>;

// Everything the store keeps for the life of the process: the index (read once) and the
// table of per-texture caches with the serial queue that guards it (made once).
struct StoreState {
  std::shared_ptr<NSBundle> bundle;  // nullptr: look the plug-in bundle up by identifier
  dispatch_once_t indexOnce;
  Value textures;
  dispatch_once_t cachesOnce;
  dispatch_queue_t queue;
  std::map<std::string, std::shared_ptr<TextureCache>> caches;  // identifier string -> cache
  // Decoded bitmaps of every texture image the store hands out, kept across renders.
  std::shared_ptr<_QVFilterDecodedTextureCache> decoded = std::make_shared<_QVFilterDecodedTextureCache>();
};

std::atomic<std::size_t> gIndexLoads{0};

std::shared_ptr<StoreState>& stateSlot() {
  static auto* slot = new std::shared_ptr<StoreState>(std::make_shared<StoreState>());
  return *slot;
}

std::shared_ptr<StoreState> currentState() { return std::atomic_load(&stateSlot()); }

std::shared_ptr<NSBundle> bundleOf(const StoreState& state) {
  if (state.bundle) return state.bundle;
  return NSBundle::bundleWithIdentifier(QVFilterImageUnitsBundleIdentifier);
}

std::string bundleIdentifierOf(const StoreState& state) {
  if (state.bundle) {
    const std::string id = state.bundle->bundleIdentifier();
    if (!id.empty()) return id;
  }
  return QVFilterImageUnitsBundleIdentifier;
}

const Value& texturesOf(StoreState& state) {
  dispatch_once(state.indexOnce, [&state] {
    gIndexLoads.fetch_add(1, std::memory_order_relaxed);
    auto bundle = bundleOf(state);
    if (!bundle) return;
    auto url = bundle->URLForResource(_QVFilterTextureIndexResourceName, _QVFilterTextureIndexResourceType);
    if (!url) return;
    const Value index = propertyListFromFile(url->path());
    const Value textures = index["textures"];
    if (textures.dictionary()) state.textures = textures;
  });
  return state.textures;
}

// "%@://%@/%@" with the percent-escaped last part.
std::string identifierString(const StoreState& state, const char* scheme, const std::string& key) {
  return QVTextureURLString(scheme, bundleIdentifierOf(state), key);
}

std::set<std::string> filteredKeys(StoreState& state, const std::set<std::string>& tags) {
  std::set<std::string> result;
  const Dictionary* map = texturesOf(state).dictionary();
  if (!map) return result;
  for (const auto& [key, record] : *map)
    if (QVTextureRecordHasTags(record, tags))
      result.insert(identifierString(state, _QVFilterTextureStoreTextureScheme, key));
  return result;
}

std::string queueLabelOf(const StoreState& state) {
  return stringWithKeyPathComponents({bundleIdentifierOf(state), "texture-store", "queue"});
}

}  // namespace

Value _QVFilterTextureStore::allTexturesMap() { return texturesOf(*currentState()); }

std::string _QVFilterTextureStore::textureKeyForTag(const std::string& tag) {
  return identifierString(*currentState(), _QVFilterTextureStoreTagScheme, tag);
}

std::string _QVFilterTextureStore::_textureIdentifierWithKey(const std::string& key) {
  return identifierString(*currentState(), _QVFilterTextureStoreTextureScheme, key);
}

std::set<std::string> _QVFilterTextureStore::filteredTextureKeysContainingTags(const std::set<std::string>& tags) {
  return filteredKeys(*currentState(), tags);
}

NSURLRef _QVFilterTextureStore::resolveNewTextureIdentifierForKey(const std::string& key, const std::string& hint) {
  return resolveNewTextureIdentifierForKey(key, hint.empty() ? nullptr : NSURL::URLWithString(hint));
}

NSURLRef _QVFilterTextureStore::resolveNewTextureIdentifierForKey(const std::string& key, const NSURLRef& hint) {
  if (key.empty()) return nullptr;
  NSURLRef url = NSURL::URLWithString(key);
  if (!url) return nullptr;
  if (url->scheme() != _QVFilterTextureStoreTagScheme) return url;
  const std::string tag = url->lastPathComponent();
  const std::set<std::string> matches = filteredKeys(*currentState(), {tag});
  std::vector<std::string> candidates(matches.begin(), matches.end());
  if (hint && candidates.size() >= 2) {
    std::erase(candidates, hint->absoluteString());
  }
  if (candidates.empty()) return nullptr;
  const std::size_t index = static_cast<std::size_t>(random()) % candidates.size();
  return NSURL::URLWithString(candidates[index]);
}

Value _QVFilterTextureStore::textureForTextureIdentifier(const NSURLRef& textureIdentifier) {
  if (!textureIdentifier) return {};
#ifndef NS_BLOCK_ASSERTIONS
  if (textureIdentifier->scheme() != _QVFilterTextureStoreTextureScheme) {
    NSAssertionHandler::currentHandler().handleFailureInMethod(
        "+[_QVFilterTextureStore textureForTextureIdentifier:]", "_QVFilterTextureStore", kStoreFile,
        kTextureForTextureIdentifierLine,
        "[[textureIdentifier scheme] isEqualToString:_QVFilterTextureStoreTextureScheme]");
  }
#endif
  StoreState& state = *currentState();
  const Dictionary* map = texturesOf(state).dictionary();
  if (!map) return {};
  auto it = map->find(textureIdentifier->lastPathComponent());
  return it == map->end() ? Value() : it->second;
}

CIImage _QVFilterTextureStore::imageForTextureIdentifier(const NSURLRef& identifier, CGSize maximumSizeHint) {
  if (!identifier) return {};
  const Value record = textureForTextureIdentifier(identifier);
  if (!record) return {};
  const std::shared_ptr<StoreState> statePtr = currentState();
  StoreState& state = *statePtr;
  auto bundle = bundleOf(state);
  if (!bundle) return {};
  const Value fileNameValue = record[_QVFilterTextureFileNameKey];
  const std::string* fileName = fileNameValue.string();
  if (!fileName) return {};
  // URLForResource refuses names that would leave the Textures folder.
  auto fileURL = bundle->URLForResource(*fileName, "", _QVFilterTexturesDirectoryName);
  if (!fileURL) return {};

  dispatch_once(state.cachesOnce, [&state] { state.queue = dispatch_queue_create(queueLabelOf(state)); });
  std::shared_ptr<TextureCache> cache;
  dispatch_sync(state.queue, [&] {
    auto& slot = state.caches[identifier->absoluteString()];
    if (!slot) slot = std::make_shared<TextureCache>();
    cache = slot;
  });

  const std::string cacheKey = NSStringFromSize(maximumSizeHint);
  if (auto hit = cache->objectForKey(cacheKey)) return *hit;

  CGImageSourceRef source = CGImageSourceCreateWithURL(fileURL->path());
  if (!source || CGImageSourceGetCount(source) == 0) return {};
  // The decoded bitmap is shared by every image of this texture that decodes to the same size:
  // hints whose larger side is at least the file's larger side all decode the full image.
  const Dictionary properties = CGImageSourceCopyPropertiesAtIndex(source, 0);
  auto sideOf = [&](const char* key) {
    auto it = properties.find(key);
    return it == properties.end() ? std::int64_t(0) : it->second.integerValue();
  };
  const double larger = double(std::max(sideOf(kCGImagePropertyPixelWidth), sideOf(kCGImagePropertyPixelHeight)));
  const double requested = std::max(maximumSizeHint.width, maximumSizeHint.height);
  const double decodedSide = requested >= 1 && requested < larger ? std::floor(requested) : 0;
  const std::string decodeKey = identifier->absoluteString() + " @" + std::to_string(std::int64_t(decodedSide));
  CIImage image =
      _QVFilterTextureImageProvider::imageAtDecodedSizeWithImageSource(source, maximumSizeHint, state.decoded, decodeKey);
  if (!image) return {};
  const CGRect extent = image.extent();
  const double cost = extent.size.width * extent.size.height;
  cache->setObject(image, cacheKey, cost > 0 ? static_cast<std::size_t>(cost) : 0);
  return image;
}

CGSize _QVFilterTextureStore::drawnSizeHint(CGSize maximumSizeHint, CGSize nominalSize, CGSize drawnSize) {
  // Only the larger sides count: the decoder bounds the thumbnail's larger side.
  const double nominal = std::max(nominalSize.width, nominalSize.height);
  const double requested = std::max(maximumSizeHint.width, maximumSizeHint.height);
  const double decoded = requested >= 1 && requested < nominal ? std::floor(requested) : nominal;
  const double width = std::ceil(drawnSize.width), height = std::ceil(drawnSize.height);
  const double drawn = std::max(width, height);
  if (!(drawn >= 1) || !(drawn < decoded)) return maximumSizeHint;
  return CGSizeMake(width, height);
}

std::shared_ptr<NSBundle> _QVFilterTextureStore::_bundle() { return bundleOf(*currentState()); }

std::string _QVFilterTextureStore::_queueLabel() {
  return queueLabelOf(*currentState());
}

std::size_t _QVFilterTextureStore::_indexLoadCount() { return gIndexLoads.load(std::memory_order_relaxed); }

namespace {
std::shared_ptr<TextureCache> existingCache(const NSURLRef& identifier) {
  if (!identifier) return nullptr;
  const std::shared_ptr<StoreState> statePtr = currentState();
  StoreState& state = *statePtr;
  dispatch_once(state.cachesOnce, [&state] { state.queue = dispatch_queue_create(queueLabelOf(state)); });
  std::shared_ptr<TextureCache> cache;
  dispatch_sync(state.queue, [&] {
    auto it = state.caches.find(identifier->absoluteString());
    if (it != state.caches.end()) cache = it->second;
  });
  return cache;
}
}  // namespace

std::size_t _QVFilterTextureStore::_cachedImageCount(const NSURLRef& identifier) {
  auto cache = existingCache(identifier);
  return cache ? cache->count() : 0;
}

std::size_t _QVFilterTextureStore::_cachedImageCost(const NSURLRef& identifier) {
  auto cache = existingCache(identifier);
  return cache ? cache->totalCost() : 0;
}

std::shared_ptr<_QVFilterDecodedTextureCache> _QVFilterTextureStore::_decodedTextureCache() {
  return currentState()->decoded;
}

void _QVFilterTextureStore::_resetForTesting(std::shared_ptr<NSBundle> bundle) {
  auto fresh = std::make_shared<StoreState>();
  fresh->bundle = std::move(bundle);
  std::atomic_store(&stateSlot(), fresh);
}

// The store's resolution for hosts, which load the bundle at run time and reach it by name
// (dlsym): the identifier a texture name or tag key resolves to, as a string the caller frees
// with free(); null when it resolves to nothing.
extern "C" __attribute__((visibility("default"))) char* QVFilterTextureStoreResolveKey(const char* key,
                                                                                    const char* hint) {
  if (!key) return nullptr;
  NSURLRef resolved =
      _QVFilterTextureStore::resolveNewTextureIdentifierForKey(std::string(key), hint ? std::string(hint) : std::string());
  if (!resolved) return nullptr;
  return strdup(resolved->absoluteString().c_str());
}

// The catalogue for hosts, as JSON text the caller frees with free():
//   {"textures": [{"identifier": ..., "displayName": ..., "tags": [...]}, ...],
//    "tags": [{"tag": ..., "key": <tag key>}, ...]}
// both sorted, identifiers and tag keys built by the store itself. Null when the index cannot
// be read.
extern "C" __attribute__((visibility("default"))) char* QVFilterTextureStoreCopyCatalogueJSON() {
  const Value map = _QVFilterTextureStore::allTexturesMap();
  const Dictionary* textures = map.dictionary();
  if (!textures) return nullptr;
  nlohmann::json out{{"textures", nlohmann::json::array()}, {"tags", nlohmann::json::array()}};
  std::set<std::string> allTags;
  for (const auto& [key, record] : *textures) {
    nlohmann::json texture{{"identifier", _QVFilterTextureStore::_textureIdentifierWithKey(key)},
                           {"tags", nlohmann::json::array()}};
    const Value displayName = record[_QVFilterTextureDisplayNameKey];
    if (const std::string* name = displayName.string()) texture["displayName"] = *name;
    const Value tags = record[_QVFilterTextureTagsKey];
    if (const Array* list = tags.array())
      for (const Value& tag : *list)
        if (const std::string* t = tag.string()) {
          texture["tags"].push_back(*t);
          allTags.insert(*t);
        }
    out["textures"].push_back(std::move(texture));
  }
  for (const std::string& tag : allTags)
    out["tags"].push_back({{"tag", tag}, {"key", _QVFilterTextureStore::textureKeyForTag(tag)}});
  return strdup(out.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

// _QVFilterTextureStore: the process-wide catalogue of the textures shipped in the plug-in
// bundle. It reads the index (resource "TextureIndex.plist") once, names every texture by an
// identifier URL of the scheme "x-qvfilter-texture", selects textures by tag, turns a tag key
// (scheme "x-qvfilter-tag") into a randomly picked texture, and hands out texture images that
// are decoded lazily, no larger than the caller's size hint, cached per texture and per hint;
// their decoded bitmaps are kept across renders in one cache bounded by bytes.
// All operations are class-level; there are no instances.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "CoreGraphics/CGGeometry.h"
#include "CoreImage/CIImage.h"
#include "Foundation/NSURL.h"
#include "Foundation/TextureIdentifiers.h"
#include "Foundation/Value.h"

class NSBundle;
class _QVFilterDecodedTextureCache;

// Keys of the texture index.
inline constexpr const char* _QVFilterTextureTagsKey = kQVTextureRecordTagsKey;
inline constexpr const char* _QVFilterTextureDisplayNameKey = "displayName";
inline constexpr const char* _QVFilterTextureFileNameKey = "fileName";
inline constexpr const char* _QVFilterTextureConstraintsKey = "constraints";
inline constexpr const char* _QVFilterTextureConstraintDestinationAttributeKey = "destinationAttribute";
inline constexpr const char* _QVFilterTextureConstraintSourceAttributeKey = "sourceAttribute";
inline constexpr const char* _QVFilterTextureConstraintOffsetKey = "offset";
inline constexpr const char* _QVFilterTextureConstraintScaleKey = "scale";

// URL schemes of texture identifiers and tag keys.
inline constexpr const char* _QVFilterTextureStoreTextureScheme = kQVTextureIdentifierScheme;
inline constexpr const char* _QVFilterTextureStoreTagScheme = kQVTextureTagKeyScheme;

// The index's resource name and type, and the folder of the texture files.
inline constexpr const char* _QVFilterTextureIndexResourceName = "TextureIndex";
inline constexpr const char* _QVFilterTextureIndexResourceType = "plist";
inline constexpr const char* _QVFilterTexturesDirectoryName = "Textures";

using NSURLRef = std::shared_ptr<const NSURL>;

class _QVFilterTextureStore {
 public:
  _QVFilterTextureStore() = delete;

  // The "textures" dictionary of the index (key -> record); nil when the index cannot be read.
  static Value allTexturesMap();
  // "x-qvfilter-tag://<bundle id>/<escaped tag>".
  static std::string textureKeyForTag(const std::string& tag);
  // "x-qvfilter-texture://<bundle id>/<escaped key>".
  static std::string _textureIdentifierWithKey(const std::string& key);
  // Identifier strings of the textures whose tags contain every given tag (all for an empty set).
  static std::set<std::string> filteredTextureKeysContainingTags(const std::set<std::string>& tags);
  // A texture identifier for a name: an identifier passes through unchanged; a tag key is
  // resolved to one of its textures at random, never the hint when there is another; nil when
  // the key is nil (empty), not a URL, or a tag that no texture carries.
  static NSURLRef resolveNewTextureIdentifierForKey(const std::string& key, const NSURLRef& hint);
  static NSURLRef resolveNewTextureIdentifierForKey(const std::string& key, const std::string& hint);
  // The record of the texture named by the identifier, or nil. Asserts the texture scheme.
  static Value textureForTextureIdentifier(const NSURLRef& textureIdentifier);
  // An image of the texture whose extent is its full pixel size, decoded no larger than the
  // hint's larger side; cached per identifier and per hint. Its pixels come from the store's
  // decoded-texture cache: the file is decoded once per decode size, not once per render.
  // nil when there is no such texture or its file is missing or unreadable.
  static CIImage imageForTextureIdentifier(const NSURLRef& identifier, CGSize maximumSizeHint);
  // The size hint that decodes a texture no larger than it is drawn: `maximumSizeHint` as the
  // caller would give it, unless the texture, whose extent has the size `nominalSize`, is drawn
  // at `drawnSize` and that asks for fewer pixels than the hint decodes (a zero hint decodes
  // the full size); then the drawn size rounded up. The image for the hint returned has the
  // same extent; only its decoded pixels are fewer.
  static CGSize drawnSizeHint(CGSize maximumSizeHint, CGSize nominalSize, CGSize drawnSize);

  // The plug-in bundle the store reads (found by QVFilterImageUnitsBundleIdentifier).
  static std::shared_ptr<NSBundle> _bundle();
  // The label of the queue that guards the table of caches.
  static std::string _queueLabel();
  // Number of index parses made in this process.
  static std::size_t _indexLoadCount();
  // Number of images held by the cache of one texture (0 when it has no cache yet).
  static std::size_t _cachedImageCount(const NSURLRef& identifier);
  // Total cost of the images held by the cache of one texture.
  static std::size_t _cachedImageCost(const NSURLRef& identifier);
  // The cache of decoded texture bitmaps (to read its totals or change its byte limit).
  static std::shared_ptr<_QVFilterDecodedTextureCache> _decodedTextureCache();
  // Tests only: forget the index and the caches and read the given bundle from now on
  // (nullptr: the bundle with the plug-in's identifier again).
  static void _resetForTesting(std::shared_ptr<NSBundle> bundle);
};

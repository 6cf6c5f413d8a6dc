// Helpers shared by the pointwise nodes of the colour, composite and generator built-ins: the
// row loop over the part of a tile that lies inside a node's extent, and short forms for the
// input tables of the built-ins.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "CoreImage/Builtins/BuiltinFilter.h"
#include "CoreImage/ImageNode.h"

namespace qv::builtins {

// Calls row(outRow, x0, y, n) for every row of the part of `out` inside `extent`; outRow points
// at pixel (x0, y). Pixels of the tile outside the extent are left as they came (transparent).
template <class RowFn>
void forEachRowInExtent(const PixelTile& out, const CGRect& extent, RowFn&& row) {
  const PixelRect active = out.rect.intersection(PixelRect::centresInside(extent));
  if (active.empty()) return;
  for (std::int64_t y = active.y; y < active.maxY(); ++y) {
    row(out.at(active.x, y), active.x, y, static_cast<std::size_t>(active.width));
  }
}

// The n pixels of an input tile starting at (x0, y). The renderer hands each input exactly its
// region of interest, so this is normally a pointer into the tile; should the tile not cover the
// row (an input with no pixels there), the row is assembled in `scratch`, transparent where the
// tile has nothing.
inline const float* inputRow(const ConstPixelTile& tile, std::int64_t x0, std::int64_t y, std::size_t n,
                             std::vector<float>& scratch) {
  const std::int64_t x1 = x0 + static_cast<std::int64_t>(n);
  if (tile.pixels != nullptr && y >= tile.rect.y && y < tile.rect.maxY() && x0 >= tile.rect.x &&
      x1 <= tile.rect.maxX()) {
    return tile.at(x0, y);
  }
  scratch.assign(n * 4, 0.0f);
  if (tile.pixels != nullptr && y >= tile.rect.y && y < tile.rect.maxY()) {
    const std::int64_t from = std::max(x0, tile.rect.x), to = std::min(x1, tile.rect.maxX());
    if (from < to) std::copy(tile.at(from, y), tile.at(from, y) + (to - from) * 4, scratch.data() + (from - x0) * 4);
  }
  return scratch.data();
}

inline CIInputSpec numberInput(std::string key, std::string type, Value defaultValue, Value identity, Value min,
                               Value max, Value sliderMin, Value sliderMax, std::string displayName,
                               std::string description = {}) {
  CIInputSpec spec;
  spec.key = std::move(key);
  spec.attributeClass = "NSNumber";
  spec.type = std::move(type);
  spec.defaultValue = std::move(defaultValue);
  spec.identity = std::move(identity);
  spec.min = std::move(min);
  spec.max = std::move(max);
  spec.sliderMin = std::move(sliderMin);
  spec.sliderMax = std::move(sliderMax);
  spec.displayName = std::move(displayName);
  spec.description = std::move(description);
  return spec;
}

inline CIInputSpec vectorInput(std::string key, std::string type, Value defaultValue, Value identity,
                               std::string displayName, std::string description = {}) {
  CIInputSpec spec;
  spec.key = std::move(key);
  spec.attributeClass = "CIVector";
  spec.type = std::move(type);
  spec.defaultValue = std::move(defaultValue);
  spec.identity = std::move(identity);
  spec.displayName = std::move(displayName);
  spec.description = std::move(description);
  return spec;
}

inline CIInputSpec colorInput(std::string key, Value defaultValue, Value identity, std::string displayName,
                              std::string description = {}) {
  CIInputSpec spec;
  spec.key = std::move(key);
  spec.attributeClass = "CIColor";
  spec.type = kCIAttributeTypeColor;
  spec.defaultValue = std::move(defaultValue);
  spec.identity = std::move(identity);
  spec.displayName = std::move(displayName);
  spec.description = std::move(description);
  return spec;
}

inline CIInputSpec imageInput(const std::string& key, std::string displayName, std::string description = {}) {
  CIInputSpec spec = imageInputSpec(key);
  spec.displayName = std::move(displayName);
  spec.description = std::move(description);
  return spec;
}

// Rec. 709 luma weights, applied to linear (or, without colour management, encoded) values.
inline constexpr float kLumaR = 0.2126f, kLumaG = 0.7152f, kLumaB = 0.0722f;

// The union of two extents, ignoring empty and null ones.
inline CGRect unionOfExtents(const CGRect& a, const CGRect& b) {
  if (CGRectIsEmpty(a)) return CGRectIsEmpty(b) ? CGRectNull : b;
  if (CGRectIsEmpty(b)) return a;
  return CGRectUnion(a, b);
}

}  // namespace qv::builtins

// Conversions between encoded sRGB values and the working space (linear light, sRGB
// primaries), and the working-space form of a CIColor.
#pragma once

#include <array>
#include <cmath>

#include "CoreImage/CIColor.h"

inline float srgbToLinear(float v) {
  const float a = std::fabs(v);
  const float l = a <= 0.04045f ? a / 12.92f : std::pow((a + 0.055f) / 1.055f, 2.4f);
  return std::copysign(l, v);
}

inline float linearToSrgb(float v) {
  const float a = std::fabs(v);
  const float e = a <= 0.0031308f ? a * 12.92f : 1.055f * std::pow(a, 1.0f / 2.4f) - 0.055f;
  return std::copysign(e, v);
}

// Premultiplied working-space RGBA of a colour; with colour management off the components
// are used as they are.
inline std::array<float, 4> workingColor(const CIColor& c, bool colorManaged) {
  const float a = static_cast<float>(c.alpha());
  auto conv = [&](double v) { return colorManaged ? srgbToLinear(static_cast<float>(v)) : static_cast<float>(v); };
  return {conv(c.red()) * a, conv(c.green()) * a, conv(c.blue()) * a, a};
}

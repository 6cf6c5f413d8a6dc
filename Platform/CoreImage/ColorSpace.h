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
// Components are first brought into ±kColorComponentLimit (NaN reads as 0): far beyond any
// displayable value, so such a colour still saturates, but small enough that its linear form
// and every product with it stay finite instead of turning into infinities and NaNs.
inline constexpr double kColorComponentLimit = 65504;  // the largest half-float
inline double limitedColorComponent(double v) {
  if (std::isnan(v)) return 0;
  return v < -kColorComponentLimit ? -kColorComponentLimit : v > kColorComponentLimit ? kColorComponentLimit : v;
}

inline std::array<float, 4> workingColor(const CIColor& c, bool colorManaged) {
  const float a = static_cast<float>(limitedColorComponent(c.alpha()));
  auto conv = [&](double d) {
    const float v = static_cast<float>(limitedColorComponent(d));
    return colorManaged ? srgbToLinear(v) : v;
  };
  return {conv(c.red()) * a, conv(c.green()) * a, conv(c.blue()) * a, a};
}

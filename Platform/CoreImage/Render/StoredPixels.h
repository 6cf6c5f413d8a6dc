// Stored 8-bit pixels written straight to an 8-bit output: what decoding them to working floats
// and encoding those again gives, without the floats. The renderer writes the parts of an
// output that are a source's pixels unchanged this way (see RegionAnswer in ImageNode.h).
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvpixel {

// Straight, encoded RGBA8 -> the straight, encoded RGBA8 that decodeStraightRGBA8 followed by
// encodeStraightRGBA8 gives for them. Opaque pixels come back unchanged (every code survives
// the trip: see the exhaustive test); translucent ones through a table of every (alpha, code)
// pair made from the two conversions themselves, so the result is theirs bit for bit.
// `opaque`: the caller knows every alpha is 255 (then the rows are copied).
void reencodeStraightRGBA8(const std::uint8_t* src, std::uint8_t* dst, std::size_t count, bool colorManaged,
                           bool opaque);

// Whether every opaque pixel survives decoding and encoding again unchanged (all 256 codes of
// each component); reencodeStraightRGBA8 copies opaque pixels only when this holds.
bool opaqueRoundTripIsExact(bool colorManaged);

}  // namespace qvpixel

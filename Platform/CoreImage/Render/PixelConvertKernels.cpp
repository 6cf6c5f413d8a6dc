// The 8-bit conversions of PixelConvert.cpp in Highway SIMD with run-time dispatch: the file is
// compiled once per instruction set Highway targets, and the first call picks the best one the
// processor has.
//
// A vector holds whole pixels (four floats each, one per 128-bit block), so the alpha of a pixel
// is lane 3 of its block. Every lane goes through the same arithmetic, in the same order, as
// the scalar code does for one component: the same single-rounded products, sums and quotients
// (this file is compiled without contraction into fused multiply-adds); and the managed encode
// finds the same code as the scalar code's table search (the count of thresholds not above the
// value) by another table. So the results are those of the scalar code bit for bit.
//
// With colour management, decoding is a look-up of each code's linear value, and on the
// processor measured (bench/README.md, imageio_bench) a gather of them was 1.3x slower than the
// scalar loop: with AVX-512 the table is held in registers instead, elsewhere that decode
// stays scalar. Encoding finds each component's code with one gather from a table of buckets
// by the float's high bits (kernels::EncodeTable), where the scalar code reads two tables; with
// two gathers (the scalar code's tables) it was 1.1x slower than the scalar loop, and with
// scalar reads of vector-computed indices 1.9x slower. Targets without a gather instruction
// leave it to the scalar loop.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "CoreImage/Render/PixelConvertKernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

#include "CoreImage/Render/PixelConvertKernels.h"

HWY_BEFORE_NAMESPACE();
namespace qvpixel::kernels {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET == HWY_SCALAR
// One lane cannot hold a pixel: everything is left to the scalar code.
std::size_t DecodeStraightRGBA8Unmanaged(const std::uint8_t*, float*, std::size_t) { return 0; }
std::size_t DecodeStraightRGBA8Managed(const std::uint8_t*, float*, std::size_t, const float*) { return 0; }
std::size_t EncodeStraightRGBA8Unmanaged(const float*, std::uint8_t*, std::size_t) { return 0; }
std::size_t EncodeStraightRGBA8Managed(const float*, std::uint8_t*, std::size_t, const EncodeTable&) { return 0; }
#else

// Lane 3 of every block of four: the alpha of each pixel.
template <class DI>
HWY_INLINE hn::Mask<DI> alphaLanes(DI di) {
  const auto three = hn::Set(di, 3);
  return hn::Eq(hn::And(hn::Iota(di, 0), three), three);
}

std::size_t DecodeStraightRGBA8Unmanaged(const std::uint8_t* HWY_RESTRICT src, float* HWY_RESTRICT dst,
                                         std::size_t count) {
  const hn::ScalableTag<float> d;
  const hn::RebindToSigned<decltype(d)> di;
  const hn::Rebind<std::uint8_t, decltype(d)> d8;
  const std::size_t pixels = hn::Lanes(d) / 4;
  const auto isAlpha = hn::RebindMask(d, alphaLanes(di));
  const auto v255 = hn::Set(d, 255.0f);
  std::size_t i = 0;
  for (; i + pixels <= count; i += pixels) {
    // code / 255, as the scalar code's table holds it.
    const auto values = hn::Div(hn::ConvertTo(d, hn::PromoteTo(di, hn::LoadU(d8, src + 4 * i))), v255);
    const auto alpha = hn::Broadcast<3>(values);
    hn::StoreU(hn::IfThenElse(isAlpha, values, hn::Mul(values, alpha)), d, dst + 4 * i);
  }
  return i;
}

#if HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
// The 256 linear values sit in sixteen registers; a code's value is picked by its low five bits
// from each of the eight pairs (one two-table permute each) and then by its top three bits,
// with no memory access per component. Alpha is code / 255, as the scalar code's table holds it.
std::size_t DecodeStraightRGBA8Managed(const std::uint8_t* HWY_RESTRICT src, float* HWY_RESTRICT dst,
                                       std::size_t count, const float* HWY_RESTRICT linear) {
  __m512 table[16];
  for (int j = 0; j < 16; ++j) table[j] = _mm512_loadu_ps(linear + 16 * j);
  const __m512i bit5 = _mm512_set1_epi32(32), bit6 = _mm512_set1_epi32(64), bit7 = _mm512_set1_epi32(128);
  const __mmask16 alphaLanes = 0x8888;
  const __m512 v255 = _mm512_set1_ps(255.0f), one = _mm512_set1_ps(1.0f);
  const __m512i opaque = _mm512_set1_epi32(255);
  std::size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const __m512i codes = _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 4 * i)));
    __m512 pick[8];
    for (int k = 0; k < 8; ++k) pick[k] = _mm512_permutex2var_ps(table[2 * k], codes, table[2 * k + 1]);
    const __mmask16 m5 = _mm512_test_epi32_mask(codes, bit5), m6 = _mm512_test_epi32_mask(codes, bit6),
                    m7 = _mm512_test_epi32_mask(codes, bit7);
    for (int k = 0; k < 4; ++k) pick[k] = _mm512_mask_blend_ps(m5, pick[2 * k], pick[2 * k + 1]);
    for (int k = 0; k < 2; ++k) pick[k] = _mm512_mask_blend_ps(m6, pick[2 * k], pick[2 * k + 1]);
    const __m512 values = _mm512_mask_blend_ps(m7, pick[0], pick[1]);
    if (_mm512_mask_cmpneq_epi32_mask(alphaLanes, codes, opaque) == 0) {
      // Four opaque pixels: alpha 1, and the colour times 1 is the colour.
      _mm512_storeu_ps(dst + 4 * i, _mm512_mask_blend_ps(alphaLanes, values, one));
      continue;
    }
    const __m512 alpha = _mm512_permute_ps(_mm512_div_ps(_mm512_cvtepi32_ps(codes), v255), 0xFF);
    _mm512_storeu_ps(dst + 4 * i, _mm512_mask_blend_ps(alphaLanes, _mm512_mul_ps(values, alpha), alpha));
  }
  return i;
}
#else
// Elsewhere a gather of the table (or its emulation) is slower than the scalar loop.
std::size_t DecodeStraightRGBA8Managed(const std::uint8_t*, float*, std::size_t, const float*) { return 0; }
#endif

std::size_t EncodeStraightRGBA8Unmanaged(const float* HWY_RESTRICT src, std::uint8_t* HWY_RESTRICT dst,
                                         std::size_t count) {
  const hn::ScalableTag<float> d;
  const hn::RebindToSigned<decltype(d)> di;
  const hn::Rebind<std::uint8_t, decltype(d)> d8;
  using V = hn::Vec<decltype(d)>;
  const std::size_t pixels = hn::Lanes(d) / 4;
  const auto isAlpha = alphaLanes(di);
  const V zero = hn::Zero(d), one = hn::Set(d, 1.0f), v255 = hn::Set(d, 255.0f), half = hn::Set(d, 0.5f);
  // clamp01: v > 0 ? (v < 1 ? v : 1) : 0, NaN giving 0.
  auto clamp01 = [&](V v) { return hn::IfThenElseZero(hn::Gt(v, zero), hn::Min(v, one)); };
  // floor(clamp01(v) · 255 + 0.5), the sum being positive: truncation is the floor.
  auto code = [&](V v) { return hn::ConvertTo(di, hn::Add(hn::Mul(clamp01(v), v255), half)); };
  std::size_t i = 0;
  for (; i + pixels <= count; i += pixels) {
    const V s = hn::LoadU(d, src + 4 * i);
    const V alpha = clamp01(hn::Broadcast<3>(s));
    const auto colour = code(hn::Div(s, alpha));  // infinite or NaN where alpha is 0: cleared below
    const auto out = hn::IfThenElseZero(hn::RebindMask(di, hn::Gt(alpha, zero)),
                                        hn::IfThenElse(isAlpha, code(alpha), colour));
    hn::StoreU(hn::DemoteTo(d8, out), d8, dst + 4 * i);
  }
  return i;
}

#if HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL
std::size_t EncodeStraightRGBA8Managed(const float* HWY_RESTRICT src, std::uint8_t* HWY_RESTRICT dst,
                                       std::size_t count, const EncodeTable& table) {
  const hn::ScalableTag<float> d;
  const hn::RebindToSigned<decltype(d)> di;
  const hn::RebindToUnsigned<decltype(d)> du;
  // Every code is in [0, 255]: its low byte is the code (one shuffle fewer than saturating).
  const hn::Rebind<std::uint8_t, decltype(d)> d8;
  using V = hn::Vec<decltype(d)>;
  using VI = hn::Vec<decltype(di)>;
  const std::size_t pixels = hn::Lanes(d) / 4;
  const auto isAlpha = alphaLanes(di);
  const V zero = hn::Zero(d), one = hn::Set(d, 1.0f), v255 = hn::Set(d, 255.0f), half = hn::Set(d, 0.5f);
  const VI first = hn::Set(di, table.first), last = hn::Set(di, table.count - 1), izero = hn::Zero(di);
  const VI lowBits = hn::Set(di, 0xFFFF), thresholdBits = hn::Set(di, 0x1FFFF), codeBits = hn::Set(di, 0xFF);
  const VI i1 = hn::Set(di, 1), i255 = hn::Set(di, 255);
  const auto* entries = reinterpret_cast<const std::int32_t*>(table.entries);
  // clamp01: v > 0 ? (v < 1 ? v : 1) : 0, NaN giving 0.
  auto clamp01 = [&](V v) { return hn::IfThenElseZero(hn::Gt(v, zero), hn::Min(v, one)); };
  // The alpha code: floor(clamp01(a) · 255 + 0.5), the sum being positive (truncation is the floor).
  auto rawCode = [&](V v) { return hn::ConvertTo(di, hn::Add(hn::Mul(clamp01(v), v255), half)); };
  // 0 for v <= 0 or NaN, 255 for v >= 1, else the table's code; lanes outside (0, 1) read
  // the first or last entry, and are then overridden.
  auto code = [&](V v) {
    const VI bits = hn::BitCast(di, v);
    const VI index = hn::Min(hn::Max(hn::Sub(hn::ShiftRight<16>(bits), first), izero), last);
    const VI entry = hn::GatherIndex(di, entries, index);
    const auto below = hn::Lt(hn::And(bits, lowBits), hn::And(entry, thresholdBits));
    VI c = hn::Add(hn::And(hn::ShiftRight<24>(entry), codeBits), hn::IfThenZeroElse(below, i1));
    c = hn::IfThenElse(hn::RebindMask(di, hn::Ge(v, one)), i255, c);
    return hn::IfThenElseZero(hn::RebindMask(di, hn::Gt(v, zero)), c);
  };
  std::size_t i = 0;
  for (; i + pixels <= count; i += pixels) {
    const V s = hn::LoadU(d, src + 4 * i);
    const V alpha = clamp01(hn::Broadcast<3>(s));
    if (hn::AllTrue(d, hn::Eq(alpha, one))) {
      // Opaque (most pixels of a photo): the colour is already straight (s / 1 is s), the
      // alpha code is 255 (floor(1 · 255 + 0.5)) and no pixel is cleared.
      hn::StoreU(hn::TruncateTo(d8, hn::BitCast(du, hn::IfThenElse(isAlpha, i255, code(s)))), d8, dst + 4 * i);
      continue;
    }
    const V straight = hn::Div(s, alpha);  // cleared where alpha is 0
    const auto out = hn::IfThenElseZero(hn::RebindMask(di, hn::Gt(alpha, zero)),
                                        hn::IfThenElse(isAlpha, rawCode(alpha), code(straight)));
    hn::StoreU(hn::TruncateTo(d8, hn::BitCast(du, out)), d8, dst + 4 * i);
  }
  return i;
}
#else
// Without a gather instruction the look-ups are emulated, and no faster than the scalar loop.
std::size_t EncodeStraightRGBA8Managed(const float*, std::uint8_t*, std::size_t, const EncodeTable&) { return 0; }
#endif

#endif  // HWY_TARGET == HWY_SCALAR

}  // namespace HWY_NAMESPACE
}  // namespace qvpixel::kernels
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace qvpixel::kernels {

HWY_EXPORT(DecodeStraightRGBA8Unmanaged);
HWY_EXPORT(DecodeStraightRGBA8Managed);
HWY_EXPORT(EncodeStraightRGBA8Unmanaged);
HWY_EXPORT(EncodeStraightRGBA8Managed);

std::size_t decodeStraightRGBA8Unmanaged(const std::uint8_t* src, float* dst, std::size_t count) {
  return HWY_DYNAMIC_DISPATCH(DecodeStraightRGBA8Unmanaged)(src, dst, count);
}

std::size_t decodeStraightRGBA8Managed(const std::uint8_t* src, float* dst, std::size_t count, const float* linear) {
  return HWY_DYNAMIC_DISPATCH(DecodeStraightRGBA8Managed)(src, dst, count, linear);
}

std::size_t encodeStraightRGBA8Unmanaged(const float* src, std::uint8_t* dst, std::size_t count) {
  return HWY_DYNAMIC_DISPATCH(EncodeStraightRGBA8Unmanaged)(src, dst, count);
}

std::size_t encodeStraightRGBA8Managed(const float* src, std::uint8_t* dst, std::size_t count,
                                       const EncodeTable& table) {
  return HWY_DYNAMIC_DISPATCH(EncodeStraightRGBA8Managed)(src, dst, count, table);
}

}  // namespace qvpixel::kernels
#endif  // HWY_ONCE

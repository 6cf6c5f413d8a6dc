// Four floats as one value (GCC/Clang vector extension: SSE on x86-64), for pixel loops that
// work on four pixels at a time: after transpose4, one vector holds one component of four
// pixels. Helpers mirror std::min, std::max, std::clamp(v, 0, 1), std::fabs and std::sqrt lane
// by lane, with the same comparisons, so that code written once for T = float and T = Float4
// gives the same bits either way. Float8 is the same for eight pixels: two SSE halves in the
// baseline build, one AVX register in a loop compiled with QV_LANE_CLONES.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "CoreImage/TargetClones.h"
#if defined(__SSE__)
#include <immintrin.h>
#endif

// Row loops over Float8 groups are compiled twice on x86-64, for AVX2 and for the baseline, and
// the loader picks one per process, so every tile of a render runs the same code. The AVX2
// target has no fused multiply-add: both versions run the same IEEE operations one by one and
// give the same bits (one version where TargetClones.h says so).
#if QV_TARGET_CLONES
#define QV_LANE_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define QV_LANE_CLONES
#endif

// Float8 values are passed between inline helpers only (never across a library boundary), so
// the note that their calling convention differs with and without AVX does not apply.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

namespace qv::builtins {

using Float4 = float __attribute__((vector_size(16)));
using Float8 = float __attribute__((vector_size(32)));

template <class T>
[[gnu::always_inline]] inline T splat(float v) {
  if constexpr (std::is_same_v<T, float>) {
    return v;
  } else if constexpr (std::is_same_v<T, Float8>) {
    return T{v, v, v, v, v, v, v, v};
  } else {
    return T{v, v, v, v};
  }
}
// std::min, std::max, std::clamp(v, 0, 1) and std::fabs, lane by lane.
template <class T>
[[gnu::always_inline]] inline T minOf(T a, T b) { return b < a ? b : a; }
template <class T>
[[gnu::always_inline]] inline T maxOf(T a, T b) { return a < b ? b : a; }
template <class T>
[[gnu::always_inline]] inline T clamp01(T v) { return v < splat<T>(0) ? splat<T>(0) : (splat<T>(1) < v ? splat<T>(1) : v); }
template <class T>
[[gnu::always_inline]] inline T absOf(T v) {
  if constexpr (std::is_same_v<T, float>) {
    return std::fabs(v);
  } else {
    using Int4 = std::int32_t __attribute__((vector_size(16)));
    using Int8 = std::int32_t __attribute__((vector_size(32)));
    using Int = std::conditional_t<std::is_same_v<T, Float8>, Int8, Int4>;
    return T(Int(v) & std::int32_t(0x7fffffff));
  }
}
template <class T>
[[gnu::always_inline]] inline T sqrtOf(T v) {
  if constexpr (std::is_same_v<T, float>) {
    return std::sqrt(v);
  } else if constexpr (std::is_same_v<T, Float8>) {
#if defined(__NO_MATH_ERRNO__)
    // Without errno to set, the lanes' square roots are one instruction on the whole vector in
    // an AVX clone (two halves in the baseline): the same IEEE square root of each lane.
    T r;
    for (int i = 0; i < 8; ++i) r[i] = __builtin_sqrtf(v[i]);
    return r;
#else
    const Float4 lo = sqrtOf(Float4{v[0], v[1], v[2], v[3]}), hi = sqrtOf(Float4{v[4], v[5], v[6], v[7]});
    return __builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7);
#endif
  } else {
#if defined(__SSE__)
    return T(_mm_sqrt_ps(__m128(v)));
#else
    return T{std::sqrt(v[0]), std::sqrt(v[1]), std::sqrt(v[2]), std::sqrt(v[3])};
#endif
  }
}


// Four RGBA pixels (16 floats) as four vectors of one component each; the same turns four
// component vectors back into pixels. `in` may be `out`.
[[gnu::always_inline]] inline void transpose4(const float* in, Float4 out[4]) {
#if defined(__SSE__)
  __m128 r0 = _mm_loadu_ps(in), r1 = _mm_loadu_ps(in + 4), r2 = _mm_loadu_ps(in + 8), r3 = _mm_loadu_ps(in + 12);
  _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
  out[0] = Float4(r0), out[1] = Float4(r1), out[2] = Float4(r2), out[3] = Float4(r3);
#else
  float t[16];
  for (int p = 0; p < 4; ++p)
    for (int c = 0; c < 4; ++c) t[4 * c + p] = in[4 * p + c];
  std::memcpy(out, t, sizeof t);
#endif
}

// The pixels of one group (four for Float4, eight for Float8) as four vectors of one component
// each, and back: `storePixels` writes the group's pixels from its component vectors. Eight
// pixels are transposed as two groups of four, one in each half of the vectors (pixels 0, 2, 4,
// 6 in the lower half, 1, 3, 5, 7 in the upper), with shuffles that never cross the halves: the
// lanes hold the pixels in another order, which `storePixels` undoes.
[[gnu::always_inline]] inline void loadPixels(const float* in, Float4 out[4]) { transpose4(in, out); }
[[gnu::always_inline]] inline void storePixels(const Float4 in[4], float* out) {
  Float4 t[4];
  transpose4(reinterpret_cast<const float*>(in), t);
  std::memcpy(out, t, sizeof t);
}
// The 4 x 4 transpose of each half of four vectors (its own inverse).
[[gnu::always_inline]] inline void transposeHalves(const Float8 r[4], Float8 out[4]) {
  const Float8 t0 = __builtin_shufflevector(r[0], r[1], 0, 8, 1, 9, 4, 12, 5, 13);
  const Float8 t1 = __builtin_shufflevector(r[0], r[1], 2, 10, 3, 11, 6, 14, 7, 15);
  const Float8 t2 = __builtin_shufflevector(r[2], r[3], 0, 8, 1, 9, 4, 12, 5, 13);
  const Float8 t3 = __builtin_shufflevector(r[2], r[3], 2, 10, 3, 11, 6, 14, 7, 15);
  out[0] = __builtin_shufflevector(t0, t2, 0, 1, 8, 9, 4, 5, 12, 13);
  out[1] = __builtin_shufflevector(t0, t2, 2, 3, 10, 11, 6, 7, 14, 15);
  out[2] = __builtin_shufflevector(t1, t3, 0, 1, 8, 9, 4, 5, 12, 13);
  out[3] = __builtin_shufflevector(t1, t3, 2, 3, 10, 11, 6, 7, 14, 15);
}
// Eight floats at any float's address (a row of pixels is aligned to its floats only).
using UnalignedFloat8 = float __attribute__((vector_size(32), aligned(4)));
[[gnu::always_inline]] inline void loadPixels(const float* in, Float8 out[4]) {
  const Float8 r[4] = {*reinterpret_cast<const UnalignedFloat8*>(in), *reinterpret_cast<const UnalignedFloat8*>(in + 8),
                       *reinterpret_cast<const UnalignedFloat8*>(in + 16),
                       *reinterpret_cast<const UnalignedFloat8*>(in + 24)};
  transposeHalves(r, out);
}
[[gnu::always_inline]] inline void storePixels(const Float8 in[4], float* out) {
  Float8 r[4];
  transposeHalves(in, r);
  for (int i = 0; i < 4; ++i) *reinterpret_cast<UnalignedFloat8*>(out + 8 * i) = r[i];
}

}  // namespace qv::builtins

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

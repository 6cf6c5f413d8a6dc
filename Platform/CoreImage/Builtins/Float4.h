// Four floats as one value (GCC/Clang vector extension: SSE on x86-64), for pixel loops that
// work on four pixels at a time: after transpose4, one vector holds one component of four
// pixels. Helpers mirror std::min, std::max, std::clamp(v, 0, 1), std::fabs and std::sqrt lane
// by lane, with the same comparisons, so that code written once for T = float and T = Float4
// gives the same bits either way.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#if defined(__SSE__)
#include <immintrin.h>
#endif

namespace qv::builtins {

using Float4 = float __attribute__((vector_size(16)));

template <class T>
inline T splat(float v) {
  if constexpr (std::is_same_v<T, float>) {
    return v;
  } else {
    return T{v, v, v, v};
  }
}
// std::min, std::max, std::clamp(v, 0, 1) and std::fabs, lane by lane.
template <class T>
inline T minOf(T a, T b) { return b < a ? b : a; }
template <class T>
inline T maxOf(T a, T b) { return a < b ? b : a; }
template <class T>
inline T clamp01(T v) { return v < splat<T>(0) ? splat<T>(0) : (splat<T>(1) < v ? splat<T>(1) : v); }
template <class T>
inline T absOf(T v) {
  if constexpr (std::is_same_v<T, float>) {
    return std::fabs(v);
  } else {
    using Int4 = std::int32_t __attribute__((vector_size(16)));
    return T(Int4(v) & Int4{0x7fffffff, 0x7fffffff, 0x7fffffff, 0x7fffffff});
  }
}
template <class T>
inline T sqrtOf(T v) {
  if constexpr (std::is_same_v<T, float>) {
    return std::sqrt(v);
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
inline void transpose4(const float* in, Float4 out[4]) {
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

}  // namespace qv::builtins

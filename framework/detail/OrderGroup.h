// Comparison of a group of eight orders at once, with SSE2 where the processor has it: what a
// search reads first, from a bucket on.
#pragma once

#include "framework/Integers.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace [[gnu::visibility("default")]] Kiv {
namespace detail {

// The number of orders in a group. It needs no alignment.
inline constexpr U32 kOrderGroup = 8;

// Which orders of a group are less than this one: a bit for each, the first one's lowest.
inline U32 lessInGroup(const U32* group, U32 order) {
#ifdef __SSE2__
  // SSE2 compares signed numbers only; with the highest bit flipped, unsigned ones in their order.
  const __m128i flip = _mm_set1_epi32(static_cast<int>(U32{1} << 31));
  const __m128i sought = _mm_xor_si128(_mm_set1_epi32(static_cast<int>(order)), flip);
  const auto* four = reinterpret_cast<const __m128i*>(group);
  const __m128i low = _mm_cmplt_epi32(_mm_xor_si128(_mm_loadu_si128(four), flip), sought);
  const __m128i high = _mm_cmplt_epi32(_mm_xor_si128(_mm_loadu_si128(four + 1), flip), sought);
  return static_cast<U32>(_mm_movemask_ps(_mm_castsi128_ps(low)) |
                          _mm_movemask_ps(_mm_castsi128_ps(high)) << 4);
#else
  U32 less = 0;
  for (U32 i = 0; i < kOrderGroup; ++i) less |= (group[i] < order ? U32{1} : U32{0}) << i;
  return less;
#endif
}

// Which orders of a group are equal to this one, as bits likewise.
inline U32 equalInGroup(const U32* group, U32 order) {
#ifdef __SSE2__
  const __m128i sought = _mm_set1_epi32(static_cast<int>(order));
  const auto* four = reinterpret_cast<const __m128i*>(group);
  const __m128i low = _mm_cmpeq_epi32(_mm_loadu_si128(four), sought);
  const __m128i high = _mm_cmpeq_epi32(_mm_loadu_si128(four + 1), sought);
  return static_cast<U32>(_mm_movemask_ps(_mm_castsi128_ps(low)) |
                          _mm_movemask_ps(_mm_castsi128_ps(high)) << 4);
#else
  U32 equal = 0;
  for (U32 i = 0; i < kOrderGroup; ++i) equal |= (group[i] == order ? U32{1} : U32{0}) << i;
  return equal;
#endif
}

}  // namespace detail
}  // namespace Kiv

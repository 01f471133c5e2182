// Reductions to 8 or 16 bits per pixel, in the same steps for every format: with the pixels in 32-bit lanes,
// keep the high bits of each channel, join the channels by two multiplications, shift, and pack the lanes.
// Needs SSSE3.
#pragma once

#include "base/annotations.h"

#include <tmmintrin.h>

// How a 32-bit lane becomes a narrow pixel.
struct REDUCTION {
    ULONG ChannelMask; // the bits kept
    ULONG ByteFactors; // join blue with green
    ULONG WordFactors; // join both with red
    int Place;         // the lowest bit of the pixel in the product
    bool IsSigned;     // the pixel has a bit 15
};

// Blue stays at bits 7..3. Green is shifted to the bits directly above blue, and red to those above green.
constexpr REDUCTION REDUCE_TO_RGB565 = {0x00F8FCF8, 0x00404001, 0x00200001, 3, true};
constexpr REDUCTION REDUCE_TO_RGB555 = {0x00F8F8F8, 0x00202001, 0x00200001, 3, false};
// Blue stays at bits 7..5; green is shifted above blue, and the two bits of red above green.
constexpr REDUCTION REDUCE_TO_RGB8 = {0x00C0E0E0, 0x00200801, 0x00010001, 5, false};

// The pack saturates signed numbers, so a pixel with a bit 15 must become a negative number, which takes
// another shift. An unsigned pack would need SSE4.1.
template <const REDUCTION& Rule>
TARGET_SSSE3 FORCEINLINE __m128i ReduceQuad(__m128i quad) {
    const __m128i channels = _mm_and_si128(quad, _mm_set1_epi32(Rule.ChannelMask));
    const __m128i joined = _mm_madd_epi16(_mm_maddubs_epi16(channels, _mm_set1_epi32(Rule.ByteFactors)),
                                          _mm_set1_epi32(Rule.WordFactors));
    if constexpr (Rule.IsSigned) {
        return _mm_srai_epi32(_mm_slli_epi32(joined, 16 - Rule.Place), 16);
    } else {
        return _mm_srli_epi32(joined, Rule.Place);
    }
}

template <const REDUCTION& Rule>
TARGET_SSSE3 FORCEINLINE __m128i ReduceOctet(__m128i low, __m128i high) {
    return _mm_packs_epi32(ReduceQuad<Rule>(low), ReduceQuad<Rule>(high));
}

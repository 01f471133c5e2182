// Sixteen-bit units from vectors: groups of eight pixels become part of a run stream without a branch, by
// tables.
#pragma once

#include "pixel/pixel_context.h"
#include "pixel/run_masks.h"

#include <intrin.h>
#include <tmmintrin.h>

constexpr ULONG GROUP_PIXELS = 8;
constexpr ULONG GROUP_BYTES = GROUP_PIXELS * 2;
constexpr ULONG BLOCK_BYTES = BLOCK_PIXELS * 2;

// How far past its cursor a group stores.
constexpr ULONG PACKER_OVERSHOOT = 16;

struct RUN_PACKER {
    const UCHAR (*PackShuffle)[16];
    const USHORT (*CountWords)[GROUP_PIXELS];
    const PACK_STEP* Steps;
};

inline RUN_PACKER PACKER_Create(const PIXEL_CONTEXT& pixel) {
    return {pixel.Tables.GroupPackShuffle, pixel.Tables.GroupCountShuffle, pixel.GroupWordCount};
}

// Writes the group of the eight literal units in `literals`.
TARGET_SSSE3 FORCEINLINE PACK_CURSOR PACKER_PutGroup(const RUN_PACKER& packer, PACK_CURSOR cursor,
                                                     __m128i literals, ULONG repeats, ULONG continued) {
    // The smaller of literal and count, which is the largest number where there is none.
    const __m128i counts = _mm_load_si128(reinterpret_cast<const __m128i*>(packer.CountWords[repeats]));
    const __m128i units = _mm_sub_epi16(literals, _mm_subs_epu16(literals, counts));
    const __m128i shuffle = _mm_load_si128(reinterpret_cast<const __m128i*>(packer.PackShuffle[continued]));
    // An open run ends in the first unit of this group, if it ends here at all.
    const __m128i packed =
        _mm_add_epi16(_mm_shuffle_epi8(units, shuffle), _mm_cvtsi32_si128(static_cast<LONG>(cursor.Repeats)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cursor.Next), packed);

    const PACK_STEP& step = packer.Steps[continued];
    return {cursor.Next + step.Bytes, step.Open + (cursor.Repeats & static_cast<ULONG>(LONG{step.AllOpen}))};
}

// Writes a strip of `words` words. `readLiterals` gives the literal units of the eight pixels of a group.
template <typename ReadLiterals>
TARGET_SSSE3 FORCEINLINE PACK_CURSOR PACKER_PutStrip(const RUN_PACKER& packer, PACK_CURSOR cursor,
                                                     const RUN_MASKS& masks, ULONG words,
                                                     ReadLiterals readLiterals) {
    ULONG done = 0;
    ULONG block = 0;
    for (ULONGLONG left = masks.WritingBlocks; _BitScanForward64(&block, left); left &= left - 1) {
        cursor.Repeats += (block - done) * BLOCK_PIXELS;
        done = block + 1;
        const ULONG low = 2 * block;
        const ULONG high = low + 1;
        cursor = PACKER_PutGroup(packer, cursor, readLiterals(low), MASKS_GroupRepeats(masks, low),
                                 MASKS_GroupContinued(masks, low));
        cursor = PACKER_PutGroup(packer, cursor, readLiterals(high), MASKS_GroupRepeats(masks, high),
                                 MASKS_GroupContinued(masks, high));
    }
    cursor.Repeats += (words * WORD_BLOCKS - done) * BLOCK_PIXELS;
    return cursor;
}

// Fills the tables.
void PACKER_BuildTables(PIXEL_CONTEXT* pixel);

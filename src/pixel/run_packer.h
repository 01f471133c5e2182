// Sixteen-bit units from vectors: how eight pixels, known to be literals or repeats, become part of a run
// stream without a branch.
//
// A repeat is written by the last pixel of its run, as the run's count; a literal is written by itself. So
// each pixel writes one unit or none, and a run may cross any number of groups before its last pixel is met.
// Bit i of a mask stands for pixel i:
//   repeats    the pixel equals the one before
//   continued  it does, and so does the pixel after it: it writes nothing
#pragma once

#include "driver/annotations.h"
#include "pixel/pixel_context.h"

#include <tmmintrin.h>

constexpr ULONG GROUP_PIXELS = 8;
constexpr ULONG BLOCK_PIXELS = 2 * GROUP_PIXELS; // one mask of 16 bits
constexpr LONG GROUP_BYTES = GROUP_PIXELS * 2;
constexpr LONG BLOCK_BYTES = BLOCK_PIXELS * 2;
constexpr ULONG ALL_OF_BLOCK = 0xFFFF;

// How far past its cursor a group stores.
constexpr ULONG PACKER_OVERSHOOT = 16;

// The stream while vectors write it. The place and the open run are values of the loop, not memory: each
// group depends on them, and through memory that would cost more than all its other work.
struct PACK_CURSOR {
    UCHAR* Next;
    ULONG Repeats; // of the run that the next pixel continues
};

struct RUN_PACKER {
    const UCHAR (*PackShuffle)[16];
    const USHORT (*CountWords)[GROUP_PIXELS];
    const PACK_STEP* Steps;
};

inline RUN_PACKER PACKER_Create(const PIXEL_CONTEXT& pixel) {
    return {pixel.Tables.PackShuffle, pixel.Tables.CountWords, pixel.PackSteps};
}

// The pixels of a block that write nothing. `repeatsAfter` is the mask of the block that follows.
inline ULONG PACKER_FindContinued(ULONG repeats, ULONG repeatsAfter) {
    return repeats & (repeats >> 1 | (repeatsAfter & 1) << (BLOCK_PIXELS - 1));
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

// Writes the sixteen literal units in `low` and `high`.
TARGET_SSSE3 FORCEINLINE PACK_CURSOR PACKER_PutBlock(const RUN_PACKER& packer, PACK_CURSOR cursor,
                                                     __m128i low, __m128i high, ULONG repeats,
                                                     ULONG continued) {
    cursor = PACKER_PutGroup(packer, cursor, low, repeats & 0xFF, continued & 0xFF);
    return PACKER_PutGroup(packer, cursor, high, repeats >> 8, continued >> 8);
}

// Writes the count of an open run, at least 2, unless the next pixel continues it.
inline PACK_CURSOR PACKER_CloseRun(PACK_CURSOR cursor, ULONG nextRepeats) {
    const USHORT count = static_cast<USHORT>(cursor.Repeats);
    const ULONG open = 0 - (nextRepeats & 1);
    RtlCopyMemory(cursor.Next, &count, sizeof(count));
    return {cursor.Next + (2 & ~open), cursor.Repeats & open};
}

// Fills the tables.
void PACKER_BuildTables(PIXEL_CONTEXT* pixel);

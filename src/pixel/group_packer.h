// Writes groups of eight 16-bit pixels into a run stream of 2-byte units, without a branch, by tables.
#pragma once

#include "pixel/run_masks.h"

#include <intrin.h>
#include <tmmintrin.h>

constexpr ULONG GROUP_PIXELS = 8;
constexpr ULONG GROUP_BYTES = GROUP_PIXELS * 2;
constexpr ULONG GROUP_MASK_COUNT = 1u << GROUP_PIXELS;

// A group stores this many bytes at its cursor, whatever it writes.
constexpr ULONG GROUP_STORE_BYTES = 16;

// What a group writes and leaves open.
struct alignas(4) GROUP_STEP {
    UCHAR Bytes;  // length of what the group writes
    UCHAR Open;   // repeats at its end that the next group continues
    CHAR AllOpen; // -1: the whole group continues the run before it; else 0
};

// The masks that select a row are those of pixel/run_masks.h. The tables are built at compile time.
struct GROUP_TABLES {
    // By the mask of continued repeats: the shuffle that packs the units of the pixels that write one.
    alignas(16) UCHAR PackShuffle[GROUP_MASK_COUNT][16];
    // By the mask of repeats: the length of the run up to each repeat, 0xFFFF where there is none.
    alignas(16) USHORT Counts[GROUP_MASK_COUNT][GROUP_PIXELS];
    // By the mask of continued repeats.
    GROUP_STEP Steps[GROUP_MASK_COUNT];
};

constexpr GROUP_TABLES BuildGroupTables() {
    constexpr UCHAR nothing = 0x80;
    constexpr USHORT noCount = 0xFFFF;
    GROUP_TABLES tables = {};
    for (ULONG mask = 0; mask < GROUP_MASK_COUNT; mask++) {
        UCHAR(&shuffle)[16] = tables.PackShuffle[mask];
        ULONG bytes = 0;
        ULONG run = 0;
        for (ULONG lane = 0; lane < GROUP_PIXELS; lane++) {
            const bool isSet = mask >> lane & 1;
            run = isSet ? run + 1 : 0;
            tables.Counts[mask][lane] = isSet ? static_cast<USHORT>(run) : noCount;
            if (!isSet) {
                shuffle[bytes++] = static_cast<UCHAR>(lane * 2);
                shuffle[bytes++] = static_cast<UCHAR>(lane * 2 + 1);
            }
        }
        GROUP_STEP& step = tables.Steps[mask];
        step.Bytes = static_cast<UCHAR>(bytes);
        step.Open = static_cast<UCHAR>(run);
        step.AllOpen = run == GROUP_PIXELS ? -1 : 0;
        while (bytes < sizeof(shuffle)) {
            shuffle[bytes++] = nothing;
        }
    }
    return tables;
}

inline constexpr GROUP_TABLES GROUP_TABLE = BuildGroupTables();

// Writes the group of the eight literal units in `literals`.
TARGET_SSSE3 FORCEINLINE PACK_CURSOR PACKER_PutGroup(PACK_CURSOR cursor, __m128i literals, ULONG repeats,
                                                     ULONG continued) {
    // The smaller of literal and count; where there is no count, the table has the largest number.
    const __m128i counts = _mm_load_si128(reinterpret_cast<const __m128i*>(GROUP_TABLE.Counts[repeats]));
    const __m128i units = _mm_sub_epi16(literals, _mm_subs_epu16(literals, counts));
    const __m128i shuffle =
        _mm_load_si128(reinterpret_cast<const __m128i*>(GROUP_TABLE.PackShuffle[continued]));
    // If an open run ends in this group, its count is the group's first unit.
    const __m128i packed =
        _mm_add_epi16(_mm_shuffle_epi8(units, shuffle), _mm_cvtsi32_si128(static_cast<LONG>(cursor.Repeats)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cursor.Next), packed);

    const GROUP_STEP& step = GROUP_TABLE.Steps[continued];
    return {cursor.Next + step.Bytes, step.Open + (cursor.Repeats & static_cast<ULONG>(LONG{step.AllOpen}))};
}

// Writes a strip of `words` words. `readLiterals` returns the literal units of the eight pixels of a group.
template <typename ReadLiterals>
TARGET_SSSE3 FORCEINLINE PACK_CURSOR PACKER_PutStrip(PACK_CURSOR cursor, const RUN_MASKS& masks, ULONG words,
                                                     ReadLiterals readLiterals) {
    ULONG done = 0;
    ULONG block = 0;
    for (ULONGLONG left = masks.WritingBlocks; _BitScanForward64(&block, left); left &= left - 1) {
        cursor.Repeats += (block - done) * BLOCK_PIXELS;
        done = block + 1;
        const ULONG low = 2 * block;
        const ULONG high = low + 1;
        cursor = PACKER_PutGroup(cursor, readLiterals(low), MASKS_GroupRepeats(masks, low),
                                 MASKS_GroupContinued(masks, low));
        cursor = PACKER_PutGroup(cursor, readLiterals(high), MASKS_GroupRepeats(masks, high),
                                 MASKS_GroupContinued(masks, high));
    }
    cursor.Repeats += (words * WORD_BLOCKS - done) * BLOCK_PIXELS;
    return cursor;
}

// Bit masks of a strip of pixels: which pixels repeat their predecessor, and which write a unit.
//
// The encoders' vector forms first compare a whole strip and then visit only the blocks that write anything,
// so the length of flat areas causes no branch mispredictions.
//
// The last pixel of a run writes the run's count; a literal writes itself. So each pixel writes one unit or
// none, and a run may extend over any number of blocks before its last pixel. Bit i of word w describes pixel
// 64 w + i of the strip:
//   repeats    the pixel equals the one before
//   continued  it does, and so does the pixel after it: it writes nothing
#pragma once

#include "base/annotations.h"

#include <emmintrin.h>

constexpr ULONG WORD_PIXELS = 64;
constexpr ULONG STRIP_WORDS = 16;
constexpr ULONG STRIP_PIXELS = STRIP_WORDS * WORD_PIXELS;
constexpr ULONG BLOCK_PIXELS = 16;
constexpr ULONG WORD_BLOCKS = WORD_PIXELS / BLOCK_PIXELS;

struct RUN_MASKS {
    alignas(16) ULONGLONG Repeats[STRIP_WORDS + 1]; // the last word: the pixel after the strip
    alignas(16) ULONGLONG Continued[STRIP_WORDS];
    ULONGLONG WritingBlocks; // bit i: block i writes at least one unit
};

// The number of words in the next strip when `pixels` pixels are left. The pixel after the strip must exist:
// it is compared, too.
inline ULONG MASKS_CountWords(ULONG pixels) {
    const ULONG words = pixels == 0 ? 0 : (pixels - 1) / WORD_PIXELS;
    return words < STRIP_WORDS ? words : STRIP_WORDS;
}

// Computes the other masks from the first `words` words of Repeats. `repeatAfter`: the pixel after the strip
// equals the strip's last one.
inline void MASKS_Complete(RUN_MASKS* masks, ULONG words, bool repeatAfter) {
    masks->Repeats[words] = repeatAfter;
    for (ULONG word = 0; word < STRIP_WORDS; word++) {
        if (word >= words) {
            masks->Continued[word] = ~0ull; // writes nothing
            continue;
        }
        const ULONGLONG repeats = masks->Repeats[word];
        masks->Continued[word] = repeats & (repeats >> 1 | masks->Repeats[word + 1] << (WORD_PIXELS - 1));
    }
    const __m128i* continued = reinterpret_cast<const __m128i*>(masks->Continued);
    const __m128i all = _mm_set1_epi16(-1);
    ULONGLONG silent = 0;
    for (ULONG part = 0; part < STRIP_WORDS / 4; part++) {
        const __m128i low = _mm_cmpeq_epi16(_mm_load_si128(continued + 2 * part), all);
        const __m128i high = _mm_cmpeq_epi16(_mm_load_si128(continued + 2 * part + 1), all);
        silent |= static_cast<ULONGLONG>(_mm_movemask_epi8(_mm_packs_epi16(low, high))) << 16 * part;
    }
    masks->WritingBlocks = ~silent;
}

// Turns repeats that have no other repeat beside them into literals. `openBefore`: a run continues into the
// strip.
inline void MASKS_ClearLone(RUN_MASKS* masks, ULONG words, bool openBefore) {
    ULONGLONG before = openBefore ? 1 : 0;
    for (ULONG word = 0; word < words; word++) {
        const ULONGLONG repeats = masks->Repeats[word];
        masks->Repeats[word] = repeats & (repeats << 1 | before | masks->Continued[word]);
        before = repeats >> (WORD_PIXELS - 1);
    }
}

// The masks of the eight pixels that begin at pixel 8 * `group` of the strip.
inline ULONG MASKS_GroupRepeats(const RUN_MASKS& masks, ULONG group) {
    return reinterpret_cast<const UCHAR*>(masks.Repeats)[group];
}

inline ULONG MASKS_GroupContinued(const RUN_MASKS& masks, ULONG group) {
    return reinterpret_cast<const UCHAR*>(masks.Continued)[group];
}

// The repeats of the sixteen pixels of a block, and in bit 16 that of the pixel after them.
inline ULONG MASKS_BlockRepeats(const RUN_MASKS& masks, ULONG block) {
    ULONG bits;
    RtlCopyMemory(&bits, reinterpret_cast<const UCHAR*>(masks.Repeats) + 2 * block, sizeof(bits));
    return bits;
}

// The mask of a word from those of its four blocks.
FORCEINLINE ULONGLONG MASKS_JoinBlocks(ULONG first, ULONG second, ULONG third, ULONG fourth) {
    return first | second << BLOCK_PIXELS | static_cast<ULONGLONG>(third | fourth << BLOCK_PIXELS) << 32;
}

// Position in the stream while vectors write it. Passed by value so that it stays in registers: each group
// depends on the one before, and a dependency through memory would cost more than the rest of its work.
struct PACK_CURSOR {
    UCHAR* Next;
    ULONG Repeats; // of the run that the next pixel continues
};

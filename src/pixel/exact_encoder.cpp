#include "pixel/exact_encoder.h"

#include "driver/annotations.h"
#include "pixel/run_stream.h"

#include <tmmintrin.h>

namespace {

// The bits of a pixel that a literal keeps.
constexpr ULONG KEPT_BITS = 0xFEFFFF;

template <ULONG SourceBytes>
inline ULONG ReadKey(const UCHAR* source, ULONG index) {
    const UCHAR* pixel = source + SIZE_T{index} * SourceBytes;
    return (pixel[0] | static_cast<ULONG>(pixel[1]) << 8 | static_cast<ULONG>(pixel[2]) << 16) & KEPT_BITS;
}

// The pixel written last and how often it has come again since.
struct RUN {
    ULONG Key;
    ULONG Repeats;
};

template <ULONG SourceBytes>
void EncodePixels(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end) {
    for (ULONG index = first; index < end; index++) {
        const ULONG key = ReadKey<SourceBytes>(source, index);
        if (key == run->Key) {
            run->Repeats++;
        } else {
            COMPRESSION_EmitRepeat<3>(writer, run->Key, run->Repeats);
            STREAM_PutBytes<3>(writer, LiteralUnit<3>(key));
            *run = {key, 0};
        }
    }
}

// The stream goes out in whole 32-bit words; what the last word holds beyond the stream means nothing.
ULONGLONG FinishStream(UNIT_WRITER* writer, const RUN& run, const UCHAR* destination) {
    COMPRESSION_EmitRepeat<3>(writer, run.Key, run.Repeats);
    const SIZE_T length = (static_cast<SIZE_T>(writer->Cursor - destination) + 3) / 4 * 4;
    return writer->Overflow || length > static_cast<SIZE_T>(writer->End - destination) ? 0 : length;
}

template <ULONG SourceBytes>
ULONGLONG EncodeByPixel(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                        ULONG pixelCount) {
    if (pixelCount == 0) {
        return 0;
    }
    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = {~ReadKey<SourceBytes>(source, 0), 0};
    EncodePixels<SourceBytes>(&writer, &run, source, 0, pixelCount);
    return FinishStream(&writer, run, destination);
}

// Four pixels, in 32-bit lanes: a quad. As with 16-bit units (pixel/run_packer.h), the last pixel of a run
// writes its count, so that each pixel writes one unit or none, and no branch is needed. Bit i of a mask
// stands for pixel i: `repeats`, it equals the pixel before; `continued`, the pixel after it does so as well
// and it writes nothing.
constexpr ULONG QUAD_PIXELS = 4;
constexpr ULONG BLOCK_PIXELS = 2 * QUAD_PIXELS;
constexpr ULONG ALL_OF_BLOCK = 0xFF;
constexpr ULONG QUAD_MASK_COUNT = 16;

// How far past its cursor a quad stores.
constexpr ULONG OVERSHOOT = 16;

// What a quad writes and leaves, by the mask of continued repeats.
struct alignas(4) QUAD_STEP {
    UCHAR Bytes;
    UCHAR Open;   // repeats at its end that the next quad continues
    CHAR AllOpen; // -1: all four do, and the run before them with them; else 0
};

struct QUAD_TABLES {
    alignas(16) UCHAR
        PackShuffle[QUAD_MASK_COUNT][16]; // by continued: moves three bytes of each lane that writes
    alignas(16)
        ULONG Counts[QUAD_MASK_COUNT][QUAD_PIXELS]; // by repeats: the run up to and with each repeat, or 0
    QUAD_STEP Steps[QUAD_MASK_COUNT];
};

constexpr QUAD_TABLES BuildQuadTables() {
    QUAD_TABLES tables = {};
    for (ULONG mask = 0; mask < QUAD_MASK_COUNT; mask++) {
        QUAD_STEP& step = tables.Steps[mask];
        for (UCHAR& position : tables.PackShuffle[mask]) {
            position = 0x80;
        }
        ULONG run = 0;
        for (ULONG lane = 0; lane < QUAD_PIXELS; lane++) {
            run = mask >> lane & 1 ? run + 1 : 0;
            tables.Counts[mask][lane] = run;
            for (ULONG byte = 0; byte < 3 && run == 0; byte++) {
                tables.PackShuffle[mask][step.Bytes++] = static_cast<UCHAR>(lane * 4 + byte);
            }
        }
        step.Open = static_cast<UCHAR>(run);
        step.AllOpen = run == QUAD_PIXELS ? -1 : 0;
    }
    return tables;
}

constexpr QUAD_TABLES TABLES = BuildQuadTables();

TARGET_SSSE3 FORCEINLINE __m128i Load(const void* source) {
    return _mm_loadu_si128(static_cast<const __m128i*>(source));
}

// `PixelsRead` says how many pixels must be there for a block to be read.
struct BGRX32_SOURCE {
    static constexpr ULONG Bytes = 4;
    static constexpr ULONG PixelsRead = 8;
    TARGET_SSSE3 static FORCEINLINE __m128i ReadQuad(const UCHAR* source) { return Load(source); }
};

struct BGR24_SOURCE {
    static constexpr ULONG Bytes = 3;
    static constexpr ULONG PixelsRead = 10;
    TARGET_SSSE3 static FORCEINLINE __m128i ReadQuad(const UCHAR* source) {
        return _mm_shuffle_epi8(Load(source),
                                _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1));
    }
};

struct BLOCK {
    __m128i Low; // keys
    __m128i High;
};

template <typename Source>
TARGET_SSSE3 FORCEINLINE __m128i ReadKeys(const UCHAR* source) {
    return _mm_and_si128(Source::ReadQuad(source), _mm_set1_epi32(KEPT_BITS));
}

template <typename Source>
TARGET_SSSE3 FORCEINLINE BLOCK ReadBlock(const UCHAR* source) {
    return {ReadKeys<Source>(source), ReadKeys<Source>(source + QUAD_PIXELS * Source::Bytes)};
}

// The repeats in a block, in lanes and as a mask.
struct REPEATS {
    __m128i Low;
    __m128i High;
    ULONG Mask;
};

TARGET_SSSE3 FORCEINLINE ULONG LaneMask(__m128i lanes) {
    return static_cast<ULONG>(_mm_movemask_ps(_mm_castsi128_ps(lanes)));
}

// The last of the four keys in `before` precedes the block.
TARGET_SSSE3 FORCEINLINE REPEATS FindRepeats(__m128i before, const BLOCK& block) {
    const __m128i low = _mm_cmpeq_epi32(block.Low, _mm_alignr_epi8(block.Low, before, 12));
    const __m128i high = _mm_cmpeq_epi32(block.High, _mm_alignr_epi8(block.High, block.Low, 12));
    return {low, high, LaneMask(low) | LaneMask(high) << QUAD_PIXELS};
}

// The stream while vectors write it.
struct PACK_CURSOR {
    UCHAR* Next;
    ULONG Repeats; // of the run that the next pixel continues
};

TARGET_SSSE3 FORCEINLINE PACK_CURSOR PutQuad(PACK_CURSOR cursor, __m128i keys, __m128i repeatLanes,
                                             ULONG repeats, ULONG continued) {
    // The rounded average with 0xFF is half of red with the flag; that of equal bytes leaves blue and green
    // alone.
    const __m128i literals = _mm_avg_epu8(keys, _mm_or_si128(keys, _mm_set1_epi32(0xFF0000)));
    const __m128i counts = _mm_load_si128(reinterpret_cast<const __m128i*>(TABLES.Counts[repeats]));
    const __m128i units = _mm_or_si128(_mm_andnot_si128(repeatLanes, literals), counts);
    const __m128i shuffle = _mm_load_si128(reinterpret_cast<const __m128i*>(TABLES.PackShuffle[continued]));
    // An open run ends in the first unit of this quad, if it ends here at all.
    const __m128i packed =
        _mm_add_epi32(_mm_shuffle_epi8(units, shuffle), _mm_cvtsi32_si128(static_cast<LONG>(cursor.Repeats)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cursor.Next), packed);

    const QUAD_STEP& step = TABLES.Steps[continued];
    return {cursor.Next + step.Bytes, step.Open + (cursor.Repeats & static_cast<ULONG>(LONG{step.AllOpen}))};
}

// Writes the count of an open run unless the next pixel continues it.
FORCEINLINE PACK_CURSOR CloseRun(PACK_CURSOR cursor, ULONG nextRepeats) {
    const ULONG open = 0 - (nextRepeats & 1);
    RtlCopyMemory(cursor.Next, &cursor.Repeats, sizeof(cursor.Repeats));
    return {cursor.Next + (3 & ~open), cursor.Repeats & open};
}

// The number of repeats from `pixels` on: a block, which is known to be all repeats, and what follows it in
// steps of 16, such that another block can be read after it.
template <typename Source>
TARGET_SSSE3 FORCEINLINE ULONG CountRepeats(const UCHAR* pixels, ULONG left) {
    constexpr ULONG step = 2 * BLOCK_PIXELS;
    constexpr ULONG quadBytes = QUAD_PIXELS * Source::Bytes;
    const auto difference = [](const UCHAR* quad) TARGET_SSSE3 {
        return _mm_xor_si128(Source::ReadQuad(quad), Source::ReadQuad(quad - Source::Bytes));
    };
    ULONG count = BLOCK_PIXELS;
    for (; count + step + Source::PixelsRead <= left; count += step) {
        const UCHAR* quad = pixels + SIZE_T{count} * Source::Bytes;
        const __m128i low = _mm_or_si128(difference(quad), difference(quad + quadBytes));
        const __m128i high = _mm_or_si128(difference(quad + 2 * quadBytes), difference(quad + 3 * quadBytes));
        const __m128i kept = _mm_and_si128(_mm_or_si128(low, high), _mm_set1_epi32(KEPT_BITS));
        if (LaneMask(_mm_cmpeq_epi32(kept, _mm_setzero_si128())) != 0xF) {
            break;
        }
    }
    return count;
}

// Encodes from `source`, whose predecessors are readable, in whole blocks as long as another block follows.
// Returns the number of pixels encoded.
template <typename Source>
TARGET_SSSE3 FORCEINLINE ULONG EncodeBlocks(PACK_CURSOR* position, const UCHAR* source, ULONG pixelCount) {
    constexpr ULONG blockBytes = BLOCK_PIXELS * Source::Bytes;
    const auto keysBefore = [](const UCHAR* pixels) TARGET_SSSE3 {
        return ReadKeys<Source>(pixels - QUAD_PIXELS * Source::Bytes);
    };
    PACK_CURSOR cursor = *position;
    BLOCK block = ReadBlock<Source>(source);
    REPEATS repeats = FindRepeats(keysBefore(source), block);
    ULONG index = 0;
    while (pixelCount - index >= BLOCK_PIXELS + Source::PixelsRead) {
        const UCHAR* pixels = source + SIZE_T{index} * Source::Bytes;
        const BLOCK blockAfter = ReadBlock<Source>(pixels + blockBytes);
        const REPEATS after = FindRepeats(block.High, blockAfter);
        const ULONG continued = repeats.Mask & (repeats.Mask >> 1 | (after.Mask & 1) << (BLOCK_PIXELS - 1));
        // A run that goes on through the next block is worth leaving this path; a shorter one is not, because
        // the processor cannot foresee its end.
        if ((continued & after.Mask) == ALL_OF_BLOCK) {
            const ULONG flat = CountRepeats<Source>(pixels, pixelCount - index);
            cursor.Repeats += flat;
            index += flat;
            pixels += SIZE_T{flat} * Source::Bytes;
            block = ReadBlock<Source>(pixels);
            repeats = FindRepeats(keysBefore(pixels), block);
            cursor = CloseRun(cursor, repeats.Mask);
        } else {
            cursor = PutQuad(cursor, block.Low, repeats.Low, repeats.Mask & 0xF, continued & 0xF);
            cursor = PutQuad(cursor, block.High, repeats.High, repeats.Mask >> QUAD_PIXELS,
                             continued >> QUAD_PIXELS);
            block = blockAfter;
            repeats = after;
            index += BLOCK_PIXELS;
        }
    }
    *position = cursor;
    return index;
}

template <typename Source>
TARGET_SSSE3 ULONGLONG EncodeByBlocks(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                      ULONG pixelCount) {
    // Quads are written without asking for room: at most one unit stands for each pixel. Nor does a count
    // outgrow its unit in a frame of so many pixels.
    const SIZE_T room = static_cast<SIZE_T>(destinationEnd - destination);
    if (room < SIZE_T{pixelCount} * 3 + OVERSHOOT || pixelCount > MaxRepeatCount(3) ||
        pixelCount < BLOCK_PIXELS + Source::PixelsRead) {
        return EncodeByPixel<Source::Bytes>(source, destination, destinationEnd, pixelCount);
    }

    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = {~ReadKey<Source::Bytes>(source, 0), 0};
    EncodePixels<Source::Bytes>(&writer, &run, source, 0, BLOCK_PIXELS);
    // Vectors write a run with its last pixel; one that has ended already is not theirs.
    if (ReadKey<Source::Bytes>(source, BLOCK_PIXELS) != run.Key) {
        COMPRESSION_EmitRepeat<3>(&writer, run.Key, run.Repeats);
        run.Repeats = 0;
    }
    PACK_CURSOR cursor = {writer.Cursor, run.Repeats};
    const ULONG done = BLOCK_PIXELS + EncodeBlocks<Source>(&cursor, source + BLOCK_PIXELS * Source::Bytes,
                                                           pixelCount - BLOCK_PIXELS);
    writer.Cursor = cursor.Next;
    run = {ReadKey<Source::Bytes>(source, done - 1), cursor.Repeats};
    EncodePixels<Source::Bytes>(&writer, &run, source, done, pixelCount);
    return FinishStream(&writer, run, destination);
}

} // namespace

ULONGLONG COMPRESSION_EncodeBgr24Exact(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                       ULONG pixelCount) {
    return EncodeByPixel<3>(source, destination, destinationEnd, pixelCount);
}

ULONGLONG COMPRESSION_EncodeBgrx32Exact(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                        ULONG pixelCount) {
    return EncodeByPixel<4>(source, destination, destinationEnd, pixelCount);
}

ULONGLONG COMPRESSION_EncodeBgr24ExactBlocks(const UCHAR* source, UCHAR* destination,
                                             const UCHAR* destinationEnd, ULONG pixelCount) {
    return EncodeByBlocks<BGR24_SOURCE>(source, destination, destinationEnd, pixelCount);
}

ULONGLONG COMPRESSION_EncodeBgrx32ExactBlocks(const UCHAR* source, UCHAR* destination,
                                              const UCHAR* destinationEnd, ULONG pixelCount) {
    return EncodeByBlocks<BGRX32_SOURCE>(source, destination, destinationEnd, pixelCount);
}

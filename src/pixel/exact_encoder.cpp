#include "pixel/exact_encoder.h"

#include "pixel/run_masks.h"
#include "pixel/run_stream.h"

#include <intrin.h>
#include <tmmintrin.h>

namespace {

// A literal keeps these bits of a pixel.
constexpr ULONG KEPT_BITS = 0xFEFFFF;

template <ULONG SourceBytes>
inline ULONG ReadKey(const UCHAR* source, ULONG index) {
    const UCHAR* pixel = source + SIZE_T{index} * SourceBytes;
    return (pixel[0] | static_cast<ULONG>(pixel[1]) << 8 | static_cast<ULONG>(pixel[2]) << 16) & KEPT_BITS;
}

// The pixel written last and its repeats that are not written yet.
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

// The stream is sent in whole 32-bit words; the adapter ignores the bytes of the last word beyond the stream.
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
    UNIT_WRITER writer = {destination, destinationEnd, FALSE};
    RUN run = {~ReadKey<SourceBytes>(source, 0), 0};
    EncodePixels<SourceBytes>(&writer, &run, source, 0, pixelCount);
    return FinishStream(&writer, run, destination);
}

// A quad is four pixels in 32-bit lanes. It is written without a branch, by a table. The index is a mask of
// the repeats among its pixels and, in bit 4, the pixel after them (pixel/run_masks.h).
constexpr ULONG QUAD_PIXELS = 4;
constexpr ULONG QUAD_MASK_COUNT = 32;

// A quad stores this many bytes at its cursor, whatever it writes.
constexpr ULONG QUAD_STORE_BYTES = 16;

struct alignas(32) QUAD_ROW {
    UCHAR Shuffle[16]; // packs three bytes of each lane that writes a literal; 0 in place of counts
    UCHAR Counts[12];  // in place of each count, the length of the run that ends there
    // Loaded into the last lane of the counts, which no quad writes: it writes twelve bytes at most.
    UCHAR Bytes;  // length of what the quad writes
    UCHAR Open;   // repeats at its end that the next quad continues
    CHAR AllOpen; // -1: the whole quad continues the run before it; else 0
};

struct QUAD_TABLE {
    QUAD_ROW Rows[QUAD_MASK_COUNT];
};

constexpr QUAD_TABLE BuildQuadTable() {
    constexpr UCHAR nothing = 0x80;
    QUAD_TABLE table = {};
    for (ULONG mask = 0; mask < QUAD_MASK_COUNT; mask++) {
        QUAD_ROW& row = table.Rows[mask];
        for (UCHAR& position : row.Shuffle) {
            position = nothing;
        }
        ULONG run = 0;
        for (ULONG lane = 0; lane < QUAD_PIXELS; lane++) {
            const bool repeats = mask >> lane & 1;
            const bool continues = repeats && (mask >> (lane + 1) & 1);
            run = repeats ? run + 1 : 0;
            if (continues) {
                continue;
            }
            if (repeats) {
                row.Counts[row.Bytes] = static_cast<UCHAR>(run);
                run = 0;
            } else {
                for (ULONG byte = 0; byte < 3; byte++) {
                    row.Shuffle[row.Bytes + byte] = static_cast<UCHAR>(lane * 4 + byte);
                }
            }
            row.Bytes += 3;
        }
        row.Open = static_cast<UCHAR>(run);
        row.AllOpen = run == QUAD_PIXELS ? -1 : 0;
    }
    return table;
}

constexpr QUAD_TABLE TABLE = BuildQuadTable();

TARGET_SSSE3 FORCEINLINE __m128i Load(const void* source) {
    return _mm_loadu_si128(static_cast<const __m128i*>(source));
}

// Where the pixels come from. To read a word of them, `PixelsRead` pixels must be readable.
struct BGRX32_SOURCE {
    static constexpr ULONG Bytes = 4;
    static constexpr ULONG PixelsRead = WORD_PIXELS;
    TARGET_SSSE3 static FORCEINLINE __m128i ReadQuad(const UCHAR* source) { return Load(source); }
};

struct BGR24_SOURCE {
    static constexpr ULONG Bytes = 3;
    static constexpr ULONG PixelsRead = WORD_PIXELS + 2; // the load of the last quad reads four bytes more
    TARGET_SSSE3 static FORCEINLINE __m128i ReadQuad(const UCHAR* source) {
        return _mm_shuffle_epi8(Load(source),
                                _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1));
    }
};

// All ones in the lanes of pixels that equal their predecessors.
template <typename Source>
TARGET_SSSE3 FORCEINLINE __m128i CompareQuad(const UCHAR* source) {
    const __m128i difference =
        _mm_xor_si128(Source::ReadQuad(source), Source::ReadQuad(source - Source::Bytes));
    return _mm_cmpeq_epi32(_mm_and_si128(difference, _mm_set1_epi32(KEPT_BITS)), _mm_setzero_si128());
}

template <typename Source>
TARGET_SSSE3 FORCEINLINE ULONG CompareBlock(const UCHAR* source) {
    constexpr ULONG quadBytes = QUAD_PIXELS * Source::Bytes;
    const __m128i low = _mm_packs_epi32(CompareQuad<Source>(source), CompareQuad<Source>(source + quadBytes));
    const __m128i high = _mm_packs_epi32(CompareQuad<Source>(source + 2 * quadBytes),
                                         CompareQuad<Source>(source + 3 * quadBytes));
    return static_cast<ULONG>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

template <typename Source>
TARGET_SSSE3 FORCEINLINE ULONGLONG FindRepeats(const UCHAR* source) {
    constexpr ULONG blockBytes = BLOCK_PIXELS * Source::Bytes;
    return MASKS_JoinBlocks(CompareBlock<Source>(source), CompareBlock<Source>(source + blockBytes),
                            CompareBlock<Source>(source + 2 * blockBytes),
                            CompareBlock<Source>(source + 3 * blockBytes));
}

TARGET_SSSE3 FORCEINLINE PACK_CURSOR PutQuad(PACK_CURSOR cursor, __m128i pixels, ULONG mask) {
    const QUAD_ROW& row = TABLE.Rows[mask];
    // The rounded average of red and 0xFF is red / 2 with the literal flag; blue and green are averaged with
    // themselves and do not change.
    const __m128i literals = _mm_avg_epu8(pixels, _mm_or_si128(pixels, _mm_set1_epi32(0xFF0000)));
    const __m128i shuffle = _mm_load_si128(reinterpret_cast<const __m128i*>(row.Shuffle));
    const __m128i counts = _mm_load_si128(reinterpret_cast<const __m128i*>(row.Counts));
    // If an open run ends in this quad, its count is the quad's first unit.
    const __m128i before = _mm_cvtsi32_si128(static_cast<LONG>(cursor.Repeats));
    const __m128i packed = _mm_add_epi32(_mm_or_si128(_mm_shuffle_epi8(literals, shuffle), counts), before);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cursor.Next), packed);
    return {cursor.Next + row.Bytes, row.Open + (cursor.Repeats & static_cast<ULONG>(LONG{row.AllOpen}))};
}

template <typename Source>
TARGET_SSSE3 FORCEINLINE PACK_CURSOR PutBlock(PACK_CURSOR cursor, const UCHAR* pixels, ULONG repeats) {
    constexpr ULONG quadBytes = QUAD_PIXELS * Source::Bytes;
    cursor = PutQuad(cursor, Source::ReadQuad(pixels), repeats & 0x1F);
    cursor = PutQuad(cursor, Source::ReadQuad(pixels + quadBytes), repeats >> 4 & 0x1F);
    cursor = PutQuad(cursor, Source::ReadQuad(pixels + 2 * quadBytes), repeats >> 8 & 0x1F);
    return PutQuad(cursor, Source::ReadQuad(pixels + 3 * quadBytes), repeats >> 12 & 0x1F);
}

template <typename Source>
TARGET_SSSE3 FORCEINLINE PACK_CURSOR PutStrip(PACK_CURSOR cursor, const UCHAR* strip, const RUN_MASKS& masks,
                                              ULONG words) {
    ULONG done = 0;
    ULONG block = 0;
    for (ULONGLONG left = masks.WritingBlocks; _BitScanForward64(&block, left); left &= left - 1) {
        cursor.Repeats += (block - done) * BLOCK_PIXELS;
        done = block + 1;
        cursor = PutBlock<Source>(cursor, strip + SIZE_T{block} * BLOCK_PIXELS * Source::Bytes,
                                  MASKS_BlockRepeats(masks, block));
    }
    cursor.Repeats += (words * WORD_BLOCKS - done) * BLOCK_PIXELS;
    return cursor;
}

// Encodes strips from `index` on, whose predecessor is readable, until less than a word is left. Returns the
// pixel it stopped at.
template <typename Source>
TARGET_SSSE3 ULONG EncodeStrips(PACK_CURSOR* position, const UCHAR* source, ULONG index, ULONG pixelCount) {
    constexpr ULONG beyondWord = Source::PixelsRead - WORD_PIXELS;
    PACK_CURSOR cursor = *position;
    while (pixelCount - index > beyondWord) {
        const ULONG words = MASKS_CountWords(pixelCount - index - beyondWord);
        if (words == 0) {
            break;
        }
        const UCHAR* strip = source + SIZE_T{index} * Source::Bytes;
        RUN_MASKS masks;
        for (ULONG word = 0; word < words; word++) {
            masks.Repeats[word] = FindRepeats<Source>(strip + SIZE_T{word} * WORD_PIXELS * Source::Bytes);
        }
        index += words * WORD_PIXELS;
        MASKS_Complete(&masks, words,
                       ReadKey<Source::Bytes>(source, index) == ReadKey<Source::Bytes>(source, index - 1));
        cursor = PutStrip<Source>(cursor, strip, masks, words);
    }
    *position = cursor;
    return index;
}

template <typename Source>
TARGET_SSSE3 ULONGLONG EncodeByStrips(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                      ULONG pixelCount) {
    // Quads are written without bounds checks: the room suffices for one unit per pixel, which is the most
    // they write, and no count in a frame of at most MaxRepeatCount(3) pixels exceeds its unit.
    constexpr ULONG first = 2 * QUAD_PIXELS;
    const SIZE_T room = static_cast<SIZE_T>(destinationEnd - destination);
    if (room < SIZE_T{pixelCount} * 3 + QUAD_STORE_BYTES || pixelCount > MaxRepeatCount(3) ||
        pixelCount <= first) {
        return EncodeByPixel<Source::Bytes>(source, destination, destinationEnd, pixelCount);
    }

    UNIT_WRITER writer = {destination, destinationEnd, FALSE};
    RUN run = {~ReadKey<Source::Bytes>(source, 0), 0};
    EncodePixels<Source::Bytes>(&writer, &run, source, 0, first);
    // The vector form writes a run at its last pixel; a run that has ended already is written here.
    if (ReadKey<Source::Bytes>(source, first) != run.Key) {
        COMPRESSION_EmitRepeat<3>(&writer, run.Key, run.Repeats);
        run.Repeats = 0;
    }
    PACK_CURSOR cursor = {writer.Cursor, run.Repeats};
    const ULONG done = EncodeStrips<Source>(&cursor, source, first, pixelCount);
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
    return EncodeByStrips<BGR24_SOURCE>(source, destination, destinationEnd, pixelCount);
}

ULONGLONG COMPRESSION_EncodeBgrx32ExactBlocks(const UCHAR* source, UCHAR* destination,
                                              const UCHAR* destinationEnd, ULONG pixelCount) {
    return EncodeByStrips<BGRX32_SOURCE>(source, destination, destinationEnd, pixelCount);
}

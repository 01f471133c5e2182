#include "pixel/group_encoder.h"

#include "driver/device_context.h"
#include "pixel/run_packer.h"
#include "pixel/run_stream.h"

#include <smmintrin.h>

namespace {

constexpr ULONG LITERAL_FLAG = 0x8000;

// A run longer than this is broken by a literal in the middle of the next group that would only lengthen it,
// so that every count fits 15 bits.
constexpr ULONG LONGEST_OPEN_RUN = 32752;
constexpr ULONG BREAKING_LANE = 4;

// Consecutive frames under 80 % of the target after which the level becomes finer by one.
constexpr ULONG SMALL_FRAMES_FOR_FINER_LEVEL = 120;

struct QUANTISATION {
    USHORT Mask; // bits kept
    USHORT Fill; // bits set
};

// Each level gives up one more bit of a channel; the bits set instead keep a cleared channel off its darkest
// value.
constexpr QUANTISATION QUANTISATIONS[QUANT_LEVEL_COUNT] = {
    {0x7FFF, 0x0001}, {0x7FFE, 0x0001}, {0x7BFE, 0x0001}, {0x7BDE, 0x0001},
    {0x7BDC, 0x0021}, {0x73DC, 0x0021}, {0x739C, 0x0021}, {0x7398, 0x0021},
    {0x6398, 0x0421}, {0x6318, 0x0421}, {0x6310, 0x0421}, {0x4310, 0x0421},
    {0x4210, 0x0421}, {0x4200, 0x0421}, {0x0200, 0x0421}, {0x0000, 0x0421},
};

inline ULONG ReadRaw(const UCHAR* source, ULONG index) {
    const UCHAR* pixel = source + SIZE_T{index} * 2;
    return pixel[0] | static_cast<ULONG>(pixel[1]) << 8;
}

// A pixel as it stands in the stream: quantised, with the literal flag.
inline ULONG ReadWord(const UCHAR* source, ULONG index, const QUANTISATION& quantisation) {
    return (ReadRaw(source, index) & quantisation.Mask) | quantisation.Fill | LITERAL_FLAG;
}

// The word written last and the repeats of it that are not written yet.
struct RUN {
    ULONG Word;
    ULONG Repeats;
};

// One repeat costs a word either way and is written as the literal.
inline void PutRun(UNIT_WRITER* writer, const RUN& run) {
    if (run.Repeats > 0) {
        STREAM_PutBytes<2>(writer, run.Repeats == 1 ? run.Word : run.Repeats);
    }
}

bool MustBreakRun(const RUN& run, const UCHAR* source, ULONG first, ULONG count,
                  const QUANTISATION& quantisation) {
    if (run.Repeats <= LONGEST_OPEN_RUN || count < GROUP_PIXELS) {
        return false;
    }
    for (ULONG lane = 0; lane < count; lane++) {
        if (ReadWord(source, first + lane, quantisation) != run.Word) {
            return false;
        }
    }
    return true;
}

// Pixels from `first`, the start of a group, to `end`. The last group of a frame may be incomplete.
void EncodePixels(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end,
                  const QUANTISATION& quantisation) {
    for (ULONG group = first; group < end; group += GROUP_PIXELS) {
        const ULONG count = end - group < GROUP_PIXELS ? end - group : GROUP_PIXELS;
        const ULONG breakingLane =
            MustBreakRun(*run, source, group, count, quantisation) ? BREAKING_LANE : GROUP_PIXELS;
        for (ULONG lane = 0; lane < count; lane++) {
            const ULONG word = ReadWord(source, group + lane, quantisation);
            if (word == run->Word && lane != breakingLane) {
                run->Repeats++;
            } else {
                PutRun(writer, *run);
                STREAM_PutBytes<2>(writer, word);
                *run = {word, 0};
            }
        }
    }
}

// The stream ends with a literal: the last repeat is written as one.
ULONGLONG FinishStream(UNIT_WRITER* writer, const RUN& run, const UCHAR* destination) {
    if (run.Repeats > 0) {
        PutRun(writer, {run.Word, run.Repeats - 1});
        STREAM_PutBytes<2>(writer, run.Word);
    }
    return writer->Overflow ? 0 : static_cast<ULONGLONG>(writer->Cursor - destination);
}

// Never equal to the first pixel's word, so that the stream starts with a literal.
RUN StartStream(const UCHAR* source) {
    return {~ReadRaw(source, 0) & 0xFFFF, 0};
}

// A short stream below 80 % of the target counts towards a finer level; one between that and the target ends
// the series.
void NoteFrameWithinTarget(PIXEL_CONTEXT* pixel, ULONGLONG length, ULONG targetSize) {
    if (pixel->QuantLevel == 0) {
        return;
    }
    if (length * 5 >= ULONGLONG{targetSize} * 4) {
        pixel->QuantSmallFrameCount = 0;
    } else if (++pixel->QuantSmallFrameCount > SMALL_FRAMES_FOR_FINER_LEVEL) {
        pixel->QuantLevel--;
        pixel->QuantSmallFrameCount = 0;
    }
}

// The quantisation of one frame in all lanes.
struct QUANTISER {
    __m128i Mask;
    __m128i Fill;     // with the literal flag
    __m128i Compared; // the bits in which two quantised pixels can differ
};

TARGET_SSE41 FORCEINLINE __m128i Load(const void* source) {
    return _mm_loadu_si128(static_cast<const __m128i*>(source));
}

TARGET_SSE41 FORCEINLINE QUANTISER CreateQuantiser(const GROUP_TABLES& tables, ULONG level) {
    const __m128i mask = Load(tables.QuantMask[level]);
    const __m128i fill = Load(tables.QuantFill[level]);
    const __m128i flag = _mm_set1_epi16(static_cast<SHORT>(LITERAL_FLAG));
    return {mask, _mm_or_si128(fill, flag), _mm_andnot_si128(fill, mask)};
}

// Eight pixels as they stand in the stream.
TARGET_SSE41 FORCEINLINE __m128i Quantise(const QUANTISER& quantiser, const UCHAR* source) {
    return _mm_or_si128(_mm_and_si128(Load(source), quantiser.Mask), quantiser.Fill);
}

struct BLOCK {
    __m128i Low;
    __m128i High;
};

TARGET_SSE41 FORCEINLINE BLOCK ReadBlock(const QUANTISER& quantiser, const UCHAR* source) {
    return {Quantise(quantiser, source), Quantise(quantiser, source + 16)};
}

// The repeats in a block. The last of the eight pixels in `before` precedes it.
TARGET_SSE41 FORCEINLINE ULONG FindRepeats(__m128i before, const BLOCK& block) {
    const __m128i low = _mm_cmpeq_epi16(block.Low, _mm_alignr_epi8(block.Low, before, 14));
    const __m128i high = _mm_cmpeq_epi16(block.High, _mm_alignr_epi8(block.High, block.Low, 14));
    return static_cast<ULONG>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

// The bits in which eight pixels differ from their predecessors, before quantisation.
TARGET_SSE41 FORCEINLINE __m128i Difference(const UCHAR* source) {
    return _mm_xor_si128(Load(source), Load(source - 2));
}

// The number of repeats from `source` on: a block, which is known to be all repeats, and what follows it in
// steps of 32, at most `limit`.
TARGET_SSE41 FORCEINLINE ULONG CountRepeats(const QUANTISER& quantiser, const UCHAR* source, ULONG limit) {
    ULONG count = BLOCK_PIXELS;
    for (; count + 32 <= limit; count += 32) {
        const UCHAR* pixels = source + SIZE_T{count} * 2;
        const __m128i low = _mm_or_si128(Difference(pixels), Difference(pixels + 16));
        const __m128i high = _mm_or_si128(Difference(pixels + 32), Difference(pixels + 48));
        if (!_mm_testz_si128(_mm_or_si128(low, high), quantiser.Compared)) {
            break;
        }
    }
    return count;
}

// Encodes from `pixels`, whose predecessor is readable, in whole blocks as long as another block follows and
// no run has to be broken. Returns the pixel it stopped at.
TARGET_SSE41 const UCHAR* EncodeBlocks(const QUANTISER& quantiser, const RUN_PACKER& packer,
                                       PACK_CURSOR* position, const UCHAR* pixels, const UCHAR* end) {
    PACK_CURSOR cursor = *position;
    BLOCK block = ReadBlock(quantiser, pixels);
    ULONG repeats = FindRepeats(Quantise(quantiser, pixels - GROUP_BYTES), block);
    ULONG repeatBefore = cursor.Repeats != 0;
    while (end - pixels >= 2 * BLOCK_BYTES && cursor.Repeats <= LONGEST_OPEN_RUN - GROUP_PIXELS) {
        const BLOCK blockAfter = ReadBlock(quantiser, pixels + BLOCK_BYTES);
        const ULONG repeatsAfter = FindRepeats(block.High, blockAfter);
        const ULONG continued = PACKER_FindContinued(repeats, repeatsAfter);
        // A run that goes on through the next block is worth leaving this path; a shorter one is not, because
        // the processor cannot foresee its end.
        if ((continued & repeatsAfter) == ALL_OF_BLOCK) {
            const ULONG left = static_cast<ULONG>(end - pixels - BLOCK_BYTES) / 2;
            const ULONG open = LONGEST_OPEN_RUN - cursor.Repeats;
            const ULONG flat = CountRepeats(quantiser, pixels, left < open ? left : open);
            cursor.Repeats += flat;
            pixels += SIZE_T{flat} * 2;
            block = ReadBlock(quantiser, pixels);
            repeats = FindRepeats(Quantise(quantiser, pixels - GROUP_BYTES), block);
            cursor = PACKER_CloseRun(cursor, repeats);
            repeatBefore = 1;
        } else {
            // One repeat alone is a literal.
            const ULONG lone = repeats & ~(repeats << 1 | repeatBefore) & ~continued;
            cursor = PACKER_PutBlock(packer, cursor, block.Low, block.High, repeats & ~lone, continued);
            repeatBefore = repeats >> (BLOCK_PIXELS - 1);
            pixels += BLOCK_BYTES;
            block = blockAfter;
            repeats = repeatsAfter;
        }
    }
    *position = cursor;
    return pixels;
}

} // namespace

void COMPRESSION_BuildGroupTables(DEVICE_CONTEXT* context) {
    PIXEL_CONTEXT& pixel = context->Pixel;
    PACKER_BuildTables(&pixel);
    for (ULONG level = 0; level < QUANT_LEVEL_COUNT; level++) {
        for (ULONG lane = 0; lane < GROUP_PIXELS; lane++) {
            pixel.Tables.QuantMask[level][lane] = QUANTISATIONS[level].Mask;
            pixel.Tables.QuantFill[level][lane] = QUANTISATIONS[level].Fill;
        }
    }
    pixel.GroupTablesReady = TRUE;
}

ULONGLONG COMPRESSION_EncodeGroupsByPixel(const UCHAR* source, UCHAR* destination,
                                          const UCHAR* destinationEnd, ULONG pixelCount, ULONG level) {
    if (pixelCount == 0) {
        return 0;
    }
    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = StartStream(source);
    EncodePixels(&writer, &run, source, 0, pixelCount, QUANTISATIONS[level]);
    return FinishStream(&writer, run, destination);
}

TARGET_SSE41 ULONGLONG COMPRESSION_EncodeGroupsByTable(const DEVICE_CONTEXT* context, const UCHAR* source,
                                                       UCHAR* destination, const UCHAR* destinationEnd,
                                                       ULONG pixelCount, ULONG level) {
    // Groups are written without asking for room: at most one word stands for each pixel.
    const SIZE_T room = static_cast<SIZE_T>(destinationEnd - destination);
    if (room < SIZE_T{pixelCount} * 2 + PACKER_OVERSHOOT || pixelCount < GROUP_PIXELS) {
        return COMPRESSION_EncodeGroupsByPixel(source, destination, destinationEnd, pixelCount, level);
    }

    const QUANTISATION& quantisation = QUANTISATIONS[level];
    const QUANTISER quantiser = CreateQuantiser(context->Pixel.Tables, level);
    const RUN_PACKER packer = PACKER_Create(context->Pixel);
    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = StartStream(source);
    EncodePixels(&writer, &run, source, 0, GROUP_PIXELS, quantisation);
    ULONG index = GROUP_PIXELS;
    while (pixelCount - index >= 2 * BLOCK_PIXELS) {
        // Vectors write a run with its last pixel; one that has ended already is not theirs.
        if (ReadWord(source, index, quantisation) != run.Word) {
            PutRun(&writer, run);
            run.Repeats = 0;
        }
        PACK_CURSOR cursor = {writer.Cursor, run.Repeats};
        const UCHAR* pixels = EncodeBlocks(quantiser, packer, &cursor, source + SIZE_T{index} * 2,
                                           source + SIZE_T{pixelCount} * 2);
        index = static_cast<ULONG>((pixels - source) / 2);
        writer.Cursor = cursor.Next;
        run = {ReadWord(source, index - 1, quantisation), cursor.Repeats};
        if (pixelCount - index >= 2 * BLOCK_PIXELS) {
            // They stopped before a run that may have to be broken.
            EncodePixels(&writer, &run, source, index, index + BLOCK_PIXELS, quantisation);
            index += BLOCK_PIXELS;
        }
    }
    EncodePixels(&writer, &run, source, index, pixelCount, quantisation);
    return FinishStream(&writer, run, destination);
}

ULONGLONG COMPRESSION_EncodeRgb555Groups(DEVICE_CONTEXT* context, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize) {
    PIXEL_CONTEXT& pixel = context->Pixel;
    if (!pixel.GroupTablesReady) {
        COMPRESSION_BuildGroupTables(context);
    }
    if (pixelCount == 0) {
        return 0;
    }
    for (;;) {
        // A stream that does not fit is too long, whatever the target.
        const ULONGLONG length = COMPRESSION_EncodeGroupsByTable(context, source, destination, destinationEnd,
                                                                 pixelCount, pixel.QuantLevel);
        if (length != 0 && length <= targetSize) {
            NoteFrameWithinTarget(&pixel, length, targetSize);
            return length;
        }
        if (pixel.QuantLevel >= QUANT_LEVEL_COARSEST) {
            return length;
        }
        pixel.QuantLevel += (QUANT_LEVEL_COARSEST + 1 - pixel.QuantLevel) / 2;
    }
}

#include "pixel/group_encoder.h"

#include "device/device_context.h"
#include "pixel/reduce_ssse3.h"
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

TARGET_SSE41 FORCEINLINE __m128i Load(const void* source) {
    return _mm_loadu_si128(static_cast<const __m128i*>(source));
}

// Where the RGB555 pixels come from. `ReadOctet` gives eight of them, and `FindRepeats` says which pixels of
// a block equal the one before in all bits of `compared`, which is what `SpreadBits` makes of bits of an
// RGB555 pixel.
struct RGB555_SOURCE {
    static constexpr ULONG Bytes = 2;
    static ULONG ReadPixel(const UCHAR* pixel) { return pixel[0] | static_cast<ULONG>(pixel[1]) << 8; }
    TARGET_SSE41 static FORCEINLINE __m128i ReadOctet(const UCHAR* source) { return Load(source); }

    TARGET_SSE41 static FORCEINLINE __m128i SpreadBits(ULONG bits) {
        return _mm_set1_epi16(static_cast<SHORT>(bits));
    }
    TARGET_SSE41 static FORCEINLINE ULONG FindRepeats(const UCHAR* source, __m128i compared) {
        const __m128i both =
            _mm_packs_epi16(CompareOctet(source, compared), CompareOctet(source + GROUP_BYTES, compared));
        return static_cast<ULONG>(_mm_movemask_epi8(both));
    }

  private:
    TARGET_SSE41 static FORCEINLINE __m128i CompareOctet(const UCHAR* source, __m128i compared) {
        const __m128i difference = _mm_xor_si128(Load(source), Load(source - Bytes));
        return _mm_cmpeq_epi16(_mm_and_si128(difference, compared), _mm_setzero_si128());
    }
};

// RGB555 keeps high bits, so pixels are compared as they are and only those that are written are reduced.
struct BGRX32_SOURCE {
    static constexpr ULONG Bytes = 4;
    static ULONG ReadPixel(const UCHAR* pixel) {
        return static_cast<ULONG>(pixel[2] >> 3) << 10 | static_cast<ULONG>(pixel[1] >> 3) << 5 |
               pixel[0] >> 3;
    }
    TARGET_SSE41 static FORCEINLINE __m128i ReadOctet(const UCHAR* source) {
        return ReduceOctet<REDUCE_TO_RGB555>(Load(source), Load(source + 16));
    }

    TARGET_SSE41 static FORCEINLINE __m128i SpreadBits(ULONG bits) {
        return _mm_set1_epi32(
            static_cast<LONG>((bits & 0x7C00) << 9 | (bits & 0x03E0) << 6 | (bits & 0x001F) << 3));
    }
    TARGET_SSE41 static FORCEINLINE ULONG FindRepeats(const UCHAR* source, __m128i compared) {
        const __m128i low =
            _mm_packs_epi32(CompareQuad(source, compared), CompareQuad(source + 16, compared));
        const __m128i high =
            _mm_packs_epi32(CompareQuad(source + 32, compared), CompareQuad(source + 48, compared));
        return static_cast<ULONG>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
    }

  private:
    TARGET_SSE41 static FORCEINLINE __m128i CompareQuad(const UCHAR* source, __m128i compared) {
        const __m128i difference = _mm_xor_si128(Load(source), Load(source - Bytes));
        return _mm_cmpeq_epi32(_mm_and_si128(difference, compared), _mm_setzero_si128());
    }
};

template <typename Source>
inline ULONG ReadRaw(const UCHAR* source, ULONG index) {
    return Source::ReadPixel(source + SIZE_T{index} * Source::Bytes);
}

// A pixel as it stands in the stream: quantised, with the literal flag.
template <typename Source>
inline ULONG ReadWord(const UCHAR* source, ULONG index, const QUANTISATION& quantisation) {
    return (ReadRaw<Source>(source, index) & quantisation.Mask) | quantisation.Fill | LITERAL_FLAG;
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

template <typename Source>
bool MustBreakRun(const RUN& run, const UCHAR* source, ULONG first, ULONG count,
                  const QUANTISATION& quantisation) {
    if (run.Repeats <= LONGEST_OPEN_RUN || count < GROUP_PIXELS) {
        return false;
    }
    for (ULONG lane = 0; lane < count; lane++) {
        if (ReadWord<Source>(source, first + lane, quantisation) != run.Word) {
            return false;
        }
    }
    return true;
}

// Pixels from `first`, the start of a group, to `end`. The last group of a frame may be incomplete.
template <typename Source>
void EncodePixels(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end,
                  const QUANTISATION& quantisation) {
    for (ULONG group = first; group < end; group += GROUP_PIXELS) {
        const ULONG count = end - group < GROUP_PIXELS ? end - group : GROUP_PIXELS;
        const ULONG breakingLane =
            MustBreakRun<Source>(*run, source, group, count, quantisation) ? BREAKING_LANE : GROUP_PIXELS;
        for (ULONG lane = 0; lane < count; lane++) {
            const ULONG word = ReadWord<Source>(source, group + lane, quantisation);
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
template <typename Source>
RUN StartStream(const UCHAR* source) {
    return {~ReadRaw<Source>(source, 0) & 0xFFFF, 0};
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
    __m128i Compared; // the bits in which two quantised pixels can differ, as the source spreads them
};

template <typename Source>
TARGET_SSE41 FORCEINLINE QUANTISER CreateQuantiser(const GROUP_TABLES& tables, ULONG level) {
    const QUANTISATION& quantisation = QUANTISATIONS[level];
    const __m128i flag = _mm_set1_epi16(static_cast<SHORT>(LITERAL_FLAG));
    return {Load(tables.QuantMask[level]), _mm_or_si128(Load(tables.QuantFill[level]), flag),
            Source::SpreadBits(quantisation.Mask & ~quantisation.Fill)};
}

// Eight pixels as they stand in the stream.
template <typename Source>
TARGET_SSE41 FORCEINLINE __m128i Quantise(const QUANTISER& quantiser, const UCHAR* source) {
    return _mm_or_si128(_mm_and_si128(Source::ReadOctet(source), quantiser.Mask), quantiser.Fill);
}

// The pixels of a word that equal the one before.
template <typename Source>
TARGET_SSE41 FORCEINLINE ULONGLONG FindRepeats(const UCHAR* source, __m128i compared) {
    constexpr ULONG blockBytes = BLOCK_PIXELS * Source::Bytes;
    return MASKS_JoinBlocks(Source::FindRepeats(source, compared),
                            Source::FindRepeats(source + blockBytes, compared),
                            Source::FindRepeats(source + 2 * blockBytes, compared),
                            Source::FindRepeats(source + 3 * blockBytes, compared));
}

// Encodes strips from `index` on, whose predecessor is readable, until less than a word is left or a run may
// have to be broken. Returns the pixel it stopped at.
template <typename Source>
TARGET_SSE41 ULONG EncodeStrips(const QUANTISATION& quantisation, const QUANTISER& quantiser,
                                const RUN_PACKER& packer, PACK_CURSOR* position, const UCHAR* source,
                                ULONG index, ULONG pixelCount) {
    PACK_CURSOR cursor = *position;
    for (;;) {
        const ULONG words = MASKS_CountWords(pixelCount - index);
        if (words == 0 || cursor.Repeats > LONGEST_OPEN_RUN - STRIP_PIXELS) {
            break;
        }
        const UCHAR* strip = source + SIZE_T{index} * Source::Bytes;
        RUN_MASKS masks;
        for (ULONG word = 0; word < words; word++) {
            masks.Repeats[word] =
                FindRepeats<Source>(strip + SIZE_T{word} * WORD_PIXELS * Source::Bytes, quantiser.Compared);
        }
        index += words * WORD_PIXELS;
        MASKS_Complete(&masks, words,
                       ReadWord<Source>(source, index, quantisation) ==
                           ReadWord<Source>(source, index - 1, quantisation));
        MASKS_ClearLone(&masks, words, cursor.Repeats != 0);
        cursor = PACKER_PutStrip(packer, cursor, masks, words, [&](ULONG group) TARGET_SSE41 {
            return Quantise<Source>(quantiser, strip + SIZE_T{group} * GROUP_PIXELS * Source::Bytes);
        });
    }
    *position = cursor;
    return index;
}

template <typename Source>
ULONGLONG EncodeByPixel(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                        ULONG pixelCount, ULONG level) {
    if (pixelCount == 0) {
        return 0;
    }
    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = StartStream<Source>(source);
    EncodePixels<Source>(&writer, &run, source, 0, pixelCount, QUANTISATIONS[level]);
    return FinishStream(&writer, run, destination);
}

template <typename Source>
TARGET_SSE41 ULONGLONG EncodeByTable(const PIXEL_CONTEXT& pixel, const UCHAR* source, UCHAR* destination,
                                     const UCHAR* destinationEnd, ULONG pixelCount, ULONG level) {
    // Groups are written without asking for room: at most one word stands for each pixel.
    const SIZE_T room = static_cast<SIZE_T>(destinationEnd - destination);
    if (room < SIZE_T{pixelCount} * 2 + PACKER_OVERSHOOT || pixelCount < GROUP_PIXELS) {
        return EncodeByPixel<Source>(source, destination, destinationEnd, pixelCount, level);
    }

    const QUANTISATION& quantisation = QUANTISATIONS[level];
    const QUANTISER quantiser = CreateQuantiser<Source>(pixel.Tables, level);
    const RUN_PACKER packer = PACKER_Create(pixel);
    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = StartStream<Source>(source);
    EncodePixels<Source>(&writer, &run, source, 0, GROUP_PIXELS, quantisation);
    ULONG index = GROUP_PIXELS;
    while (MASKS_CountWords(pixelCount - index) != 0) {
        // Vectors write a run with its last pixel; one that has ended already is not theirs.
        if (ReadWord<Source>(source, index, quantisation) != run.Word) {
            PutRun(&writer, run);
            run.Repeats = 0;
        }
        PACK_CURSOR cursor = {writer.Cursor, run.Repeats};
        index = EncodeStrips<Source>(quantisation, quantiser, packer, &cursor, source, index, pixelCount);
        writer.Cursor = cursor.Next;
        run = {ReadWord<Source>(source, index - 1, quantisation), cursor.Repeats};
        // They also stop before a run that may have to be broken.
        const ULONG byPixel = MASKS_CountWords(pixelCount - index) * WORD_PIXELS;
        EncodePixels<Source>(&writer, &run, source, index, index + byPixel, quantisation);
        index += byPixel;
    }
    EncodePixels<Source>(&writer, &run, source, index, pixelCount, quantisation);
    return FinishStream(&writer, run, destination);
}

// Encodes at the level that the last frames led to, and at coarser ones until the stream meets its target.
template <typename Source>
ULONGLONG EncodeToTarget(DEVICE_CONTEXT* context, const UCHAR* source, UCHAR* destination,
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
        const ULONGLONG length =
            EncodeByTable<Source>(pixel, source, destination, destinationEnd, pixelCount, pixel.QuantLevel);
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
    return EncodeByPixel<RGB555_SOURCE>(source, destination, destinationEnd, pixelCount, level);
}

ULONGLONG COMPRESSION_EncodeGroupsByTable(const DEVICE_CONTEXT* context, const UCHAR* source,
                                          UCHAR* destination, const UCHAR* destinationEnd, ULONG pixelCount,
                                          ULONG level) {
    return EncodeByTable<RGB555_SOURCE>(context->Pixel, source, destination, destinationEnd, pixelCount,
                                        level);
}

ULONGLONG COMPRESSION_EncodeBgrx32GroupsByTable(const DEVICE_CONTEXT* context, const UCHAR* source,
                                                UCHAR* destination, const UCHAR* destinationEnd,
                                                ULONG pixelCount, ULONG level) {
    return EncodeByTable<BGRX32_SOURCE>(context->Pixel, source, destination, destinationEnd, pixelCount,
                                        level);
}

ULONGLONG COMPRESSION_EncodeRgb555Groups(DEVICE_CONTEXT* context, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize) {
    return EncodeToTarget<RGB555_SOURCE>(context, source, destination, destinationEnd, pixelCount,
                                         targetSize);
}

ULONGLONG COMPRESSION_EncodeBgrx32Groups(DEVICE_CONTEXT* context, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize) {
    return EncodeToTarget<BGRX32_SOURCE>(context, source, destination, destinationEnd, pixelCount,
                                         targetSize);
}

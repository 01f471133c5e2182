#include "pixel/group_encoder.h"

#include "driver/device_context.h"
#include "pixel/run_stream.h"

#include <smmintrin.h>

namespace {

constexpr ULONG GROUP_PIXELS = 8;
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

// Sets the rows of one mask: bit i stands for pixel i, set when it repeats its predecessor.
void BuildRow(ULONG mask, UCHAR (&packShuffle)[16], UCHAR (&countShuffle)[16], GROUP_STEP* step) {
    constexpr UCHAR nothing = 0x80;
    RtlFillMemory(packShuffle, sizeof(packShuffle), nothing);
    RtlFillMemory(countShuffle, sizeof(countShuffle), nothing);
    *step = {};
    step->Flat = mask == 0xFF;
    const auto putLane = [&](UCHAR(&shuffle)[16], ULONG lane) {
        shuffle[step->WordCount * 2] = static_cast<UCHAR>(lane * 2);
        shuffle[step->WordCount * 2 + 1] = static_cast<UCHAR>(lane * 2 + 1);
        step->WordCount++;
    };
    BOOLEAN leading = TRUE;
    ULONG run = 0;
    for (ULONG lane = 0; lane < GROUP_PIXELS; lane++) {
        if (mask >> lane & 1) {
            run++;
            continue;
        }
        if (leading) {
            step->Leading = static_cast<UCHAR>(run);
        } else if (run == 1) {
            putLane(packShuffle, lane - 1);
        } else if (run > 1) {
            putLane(countShuffle, run); // lane n of the count vector holds n
        }
        putLane(packShuffle, lane);
        leading = FALSE;
        run = 0;
    }
    step->Trailing = static_cast<UCHAR>(run);
}

// What the vector loop works with: everything that stays the same through one frame.
struct GROUP_CODER {
    const DEVICE_CONTEXT* Context;
    QUANTISATION Quantisation;
    __m128i Mask;
    __m128i Fill;     // with the literal flag
    __m128i Compared; // the bits in which two quantised pixels can differ
};

TARGET_SSE41 inline __m128i Load(const UCHAR* source) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(source));
}

// The bits in which eight pixels differ from their predecessors, before the mask.
TARGET_SSE41 inline __m128i Difference(const UCHAR* source) {
    return _mm_xor_si128(Load(source), Load(source - 2));
}

// Bit i is set when pixel i of sixteen repeats its predecessor.
TARGET_SSE41 inline ULONG RepeatMask(const GROUP_CODER& coder, const UCHAR* source) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_cmpeq_epi16(_mm_and_si128(Difference(source), coder.Compared), zero);
    const __m128i high = _mm_cmpeq_epi16(_mm_and_si128(Difference(source + 16), coder.Compared), zero);
    return static_cast<ULONG>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

// Writes eight pixels, of which those in `mask` repeat their predecessor, without a branch. May write up to
// 18 bytes, whatever the cursor advances by.
TARGET_SSE41 inline void PutGroup(const GROUP_CODER& coder, UCHAR** cursor, ULONG* repeats,
                                  const UCHAR* source, ULONG mask) {
    const GROUP_TABLES& tables = coder.Context->Pixel.Tables;
    const GROUP_STEP& step = coder.Context->Pixel.GroupSteps[mask];

    const ULONG count = *repeats + step.Leading;
    const ULONG before = ReadWord(source - 2, 0, coder.Quantisation);
    const USHORT run = static_cast<USHORT>(count == 1 ? before : count);
    RtlCopyMemory(*cursor, &run, sizeof(run));
    *cursor += count != 0 && !step.Flat ? 2 : 0;

    const __m128i words = _mm_or_si128(_mm_and_si128(Load(source), coder.Mask), coder.Fill);
    const __m128i literals = _mm_shuffle_epi8(words, Load(tables.PackShuffle[mask]));
    const __m128i counts =
        _mm_shuffle_epi8(_mm_setr_epi16(0, 1, 2, 3, 4, 5, 6, 7), Load(tables.CountShuffle[mask]));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(*cursor), _mm_or_si128(literals, counts));
    *cursor += step.WordCount * 2;
    *repeats = step.Trailing + (step.Flat ? *repeats : 0);
}

// The number of pixels from `index` on, in steps of 32, that repeat the pixel before them, at most `limit`.
TARGET_SSE41 inline ULONG CountRepeats(const GROUP_CODER& coder, const UCHAR* source, ULONG limit) {
    ULONG count = 0;
    for (; limit - count >= 32; count += 32) {
        const UCHAR* pixels = source + SIZE_T{count} * 2;
        const __m128i low = _mm_or_si128(Difference(pixels), Difference(pixels + 16));
        const __m128i high = _mm_or_si128(Difference(pixels + 32), Difference(pixels + 48));
        if (!_mm_testz_si128(_mm_or_si128(low, high), coder.Compared)) {
            break;
        }
    }
    return count;
}

} // namespace

void COMPRESSION_BuildGroupTables(DEVICE_CONTEXT* context) {
    PIXEL_CONTEXT& pixel = context->Pixel;
    for (ULONG mask = 0; mask < GROUP_MASK_COUNT; mask++) {
        BuildRow(mask, pixel.Tables.PackShuffle[mask], pixel.Tables.CountShuffle[mask],
                 &pixel.GroupSteps[mask]);
    }
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
    // The vector form writes without asking for room: at most one word stands for each pixel, and whole
    // vectors are stored.
    constexpr ULONG overshoot = 16;
    const SIZE_T room = static_cast<SIZE_T>(destinationEnd - destination);
    if (room < SIZE_T{pixelCount} * 2 + overshoot || pixelCount < GROUP_PIXELS) {
        return COMPRESSION_EncodeGroupsByPixel(source, destination, destinationEnd, pixelCount, level);
    }

    const QUANTISATION quantisation = QUANTISATIONS[level];
    const GROUP_TABLES& tables = context->Pixel.Tables;
    const __m128i mask = Load(reinterpret_cast<const UCHAR*>(tables.QuantMask[level]));
    const __m128i fill = Load(reinterpret_cast<const UCHAR*>(tables.QuantFill[level]));
    const GROUP_CODER coder = {context, quantisation, mask,
                               _mm_or_si128(fill, _mm_set1_epi16(static_cast<SHORT>(LITERAL_FLAG))),
                               _mm_andnot_si128(fill, mask)};

    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = StartStream(source);
    EncodePixels(&writer, &run, source, 0, GROUP_PIXELS, quantisation);

    ULONG index = GROUP_PIXELS;
    while (pixelCount - index >= 2 * GROUP_PIXELS) {
        const UCHAR* pixels = source + SIZE_T{index} * 2;
        // Two groups that may have to break the run go pixel by pixel.
        if (run.Repeats > LONGEST_OPEN_RUN - GROUP_PIXELS) {
            run.Word = ReadWord(source, index - 1, quantisation);
            EncodePixels(&writer, &run, source, index, index + 2 * GROUP_PIXELS, quantisation);
            index += 2 * GROUP_PIXELS;
            continue;
        }
        const ULONG repeatMask = RepeatMask(coder, pixels);
        if (repeatMask == 0xFFFF) {
            const ULONG rest = pixelCount - index;
            const ULONG open = LONGEST_OPEN_RUN - run.Repeats;
            const ULONG limit = rest < open ? rest : open;
            const ULONG flat = 16 + CountRepeats(coder, pixels + 32, limit > 16 ? limit - 16 : 0);
            run.Repeats += flat;
            index += flat;
        } else {
            PutGroup(coder, &writer.Cursor, &run.Repeats, pixels, repeatMask & 0xFF);
            PutGroup(coder, &writer.Cursor, &run.Repeats, pixels + 16, repeatMask >> 8);
            index += 16;
        }
    }
    run.Word = ReadWord(source, index - 1, quantisation);
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

#include "pixel/run_encoder.h"

#include "device/device_context.h"
#include "pixel/compression.h"
#include "pixel/group_encoder.h"
#include "pixel/run_packer.h"
#include "pixel/run_stream.h"

#include <intrin.h>

namespace {

template <ULONG UnitBytes>
inline ULONG ReadPixel(const UCHAR* source, ULONG index) {
    const UCHAR* pixel = source + static_cast<SIZE_T>(index) * UnitBytes;
    ULONG value = pixel[0];
    if constexpr (UnitBytes > 1) {
        value |= static_cast<ULONG>(pixel[1]) << 8;
    }
    if constexpr (UnitBytes > 2) {
        value |= static_cast<ULONG>(pixel[2]) << 16;
    }
    return value;
}

// The run being built: the literal it began with and the pixels merged into that since.
struct RUN {
    ULONG Literal;
    ULONG Merged;
};

template <ULONG UnitBytes>
inline void StartRun(UNIT_WRITER* writer, RUN* run, ULONG pixel) {
    if (run->Merged > 0) {
        COMPRESSION_EmitRepeat<UnitBytes>(writer, run->Literal, run->Merged);
    }
    STREAM_PutBytes<UnitBytes>(writer, LiteralUnit<UnitBytes>(pixel));
    *run = {pixel, 0};
}

// A pixel within the tolerance joins the run, except where a colour other than the literal's stands twice in
// a row: an area of one colour is shown in exactly that colour from its second pixel on.
template <ULONG UnitBytes>
void EncodePixels(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end, ULONG mask) {
    for (ULONG index = first; index < end; index++) {
        const ULONG pixel = ReadPixel<UnitBytes>(source, index);
        if (pixel == run->Literal ||
            ((pixel | mask) == (run->Literal | mask) && pixel != ReadPixel<UnitBytes>(source, index - 1))) {
            run->Merged++;
        } else {
            StartRun<UnitBytes>(writer, run, pixel);
        }
    }
}

// The stream in which a run longer than a count can say is written: the longest count and a literal, again
// and again. What is certain of that is written here.
inline void BreakRun(UNIT_WRITER* writer, RUN* run) {
    while (run->Merged > MaxRepeatCount(2)) {
        COMPRESSION_EmitRepeat<2>(writer, run->Literal, MaxRepeatCount(2) + 1);
        run->Merged -= MaxRepeatCount(2) + 1;
    }
}

template <ULONG UnitBytes>
void EncodeLiterals(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end) {
    for (ULONG index = first; index < end; index++) {
        StartRun<UnitBytes>(writer, run, ReadPixel<UnitBytes>(source, index));
    }
}

// Ends the stream with a literal and fills it up to whole 32-bit words.
template <ULONG UnitBytes>
void FinishRuns(UNIT_WRITER* writer, const RUN& run, const UCHAR* destination) {
    if (run.Merged > 0) {
        COMPRESSION_EmitRepeat<UnitBytes>(writer, run.Literal, run.Merged - 1);
        STREAM_PutBytes<UnitBytes>(writer, LiteralUnit<UnitBytes>(run.Literal));
    }
    while ((writer->Cursor - destination) % 4 != 0 && !writer->Overflow) {
        STREAM_PutBytes<1>(writer, 0x80);
    }
}

using ENCODE_PIXELS = void(DEVICE_CONTEXT* context, UNIT_WRITER* writer, RUN* run, const UCHAR* source,
                           ULONG first, ULONG end, ULONG mask);

template <ULONG UnitBytes>
void EncodeByPixel(DEVICE_CONTEXT*, UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first,
                   ULONG end, ULONG mask) {
    EncodePixels<UnitBytes>(writer, run, source, first, end, mask);
}

template <ULONG UnitBytes>
ULONGLONG EncodeStream(DEVICE_CONTEXT* context, ENCODE_PIXELS* encodePixels, const UCHAR* source,
                       ULONGLONG sourceSize, ULONG pixelCount, UCHAR* destination,
                       const UCHAR* destinationEnd, BOOLEAN leadIn) {
    const ULONG mask = COMPRESSION_GetToleranceMask(context);
    const ULONG leadInPixels =
        leadIn && context->Pixel.LegacyCompressionFlag ? (LEAD_IN_BYTES + UnitBytes - 1) / UnitBytes : 1;
    const ULONG literalsEnd = leadInPixels < pixelCount ? leadInPixels : pixelCount;
    const ULONGLONG pixelsInSource = sourceSize / UnitBytes + (sourceSize % UnitBytes != 0);
    ULONG mergeableEnd = pixelsInSource < pixelCount ? static_cast<ULONG>(pixelsInSource) : pixelCount;
    mergeableEnd = mergeableEnd > literalsEnd ? mergeableEnd : literalsEnd;

    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = {};
    EncodeLiterals<UnitBytes>(&writer, &run, source, 0, literalsEnd);
    encodePixels(context, &writer, &run, source, literalsEnd, mergeableEnd, mask);
    EncodeLiterals<UnitBytes>(&writer, &run, source, mergeableEnd, pixelCount);
    FinishRuns<UnitBytes>(&writer, run, destination);
    return writer.Overflow ? 0 : static_cast<ULONGLONG>(writer.Cursor - destination);
}

TARGET_SSSE3 FORCEINLINE __m128i LoadEight(const UCHAR* source) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(source));
}

// The pixels of a block that equal those of another but for the bits in `mask`.
TARGET_SSSE3 FORCEINLINE ULONG CompareBlock(const UCHAR* source, const UCHAR* others, __m128i mask) {
    const __m128i low =
        _mm_cmpeq_epi16(_mm_or_si128(LoadEight(source), mask), _mm_or_si128(LoadEight(others), mask));
    const __m128i high = _mm_cmpeq_epi16(_mm_or_si128(LoadEight(source + GROUP_BYTES), mask),
                                         _mm_or_si128(LoadEight(others + GROUP_BYTES), mask));
    return static_cast<ULONG>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

// The pixels of a word that equal the one before but for the bits in `mask`.
TARGET_SSSE3 FORCEINLINE ULONGLONG CompareWord(const UCHAR* source, __m128i mask) {
    const auto compare = [source, mask](ULONG block) TARGET_SSSE3 {
        const UCHAR* pixels = source + SIZE_T{block} * BLOCK_BYTES;
        return CompareBlock(pixels, pixels - 2, mask);
    };
    return MASKS_JoinBlocks(compare(0), compare(1), compare(2), compare(3));
}

// The pixels of a word that are merged into a run, by the mask of tolerance. `literal` is the last literal's
// value, before the word and then after it; `loose` is 1 while the last pixel was merged without being the
// same as the one before it.
//
// All pixels of a run are close to its literal, so one that is not close to its predecessor is always a
// literal, and one that is close without being the same never is. One that equals its predecessor is a
// literal only if that predecessor was merged without having the literal's value: this alone needs the
// literal itself.
TARGET_SSSE3 FORCEINLINE ULONGLONG FindMerged(const UCHAR* word, __m128i mask, ULONG* literal,
                                              ULONGLONG* loose) {
    const ULONGLONG same = CompareWord(word, _mm_setzero_si128());
    const ULONGLONG close = CompareWord(word, mask);
    const ULONGLONG looseHere = close & ~same;
    ULONGLONG literals = ~close;
    ULONGLONG doubtful = same & (looseHere << 1 | *loose);
    ULONG bit = 0;
    ULONG last = 0;
    for (; _BitScanForward64(&bit, doubtful); doubtful &= doubtful - 1) {
        const bool inWord = _BitScanReverse64(&last, literals & ((1ull << bit) - 1));
        if (ReadPixel<2>(word, bit) != (inWord ? ReadPixel<2>(word, last) : *literal)) {
            literals |= 1ull << bit;
        }
    }
    if (_BitScanReverse64(&last, literals)) {
        *literal = ReadPixel<2>(word, last);
    }
    *loose = looseHere >> (WORD_PIXELS - 1);
    return ~literals;
}

// Whether the pixel at `index` goes on with the run.
inline bool Continues(const RUN& run, const UCHAR* source, ULONG index, ULONG mask) {
    const ULONG pixel = ReadPixel<2>(source, index);
    return pixel == run.Literal ||
           ((pixel | mask) == (run.Literal | mask) && pixel != ReadPixel<2>(source, index - 1));
}

// Encodes strips from `index` on until less than a word is left or a count might not fit its unit. Returns
// the pixel it stopped at. In `run`, the pixels merged are those of a run that goes on there.
template <bool Tolerant>
TARGET_SSSE3 ULONG EncodeStrips(const RUN_PACKER& packer, UNIT_WRITER* writer, RUN* run, const UCHAR* source,
                                ULONG index, ULONG end, ULONG mask) {
    const __m128i maskLanes = _mm_set1_epi16(static_cast<SHORT>(mask));
    const __m128i flag = _mm_set1_epi16(static_cast<SHORT>(0x8000));
    PACK_CURSOR cursor = {writer->Cursor, run->Merged};
    for (;;) {
        const ULONG words = MASKS_CountWords(end - index);
        if (words == 0 || cursor.Repeats > MaxRepeatCount(2) - STRIP_PIXELS) {
            break;
        }
        const UCHAR* strip = source + SIZE_T{index} * 2;
        RUN_MASKS masks;
        ULONGLONG loose = ReadPixel<2>(source, index - 1) != run->Literal;
        for (ULONG word = 0; word < words; word++) {
            const UCHAR* pixels = strip + SIZE_T{word} * WORD_PIXELS * 2;
            masks.Repeats[word] = Tolerant ? FindMerged(pixels, maskLanes, &run->Literal, &loose)
                                           : CompareWord(pixels, _mm_setzero_si128());
        }
        index += words * WORD_PIXELS;
        if constexpr (!Tolerant) {
            run->Literal = ReadPixel<2>(source, index - 1);
        }
        MASKS_Complete(&masks, words, Continues(*run, source, index, mask));
        cursor = PACKER_PutStrip(packer, cursor, masks, words, [&](ULONG group) TARGET_SSSE3 {
            return _mm_or_si128(LoadEight(strip + SIZE_T{group} * GROUP_BYTES), flag);
        });
    }
    writer->Cursor = cursor.Next;
    run->Merged = cursor.Repeats;
    return index;
}

// The vector form. It writes without asking for room: at most one unit stands for each pixel.
void Encode16ByStrips(DEVICE_CONTEXT* context, UNIT_WRITER* writer, RUN* run, const UCHAR* source,
                      ULONG first, ULONG end, ULONG mask) {
    if (static_cast<SIZE_T>(writer->End - writer->Cursor) < (SIZE_T{end} - first) * 2 + PACKER_OVERSHOOT) {
        EncodePixels<2>(writer, run, source, first, end, mask);
        return;
    }
    if (!context->Pixel.GroupTablesReady) {
        COMPRESSION_BuildGroupTables(context);
    }
    const RUN_PACKER packer = PACKER_Create(context->Pixel);
    const auto encodeStrips = (mask & 0xFFFF) != 0 ? EncodeStrips<true> : EncodeStrips<false>;
    ULONG index = first;
    while (MASKS_CountWords(end - index) != 0) {
        // Vectors write a run with its last pixel; one that has ended already is not theirs.
        if (!Continues(*run, source, index, mask)) {
            COMPRESSION_EmitRepeat<2>(writer, run->Literal, run->Merged);
            run->Merged = 0;
        }
        index = encodeStrips(packer, writer, run, source, index, end, mask);
        // They also stop before a count that might not fit its unit.
        const ULONG byPixel = MASKS_CountWords(end - index) * WORD_PIXELS;
        EncodePixels<2>(writer, run, source, index, index + byPixel, mask);
        index += byPixel;
        BreakRun(writer, run);
    }
    EncodePixels<2>(writer, run, source, index, end, mask);
}

} // namespace

ULONGLONG COMPRESSION_EncodeRuns(DEVICE_CONTEXT* context, const UCHAR* source, ULONGLONG sourceSize,
                                 ULONG pixelCount, ULONG unitBytes, UCHAR* destination,
                                 const UCHAR* destinationEnd, BOOLEAN leadIn) {
    if (unitBytes == 2 && context->Cpu.CpuHasSsse3) {
        return EncodeStream<2>(context, Encode16ByStrips, source, sourceSize, pixelCount, destination,
                               destinationEnd, leadIn);
    }
    return COMPRESSION_EncodeRunsByPixel(context, source, sourceSize, pixelCount, unitBytes, destination,
                                         destinationEnd, leadIn);
}

ULONGLONG COMPRESSION_EncodeRunsByPixel(DEVICE_CONTEXT* context, const UCHAR* source, ULONGLONG sourceSize,
                                        ULONG pixelCount, ULONG unitBytes, UCHAR* destination,
                                        const UCHAR* destinationEnd, BOOLEAN leadIn) {
    switch (unitBytes) {
    case 1:
        return EncodeStream<1>(context, EncodeByPixel<1>, source, sourceSize, pixelCount, destination,
                               destinationEnd, leadIn);
    case 2:
        return EncodeStream<2>(context, EncodeByPixel<2>, source, sourceSize, pixelCount, destination,
                               destinationEnd, leadIn);
    default:
        return EncodeStream<3>(context, EncodeByPixel<3>, source, sourceSize, pixelCount, destination,
                               destinationEnd, leadIn);
    }
}

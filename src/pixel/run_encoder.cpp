#include "pixel/run_encoder.h"

#include "driver/device_context.h"
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

// Sixteen 16-bit pixels beside their predecessors: bit i stands for pixel i.
struct NEIGHBOURS {
    ULONG Same;  // equal to the pixel before
    ULONG Close; // equal to it but for bits that may differ
};

TARGET_SSSE3 FORCEINLINE __m128i LoadEight(const UCHAR* source) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(source));
}

TARGET_SSSE3 FORCEINLINE ULONG LaneBits(__m128i low, __m128i high) {
    return static_cast<ULONG>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

template <bool Tolerant>
TARGET_SSSE3 FORCEINLINE NEIGHBOURS CompareBlock(const UCHAR* block, __m128i mask) {
    const __m128i low = LoadEight(block);
    const __m128i high = LoadEight(block + 16);
    const __m128i lowBefore = LoadEight(block - 2);
    const __m128i highBefore = LoadEight(block + 14);
    const ULONG same = LaneBits(_mm_cmpeq_epi16(low, lowBefore), _mm_cmpeq_epi16(high, highBefore));
    if constexpr (!Tolerant) {
        return {same, same};
    } else {
        return {same, LaneBits(_mm_cmpeq_epi16(_mm_or_si128(low, mask), _mm_or_si128(lowBefore, mask)),
                               _mm_cmpeq_epi16(_mm_or_si128(high, mask), _mm_or_si128(highBefore, mask)))};
    }
}

// The value of the last literal up to and with `block`, of which `literals` are the literals; `before` is
// that of the last one before the block.
inline ULONG LastLiteral(const UCHAR* block, ULONG literals, ULONG before) {
    ULONG last;
    return _BitScanReverse(&last, literals) ? ReadPixel<2>(block, last) : before;
}

// Which pixels of a block become literals. All pixels of a run are close to its literal, so one that is not
// close to its predecessor is always a literal, and one that is close without being the same never is. One
// that equals its predecessor is a literal only if that predecessor was merged without having the literal's
// value: this alone needs the literal itself.
template <bool Tolerant>
TARGET_SSSE3 FORCEINLINE ULONG FindLiterals(const UCHAR* block, __m128i mask, ULONG literalBefore) {
    const NEIGHBOURS neighbours = CompareBlock<Tolerant>(block, mask);
    ULONG literals = ~neighbours.Close & ALL_OF_BLOCK;
    if constexpr (Tolerant) {
        const ULONG looseBefore = (neighbours.Close & ~neighbours.Same) << 1 |
                                  (ReadPixel<2>(block - 2, 0) != literalBefore ? 1 : 0);
        ULONG doubtful = neighbours.Same & looseBefore;
        ULONG bit;
        while (_BitScanForward(&bit, doubtful)) {
            doubtful &= doubtful - 1;
            if (ReadPixel<2>(block, bit) != LastLiteral(block, literals & ((1u << bit) - 1), literalBefore)) {
                literals |= 1u << bit;
            }
        }
    }
    return literals;
}

// The number of pixels from `pixels` on that equal the pixel before them: a block, to be taken as such, and
// what follows it in steps of 32, at most `limit`.
TARGET_SSSE3 FORCEINLINE ULONG CountSame(const UCHAR* pixels, ULONG limit) {
    ULONG count = BLOCK_PIXELS;
    for (; count + 32 <= limit; count += 32) {
        const UCHAR* block = pixels + SIZE_T{count} * 2;
        __m128i same = _mm_cmpeq_epi16(LoadEight(block), LoadEight(block - 2));
        for (ULONG offset = 16; offset < 64; offset += 16) {
            same = _mm_and_si128(same,
                                 _mm_cmpeq_epi16(LoadEight(block + offset), LoadEight(block + offset - 2)));
        }
        if (_mm_movemask_epi8(same) != 0xFFFF) {
            break;
        }
    }
    return count;
}

// A block may lengthen an open run by as much before it writes its count.
constexpr ULONG LONGEST_OPEN_RUN = MaxRepeatCount(2) - BLOCK_PIXELS;

// Encodes whole blocks from `index` on, as long as another block follows and counts fit their units. Returns
// the pixel it stopped at. In `run`, the pixels merged are those of a run that goes on there.
template <bool Tolerant>
TARGET_SSSE3 ULONG EncodeBlocks(const RUN_PACKER& packer, UNIT_WRITER* writer, RUN* run, const UCHAR* source,
                                ULONG index, ULONG end, __m128i mask) {
    const __m128i flag = _mm_set1_epi16(static_cast<SHORT>(0x8000));
    PACK_CURSOR cursor = {writer->Cursor, run->Merged};
    ULONG literal = run->Literal;
    ULONG literals = FindLiterals<Tolerant>(source + SIZE_T{index} * 2, mask, literal);
    while (end - index >= 2 * BLOCK_PIXELS && cursor.Repeats <= LONGEST_OPEN_RUN) {
        const UCHAR* block = source + SIZE_T{index} * 2;
        literal = Tolerant ? LastLiteral(block, literals, literal) : 0;
        const ULONG repeats = ~literals & ALL_OF_BLOCK;
        const ULONG literalsAfter = FindLiterals<Tolerant>(block + BLOCK_BYTES, mask, literal);
        const ULONG continued = PACKER_FindContinued(repeats, ~literalsAfter);
        if (continued == ALL_OF_BLOCK && literalsAfter == 0) {
            // Pixels that equal the one before go on being merged only if that has the literal's value.
            const BOOLEAN exact = !Tolerant || ReadPixel<2>(block, BLOCK_PIXELS - 1) == literal;
            const ULONG left = end - index - BLOCK_PIXELS;
            const ULONG open = LONGEST_OPEN_RUN - cursor.Repeats;
            const ULONG merged = exact ? CountSame(block, left < open ? left : open) : BLOCK_PIXELS;
            cursor.Repeats += merged;
            index += merged;
            literals = FindLiterals<Tolerant>(source + SIZE_T{index} * 2, mask, literal);
            cursor = PACKER_CloseRun(cursor, ~literals);
        } else {
            cursor = PACKER_PutBlock(packer, cursor, _mm_or_si128(LoadEight(block), flag),
                                     _mm_or_si128(LoadEight(block + 16), flag), repeats, continued);
            literals = literalsAfter;
            index += BLOCK_PIXELS;
        }
    }
    writer->Cursor = cursor.Next;
    *run = {Tolerant ? literal : ReadPixel<2>(source, index - 1), cursor.Repeats};
    return index;
}

// Whether the pixel at `index` goes on with the run.
inline bool Continues(const RUN& run, const UCHAR* source, ULONG index, ULONG mask) {
    const ULONG pixel = ReadPixel<2>(source, index);
    return pixel == run.Literal ||
           ((pixel | mask) == (run.Literal | mask) && pixel != ReadPixel<2>(source, index - 1));
}

// The vector form. It writes without asking for room: at most one unit stands for each pixel.
void Encode16ByBlocks(DEVICE_CONTEXT* context, UNIT_WRITER* writer, RUN* run, const UCHAR* source,
                      ULONG first, ULONG end, ULONG mask) {
    if (static_cast<SIZE_T>(writer->End - writer->Cursor) < (SIZE_T{end} - first) * 2 + PACKER_OVERSHOOT) {
        EncodePixels<2>(writer, run, source, first, end, mask);
        return;
    }
    if (!context->Pixel.GroupTablesReady) {
        COMPRESSION_BuildGroupTables(context);
    }
    const RUN_PACKER packer = PACKER_Create(context->Pixel);
    const __m128i maskLanes = _mm_set1_epi16(static_cast<SHORT>(mask));
    const auto encodeBlocks = (mask & 0xFFFF) != 0 ? EncodeBlocks<true> : EncodeBlocks<false>;
    ULONG index = first;
    while (end - index >= 2 * BLOCK_PIXELS) {
        // Vectors write a run with its last pixel; one that has ended already is not theirs.
        if (!Continues(*run, source, index, mask)) {
            COMPRESSION_EmitRepeat<2>(writer, run->Literal, run->Merged);
            run->Merged = 0;
        }
        index = encodeBlocks(packer, writer, run, source, index, end, maskLanes);
        if (end - index >= 2 * BLOCK_PIXELS) {
            // They stopped before a count that might not fit its unit.
            EncodePixels<2>(writer, run, source, index, index + BLOCK_PIXELS, mask);
            index += BLOCK_PIXELS;
            BreakRun(writer, run);
        }
    }
    EncodePixels<2>(writer, run, source, index, end, mask);
}

} // namespace

ULONGLONG COMPRESSION_EncodeRuns(DEVICE_CONTEXT* context, const UCHAR* source, ULONGLONG sourceSize,
                                 ULONG pixelCount, ULONG unitBytes, UCHAR* destination,
                                 const UCHAR* destinationEnd, BOOLEAN leadIn) {
    if (unitBytes == 2 && context->Cpu.CpuHasSsse3) {
        return EncodeStream<2>(context, Encode16ByBlocks, source, sourceSize, pixelCount, destination,
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

#include "pixel/run_encoder.h"

#include "driver/device_context.h"
#include "pixel/compression.h"
#include "pixel/run_stream.h"

#include <emmintrin.h>
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

using ENCODE_PIXELS = void(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end,
                           ULONG mask);

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
    encodePixels(&writer, &run, source, literalsEnd, mergeableEnd, mask);
    EncodeLiterals<UnitBytes>(&writer, &run, source, mergeableEnd, pixelCount);
    FinishRuns<UnitBytes>(&writer, run, destination);
    return writer.Overflow ? 0 : static_cast<ULONGLONG>(writer.Cursor - destination);
}

// Sixteen 16-bit pixels beside their predecessors: bit i stands for pixel i.
struct NEIGHBOURS {
    ULONG Same;  // equal to the pixel before
    ULONG Close; // equal to it but for bits that may differ
};

inline __m128i LoadEight(const UCHAR* source) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(source));
}

inline ULONG LaneBits(__m128i low, __m128i high) {
    return static_cast<ULONG>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
}

template <bool Tolerant>
inline NEIGHBOURS CompareSixteen(const UCHAR* source, __m128i mask) {
    const __m128i low = LoadEight(source);
    const __m128i high = LoadEight(source + 16);
    const __m128i lowBefore = LoadEight(source - 2);
    const __m128i highBefore = LoadEight(source + 14);
    NEIGHBOURS neighbours;
    neighbours.Same = LaneBits(_mm_cmpeq_epi16(low, lowBefore), _mm_cmpeq_epi16(high, highBefore));
    if constexpr (Tolerant) {
        neighbours.Close =
            LaneBits(_mm_cmpeq_epi16(_mm_or_si128(low, mask), _mm_or_si128(lowBefore, mask)),
                     _mm_cmpeq_epi16(_mm_or_si128(high, mask), _mm_or_si128(highBefore, mask)));
    } else {
        neighbours.Close = neighbours.Same;
    }
    return neighbours;
}

// Which of the sixteen pixels become literals. All pixels of a run are close to its literal, so one that is
// not close to its predecessor is always a literal, and one that is close without being the same never is.
// One that equals its predecessor is a literal only if that predecessor was merged without having the
// literal's value: this alone needs the literal itself.
inline ULONG FindLiterals(const NEIGHBOURS& neighbours, const UCHAR* source, const RUN& run) {
    ULONG literals = ~neighbours.Close & 0xFFFF;
    const ULONG looseBefore =
        (neighbours.Close & ~neighbours.Same) << 1 | (ReadPixel<2>(source - 2, 0) != run.Literal ? 1 : 0);
    ULONG doubtful = neighbours.Same & looseBefore;
    ULONG bit;
    while (_BitScanForward(&bit, doubtful)) {
        doubtful &= doubtful - 1;
        ULONG last;
        const ULONG literal =
            _BitScanReverse(&last, literals & ((1u << bit) - 1)) ? ReadPixel<2>(source, last) : run.Literal;
        if (ReadPixel<2>(source, bit) != literal) {
            literals |= 1u << bit;
        }
    }
    return literals;
}

inline void StoreUnit(UCHAR* cursor, ULONG unit) {
    const USHORT word = static_cast<USHORT>(unit);
    RtlCopyMemory(cursor, &word, sizeof(word));
}

// Writes sixteen pixels of which those in `literals` (at least one) are not merged.
inline void PutSixteen(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG literals) {
    ULONG bit = 0;
    _BitScanForward(&bit, literals);
    COMPRESSION_EmitRepeat<2>(writer, run->Literal, run->Merged + bit);
    UCHAR* cursor = writer->Cursor;
    ULONG next = bit;
    do {
        StoreUnit(cursor, bit - next);
        cursor += bit != next ? 2 : 0;
        StoreUnit(cursor, LiteralUnit<2>(ReadPixel<2>(source, bit)));
        cursor += 2;
        next = bit + 1;
        literals &= literals - 1;
    } while (_BitScanForward(&bit, literals));
    writer->Cursor = cursor;
    *run = {ReadPixel<2>(source, next - 1), 16 - next};
}

inline void PutSixteenLiterals(UNIT_WRITER* writer, RUN* run, const UCHAR* source) {
    COMPRESSION_EmitRepeat<2>(writer, run->Literal, run->Merged);
    const __m128i flag = _mm_set1_epi16(static_cast<SHORT>(0x8000));
    __m128i* out = reinterpret_cast<__m128i*>(writer->Cursor);
    _mm_storeu_si128(out, _mm_or_si128(LoadEight(source), flag));
    _mm_storeu_si128(out + 1, _mm_or_si128(LoadEight(source + 16), flag));
    writer->Cursor += 32;
    *run = {ReadPixel<2>(source, 15), 0};
}

// The number of pixels from `index` on, in steps of 32, that equal the pixel before them.
inline ULONG CountSame(const UCHAR* source, ULONG index, ULONG end) {
    const ULONG start = index;
    for (; end - index >= 32; index += 32) {
        const UCHAR* pixel = source + SIZE_T{index} * 2;
        __m128i same = _mm_cmpeq_epi16(LoadEight(pixel), LoadEight(pixel - 2));
        for (ULONG offset = 16; offset < 64; offset += 16) {
            same = _mm_and_si128(same,
                                 _mm_cmpeq_epi16(LoadEight(pixel + offset), LoadEight(pixel + offset - 2)));
        }
        if (_mm_movemask_epi8(same) != 0xFFFF) {
            break;
        }
    }
    return index - start;
}

template <bool Tolerant>
void EncodeSixteens(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end, ULONG mask) {
    const __m128i maskLanes = _mm_set1_epi16(static_cast<SHORT>(mask));
    ULONG index = first;
    while (end - index >= 16) {
        const UCHAR* pixels = source + SIZE_T{index} * 2;
        const NEIGHBOURS neighbours = CompareSixteen<Tolerant>(pixels, maskLanes);
        const ULONG literals = Tolerant ? FindLiterals(neighbours, pixels, *run) : ~neighbours.Close & 0xFFFF;
        index += 16;
        if (literals == 0) {
            run->Merged += 16;
            if (neighbours.Same == 0xFFFF) {
                const ULONG same = CountSame(source, index, end);
                run->Merged += same;
                index += same;
            }
        } else if (literals == 0xFFFF) {
            PutSixteenLiterals(writer, run, pixels);
        } else {
            PutSixteen(writer, run, pixels, literals);
        }
    }
    EncodePixels<2>(writer, run, source, index, end, mask);
}

// The vector form writes without asking for room: at most one unit stands for each pixel.
void EncodePixels16(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end, ULONG mask) {
    if (static_cast<ULONGLONG>(writer->End - writer->Cursor) < (ULONGLONG{end} - first) * 2) {
        EncodePixels<2>(writer, run, source, first, end, mask);
    } else if ((mask & 0xFFFF) != 0) {
        EncodeSixteens<true>(writer, run, source, first, end, mask);
    } else {
        EncodeSixteens<false>(writer, run, source, first, end, mask);
    }
}

} // namespace

ULONGLONG COMPRESSION_EncodeRuns(DEVICE_CONTEXT* context, const UCHAR* source, ULONGLONG sourceSize,
                                 ULONG pixelCount, ULONG unitBytes, UCHAR* destination,
                                 const UCHAR* destinationEnd, BOOLEAN leadIn) {
    if (unitBytes == 2) {
        return EncodeStream<2>(context, EncodePixels16, source, sourceSize, pixelCount, destination,
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
        return EncodeStream<1>(context, EncodePixels<1>, source, sourceSize, pixelCount, destination,
                               destinationEnd, leadIn);
    case 2:
        return EncodeStream<2>(context, EncodePixels<2>, source, sourceSize, pixelCount, destination,
                               destinationEnd, leadIn);
    default:
        return EncodeStream<3>(context, EncodePixels<3>, source, sourceSize, pixelCount, destination,
                               destinationEnd, leadIn);
    }
}

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

// How four pixels are written, by the mask of those that repeat their predecessor (bit i: pixel i). The count
// of leading repeats, which continues the run before, is written apart.
struct QUAD_STEP {
    alignas(16) UCHAR LiteralShuffle[16]; // moves the literals to their places
    alignas(16) UCHAR Counts[16];         // the counts between them
    UCHAR Bytes;                          // literals and counts together
    UCHAR Leading;
    UCHAR Trailing; // repeats that the next pixels may continue
    UCHAR Flat;     // 1: all four repeat, nothing is written
};

struct QUAD_STEPS {
    QUAD_STEP Step[16];
};

constexpr QUAD_STEPS BuildQuadSteps() {
    QUAD_STEPS steps = {};
    for (ULONG mask = 0; mask < 16; mask++) {
        QUAD_STEP& step = steps.Step[mask];
        for (UCHAR& position : step.LiteralShuffle) {
            position = 0x80;
        }
        step.Flat = mask == 15;
        ULONG run = 0;
        bool leading = true;
        for (ULONG lane = 0; lane < 4; lane++) {
            if (mask >> lane & 1) {
                run++;
                continue;
            }
            if (leading) {
                step.Leading = static_cast<UCHAR>(run);
            } else if (run > 0) {
                step.Counts[step.Bytes] = static_cast<UCHAR>(run);
                step.Bytes += 3;
            }
            for (ULONG byte = 0; byte < 3; byte++) {
                step.LiteralShuffle[step.Bytes++] = static_cast<UCHAR>(lane * 4 + byte);
            }
            leading = false;
            run = 0;
        }
        step.Trailing = static_cast<UCHAR>(run);
    }
    return steps;
}

constexpr QUAD_STEPS STEPS = BuildQuadSteps();

TARGET_SSSE3 inline __m128i Load(const UCHAR* source) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(source));
}

// Four pixels in 32-bit lanes. `PixelsRead` says how far eight pixels, loaded as two quads, are read.
struct BGRX32_QUAD {
    static constexpr ULONG SourceBytes = 4;
    static constexpr ULONG PixelsRead = 8;
    TARGET_SSSE3 static inline __m128i Read(const UCHAR* source) { return Load(source); }
};

struct BGR24_QUAD {
    static constexpr ULONG SourceBytes = 3;
    static constexpr ULONG PixelsRead = 10;
    TARGET_SSSE3 static inline __m128i Read(const UCHAR* source) {
        return _mm_shuffle_epi8(Load(source),
                                _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1));
    }
};

// The bits in which four pixels differ from their predecessors.
template <typename Quad>
TARGET_SSSE3 inline __m128i Difference(const UCHAR* source) {
    return _mm_and_si128(_mm_xor_si128(Quad::Read(source), Quad::Read(source - Quad::SourceBytes)),
                         _mm_set1_epi32(KEPT_BITS));
}

TARGET_SSSE3 inline ULONG RepeatMask(__m128i difference) {
    const __m128i equal = _mm_cmpeq_epi32(difference, _mm_setzero_si128());
    return static_cast<ULONG>(_mm_movemask_ps(_mm_castsi128_ps(equal)));
}

// Writes four pixels, of which those in `mask` repeat their predecessor, without a branch. May write up to 19
// bytes, whatever the cursor advances by.
template <typename Quad>
TARGET_SSSE3 inline void PutQuad(UCHAR** cursor, ULONG* repeats, const UCHAR* source, ULONG mask) {
    const QUAD_STEP& step = STEPS.Step[mask];
    const ULONG count = *repeats + step.Leading;
    RtlCopyMemory(*cursor, &count, sizeof(count));
    *cursor += count != 0 && !step.Flat ? 3 : 0;

    const __m128i quad = Quad::Read(source);
    const __m128i red = _mm_and_si128(_mm_srli_epi32(quad, 1), _mm_set1_epi32(0x7F0000));
    const __m128i literals = _mm_or_si128(_mm_or_si128(_mm_and_si128(quad, _mm_set1_epi32(0xFFFF)), red),
                                          _mm_set1_epi32(0x800000));
    const __m128i shuffle = _mm_load_si128(reinterpret_cast<const __m128i*>(step.LiteralShuffle));
    const __m128i counts = _mm_load_si128(reinterpret_cast<const __m128i*>(step.Counts));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(*cursor),
                     _mm_or_si128(_mm_shuffle_epi8(literals, shuffle), counts));
    *cursor += step.Bytes;
    *repeats = step.Trailing + (step.Flat ? *repeats : 0);
}

// The number of pixels from `index` on, in steps of 16, that repeat the pixel before them.
template <typename Quad>
TARGET_SSSE3 inline ULONG CountRepeats(const UCHAR* source, ULONG index, ULONG end) {
    constexpr ULONG quadBytes = 4 * Quad::SourceBytes;
    const ULONG start = index;
    for (; end - index >= 8 + Quad::PixelsRead; index += 16) {
        const UCHAR* pixels = source + SIZE_T{index} * Quad::SourceBytes;
        const __m128i first = _mm_or_si128(Difference<Quad>(pixels), Difference<Quad>(pixels + quadBytes));
        const __m128i second =
            _mm_or_si128(Difference<Quad>(pixels + 2 * quadBytes), Difference<Quad>(pixels + 3 * quadBytes));
        if (RepeatMask(_mm_or_si128(first, second)) != 15) {
            break;
        }
    }
    return index - start;
}

template <typename Quad>
TARGET_SSSE3 ULONGLONG EncodeByQuads(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                     ULONG pixelCount) {
    constexpr ULONG sourceBytes = Quad::SourceBytes;
    // The vector form writes without asking for room. At most one unit stands for each pixel; a count cannot
    // outgrow its unit, either, in a frame that fits a render buffer.
    constexpr ULONG overshoot = 16;
    const SIZE_T room = static_cast<SIZE_T>(destinationEnd - destination);
    if (room < SIZE_T{pixelCount} * 3 + overshoot || pixelCount > MaxRepeatCount(3) || pixelCount < 8) {
        return EncodeByPixel<sourceBytes>(source, destination, destinationEnd, pixelCount);
    }

    UNIT_WRITER writer = {destination, const_cast<UCHAR*>(destinationEnd), FALSE};
    RUN run = {~ReadKey<sourceBytes>(source, 0), 0};
    EncodePixels<sourceBytes>(&writer, &run, source, 0, 8);

    UCHAR* cursor = writer.Cursor;
    ULONG repeats = run.Repeats;
    ULONG index = 8;
    while (pixelCount - index >= Quad::PixelsRead) {
        const UCHAR* pixels = source + SIZE_T{index} * sourceBytes;
        const ULONG low = RepeatMask(Difference<Quad>(pixels));
        const ULONG high = RepeatMask(Difference<Quad>(pixels + 4 * sourceBytes));
        index += 8;
        if ((low & high) == 15) {
            const ULONG flat = CountRepeats<Quad>(source, index, pixelCount);
            repeats += 8 + flat;
            index += flat;
        } else {
            PutQuad<Quad>(&cursor, &repeats, pixels, low);
            PutQuad<Quad>(&cursor, &repeats, pixels + 4 * sourceBytes, high);
        }
    }
    writer.Cursor = cursor;
    run = {ReadKey<sourceBytes>(source, index - 1), repeats};
    EncodePixels<sourceBytes>(&writer, &run, source, index, pixelCount);
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
    return EncodeByQuads<BGR24_QUAD>(source, destination, destinationEnd, pixelCount);
}

ULONGLONG COMPRESSION_EncodeBgrx32ExactBlocks(const UCHAR* source, UCHAR* destination,
                                              const UCHAR* destinationEnd, ULONG pixelCount) {
    return EncodeByQuads<BGRX32_QUAD>(source, destination, destinationEnd, pixelCount);
}

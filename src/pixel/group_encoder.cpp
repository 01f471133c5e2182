#include "pixel/group_encoder.h"

#include "pixel/group_packer.h"
#include "pixel/reduce_ssse3.h"
#include "pixel/run_stream.h"

#include <smmintrin.h>

namespace {

constexpr ULONG LITERAL_FLAG = 0x8000;

// A run longer than this is broken: if all pixels of the next group continue it, the one in the middle of the
// group is written as a literal. So every count fits 15 bits.
constexpr ULONG LONGEST_OPEN_RUN = 32752;
constexpr ULONG BREAKING_LANE = 4;

struct QUANTIZATION {
    USHORT Mask; // bits kept
    USHORT Fill; // bits set
};

// Each level clears one more bit of a channel; the bits set instead keep a cleared channel from becoming
// black.
constexpr QUANTIZATION QUANTIZATIONS[QUANT_LEVEL_COUNT] = {
    {0x7FFF, 0x0001}, {0x7FFE, 0x0001}, {0x7BFE, 0x0001}, {0x7BDE, 0x0001},
    {0x7BDC, 0x0021}, {0x73DC, 0x0021}, {0x739C, 0x0021}, {0x7398, 0x0021},
    {0x6398, 0x0421}, {0x6318, 0x0421}, {0x6310, 0x0421}, {0x4310, 0x0421},
    {0x4210, 0x0421}, {0x4200, 0x0421}, {0x0200, 0x0421}, {0x0000, 0x0421},
};

TARGET_SSE41 FORCEINLINE __m128i Load(const void* source) {
    return _mm_loadu_si128(static_cast<const __m128i*>(source));
}

// Where the RGB555 pixels come from. `ReadOctet` returns eight of them. `SpreadBits` converts bits of an
// RGB555 pixel to the source's layout, and `FindRepeats` returns the mask of the pixels of a block that equal
// their predecessor in the bits of `compared`, which are in that layout.
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

// Pixels are compared in the client's format and reduced only where they are written.
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

// A pixel's word in the stream: quantized, with the literal flag.
template <typename Source>
inline ULONG ReadWord(const UCHAR* source, ULONG index, const QUANTIZATION& quantization) {
    return (ReadRaw<Source>(source, index) & quantization.Mask) | quantization.Fill | LITERAL_FLAG;
}

// The word written last and the repeats of it that are not written yet.
struct RUN {
    ULONG Word;
    ULONG Repeats;
};

// A single repeat takes one word as a count or as the literal; it is written as the literal.
inline void PutRun(UNIT_WRITER* writer, const RUN& run) {
    if (run.Repeats > 0) {
        STREAM_PutBytes<2>(writer, run.Repeats == 1 ? run.Word : run.Repeats);
    }
}

template <typename Source>
bool MustBreakRun(const RUN& run, const UCHAR* source, ULONG first, ULONG count,
                  const QUANTIZATION& quantization) {
    if (run.Repeats <= LONGEST_OPEN_RUN || count < GROUP_PIXELS) {
        return false;
    }
    for (ULONG lane = 0; lane < count; lane++) {
        if (ReadWord<Source>(source, first + lane, quantization) != run.Word) {
            return false;
        }
    }
    return true;
}

// Pixels from `first`, the start of a group, to `end`. The last group of a frame may be incomplete.
template <typename Source>
void EncodePixels(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end,
                  const QUANTIZATION& quantization) {
    for (ULONG group = first; group < end; group += GROUP_PIXELS) {
        const ULONG count = end - group < GROUP_PIXELS ? end - group : GROUP_PIXELS;
        const ULONG breakingLane =
            MustBreakRun<Source>(*run, source, group, count, quantization) ? BREAKING_LANE : GROUP_PIXELS;
        for (ULONG lane = 0; lane < count; lane++) {
            const ULONG word = ReadWord<Source>(source, group + lane, quantization);
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

// Below level 15 never equal to the first pixel's word, so that the stream starts with a literal.
template <typename Source>
RUN StartStream(const UCHAR* source) {
    return {~ReadRaw<Source>(source, 0) & 0xFFFF, 0};
}

// A level's quantization in all lanes.
struct QUANTIZER {
    __m128i Mask;
    __m128i Fill;     // with the literal flag
    __m128i Compared; // the bits in which two quantized pixels can differ, in the source's layout
};

template <typename Source>
TARGET_SSE41 FORCEINLINE QUANTIZER CreateQuantizer(const QUANTIZATION& quantization) {
    return {_mm_set1_epi16(static_cast<SHORT>(quantization.Mask)),
            _mm_set1_epi16(static_cast<SHORT>(quantization.Fill | LITERAL_FLAG)),
            Source::SpreadBits(quantization.Mask & ~quantization.Fill)};
}

// The words of eight pixels.
template <typename Source>
TARGET_SSE41 FORCEINLINE __m128i Quantize(const QUANTIZER& quantizer, const UCHAR* source) {
    return _mm_or_si128(_mm_and_si128(Source::ReadOctet(source), quantizer.Mask), quantizer.Fill);
}

// The mask of the pixels of a word that equal their predecessor.
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
TARGET_SSE41 ULONG EncodeStrips(const QUANTIZATION& quantization, const QUANTIZER& quantizer,
                                PACK_CURSOR* position, const UCHAR* source, ULONG index, ULONG pixelCount) {
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
                FindRepeats<Source>(strip + SIZE_T{word} * WORD_PIXELS * Source::Bytes, quantizer.Compared);
        }
        index += words * WORD_PIXELS;
        MASKS_Complete(&masks, words,
                       ReadWord<Source>(source, index, quantization) ==
                           ReadWord<Source>(source, index - 1, quantization));
        MASKS_ClearLone(&masks, words, cursor.Repeats != 0);
        cursor = PACKER_PutStrip(cursor, masks, words, [&](ULONG group) TARGET_SSE41 {
            return Quantize<Source>(quantizer, strip + SIZE_T{group} * GROUP_PIXELS * Source::Bytes);
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
    UNIT_WRITER writer = {destination, destinationEnd, FALSE};
    RUN run = StartStream<Source>(source);
    EncodePixels<Source>(&writer, &run, source, 0, pixelCount, QUANTIZATIONS[level]);
    return FinishStream(&writer, run, destination);
}

template <typename Source>
TARGET_SSE41 ULONGLONG EncodeByTable(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                                     ULONG pixelCount, ULONG level) {
    // Groups are written without bounds checks: the room suffices for one word per pixel, the most they
    // write.
    const SIZE_T room = static_cast<SIZE_T>(destinationEnd - destination);
    if (room < SIZE_T{pixelCount} * 2 + GROUP_STORE_BYTES || pixelCount < GROUP_PIXELS) {
        return EncodeByPixel<Source>(source, destination, destinationEnd, pixelCount, level);
    }

    const QUANTIZATION& quantization = QUANTIZATIONS[level];
    const QUANTIZER quantizer = CreateQuantizer<Source>(quantization);
    UNIT_WRITER writer = {destination, destinationEnd, FALSE};
    RUN run = StartStream<Source>(source);
    EncodePixels<Source>(&writer, &run, source, 0, GROUP_PIXELS, quantization);
    ULONG index = GROUP_PIXELS;
    while (MASKS_CountWords(pixelCount - index) != 0) {
        // The vector form writes a run at its last pixel; a run that has ended already is written here.
        if (ReadWord<Source>(source, index, quantization) != run.Word) {
            PutRun(&writer, run);
            run.Repeats = 0;
        }
        PACK_CURSOR cursor = {writer.Cursor, run.Repeats};
        index = EncodeStrips<Source>(quantization, quantizer, &cursor, source, index, pixelCount);
        writer.Cursor = cursor.Next;
        run = {ReadWord<Source>(source, index - 1, quantization), cursor.Repeats};
        // The vector form also stops before a run that may have to be broken.
        const ULONG byPixel = MASKS_CountWords(pixelCount - index) * WORD_PIXELS;
        EncodePixels<Source>(&writer, &run, source, index, index + byPixel, quantization);
        index += byPixel;
    }
    EncodePixels<Source>(&writer, &run, source, index, pixelCount, quantization);
    return FinishStream(&writer, run, destination);
}

} // namespace

ULONGLONG COMPRESSION_EncodeGroupsByPixel(const UCHAR* source, UCHAR* destination,
                                          const UCHAR* destinationEnd, ULONG pixelCount, ULONG level) {
    return EncodeByPixel<RGB555_SOURCE>(source, destination, destinationEnd, pixelCount, level);
}

ULONGLONG COMPRESSION_EncodeGroupsByTable(const UCHAR* source, UCHAR* destination,
                                          const UCHAR* destinationEnd, ULONG pixelCount, ULONG level) {
    return EncodeByTable<RGB555_SOURCE>(source, destination, destinationEnd, pixelCount, level);
}

ULONGLONG COMPRESSION_EncodeBgrx32GroupsByTable(const UCHAR* source, UCHAR* destination,
                                                const UCHAR* destinationEnd, ULONG pixelCount, ULONG level) {
    return EncodeByTable<BGRX32_SOURCE>(source, destination, destinationEnd, pixelCount, level);
}

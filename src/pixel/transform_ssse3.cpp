// The block routines.
#include "pixel/transform.h"

#include "pixel/reduce_ssse3.h"

namespace {

// Sixteen pixels in four vectors, each pixel in a 32-bit lane: blue, green, red and an undefined byte.
struct PIXEL_BLOCK {
    __m128i Quad[4];
};

TARGET_SSSE3 inline __m128i Load(const UCHAR* address) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(address));
}

struct BGRX32_SOURCE {
    static constexpr SIZE_T BlockBytes = 64;
    TARGET_SSSE3 static inline PIXEL_BLOCK LoadBlock(const UCHAR* source) {
        return {{Load(source), Load(source + 16), Load(source + 32), Load(source + 48)}};
    }
};

struct BGR24_SOURCE {
    static constexpr SIZE_T BlockBytes = 48;
    TARGET_SSSE3 static inline PIXEL_BLOCK LoadBlock(const UCHAR* source) {
        const __m128i spread = _mm_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
        const __m128i first = Load(source);
        const __m128i second = Load(source + 16);
        const __m128i third = Load(source + 32);
        return {{_mm_shuffle_epi8(first, spread),
                 _mm_shuffle_epi8(_mm_alignr_epi8(second, first, 12), spread),
                 _mm_shuffle_epi8(_mm_alignr_epi8(third, second, 8), spread),
                 _mm_shuffle_epi8(_mm_srli_si128(third, 4), spread)}};
    }
};

// The processor reads the converted frame next: an encoder does.
struct CACHED {
    TARGET_SSSE3 static inline void Store(__m128i* address, __m128i value) {
        _mm_store_si128(address, value);
    }
    TARGET_SSSE3 static inline void Finish() {}
};

// The USB controller reads the converted frame next. Non-temporal stores keep it out of the caches and avoid
// reading lines that are overwritten completely. The fence orders them before the buffer is handed over.
struct STREAMED {
    TARGET_SSSE3 static inline void Store(__m128i* address, __m128i value) {
        _mm_stream_si128(address, value);
    }
    TARGET_SSSE3 static inline void Finish() { _mm_sfence(); }
};

template <typename Output, typename Source, const REDUCTION& Rule>
TARGET_SSSE3 void ConvertTo16(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    NT_ASSERT(reinterpret_cast<ULONG_PTR>(destination) % 16 == 0);
    for (SIZE_T done = 0; done < pixelCount; done += PIXELS_PER_BLOCK) {
        const PIXEL_BLOCK block = Source::LoadBlock(source);
        __m128i* out = reinterpret_cast<__m128i*>(destination);
        Output::Store(out, ReduceOctet<Rule>(block.Quad[0], block.Quad[1]));
        Output::Store(out + 1, ReduceOctet<Rule>(block.Quad[2], block.Quad[3]));
        source += Source::BlockBytes;
        destination += PIXELS_PER_BLOCK * 2;
    }
    Output::Finish();
}

template <typename Output, typename Source>
void ConvertToRgb16(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555) {
    if (rgb555 == 1) {
        ConvertTo16<Output, Source, REDUCE_TO_RGB555>(destination, source, pixelCount);
    } else {
        ConvertTo16<Output, Source, REDUCE_TO_RGB565>(destination, source, pixelCount);
    }
}

template <typename Source>
TARGET_SSSE3 void ConvertTo8(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    NT_ASSERT(reinterpret_cast<ULONG_PTR>(destination) % 16 == 0);
    for (SIZE_T done = 0; done < pixelCount; done += PIXELS_PER_BLOCK) {
        const PIXEL_BLOCK block = Source::LoadBlock(source);
        const __m128i low = ReduceOctet<REDUCE_TO_RGB8>(block.Quad[0], block.Quad[1]);
        const __m128i high = ReduceOctet<REDUCE_TO_RGB8>(block.Quad[2], block.Quad[3]);
        _mm_store_si128(reinterpret_cast<__m128i*>(destination), _mm_packus_epi16(low, high));
        source += Source::BlockBytes;
        destination += PIXELS_PER_BLOCK;
    }
}

} // namespace

void PIXEL_Bgr24ToRgb8Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    ConvertTo8<BGR24_SOURCE>(destination, source, pixelCount);
}

void PIXEL_Bgr24ToRgb16Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555) {
    ConvertToRgb16<CACHED, BGR24_SOURCE>(destination, source, pixelCount, rgb555);
}

void PIXEL_Bgrx32ToRgb8Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    ConvertTo8<BGRX32_SOURCE>(destination, source, pixelCount);
}

void PIXEL_Bgrx32ToRgb16Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555) {
    ConvertToRgb16<CACHED, BGRX32_SOURCE>(destination, source, pixelCount, rgb555);
}

void PIXEL_Bgrx32ToRgb16Streamed(UCHAR* destination, const UCHAR* source, ULONG pixelCount, ULONG rgb555) {
    ConvertToRgb16<STREAMED, BGRX32_SOURCE>(destination, source, pixelCount, rgb555);
}

// Streamed, although the tolerant encoder of a compressed 24-bit mode reads the frame once more. Each quad is
// packed so that its bytes are where the three output vectors need them.
TARGET_SSSE3 void PIXEL_Bgrx32ToBgr24Blocks(UCHAR* destination, const UCHAR* source, ULONG pixelCount) {
    NT_ASSERT(reinterpret_cast<ULONG_PTR>(destination) % 16 == 0);
    const __m128i toHigh12 = _mm_setr_epi8(-1, -1, -1, -1, 0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14);
    const __m128i toLow4High8 = _mm_setr_epi8(0, 1, 2, 4, -1, -1, -1, -1, 5, 6, 8, 9, 10, 12, 13, 14);
    const __m128i toLow8High4 = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, -1, -1, -1, -1, 10, 12, 13, 14);
    const __m128i toLow12 = _mm_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
    for (SIZE_T done = 0; done < pixelCount; done += PIXELS_PER_BLOCK) {
        const PIXEL_BLOCK block = BGRX32_SOURCE::LoadBlock(source);
        const __m128i first = _mm_shuffle_epi8(block.Quad[0], toHigh12);
        const __m128i second = _mm_shuffle_epi8(block.Quad[1], toLow4High8);
        const __m128i third = _mm_shuffle_epi8(block.Quad[2], toLow8High4);
        const __m128i fourth = _mm_shuffle_epi8(block.Quad[3], toLow12);
        __m128i* out = reinterpret_cast<__m128i*>(destination);
        STREAMED::Store(out, _mm_alignr_epi8(second, first, 4));
        STREAMED::Store(out + 1, _mm_alignr_epi8(third, second, 8));
        STREAMED::Store(out + 2, _mm_alignr_epi8(fourth, third, 12));
        source += BGRX32_SOURCE::BlockBytes;
        destination += PIXELS_PER_BLOCK * 3;
    }
    STREAMED::Finish();
}

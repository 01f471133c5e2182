#include "pixel/tolerant_encoder.h"

#include "pixel/run_stream.h"

namespace {

constexpr ULONG COMPRESSION_LEVEL_COUNT = 13;
constexpr ULONG NOTHING_TOLERATED = 0xFF000000;

// By compression level. Bits above the pixel's own are set: they are zero in every pixel.
constexpr ULONG TOLERANCE_MASKS[COMPRESSION_LEVEL_COUNT] = {
    NOTHING_TOLERATED, 0xFF010101, 0xFF030303, 0xFF070707, NOTHING_TOLERATED, NOTHING_TOLERATED, 0xFF0F0F0F,
    NOTHING_TOLERATED, 0xFF1F1F1F, 0xFF1F3F1F, 0xFF3F3F3F, 0xFF7F3F7F,        0xFF7F7F7F,
};

// Unwritten bytes of the last 32-bit word of a stream are filled with this.
constexpr ULONG FILL_BYTE = 0x80;

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

// The run being built: the literal it began with and the pixels merged into it since.
struct RUN {
    ULONG Literal;
    ULONG Merged;
};

template <ULONG UnitBytes>
inline void StartRun(UNIT_WRITER* writer, RUN* run, ULONG pixel) {
    COMPRESSION_EmitRepeat<UnitBytes>(writer, run->Literal, run->Merged);
    STREAM_PutBytes<UnitBytes>(writer, LiteralUnit<UnitBytes>(pixel));
    *run = {pixel, 0};
}

template <ULONG UnitBytes>
void EncodeLiterals(UNIT_WRITER* writer, RUN* run, const UCHAR* source, ULONG first, ULONG end) {
    for (ULONG index = first; index < end; index++) {
        StartRun<UnitBytes>(writer, run, ReadPixel<UnitBytes>(source, index));
    }
}

// A pixel within the tolerance joins the run, unless it equals its predecessor and differs from the literal:
// an area of one color is shown in exactly that color from its second pixel on.
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

// Ends the stream with a literal and fills it up to whole 32-bit words.
template <ULONG UnitBytes>
void FinishRuns(UNIT_WRITER* writer, const RUN& run, const UCHAR* destination) {
    if (run.Merged > 0) {
        COMPRESSION_EmitRepeat<UnitBytes>(writer, run.Literal, run.Merged - 1);
        STREAM_PutBytes<UnitBytes>(writer, LiteralUnit<UnitBytes>(run.Literal));
    }
    while ((writer->Cursor - destination) % 4 != 0 && !writer->Overflow) {
        STREAM_PutBytes<1>(writer, FILL_BYTE);
    }
}

template <ULONG UnitBytes>
ULONGLONG EncodeStream(const UCHAR* source, ULONGLONG sourceSize, ULONG pixelCount, UCHAR* destination,
                       const UCHAR* destinationEnd, ULONG mask, BOOLEAN leadIn) {
    const ULONG leadInPixels = leadIn ? (LEAD_IN_BYTES + UnitBytes - 1) / UnitBytes : 1;
    const ULONG literalsEnd = leadInPixels < pixelCount ? leadInPixels : pixelCount;
    const ULONGLONG pixelsInSource = sourceSize / UnitBytes + (sourceSize % UnitBytes != 0);
    ULONG mergeableEnd = pixelsInSource < pixelCount ? static_cast<ULONG>(pixelsInSource) : pixelCount;
    mergeableEnd = mergeableEnd > literalsEnd ? mergeableEnd : literalsEnd;

    UNIT_WRITER writer = {destination, destinationEnd, FALSE};
    RUN run = {};
    EncodeLiterals<UnitBytes>(&writer, &run, source, 0, literalsEnd);
    EncodePixels<UnitBytes>(&writer, &run, source, literalsEnd, mergeableEnd, mask);
    EncodeLiterals<UnitBytes>(&writer, &run, source, mergeableEnd, pixelCount);
    FinishRuns<UnitBytes>(&writer, run, destination);
    return writer.Overflow ? 0 : static_cast<ULONGLONG>(writer.Cursor - destination);
}

} // namespace

ULONG COMPRESSION_GetToleranceMask(ULONG compressionLevel) {
    return compressionLevel < COMPRESSION_LEVEL_COUNT ? TOLERANCE_MASKS[compressionLevel] : NOTHING_TOLERATED;
}

ULONGLONG COMPRESSION_EncodeRuns(const UCHAR* source, ULONGLONG sourceSize, ULONG pixelCount, ULONG unitBytes,
                                 UCHAR* destination, const UCHAR* destinationEnd, ULONG toleranceMask,
                                 BOOLEAN leadIn) {
    switch (unitBytes) {
    case 1:
        return EncodeStream<1>(source, sourceSize, pixelCount, destination, destinationEnd, toleranceMask,
                               leadIn);
    case 2:
        return EncodeStream<2>(source, sourceSize, pixelCount, destination, destinationEnd, toleranceMask,
                               leadIn);
    default:
        return EncodeStream<3>(source, sourceSize, pixelCount, destination, destinationEnd, toleranceMask,
                               leadIn);
    }
}

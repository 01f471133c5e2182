#include "pixel/group_level.h"

#include "pixel/group_encoder.h"

namespace {

// The level becomes finer by one after more than so many consecutive small frames.
constexpr ULONG SMALL_FRAMES_FOR_FINER_LEVEL = 120;

using ENCODE_PASS = ULONGLONG(const UCHAR* source, UCHAR* destination, const UCHAR* destinationEnd,
                              ULONG pixelCount, ULONG level);

// A stream shorter than 80 % of the target counts towards a finer level; a longer one ends the series.
void NoteFrameWithinTarget(GROUP_ENCODER_STATE* state, ULONGLONG length, ULONG targetSize) {
    if (state->QuantLevel == 0) {
        return;
    }
    if (length * 5 >= ULONGLONG{targetSize} * 4) {
        state->QuantSmallFrameCount = 0;
    } else if (++state->QuantSmallFrameCount > SMALL_FRAMES_FOR_FINER_LEVEL) {
        state->QuantLevel--;
        state->QuantSmallFrameCount = 0;
    }
}

// From level 0 the levels tried are 0, 6, 9, 10 and 11.
ULONGLONG EncodeToTarget(GROUP_ENCODER_STATE* state, ENCODE_PASS* encode, const UCHAR* source,
                         UCHAR* destination, const UCHAR* destinationEnd, ULONG pixelCount,
                         ULONG targetSize) {
    if (pixelCount == 0) {
        return 0;
    }
    for (;;) {
        // A stream that does not fit is too long, whatever the target.
        const ULONGLONG length = encode(source, destination, destinationEnd, pixelCount, state->QuantLevel);
        if (length != 0 && length <= targetSize) {
            NoteFrameWithinTarget(state, length, targetSize);
            return length;
        }
        if (state->QuantLevel >= QUANT_LEVEL_COARSEST) {
            return length;
        }
        state->QuantLevel += (QUANT_LEVEL_COARSEST + 1 - state->QuantLevel) / 2;
    }
}

} // namespace

ULONGLONG COMPRESSION_EncodeRgb555Groups(GROUP_ENCODER_STATE* state, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize) {
    return EncodeToTarget(state, COMPRESSION_EncodeGroupsByTable, source, destination, destinationEnd,
                          pixelCount, targetSize);
}

ULONGLONG COMPRESSION_EncodeBgrx32Groups(GROUP_ENCODER_STATE* state, const UCHAR* source, UCHAR* destination,
                                         const UCHAR* destinationEnd, ULONG pixelCount, ULONG targetSize) {
    return EncodeToTarget(state, COMPRESSION_EncodeBgrx32GroupsByTable, source, destination, destinationEnd,
                          pixelCount, targetSize);
}

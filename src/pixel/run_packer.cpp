#include "pixel/run_packer.h"

namespace {

// Moves the units of the pixels that write one together.
void BuildPackRow(ULONG continued, UCHAR (&shuffle)[16], PACK_STEP* step) {
    constexpr UCHAR nothing = 0x80;
    ULONG bytes = 0;
    ULONG open = 0;
    RtlFillMemory(shuffle, sizeof(shuffle), nothing);
    for (ULONG lane = 0; lane < GROUP_PIXELS; lane++) {
        if (continued >> lane & 1) {
            open++;
            continue;
        }
        shuffle[bytes++] = static_cast<UCHAR>(lane * 2);
        shuffle[bytes++] = static_cast<UCHAR>(lane * 2 + 1);
        open = 0;
    }
    step->Bytes = static_cast<UCHAR>(bytes);
    step->Open = static_cast<UCHAR>(open);
    step->AllOpen = open == GROUP_PIXELS ? -1 : 0;
}

// The length of the run up to and with each repeat.
void BuildCountRow(ULONG repeats, USHORT (&counts)[GROUP_PIXELS]) {
    constexpr USHORT literal = 0xFFFF;
    USHORT run = 0;
    for (ULONG lane = 0; lane < GROUP_PIXELS; lane++) {
        run = repeats >> lane & 1 ? run + 1 : 0;
        counts[lane] = run != 0 ? run : literal;
    }
}

} // namespace

void PACKER_BuildTables(PIXEL_CONTEXT* pixel) {
    for (ULONG mask = 0; mask < GROUP_MASK_COUNT; mask++) {
        BuildPackRow(mask, pixel->Tables.GroupPackShuffle[mask], &pixel->GroupWordCount[mask]);
        BuildCountRow(mask, pixel->Tables.GroupCountShuffle[mask]);
    }
}

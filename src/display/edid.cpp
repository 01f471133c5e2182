#include "display/edid.h"

#include "device/mode_limits.h"
#include "device/usb_context.h"
#include "display/mode_tables.h"
#include "display/monitor_modes.h"

namespace {

constexpr UCHAR EDID_HEADER[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
constexpr ULONG ESTABLISHED_TIMING_OFFSET = 35;

// CEA-861 extension block.
constexpr UCHAR CEA_TAG = 0x02;
constexpr UCHAR CEA_REVISION = 3;
constexpr ULONG CEA_DETAILED_OFFSET = 2; // byte that holds where the detailed timings start
constexpr ULONG CEA_FLAGS_OFFSET = 3;
constexpr ULONG CEA_DATA_BLOCKS_OFFSET = 4;
constexpr ULONG CEA_VIDEO_BLOCK = 2;
constexpr ULONG CEA_VENDOR_BLOCK = 3;
constexpr ULONG CEA_LAST_KNOWN_BLOCK = 4; // speaker allocation
constexpr UCHAR HDMI_VENDOR_ID[3] = {0x03, 0x0C, 0x00};
constexpr ULONG VIC_1280X720 = 4;
constexpr ULONG VIC_1920X1080 = 16;

constexpr ULONG OFFERED_REFRESH = 60;

// A standard timing that replaces one the adapter cannot drive: 1024 x 768 at 120 Hz, which no client
// has in its list. Empty entries get it, too.
constexpr UCHAR REFUSED_STANDARD_TIMING[2] = {0x61, 0x7C};
constexpr UCHAR UNUSED_STANDARD_TIMING = 0x01;

// A data block of a CEA extension. `End` is the first offset behind it and inside the 128 bytes.
struct CEA_DATA_BLOCK {
    ULONG Tag;
    ULONG Length;
    ULONG Start; // of the payload
    ULONG End;
};

CEA_DATA_BLOCK ReadDataBlock(const UCHAR* block, ULONG offset) {
    const ULONG header = block[offset];
    const ULONG length = header & 0x1F;
    const ULONG start = offset + 1;
    const ULONG end = start + length < EDID_BLOCK_SIZE ? start + length : EDID_BLOCK_SIZE;
    return {.Tag = header >> 5, .Length = length, .Start = start, .End = end};
}

// Where the data blocks of an extension end: its detailed timings follow, or the block is over.
ULONG FindDataBlocksEnd(const UCHAR* block) {
    const ULONG detailed = block[CEA_DETAILED_OFFSET];
    return detailed < EDID_BLOCK_SIZE ? detailed : EDID_BLOCK_SIZE;
}

// The number of extension blocks that EdidBlocks holds of this EDID.
ULONG CountExtensions(const MONITOR_EDID* edid) {
    const ULONG count = edid->EdidBlocks[0][EDID_EXTENSION_COUNT_OFFSET];
    return count < EDID_BLOCK_COUNT ? count : EDID_LAST_BLOCK;
}

// At least one of the four bytes at `offset` that lie inside the block is not 0.
BOOLEAN HasDescriptor(const UCHAR* block, ULONG offset) {
    for (ULONG i = offset; i < offset + 4 && i < EDID_BLOCK_SIZE; i++) {
        if (block[i] != 0) {
            return TRUE;
        }
    }
    return FALSE;
}

BOOLEAN IsHdmiVendorBlock(const UCHAR* block, const CEA_DATA_BLOCK& data) {
    return data.Start + sizeof(HDMI_VENDOR_ID) <= EDID_BLOCK_SIZE &&
           RtlEqualMemory(&block[data.Start], HDMI_VENDOR_ID, sizeof(HDMI_VENDOR_ID));
}

enum class EXTENSION_CHECK { Passed, Failed, EndsCheck };

EXTENSION_CHECK CheckExtension(const UCHAR* block) {
    if (block[0] != CEA_TAG) {
        return EXTENSION_CHECK::Passed;
    }
    const ULONG detailed = block[CEA_DETAILED_OFFSET];
    if (block[1] != CEA_REVISION || detailed == 0 || block[CEA_FLAGS_OFFSET] == 0 ||
        !HasDescriptor(block, detailed)) {
        return EXTENSION_CHECK::Failed;
    }
    const ULONG end = FindDataBlocksEnd(block);
    for (ULONG offset = CEA_DATA_BLOCKS_OFFSET; offset < end;) {
        const CEA_DATA_BLOCK data = ReadDataBlock(block, offset);
        if (data.Tag == 0 || data.Tag > CEA_LAST_KNOWN_BLOCK || data.Length == 0) {
            // Unknown data block: accept what was checked before and stop.
            return EXTENSION_CHECK::EndsCheck;
        }
        if (data.Tag == CEA_VENDOR_BLOCK && !IsHdmiVendorBlock(block, data)) {
            return EXTENSION_CHECK::Failed;
        }
        offset += data.Length + 1;
    }
    return EXTENSION_CHECK::Passed;
}

UCHAR* FindDetailedTiming(MONITOR_EDID* edid, ULONG slot) {
    return &edid->EdidBlocks[0][EDID_DETAILED_TIMING_OFFSET + slot * EDID_DETAILED_TIMING_SIZE];
}

// In units of 10 kHz, for that many pixels and lines in all, plus 0.4 Hz for the rounding in the client.
// A clock beyond the field's 16 bits becomes the largest value: every mode of the adapter is far below it.
ULONG PixelClockFor(ULONG total) {
    const ULONGLONG pixels = total;
    const ULONGLONG clock = (pixels * 2 / 5 + pixels * OFFERED_REFRESH) / 10000;
    return clock <= 0xFFFF ? static_cast<ULONG>(clock) : 0xFFFF;
}

void WritePixelClock(UCHAR* timing, ULONG clock) {
    timing[0] = static_cast<UCHAR>(clock);
    timing[1] = static_cast<UCHAR>(clock >> 8);
}

void FixChecksum(MONITOR_EDID* edid) {
    UCHAR* block = edid->EdidBlocks[0];
    UCHAR sum = 0;
    for (ULONG i = 0; i < EDID_CHECKSUM_OFFSET; i++) {
        sum = static_cast<UCHAR>(sum + block[i]);
    }
    block[EDID_CHECKSUM_OFFSET] = static_cast<UCHAR>(0x100 - sum);
}

void WriteEstablishedTimings(MONITOR_EDID* edid, UCHAR first, UCHAR second) {
    UCHAR* established = &edid->EdidBlocks[0][ESTABLISHED_TIMING_OFFSET];
    established[0] = first;
    established[1] = second;
    established[2] = 0;
}

void OfferSingleMode(MONITOR_EDID* edid, ULONG filter) {
    struct SINGLE_MODE {
        ULONG Filter;
        UCHAR Established[2];
        ULONG Width;
        ULONG Height;
    };
    constexpr SINGLE_MODE MODES[] = {
        {EDID_FILTER_800X600, {0x01, 0x00}, 800, 600},
        {EDID_FILTER_640X480, {0x20, 0x00}, 640, 480},
        {EDID_FILTER_1024X768, {0x00, 0x08}, 1024, 768},
    };
    for (const SINGLE_MODE& mode : MODES) {
        if (mode.Filter == filter) {
            WriteEstablishedTimings(edid, mode.Established[0], mode.Established[1]);
            RtlFillMemory(&edid->EdidBlocks[0][EDID_STANDARD_TIMING_OFFSET], 2 * EDID_STANDARD_TIMING_COUNT,
                          UNUSED_STANDARD_TIMING);
            EDID_WriteDetailedTiming(edid, 0, mode.Width, mode.Height);
        }
    }
}

// 640 x 480, 800 x 600 and 1024 x 768 at 60 Hz: what every monitor shows and the adapter drives.
void RewriteEstablishedTimings(MONITOR_EDID* edid) {
    WriteEstablishedTimings(edid, 0x21, 0x08);
    MONITOR_AddMode(edid, 1024, 768, OFFERED_REFRESH);
}

void RewriteStandardTimings(MONITOR_EDID* edid) {
    for (ULONG i = 0; i < EDID_STANDARD_TIMING_COUNT; i++) {
        UCHAR* timing = &edid->EdidBlocks[0][EDID_STANDARD_TIMING_OFFSET + 2 * i];
        ULONG width;
        ULONG height;
        EDID_DecodeStandardTiming(timing[0], timing[1] >> 6u, &width, &height);
        const ULONG refresh = (timing[1] & 0x3Fu) + 60;
        if (MODE_IsSupported(width, height, refresh)) {
            MONITOR_AddMode(edid, width, height, refresh);
        } else {
            timing[0] = REFUSED_STANDARD_TIMING[0];
            timing[1] = REFUSED_STANDARD_TIMING[1];
        }
    }
}

// A timing with a clock but no pixels: it describes nothing, and a client might divide by its size. It
// becomes a dummy descriptor (E-EDID 1.4, 3.10.3.11).
void DisableTiming(UCHAR* timing) {
    constexpr UCHAR DUMMY_DESCRIPTOR_TAG = 0x10;
    RtlZeroMemory(timing, EDID_DETAILED_TIMING_SIZE);
    timing[3] = DUMMY_DESCRIPTOR_TAG;
}

void RewriteDetailedTiming(MONITOR_EDID* edid, ULONG slot, const EDID_DETAILED_TIMING& timing) {
    UCHAR* bytes = FindDetailedTiming(edid, slot);
    const ULONG total = (timing.HorizontalActive + timing.HorizontalBlanking) *
                        (timing.VerticalActive + timing.VerticalBlanking);
    if (total == 0) {
        DisableTiming(bytes);
        return;
    }
    if (timing.PixelClock * 10000 / total != OFFERED_REFRESH) {
        WritePixelClock(bytes, PixelClockFor(total));
    }
    if (timing.HorizontalActive * timing.VerticalActive > MODE_MAX_PIXELS) {
        EDID_WriteDetailedTiming(edid, 0, MODE_LARGEST_WIDTH, MODE_LARGEST_HEIGHT);
        MONITOR_AddMode(edid, MODE_LARGEST_WIDTH, MODE_LARGEST_HEIGHT, OFFERED_REFRESH);
    } else {
        MONITOR_AddMode(edid, timing.HorizontalActive, timing.VerticalActive, OFFERED_REFRESH);
    }
}

void RewriteDetailedTimings(MONITOR_EDID* edid) {
    for (ULONG slot = 0; slot < EDID_DETAILED_TIMING_COUNT; slot++) {
        EDID_DETAILED_TIMING timing;
        EDID_ReadDetailedTiming(edid, slot, &timing);
        if (timing.PixelClock == 0) {
            return;
        }
        RewriteDetailedTiming(edid, slot, timing);
    }
}

BOOLEAN IsListed(const MONITOR_EDID* edid, ULONG width, ULONG height) {
    for (ULONG i = 0; i < edid->MonitorModeCount; i++) {
        if (edid->MonitorModes[i].Width == width && edid->MonitorModes[i].Height == height) {
            return TRUE;
        }
    }
    return FALSE;
}

void ChoosePreferredTiming(MONITOR_EDID* edid) {
    MONITOR_MODE preferred = {};
    for (ULONG i = 0; i < edid->MonitorModeCount; i++) {
        const MONITOR_MODE& mode = edid->MonitorModes[i];
        if (mode.Width * mode.Height >= preferred.Width * preferred.Height) {
            preferred = mode;
        }
    }
    // A monitor that lists both is a wide one.
    if (preferred.Width == 1600 && preferred.Height == 1200 && IsListed(edid, 1680, 1050)) {
        preferred = {1680, 1050, OFFERED_REFRESH};
    }
    if (edid->MonitorModeCount != 0) {
        EDID_WriteDetailedTiming(edid, 0, preferred.Width, preferred.Height);
    }
}

} // namespace

void EDID_Clear(MONITOR_EDID* edid) {
    RtlZeroMemory(edid->EdidBlocks, sizeof(edid->EdidBlocks));
}

BOOLEAN EDID_Validate(const MONITOR_EDID* edid) {
    if (!RtlEqualMemory(edid->EdidBlocks[0], EDID_HEADER, sizeof(EDID_HEADER))) {
        return FALSE;
    }
    const ULONG extensions = CountExtensions(edid);
    for (ULONG block = 1; block <= extensions; block++) {
        const EXTENSION_CHECK check = CheckExtension(edid->EdidBlocks[block]);
        if (check != EXTENSION_CHECK::Passed) {
            return check == EXTENSION_CHECK::EndsCheck;
        }
    }
    return TRUE;
}

ULONG EDID_FindCeaBlock(const MONITOR_EDID* edid) {
    const ULONG extensions = CountExtensions(edid);
    for (ULONG block = 1; block <= extensions; block++) {
        if (edid->EdidBlocks[block][0] == CEA_TAG && edid->EdidBlocks[block][1] == CEA_REVISION) {
            return block;
        }
    }
    return 0;
}

void EDID_AddCeaModes(MONITOR_EDID* edid, ULONG block) {
    if (block > EDID_LAST_BLOCK) {
        return;
    }
    const UCHAR* bytes = edid->EdidBlocks[block];
    if (bytes[CEA_DETAILED_OFFSET] <= CEA_DATA_BLOCKS_OFFSET || bytes[CEA_FLAGS_OFFSET] == 0) {
        return;
    }
    const ULONG end = FindDataBlocksEnd(bytes);
    for (ULONG offset = CEA_DATA_BLOCKS_OFFSET; offset < end;) {
        const CEA_DATA_BLOCK data = ReadDataBlock(bytes, offset);
        for (ULONG i = data.Start; data.Tag == CEA_VIDEO_BLOCK && i < data.End; i++) {
            const ULONG code = bytes[i] & 0x7Fu;
            if (code == VIC_1280X720) {
                MONITOR_AddMode(edid, 1280, 720, OFFERED_REFRESH);
            } else if (code == VIC_1920X1080) {
                MONITOR_AddMode(edid, 1920, 1080, OFFERED_REFRESH);
            }
        }
        offset += data.Length + 1;
    }
}

void EDID_Rewrite(MONITOR_EDID* edid, USHORT bcdUsb, ULONG filter) {
    if (bcdUsb != USB_BCD_SUPER_SPEED_LINK) {
        OfferSingleMode(edid, filter);
    } else {
        RewriteEstablishedTimings(edid);
        RewriteStandardTimings(edid);
        RewriteDetailedTimings(edid);
        ChoosePreferredTiming(edid);
    }
    FixChecksum(edid);
}

void EDID_DecodeStandardTiming(UCHAR byte0, ULONG aspect, ULONG* width, ULONG* height) {
    struct ASPECT_RATIO {
        ULONG Across;
        ULONG Down;
    };
    constexpr ASPECT_RATIO RATIOS[4] = {{16, 10}, {4, 3}, {5, 4}, {16, 9}};
    const ASPECT_RATIO& ratio = RATIOS[aspect & 3];
    *width = byte0 * 8u + 248;
    *height = *width / ratio.Across * ratio.Down;
}

void EDID_ReadDetailedTiming(const MONITOR_EDID* edid, ULONG slot, EDID_DETAILED_TIMING* timing) {
    *timing = {};
    if (slot >= EDID_DETAILED_TIMING_COUNT) {
        return;
    }
    const UCHAR* bytes = &edid->EdidBlocks[0][EDID_DETAILED_TIMING_OFFSET + slot * EDID_DETAILED_TIMING_SIZE];
    timing->PixelClock = bytes[0] | bytes[1] << 8u;
    timing->HorizontalActive = bytes[2] | (bytes[4] & 0xF0u) << 4;
    timing->HorizontalBlanking = bytes[3] | (bytes[4] & 0x0Fu) << 8;
    timing->VerticalActive = bytes[5] | (bytes[7] & 0xF0u) << 4;
    timing->VerticalBlanking = bytes[6] | (bytes[7] & 0x0Fu) << 8;
}

void EDID_WriteDetailedTiming(MONITOR_EDID* edid, ULONG slot, ULONG width, ULONG height) {
    if (slot >= EDID_DETAILED_TIMING_COUNT) {
        return;
    }
    UCHAR* timing = FindDetailedTiming(edid, slot);
    WritePixelClock(timing, PixelClockFor(width * height));
    timing[2] = static_cast<UCHAR>(width);
    timing[3] = 0;
    timing[4] = static_cast<UCHAR>(width >> 8 << 4);
    timing[5] = static_cast<UCHAR>(height);
    timing[6] = 0;
    timing[7] = static_cast<UCHAR>(height >> 8 << 4);
}

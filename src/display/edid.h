// EDID (VESA E-EDID 1.3/1.4, CEA-861 extensions): checking it, collecting the modes it offers, and rewriting
// its base block so that it offers only what the adapter can drive.
//
// Pure functions on a MONITOR_EDID; any IRQL. The blocks come from outside: nothing in them is trusted, and
// nothing outside the current block is read.
#pragma once

#include "base/annotations.h"
#include "device/monitor_edid.h"

#include <ntddk.h>

constexpr ULONG EDID_EXTENSION_COUNT_OFFSET = 126;
constexpr ULONG EDID_CHECKSUM_OFFSET = 127;
constexpr ULONG EDID_DETAILED_TIMING_OFFSET = 54;
constexpr ULONG EDID_DETAILED_TIMING_SIZE = 18;
constexpr ULONG EDID_DETAILED_TIMING_COUNT = 4;
constexpr ULONG EDID_STANDARD_TIMING_OFFSET = 38;
constexpr ULONG EDID_STANDARD_TIMING_COUNT = 8;
constexpr ULONG EDID_LAST_BLOCK = EDID_BLOCK_COUNT - 1;

// FilterEdidTableEnable on links slower than USB 3: the one mode that is offered.
enum EDID_FILTER : ULONG {
    EDID_FILTER_OFF = 0,
    EDID_FILTER_800X600 = 1,
    EDID_FILTER_640X480 = 2,
    EDID_FILTER_1024X768 = 3,
};

// Empties all blocks, so that nothing of an earlier monitor is used.
void EDID_Clear(MONITOR_EDID* edid);

// Whether header and CEA extensions are well-formed. Checksums are not checked.
_Must_inspect_result_
[[nodiscard]] BOOLEAN EDID_Validate(const MONITOR_EDID* edid);

// The first extension block that is CEA-861 revision 3, or 0 when there is none.
ULONG EDID_FindCeaBlock(const MONITOR_EDID* edid);

// Adds the modes of a CEA block's video descriptors that the adapter can drive. `block`: 1 to
// EDID_LAST_BLOCK.
void EDID_AddCeaModes(MONITOR_EDID* edid, ULONG block);

// Rewrites the base block for a link of that bcdUSB under a FilterEdidTableEnable that is not 0, and corrects
// its checksum.
void EDID_Rewrite(MONITOR_EDID* edid, USHORT bcdUsb, ULONG filter);

// A standard timing's size from its first byte and the top two bits of its second.
void EDID_DecodeStandardTiming(UCHAR byte0, ULONG aspect, _Out_ ULONG* width, _Out_ ULONG* height);

// What a detailed timing in use describes, its clock in units of 10 kHz.
struct EDID_DETAILED_TIMING {
    ULONG PixelClock; // 0: the slot holds no timing
    ULONG HorizontalActive;
    ULONG HorizontalBlanking;
    ULONG VerticalActive;
    ULONG VerticalBlanking;
};
void EDID_ReadDetailedTiming(const MONITOR_EDID* edid, ULONG slot, _Out_ EDID_DETAILED_TIMING* timing);

// Describes a mode at 60 Hz in a detailed timing slot (0 to 3), without blanking. What else the slot holds
// stays.
void EDID_WriteDetailedTiming(MONITOR_EDID* edid, ULONG slot, ULONG width, ULONG height);

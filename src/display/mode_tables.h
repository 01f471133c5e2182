// The display modes that the adapter can be programmed for. Pure functions; any IRQL.
#pragma once

#include "base/annotations.h"

#include <ntddk.h>

// What the adapter must be told of one mode. Totals, syncs and porches are in pixels and in lines.
struct VIDEO_MODE_ENTRY {
    ULONG Width;
    ULONG Height;
    ULONG Refresh; // Hz
    ULONG HorizontalTotal;
    ULONG HorizontalSync;
    ULONG HorizontalBackPorch;
    ULONG VerticalTotal;
    ULONG VerticalSync;
    ULONG VerticalBackPorch;
    ULONG HorizontalSizeImage; // the four timing register images follow from the values above
    ULONG HorizontalSyncImage;
    ULONG VerticalSizeImage;
    ULONG VerticalSyncImage;
    ULONG PllWord; // 10 MHz x bits 16..23 / bits 0..7 is the pixel clock, or twice it when bit 9 is set
};

// Tables 0, 2 and 4 are for 3, 2 and 1 bytes per pixel; 1, 3 and 5 are variants that the driver never
// selects. They differ only in transfer budgets that the driver does not need, so one list has the modes of
// all six.
constexpr ULONG MODE_TABLE_COUNT = 6;
constexpr ULONG MODE_TABLE_24_BIT = 0;
constexpr ULONG MODE_TABLE_16_BIT = 2;
constexpr ULONG MODE_TABLE_8_BIT = 4;

// Copies the first entry whose width, height and refresh all match. FALSE when there is none, or no such
// table.
_Success_(return != FALSE)
_Must_inspect_result_
[[nodiscard]] BOOLEAN MODE_LookupTable(ULONG table, ULONG width, ULONG height, ULONG refresh,
                                       _Out_ VIDEO_MODE_ENTRY* entry);

// Copies entry `index`, counted from 0. FALSE beyond the last.
_Success_(return != FALSE)
_Must_inspect_result_
[[nodiscard]] BOOLEAN MODE_GetEntry(ULONG index, _Out_ VIDEO_MODE_ENTRY* entry);

// Whether a monitor may offer the mode: 60 Hz, in the tables, and small enough for a frame.
_Must_inspect_result_
[[nodiscard]] BOOLEAN MODE_IsSupported(ULONG width, ULONG height, ULONG refresh);

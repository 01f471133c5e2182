// One pixel of 4 bytes at any address.
#pragma once

#include <ntddk.h>

inline ULONG CURSOR_LoadPixel(const UCHAR* address) {
    ULONG pixel;
    RtlCopyMemory(&pixel, address, sizeof(pixel));
    return pixel;
}

inline void CURSOR_StorePixel(UCHAR* address, ULONG pixel) {
    RtlCopyMemory(address, &pixel, sizeof(pixel));
}

// The largest frame. The driver's buffers, the modes offered to the client and the presents accepted from it
// follow from these numbers.
#pragma once

#include <ntddk.h>

constexpr ULONG MODE_LARGEST_WIDTH = 2048;
constexpr ULONG MODE_LARGEST_HEIGHT = 1152;
constexpr ULONG MODE_MAX_PIXELS = MODE_LARGEST_WIDTH * MODE_LARGEST_HEIGHT;

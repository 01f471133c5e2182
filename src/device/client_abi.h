// What the driver and its one client, the display driver above it, have in common: the exchange of entry
// points, the commands and their records. Little-endian, 64-bit pointers.
#pragma once

#include "device/mode_limits.h"

#include <ntddk.h>

// FILE_DEVICE_UNKNOWN, function 0, METHOD_NEITHER, FILE_ANY_ACCESS; an internal device control.
constexpr ULONG IOCTL_EXCHANGE_INTERFACE = 0x220003;

// {3F6E8110-D30E-4098-9FDA-91847EDA79E8}: enabled while a monitor is attached.
constexpr GUID GUID_DEVINTERFACE_USB_DISPLAY = {
    0x3F6E8110, 0xD30E, 0x4098, {0x9F, 0xDA, 0x91, 0x84, 0x7E, 0xDA, 0x79, 0xE8}};

using COMMAND_ENTRY = NTSTATUS(VOID* context, ULONG code, VOID* input, ULONGLONG inputLength, VOID* output,
                               ULONGLONG outputLength, ULONG* bytesReturned);
using RELEASE_ENTRY = VOID(VOID* context);

struct INTERFACE_RECORD {
    ULONG Version; // 1 in the driver's record
    ULONG Reserved;
    ULONGLONG Size; // 40 in the driver's record
    VOID* Context;
    COMMAND_ENTRY* CommandEntry;
    RELEASE_ENTRY* ReleaseEntry;
};
static_assert(sizeof(INTERFACE_RECORD) == 40);

// Commands of the client to the driver.
enum CLIENT_COMMAND : ULONG {
    CMD_QUERY_EDID = 0,
    CMD_CREATE_FRAME_BUFFER = 1,
    CMD_DESTROY_FRAME_BUFFER = 2,
    CMD_PRESENT_FRAME = 3,
    CMD_SET_POINTER = 4,
    CMD_SET_DISPLAY_POWER = 5,
    CMD_SET_CLIENT_VALUE = 6,
    CMD_SET_ROTATION = 8,
};

// The command of the driver to the client, from inside CMD_PRESENT_FRAME. Until it returns, the frame buffer
// is the client's, and another present of the same frame buffer waits for it: the client does not wait, in
// here, for a thread of its own that presents.
constexpr ULONG CLIENT_CMD_FILL_FRAME_BUFFER = 0;

struct FRAME_BUFFER_REQUEST {
    ULONGLONG Identifier;
    ULONGLONG ClientValue;
    ULONGLONG ByteSize;
    ULONG Width;
    ULONG Height;
    ULONG Pitch; // bytes from one row to the next
    ULONG Unused;
};
static_assert(sizeof(FRAME_BUFFER_REQUEST) == 40);

struct PRESENT_REQUEST {
    ULONGLONG Identifier;
    ULONGLONG ClientValue; // handed back in the fill request
    ULONGLONG ByteSize;
    ULONG FrameKey;
    ULONG Width;
    ULONG Height;
    ULONG Pitch;
    ULONG Unused[2];
};
static_assert(sizeof(PRESENT_REQUEST) == 48);

struct POINTER_POSITION {
    ULONG Unused;
    ULONG X; // top-left corner of the shape, desktop coordinates; may be negative in two's complement
    ULONG Y;
    ULONG Flags; // bit 0: visible
};
static_assert(sizeof(POINTER_POSITION) == 16);

enum POINTER_TYPE : ULONG {
    POINTER_MONOCHROME = 1,
    POINTER_COLOR_ALPHA = 2,
    POINTER_COLOR_MASKED = 4,
};

struct POINTER_SHAPE {
    ULONG Type;
    ULONG Width;
    ULONG Height;
    ULONG Pitch; // bytes per row
    ULONGLONG Unused;
    const VOID* Bits;
    ULONG HotSpotX; // not used: the position is the image's top-left corner
    ULONG HotSpotY;
};
static_assert(sizeof(POINTER_SHAPE) == 40);

struct POINTER_REQUEST {
    const POINTER_POSITION* Position; // may be null
    const POINTER_SHAPE* Shape;       // may be null
};
static_assert(sizeof(POINTER_REQUEST) == 16);

struct DISPLAY_POWER_REQUEST {
    ULONG Unused;
    UCHAR On;
    UCHAR Unused2[3];
};
static_assert(sizeof(DISPLAY_POWER_REQUEST) == 8);

enum DISPLAY_ROTATION : ULONG {
    ROTATION_NONE = 1,
    ROTATION_QUARTER = 2,
    ROTATION_HALF = 3,
    ROTATION_THREE_QUARTERS = 4,
};

struct ROTATION_REQUEST {
    UCHAR Unused[24];
    ULONG Rotation;
    ULONG Unused2;
};
static_assert(sizeof(ROTATION_REQUEST) == 32);

struct FRAME_FILL_REQUEST {
    ULONGLONG Identifier;
    ULONGLONG ClientValue;
    VOID* PixelBuffer;
    ULONGLONG ByteSize;
    ULONGLONG Zero;
};
static_assert(sizeof(FRAME_FILL_REQUEST) == 40);

constexpr ULONG EDID_BLOCK_SIZE = 128;
constexpr ULONGLONG PRESENT_MAX_BYTES = ULONGLONG{MODE_MAX_PIXELS} * 4;

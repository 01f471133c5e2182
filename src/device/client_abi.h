// The interface between the driver and its one client, the display driver above it: the exchange of entry
// points, the commands and their records. Little-endian, 64-bit pointers.
#pragma once

#include "device/mode_limits.h"

#include <ntddk.h>

// The client has its own declarations of these records: sizes and offsets are fixed, in bytes.
#define ABI_SIZE(record, bytes) static_assert(sizeof(record) == (bytes))
#define ABI_OFFSET(record, field, bytes) static_assert(offsetof(record, field) == (bytes))

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
ABI_SIZE(INTERFACE_RECORD, 40);
ABI_OFFSET(INTERFACE_RECORD, Version, 0);
ABI_OFFSET(INTERFACE_RECORD, Reserved, 4);
ABI_OFFSET(INTERFACE_RECORD, Size, 8);
ABI_OFFSET(INTERFACE_RECORD, Context, 16);
ABI_OFFSET(INTERFACE_RECORD, CommandEntry, 24);
ABI_OFFSET(INTERFACE_RECORD, ReleaseEntry, 32);

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
// belongs to the client, and another present of the same frame buffer waits for it. Inside this command the
// client must not wait for a thread of its own that presents.
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
ABI_SIZE(FRAME_BUFFER_REQUEST, 40);
ABI_OFFSET(FRAME_BUFFER_REQUEST, Identifier, 0);
ABI_OFFSET(FRAME_BUFFER_REQUEST, ClientValue, 8);
ABI_OFFSET(FRAME_BUFFER_REQUEST, ByteSize, 16);
ABI_OFFSET(FRAME_BUFFER_REQUEST, Width, 24);
ABI_OFFSET(FRAME_BUFFER_REQUEST, Height, 28);
ABI_OFFSET(FRAME_BUFFER_REQUEST, Pitch, 32);
ABI_OFFSET(FRAME_BUFFER_REQUEST, Unused, 36);

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
ABI_SIZE(PRESENT_REQUEST, 48);
ABI_OFFSET(PRESENT_REQUEST, Identifier, 0);
ABI_OFFSET(PRESENT_REQUEST, ClientValue, 8);
ABI_OFFSET(PRESENT_REQUEST, ByteSize, 16);
ABI_OFFSET(PRESENT_REQUEST, FrameKey, 24);
ABI_OFFSET(PRESENT_REQUEST, Width, 28);
ABI_OFFSET(PRESENT_REQUEST, Height, 32);
ABI_OFFSET(PRESENT_REQUEST, Pitch, 36);
ABI_OFFSET(PRESENT_REQUEST, Unused, 40);

struct POINTER_POSITION {
    ULONG Unused;
    ULONG X; // top-left corner of the shape, desktop coordinates; may be negative in two's complement
    ULONG Y;
    ULONG Flags; // bit 0: visible
};
ABI_SIZE(POINTER_POSITION, 16);
ABI_OFFSET(POINTER_POSITION, Unused, 0);
ABI_OFFSET(POINTER_POSITION, X, 4);
ABI_OFFSET(POINTER_POSITION, Y, 8);
ABI_OFFSET(POINTER_POSITION, Flags, 12);

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
ABI_SIZE(POINTER_SHAPE, 40);
ABI_OFFSET(POINTER_SHAPE, Type, 0);
ABI_OFFSET(POINTER_SHAPE, Width, 4);
ABI_OFFSET(POINTER_SHAPE, Height, 8);
ABI_OFFSET(POINTER_SHAPE, Pitch, 12);
ABI_OFFSET(POINTER_SHAPE, Unused, 16);
ABI_OFFSET(POINTER_SHAPE, Bits, 24);
ABI_OFFSET(POINTER_SHAPE, HotSpotX, 32);
ABI_OFFSET(POINTER_SHAPE, HotSpotY, 36);

struct POINTER_REQUEST {
    const POINTER_POSITION* Position; // may be null
    const POINTER_SHAPE* Shape;       // may be null
};
ABI_SIZE(POINTER_REQUEST, 16);
ABI_OFFSET(POINTER_REQUEST, Position, 0);
ABI_OFFSET(POINTER_REQUEST, Shape, 8);

struct DISPLAY_POWER_REQUEST {
    ULONG Unused;
    UCHAR On;
    UCHAR Unused2[3];
};
ABI_SIZE(DISPLAY_POWER_REQUEST, 8);
ABI_OFFSET(DISPLAY_POWER_REQUEST, Unused, 0);
ABI_OFFSET(DISPLAY_POWER_REQUEST, On, 4);
ABI_OFFSET(DISPLAY_POWER_REQUEST, Unused2, 5);

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
ABI_SIZE(ROTATION_REQUEST, 32);
ABI_OFFSET(ROTATION_REQUEST, Unused, 0);
ABI_OFFSET(ROTATION_REQUEST, Rotation, 24);
ABI_OFFSET(ROTATION_REQUEST, Unused2, 28);

struct FRAME_FILL_REQUEST {
    ULONGLONG Identifier;
    ULONGLONG ClientValue;
    VOID* PixelBuffer;
    ULONGLONG ByteSize;
    ULONGLONG Zero;
};
ABI_SIZE(FRAME_FILL_REQUEST, 40);
ABI_OFFSET(FRAME_FILL_REQUEST, Identifier, 0);
ABI_OFFSET(FRAME_FILL_REQUEST, ClientValue, 8);
ABI_OFFSET(FRAME_FILL_REQUEST, PixelBuffer, 16);
ABI_OFFSET(FRAME_FILL_REQUEST, ByteSize, 24);
ABI_OFFSET(FRAME_FILL_REQUEST, Zero, 32);

#undef ABI_SIZE
#undef ABI_OFFSET

constexpr ULONG EDID_BLOCK_SIZE = 128;
constexpr ULONGLONG PRESENT_MAX_BYTES = ULONGLONG{MODE_MAX_PIXELS} * 4;

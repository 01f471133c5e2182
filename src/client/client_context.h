// The client's tenure of one adapter: exchange record, frame buffers, pointer.
#pragma once

#include "client/client_abi.h"
#include "driver/lock.h"

constexpr ULONG CURSOR_BITS_SIZE = 262144; // 256 x 256 pixels of 4 bytes

struct CURSOR_IMAGE {
    ULONG Type; // POINTER_TYPE
    ULONG Width;
    ULONG Height;
    ULONG Pitch; // bytes per row
    UCHAR Bits[CURSOR_BITS_SIZE];
};

struct CLIENT_CONTEXT {
    // Written by the exchange that won `ClientCount`; read while a present of that client is under way.
    INTERFACE_RECORD ClientInterface;
    LONG ClientCount; // interlocked; 0 or 1 outside an exchange

    // Guarded by FrameBufferListLock, with the reference counts and keys of what it holds.
    DEVICE_SPIN_LOCK FrameBufferListLock;
    LIST_ENTRY FrameBufferList;
    VOID* PendingFrameBuffer; // pixel buffer of the newest frame
    ULONGLONG PendingFrameSize;
    ULONG CurrentFrameKey; // key of the last present

    // Last words of the client, written by its commands and read across threads (shared fields).
    ULONG Rotation;
    BOOLEAN DisplayOn;
    ULONG DesktopWidth; // of the last CMD_CREATE_FRAME_BUFFER
    ULONG DesktopHeight;

    // The pointer. CursorMutex serialises pointer updates and guards all of this against a compose on another
    // thread; a fast mutex would do, but the driver has one kind. PASSIVE_LEVEL; taken before a frame
    // buffer's lock.
    DEVICE_MUTEX CursorMutex;
    ULONG LastPointerX;
    ULONG LastPointerY;
    BOOLEAN LastPointerVisible;
    LONG CursorX; // after rotation
    LONG CursorY;
    BOOLEAN CursorVisible;
    CURSOR_IMAGE PointerShape; // in the client's orientation
    CURSOR_IMAGE RotatedShape;
};

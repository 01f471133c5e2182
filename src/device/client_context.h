// The client's tenure of one adapter: exchange record, frame buffers, pointer.
#pragma once

#include "base/lock.h"
#include "device/client_abi.h"

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

    // Guarded by FrameBufferListLock, with the links, reference counts and keys of what the list holds.
    DEVICE_SPIN_LOCK FrameBufferListLock;
    LIST_ENTRY FrameBufferList TSA_GUARDED_BY(FrameBufferListLock);
    VOID* PendingFrameBuffer TSA_GUARDED_BY(FrameBufferListLock); // pixel buffer of the newest frame, while
                                                                  // it exists
    ULONGLONG PendingFrameSize TSA_GUARDED_BY(FrameBufferListLock);
    ULONG CurrentFrameKey TSA_GUARDED_BY(FrameBufferListLock); // key of the last present

    // Last words of the client, written by its commands and read across threads (shared fields). DisplayOn is
    // written under DisplayPowerMutex only.
    ULONG Rotation;
    UCHAR DisplayOn;
    BOOLEAN NewTenure;  // no display switch since the last client left; guarded by DisplayPowerMutex
    ULONG DesktopWidth; // of the last CMD_CREATE_FRAME_BUFFER
    ULONG DesktopHeight;

    // Held while the display is switched on or off, so that two commands at once leave the state of the later
    // one. D0 exit takes it to let a switch under way finish before power goes. PASSIVE_LEVEL.
    DEVICE_MUTEX DisplayPowerMutex;

    // Serialises hand-offs of frames to the frame update thread, so that the newest frame is the one handed
    // over last, and guards the pointer that is drawn into them. PASSIVE_LEVEL.
    DEVICE_MUTEX SubmitMutex;
    ULONG LastPointerX TSA_GUARDED_BY(SubmitMutex); // as the client gave them
    ULONG LastPointerY TSA_GUARDED_BY(SubmitMutex);
    BOOLEAN LastPointerVisible TSA_GUARDED_BY(SubmitMutex);
    LONG CursorX TSA_GUARDED_BY(SubmitMutex); // after rotation
    LONG CursorY TSA_GUARDED_BY(SubmitMutex);
    BOOLEAN CursorVisible TSA_GUARDED_BY(SubmitMutex);
    CURSOR_IMAGE PointerShape TSA_GUARDED_BY(SubmitMutex); // in the client's orientation
    CURSOR_IMAGE RotatedShape TSA_GUARDED_BY(SubmitMutex);
};

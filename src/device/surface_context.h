// The client's surfaces in the driver's memory: the list of frame buffers and the pointer. Written by
// surface/.
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

struct SURFACE_CONTEXT {
    // Guards the list, with the links, reference counts and keys of its frame buffers.
    DEVICE_SPIN_LOCK FrameBufferListLock;
    LIST_ENTRY FrameBufferList TSA_GUARDED_BY(FrameBufferListLock);
    VOID* PendingFrameBuffer TSA_GUARDED_BY(FrameBufferListLock); // pixel buffer of the newest frame, while
                                                                  // it exists
    ULONGLONG PendingFrameSize TSA_GUARDED_BY(FrameBufferListLock);
    ULONG CurrentFrameKey TSA_GUARDED_BY(FrameBufferListLock); // key of the last present

    // Notification; signaled while a frame update is wanted. The frame update thread waits for it and clears
    // it.
    KEVENT FrameUpdateRequestEvent;

    // Serializes hand-offs of frames to the frame update thread, so that the newest frame is the one handed
    // over last, and guards the pointer that is drawn into them.
    DEVICE_MUTEX SubmitMutex;
    ULONGLONG LatestPixelVersion TSA_GUARDED_BY(SubmitMutex); // each hand-off gets the next one
    ULONG LastPointerX TSA_GUARDED_BY(SubmitMutex);           // as the client gave them
    ULONG LastPointerY TSA_GUARDED_BY(SubmitMutex);
    BOOLEAN LastPointerVisible TSA_GUARDED_BY(SubmitMutex);
    LONG CursorX TSA_GUARDED_BY(SubmitMutex); // after rotation
    LONG CursorY TSA_GUARDED_BY(SubmitMutex);
    BOOLEAN CursorVisible TSA_GUARDED_BY(SubmitMutex);
    CURSOR_IMAGE PointerShape TSA_GUARDED_BY(SubmitMutex); // in the client's orientation
    CURSOR_IMAGE RotatedShape TSA_GUARDED_BY(SubmitMutex);
    ULONG ShapeRotation TSA_GUARDED_BY(SubmitMutex); // DISPLAY_ROTATION that RotatedShape has
};

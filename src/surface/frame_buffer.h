// Frame buffers: the client's surfaces in the driver's memory, and the list that holds them.
//
// The list owns one reference of each frame buffer; a present, a pointer update and the frame update thread
// take their own while they use one.
#pragma once

#include "base/annotations.h"
#include "device/device_context.h"

struct FRAME_BUFFER_CONTEXT {
    LIST_ENTRY Link; // guarded by FrameBufferListLock

    // Set once.
    ULONGLONG Identifier; // the client's handle
    UCHAR* PixelBuffer;   // 4 bytes per pixel, rows Width x 4 bytes apart; zeroed at creation
    ULONGLONG ByteSize;   // of PixelBuffer, as the client asked: may be less than Width x Height x 4
    ULONG Width;          // pixels
    ULONG Height;

    // Guarded by FrameBufferListLock.
    LONG ReferenceCount;
    BOOLEAN Destroyed; // the list's reference is gone; the last user frees
    ULONG FrameKey;    // of the last present; 0 before the first
    BOOLEAN Presented; // the client has filled it at least once

    // Ownership of the pixels: surface/frame_pixels.h.
    KEVENT PixelsFree;   // synchronization event, signaled while no task owns them; a wait takes them
    KEVENT BeingFilled;  // notification event, signaled while a client fills them
    PKTHREAD FillThread; // of that client, else null (shared field)

    // For the owner of the pixels, with the pixels under the drawn cursor.
    ULONGLONG PixelVersion; // of the last hand-off; no two frame buffers ever have the same, except 0
    BOOLEAN SavedValid;
    UCHAR* SavedAreaStart;            // in PixelBuffer
    ULONG SavedWidth;                 // pixels
    ULONG SavedHeight;                // rows
    UCHAR SaveArea[CURSOR_BITS_SIZE]; // rows packed SavedWidth x 4 bytes apart
};

constexpr ULONG FRAME_PIXEL_BYTES = 4;

// At device add: an empty list, and no frame update wanted.
void FRAMEBUFFER_InitializeList(DEVICE_CONTEXT* context);

// Allocates a frame buffer with `initialCount` references and lists it. STATUS_INSUFFICIENT_RESOURCES leaves
// nothing behind, and null in `*frameBuffer`.
_IRQL_requires_max_(DISPATCH_LEVEL)
_Must_inspect_result_
[[nodiscard]] NTSTATUS FRAMEBUFFER_Create(DEVICE_CONTEXT* context, const FRAME_BUFFER_REQUEST* request,
                                          LONG initialCount,
                                          _Outptr_result_maybenull_ FRAME_BUFFER_CONTEXT** frameBuffer)
    TSA_EXCLUDES(context->Surface.FrameBufferListLock);

// Drops one reference; the last one unlinks and frees.
_IRQL_requires_(DISPATCH_LEVEL)
void FRAMEBUFFER_Release(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer)
    TSA_REQUIRES(context->Surface.FrameBufferListLock);

// The same, and takes the lock.
_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_Dereference(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer)
    TSA_EXCLUDES(context->Surface.FrameBufferListLock);

// Drops the list's reference of every frame buffer with that identifier, or of all of them.
_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_Destroy(DEVICE_CONTEXT* context, ULONGLONG identifier)
    TSA_EXCLUDES(context->Surface.FrameBufferListLock);
_IRQL_requires_max_(DISPATCH_LEVEL)
void FRAMEBUFFER_DestroyAll(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Surface.FrameBufferListLock);

// Referenced, or null. A frame buffer that is being destroyed is not found by its identifier: the client may
// reuse the identifier for another size.
_IRQL_requires_max_(DISPATCH_LEVEL)
FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindByIdentifier(DEVICE_CONTEXT* context, ULONGLONG identifier)
    TSA_EXCLUDES(context->Surface.FrameBufferListLock);

// The frame buffer whose key is that of the last present, referenced, or null. Among several with that key, a
// presented one is preferred.
_IRQL_requires_max_(DISPATCH_LEVEL)
FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindCurrent(DEVICE_CONTEXT* context)
    TSA_EXCLUDES(context->Surface.FrameBufferListLock);

// For the frame update thread: the newest frame handed over, referenced, or null when there is none, when it
// has another size than `width` x `height`, or when it holds less than that many pixels.
_IRQL_requires_max_(DISPATCH_LEVEL)
FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindPending(DEVICE_CONTEXT* context, ULONG width, ULONG height)
    TSA_EXCLUDES(context->Surface.FrameBufferListLock);

// Whether a frame was handed over and still exists.
_IRQL_requires_max_(DISPATCH_LEVEL)
BOOLEAN FRAMEBUFFER_HasPending(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Surface.FrameBufferListLock);

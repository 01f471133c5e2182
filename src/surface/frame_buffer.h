// Frame buffers: the client's surfaces in the driver's memory, from creation to the hand-off to the frame
// update thread.
//
// The list owns one reference of each frame buffer; a present, a pointer update and the frame update thread
// take their own while they use one. The pixels belong to one user at a time: the present whose client fills
// them, the pointer update that draws into them, or the frame update thread that converts them. So no frame
// goes out half filled, and no pointer is restored over pixels that are newer than what was saved. Ownership
// is an event and not a lock, because the client is called while its present has it.
#pragma once

#include "device/device_context.h"

struct FRAME_BUFFER_CONTEXT {
    LIST_ENTRY Link; // guarded by FrameBufferListLock

    // Set once.
    DEVICE_CONTEXT* DeviceContext;
    ULONGLONG Identifier; // the client's handle
    UCHAR* PixelBuffer;   // 4 bytes per pixel, rows Width x 4 bytes apart; zeroed at creation
    ULONGLONG ByteSize;   // of PixelBuffer, as the client asked: may be less than Width x Height x 4
    ULONG Width;          // pixels
    ULONG Height;
    ULONG Pitch; // as the client gave it; not used: rows are packed for everyone who reads or draws

    // Guarded by FrameBufferListLock.
    LONG ReferenceCount;
    BOOLEAN Destroyed; // the list's reference is gone; the last user frees
    ULONG FrameKey;    // of the last present; 0 before the first
    BOOLEAN Presented; // the client has filled it at least once

    // Signalled while nobody owns the pixels; a wait takes them (synchronization event).
    KEVENT PixelsFree;
    PKTHREAD FillThread; // whose client is filling them, else null (shared field)

    // The pixels under the drawn cursor; for the owner of the pixels.
    BOOLEAN SavedValid;
    UCHAR* SavedAreaStart;            // in PixelBuffer
    ULONG SavedWidth;                 // pixels
    ULONG SavedHeight;                // rows
    UCHAR SaveArea[CURSOR_BITS_SIZE]; // rows packed SavedWidth x 4 bytes apart
};

// At device add: an empty list.
void FRAMEBUFFER_InitializeList(DEVICE_CONTEXT* context);

// Allocates a frame buffer with `initialCount` references and lists it. STATUS_INSUFFICIENT_RESOURCES leaves
// nothing behind. Up to DISPATCH_LEVEL.
[[nodiscard]] NTSTATUS FRAMEBUFFER_Create(DEVICE_CONTEXT* context, const FRAME_BUFFER_REQUEST* request,
                                          LONG initialCount, FRAME_BUFFER_CONTEXT** frameBuffer);

// Drops one reference; the last one unlinks and frees. The caller holds FrameBufferListLock.
void FRAMEBUFFER_Release(FRAME_BUFFER_CONTEXT* frameBuffer);

// The same for callers that do not hold it.
void FRAMEBUFFER_Dereference(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer);

// Drops the list's reference of every frame buffer with that identifier, or of all of them.
void FRAMEBUFFER_Destroy(DEVICE_CONTEXT* context, ULONGLONG identifier);
void FRAMEBUFFER_DestroyAll(DEVICE_CONTEXT* context);

// A referenced frame buffer whose key is that of the last present, or null.
FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindCurrent(DEVICE_CONTEXT* context);

// For the frame update thread: the newest frame handed over, referenced, or null when there is none, when it
// has another size than `width` x `height`, or when it holds less than that many pixels. PASSIVE_LEVEL.
FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindPending(DEVICE_CONTEXT* context, ULONG width, ULONG height);

// The frame update thread owns the pixels of a referenced frame buffer from a BeginRead that returned TRUE to
// EndRead: for the conversion, not for a wait. FALSE: the pipeline was stopped meanwhile. PASSIVE_LEVEL.
[[nodiscard]] BOOLEAN FRAMEBUFFER_BeginRead(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer);
void FRAMEBUFFER_EndRead(FRAME_BUFFER_CONTEXT* frameBuffer);

// Has the client fill the frame buffer (created when there is none of that identifier) and hands it over.
// STATUS_INSUFFICIENT_RESOURCES when it cannot be created. PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS FRAMEBUFFER_Present(DEVICE_CONTEXT* context, const PRESENT_REQUEST* request);

// Draws the cursor and makes the frame the newest one, while the pipeline runs and the display is on. The
// caller owns the pixels and holds SubmitMutex.
void FRAMEBUFFER_SubmitToRender(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer)
    TSA_REQUIRES(context->Client.SubmitMutex);

// Shows pointer changes: hands the current frame over again, unless its client is filling it: that present
// then draws the pointer as it stands by that time. PASSIVE_LEVEL; the caller does not hold SubmitMutex.
void FRAMEBUFFER_ResubmitCurrent(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Client.SubmitMutex);

// The same when the stream starts anew: what the client presented while it stood still was not handed over. A
// frame buffer that no present has filled yet stays where it is.
void FRAMEBUFFER_ResubmitPresented(DEVICE_CONTEXT* context) TSA_EXCLUDES(context->Client.SubmitMutex);

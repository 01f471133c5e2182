#include "surface/frame_buffer.h"

#include "base/pool.h"

namespace {

// The first frame buffer in the list that matches, with a reference taken, or null.
template <typename Predicate>
FRAME_BUFFER_CONTEXT* FindAndReference(DEVICE_CONTEXT* context, Predicate matches)
    TSA_REQUIRES(context->Surface.FrameBufferListLock) {
    const LIST_ENTRY* head = &context->Surface.FrameBufferList;
    for (LIST_ENTRY* entry = head->Flink; entry != head; entry = entry->Flink) {
        FRAME_BUFFER_CONTEXT* frameBuffer = CONTAINING_RECORD(entry, FRAME_BUFFER_CONTEXT, Link);
        if (matches(frameBuffer)) {
            InterlockedIncrement(&frameBuffer->ReferenceCount);
            return frameBuffer;
        }
    }
    return nullptr;
}

// Drops the list's reference of all that match. A frame buffer that others still use stays listed until its
// last user is gone, but loses this reference only once, however often the client asks.
template <typename Predicate>
void DropListReferences(DEVICE_CONTEXT* context, Predicate matches) {
    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    const LIST_ENTRY* head = &context->Surface.FrameBufferList;
    LIST_ENTRY* next = head->Flink;
    while (next != head) {
        FRAME_BUFFER_CONTEXT* frameBuffer = CONTAINING_RECORD(next, FRAME_BUFFER_CONTEXT, Link);
        next = next->Flink;
        if (!frameBuffer->Destroyed && matches(frameBuffer)) {
            frameBuffer->Destroyed = TRUE;
            FRAMEBUFFER_Release(context, frameBuffer);
        }
    }
}

} // namespace

// Before any other code knows of the list.
TSA_NO_ANALYSIS void FRAMEBUFFER_InitializeList(DEVICE_CONTEXT* context) {
    InitializeListHead(&context->Surface.FrameBufferList);
    KeInitializeEvent(&context->Surface.FrameUpdateRequestEvent, NotificationEvent, FALSE);
}

NTSTATUS FRAMEBUFFER_Create(DEVICE_CONTEXT* context, const FRAME_BUFFER_REQUEST* request, LONG initialCount,
                            FRAME_BUFFER_CONTEXT** result) {
    *result = nullptr;
    auto* frameBuffer = static_cast<FRAME_BUFFER_CONTEXT*>(
        ExAllocatePoolWithTag(DriverPoolType, sizeof(FRAME_BUFFER_CONTEXT), POOL_TAG_FRAME_BUFFER));
    if (frameBuffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(frameBuffer, sizeof(*frameBuffer));

    // At least one pixel: the address of the pixels identifies the frame, and an empty frame needs one, too.
    const SIZE_T allocation = request->ByteSize > FRAME_PIXEL_BYTES ? request->ByteSize : FRAME_PIXEL_BYTES;
    frameBuffer->PixelBuffer =
        static_cast<UCHAR*>(ExAllocatePoolWithTag(DriverPoolType, allocation, POOL_TAG_FRAME_BUFFER));
    if (frameBuffer->PixelBuffer == nullptr) {
        ExFreePoolWithTag(frameBuffer, POOL_TAG_FRAME_BUFFER);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // What the client does not fill must be black, not what the pool held: it goes out on the wire.
    RtlZeroMemory(frameBuffer->PixelBuffer, allocation);

    frameBuffer->Identifier = request->Identifier;
    frameBuffer->ByteSize = request->ByteSize;
    frameBuffer->Width = request->Width;
    frameBuffer->Height = request->Height;
    frameBuffer->ReferenceCount = initialCount;
    KeInitializeEvent(&frameBuffer->PixelsFree, SynchronizationEvent, TRUE);
    KeInitializeEvent(&frameBuffer->BeingFilled, NotificationEvent, FALSE);

    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    InsertTailList(&context->Surface.FrameBufferList, &frameBuffer->Link);
    *result = frameBuffer;
    return STATUS_SUCCESS;
}

void FRAMEBUFFER_Release(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    if (InterlockedDecrement(&frameBuffer->ReferenceCount) != 0) {
        return;
    }
    if (context->Surface.PendingFrameBuffer == frameBuffer->PixelBuffer) {
        // The next frame buffer may get the same address, and must not be shown before its first present.
        context->Surface.PendingFrameBuffer = nullptr;
    }
    RemoveEntryList(&frameBuffer->Link);
    ExFreePoolWithTag(frameBuffer->PixelBuffer, POOL_TAG_FRAME_BUFFER);
    ExFreePoolWithTag(frameBuffer, POOL_TAG_FRAME_BUFFER);
}

void FRAMEBUFFER_Dereference(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    FRAMEBUFFER_Release(context, frameBuffer);
}

void FRAMEBUFFER_Destroy(DEVICE_CONTEXT* context, ULONGLONG identifier) {
    DropListReferences(context, [identifier](const FRAME_BUFFER_CONTEXT* frameBuffer) {
        return frameBuffer->Identifier == identifier;
    });
}

void FRAMEBUFFER_DestroyAll(DEVICE_CONTEXT* context) {
    DropListReferences(context, [](const FRAME_BUFFER_CONTEXT*) { return true; });
}

FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindByIdentifier(DEVICE_CONTEXT* context, ULONGLONG identifier) {
    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    return FindAndReference(context, [identifier](const FRAME_BUFFER_CONTEXT* frameBuffer) {
        return !frameBuffer->Destroyed && frameBuffer->Identifier == identifier;
    });
}

FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindCurrent(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    const ULONG key = context->Surface.CurrentFrameKey;
    // A key that a client gives twice, or 0, which a frame buffer has before its first present, means a frame
    // buffer with a picture in it.
    FRAME_BUFFER_CONTEXT* presented =
        FindAndReference(context, [key](const FRAME_BUFFER_CONTEXT* frameBuffer) {
            return frameBuffer->FrameKey == key && frameBuffer->Presented && !frameBuffer->Destroyed;
        });
    if (presented != nullptr) {
        return presented;
    }
    return FindAndReference(
        context, [key](const FRAME_BUFFER_CONTEXT* frameBuffer) { return frameBuffer->FrameKey == key; });
}

FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindPending(DEVICE_CONTEXT* context, ULONG width, ULONG height) {
    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    const VOID* pending = context->Surface.PendingFrameBuffer;
    // A client can create a frame buffer with fewer bytes than its dimensions need: it is never shown.
    const ULONGLONG pixels = static_cast<ULONGLONG>(width) * height;
    return FindAndReference(
        context, [pending, width, height, pixels](const FRAME_BUFFER_CONTEXT* frameBuffer) {
            return frameBuffer->PixelBuffer == pending && frameBuffer->Width == width &&
                   frameBuffer->Height == height && frameBuffer->ByteSize / FRAME_PIXEL_BYTES >= pixels;
        });
}

BOOLEAN FRAMEBUFFER_HasPending(DEVICE_CONTEXT* context) {
    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    return context->Surface.PendingFrameBuffer != nullptr && context->Surface.PendingFrameSize != 0;
}

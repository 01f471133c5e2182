#include "surface/frame_buffer.h"

#include "device/device_context.h"
#include "surface/cursor.h"

namespace {

constexpr ULONG PIXEL_WAIT_SLICE_MS = 10;

constexpr ULONGLONG FRAME_PIXEL_BYTES = 4;

// An owner of the pixels hands them straight to the longest waiting next one: the event is a synchronization
// event. A client thread that presents without a pause therefore cannot keep the frame update thread out.
void AcquirePixels(FRAME_BUFFER_CONTEXT* frameBuffer) {
    KeWaitForSingleObject(&frameBuffer->PixelsFree, Executive, KernelMode, FALSE, nullptr);
}

BOOLEAN TryAcquirePixels(FRAME_BUFFER_CONTEXT* frameBuffer) {
    LARGE_INTEGER slice;
    slice.QuadPart = RelativeMs(PIXEL_WAIT_SLICE_MS);
    return KeWaitForSingleObject(&frameBuffer->PixelsFree, Executive, KernelMode, FALSE, &slice) ==
           STATUS_SUCCESS;
}

void ReleasePixels(FRAME_BUFFER_CONTEXT* frameBuffer) {
    KeSetEvent(&frameBuffer->PixelsFree, IO_NO_INCREMENT, FALSE);
}

BOOLEAN IsBeingFilled(const FRAME_BUFFER_CONTEXT* frameBuffer) {
    return SHARED_Read(frameBuffer->FillThread) != nullptr;
}

// The first frame buffer in the list that matches, with a reference taken, or null.
template <typename Predicate>
FRAME_BUFFER_CONTEXT* FindAndReference(CLIENT_CONTEXT* client, Predicate matches)
    TSA_REQUIRES(client->FrameBufferListLock) {
    const LIST_ENTRY* head = &client->FrameBufferList;
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
void DropListReferences(CLIENT_CONTEXT* client, Predicate matches) {
    SPIN_LOCK_GUARD list(client->FrameBufferListLock);
    const LIST_ENTRY* head = &client->FrameBufferList;
    LIST_ENTRY* next = head->Flink;
    while (next != head) {
        FRAME_BUFFER_CONTEXT* frameBuffer = CONTAINING_RECORD(next, FRAME_BUFFER_CONTEXT, Link);
        next = next->Flink;
        if (!frameBuffer->Destroyed && matches(frameBuffer)) {
            frameBuffer->Destroyed = TRUE;
            FRAMEBUFFER_Release(frameBuffer);
        }
    }
}

// A frame buffer on its way out is not found again: the client may reuse the identifier for another size.
FRAME_BUFFER_CONTEXT* FindByIdentifier(DEVICE_CONTEXT* context, ULONGLONG identifier) {
    CLIENT_CONTEXT* client = &context->Client;
    SPIN_LOCK_GUARD list(client->FrameBufferListLock);
    return FindAndReference(client, [identifier](const FRAME_BUFFER_CONTEXT* frameBuffer) {
        return !frameBuffer->Destroyed && frameBuffer->Identifier == identifier;
    });
}

BOOLEAN IsCurrent(CLIENT_CONTEXT* client, const FRAME_BUFFER_CONTEXT* frameBuffer) {
    SPIN_LOCK_GUARD list(client->FrameBufferListLock);
    return frameBuffer->FrameKey == client->CurrentFrameKey;
}

BOOLEAN IsPresented(CLIENT_CONTEXT* client, const FRAME_BUFFER_CONTEXT* frameBuffer) {
    SPIN_LOCK_GUARD list(client->FrameBufferListLock);
    return frameBuffer->Presented;
}

// Hands a frame over that its client is not filling.
void Resubmit(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    BOOLEAN owned = FALSE;
    while (!IsBeingFilled(frameBuffer) && !owned) {
        owned = TryAcquirePixels(frameBuffer);
    }
    if (!owned) {
        return;
    }
    {
        // A present that came in between has handed its own frame over, with the pointer as it is now.
        MUTEX_GUARD submit(context->Client.SubmitMutex);
        if (IsCurrent(&context->Client, frameBuffer)) {
            FRAMEBUFFER_SubmitToRender(context, frameBuffer);
        }
    }
    ReleasePixels(frameBuffer);
}

NTSTATUS FindOrCreate(DEVICE_CONTEXT* context, const PRESENT_REQUEST* request,
                      FRAME_BUFFER_CONTEXT** frameBuffer) {
    *frameBuffer = FindByIdentifier(context, request->Identifier);
    if (*frameBuffer != nullptr) {
        return STATUS_SUCCESS;
    }
    FRAME_BUFFER_REQUEST creation = {};
    creation.Identifier = request->Identifier;
    creation.ByteSize = request->ByteSize;
    creation.Width = request->Width;
    creation.Height = request->Height;
    creation.Pitch = request->Pitch;
    return FRAMEBUFFER_Create(context, &creation, 2, frameBuffer);
}

// No lock is held while the client is called.
void HaveClientFill(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer, ULONGLONG clientValue) {
    const INTERFACE_RECORD* clientInterface = &context->Client.ClientInterface;
    if (clientInterface->CommandEntry == nullptr) {
        return;
    }
    FRAME_FILL_REQUEST fill = {};
    fill.Identifier = frameBuffer->Identifier;
    fill.ClientValue = clientValue;
    fill.PixelBuffer = frameBuffer->PixelBuffer;
    fill.ByteSize = frameBuffer->ByteSize;
    ULONG bytesReturned = 0;
    // The result says nothing that would make a difference: what the client left in the buffer is the frame.
    (void)clientInterface->CommandEntry(clientInterface->Context, CLIENT_CMD_FILL_FRAME_BUFFER, &fill,
                                        sizeof(fill), nullptr, 0, &bytesReturned);
}

} // namespace

// Before any other code knows of the list.
TSA_NO_ANALYSIS void FRAMEBUFFER_InitializeList(DEVICE_CONTEXT* context) {
    KeInitializeSpinLock(&context->Client.FrameBufferListLock.Lock);
    InitializeListHead(&context->Client.FrameBufferList);
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

    // At least one pixel: the address of the pixels stands for the frame, and an empty one needs one, too.
    const SIZE_T allocation = request->ByteSize > FRAME_PIXEL_BYTES ? request->ByteSize : FRAME_PIXEL_BYTES;
    frameBuffer->PixelBuffer =
        static_cast<UCHAR*>(ExAllocatePoolWithTag(DriverPoolType, allocation, POOL_TAG_FRAME_BUFFER));
    if (frameBuffer->PixelBuffer == nullptr) {
        ExFreePoolWithTag(frameBuffer, POOL_TAG_FRAME_BUFFER);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // What the client does not fill must be black, not what the pool held: it goes out on the wire.
    RtlZeroMemory(frameBuffer->PixelBuffer, allocation);

    frameBuffer->DeviceContext = context;
    frameBuffer->Identifier = request->Identifier;
    frameBuffer->ByteSize = request->ByteSize;
    frameBuffer->Width = request->Width;
    frameBuffer->Height = request->Height;
    frameBuffer->Pitch = request->Pitch;
    frameBuffer->ReferenceCount = initialCount;
    KeInitializeEvent(&frameBuffer->PixelsFree, SynchronizationEvent, TRUE);

    SPIN_LOCK_GUARD list(context->Client.FrameBufferListLock);
    InsertTailList(&context->Client.FrameBufferList, &frameBuffer->Link);
    *result = frameBuffer;
    return STATUS_SUCCESS;
}

// The list is reached through the frame buffer, where the analysis cannot see that it is the caller's.
TSA_NO_ANALYSIS void FRAMEBUFFER_Release(FRAME_BUFFER_CONTEXT* frameBuffer) {
    if (InterlockedDecrement(&frameBuffer->ReferenceCount) != 0) {
        return;
    }
    CLIENT_CONTEXT* client = &frameBuffer->DeviceContext->Client;
    if (client->PendingFrameBuffer == frameBuffer->PixelBuffer) {
        // The next frame buffer may get the same address, and must not be shown before its first present.
        client->PendingFrameBuffer = nullptr;
    }
    RemoveEntryList(&frameBuffer->Link);
    ExFreePoolWithTag(frameBuffer->PixelBuffer, POOL_TAG_FRAME_BUFFER);
    ExFreePoolWithTag(frameBuffer, POOL_TAG_FRAME_BUFFER);
}

void FRAMEBUFFER_Dereference(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    SPIN_LOCK_GUARD list(context->Client.FrameBufferListLock);
    FRAMEBUFFER_Release(frameBuffer);
}

void FRAMEBUFFER_Destroy(DEVICE_CONTEXT* context, ULONGLONG identifier) {
    DropListReferences(&context->Client, [identifier](const FRAME_BUFFER_CONTEXT* frameBuffer) {
        return frameBuffer->Identifier == identifier;
    });
}

void FRAMEBUFFER_DestroyAll(DEVICE_CONTEXT* context) {
    DropListReferences(&context->Client, [](const FRAME_BUFFER_CONTEXT*) { return true; });
}

FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindCurrent(DEVICE_CONTEXT* context) {
    CLIENT_CONTEXT* client = &context->Client;
    SPIN_LOCK_GUARD list(client->FrameBufferListLock);
    const ULONG key = client->CurrentFrameKey;
    // A key that a client gives twice, or 0, which a frame buffer has before its first present, stands for
    // one with a picture in it.
    FRAME_BUFFER_CONTEXT* presented =
        FindAndReference(client, [key](const FRAME_BUFFER_CONTEXT* frameBuffer) {
            return frameBuffer->FrameKey == key && frameBuffer->Presented && !frameBuffer->Destroyed;
        });
    if (presented != nullptr) {
        return presented;
    }
    return FindAndReference(
        client, [key](const FRAME_BUFFER_CONTEXT* frameBuffer) { return frameBuffer->FrameKey == key; });
}

FRAME_BUFFER_CONTEXT* FRAMEBUFFER_FindPending(DEVICE_CONTEXT* context, ULONG width, ULONG height) {
    CLIENT_CONTEXT* client = &context->Client;
    SPIN_LOCK_GUARD list(client->FrameBufferListLock);
    const VOID* pending = client->PendingFrameBuffer;
    // A client can create a frame buffer with fewer bytes than its dimensions need: it is never shown.
    const ULONGLONG pixels = static_cast<ULONGLONG>(width) * height;
    return FindAndReference(
        client, [pending, width, height, pixels](const FRAME_BUFFER_CONTEXT* frameBuffer) {
            return frameBuffer->PixelBuffer == pending && frameBuffer->Width == width &&
                   frameBuffer->Height == height && frameBuffer->ByteSize / FRAME_PIXEL_BYTES >= pixels;
        });
}

BOOLEAN FRAMEBUFFER_BeginRead(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    // The wait is for a client that fills the frame, and has no limit of its own; a stop ends it.
    while (!TryAcquirePixels(frameBuffer)) {
        if (SHARED_Read(context->Render.RenderRunning) == 0) {
            return FALSE;
        }
    }
    return TRUE;
}

void FRAMEBUFFER_EndRead(FRAME_BUFFER_CONTEXT* frameBuffer) {
    ReleasePixels(frameBuffer);
}

NTSTATUS FRAMEBUFFER_Present(DEVICE_CONTEXT* context, const PRESENT_REQUEST* request) {
    CLIENT_CONTEXT* client = &context->Client;
    FRAME_BUFFER_CONTEXT* frameBuffer;
    const NTSTATUS status = FindOrCreate(context, request, &frameBuffer);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (SHARED_Read(frameBuffer->FillThread) == KeGetCurrentThread()) {
        // A present from inside the fill of the same frame buffer would wait for itself. The outer one shows
        // what both have filled.
        FRAMEBUFFER_Dereference(context, frameBuffer);
        return STATUS_SUCCESS;
    }

    AcquirePixels(frameBuffer);
    SHARED_Write(frameBuffer->FillThread, KeGetCurrentThread());
    // The pixels are about to be replaced: there is no cursor in them to take out again.
    frameBuffer->SavedValid = FALSE;
    {
        SPIN_LOCK_GUARD list(client->FrameBufferListLock);
        frameBuffer->FrameKey = request->FrameKey;
    }
    HaveClientFill(context, frameBuffer, request->ClientValue);
    SHARED_Write(frameBuffer->FillThread, nullptr);
    {
        MUTEX_GUARD submit(context->Client.SubmitMutex);
        {
            SPIN_LOCK_GUARD list(client->FrameBufferListLock);
            client->CurrentFrameKey = request->FrameKey;
            frameBuffer->Presented = TRUE;
        }
        FRAMEBUFFER_SubmitToRender(context, frameBuffer);
    }
    ReleasePixels(frameBuffer);
    FRAMEBUFFER_Dereference(context, frameBuffer);
    return STATUS_SUCCESS;
}

void FRAMEBUFFER_SubmitToRender(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    if (SHARED_Read(context->Render.RenderRunning) == 0 || SHARED_Read(context->Client.DisplayOn) == 0) {
        return;
    }
    CURSOR_Restore(frameBuffer);
    if (context->Client.CursorVisible) {
        CURSOR_Compose(frameBuffer, &context->Client.RotatedShape, context->Client.CursorX,
                       context->Client.CursorY);
    }
    {
        SPIN_LOCK_GUARD list(context->Client.FrameBufferListLock);
        context->Client.PendingFrameBuffer = frameBuffer->PixelBuffer;
        context->Client.PendingFrameSize = frameBuffer->ByteSize;
    }
    KeSetEvent(&context->Render.FrameUpdateRequestEvent, EVENT_INCREMENT, FALSE);
}

void FRAMEBUFFER_ResubmitCurrent(DEVICE_CONTEXT* context) {
    FRAME_BUFFER_CONTEXT* frameBuffer = FRAMEBUFFER_FindCurrent(context);
    if (frameBuffer != nullptr) {
        Resubmit(context, frameBuffer);
        FRAMEBUFFER_Dereference(context, frameBuffer);
    }
}

void FRAMEBUFFER_ResubmitPresented(DEVICE_CONTEXT* context) {
    FRAME_BUFFER_CONTEXT* frameBuffer = FRAMEBUFFER_FindCurrent(context);
    if (frameBuffer != nullptr) {
        if (IsPresented(&context->Client, frameBuffer)) {
            Resubmit(context, frameBuffer);
        }
        FRAMEBUFFER_Dereference(context, frameBuffer);
    }
}

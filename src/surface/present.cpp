#include "surface/present.h"

#include "base/shared_field.h"
#include "surface/cursor_drawing.h"
#include "surface/frame_pixels.h"

namespace {

BOOLEAN IsCurrent(DEVICE_CONTEXT* context, const FRAME_BUFFER_CONTEXT* frameBuffer) {
    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    return frameBuffer->FrameKey == context->Surface.CurrentFrameKey;
}

BOOLEAN IsPresented(DEVICE_CONTEXT* context, const FRAME_BUFFER_CONTEXT* frameBuffer) {
    SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
    return frameBuffer->Presented;
}

// Hands a frame over that its client is not filling.
void Resubmit(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    if (!FRAMEBUFFER_AcquireUnlessFilled(frameBuffer)) {
        return;
    }
    {
        // A present that came in between has handed its own frame over, with the pointer in its present
        // state.
        MUTEX_GUARD submit(context->Surface.SubmitMutex);
        if (IsCurrent(context, frameBuffer)) {
            FRAMEBUFFER_SubmitToRender(context, frameBuffer);
        }
    }
    FRAMEBUFFER_ReleasePixels(frameBuffer);
}

NTSTATUS FindOrCreate(DEVICE_CONTEXT* context, const PRESENT_REQUEST* request,
                      FRAME_BUFFER_CONTEXT** frameBuffer) {
    *frameBuffer = FRAMEBUFFER_FindByIdentifier(context, request->Identifier);
    if (*frameBuffer != nullptr) {
        return STATUS_SUCCESS;
    }
    FRAME_BUFFER_REQUEST creation = {};
    creation.Identifier = request->Identifier;
    creation.ByteSize = request->ByteSize;
    creation.Width = request->Width;
    creation.Height = request->Height;
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
    // The content of the buffer is the frame, also after a failure of the client.
    (void)clientInterface->CommandEntry(clientInterface->Context, CLIENT_CMD_FILL_FRAME_BUFFER, &fill,
                                        sizeof(fill), nullptr, 0, &bytesReturned);
}

} // namespace

NTSTATUS FRAMEBUFFER_Present(DEVICE_CONTEXT* context, const PRESENT_REQUEST* request) {
    FRAME_BUFFER_CONTEXT* frameBuffer;
    const NTSTATUS status = FindOrCreate(context, request, &frameBuffer);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (FRAMEBUFFER_IsFilledByCaller(frameBuffer)) {
        // A present from inside the fill of the same frame buffer would wait for itself. The outer one shows
        // what both have filled.
        FRAMEBUFFER_Dereference(context, frameBuffer);
        return STATUS_SUCCESS;
    }

    FRAMEBUFFER_AcquireToFill(frameBuffer);
    // The pixels are about to be replaced: the cursor in them needs no restoring.
    frameBuffer->SavedValid = FALSE;
    {
        SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
        frameBuffer->FrameKey = request->FrameKey;
    }
    HaveClientFill(context, frameBuffer, request->ClientValue);
    FRAMEBUFFER_EndFill(frameBuffer);
    {
        MUTEX_GUARD submit(context->Surface.SubmitMutex);
        {
            SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
            context->Surface.CurrentFrameKey = request->FrameKey;
            frameBuffer->Presented = TRUE;
        }
        FRAMEBUFFER_SubmitToRender(context, frameBuffer);
    }
    FRAMEBUFFER_ReleasePixels(frameBuffer);
    FRAMEBUFFER_Dereference(context, frameBuffer);
    return STATUS_SUCCESS;
}

void FRAMEBUFFER_SubmitToRender(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    frameBuffer->PixelVersion = ++context->Surface.LatestPixelVersion;
    if (SHARED_Read(context->Render.RenderRunning) == 0 || SHARED_Read(context->Client.DisplayOn) == 0) {
        return;
    }
    CURSOR_Restore(frameBuffer);
    if (context->Surface.CursorVisible) {
        CURSOR_Compose(frameBuffer, &context->Surface.RotatedShape, context->Surface.CursorX,
                       context->Surface.CursorY);
    }
    {
        SPIN_LOCK_GUARD list(context->Surface.FrameBufferListLock);
        context->Surface.PendingFrameBuffer = frameBuffer->PixelBuffer;
        context->Surface.PendingFrameSize = frameBuffer->ByteSize;
    }
    FRAMEBUFFER_RequestUpdate(context);
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
        if (IsPresented(context, frameBuffer)) {
            Resubmit(context, frameBuffer);
        }
        FRAMEBUFFER_Dereference(context, frameBuffer);
    }
}

void FRAMEBUFFER_RequestUpdate(DEVICE_CONTEXT* context) {
    KeSetEvent(&context->Surface.FrameUpdateRequestEvent, EVENT_INCREMENT, FALSE);
}

void FRAMEBUFFER_ClearUpdateRequest(DEVICE_CONTEXT* context) {
    KeClearEvent(&context->Surface.FrameUpdateRequestEvent);
}

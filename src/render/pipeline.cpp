#include "render/pipeline.h"

#include "base/pool.h"
#include "display/video_output.h"
#include "render/auto_update.h"
#include "render/context_lists.h"
#include "render/drop_frames.h"
#include "render/frame_thread.h"
#include "render/render_buffers.h"
#include "render/start_stop.h"

namespace {

template <typename Handle>
void DeleteObject(Handle* handle) {
    if (*handle != nullptr) {
        WdfObjectDelete(*handle);
        *handle = nullptr;
    }
}

// Nothing uses the list before the pipeline is built.
NTSTATUS CreateRequestList(WDF_OBJECT_ATTRIBUTES* attributes, REQUEST_LIST* list) TSA_NO_ANALYSIS {
    const NTSTATUS status = WdfSpinLockCreate(attributes, &list->Lock.Handle);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return WdfCollectionCreate(attributes, &list->Requests);
}

// No request is queued or sent any more.
void DeleteRequestList(REQUEST_LIST* list) TSA_NO_ANALYSIS {
    DeleteObject(&list->Requests);
    DeleteObject(&list->Lock.Handle);
}

NTSTATUS CreateLocksAndCollections(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    WDF_OBJECT_ATTRIBUTES attributes;
    DEVICE_InitChildAttributes(context, &attributes);
    NTSTATUS status = WdfSpinLockCreate(&attributes, &render->CompressionLevelLock.Handle);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateRequestList(&attributes, &render->SendQueue);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return CreateRequestList(&attributes, &render->SentRequests);
}

NTSTATUS CreateTransfer(DEVICE_CONTEXT* context, _URB_BULK_OR_INTERRUPT_TRANSFER* urb, WDFREQUEST* request,
                        WDFMEMORY* urbMemory) {
    NTSTATUS status = WdfRequestCreate(WDF_NO_OBJECT_ATTRIBUTES, context->Usb.UsbIoTarget, request);
    if (!NT_SUCCESS(status)) {
        *request = nullptr;
        return STATUS_UNSUCCESSFUL;
    }
    status = WdfMemoryCreatePreallocated(WDF_NO_OBJECT_ATTRIBUTES, urb, sizeof(*urb), urbMemory);
    if (!NT_SUCCESS(status)) {
        *urbMemory = nullptr;
    }
    return status;
}

NTSTATUS CreateRenderContext(DEVICE_CONTEXT* context, ULONG number) {
    RENDER_PIPELINE* render = &context->Render;
    WDFMEMORY* memory = &render->RenderContextMemory[number];
    NTSTATUS status = WdfMemoryCreateFromLookaside(render->RenderContextLookaside, memory);
    if (!NT_SUCCESS(status)) {
        *memory = nullptr;
        return status;
    }
    RENDER_CONTEXT* renderContext = static_cast<RENDER_CONTEXT*>(WdfMemoryGetBuffer(*memory, nullptr));
    RtlZeroMemory(renderContext, sizeof(*renderContext));
    InitializeListHead(&renderContext->Link);
    renderContext->DeviceContext = context;
    renderContext->RenderBufferIndex = number;
    render->RenderContexts[number] = renderContext;

    status = CreateTransfer(context, &renderContext->RenderUrb, &renderContext->RenderRequest,
                            &renderContext->RenderUrbMemory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateTransfer(context, &renderContext->ZeroLengthUrb, &renderContext->ZeroLengthRequest,
                            &renderContext->ZeroLengthUrbMemory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RENDER_ReturnToAvailable(context, renderContext);
    return STATUS_SUCCESS;
}

void DeleteRenderContext(RENDER_PIPELINE* render, ULONG number) {
    RENDER_CONTEXT* renderContext = render->RenderContexts[number];
    if (renderContext != nullptr) {
        DeleteObject(&renderContext->RenderRequest);
        DeleteObject(&renderContext->RenderUrbMemory);
        DeleteObject(&renderContext->ZeroLengthRequest);
        DeleteObject(&renderContext->ZeroLengthUrbMemory);
        RENDER_FreeMdls(renderContext);
        render->RenderContexts[number] = nullptr;
    }
    DeleteObject(&render->RenderContextMemory[number]);
}

NTSTATUS Build(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    NTSTATUS status = CreateLocksAndCollections(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status =
        WdfLookasideListCreate(WDF_NO_OBJECT_ATTRIBUTES, sizeof(RENDER_CONTEXT), DriverPoolType,
                               WDF_NO_OBJECT_ATTRIBUTES, POOL_TAG_DRIVER, &render->RenderContextLookaside);
    if (!NT_SUCCESS(status)) {
        render->RenderContextLookaside = nullptr;
        return status;
    }
    status = RENDER_CreateRenderContexts(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = THREAD_CreateFrameUpdateThread(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RENDER_CreateCompressionAutoUpdateTimer(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RENDER_CreateDropFrameEventCheckTimer(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RENDER_ClearBuffers(context);
    return STATUS_SUCCESS;
}

} // namespace

void RENDER_InitializeEvents(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    KeInitializeEvent(&render->ThreadStartStopEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&render->StoppedEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&render->FrameFillIdleEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&render->DispatchIdleEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&render->DispatchRequestEvent, SynchronizationEvent, FALSE);
}

NTSTATUS RENDER_Initialize(DEVICE_CONTEXT* context) {
    {
        MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
        context->Render.ShutDown = FALSE;
    }
    const NTSTATUS status = Build(context);
    if (!NT_SUCCESS(status)) {
        RENDER_Uninitialize(context);
    }
    return status;
}

NTSTATUS RENDER_CreateRenderContexts(DEVICE_CONTEXT* context) {
    RENDER_InitializeLists(context);
    for (ULONG number = 0; number < RENDER_CONTEXT_COUNT; number++) {
        const NTSTATUS status = CreateRenderContext(context, number);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

void RENDER_Uninitialize(DEVICE_CONTEXT* context) {
    RENDER_Shutdown(context);
    RENDER_DeleteCompressionAutoUpdateTimer(context);
    RENDER_DeleteDropFrameEventCheckTimer(context);
    MODE_DisableOutput(context);

    // Under the mutex: a client that has not released the interface may still stop the stream, and that stop
    // finds each of these complete or null.
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    for (ULONG number = 0; number < RENDER_CONTEXT_COUNT; number++) {
        DeleteRenderContext(&context->Render, number);
    }
    RENDER_DeleteCompressionStaging(context);
    DeleteObject(&context->Render.RenderContextLookaside);
    DeleteRequestList(&context->Render.SentRequests);
    DeleteRequestList(&context->Render.SendQueue);
    DeleteObject(&context->Render.CompressionLevelLock.Handle);
    // The render buffers stay, because they belong to the device: when it is stopped and started again, their
    // 28 MB need not be allocated a second time.
}

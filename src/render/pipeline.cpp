#include "render/pipeline.h"

#include "control/mode_setting.h"
#include "device/device_context.h"
#include "render/frame_update.h"
#include "render/send.h"
#include "render/start_stop.h"
#include "render/timers.h"

namespace {

constexpr ULONG COMPRESSION_ALIGNMENT = 32;

// Points `*aligned` at the first 32-byte boundary at or above `address`.
template <typename T>
void AlignForCompression(T** aligned, VOID* address) {
    *aligned = reinterpret_cast<T*>(ALIGN_UP_BY(address, COMPRESSION_ALIGNMENT));
}

template <typename Handle>
void DeleteObject(Handle* handle) {
    if (*handle != nullptr) {
        WdfObjectDelete(*handle);
        *handle = nullptr;
    }
}

NTSTATUS CreateLocksAndCollections(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    WDF_OBJECT_ATTRIBUTES attributes;
    DEVICE_InitChildAttributes(context, &attributes);
    NTSTATUS status = WdfSpinLockCreate(&attributes, &render->CompressionLevelLock);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = WdfSpinLockCreate(&attributes, &render->SendQueueLock);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = WdfCollectionCreate(&attributes, &render->SendQueue);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = WdfSpinLockCreate(&attributes, &render->SentRequestsLock);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return WdfCollectionCreate(&attributes, &render->SentRequests);
}

void AlignCompressionTables(PIXEL_CONTEXT* pixel) {
    GROUP_TABLES* tables = &pixel->Tables;
    AlignForCompression(&tables->GroupPackShuffle, pixel->CompressionWorkArea0);
    AlignForCompression(&tables->GroupCountShuffle, pixel->CompressionWorkArea1);
    AlignForCompression(&tables->QuantMask, pixel->CompressionWorkArea2);
    AlignForCompression(&tables->QuantFill, pixel->CompressionWorkArea3);
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

void FreeMdls(RENDER_CONTEXT* renderContext) {
    for (PMDL& mdl : renderContext->RenderMdl) {
        if (mdl != nullptr) {
            IoFreeMdl(mdl);
            mdl = nullptr;
        }
    }
}

void DeleteRenderContext(RENDER_PIPELINE* render, ULONG number) {
    RENDER_CONTEXT* renderContext = render->RenderContexts[number];
    if (renderContext != nullptr) {
        DeleteObject(&renderContext->RenderRequest);
        DeleteObject(&renderContext->RenderUrbMemory);
        DeleteObject(&renderContext->ZeroLengthRequest);
        DeleteObject(&renderContext->ZeroLengthUrbMemory);
        FreeMdls(renderContext);
        render->RenderContexts[number] = nullptr;
    }
    DeleteObject(&render->RenderContextMemory[number]);
}

void DeleteCompressionStaging(RENDER_PIPELINE* render) {
    DeleteObject(&render->CompressionStaging);
    render->CompressionStagingAddress = nullptr;
    render->CompressionStagingAligned = nullptr;
}

NTSTATUS CreateCompressionStaging(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    WDF_OBJECT_ATTRIBUTES attributes;
    DEVICE_InitChildAttributes(context, &attributes);
    VOID* address;
    if (!NT_SUCCESS(WdfMemoryCreate(&attributes, DriverPoolType, POOL_TAG_COMPRESSION,
                                    COMPRESSION_STAGING_ALLOCATION, &render->CompressionStaging, &address))) {
        render->CompressionStaging = nullptr;
        return STATUS_UNSUCCESSFUL;
    }
    render->CompressionStagingAddress = static_cast<UCHAR*>(address);
    AlignForCompression(&render->CompressionStagingAligned, address);
    return STATUS_SUCCESS;
}

NTSTATUS BuildMdls(const RENDER_BUFFERS& buffers, RENDER_CONTEXT* renderContext, ULONG length) {
    if (ReadAcquire(&renderContext->OutstandingRequests) != 0) {
        // A transfer that did not come back within the stop still reads through these, and they describe the
        // same buffers as new ones would.
        return STATUS_SUCCESS;
    }
    for (ULONG i = 0; i < RENDER_BUFFER_COUNT; i++) {
        if (buffers.Aligned[i] == nullptr) {
            return STATUS_UNSUCCESSFUL;
        }
        PMDL mdl = IoAllocateMdl(buffers.Aligned[i], length, FALSE, FALSE, nullptr);
        if (mdl == nullptr) {
            return STATUS_UNSUCCESSFUL; // Those from before still serve.
        }
        MmBuildMdlForNonPagedPool(mdl);
        if (renderContext->RenderMdl[i] != nullptr) {
            IoFreeMdl(renderContext->RenderMdl[i]);
        }
        renderContext->RenderMdl[i] = mdl;
    }
    return STATUS_SUCCESS;
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
    SHARED_Write(context->Display.MonitorConnected, FALSE);
    status = RENDER_CreateRenderContexts(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    AlignCompressionTables(&context->Pixel);
    return THREAD_CreateFrameUpdateThread(context);
}

} // namespace

void RENDER_InitializeLocks(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    KeInitializeSpinLock(&render->AvailableListLock.Lock);
    KeInitializeSpinLock(&render->PendingListLock.Lock);
    KeInitializeEvent(&render->FrameUpdateRequestEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&render->ThreadStartStopEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&render->FrameFillIdleEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&render->DispatchIdleEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&render->DispatchRequestEvent, SynchronizationEvent, FALSE);
}

NTSTATUS RENDER_Initialize(DEVICE_CONTEXT* context) {
    {
        MUTEX_GUARD startStop(context->Locks.RenderStartStopMutex);
        context->Render.ShutDown = FALSE;
    }
    const NTSTATUS status = Build(context);
    if (!NT_SUCCESS(status)) {
        RENDER_Uninitialize(context);
    }
    return status;
}

NTSTATUS RENDER_CreateRenderContexts(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    {
        SPIN_LOCK_GUARD available(render->AvailableListLock);
        InitializeListHead(&render->AvailableList);
        render->AvailableCount = 0;
    }
    {
        SPIN_LOCK_GUARD pending(render->PendingListLock);
        InitializeListHead(&render->PendingList);
        render->PendingCount = 0;
        render->LatestRenderBufferIndex = RENDER_BUFFER_NONE;
        render->Dispatching = FALSE;
    }
    for (ULONG number = 0; number < RENDER_CONTEXT_COUNT; number++) {
        const NTSTATUS status = CreateRenderContext(context, number);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS RENDER_PrepareRenderBuffers(DEVICE_CONTEXT* context, ULONG length) {
    RENDER_PIPELINE* render = &context->Render;
    MUTEX_GUARD startStop(context->Locks.RenderStartStopMutex);
    DeleteCompressionStaging(render);
    if (context->Display.Mode.CompressionEnabled != 0) {
        const NTSTATUS status = CreateCompressionStaging(context);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    const ULONG mdlLength = length < RENDER_BUFFER_CAPACITY ? length : RENDER_BUFFER_CAPACITY;
    for (RENDER_CONTEXT* renderContext : render->RenderContexts) {
        if (renderContext == nullptr) {
            return STATUS_UNSUCCESSFUL; // The pipeline has been torn down.
        }
        const NTSTATUS status = BuildMdls(render->RenderBuffer, renderContext, mdlLength);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

void RENDER_Uninitialize(DEVICE_CONTEXT* context) {
    RENDER_PIPELINE* render = &context->Render;
    RENDER_Shutdown(context);
    RENDER_DeleteTimers(context);
    MODE_DisableOutput(context);

    // Under the mutex, so that a stop that a late client asks for finds each of these whole or gone.
    MUTEX_GUARD startStop(context->Locks.RenderStartStopMutex);
    for (ULONG number = 0; number < RENDER_CONTEXT_COUNT; number++) {
        DeleteRenderContext(render, number);
    }
    DeleteCompressionStaging(render);
    DeleteObject(&render->RenderContextLookaside);
    DeleteObject(&render->SentRequests);
    DeleteObject(&render->SentRequestsLock);
    DeleteObject(&render->SendQueue);
    DeleteObject(&render->SendQueueLock);
    DeleteObject(&render->CompressionLevelLock);
    // The render buffers stay: they belong to the device, like the memory behind them, and a device that is
    // stopped and started again need not find 28 MB a second time.
}

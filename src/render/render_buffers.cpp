#include "render/render_buffers.h"

#include "base/pool.h"

namespace {

constexpr ULONG RENDER_BUFFER_ALIGNMENT = 16;
constexpr ULONG COMPRESSION_ALIGNMENT = 32;

void DeleteBuffers(RENDER_BUFFERS* buffers) {
    for (ULONG i = 0; i < RENDER_BUFFER_COUNT; i++) {
        if (buffers->Memory[i] != nullptr) {
            WdfObjectDelete(buffers->Memory[i]);
        }
        buffers->Memory[i] = nullptr;
        buffers->NonAligned[i] = nullptr;
        buffers->Aligned[i] = nullptr;
    }
}

NTSTATUS CreateCompressionStaging(DEVICE_CONTEXT* context)
    TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    WDF_OBJECT_ATTRIBUTES attributes;
    DEVICE_InitChildAttributes(context, &attributes);
    VOID* address;
    if (!NT_SUCCESS(WdfMemoryCreate(&attributes, DriverPoolType, POOL_TAG_COMPRESSION,
                                    COMPRESSION_STAGING_ALLOCATION, &context->Render.CompressionStaging,
                                    &address))) {
        context->Render.CompressionStaging = nullptr;
        return STATUS_UNSUCCESSFUL;
    }
    context->Render.CompressionStagingAligned =
        static_cast<UCHAR*>(ALIGN_UP_POINTER_BY(address, COMPRESSION_ALIGNMENT));
    return STATUS_SUCCESS;
}

NTSTATUS BuildMdls(const RENDER_BUFFERS& buffers, RENDER_CONTEXT* renderContext, ULONG length) {
    if (ReadAcquire(&renderContext->OutstandingRequests) != 0) {
        // A transfer that did not complete during the stop still uses these MDLs. They describe the same
        // buffers as new ones would.
        return STATUS_SUCCESS;
    }
    for (ULONG i = 0; i < RENDER_BUFFER_COUNT; i++) {
        if (buffers.Aligned[i] == nullptr) {
            return STATUS_UNSUCCESSFUL;
        }
        PMDL mdl = IoAllocateMdl(buffers.Aligned[i], length, FALSE, FALSE, nullptr);
        if (mdl == nullptr) {
            return STATUS_UNSUCCESSFUL; // The earlier MDLs stay in use.
        }
        MmBuildMdlForNonPagedPool(mdl);
        if (renderContext->RenderMdl[i] != nullptr) {
            IoFreeMdl(renderContext->RenderMdl[i]);
        }
        renderContext->RenderMdl[i] = mdl;
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS RENDER_CreateBuffers(DEVICE_CONTEXT* context) {
    RENDER_BUFFERS* buffers = &context->Render.RenderBuffer;
    WDF_OBJECT_ATTRIBUTES attributes;
    DEVICE_InitChildAttributes(context, &attributes);
    for (ULONG i = 0; i < RENDER_BUFFER_COUNT; i++) {
        PVOID address = nullptr;
        const NTSTATUS status = WdfMemoryCreate(&attributes, DriverPoolType, POOL_TAG_DRIVER,
                                                RENDER_BUFFER_ALLOCATION, &buffers->Memory[i], &address);
        if (!NT_SUCCESS(status)) {
            buffers->Memory[i] = nullptr;
            DeleteBuffers(buffers);
            return status;
        }
        RtlFillMemory(address, RENDER_BUFFER_ALLOCATION, 0xFF);
        buffers->NonAligned[i] = static_cast<UCHAR*>(address);
        buffers->Aligned[i] = static_cast<UCHAR*>(ALIGN_UP_POINTER_BY(address, RENDER_BUFFER_ALIGNMENT));
    }
    return STATUS_SUCCESS;
}

void RENDER_ClearBuffers(DEVICE_CONTEXT* context) {
    for (UCHAR* buffer : context->Render.RenderBuffer.Aligned) {
        if (buffer != nullptr) {
            RtlZeroMemory(buffer, RENDER_BUFFER_CAPACITY);
        }
    }
}

NTSTATUS RENDER_PrepareRenderBuffers(DEVICE_CONTEXT* context, ULONG length) {
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    RENDER_DeleteCompressionStaging(context);
    if (context->Display.Mode.CompressionEnabled != 0) {
        const NTSTATUS status = CreateCompressionStaging(context);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    const ULONG mdlLength = length < RENDER_BUFFER_CAPACITY ? length : RENDER_BUFFER_CAPACITY;
    for (RENDER_CONTEXT* renderContext : context->Render.RenderContexts) {
        if (renderContext == nullptr) {
            return STATUS_UNSUCCESSFUL; // The pipeline has been torn down.
        }
        const NTSTATUS status = BuildMdls(context->Render.RenderBuffer, renderContext, mdlLength);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return STATUS_SUCCESS;
}

void RENDER_FreeMdls(RENDER_CONTEXT* renderContext) {
    for (PMDL& mdl : renderContext->RenderMdl) {
        if (mdl != nullptr) {
            IoFreeMdl(mdl);
            mdl = nullptr;
        }
    }
}

void RENDER_DeleteCompressionStaging(DEVICE_CONTEXT* context) {
    if (context->Render.CompressionStaging != nullptr) {
        WdfObjectDelete(context->Render.CompressionStaging);
    }
    context->Render.CompressionStaging = nullptr;
    context->Render.CompressionStagingAligned = nullptr;
}

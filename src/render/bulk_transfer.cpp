#include "render/bulk_transfer.h"

namespace {

static_assert(sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER) == 0x80);

struct BULK_TRANSFER {
    WDFREQUEST Request;
    _URB_BULK_OR_INTERRUPT_TRANSFER* Urb;
    WDFMEMORY UrbMemory;
    PMDL Mdl;
    ULONG Length;
    PFN_WDF_REQUEST_COMPLETION_ROUTINE Completed;
};

NTSTATUS FormatTransfer(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                        const BULK_TRANSFER& transfer) {
    WDF_REQUEST_REUSE_PARAMS reuse;
    WDF_REQUEST_REUSE_PARAMS_INIT(&reuse, WDF_REQUEST_REUSE_NO_FLAGS, STATUS_SUCCESS);
    NTSTATUS status = WdfRequestReuse(transfer.Request, &reuse);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    _URB_BULK_OR_INTERRUPT_TRANSFER* urb = transfer.Urb;
    urb->Hdr.Length = sizeof(*urb);
    urb->Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    urb->PipeHandle = context->Usb.BulkOutPipeHandle;
    urb->TransferFlags = USBD_TRANSFER_DIRECTION_OUT;
    urb->TransferBufferLength = transfer.Length;
    urb->TransferBuffer = nullptr;
    urb->TransferBufferMDL = transfer.Mdl;
    urb->UrbLink = nullptr;
    status = WdfUsbTargetDeviceFormatRequestForUrb(context->Usb.UsbDevice, transfer.Request,
                                                   transfer.UrbMemory, nullptr);
    if (NT_SUCCESS(status)) {
        WdfRequestSetCompletionRoutine(transfer.Request, transfer.Completed, renderContext);
    }
    return status;
}

} // namespace

NTSTATUS RENDER_FormatRequests(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                               PFN_WDF_REQUEST_COMPLETION_ROUTINE renderCompleted,
                               PFN_WDF_REQUEST_COMPLETION_ROUTINE zeroLengthCompleted) {
    const BULK_TRANSFER render = {.Request = renderContext->RenderRequest,
                                  .Urb = &renderContext->RenderUrb,
                                  .UrbMemory = renderContext->RenderUrbMemory,
                                  .Mdl = renderContext->RenderMdl[renderContext->RenderBufferIndex],
                                  .Length = renderContext->TransferLength,
                                  .Completed = renderCompleted};
    if (render.Mdl == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES; // The preparation of the render buffers failed.
    }
    if (context->Usb.BulkOutPipeHandle == nullptr) {
        return STATUS_UNSUCCESSFUL; // The last selection of the streaming interface failed.
    }
    const NTSTATUS status = FormatTransfer(context, renderContext, render);
    if (!NT_SUCCESS(status) || context->Display.Mode.ZeroLengthFlag != 1) {
        return status;
    }
    return RENDER_FormatZeroLength(context, renderContext, zeroLengthCompleted);
}

NTSTATUS RENDER_FormatZeroLength(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext,
                                 PFN_WDF_REQUEST_COMPLETION_ROUTINE completed) {
    const BULK_TRANSFER zeroLength = {.Request = renderContext->ZeroLengthRequest,
                                      .Urb = &renderContext->ZeroLengthUrb,
                                      .UrbMemory = renderContext->ZeroLengthUrbMemory,
                                      .Mdl = nullptr,
                                      .Length = 0,
                                      .Completed = completed};
    return FormatTransfer(context, renderContext, zeroLength);
}

#include "driver/hardware.h"

#include "client/commands.h"
#include "control/device_interface.h"
#include "control/monitor.h"
#include "control/status_pipe.h"
#include "device/device_context.h"
#include "device/device_count.h"
#include "render/pipeline.h"
#include "render/render_buffers.h"
#include "surface/frame_buffer.h"
#include "usb/chip.h"
#include "usb/configuration.h"

NTSTATUS DEVICE_EvtPrepareHardware(WDFDEVICE device, WDFCMRESLIST, WDFCMRESLIST) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(device);
    // A device that was given up because of a halted pipe gets new pipes below, with the configuration.
    DEVICE_MarkPresent(context);
    CLIENT_EndSession(context);
    MONITOR_IgnoreReports(context);
    MONITOR_Reset(context);

    NTSTATUS status = USB_CreateTarget(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (CHIP_Traits(context).HasStatusPipe) {
        status = INT_StartStatusPipe(context);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    status = RENDER_Initialize(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = INTERFACE_Register(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RENDER_PrepareRenderBuffers(context, RENDER_BUFFER_CAPACITY);
    DEVICECOUNT_Add(context);
    return status;
}

NTSTATUS DEVICE_EvtReleaseHardware(WDFDEVICE device, WDFCMRESLIST) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(device);
    INTERFACE_Unregister(context);
    INT_StopStatusPipe(context);
    RENDER_Uninitialize(context);

    // A client that did not release the interface within the time that a removal waits leaves its frame
    // buffers behind.
    FRAMEBUFFER_DestroyAll(context);

    USB_DeleteControlRequest(context);
    DEVICECOUNT_Remove(context);
    return STATUS_SUCCESS;
}

#include "driver/hardware.h"

#include "control/status_pipe.h"
#include "device/device_context.h"
#include "render/pipeline.h"
#include "surface/frame_buffer.h"
#include "usb/configuration.h"

namespace {

// A client that outlived the previous preparation has lost its tenure: its frame buffers go with their last
// user, and the next client finds the interface free and the display off.
void ResetClient(DEVICE_CONTEXT* context) {
    InterlockedExchange(&context->Client.ClientCount, 0);
    {
        MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
        SHARED_Write(context->Client.DisplayOn, 0);
    }
    FRAMEBUFFER_DestroyAll(context);
}

NTSTATUS RegisterInterface(DEVICE_CONTEXT* context) {
    DISPLAY_CONTEXT* display = &context->Display;
    display->PhysicalDeviceObject = WdfDeviceWdmGetPhysicalDevice(context->Device);

    MUTEX_GUARD monitor(context->Locks.MonitorMutex);
    const NTSTATUS status =
        IoRegisterDeviceInterface(display->PhysicalDeviceObject, &GUID_DEVINTERFACE_USB_DISPLAY, nullptr,
                                  &display->InterfaceSymbolicLinkName);
    if (!NT_SUCCESS(status)) {
        display->InterfaceSymbolicLinkName = {};
    }
    return status;
}

// Under MonitorMutex, like every change of the interface's state: a status work item that is still running
// must find either the link or none.
void UnregisterInterface(DEVICE_CONTEXT* context) {
    MUTEX_GUARD monitor(context->Locks.MonitorMutex);
    UNICODE_STRING* link = &context->Display.InterfaceSymbolicLinkName;
    if (link->Length == 0) {
        return;
    }
    // A failure means that it was not enabled.
    (void)IoSetDeviceInterfaceState(link, FALSE);
    RtlFreeUnicodeString(link);
    *link = {};
}

// Each device counts on its own copy; the registry holds the one written last.
void CountPreparedDevice(DEVICE_CONTEXT* context) {
    context->Settings.CurrentNumberOfDevices++;
    (void)REGISTRY_AssignULong(WIDE("CurrentNumberOfDevices"), context->Settings.CurrentNumberOfDevices);
}

// A release after a preparation that failed early takes back what was never added; it must not wrap around
// to a number of adapters that turns compression on everywhere.
void CountReleasedDevice(DEVICE_CONTEXT* context) {
    if (context->Settings.CurrentNumberOfDevices > 0) {
        context->Settings.CurrentNumberOfDevices--;
    }
    (void)REGISTRY_AssignULong(WIDE("CurrentNumberOfDevices"), context->Settings.CurrentNumberOfDevices);
}

} // namespace

NTSTATUS DEVICE_EvtPrepareHardware(WDFDEVICE device, WDFCMRESLIST, WDFCMRESLIST) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(device);
    ResetClient(context);
    SHARED_Write(context->Usb.IgnoreInterruptStatus, TRUE);

    NTSTATUS status = USB_CreateTarget(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!context->Usb.NoInterruptPipe) {
        status = INT_StartStatusPipe(context);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    status = RENDER_Initialize(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RegisterInterface(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RENDER_PrepareRenderBuffers(context, RENDER_BUFFER_CAPACITY);
    CountPreparedDevice(context);
    return status;
}

NTSTATUS DEVICE_EvtReleaseHardware(WDFDEVICE device, WDFCMRESLIST) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(device);
    UnregisterInterface(context);
    if (!context->Usb.NoInterruptPipe) {
        INT_StopStatusPipe(context);
    }
    RENDER_Uninitialize(context);

    // A client that did not let go within the time a removal waits leaves its frame buffers behind.
    FRAMEBUFFER_DestroyAll(context);

    USB_DeleteControlRequest(context);
    CountReleasedDevice(context);
    return STATUS_SUCCESS;
}

#include "control/status_pipe.h"

#include "base/shared_field.h"
#include "control/monitor.h"
#include "device/device_context.h"
#include "render/drop_frames.h"
#include "usb/chip.h"
#include "usb/configuration.h"
#include "usb/registers.h"

struct VGA_WORKITEM_CONTEXT {
    DEVICE_CONTEXT* DeviceContext;
};

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(VGA_WORKITEM_CONTEXT, INT_GetWorkItemContext)

namespace {

constexpr size_t REPORT_LENGTH = 1;
constexpr UCHAR REPORT_STATUS_CHANGED = 0x01;
constexpr UCHAR REPORT_FRAME_STATUS = 0x00; // of interest only while a monitor is attached

void HandleStatus(DEVICE_CONTEXT* context, ULONG status) TSA_REQUIRES(context->Control.MonitorMutex) {
    if ((status & STATUS_MONITOR_EVENT_MASK) != 0) {
        MONITOR_OnStatus(context, status);
    } else if ((status & STATUS_FRAME_ERROR_MASK) != 0) {
        MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
        if (!RENDER_FrameErrorsSuspended(context)) {
            RENDER_HandleFrameError(context);
        }
    }
}

// The release comes last: until then the stop of the pipe waits, and with it the power-down and the disposal
// of the device.
void EndWork(DEVICE_CONTEXT* context, WDFWORKITEM workItem) {
    WdfObjectDelete(workItem);
    ExReleaseRundownProtection(&context->Control.StatusWork);
}

} // namespace

NTSTATUS INT_StartStatusPipe(DEVICE_CONTEXT* context) {
    CONTROL_CONTEXT* control = &context->Control;
    control->InterruptPipe = USB_FindPipe(context->Usb.UsbInterfaces[USB_STATUS_INTERFACE],
                                          WdfUsbPipeTypeInterrupt, USB_DIRECTION_IN);
    if (control->InterruptPipe == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    // A report is one byte, and the framework wants reads of whole packets.
    WdfUsbTargetPipeSetNoMaximumPacketSizeCheck(control->InterruptPipe);

    WDF_USB_CONTINUOUS_READER_CONFIG config;
    WDF_USB_CONTINUOUS_READER_CONFIG_INIT(&config, INT_EvtReadComplete, context, REPORT_LENGTH);
    config.NumPendingReads = 1;
    const NTSTATUS status = WdfUsbTargetPipeConfigContinuousReader(control->InterruptPipe, &config);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return WdfIoTargetStart(WdfUsbTargetPipeGetIoTarget(control->InterruptPipe));
}

void INT_StopStatusPipe(DEVICE_CONTEXT* context) {
    INT_SuspendStatusPipe(context);
    context->Control.InterruptPipe = nullptr; // The next configuration creates new pipes.
}

void INT_SuspendStatusPipe(DEVICE_CONTEXT* context) {
    CONTROL_CONTEXT* control = &context->Control;
    if (control->InterruptPipe != nullptr) {
        // Returns when no read is out and no read callback runs, so no work item is added from here on.
        WdfIoTargetStop(WdfUsbTargetPipeGetIoTarget(control->InterruptPipe), WdfIoTargetCancelSentIo);
        ExWaitForRundownProtectionRelease(&control->StatusWork);
        ExReInitializeRundownProtection(&control->StatusWork);
    }
}

void INT_ResumeStatusPipe(DEVICE_CONTEXT* context) {
    if (context->Control.InterruptPipe != nullptr) {
        (void)WdfIoTargetStart(WdfUsbTargetPipeGetIoTarget(context->Control.InterruptPipe));
    }
}

void INT_EvtReadComplete(WDFUSBPIPE, WDFMEMORY buffer, size_t, WDFCONTEXT readerContext) {
    DEVICE_CONTEXT* context = static_cast<DEVICE_CONTEXT*>(readerContext);
    const UCHAR report = *static_cast<const UCHAR*>(WdfMemoryGetBuffer(buffer, nullptr));
    const BOOLEAN isWanted =
        report == REPORT_STATUS_CHANGED ||
        (report == REPORT_FRAME_STATUS && SHARED_Read(context->Control.MonitorConnected));
    if (!isWanted) {
        return;
    }

    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config,
                             CHIP_Traits(context).ReportsEvents ? INT_EvtStatusWorkItem : INT_EvtAckWorkItem);
    config.AutomaticSerialization = FALSE;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, VGA_WORKITEM_CONTEXT);
    attributes.ParentObject = context->Device;
    WDFWORKITEM workItem = nullptr;
    if (!NT_SUCCESS(WdfWorkItemCreate(&config, &attributes, &workItem))) {
        return; // The report is lost. The next one is handled as usual.
    }
    // Succeeds always: the wait for the work items begins after the last read callback has returned.
    (void)ExAcquireRundownProtection(&context->Control.StatusWork);
    INT_GetWorkItemContext(workItem)->DeviceContext = context;
    WdfWorkItemEnqueue(workItem);
}

void INT_EvtStatusWorkItem(WDFWORKITEM workItem) {
    DEVICE_CONTEXT* context = INT_GetWorkItemContext(workItem)->DeviceContext;
    {
        // MonitorMutex comes first for either kind of status, because a detach takes locks that come after
        // it. The status is read under it, too: of two work items at once the later one acts on the newer
        // status.
        MUTEX_GUARD monitor(context->Control.MonitorMutex);
        ULONG status;
        if (REG_Read(context, REGISTER_STATUS, &status) &&
            !SHARED_Read(context->Control.IgnoreInterruptStatus)) {
            HandleStatus(context, status);
        }
    }
    EndWork(context, workItem);
}

void INT_EvtAckWorkItem(WDFWORKITEM workItem) {
    DEVICE_CONTEXT* context = INT_GetWorkItemContext(workItem)->DeviceContext;
    ULONG status;
    if (REG_Read(context, REGISTER_STATUS, &status)) {
        REG_Write(context, REGISTER_STATUS, &status);
    }
    EndWork(context, workItem);
}

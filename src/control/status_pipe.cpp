#include "control/status_pipe.h"

#include "control/monitor.h"
#include "device/device_context.h"
#include "render/timers.h"
#include "usb/configuration.h"
#include "usb/registers.h"

struct VGA_WORKITEM_CONTEXT {
    ::DEVICE_CONTEXT* DeviceContext;
};

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(VGA_WORKITEM_CONTEXT, INT_GetWorkItemContext)

namespace {

constexpr size_t REPORT_LENGTH = 1;
constexpr UCHAR REPORT_STATUS_CHANGED = 0x01;
constexpr UCHAR REPORT_FRAME_STATUS = 0x00; // of interest only while a monitor is attached

// The caller holds MonitorMutex.
void HandleStatus(DEVICE_CONTEXT* context, ULONG status) {
    if ((status & STATUS_MONITOR_EVENT_MASK) != 0) {
        MONITOR_OnStatus(context, status);
    } else if ((status & STATUS_FRAME_ERROR_MASK) != 0) {
        MUTEX_GUARD displayState(context->Locks.DisplayStateMutex);
        if (!SHARED_Read(context->Display.FrameErrorHandlingSuspended)) {
            RENDER_HandleFrameError(context);
        }
    }
}

} // namespace

NTSTATUS INT_StartStatusPipe(DEVICE_CONTEXT* context) {
    USB_CONTEXT* usb = &context->Usb;
    usb->InterruptPipe =
        USB_FindPipe(usb->UsbInterfaces[USB_STATUS_INTERFACE], WdfUsbPipeTypeInterrupt, USB_DIRECTION_IN);
    if (usb->InterruptPipe == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    // A report is one byte, and the framework wants reads of whole packets.
    WdfUsbTargetPipeSetNoMaximumPacketSizeCheck(usb->InterruptPipe);

    WDF_USB_CONTINUOUS_READER_CONFIG config;
    WDF_USB_CONTINUOUS_READER_CONFIG_INIT(&config, INT_EvtReadComplete, context, REPORT_LENGTH);
    config.NumPendingReads = 1;
    const NTSTATUS status = WdfUsbTargetPipeConfigContinuousReader(usb->InterruptPipe, &config);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return WdfIoTargetStart(WdfUsbTargetPipeGetIoTarget(usb->InterruptPipe));
}

void INT_StopStatusPipe(DEVICE_CONTEXT* context) {
    USB_CONTEXT* usb = &context->Usb;
    if (usb->InterruptPipe != nullptr) {
        WdfIoTargetStop(WdfUsbTargetPipeGetIoTarget(usb->InterruptPipe), WdfIoTargetCancelSentIo);
        usb->InterruptPipe = nullptr; // The next configuration makes pipes anew.
    }
}

void INT_EvtReadComplete(WDFUSBPIPE, WDFMEMORY buffer, size_t, WDFCONTEXT readerContext) {
    DEVICE_CONTEXT* context = static_cast<DEVICE_CONTEXT*>(readerContext);
    const UCHAR report = *static_cast<const UCHAR*>(WdfMemoryGetBuffer(buffer, nullptr));
    const BOOLEAN isWanted =
        report == REPORT_STATUS_CHANGED ||
        (report == REPORT_FRAME_STATUS && SHARED_Read(context->Display.MonitorConnected));
    if (!isWanted) {
        return;
    }

    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config,
                             context->Usb.ChipRevision == 2 ? INT_EvtStatusWorkItem : INT_EvtAckWorkItem);
    config.AutomaticSerialization = FALSE;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, VGA_WORKITEM_CONTEXT);
    attributes.ParentObject = context->Device;
    WDFWORKITEM workItem = nullptr;
    if (!NT_SUCCESS(WdfWorkItemCreate(&config, &attributes, &workItem))) {
        return; // The report is lost; the next one starts afresh.
    }
    INT_GetWorkItemContext(workItem)->DeviceContext = context;
    WdfWorkItemEnqueue(workItem);
}

void INT_EvtStatusWorkItem(WDFWORKITEM workItem) {
    DEVICE_CONTEXT* context = INT_GetWorkItemContext(workItem)->DeviceContext;
    {
        // The monitor's mutex comes first for either kind of status, because a detach takes everything that
        // stands below it. The status is read under it, too: of two work items at once the later one acts on
        // the newer status. D0 exit raises the flag and then waits for this mutex: whoever comes later leaves
        // the monitor alone.
        MUTEX_GUARD monitor(context->Locks.MonitorMutex);
        ULONG status;
        if (REG_Read(context, REGISTER_STATUS, &status) && !SHARED_Read(context->Usb.IgnoreInterruptStatus)) {
            HandleStatus(context, status);
        }
    }
    WdfObjectDelete(workItem);
}

void INT_EvtAckWorkItem(WDFWORKITEM workItem) {
    DEVICE_CONTEXT* context = INT_GetWorkItemContext(workItem)->DeviceContext;
    ULONG status;
    if (REG_Read(context, REGISTER_STATUS, &status)) {
        REG_Write(context, REGISTER_STATUS, &status);
    }
    WdfObjectDelete(workItem);
}

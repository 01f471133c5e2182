#include "driver/power.h"

#include "control/mode_setting.h"
#include "control/monitor.h"
#include "device/device_context.h"
#include "driver/bring_up.h"
#include "hdmi/transmitter.h"
#include "render/start_stop.h"
#include "usb/registers.h"

namespace {

constexpr ULONG CLIENT_RELEASE_POLL_MS = 10;
constexpr ULONG CLIENT_RELEASE_LIMIT_MS = 10000;

void PowerDownForSleep(DEVICE_CONTEXT* context) {
    CHIP_PowerDownStages(context);
    REG_ClearBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_PLL_BIT);
    if (context->Usb.ChipRevision == 2) {
        REG_SetBit(context, REGISTER_STANDBY, STANDBY_BIT);
    }
    if (!SHARED_Read(context->Hdmi.HdmiTransmitterPresent)) {
        return;
    }
    {
        MUTEX_GUARD displayState(context->Locks.DisplayStateMutex);
        if (SHARED_Read(context->Hdmi.HdmiTransmitterPowered)) {
            (void)HDMI_PowerDown(context);
        }
    }
    MODE_ForgetForSleep(context);
}

void PowerDownForGood(DEVICE_CONTEXT* context) {
    if (SHARED_Read(context->Display.MonitorConnected)) {
        MONITOR_Detach(context);
    }
    if (context->Usb.ChipRevision == 1) {
        CHIP_UpdateRegister70Bits(context, FALSE);
    }
    CHIP_UpdateRegister8064Bit17(context, TRUE);
}

} // namespace

NTSTATUS DEVICE_EvtD0Entry(WDFDEVICE device, WDF_POWER_DEVICE_STATE previousState) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(device);
    CHIP_Initialize(context);
    MONITOR_CheckAtD0Entry(context);

    SHARED_Write(context->Usb.IgnoreInterruptStatus, FALSE);
    SHARED_Write(context->Display.FrameErrorHandlingSuspended, FALSE);
    context->Power.PreviousPowerState = previousState;

    // A display switch finds the device either out of D0 with its stream paused, or in D0 with its stream
    // running.
    MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
    SHARED_Write(context->Power.CurrentPowerState, WdfPowerDeviceD0);
    MODE_Resume(context);
    return STATUS_SUCCESS;
}

NTSTATUS DEVICE_EvtD0Exit(WDFDEVICE device, WDF_POWER_DEVICE_STATE targetState) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(device);
    {
        // A display switch under way finishes first; the next one finds the device out of D0.
        MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
        context->Power.PreviousPowerState = context->Power.CurrentPowerState;
        SHARED_Write(context->Power.CurrentPowerState, targetState);
    }
    SHARED_Write(context->Usb.IgnoreInterruptStatus, TRUE);
    SHARED_Write(context->Display.FrameErrorHandlingSuspended, TRUE);

    // A monitor event under way finishes first, too; later ones see IgnoreInterruptStatus under this mutex.
    MUTEX_GUARD monitor(context->Locks.MonitorMutex);

    // The stream must not outlive D0.
    RENDER_Suspend(context);

    if (targetState == WdfPowerDeviceD3Final) {
        PowerDownForGood(context);
    } else {
        PowerDownForSleep(context);
    }
    return STATUS_SUCCESS;
}

NTSTATUS DEVICE_EvtSelfManagedIoSuspend(WDFDEVICE device) {
    USB_CONTEXT* usb = &DEVICE_GetContext(device)->Usb;
    if (!usb->NoInterruptPipe && usb->InterruptPipe != nullptr) {
        WdfIoTargetStop(WdfUsbTargetPipeGetIoTarget(usb->InterruptPipe), WdfIoTargetCancelSentIo);
    }
    return STATUS_SUCCESS;
}

NTSTATUS DEVICE_EvtSelfManagedIoRestart(WDFDEVICE device) {
    USB_CONTEXT* usb = &DEVICE_GetContext(device)->Usb;
    if (!usb->NoInterruptPipe && usb->InterruptPipe != nullptr) {
        // Without the pipe the adapter still shows frames: a failure here must not fail the resume.
        (void)WdfIoTargetStart(WdfUsbTargetPipeGetIoTarget(usb->InterruptPipe));
    }
    return STATUS_SUCCESS;
}

void DEVICE_EvtSurpriseRemoval(WDFDEVICE device) {
    SHARED_Write(DEVICE_GetContext(device)->DeviceRemoved, TRUE);
}

NTSTATUS DEVICE_PreprocessPnpIrp(WDFDEVICE device, PIRP irp) {
    const IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MajorFunction == IRP_MJ_PNP && stack->MinorFunction == IRP_MN_REMOVE_DEVICE) {
        DEVICE_WaitForClientRelease(DEVICE_GetContext(device));
    }
    IoSkipCurrentIrpStackLocation(irp);
    return WdfDeviceWdmDispatchPreprocessedIrp(device, irp);
}

void DEVICE_WaitForClientRelease(DEVICE_CONTEXT* context) {
    ULONG elapsedMs = 0;
    while (SHARED_Read(context->Client.ClientCount) != 0 && elapsedMs <= CLIENT_RELEASE_LIMIT_MS) {
        UTIL_DelayMs(CLIENT_RELEASE_POLL_MS);
        elapsedMs += CLIENT_RELEASE_POLL_MS;
    }
}

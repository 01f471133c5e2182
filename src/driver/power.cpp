#include "driver/power.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "control/mode_setting.h"
#include "control/monitor.h"
#include "control/status_pipe.h"
#include "device/device_context.h"
#include "display/mode_timing.h"
#include "driver/bring_up.h"
#include "hdmi/transmitter.h"
#include "render/drop_frames.h"
#include "render/start_stop.h"
#include "usb/chip.h"
#include "usb/registers.h"

namespace {

constexpr ULONG CLIENT_RELEASE_POLL_MS = 10;
constexpr ULONG CLIENT_RELEASE_LIMIT_MS = 10000;

void SetCurrentPowerState(DEVICE_CONTEXT* context, WDF_POWER_DEVICE_STATE state)
    TSA_REQUIRES(context->Client.DisplayPowerMutex) {
    SHARED_Write(context->Power.CurrentPowerState, state);
}

void PowerDownForSleep(DEVICE_CONTEXT* context) {
    CHIP_PowerDownStages(context);
    REG_ClearBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_PLL_BIT);
    CHIP_SetStandby(context, TRUE);
    if (!SHARED_Read(context->Hdmi.HdmiTransmitterPresent)) {
        return;
    }
    HDMI_PowerDownIfPowered(context);
    MODE_ForgetForSleep(context);
}

void PowerDownForGood(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Control.MonitorMutex) {
    if (SHARED_Read(context->Control.MonitorConnected)) {
        MONITOR_Detach(context);
    }
    if (CHIP_Traits(context).KeepsOutputDrivers) {
        CHIP_UpdateRegister70Bits(context, FALSE);
    }
    CHIP_UpdateRegister8064Bit17(context, TRUE);
}

} // namespace

NTSTATUS DEVICE_EvtD0Entry(WDFDEVICE device, WDF_POWER_DEVICE_STATE previousState) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(device);
    CHIP_Initialize(context);
    MONITOR_CheckAtD0Entry(context);

    MONITOR_AcceptReports(context);
    {
        MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
        RENDER_ResumeFrameErrors(context);
    }
    context->Power.PreviousPowerState = previousState;

    // A display switch finds the device either out of D0 with its stream paused, or in D0 with its stream
    // running.
    MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
    SetCurrentPowerState(context, WdfPowerDeviceD0);
    MODE_Resume(context);
    return STATUS_SUCCESS;
}

NTSTATUS DEVICE_EvtD0Exit(WDFDEVICE device, WDF_POWER_DEVICE_STATE targetState) {
    DEVICE_CONTEXT* context = DEVICE_GetContext(device);
    {
        // A display switch in progress finishes first; the next one finds the device out of D0.
        MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
        context->Power.PreviousPowerState = context->Power.CurrentPowerState;
        SetCurrentPowerState(context, targetState);
    }
    MONITOR_IgnoreReports(context);
    {
        MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
        RENDER_SuspendFrameErrors(context);
    }

    // The status pipe is at rest. What still takes this mutex is a client that reads the EDID.
    MUTEX_GUARD monitor(context->Control.MonitorMutex);

    // No transfer may be in flight outside D0.
    RENDER_Suspend(context);

    if (targetState == WdfPowerDeviceD3Final) {
        PowerDownForGood(context);
    } else {
        PowerDownForSleep(context);
    }
    return STATUS_SUCCESS;
}

NTSTATUS DEVICE_EvtSelfManagedIoSuspend(WDFDEVICE device) {
    INT_SuspendStatusPipe(DEVICE_GetContext(device));
    return STATUS_SUCCESS;
}

NTSTATUS DEVICE_EvtSelfManagedIoRestart(WDFDEVICE device) {
    INT_ResumeStatusPipe(DEVICE_GetContext(device));
    return STATUS_SUCCESS;
}

void DEVICE_EvtSurpriseRemoval(WDFDEVICE device) {
    DEVICE_MarkRemoved(DEVICE_GetContext(device));
}

NTSTATUS DEVICE_PreprocessPnpIrp(WDFDEVICE device, PIRP irp) {
    const IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MajorFunction == IRP_MJ_PNP && stack->MinorFunction == IRP_MN_REMOVE_DEVICE) {
        SHARED_Write(DEVICE_GetContext(device)->RemovalBegun, TRUE);
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

#include "control/monitor.h"

#include "device/device_context.h"
#include "display/edid.h"
#include "display/edid_read.h"
#include "display/mode_timing.h"
#include "render/start_stop.h"
#include "render/timers.h"
#include "usb/registers.h"

namespace {

// The client sees the monitor come and go by this. The caller holds MonitorMutex.
void SwitchInterface(DEVICE_CONTEXT* context, BOOLEAN on) {
    UNICODE_STRING* link = &context->Display.InterfaceSymbolicLinkName;
    if (link->Length != 0) {
        // Off fails when it was not on. On fails only for an interface that is gone with its device.
        (void)IoSetDeviceInterfaceState(link, on);
    }
}

} // namespace

void MONITOR_CheckAtD0Entry(DEVICE_CONTEXT* context) {
    // To the end: a report that comes meanwhile waits for its turn and then reads a status of its own, and a
    // monitor that goes while its EDID is read is not missed.
    MUTEX_GUARD monitor(context->Locks.MonitorMutex);
    SHARED_Write(context->Usb.IgnoreInterruptStatus, TRUE);
    ULONG status;
    if (REG_Read(context, REGISTER_STATUS, &status)) {
        if (context->Usb.ChipRevision == 2) {
            MONITOR_OnStatus(context, status);
        } else {
            MONITOR_CheckStatus(context, status);
        }
    }
    SHARED_Write(context->Usb.IgnoreInterruptStatus, FALSE);
}

void MONITOR_OnStatus(DEVICE_CONTEXT* context, ULONG status) {
    MUTEX_GUARD monitor(context->Locks.MonitorMutex);
    const BOOLEAN wasAttached = SHARED_Read(context->Display.MonitorConnected);
    const BOOLEAN isAttached = (status & STATUS_MONITOR_ATTACHED_MASK) != 0;
    if (wasAttached && !isAttached) {
        MONITOR_Detach(context);
    } else if (isAttached && !wasAttached) {
        context->Display.EdidViaAdapterDdc =
            (status & STATUS_EDID_VIA_ADAPTER_MASK) == STATUS_EDID_VIA_ADAPTER_MASK;
        MONITOR_Attach(context, (status & STATUS_EDID_READABLE_MASK) != 0);
    }
}

void MONITOR_CheckStatus(DEVICE_CONTEXT* context, ULONG status) {
    MUTEX_GUARD monitor(context->Locks.MonitorMutex);
    if ((status & STATUS_MONITOR_ATTACHED_MASK) == 0) {
        MONITOR_Detach(context);
    } else if ((status & STATUS_FRAME_ERROR_MASK) != 0) {
        REG_ClearBit(context, REGISTER_STATUS, STATUS_FRAME_ERROR_BIT);
        RENDER_HandleFrameError(context);
    } else {
        MONITOR_Attach(context, TRUE);
    }
}

void MONITOR_Attach(DEVICE_CONTEXT* context, BOOLEAN readEdid) {
    SHARED_Write(context->Render.DropFrameCheckState, DROP_FRAME_CHECK_RESET);
    SHARED_Write(context->Render.PixelBytesUpgradeCount, 0u);
    SHARED_Write(context->Display.MonitorConnected, TRUE);
    RENDER_StartDropFrameEventCheckTimer(context, DROP_FRAME_CHECK_PERIOD_MS);

    CHIP_UpdateRegister70Bits(context, FALSE);
    if (context->Usb.ChipRevision == 2) {
        REG_ClearBit(context, REGISTER_STANDBY, STANDBY_BIT);
    }

    EDID_Clear(&context->Display);
    const BOOLEAN hasEdid = readEdid || SHARED_Read(context->Hdmi.HdmiTransmitterPresent);
    if (context->Settings.UseForceNonPnpMonitor != 0) {
        // As without an EDID: a transmitter takes such a monitor for a DVI one.
        SHARED_Write(context->Display.MonitorIsDvi, TRUE);
    } else if (hasEdid) {
        EDID_Acquire(context);
    }
    SwitchInterface(context, TRUE);
}

void MONITOR_Detach(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Display.MonitorConnected, FALSE);
    RENDER_StopDropFrameEventCheckTimer(context);
    SwitchInterface(context, FALSE);
    {
        // One step: a display-on in between would start the stream with a mode that is forgotten under it.
        MUTEX_GUARD startStop(context->Locks.RenderStartStopMutex);
        RENDER_Stop(context);
        MODE_Forget(context);
    }
    EDID_Clear(&context->Display);

    REG_ClearBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_PLL_BIT);
    if (context->Usb.ChipRevision == 2) {
        REG_SetBit(context, REGISTER_STANDBY, STANDBY_BIT);
    }
    CHIP_UpdateRegister70Bits(context, TRUE);
}

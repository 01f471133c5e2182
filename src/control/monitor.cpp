#include "control/monitor.h"

#include "base/shared_field.h"
#include "control/device_interface.h"
#include "display/edid.h"
#include "display/edid_read.h"
#include "display/mode_timing.h"
#include "render/drop_frames.h"
#include "render/start_stop.h"
#include "usb/chip.h"
#include "usb/registers.h"

void MONITOR_IgnoreReports(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Control.IgnoreInterruptStatus, TRUE);
}

void MONITOR_AcceptReports(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Control.IgnoreInterruptStatus, FALSE);
}

void MONITOR_Reset(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Control.MonitorConnected, FALSE);
}

void MONITOR_CheckAtD0Entry(DEVICE_CONTEXT* context) {
    // The mutex is held throughout, so that a concurrent report reads the status again afterwards: a detach
    // while the EDID is read is not missed.
    MUTEX_GUARD monitor(context->Control.MonitorMutex);
    MONITOR_IgnoreReports(context);
    ULONG status;
    if (REG_Read(context, REGISTER_STATUS, &status)) {
        if (CHIP_Traits(context).ReportsEvents) {
            MONITOR_OnStatus(context, status);
        } else {
            MONITOR_CheckStatus(context, status);
        }
    }
    MONITOR_AcceptReports(context);
}

void MONITOR_OnStatus(DEVICE_CONTEXT* context, ULONG status) {
    const BOOLEAN wasAttached = SHARED_Read(context->Control.MonitorConnected);
    const BOOLEAN isAttached = (status & STATUS_MONITOR_ATTACHED_MASK) != 0;
    if (wasAttached && !isAttached) {
        MONITOR_Detach(context);
    } else if (isAttached && !wasAttached) {
        context->Control.Edid.ViaAdapterDdc =
            (status & STATUS_EDID_VIA_ADAPTER_MASK) == STATUS_EDID_VIA_ADAPTER_MASK;
        MONITOR_Attach(context, (status & STATUS_EDID_READABLE_MASK) != 0);
    }
}

void MONITOR_CheckStatus(DEVICE_CONTEXT* context, ULONG status) {
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
    RENDER_ResetDropFrameCheck(context);
    SHARED_Write(context->Control.MonitorConnected, TRUE);
    RENDER_StartDropFrameEventCheckTimer(context, DROP_FRAME_CHECK_PERIOD_MS);

    CHIP_UpdateRegister70Bits(context, FALSE);
    CHIP_SetStandby(context, FALSE);

    EDID_Clear(&context->Control.Edid);
    const BOOLEAN hasEdid = readEdid || SHARED_Read(context->Hdmi.HdmiTransmitterPresent);
    if (context->Settings.UseForceNonPnpMonitor != 0) {
        // As without an EDID: a transmitter treats such a monitor as a DVI one.
        context->Control.Edid.IsDvi = TRUE;
        SHARED_Write(context->Control.MonitorIsDvi, TRUE);
    } else if (hasEdid) {
        EDID_Acquire(context, &context->Control.Edid);
        SHARED_Write(context->Control.MonitorIsDvi, context->Control.Edid.IsDvi);
    }
    INTERFACE_Enable(context, TRUE);
}

void MONITOR_Detach(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Control.MonitorConnected, FALSE);
    RENDER_StopDropFrameEventCheckTimer(context);
    INTERFACE_Enable(context, FALSE);
    {
        // Under one lock: a display-on in between would start the stream in the mode that is then forgotten.
        MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
        RENDER_Stop(context);
        MODE_Forget(context);
    }
    EDID_Clear(&context->Control.Edid);

    REG_ClearBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_PLL_BIT);
    CHIP_SetStandby(context, TRUE);
    CHIP_UpdateRegister70Bits(context, TRUE);
}

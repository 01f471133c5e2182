#include "display/video_output.h"

#include "device/device_context.h"
#include "usb/registers.h"

void MODE_DisableOutput(DEVICE_CONTEXT* context) {
    if (context->Usb.UsbDevice == nullptr) {
        return;
    }
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    if (context->Display.OutputActive) {
        REG_SetBit(context, REGISTER_SCAN_CONTROL, SCAN_CONTROL_OUTPUT_OFF_BIT);
        context->Display.OutputActive = FALSE;
    }
}

void MODE_MarkOutput(DEVICE_CONTEXT* context, BOOLEAN active) {
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    context->Display.OutputActive = active;
}

BOOLEAN MODE_IsOutputActive(DEVICE_CONTEXT* context) {
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    return context->Display.OutputActive;
}

#include "hdmi/transmitter.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "device/device_context.h"
#include "hdmi/register_access.h"
#include "hdmi/transmitter_registers.h"
#include "usb/serial_master.h"

namespace {

// Bits 0 to 27 of the identification; the four above are the transmitter's revision.
constexpr ULONG IDENTIFICATION = 0x6124954;
constexpr ULONG IDENTIFICATION_MASK = 0x0FFFFFFF;

constexpr ULONG RESET_MS = 300;

constexpr UCHAR VIDEO_INPUT_SWAP_BIT = 2;

// Clocks open, driver and PLLs leave power-down before their resets are released, and the clock gates close
// to normal operation last.
constexpr HDMI_WRITE POWER_UP[] = {
    {HDMI_BANK, 0x78, 0x38},
    {HDMI_REFERENCE_CLOCK, 0x01, 0x00},
    {HDMI_DRIVER, 0x20, 0x00},
    {HDMI_CLOCK_PLL, 0x44, 0x00},
    {HDMI_DATA_PLL, 0x40, 0x00},
    {HDMI_DRIVER, 0x10, 0x00},
    {HDMI_CLOCK_PLL, 0x08, 0x08},
    {HDMI_DATA_PLL, 0x04, 0x04},
    {HDMI_DRIVER_BIAS, HDMI_WHOLE_BYTE, 0x70},
    {HDMI_DRIVER_TUNING, HDMI_WHOLE_BYTE, 0x1F},
    {HDMI_DRIVER_STRENGTH, HDMI_WHOLE_BYTE, 0x38},
    {HDMI_BANK, 0x78, 0x08},
};

// The reverse order.
constexpr HDMI_WRITE POWER_DOWN[] = {
    {HDMI_BANK, 0x40, 0x00},     {HDMI_DRIVER, 0x10, 0x10},          {HDMI_CLOCK_PLL, 0x08, 0x00},
    {HDMI_DATA_PLL, 0x04, 0x00}, {HDMI_DRIVER, 0x20, 0x20},          {HDMI_CLOCK_PLL, 0x44, 0x44},
    {HDMI_DATA_PLL, 0x40, 0x40}, {HDMI_REFERENCE_CLOCK, 0x01, 0x01}, {HDMI_BANK, 0x78, 0x78},
};

void MarkModeStale(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Display.DisplayStateMutex) {
    SHARED_Write(context->Hdmi.HdmiModeStale, TRUE);
}

} // namespace

BOOLEAN HDMI_IsPresent(DEVICE_CONTEXT* context) {
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    ULONG identification = 0;
    if (!NT_SUCCESS(I2C_ReadDword(context, HDMI_I2C_ADDRESS, HDMI_IDENTIFICATION, &identification))) {
        return FALSE;
    }
    return (identification & IDENTIFICATION_MASK) == IDENTIFICATION;
}

BOOLEAN HDMI_Reset(DEVICE_CONTEXT* context) {
    MarkModeStale(context);
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    if (!HDMI_WriteMasked(context, HDMI_RESET, 1 << HDMI_RESET_ALL_BIT, 1 << HDMI_RESET_ALL_BIT)) {
        return FALSE;
    }
    UTIL_DelayMs(RESET_MS);
    return TRUE;
}

BOOLEAN HDMI_PowerUp(DEVICE_CONTEXT* context) {
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    if (!HDMI_WriteAll(context, POWER_UP)) {
        return FALSE;
    }
    SHARED_Write(context->Hdmi.HdmiTransmitterPowered, TRUE);
    return TRUE;
}

BOOLEAN HDMI_PowerDown(DEVICE_CONTEXT* context) {
    SHARED_Write(context->Hdmi.HdmiTransmitterPowered, FALSE);
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    return HDMI_WriteAll(context, POWER_DOWN);
}

BOOLEAN HDMI_SetBit(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR bit) {
    MUTEX_GUARD guard(context->Usb.SerialMasterMutex);
    const UCHAR mask = static_cast<UCHAR>(1 << bit);
    return HDMI_WriteMasked(context, transmitterRegister, mask, mask);
}

void HDMI_Detect(DEVICE_CONTEXT* context) {
    HDMI_CONTEXT* hdmi = &context->Hdmi;
    if (!HDMI_IsPresent(context)) {
        SHARED_Write(hdmi->HdmiTransmitterPresent, FALSE);
        SHARED_Write(hdmi->HdmiTransmitterPowered, FALSE);
        return;
    }
    if (!SHARED_Read(hdmi->HdmiTransmitterPowered)) {
        SHARED_Write(hdmi->HdmiTransmitterPresent, TRUE);
        (void)HDMI_Reset(context);
        (void)HDMI_PowerUp(context);
    }
}

void HDMI_SetUp(DEVICE_CONTEXT* context) {
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    (void)HDMI_Reset(context);
    // The alternative product has the transmitter's video inputs wired in reverse.
    const BOOLEAN isReversed = context->Usb.DeviceDescriptor.idProduct == ADAPTER_ALT_PRODUCT_ID;
    if (isReversed || context->Settings.HdmiSwapLsbMsb != 0) {
        (void)HDMI_SetBit(context, HDMI_VIDEO_INPUT_SWAP, VIDEO_INPUT_SWAP_BIT);
    }
}

void HDMI_ForgetMode(DEVICE_CONTEXT* context) {
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    MarkModeStale(context);
}

void HDMI_PowerDownIfPowered(DEVICE_CONTEXT* context) {
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    if (SHARED_Read(context->Hdmi.HdmiTransmitterPresent) &&
        SHARED_Read(context->Hdmi.HdmiTransmitterPowered)) {
        (void)HDMI_PowerDown(context);
    }
}

#include "driver/bring_up.h"

#include "device/device_context.h"
#include "display/mode_timing.h"
#include "hdmi/transmitter.h"
#include "usb/programmer.h"
#include "usb/registers.h"

namespace {

constexpr ULONG POWER_STAGE_SETTLE_MS = 750;

constexpr UCHAR HDMI_REGISTER_VIDEO_INPUT = 0xBF;
constexpr UCHAR HDMI_VIDEO_INPUT_SWAP_BIT = 2;

void DetectTransmitter(DEVICE_CONTEXT* context) {
    HDMI_CONTEXT* hdmi = &context->Hdmi;
    if (!HDMI_IsPresent(context)) {
        SHARED_Write(hdmi->HdmiTransmitterPresent, FALSE);
        return;
    }
    if (!SHARED_Read(hdmi->HdmiTransmitterPowered)) {
        SHARED_Write(hdmi->HdmiTransmitterPresent, TRUE);
        (void)HDMI_Reset(context);
        (void)HDMI_PowerUp(context);
    }
}

void SetUpTransmitter(DEVICE_CONTEXT* context) {
    (void)HDMI_Reset(context);
    if (context->Usb.DeviceDescriptor.idProduct == ADAPTER_ALT_PRODUCT_ID) {
        // This board has the transmitter's video inputs wired in reverse.
        context->Settings.HdmiSwapLsbMsb = 1;
    }
    if (context->Settings.HdmiSwapLsbMsb != 0) {
        (void)HDMI_SetBit(context, HDMI_REGISTER_VIDEO_INPUT, HDMI_VIDEO_INPUT_SWAP_BIT);
    }
}

// An adapter that lost power with a monitor attached has forgotten its timing, and with it the picture.
void RestoreTiming(DEVICE_CONTEXT* context) {
    MUTEX_GUARD monitor(context->Locks.MonitorMutex);
    if (!SHARED_Read(context->Display.MonitorConnected)) {
        return;
    }
    MUTEX_GUARD mode(context->Locks.DropFrameCheckMutex);
    const ULONG expected = context->Display.Mode.PllWord;
    ULONG pllWord = 0;
    // Without a PLL word no mode is in force and there is no timing to go back to.
    if (!REG_Read(context, REGISTER_PLL, &pllWord) || pllWord == expected || expected == 0) {
        return;
    }
    // A failure leaves a dark monitor that the next mode set lights.
    (void)MODE_ProgramTiming(context, TRUE);
}

// The power stages share their register with the serial master's command: a transaction under way between
// the read and the write would be started anew.
void SwitchPowerStage(DEVICE_CONTEXT* context, ULONG bit, BOOLEAN on) {
    MUTEX_GUARD serialMaster(context->Usb.SerialMasterMutex);
    if (on) {
        REG_SetBit(context, REGISTER_SERIAL_CONTROL, bit);
    } else {
        REG_ClearBit(context, REGISTER_SERIAL_CONTROL, bit);
    }
}

} // namespace

void CHIP_Initialize(DEVICE_CONTEXT* context) {
    {
        MUTEX_GUARD displayState(context->Locks.DisplayStateMutex);
        REG_SetBit(context, REGISTER_SCAN_CONTROL, SCAN_CONTROL_OUTPUT_OFF_BIT);
        DetectTransmitter(context);
    }
    if (context->Usb.ChipRevision == 1) {
        CHIP_InitRevision1(context);
    } else if (context->Usb.ChipRevision == 2) {
        CHIP_InitRevision2(context);
    } else {
        return;
    }
    RestoreTiming(context);
}

void CHIP_InitRevision1(DEVICE_CONTEXT* context) {
    CHIP_PowerUpStage1(context);
    CHIP_InitRevision1Registers(context);

    MUTEX_GUARD displayState(context->Locks.DisplayStateMutex);
    context->Pixel.LegacyCompressionFlag = 1;
    context->Usb.NoInterruptPipe = TRUE;
}

void CHIP_InitRevision1Registers(DEVICE_CONTEXT* context) {
    ULONG value = 0;
    if (!REG_Read(context, REGISTER_STREAM_CONTROL, &value)) {
        return;
    }
    value |= STREAM_CONTROL_REVISION1_MASK;
    if (!REG_Write(context, REGISTER_STREAM_CONTROL, &value)) {
        return;
    }
    if (!REG_Read(context, REGISTER_REVISION1_SETUP, &value)) {
        return;
    }
    value &= ~REVISION1_SETUP_MASK;
    REG_Write(context, REGISTER_REVISION1_SETUP, &value);
}

void CHIP_InitRevision2(DEVICE_CONTEXT* context) {
    if (SHARED_Read(context->Hdmi.HdmiTransmitterPresent)) {
        SetUpTransmitter(context);
    }
    REG_SetBit(context, REGISTER_SCAN_CONTROL, SCAN_CONTROL_OUTPUT_OFF_BIT);
    CHIP_PowerUpStage1(context);
    CHIP_PowerUpStage2(context);
    REG_ClearBit(context, REGISTER_REVISION2_SETUP, REVISION2_SETUP_BIT);
    if (context->Settings.UseEepromProgrammerEnable != 0) {
        EEPROM_ProgramFromRegistry(context);
    }
    if (context->Settings.UseSpiProgrammerEnable != 0) {
        SPI_ProgramFromRegistry(context);
    }
}

void CHIP_PowerUpStage1(DEVICE_CONTEXT* context) {
    SwitchPowerStage(context, SERIAL_CONTROL_STAGE1_BIT, TRUE);
    UTIL_DelayMs(POWER_STAGE_SETTLE_MS);
}

void CHIP_PowerUpStage2(DEVICE_CONTEXT* context) {
    SwitchPowerStage(context, SERIAL_CONTROL_STAGE2_BIT, TRUE);
    UTIL_DelayMs(POWER_STAGE_SETTLE_MS);
}

void CHIP_PowerDownStages(DEVICE_CONTEXT* context) {
    SwitchPowerStage(context, SERIAL_CONTROL_STAGE1_BIT, FALSE);
    UTIL_DelayMs(POWER_STAGE_SETTLE_MS);
    SwitchPowerStage(context, SERIAL_CONTROL_STAGE2_BIT, FALSE);
}

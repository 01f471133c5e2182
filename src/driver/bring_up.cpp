#include "driver/bring_up.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "device/device_context.h"
#include "display/mode_timing.h"
#include "hdmi/transmitter.h"
#include "usb/chip.h"
#include "usb/programmer.h"
#include "usb/registers.h"
#include "usb/serial_master.h"

namespace {

constexpr ULONG POWER_STAGE_SETTLE_MS = 750;

// An adapter that lost power with a monitor attached has lost its timing and shows no picture.
void RestoreTiming(DEVICE_CONTEXT* context) {
    MUTEX_GUARD monitor(context->Control.MonitorMutex);
    if (SHARED_Read(context->Control.MonitorConnected)) {
        MODE_RestoreTiming(context);
    }
}

void SwitchPowerStage(DEVICE_CONTEXT* context, ULONG bit, BOOLEAN on) {
    MUTEX_GUARD serialMaster(context->Usb.SerialMasterMutex);
    SERIAL_SwitchPowerStage(context, bit, on);
}

} // namespace

void CHIP_Initialize(DEVICE_CONTEXT* context) {
    {
        MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
        REG_SetBit(context, REGISTER_SCAN_CONTROL, SCAN_CONTROL_OUTPUT_OFF_BIT);
        HDMI_Detect(context);
    }
    switch (CHIP_Traits(context).BringUp) {
    case CHIP_BRING_UP_REVISION1:
        CHIP_InitRevision1(context);
        break;
    case CHIP_BRING_UP_REVISION2:
        CHIP_InitRevision2(context);
        break;
    case CHIP_BRING_UP_NONE:
        return;
    }
    RestoreTiming(context);
}

void CHIP_InitRevision1(DEVICE_CONTEXT* context) {
    CHIP_PowerUpStage1(context);
    CHIP_InitRevision1Registers(context);
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
        HDMI_SetUp(context);
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

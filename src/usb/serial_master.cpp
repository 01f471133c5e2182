#include "usb/serial_master.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "device/device_context.h"
#include "usb/chip.h"
#include "usb/registers.h"

namespace {

// The command word. Bits 18 to 30 have other purposes (the power stages) and are kept.
constexpr ULONG COMMAND_KEPT_MASK = 0x7FFC0000;
constexpr ULONG COMMAND_READ = 1u << 7;
constexpr ULONG COMMAND_FLASH = 1u << 16;
constexpr ULONG COMMAND_FIRST_WRITE_SHIFT = 17;
constexpr ULONG COMMAND_OFFSET_SHIFT = 8;
constexpr ULONG COMMAND_ADDRESS_MASK = 0x7F;

constexpr ULONG I2C_READ_WAIT_MS = 5;
constexpr ULONG I2C_WRITE_WAIT_MS = 3;
constexpr ULONG SPI_WAIT_MS = 3;
constexpr ULONG COMPLETION_POLL_MS = 10;
constexpr ULONG COMPLETION_POLL_COUNT = 10;

constexpr ULONG I2cCommand(UCHAR deviceAddress, UCHAR offset) {
    return (ULONG(offset) << COMMAND_OFFSET_SHIFT) | (deviceAddress & COMMAND_ADDRESS_MASK);
}

// The flash takes bits 0 to 7 of the address where an I2C command has the offset, and bits 8 to 14 where it
// has the device.
constexpr ULONG SpiCommand(ULONG address) {
    return COMMAND_FLASH | ((address & 0xFF) << COMMAND_OFFSET_SHIFT) |
           ((address >> 8) & COMMAND_ADDRESS_MASK);
}

POLL_RESULT ProbeCompletion(DEVICE_CONTEXT* context) {
    ULONG control;
    if (!REG_Read(context, REGISTER_SERIAL_CONTROL, &control)) {
        return POLL_RESULT::Failed;
    }
    return (control & SERIAL_CONTROL_DONE_MASK) != 0 ? POLL_RESULT::Done : POLL_RESULT::Again;
}

// Starts a command with bit 31 clear and waits until the adapter sets it. A command that never completes
// stays in the register; the next one overwrites it.
BOOLEAN RunCommand(DEVICE_CONTEXT* context, ULONG command, ULONG waitMs) {
    ULONG control;
    if (SHARED_Read(context->RemovalBegun) || !REG_Read(context, REGISTER_SERIAL_CONTROL, &control)) {
        return FALSE;
    }
    if (CHIP_Traits(context).SerialMasterOnStage2) {
        control |= 1u << SERIAL_CONTROL_STAGE2_BIT;
    }
    control = (control & COMMAND_KEPT_MASK) | command;
    if (!REG_Write(context, REGISTER_SERIAL_CONTROL, &control)) {
        return FALSE;
    }
    UTIL_DelayMs(waitMs);
    return UTIL_Poll(COMPLETION_POLL_MS, COMPLETION_POLL_COUNT, ProbeCompletion, context) ==
           POLL_RESULT::Done;
}

NTSTATUS ReadDword(DEVICE_CONTEXT* context, ULONG command, ULONG waitMs, ULONG* result) {
    *result = 0;
    if (!RunCommand(context, command | COMMAND_READ, waitMs) ||
        !REG_Read(context, REGISTER_SERIAL_READ_DATA, result)) {
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

NTSTATUS WriteDword(DEVICE_CONTEXT* context, ULONG command, ULONG waitMs, const ULONG* value) {
    if (!REG_Write(context, REGISTER_SERIAL_WRITE_DATA, value) || !RunCommand(context, command, waitMs)) {
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS I2C_ReadDword(DEVICE_CONTEXT* context, UCHAR deviceAddress, UCHAR offset, ULONG* result) {
    return ReadDword(context, I2cCommand(deviceAddress, offset), I2C_READ_WAIT_MS, result);
}

NTSTATUS I2C_WriteDword(DEVICE_CONTEXT* context, UCHAR deviceAddress, UCHAR offset, const ULONG* value) {
    return WriteDword(context, I2cCommand(deviceAddress, offset), I2C_WRITE_WAIT_MS, value);
}

NTSTATUS SPI_ReadDword(DEVICE_CONTEXT* context, ULONG address, ULONG* result) {
    return ReadDword(context, SpiCommand(address), SPI_WAIT_MS, result);
}

NTSTATUS SPI_WriteDword(DEVICE_CONTEXT* context, ULONG address, const ULONG* value, UCHAR isFirstWrite) {
    const ULONG firstWrite = ULONG(isFirstWrite & 1) << COMMAND_FIRST_WRITE_SHIFT;
    return WriteDword(context, SpiCommand(address) | firstWrite, SPI_WAIT_MS, value);
}

void SERIAL_SwitchPowerStage(DEVICE_CONTEXT* context, ULONG bit, BOOLEAN on) {
    const auto update = on ? REG_SetBit : REG_ClearBit;
    update(context, REGISTER_SERIAL_CONTROL, bit);
}

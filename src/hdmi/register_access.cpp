#include "hdmi/register_access.h"

#include "device/device_context.h"
#include "hdmi/transmitter_registers.h"
#include "usb/serial_master.h"

namespace {

// The group of four transmitter registers that holds one of them, and its place in the group's word.
constexpr UCHAR GroupOf(UCHAR transmitterRegister) {
    return transmitterRegister & 0xFC;
}

constexpr ULONG ShiftOf(UCHAR transmitterRegister) {
    return 8 * (transmitterRegister & 3);
}

NTSTATUS ReadGroup(DEVICE_CONTEXT* context, UCHAR offset, ULONG* group)
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    const NTSTATUS status = I2C_ReadDword(context, HDMI_I2C_ADDRESS, offset, group);
    context->Hdmi.HdmiTransferFailed |= !NT_SUCCESS(status);
    return status;
}

NTSTATUS WriteGroup(DEVICE_CONTEXT* context, UCHAR offset, const ULONG* group)
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    const NTSTATUS status = I2C_WriteDword(context, HDMI_I2C_ADDRESS, offset, group);
    context->Hdmi.HdmiTransferFailed |= !NT_SUCCESS(status);
    return status;
}

} // namespace

NTSTATUS HDMI_ReadRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR* result) {
    ULONG group;
    const NTSTATUS status = ReadGroup(context, GroupOf(transmitterRegister), &group);
    if (NT_SUCCESS(status)) {
        *result = static_cast<UCHAR>(group >> ShiftOf(transmitterRegister));
    }
    return status;
}

UCHAR HDMI_ReadRegisterChecked(DEVICE_CONTEXT* context, UCHAR transmitterRegister, ULONG* succeeded) {
    UCHAR value = 0;
    *succeeded = NT_SUCCESS(HDMI_ReadRegister(context, transmitterRegister, &value)) ? 1 : 0;
    return value;
}

NTSTATUS HDMI_WriteRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister, const UCHAR* value) {
    const UCHAR groupOffset = GroupOf(transmitterRegister);
    const ULONG shift = ShiftOf(transmitterRegister);
    ULONG group;
    const NTSTATUS status = ReadGroup(context, groupOffset, &group);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    group = (group & ~(0xFFu << shift)) | (ULONG(*value) << shift);
    return WriteGroup(context, groupOffset, &group);
}

void HDMI_ModifyRegister(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR mask, UCHAR value,
                         ULONG* succeeded) {
    UCHAR merged = value;
    if (mask != 0xFF) {
        const UCHAR old = HDMI_ReadRegisterChecked(context, transmitterRegister, succeeded);
        if (!*succeeded) {
            return;
        }
        merged = static_cast<UCHAR>((old & ~mask) | (value & mask));
    }
    *succeeded = NT_SUCCESS(HDMI_WriteRegister(context, transmitterRegister, &merged)) ? 1 : 0;
}

BOOLEAN HDMI_Write(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR value) {
    return NT_SUCCESS(HDMI_WriteRegister(context, transmitterRegister, &value));
}

BOOLEAN HDMI_WriteMasked(DEVICE_CONTEXT* context, UCHAR transmitterRegister, UCHAR mask, UCHAR value) {
    ULONG succeeded = 0;
    HDMI_ModifyRegister(context, transmitterRegister, mask, value, &succeeded);
    return succeeded != 0;
}

BOOLEAN HDMI_WriteGroup(DEVICE_CONTEXT* context, UCHAR offset, UCHAR byte0, UCHAR byte1, UCHAR byte2,
                        UCHAR byte3) {
    const ULONG group = byte0 | static_cast<ULONG>(byte1) << 8 | static_cast<ULONG>(byte2) << 16 |
                        static_cast<ULONG>(byte3) << 24;
    return NT_SUCCESS(WriteGroup(context, offset, &group));
}

BOOLEAN HDMI_WriteAll(DEVICE_CONTEXT* context, const HDMI_WRITE* writes, ULONG count) {
    for (ULONG index = 0; index < count; index++) {
        if (!HDMI_WriteMasked(context, writes[index].Register, writes[index].Mask, writes[index].Value)) {
            return FALSE;
        }
    }
    return TRUE;
}

HDMI_BANK1_SCOPE::HDMI_BANK1_SCOPE(DEVICE_CONTEXT* context) : Context(context) {
    (void)HDMI_Write(Context, HDMI_BANK, HDMI_BANK_1);
}

// A scope exists only where its constructor was called, with the mutex held.
TSA_NO_ANALYSIS HDMI_BANK1_SCOPE::~HDMI_BANK1_SCOPE() {
    (void)HDMI_Write(Context, HDMI_BANK, HDMI_BANK_0);
}

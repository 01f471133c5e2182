#include "hdmi/register_access.h"

#include "hdmi/transmitter.h"
#include "hdmi/transmitter_registers.h"
#include "usb/serial_master.h"

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
    return NT_SUCCESS(I2C_WriteDword(context, HDMI_I2C_ADDRESS, offset, &group));
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

HDMI_BANK1_SCOPE::~HDMI_BANK1_SCOPE() {
    (void)HDMI_Write(Context, HDMI_BANK, HDMI_BANK_0);
}

#include "display/edid_read.h"

#include "device/device_context.h"
#include "display/edid.h"
#include "hdmi/ddc.h"
#include "usb/serial_master.h"

namespace {

constexpr UCHAR DDC_EDID_ADDRESS = 0x50;
constexpr UCHAR DDC_SEGMENT_ADDRESS = 0x30;
constexpr ULONG DDC_WORD_SIZE = sizeof(ULONG);

// Extensions to read for an extension count. More than 8 is no EDID that we know: the base block alone is
// used. Of 8 the last does not fit into EdidBlocks; the seven before it are as good without it.
ULONG CountReadableExtensions(UCHAR extensionCount) {
    if (extensionCount > EDID_BLOCK_COUNT) {
        return 0;
    }
    return extensionCount < EDID_BLOCK_COUNT ? extensionCount : EDID_LAST_BLOCK;
}

BOOLEAN ReadAllThroughTransmitter(DEVICE_CONTEXT* context) {
    DISPLAY_CONTEXT* display = &context->Display;
    EDID_Clear(display);
    if (!HDMI_ReadEdidBlock(context, 0)) {
        return FALSE;
    }
    const ULONG extensions = CountReadableExtensions(display->EdidBlocks[0][EDID_EXTENSION_COUNT_OFFSET]);
    if (extensions != 0) {
        SHARED_Write(display->MonitorIsDvi, FALSE);
    }
    for (ULONG block = 1; block <= extensions; block++) {
        if (!HDMI_ReadEdidBlock(context, static_cast<UCHAR>(block))) {
            return FALSE;
        }
    }
    return TRUE;
}

BOOLEAN AcquireWithTransmitter(DEVICE_CONTEXT* context) {
    DISPLAY_CONTEXT* display = &context->Display;
    const BOOLEAN wasRead =
        (!display->EdidViaAdapterDdc && ReadAllThroughTransmitter(context)) || EDID_ReadAll(context);
    if (!wasRead || !EDID_Validate(display)) {
        SHARED_Write(display->MonitorIsDvi, TRUE);
        return FALSE;
    }
    if (display->EdidBlocks[0][EDID_EXTENSION_COUNT_OFFSET] == 0) {
        if (!display->EdidViaAdapterDdc) {
            SHARED_Write(display->MonitorIsDvi, TRUE);
        }
        return TRUE;
    }
    const ULONG ceaBlock = EDID_FindCeaBlock(display);
    if (ceaBlock != 0) {
        EDID_AddCeaModes(display, ceaBlock);
    }
    return TRUE;
}

} // namespace

void EDID_Acquire(DEVICE_CONTEXT* context) {
    DISPLAY_CONTEXT* display = &context->Display;
    MUTEX_GUARD serialMaster(context->Usb.SerialMasterMutex);

    display->MonitorModeCount = 0;
    const BOOLEAN acquired = SHARED_Read(context->Hdmi.HdmiTransmitterPresent)
                                 ? AcquireWithTransmitter(context)
                                 : EDID_ReadAll(context);
    if (!acquired) {
        EDID_Clear(display);
        return;
    }
    if (context->Settings.FilterEdidTableEnable != EDID_FILTER_OFF) {
        EDID_Rewrite(display, context->Usb.DeviceDescriptor.bcdUSB, context->Settings.FilterEdidTableEnable);
    }
}

BOOLEAN EDID_ReadBlock(DEVICE_CONTEXT* context, ULONG block) {
    if (block > EDID_LAST_BLOCK) {
        return FALSE;
    }
    MUTEX_GUARD serialMaster(context->Usb.SerialMasterMutex);
    ULONG word;
    // Two blocks make a segment. Addressing the pointer sets it, although the word that the read gives means
    // nothing; segment 0 needs none, and old monitors do not answer there.
    if (block >= 2 &&
        !NT_SUCCESS(I2C_ReadDword(context, DDC_SEGMENT_ADDRESS, static_cast<UCHAR>(block / 2), &word))) {
        return FALSE;
    }
    const ULONG base = block % 2 * EDID_BLOCK_SIZE;
    for (ULONG offset = 0; offset < EDID_BLOCK_SIZE; offset += DDC_WORD_SIZE) {
        if (!NT_SUCCESS(I2C_ReadDword(context, DDC_EDID_ADDRESS, static_cast<UCHAR>(base + offset), &word))) {
            return FALSE;
        }
        RtlCopyMemory(&context->Display.EdidBlocks[block][offset], &word, DDC_WORD_SIZE);
    }
    return TRUE;
}

BOOLEAN EDID_ReadAll(DEVICE_CONTEXT* context) {
    DISPLAY_CONTEXT* display = &context->Display;
    EDID_Clear(display);
    if (!EDID_ReadBlock(context, 0)) {
        return FALSE;
    }
    const ULONG extensions = CountReadableExtensions(display->EdidBlocks[0][EDID_EXTENSION_COUNT_OFFSET]);
    for (ULONG block = 1; block <= extensions; block++) {
        if (!EDID_ReadBlock(context, block)) {
            return FALSE;
        }
    }
    if (extensions != 0) {
        SHARED_Write(display->MonitorIsDvi, FALSE);
    }
    return TRUE;
}

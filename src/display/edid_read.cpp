#include "display/edid_read.h"

#include "base/shared_field.h"
#include "device/device_context.h"
#include "display/edid.h"
#include "hdmi/ddc.h"
#include "usb/serial_master.h"

namespace {

constexpr UCHAR DDC_EDID_ADDRESS = 0x50;
constexpr UCHAR DDC_SEGMENT_ADDRESS = 0x30;
constexpr ULONG DDC_WORD_SIZE = sizeof(ULONG);

// The number of extensions to read. With a count above 8 only the base block is used: no known monitor has so
// many. Of 8 extensions the last does not fit into EdidBlocks; the seven before it are usable without it.
ULONG CountReadableExtensions(UCHAR extensionCount) {
    if (extensionCount > EDID_BLOCK_COUNT) {
        return 0;
    }
    return extensionCount < EDID_BLOCK_COUNT ? extensionCount : EDID_LAST_BLOCK;
}

BOOLEAN ReadAllThroughTransmitter(DEVICE_CONTEXT* context, MONITOR_EDID* edid)
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    EDID_Clear(edid);
    if (!HDMI_ReadEdidBlock(context, 0, edid->EdidBlocks[0])) {
        return FALSE;
    }
    const ULONG extensions = CountReadableExtensions(edid->EdidBlocks[0][EDID_EXTENSION_COUNT_OFFSET]);
    if (extensions != 0) {
        edid->IsDvi = FALSE;
    }
    for (ULONG block = 1; block <= extensions; block++) {
        if (!HDMI_ReadEdidBlock(context, static_cast<UCHAR>(block), edid->EdidBlocks[block])) {
            return FALSE;
        }
    }
    return TRUE;
}

BOOLEAN AcquireWithTransmitter(DEVICE_CONTEXT* context, MONITOR_EDID* edid)
    TSA_REQUIRES(context->Usb.SerialMasterMutex) {
    const BOOLEAN wasRead =
        (!edid->ViaAdapterDdc && ReadAllThroughTransmitter(context, edid)) || EDID_ReadAll(context, edid);
    if (!wasRead || !EDID_Validate(edid)) {
        edid->IsDvi = TRUE;
        return FALSE;
    }
    if (edid->EdidBlocks[0][EDID_EXTENSION_COUNT_OFFSET] == 0) {
        if (!edid->ViaAdapterDdc) {
            edid->IsDvi = TRUE;
        }
        return TRUE;
    }
    const ULONG ceaBlock = EDID_FindCeaBlock(edid);
    if (ceaBlock != 0) {
        EDID_AddCeaModes(edid, ceaBlock);
    }
    return TRUE;
}

} // namespace

void EDID_Acquire(DEVICE_CONTEXT* context, MONITOR_EDID* edid) {
    MUTEX_GUARD serialMaster(context->Usb.SerialMasterMutex);

    edid->MonitorModeCount = 0;
    const BOOLEAN acquired = SHARED_Read(context->Hdmi.HdmiTransmitterPresent)
                                 ? AcquireWithTransmitter(context, edid)
                                 : EDID_ReadAll(context, edid);
    if (!acquired) {
        EDID_Clear(edid);
        return;
    }
    if (context->Settings.FilterEdidTableEnable != EDID_FILTER_OFF) {
        EDID_Rewrite(edid, context->Usb.DeviceDescriptor.bcdUSB, context->Settings.FilterEdidTableEnable);
    }
}

BOOLEAN EDID_ReadBlock(DEVICE_CONTEXT* context, MONITOR_EDID* edid, ULONG block) {
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
        RtlCopyMemory(&edid->EdidBlocks[block][offset], &word, DDC_WORD_SIZE);
    }
    return TRUE;
}

BOOLEAN EDID_ReadAll(DEVICE_CONTEXT* context, MONITOR_EDID* edid) {
    EDID_Clear(edid);
    if (!EDID_ReadBlock(context, edid, 0)) {
        return FALSE;
    }
    const ULONG extensions = CountReadableExtensions(edid->EdidBlocks[0][EDID_EXTENSION_COUNT_OFFSET]);
    for (ULONG block = 1; block <= extensions; block++) {
        if (!EDID_ReadBlock(context, edid, block)) {
            return FALSE;
        }
    }
    if (extensions != 0) {
        edid->IsDvi = FALSE;
    }
    return TRUE;
}

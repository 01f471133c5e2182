// Settings under the driver's Parameters key, read once when a device is added.
#pragma once

#include "base/annotations.h"
#include "base/shared_field.h"

struct DEVICE_CONTEXT;

// One field per registry value, bearing its name. Set once at device add, except where noted.
struct SETTINGS {
    ULONG FullHD50Enable;
    ULONG FullHD30Enable;
    ULONG FullHD24Enable;
    ULONG UseUsb3OutputRGB565Enable; // also written at run time by the pixel-bytes adjustment (shared field)
    ULONG FilterEdidTableEnable;
    ULONG CurrentNumberOfDevices; // this device's copy; re-read at every mode set, changed at prepare and
                                  // release
    ULONG Usb2PixelFormatTransformCompressionEnable;
    ULONG Usb3PixelFormatTransformCompressionEnable;
    ULONG UseBandwidthDetectionEnable;
    ULONG UseDynamicPixelBytesAdjustmentEnable;
    ULONG DynamicAdjustPixelBytesAtRunTimeThreshold;
    ULONG UseEepromProgrammerEnable;
    ULONG UseSpiProgrammerEnable;
    ULONG SlowFrameUpdateDelayTimeInMs;
    ULONG UseFrameErrorBucket;
    ULONG FrameErrorBucketIncrementValue;
    ULONG FrameErrorBucketThreshold;
    ULONG UseForceNonPnpMonitor;
    ULONG UseHdmiAudioSpdif;
    ULONG HdmiSwapLsbMsb; // also set at D0 entry, for one product
};

// All at PASSIVE_LEVEL. Every access opens the Parameters key anew.
void REGISTRY_ReadConfiguration(DEVICE_CONTEXT* context);
NTSTATUS REGISTRY_QueryULong(PCWSTR name, ULONG* value); // on failure *value is left as it was
NTSTATUS REGISTRY_AssignULong(PCWSTR name, ULONG value);
NTSTATUS REGISTRY_QueryBinary(PCWSTR name, ULONG bufferLength, VOID* buffer, ULONG* length);

// The output without compression on SuperSpeed: RGB565, or 24 bits. At run time the pixel-bytes adjustment
// replaces the registry's value. Any IRQL.
inline void SETTINGS_UseRgb565Output(SETTINGS* settings, BOOLEAN use) {
    SHARED_Write(settings->UseUsb3OutputRGB565Enable, use ? 1u : 0u);
}

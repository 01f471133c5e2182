// The settings: values under the driver's Parameters key. Each is defined by one row of this list.
#pragma once

#include "base/annotations.h"
#include "base/shared_field.h"

#include <ntddk.h>

// DWORD_VALUE(name, default, range, effect, when the driver reads it), in the order in which they are read;
// BINARY_VALUE(name, range, effect, when the driver reads it) for values that REGISTRY_ReadConfiguration does
// not read. The tool and its tests use the texts. The driver drops them, so they are not in its image.
// clang-format off
#define SETTINGS_LIST(DWORD_VALUE, BINARY_VALUE)                                                             \
    DWORD_VALUE(FullHD50Enable, 0, "flag",                                                                   \
        "1920x1080 at 60 Hz runs at 50 Hz; overrides FullHD30Enable and FullHD24Enable",                     \
        "device add")                                                                                        \
    DWORD_VALUE(FullHD30Enable, 0, "flag",                                                                   \
        "1920x1080 at 60 Hz runs at 30 Hz; overrides FullHD24Enable",                                        \
        "device add")                                                                                        \
    DWORD_VALUE(FullHD24Enable, 0, "flag",                                                                   \
        "1920x1080 at 60 Hz runs at 24 Hz",                                                                  \
        "device add")                                                                                        \
    DWORD_VALUE(Usb2PixelFormatTransformCompressionEnable, 1, "flag",                                        \
        "high speed: 2 bytes per pixel (RGB555), compressed",                                                \
        "device add")                                                                                        \
    DWORD_VALUE(Usb3PixelFormatTransformCompressionEnable, 0, "flag",                                        \
        "SuperSpeed: 2 bytes per pixel (RGB555), compressed",                                                \
        "device add")                                                                                        \
    DWORD_VALUE(FilterEdidTableEnable, 1, "0, 1, 2, 3 or other",                                             \
        "not 0: rewrite the monitor's EDID to what the adapter drives; on a USB 2.0 link 1, 2 and 3 offer "  \
        "a single mode (800x600, 640x480, 1024x768)",                                                        \
        "device add")                                                                                        \
    DWORD_VALUE(CurrentNumberOfDevices, 0, "count",                                                          \
        "prepared adapters, kept by the driver; three or more turn compression on for SuperSpeed",           \
        "device add and mode sets on SuperSpeed without compression")                                        \
    DWORD_VALUE(UseUsb3OutputRGB565Enable, 0, "flag",                                                        \
        "SuperSpeed without compression: 2 bytes per pixel (RGB565); has no effect unless "                  \
        "UseDynamicPixelBytesAdjustmentEnable is 0, because with that adjustment every stop of the stream, " \
        "also the one that begins a mode set, clears it",                                                    \
        "device add (changes at run time)")                                                                  \
    DWORD_VALUE(UseBandwidthDetectionEnable, 1, "flag",                                                      \
        "have the adapter report frames that it drops, and act on them",                                     \
        "device add")                                                                                        \
    DWORD_VALUE(DynamicAdjustPixelBytesAtRunTimeThreshold, 0, "count",                                       \
        "how often 24-bit output is tried again",                                                            \
        "device add")                                                                                        \
    DWORD_VALUE(UseDynamicPixelBytesAdjustmentEnable, 1, "flag",                                             \
        "change from 24-bit to 16-bit output on dropped frames and try 24-bit output again later",           \
        "device add")                                                                                        \
    DWORD_VALUE(UseEepromProgrammerEnable, 0, "flag",                                                        \
        "program EepromData into the EEPROM at every power-up (revision 2)",                                 \
        "device add")                                                                                        \
    DWORD_VALUE(UseSpiProgrammerEnable, 0, "flag",                                                           \
        "program SpiData into the SPI flash at every power-up (revision 2)",                                 \
        "device add")                                                                                        \
    DWORD_VALUE(SlowFrameUpdateDelayTimeInMs, 0, "any",                                                      \
        "read and kept; has no effect",                                                                      \
        "device add")                                                                                        \
    DWORD_VALUE(UseFrameErrorBucket, 0, "flag",                                                              \
        "collect dropped frames in a leaky bucket before acting",                                            \
        "device add")                                                                                        \
    DWORD_VALUE(FrameErrorBucketIncrementValue, 20, "0 to 4294967295",                                       \
        "what one report adds to the bucket; every completed frame takes 1 away",                            \
        "device add")                                                                                        \
    DWORD_VALUE(FrameErrorBucketThreshold, 30, "0 to 4294967295",                                            \
        "level of the bucket at which a report is acted on",                                                 \
        "device add")                                                                                        \
    DWORD_VALUE(UseForceNonPnpMonitor, 0, "flag",                                                            \
        "do not read the monitor's EDID; a transmitter takes the monitor for a DVI one",                     \
        "device add")                                                                                        \
    DWORD_VALUE(UseHdmiAudioSpdif, 0, "flag",                                                                \
        "HDMI transmitter: audio from S/PDIF instead of I2S",                                                \
        "device add")                                                                                        \
    DWORD_VALUE(HdmiSwapLsbMsb, 0, "flag",                                                                   \
        "HDMI transmitter: swap the bit order of its video input; always on for one product",                \
        "device add")                                                                                        \
    BINARY_VALUE(EepromData, "up to 512 bytes",                                                              \
        "the EEPROM's image; one of more than 256 bytes, which the EEPROM cannot hold, is not programmed",   \
        "power-up")                                                                                          \
    BINARY_VALUE(SpiData, "up to 512 bytes",                                                                 \
        "the SPI flash's image",                                                                             \
        "power-up")
// clang-format on

#define SETTINGS_NOTHING(...)

// Read once at device add. Two change later: UseUsb3OutputRGB565Enable (shared field;
// SETTINGS_UseRgb565Output writes it) and CurrentNumberOfDevices (this device's copy; device/device_count.h).
struct SETTINGS {
#define SETTINGS_FIELD(name, ...) ULONG name;
    SETTINGS_LIST(SETTINGS_FIELD, SETTINGS_NOTHING)
#undef SETTINGS_FIELD
};

_IRQL_requires_(PASSIVE_LEVEL)
void REGISTRY_ReadConfiguration(_Out_ SETTINGS* settings);

// The output without compression on SuperSpeed: RGB565, or 24 bits. At run time the pixel-bytes adjustment
// replaces the registry's value. Any IRQL.
inline void SETTINGS_UseRgb565Output(SETTINGS* settings, BOOLEAN use) {
    SHARED_Write(settings->UseUsb3OutputRGB565Enable, use ? 1u : 0u);
}

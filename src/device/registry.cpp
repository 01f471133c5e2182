#include "device/device_context.h"

#include <wdf.h>

namespace {

struct SETTING {
    PCWSTR Name;
    ULONG SETTINGS::*Field;
};

#define SETTING_OF(name)                                                                                     \
    { WIDE(#name), &SETTINGS::name }

constexpr SETTING SettingTable[] = {
    SETTING_OF(FullHD50Enable),
    SETTING_OF(FullHD30Enable),
    SETTING_OF(FullHD24Enable),
    SETTING_OF(Usb2PixelFormatTransformCompressionEnable),
    SETTING_OF(Usb3PixelFormatTransformCompressionEnable),
    SETTING_OF(FilterEdidTableEnable),
    SETTING_OF(CurrentNumberOfDevices),
    SETTING_OF(UseUsb3OutputRGB565Enable),
    SETTING_OF(UseBandwidthDetectionEnable),
    SETTING_OF(DynamicAdjustPixelBytesAtRunTimeThreshold),
    SETTING_OF(UseDynamicPixelBytesAdjustmentEnable),
    SETTING_OF(UseEepromProgrammerEnable),
    SETTING_OF(UseSpiProgrammerEnable),
    SETTING_OF(SlowFrameUpdateDelayTimeInMs),
    SETTING_OF(UseFrameErrorBucket),
    SETTING_OF(FrameErrorBucketIncrementValue),
    SETTING_OF(FrameErrorBucketThreshold),
    SETTING_OF(UseForceNonPnpMonitor),
    SETTING_OF(UseHdmiAudioSpdif),
    SETTING_OF(HdmiSwapLsbMsb),
};

#undef SETTING_OF

NTSTATUS OpenParametersKey(WDFKEY* key) {
    const WDFDRIVER driver = WdfGetDriver();
    if (driver == nullptr || WdfDriverGetRegistryPath(driver) == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    return WdfDriverOpenParametersRegistryKey(driver, STANDARD_RIGHTS_ALL, WDF_NO_OBJECT_ATTRIBUTES, key);
}

} // namespace

void REGISTRY_ReadConfiguration(DEVICE_CONTEXT* context) {
    SETTINGS* settings = &context->Settings;
    *settings = {};
    settings->Usb2PixelFormatTransformCompressionEnable = 1;
    settings->FilterEdidTableEnable = 1;
    settings->UseBandwidthDetectionEnable = 1;
    settings->UseDynamicPixelBytesAdjustmentEnable = 1;
    settings->FrameErrorBucketIncrementValue = 20;
    settings->FrameErrorBucketThreshold = 30;

    for (const SETTING& setting : SettingTable) {
        // A value that is missing or of another type leaves the default.
        (void)REGISTRY_QueryULong(setting.Name, &(settings->*setting.Field));
    }
}

NTSTATUS REGISTRY_QueryULong(PCWSTR name, ULONG* value) {
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);

    WDFKEY key = nullptr;
    NTSTATUS status = OpenParametersKey(&key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG result = 0;
    status = WdfRegistryQueryULong(key, &valueName, &result);
    if (NT_SUCCESS(status)) {
        *value = result;
    }
    WdfRegistryClose(key);
    return status;
}

NTSTATUS REGISTRY_AssignULong(PCWSTR name, ULONG value) {
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);

    WDFKEY key = nullptr;
    NTSTATUS status = OpenParametersKey(&key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = WdfRegistryAssignULong(key, &valueName, value);
    WdfRegistryClose(key);
    return status;
}

NTSTATUS REGISTRY_QueryBinary(PCWSTR name, ULONG bufferLength, VOID* buffer, ULONG* length) {
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);

    WDFKEY key = nullptr;
    NTSTATUS status = OpenParametersKey(&key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = WdfRegistryQueryValue(key, &valueName, bufferLength, buffer, length, nullptr);
    WdfRegistryClose(key);
    return status;
}

#include "device/registry.h"

#include <wdf.h>

namespace {

NTSTATUS OpenParametersKey(WDFKEY* key) {
    const WDFDRIVER driver = WdfGetDriver();
    if (driver == nullptr || WdfDriverGetRegistryPath(driver) == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    return WdfDriverOpenParametersRegistryKey(driver, STANDARD_RIGHTS_ALL, WDF_NO_OBJECT_ATTRIBUTES, key);
}

} // namespace

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

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

// Runs `access(key, &valueName)` on the open Parameters key and returns its status.
template <typename Access>
NTSTATUS AccessValue(PCWSTR name, Access access) {
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, name);

    WDFKEY key = nullptr;
    NTSTATUS status = OpenParametersKey(&key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = access(key, &valueName);
    WdfRegistryClose(key);
    return status;
}

} // namespace

NTSTATUS REGISTRY_QueryULong(PCWSTR name, ULONG* value) {
    ULONG result = 0;
    const NTSTATUS status = AccessValue(name, [&result](WDFKEY key, UNICODE_STRING* valueName) {
        return WdfRegistryQueryULong(key, valueName, &result);
    });
    if (NT_SUCCESS(status)) {
        *value = result;
    }
    return status;
}

NTSTATUS REGISTRY_AssignULong(PCWSTR name, ULONG value) {
    return AccessValue(name, [value](WDFKEY key, UNICODE_STRING* valueName) {
        return WdfRegistryAssignULong(key, valueName, value);
    });
}

NTSTATUS REGISTRY_QueryBinary(PCWSTR name, ULONG bufferLength, VOID* buffer, ULONG* length) {
    return AccessValue(name, [=](WDFKEY key, UNICODE_STRING* valueName) {
        return WdfRegistryQueryValue(key, valueName, bufferLength, buffer, length, nullptr);
    });
}

#include "base/pool.h"
#include "device/device_count.h"
#include "driver/device_add.h"

namespace {

// NonPagedPoolNx exists from Windows 8 (6.2) on.
BOOLEAN OsHasNonExecutablePool() {
    RTL_OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    if (!NT_SUCCESS(RtlGetVersion(&version))) {
        return FALSE;
    }
    return version.dwMajorVersion > 6 || (version.dwMajorVersion == 6 && version.dwMinorVersion >= 2);
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath) {
    DriverPoolType = OsHasNonExecutablePool() ? NonPagedPoolNx : NonPagedPool;

    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, DEVICE_EvtDeviceAdd);
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = DRIVER_EvtCleanup;

    const NTSTATUS status = WdfDriverCreate(driverObject, registryPath, &attributes, &config, WDF_NO_HANDLE);

    DEVICECOUNT_Clear();
    return status;
}

void DRIVER_EvtCleanup(WDFOBJECT) {}

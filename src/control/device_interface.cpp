#include "control/device_interface.h"

NTSTATUS INTERFACE_Register(DEVICE_CONTEXT* context) {
    context->Control.PhysicalDeviceObject = WdfDeviceWdmGetPhysicalDevice(context->Device);

    MUTEX_GUARD monitor(context->Control.MonitorMutex);
    const NTSTATUS status =
        IoRegisterDeviceInterface(context->Control.PhysicalDeviceObject, &GUID_DEVINTERFACE_USB_DISPLAY,
                                  nullptr, &context->Control.InterfaceSymbolicLinkName);
    if (!NT_SUCCESS(status)) {
        context->Control.InterfaceSymbolicLinkName = {};
    }
    return status;
}

void INTERFACE_Unregister(DEVICE_CONTEXT* context) {
    MUTEX_GUARD monitor(context->Control.MonitorMutex);
    if (context->Control.InterfaceSymbolicLinkName.Length == 0) {
        return;
    }
    INTERFACE_Enable(context, FALSE);
    RtlFreeUnicodeString(&context->Control.InterfaceSymbolicLinkName);
    context->Control.InterfaceSymbolicLinkName = {};
}

void INTERFACE_Enable(DEVICE_CONTEXT* context, BOOLEAN enable) {
    if (context->Control.InterfaceSymbolicLinkName.Length != 0) {
        // Disabling fails when it was not enabled. Enabling fails only for an interface that is gone with its
        // device.
        (void)IoSetDeviceInterfaceState(&context->Control.InterfaceSymbolicLinkName, enable);
    }
}

#include "driver/device_add.h"

#include "client/exchange.h"
#include "device/device_context.h"
#include "driver/hardware.h"
#include "driver/power.h"
#include "render/pipeline.h"
#include "render/render_buffers.h"
#include "surface/frame_buffer.h"

namespace {

void RegisterPnpPowerCallbacks(PWDFDEVICE_INIT deviceInit) {
    WDF_PNPPOWER_EVENT_CALLBACKS callbacks;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&callbacks);
    callbacks.EvtDevicePrepareHardware = DEVICE_EvtPrepareHardware;
    callbacks.EvtDeviceReleaseHardware = DEVICE_EvtReleaseHardware;
    callbacks.EvtDeviceD0Entry = DEVICE_EvtD0Entry;
    callbacks.EvtDeviceD0Exit = DEVICE_EvtD0Exit;
    callbacks.EvtDeviceSelfManagedIoSuspend = DEVICE_EvtSelfManagedIoSuspend;
    callbacks.EvtDeviceSelfManagedIoRestart = DEVICE_EvtSelfManagedIoRestart;
    callbacks.EvtDeviceSurpriseRemoval = DEVICE_EvtSurpriseRemoval;
    WdfDeviceInitSetPnpPowerEventCallbacks(deviceInit, &callbacks);
}

void RegisterFileCallbacks(PWDFDEVICE_INIT deviceInit) {
    WDF_FILEOBJECT_CONFIG config;
    WDF_FILEOBJECT_CONFIG_INIT(&config, DEVICE_EvtFileCreate, WDF_NO_EVENT_CALLBACK, DEVICE_EvtFileCleanup);
    config.FileObjectClass = WdfFileObjectWdfCannotUseFsContexts;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    WdfDeviceInitSetFileObjectConfig(deviceInit, &config, &attributes);
}

NTSTATUS CreateDevice(PWDFDEVICE_INIT deviceInit, DEVICE_CONTEXT** context) {
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, DEVICE_CONTEXT);
    WDFDEVICE device = nullptr;
    const NTSTATUS status = WdfDeviceCreate(&deviceInit, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *context = DEVICE_GetContext(device);
    (*context)->Device = device;

    // Users unplug the adapter without notice, and get no warning when they do.
    WDF_DEVICE_PNP_CAPABILITIES capabilities;
    WDF_DEVICE_PNP_CAPABILITIES_INIT(&capabilities);
    capabilities.SurpriseRemovalOK = WdfTrue;
    WdfDeviceSetPnpCapabilities(device, &capabilities);
    return STATUS_SUCCESS;
}

NTSTATUS CreateDefaultQueue(DEVICE_CONTEXT* context) {
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchParallel);
    config.EvtIoInternalDeviceControl = CLIENT_EvtIoInternalDeviceControl;
    return WdfIoQueueCreate(context->Device, &config, WDF_NO_OBJECT_ATTRIBUTES, &context->DefaultQueue);
}

} // namespace

NTSTATUS DEVICE_EvtDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT deviceInit) {
    RegisterPnpPowerCallbacks(deviceInit);
    RegisterFileCallbacks(deviceInit);
    WdfDeviceInitSetIoType(deviceInit, WdfDeviceIoNeither);

    UCHAR minorFunctions[] = {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE};
    NTSTATUS status = WdfDeviceInitAssignWdmIrpPreprocessCallback(
        deviceInit, DEVICE_PreprocessPnpIrp, IRP_MJ_PNP, minorFunctions, ARRAYSIZE(minorFunctions));
    if (!NT_SUCCESS(status)) {
        return status;
    }

    DEVICE_CONTEXT* context = nullptr;
    status = CreateDevice(deviceInit, &context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CreateDefaultQueue(context);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    DEVICE_InitLocks(context);
    FRAMEBUFFER_InitializeList(context);
    RENDER_InitializeEvents(context);
    REGISTRY_ReadConfiguration(&context->Settings);
    DEVICE_DetectCpuFeatures(context);

    return RENDER_CreateBuffers(context);
}

// Every open succeeds; the exchange of entry points admits or refuses the client.
void DEVICE_EvtFileCreate(WDFDEVICE, WDFREQUEST request, WDFFILEOBJECT) {
    WdfRequestCompleteWithInformation(request, STATUS_SUCCESS, 0);
}

void DEVICE_EvtFileCleanup(WDFFILEOBJECT) {}

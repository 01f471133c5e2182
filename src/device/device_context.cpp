#include "device/device_context.h"

#include "base/shared_field.h"

void DEVICE_InitChildAttributes(DEVICE_CONTEXT* context, WDF_OBJECT_ATTRIBUTES* attributes) {
    WDF_OBJECT_ATTRIBUTES_INIT(attributes);
    attributes->ParentObject = context->Device;
}

void DEVICE_InitLocks(DEVICE_CONTEXT* context) {
    MUTEX_Initialize(&context->Usb.RegisterMutex);
    MUTEX_Initialize(&context->Usb.SerialMasterMutex);
    SPINLOCK_Initialize(&context->Surface.FrameBufferListLock);
    MUTEX_Initialize(&context->Surface.SubmitMutex);
    MUTEX_Initialize(&context->Display.DropFrameCheckMutex);
    MUTEX_Initialize(&context->Display.DisplayStateMutex);
    SPINLOCK_Initialize(&context->Render.AvailableListLock);
    SPINLOCK_Initialize(&context->Render.PendingListLock);
    MUTEX_Initialize(&context->Render.RenderBufferIndexMutex);
    MUTEX_Initialize(&context->Render.RenderStartStopMutex);
    MUTEX_Initialize(&context->Control.MonitorMutex);
    ExInitializeRundownProtection(&context->Control.StatusWork);
    MUTEX_Initialize(&context->Client.DisplayPowerMutex);
}

void DEVICE_DetectCpuFeatures(DEVICE_CONTEXT* context) {
    context->Cpu = CPU_DetectFeatures();
}

void DEVICE_MarkRemoved(DEVICE_CONTEXT* context) {
    SHARED_Write(context->DeviceRemoved, TRUE);
}

void DEVICE_MarkPresent(DEVICE_CONTEXT* context) {
    SHARED_Write(context->DeviceRemoved, FALSE);
}

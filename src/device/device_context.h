// Everything the driver knows of one adapter: one record per subsystem, each declared by its owner.
#pragma once

#include "base/lock.h"
#include "base/shared_field.h"
#include "base/util.h"
#include "device/client_context.h"
#include "device/display_context.h"
#include "device/hdmi_context.h"
#include "device/render_context.h"
#include "device/settings.h"
#include "device/usb_context.h"
#include "pixel/pixel_context.h"

#include <ntddk.h>
#include <wdf.h>

// Power bookkeeping. Written by the framework's power callbacks, which it serialises; CurrentPowerState is
// looked at by display switches under DisplayPowerMutex.
struct POWER_CONTEXT {
    WDF_POWER_DEVICE_STATE PreviousPowerState;
    WDF_POWER_DEVICE_STATE CurrentPowerState;
};

// Set once at device add.
struct CPU_FEATURES {
    ULONG CpuInfo[4]; // EAX, EBX, ECX, EDX of CPUID leaf 1
    BOOLEAN CpuHasSsse3;
    BOOLEAN CpuHasSse41;
    BOOLEAN CpuHasSse42;
};

// What each mutex guards, and the order in which they nest: driver/lock.h.
struct MUTEXES {
    DEVICE_MUTEX DropFrameCheckMutex;
    DEVICE_MUTEX RenderBufferIndexMutex;
    DEVICE_MUTEX MonitorMutex;
    DEVICE_MUTEX SpareMutex; // never taken
    DEVICE_MUTEX DisplayStateMutex;
    DEVICE_MUTEX RegisterMutex;
    DEVICE_MUTEX RenderStartStopMutex;
};

struct DEVICE_CONTEXT {
    WDFDEVICE Device; // always first: a pointer to the context also reaches the device
    WDFQUEUE DefaultQueue;

    // The adapter is gone; never cleared (shared field). Set by surprise removal and by a bulk completion
    // that finds the device gone; refuses register transfers and client commands.
    BOOLEAN DeviceRemoved;

    POWER_CONTEXT Power;
    SETTINGS Settings;
    CPU_FEATURES Cpu;
    MUTEXES Locks;
    USB_CONTEXT Usb;
    CLIENT_CONTEXT Client;
    DISPLAY_CONTEXT Display;
    RENDER_PIPELINE Render;
    PIXEL_CONTEXT Pixel;
    HDMI_CONTEXT Hdmi;
};

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(DEVICE_CONTEXT, DEVICE_GetContext)

// NonPagedPoolNx from OS version 6.2 on, NonPagedPool before. Set by DriverEntry, read everywhere.
extern POOL_TYPE DriverPoolType;

// Attributes of an object that lives as long as the device: parent the device, execution level and scope
// inherited.
void DEVICE_InitChildAttributes(DEVICE_CONTEXT* context, WDF_OBJECT_ATTRIBUTES* attributes);

// The four render buffers, which live as long as the device. Fails with the framework's status and leaves
// none behind.
NTSTATUS DEVICE_CreateRenderBuffers(DEVICE_CONTEXT* context);
void DEVICE_DeleteRenderBuffers(DEVICE_CONTEXT* context);

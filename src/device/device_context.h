// Everything the driver stores about one adapter: one record for each subsystem, in a header of its own that
// names the folder whose code writes it. Other folders read its fields, or call a function of that folder.
//
// The locks are declared beside what they guard. Their order, outermost first; a task takes a lock only while
// it holds none that comes after it:
//
//   DisplayPowerMutex -> MonitorMutex -> RenderStartStopMutex -> DisplayStateMutex -> DropFrameCheckMutex
//   -> SerialMasterMutex -> RegisterMutex;  RenderBufferIndexMutex is taken alone.
//   The pixels of a frame buffer (surface/frame_pixels.h) -> SubmitMutex -> FrameBufferListLock.
//   PendingListLock -> AvailableListLock;  PendingListLock -> the lock of SendQueue or SentRequests (never
//   both). CompressionLevelLock is taken alone.
//
// Monitor handling is outside the pipeline because a detach stops the pipeline while it holds MonitorMutex,
// and stopping the pipeline ends with a change of the display state. A task that needs DisplayStateMutex for
// the whole of a stop takes RenderStartStopMutex first; a kernel mutex may be taken again by its owner.
#pragma once

#include "device/client_context.h"
#include "device/control_context.h"
#include "device/display_context.h"
#include "device/hdmi_context.h"
#include "device/power_context.h"
#include "device/render_context.h"
#include "device/settings.h"
#include "device/surface_context.h"
#include "device/usb_context.h"
#include "pixel/cpu_features.h"
#include "pixel/group_level.h"

#include <ntddk.h>
#include <wdf.h>

struct DEVICE_CONTEXT {
    WDFDEVICE Device; // always first: a pointer to the context also reaches the device
    WDFQUEUE DefaultQueue;

    // The adapter is gone or was given up (shared field). Refuses register transfers and client commands
    // until the next hardware preparation.
    BOOLEAN DeviceRemoved;

    // The removal of the device has begun; never cleared (shared field, written by driver/power.cpp). Refuses
    // transactions of the serial master, so that no EDID read or transmitter sequence delays the removal by
    // seconds.
    BOOLEAN RemovalBegun;

    BOOLEAN CountedAsPrepared; // in CurrentNumberOfDevices; written by device/device_count.cpp

    SETTINGS Settings;
    CPU_FEATURES Cpu; // set once at device add
    USB_CONTEXT Usb;
    SURFACE_CONTEXT Surface;
    HDMI_CONTEXT Hdmi;
    DISPLAY_CONTEXT Display;
    RENDER_PIPELINE Render;
    GROUP_ENCODER_STATE Pixel; // of the frame update thread; the other encoders keep nothing between frames
    CONTROL_CONTEXT Control;
    CLIENT_CONTEXT Client;
    POWER_CONTEXT Power;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(DEVICE_CONTEXT, DEVICE_GetContext)

// Attributes of an object that lives as long as the device: parent the device, execution level and scope
// inherited.
void DEVICE_InitChildAttributes(DEVICE_CONTEXT* context, _Out_ WDF_OBJECT_ATTRIBUTES* attributes);

// Initializes every lock of the records above. At device add, before any other code can use the context.
void DEVICE_InitLocks(DEVICE_CONTEXT* context);

// Sets Cpu: the processor's features that the encoders use. At device add.
void DEVICE_DetectCpuFeatures(DEVICE_CONTEXT* context);

// After a surprise removal, or a transfer that found the device gone (render/send.h). Called at any IRQL.
void DEVICE_MarkRemoved(DEVICE_CONTEXT* context);

// At hardware preparation.
void DEVICE_MarkPresent(DEVICE_CONTEXT* context);

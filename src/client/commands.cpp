#include "client/commands.h"

#include "base/shared_field.h"
#include "base/util.h"
#include "control/mode_setting.h"
#include "device/device_context.h"
#include "display/video_output.h"
#include "hdmi/transmitter.h"
#include "render/drop_frames.h"
#include "render/start_stop.h"
#include "surface/frame_buffer.h"
#include "surface/pointer.h"
#include "surface/present.h"

namespace {

constexpr ULONG D0_POLL_MS = 10;
constexpr ULONG D0_LIMIT_MS = 5000;

// A command's input is the caller's memory, which may change at any time: it is copied once and only the copy
// is used. FALSE when it is shorter than the record.
template <typename Record>
[[nodiscard]] BOOLEAN CopyInput(const VOID* input, ULONGLONG inputLength, Record* record) {
    if (input == nullptr || inputLength < sizeof(Record)) {
        return FALSE;
    }
    RtlCopyMemory(record, input, sizeof(Record));
    return TRUE;
}

void CopyBaseBlock(const MONITOR_EDID& edid, UCHAR* output) {
    RtlCopyMemory(output, edid.EdidBlocks[0], EDID_BLOCK_SIZE);
}

// The base block twice, as far as whole copies fit: a client that asks for one block gets one, and no client
// gets bytes beyond the length that it gave. Under MonitorMutex, although reading a monitor's EDID holds it
// for a second or more: a client that asks during the read waits for the new EDID and never gets half of it.
NTSTATUS QueryEdid(DEVICE_CONTEXT* context, VOID* output, ULONGLONG outputLength) {
    if (output == nullptr || outputLength < EDID_BLOCK_SIZE) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    UCHAR* bytes = static_cast<UCHAR*>(output);
    MUTEX_GUARD monitor(context->Control.MonitorMutex);
    CopyBaseBlock(context->Control.Edid, bytes);
    if (outputLength >= 2 * EDID_BLOCK_SIZE) {
        CopyBaseBlock(context->Control.Edid, bytes + EDID_BLOCK_SIZE);
    }
    return STATUS_SUCCESS;
}

NTSTATUS CreateFrameBuffer(DEVICE_CONTEXT* context, const VOID* input, ULONGLONG inputLength) {
    FRAME_BUFFER_REQUEST request;
    if (!CopyInput(input, inputLength, &request)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    FRAME_BUFFER_CONTEXT* frameBuffer;
    const NTSTATUS status = FRAMEBUFFER_Create(context, &request, 1, &frameBuffer);

    // The size is kept even if the allocation failed: a present may create the frame buffer later.
    SHARED_Write(context->Client.DesktopWidth, request.Width);
    SHARED_Write(context->Client.DesktopHeight, request.Height);
    return status;
}

NTSTATUS DestroyFrameBuffer(DEVICE_CONTEXT* context, const VOID* input, ULONGLONG inputLength) {
    FRAME_BUFFER_REQUEST request;
    if (!CopyInput(input, inputLength, &request)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    FRAMEBUFFER_Destroy(context, request.Identifier);
    return STATUS_SUCCESS;
}

NTSTATUS PresentFrame(DEVICE_CONTEXT* context, const VOID* input, ULONGLONG inputLength) {
    PRESENT_REQUEST request;
    if (!CopyInput(input, inputLength, &request)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    // Larger than any mode: dropped without an error. Both dimensions must be too large, because what counts
    // is the number of pixels, and that is what the byte size says.
    if (request.ByteSize > PRESENT_MAX_BYTES ||
        (request.Width > MODE_LARGEST_WIDTH && request.Height > MODE_LARGEST_HEIGHT)) {
        return STATUS_SUCCESS;
    }
    return FRAMEBUFFER_Present(context, &request);
}

NTSTATUS SetPointer(DEVICE_CONTEXT* context, const VOID* input, ULONGLONG inputLength) {
    POINTER_REQUEST request;
    if (!CopyInput(input, inputLength, &request)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    CURSOR_Update(context, request.Position, request.Shape);
    return STATUS_SUCCESS;
}

void SetDisplayOn(DEVICE_CONTEXT* context, UCHAR on) TSA_REQUIRES(context->Client.DisplayPowerMutex) {
    SHARED_Write(context->Client.DisplayOn, on);
}

void SwitchDisplayOff(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Client.DisplayPowerMutex) {
    if (SHARED_Read(context->Power.CurrentPowerState) != WdfPowerDeviceD0) {
        // The stream is paused, the transmitter is powered down and the adapter cannot be reached. Its output
        // is off when it wakes, so nothing else has to be done.
        RENDER_StopSuspended(context);
        return;
    }
    {
        MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
        RENDER_SuspendFrameErrors(context);
    }
    HDMI_PowerDownIfPowered(context);
    RENDER_Stop(context);
    MODE_DisableOutput(context);
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    RENDER_ResumeFrameErrors(context);
}

// A mode that cannot be set leaves the display dark and the switch owed; the client is not told.
void SwitchDisplayOn(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Client.DisplayPowerMutex) {
    const NTSTATUS status = MODE_SetDesktopMode(context, SHARED_Read(context->Client.DesktopWidth),
                                                SHARED_Read(context->Client.DesktopHeight));
    context->Client.SwitchOwed = !NT_SUCCESS(status);
}

// TRUE when the display was switched on or need not be any more, FALSE while the device is out of D0.
BOOLEAN TrySwitchDisplayOn(DEVICE_CONTEXT* context) {
    MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
    if (context->Client.DisplayOn == 0 || !context->Client.SwitchOwed) {
        return TRUE; // Another command has switched off, or on, while this one waited.
    }
    if (SHARED_Read(context->Power.CurrentPowerState) != WdfPowerDeviceD0) {
        return FALSE;
    }
    SwitchDisplayOn(context);
    return TRUE;
}

// Waits without the mutex: D0 exit needs it, and a later display-off must not wait for a sleeping device.
NTSTATUS SwitchDisplayOnInD0(DEVICE_CONTEXT* context) {
    ULONG elapsedMs = 0;
    while (!TrySwitchDisplayOn(context)) {
        if (SHARED_Read(context->DeviceRemoved)) {
            return STATUS_DEVICE_REMOVED;
        }
        UTIL_DelayMs(D0_POLL_MS);
        elapsedMs += D0_POLL_MS;
        if (elapsedMs > D0_LIMIT_MS) {
            return STATUS_DRIVER_CANCEL_TIMEOUT;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS SetDisplayPower(DEVICE_CONTEXT* context, const VOID* input, ULONGLONG inputLength) {
    DISPLAY_POWER_REQUEST request;
    if (!CopyInput(input, inputLength, &request)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    {
        MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
        if (context->Client.DisplayOn == request.On && !context->Client.SwitchOwed) {
            return STATUS_SUCCESS;
        }
        SetDisplayOn(context, request.On);
        context->Client.SwitchOwed = request.On != 0;
        if (request.On == 0) {
            SwitchDisplayOff(context);
            return STATUS_SUCCESS;
        }
    }
    return SwitchDisplayOnInD0(context);
}

NTSTATUS SetRotation(DEVICE_CONTEXT* context, const VOID* input, ULONGLONG inputLength) {
    ROTATION_REQUEST request;
    if (inputLength != sizeof(request) || !CopyInput(input, inputLength, &request)) {
        return STATUS_INVALID_PARAMETER;
    }
    SHARED_Write(context->Client.Rotation, request.Rotation);
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS CLIENT_Command(VOID* clientContext, ULONG code, VOID* input, ULONGLONG inputLength, VOID* output,
                        ULONGLONG outputLength, ULONG* bytesReturned) {
    DEVICE_CONTEXT* context = static_cast<DEVICE_CONTEXT*>(clientContext);
    if (SHARED_Read(context->DeviceRemoved)) {
        return STATUS_DEVICE_REMOVED;
    }
    if (bytesReturned != nullptr) {
        *bytesReturned = 0;
    }
    switch (code) {
    case CMD_QUERY_EDID:
        return QueryEdid(context, output, outputLength);
    case CMD_CREATE_FRAME_BUFFER:
        return CreateFrameBuffer(context, input, inputLength);
    case CMD_DESTROY_FRAME_BUFFER:
        return DestroyFrameBuffer(context, input, inputLength);
    case CMD_PRESENT_FRAME:
        return PresentFrame(context, input, inputLength);
    case CMD_SET_POINTER:
        return SetPointer(context, input, inputLength);
    case CMD_SET_DISPLAY_POWER:
        return SetDisplayPower(context, input, inputLength);
    case CMD_SET_CLIENT_VALUE:
        return STATUS_SUCCESS;
    case CMD_SET_ROTATION:
        return SetRotation(context, input, inputLength);
    default:
        return STATUS_NOT_SUPPORTED;
    }
}

void CLIENT_EndSession(DEVICE_CONTEXT* context) {
    InterlockedExchange(&context->Client.ClientCount, 0);
    {
        MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
        SetDisplayOn(context, 0);
    }
    FRAMEBUFFER_DestroyAll(context);
}

void CLIENT_ReleaseInterface(VOID* clientContext) {
    DEVICE_CONTEXT* context = static_cast<DEVICE_CONTEXT*>(clientContext);
    FRAMEBUFFER_DestroyAll(context);
    {
        MUTEX_GUARD displayPower(context->Client.DisplayPowerMutex);
        context->Client.SwitchOwed = TRUE;
    }
    if (InterlockedDecrement(&context->Client.ClientCount) < 0) {
        // Released twice, or after a restart that ended the session: this client did not hold the interface.
        InterlockedIncrement(&context->Client.ClientCount);
    }
}

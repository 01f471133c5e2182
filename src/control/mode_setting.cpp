#include "control/mode_setting.h"

#include "base/shared_field.h"
#include "device/device_count.h"
#include "display/video_output.h"
#include "hdmi/hdmi_mode.h"
#include "hdmi/transmitter.h"
#include "render/drop_frames.h"
#include "render/mode_change.h"
#include "render/render_buffers.h"
#include "render/start_stop.h"
#include "usb/registers.h"

namespace {

constexpr ULONG MANY_DEVICES = 3; // as many adapters may exceed the bandwidth of a SuperSpeed bus

// Some monitors and long cables support 1920 x 1080 only at a lower pixel clock.
ULONG ChooseRefresh(const SETTINGS& settings, const MODE_REQUEST& request) {
    if (request.Width != 1920 || request.Height != 1080 || request.Refresh != 60) {
        return request.Refresh;
    }
    if (settings.FullHD50Enable != 0) {
        return 50;
    }
    if (settings.FullHD30Enable != 0) {
        return 30;
    }
    return settings.FullHD24Enable != 0 ? 24 : 60;
}

void UseCompressedRgb555(MODE_PARAMETERS* parameters) {
    parameters->OutputColorMode = OUTPUT_COLOR_16_BIT;
    parameters->Rgb555Enable = 1;
    parameters->CompressionEnabled = 1;
}

MODE_PARAMETERS BuildParameters(DEVICE_CONTEXT* context, MODE_REQUEST* request) {
    if (request->Refresh != 50 && request->Refresh != 60) {
        request->Refresh = 60;
    }
    MODE_PARAMETERS parameters = {};
    parameters.Width = request->Width;
    parameters.Height = request->Height;
    parameters.Refresh = ChooseRefresh(context->Settings, *request);
    parameters.SourceBytesPerPixel = request->SourceBytesPerPixel;
    parameters.OutputColorMode = request->OutputColorMode;
    parameters.CompressionEnabled = request->CompressionEnabled;
    parameters.TransferScheme = request->TransferScheme;
    BOOLEAN severalDevices;
    MODE_ApplyTransferPolicy(context, &parameters, &severalDevices);
    return parameters;
}

NTSTATUS ChangeMode(DEVICE_CONTEXT* context, MODE_REQUEST* request)
    TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    const MODE_PARAMETERS& current = context->Display.Mode;
    if (request->Width != current.Width || request->Height != current.Height) {
        // Remembered, because a mode set that fails partway has already stored its size: the next mode set of
        // that size must still program the transmitter.
        HDMI_ForgetMode(context);
    }

    // The stop comes before the transfer policy. With the pixel-bytes adjustment enabled it clears
    // UseUsb3OutputRGB565Enable, so the policy never sees the registry's value: the output starts with 24
    // bits and falls back to 16 bits when frames are dropped.
    RENDER_Stop(context);
    MODE_DisableOutput(context);
    RENDER_ResetDropFrameCheck(context);

    const MODE_PARAMETERS parameters = BuildParameters(context, request);
    NTSTATUS status = RENDER_ProgramMode(context, &parameters);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (parameters.CompressionEnabled != 0) {
        status = RENDER_PrepareRenderBuffers(context, RENDER_BUFFER_CAPACITY);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (request->CompressionEnabled == 0) {
        MODE_UpdateHdmi(context, SHARED_Read(context->Hdmi.HdmiModeStale));
        status = RENDER_Start(context);
    }
    return status;
}

} // namespace

NTSTATUS MODE_SetMode(DEVICE_CONTEXT* context, MODE_REQUEST* request) {
    // Held from the stop to the start: in between, the frame update thread could otherwise switch the pixel
    // bytes of the mode that is being replaced, or a detach could forget the mode just set.
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    const NTSTATUS status = ChangeMode(context, request);

    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    RENDER_ResumeFrameErrors(context);
    return status;
}

NTSTATUS MODE_SetDesktopMode(DEVICE_CONTEXT* context, ULONG width, ULONG height) {
    MODE_REQUEST request = {};
    request.Width = width;
    request.Height = height;
    request.Refresh = 60;
    request.SourceBytesPerPixel = 4;
    request.OutputColorMode = OUTPUT_COLOR_24_BIT;
    return MODE_SetMode(context, &request);
}

void MODE_Resume(DEVICE_CONTEXT* context) {
    // Held over both steps, so that a display-off in between finds either a paused stream or a running one.
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    if (!context->Render.SuspendedWhileRunning) {
        return;
    }
    const DISPLAY_CONTEXT& display = context->Display;
    const BOOLEAN forgotten = display.Mode.Width == 0;
    const BOOLEAN transmitterIsNew =
        SHARED_Read(context->Hdmi.HdmiTransmitterPresent) && SHARED_Read(context->Hdmi.HdmiModeStale);
    if (!forgotten && !transmitterIsNew) {
        RENDER_Resume(context);
        return;
    }
    // A failure leaves the monitor dark until the next mode set, as after every other failed one.
    (void)MODE_SetDesktopMode(context, forgotten ? display.WidthBeforeSleep : display.Mode.Width,
                              forgotten ? display.HeightBeforeSleep : display.Mode.Height);
}

void MODE_ApplyTransferPolicy(DEVICE_CONTEXT* context, MODE_PARAMETERS* parameters, BOOLEAN* severalDevices) {
    const SETTINGS* settings = &context->Settings;
    *severalDevices = FALSE;

    if (context->Usb.DeviceDescriptor.bcdUSB == USB_BCD_HIGH_SPEED_LINK) {
        if (parameters->Refresh > 60) {
            parameters->Refresh = 60;
        }
        if (settings->Usb2PixelFormatTransformCompressionEnable != 0) {
            UseCompressedRgb555(parameters);
        }
        return;
    }
    if (settings->Usb3PixelFormatTransformCompressionEnable != 0) {
        UseCompressedRgb555(parameters);
        return;
    }
    if (DEVICECOUNT_Refresh(context) >= MANY_DEVICES) {
        parameters->CompressionEnabled = 1;
        *severalDevices = TRUE;
    }
    if (SHARED_Read(settings->UseUsb3OutputRGB565Enable) != 0) {
        parameters->OutputColorMode = OUTPUT_COLOR_16_BIT;
        parameters->Rgb555Enable = 0;
    }
}

void MODE_UpdateHdmi(DEVICE_CONTEXT* context, BOOLEAN modeChanged) {
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    if (!SHARED_Read(context->Hdmi.HdmiTransmitterPresent)) {
        return;
    }
    // A transmitter that fails here stays marked as not powered or not programmed, and the next mode set
    // tries again. This mode set continues.
    if (!SHARED_Read(context->Hdmi.HdmiTransmitterPowered)) {
        (void)HDMI_PowerUp(context);
    }
    if (modeChanged) {
        REG_SetBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_HDMI_BIT);
        (void)HDMI_SetMode(context);
        REG_ClearBit(context, REGISTER_STREAM_CONTROL, STREAM_CONTROL_HDMI_BIT);
    }
}

#include "render/frame_update.h"

#include "device/mode_limits.h"
#include "display/video_output.h"
#include "pixel/compression.h"
#include "pixel/transform.h"
#include "render/auto_update.h"
#include "render/buffer_turn.h"
#include "render/compression_level.h"
#include "render/context_lists.h"
#include "render/output_switch.h"
#include "render/send.h"
#include "render/start_stop.h"
#include "surface/frame_pixels.h"
#include "usb/chip.h"

namespace {

BYTE_RANGE StagingBuffer(const RENDER_PIPELINE& render) {
    UCHAR* start = render.CompressionStagingAligned;
    return {start, start == nullptr ? nullptr : start + RENDER_BUFFER_CAPACITY};
}

// Converts or compresses a whole frame and returns the number of bytes to send, 0 for none. A 16-bit frame is
// compressed only while the output is active.
ULONG ConvertFrame(DEVICE_CONTEXT* context, UCHAR* destination, const FRAME_SOURCE& frame) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    const FRAME_FORMAT format = {mode.SourceBytesPerPixel, mode.OutputColorMode, mode.Rgb555Enable};
    if (mode.CompressionEnabled == 0) {
        PIXEL_TransformFrame(format, context->Cpu, destination, frame.Pixels, frame.PixelCount);
        return PIXEL_OutputBytes(format.OutputColorMode) * frame.PixelCount;
    }
    const CHIP_TRAITS& chip = CHIP_Traits(context);
    const COMPRESSION_FORMAT compression = {format, COMPRESSION_CurrentLevel(context),
                                            chip.ExactRunUnits != 0, chip.NeedsLeadIn != 0};
    const BYTE_RANGE staging = StagingBuffer(context->Render);
    const BYTE_RANGE stream = {destination, destination + RENDER_BUFFER_CAPACITY};
    if (mode.OutputColorMode != OUTPUT_COLOR_16_BIT) {
        return static_cast<ULONG>(
            COMPRESSION_CompressFrame(compression, context->Cpu, frame, staging, stream));
    }
    if (!MODE_IsOutputActive(context)) {
        return 0;
    }
    return static_cast<ULONG>(
        COMPRESSION_CompressFrame16(compression, context->Cpu, &context->Pixel, frame, staging, stream));
}

// FALSE when there is nothing to send.
BOOLEAN FillRenderBuffer(DEVICE_CONTEXT* context, ULONG index, FRAME_BUFFER_CONTEXT* frameBuffer,
                         ULONG pixelCount) {
    if (!FRAMEBUFFER_AcquireToRead(context, frameBuffer)) {
        return FALSE;
    }
    const ULONG length = ConvertFrame(context, context->Render.RenderBuffer.Aligned[index],
                                      {frameBuffer->PixelBuffer, frameBuffer->ByteSize, pixelCount});
    FRAMEBUFFER_ReleasePixels(frameBuffer);

    context->Render.RenderBufferLength[index] = length;
    return length != 0;
}

} // namespace

void RENDER_FrameUpdate(DEVICE_CONTEXT* context) {
    if (!RENDER_BeginFill(context)) {
        return;
    }
    const MODE_PARAMETERS& mode = context->Display.Mode;
    FRAME_BUFFER_CONTEXT* frameBuffer = FRAMEBUFFER_FindPending(context, mode.Width, mode.Height);
    if (frameBuffer == nullptr) {
        RENDER_EndFill(context);
        return;
    }
    if (RENDER_WantsOtherPixelBytes(context)) {
        // Not during a fill: the switch stops the stream, and another task that stops it would wait for the
        // fill.
        RENDER_EndFill(context);
        RENDER_AdjustPixelBytes(context);
        if (!RENDER_BeginFill(context)) {
            FRAMEBUFFER_Dereference(context, frameBuffer);
            return;
        }
    }
    // Another mode may have been set meanwhile.
    if (frameBuffer->Width == mode.Width && frameBuffer->Height == mode.Height) {
        RENDER_Private_UpdateRenderingFrameBuffer(context, frameBuffer);
    }
    RENDER_EndFill(context);
    FRAMEBUFFER_Dereference(context, frameBuffer);
}

void RENDER_Private_UpdateRenderingFrameBuffer(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    // The client may set a mode of the table that no EDID offers. The frames of some are larger than a render
    // buffer, and no adapter can store them.
    if (ULONGLONG{mode.Width} * mode.Height > MODE_MAX_PIXELS) {
        return;
    }
    const ULONG pixelCount = mode.Width * mode.Height;
    RENDER_StopAutoUpdate(context);

    RENDER_CONTEXT* renderContext = RENDER_WaitForContext(context);
    if (renderContext == nullptr) {
        return;
    }
    const ULONG index = RENDER_WaitForBuffer(context);
    if (index == RENDER_BUFFER_NONE || !FillRenderBuffer(context, index, frameBuffer, pixelCount)) {
        RENDER_ReturnToAvailable(context, renderContext);
        return;
    }
    renderContext->RenderBufferIndex = index;
    if (mode.CompressionEnabled != 0) {
        RENDER_CompressionAutoUpdate(context, context->Render.RenderBufferLength[index]);
    }
    if (!RENDER_QueueFrame(context, renderContext)) {
        RENDER_ReturnToAvailable(context, renderContext);
        return;
    }
    RENDER_DispatchPendingContexts(context);
}

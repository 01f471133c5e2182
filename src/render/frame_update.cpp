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

// Whether the newest render buffer of the running stream has that origin.
BOOLEAN IsInNewestBuffer(DEVICE_CONTEXT* context, const FRAME_ORIGIN& origin) {
    const FRAME_ORIGIN& newest = context->Render.NewestFrame;
    return newest.PixelVersion == origin.PixelVersion && newest.CompressionLevel == origin.CompressionLevel &&
           newest.QuantLevel == origin.QuantLevel && RENDER_IsNewestBuffer(context, newest.RenderBufferIndex);
}

// Fills the render buffer that `origin` names, and completes `origin`. When the newest render buffer already
// holds the same frame, fills nothing and names that one. FALSE when there is nothing to send.
BOOLEAN FillRenderBuffer(DEVICE_CONTEXT* context, FRAME_ORIGIN* origin, FRAME_BUFFER_CONTEXT* frameBuffer,
                         ULONG pixelCount) {
    if (!FRAMEBUFFER_AcquireToRead(context, frameBuffer)) {
        return FALSE;
    }
    // The levels before the conversion, which can change that of the group encoder.
    origin->PixelVersion = frameBuffer->PixelVersion;
    origin->CompressionLevel = COMPRESSION_CurrentLevel(context);
    origin->QuantLevel = context->Pixel.QuantLevel;
    if (IsInNewestBuffer(context, *origin)) {
        origin->RenderBufferIndex = context->Render.NewestFrame.RenderBufferIndex;
    } else {
        const ULONG index = origin->RenderBufferIndex;
        context->Render.RenderBufferLength[index] =
            ConvertFrame(context, context->Render.RenderBuffer.Aligned[index],
                         {frameBuffer->PixelBuffer, frameBuffer->ByteSize, pixelCount});
    }
    FRAMEBUFFER_ReleasePixels(frameBuffer);
    return context->Render.RenderBufferLength[origin->RenderBufferIndex] != 0;
}

// The transfers in flight repeat the newest frame by themselves. Another one would be repeated with them, and
// in the end no context would be left for a new frame.
void QueueOrReturn(DEVICE_CONTEXT* context, RENDER_CONTEXT* renderContext, const FRAME_ORIGIN& origin,
                   BOOLEAN isRepeated) {
    const BOOLEAN isInFlight = isRepeated && ReadAcquire(&context->Render.RenderContextsInFlight) != 0;
    if (!isInFlight && RENDER_QueueFrame(context, renderContext)) {
        context->Render.NewestFrame = origin;
    } else {
        RENDER_ReturnToAvailable(context, renderContext);
    }
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
    FRAME_ORIGIN origin = {};
    origin.RenderBufferIndex = index;
    if (index == RENDER_BUFFER_NONE || !FillRenderBuffer(context, &origin, frameBuffer, pixelCount)) {
        RENDER_ReturnToAvailable(context, renderContext);
        return;
    }
    renderContext->RenderBufferIndex = origin.RenderBufferIndex;
    if (mode.CompressionEnabled != 0) {
        RENDER_CompressionAutoUpdate(context, context->Render.RenderBufferLength[origin.RenderBufferIndex]);
    }
    QueueOrReturn(context, renderContext, origin, origin.RenderBufferIndex != index);
    RENDER_DispatchPendingContexts(context);
}

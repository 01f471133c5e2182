#include "render/frame_update.h"

#include "display/mode_tables.h"
#include "pixel/compression.h"
#include "pixel/transform.h"
#include "render/auto_update.h"
#include "render/buffer_turn.h"
#include "render/context_lists.h"
#include "render/output_switch.h"
#include "render/send.h"
#include "render/start_stop.h"
#include "surface/frame_pixels.h"

namespace {

// Converts or compresses a whole frame and returns the number of bytes to send, 0 for none.
ULONG ConvertFrame(DEVICE_CONTEXT* context, UCHAR* destination, const UCHAR* source, ULONGLONG sourceSize,
                   ULONG pixelCount) {
    const MODE_PARAMETERS& mode = context->Display.Mode;
    if (mode.CompressionEnabled == 0) {
        PIXEL_TransformFrame(context, destination, source, pixelCount);
        return PIXEL_OutputBytes(mode) * pixelCount;
    }
    const auto compress =
        mode.OutputColorMode == OUTPUT_COLOR_16_BIT ? COMPRESSION_CompressFrame16 : COMPRESSION_CompressFrame;
    return static_cast<ULONG>(compress(context, 0, sourceSize, source, destination, pixelCount));
}

// FALSE when there is nothing to send.
BOOLEAN FillRenderBuffer(DEVICE_CONTEXT* context, ULONG index, FRAME_BUFFER_CONTEXT* frameBuffer,
                         ULONG pixelCount) {
    if (!FRAMEBUFFER_BeginRead(context, frameBuffer)) {
        return FALSE;
    }
    const ULONG length = ConvertFrame(context, context->Render.RenderBuffer.Aligned[index],
                                      frameBuffer->PixelBuffer, frameBuffer->ByteSize, pixelCount);
    FRAMEBUFFER_EndRead(frameBuffer);

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
        // The switch stops the stream and may have to wait for another task that stops it.
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
    // The client may ask for a listed mode that no monitor was offered: the frames of some exceed a render
    // buffer, and no adapter holds any of them.
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

#include "surface/frame_pixels.h"

#include "base/shared_field.h"
#include "base/util.h"

namespace {

constexpr ULONG PIXEL_WAIT_SLICE_MS = 10;

BOOLEAN TryAcquirePixels(FRAME_BUFFER_CONTEXT* frameBuffer) {
    LARGE_INTEGER slice;
    slice.QuadPart = RelativeMs(PIXEL_WAIT_SLICE_MS);
    return KeWaitForSingleObject(&frameBuffer->PixelsFree, Executive, KernelMode, FALSE, &slice) ==
           STATUS_SUCCESS;
}

BOOLEAN IsBeingFilled(const FRAME_BUFFER_CONTEXT* frameBuffer) {
    return SHARED_Read(frameBuffer->FillThread) != nullptr;
}

} // namespace

// An owner hands the pixels to the longest waiting task: the event is a synchronization event. A client
// thread that presents without a pause therefore cannot keep the frame update thread out.
void FRAMEBUFFER_AcquirePixels(FRAME_BUFFER_CONTEXT* frameBuffer) {
    KeWaitForSingleObject(&frameBuffer->PixelsFree, Executive, KernelMode, FALSE, nullptr);
}

BOOLEAN FRAMEBUFFER_AcquireUnlessFilled(FRAME_BUFFER_CONTEXT* frameBuffer) {
    while (!IsBeingFilled(frameBuffer)) {
        if (TryAcquirePixels(frameBuffer)) {
            return TRUE;
        }
    }
    return FALSE;
}

void FRAMEBUFFER_ReleasePixels(FRAME_BUFFER_CONTEXT* frameBuffer) {
    KeSetEvent(&frameBuffer->PixelsFree, IO_NO_INCREMENT, FALSE);
}

BOOLEAN FRAMEBUFFER_BeginRead(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    // The wait is for a client that fills the frame, and has no limit of its own; a stop ends it.
    while (!TryAcquirePixels(frameBuffer)) {
        if (SHARED_Read(context->Render.RenderRunning) == 0) {
            return FALSE;
        }
    }
    return TRUE;
}

void FRAMEBUFFER_EndRead(FRAME_BUFFER_CONTEXT* frameBuffer) {
    FRAMEBUFFER_ReleasePixels(frameBuffer);
}

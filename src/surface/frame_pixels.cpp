#include "surface/frame_pixels.h"

#include "base/shared_field.h"

namespace {

// FALSE: `end` is signaled, or was before the caller's turn.
BOOLEAN AcquireUnless(KEVENT* end, FRAME_BUFFER_CONTEXT* frameBuffer) {
    PVOID objects[] = {end, &frameBuffer->PixelsFree}; // the first one wins when both are signaled
    return KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr) ==
           STATUS_WAIT_1;
}

} // namespace

// An owner hands the pixels to the task that waits longest: the event is a synchronization event, and no wait
// has a time-out after which it would begin anew behind the others. Client threads that present without a
// pause therefore cannot keep the frame update thread out.
void FRAMEBUFFER_AcquireToFill(FRAME_BUFFER_CONTEXT* frameBuffer) {
    (void)KeWaitForSingleObject(&frameBuffer->PixelsFree, Executive, KernelMode, FALSE, nullptr);
    SHARED_Write(frameBuffer->FillThread, KeGetCurrentThread());
    KeSetEvent(&frameBuffer->BeingFilled, IO_NO_INCREMENT, FALSE);
}

void FRAMEBUFFER_EndFill(FRAME_BUFFER_CONTEXT* frameBuffer) {
    KeClearEvent(&frameBuffer->BeingFilled);
    SHARED_Write(frameBuffer->FillThread, nullptr);
}

BOOLEAN FRAMEBUFFER_IsFilledByCaller(const FRAME_BUFFER_CONTEXT* frameBuffer) {
    return SHARED_Read(frameBuffer->FillThread) == KeGetCurrentThread();
}

BOOLEAN FRAMEBUFFER_AcquireUnlessFilled(FRAME_BUFFER_CONTEXT* frameBuffer) {
    return AcquireUnless(&frameBuffer->BeingFilled, frameBuffer);
}

BOOLEAN FRAMEBUFFER_AcquireToRead(DEVICE_CONTEXT* context, FRAME_BUFFER_CONTEXT* frameBuffer) {
    return AcquireUnless(&context->Render.StoppedEvent, frameBuffer);
}

void FRAMEBUFFER_ReleasePixels(FRAME_BUFFER_CONTEXT* frameBuffer) {
    KeSetEvent(&frameBuffer->PixelsFree, IO_NO_INCREMENT, FALSE);
}

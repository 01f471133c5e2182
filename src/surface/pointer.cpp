#include "surface/pointer.h"

#include "base/shared_field.h"
#include "device/device_context.h"
#include "surface/cursor_shape.h"
#include "surface/present.h"

namespace {

// Takes over a position. TRUE when it, or the pointer's visibility, has changed.
BOOLEAN UpdatePosition(DEVICE_CONTEXT* context, const POINTER_POSITION* request)
    TSA_REQUIRES(context->Surface.SubmitMutex) {
    const CLIENT_CONTEXT* client = &context->Client;
    const POINTER_POSITION position = *request; // once: it is the caller's memory
    const BOOLEAN visible = position.Flags & 1;
    const BOOLEAN changed = position.X != context->Surface.LastPointerX ||
                            position.Y != context->Surface.LastPointerY ||
                            visible != context->Surface.LastPointerVisible;
    const CURSOR_POSITION cursor = CURSOR_RotatePosition(
        SHARED_Read(client->Rotation), SHARED_Read(client->DesktopWidth), SHARED_Read(client->DesktopHeight),
        context->Surface.PointerShape.Width, context->Surface.PointerShape.Height, position.X, position.Y);
    context->Surface.CursorX = cursor.X;
    context->Surface.CursorY = cursor.Y;
    context->Surface.CursorVisible = visible;
    context->Surface.LastPointerX = position.X;
    context->Surface.LastPointerY = position.Y;
    context->Surface.LastPointerVisible = visible;
    return changed;
}

// Takes over a shape. FALSE when it was refused.
BOOLEAN UpdateShape(DEVICE_CONTEXT* context, const POINTER_SHAPE* shape)
    TSA_REQUIRES(context->Surface.SubmitMutex) {
    const ULONG rotation = SHARED_Read(context->Client.Rotation);
    return CURSOR_StoreShape(&context->Surface.PointerShape, shape) &&
           CURSOR_RotateShape(&context->Surface.PointerShape, rotation, &context->Surface.RotatedShape);
}

} // namespace

void CURSOR_Update(DEVICE_CONTEXT* context, const POINTER_POSITION* position, const POINTER_SHAPE* shape) {
    BOOLEAN changed = FALSE;
    {
        MUTEX_GUARD submit(context->Surface.SubmitMutex);
        if (position != nullptr) {
            changed = UpdatePosition(context, position);
        }
        if (shape != nullptr && UpdateShape(context, shape)) {
            changed = TRUE;
        }
    }
    if (changed) {
        FRAMEBUFFER_ResubmitCurrent(context);
    }
}

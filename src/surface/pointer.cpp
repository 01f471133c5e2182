#include "surface/pointer.h"

#include "base/shared_field.h"
#include "device/device_context.h"
#include "surface/cursor_shape.h"
#include "surface/present.h"

namespace {

// TRUE when the kept shape can be drawn with that rotation.
BOOLEAN TurnShape(DEVICE_CONTEXT* context, ULONG rotation) TSA_REQUIRES(context->Surface.SubmitMutex) {
    context->Surface.ShapeRotation = rotation;
    return CURSOR_RotateShape(&context->Surface.PointerShape, rotation, &context->Surface.RotatedShape);
}

// Takes over a position. TRUE when it, the pointer's visibility or the rotation has changed.
BOOLEAN UpdatePosition(DEVICE_CONTEXT* context, const POINTER_POSITION* request)
    TSA_REQUIRES(context->Surface.SubmitMutex) {
    const CLIENT_CONTEXT* client = &context->Client;
    const POINTER_POSITION position = *request; // once: it is the caller's memory
    const BOOLEAN visible = position.Flags & 1;
    const ULONG rotation = SHARED_Read(client->Rotation);
    const BOOLEAN turned = rotation != context->Surface.ShapeRotation && TurnShape(context, rotation);
    const BOOLEAN changed = turned || position.X != context->Surface.LastPointerX ||
                            position.Y != context->Surface.LastPointerY ||
                            visible != context->Surface.LastPointerVisible;
    const CURSOR_POSITION cursor = CURSOR_RotatePosition(
        rotation, SHARED_Read(client->DesktopWidth), SHARED_Read(client->DesktopHeight),
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
    return CURSOR_StoreShape(&context->Surface.PointerShape, shape) &&
           TurnShape(context, SHARED_Read(context->Client.Rotation));
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

// The client's pointer: where it is and what it looks like.
#pragma once

#include "device/device_context.h"

// The body of CMD_SET_POINTER; either record may be null. A shape that does not fit is refused: the old one
// stays.
_IRQL_requires_(PASSIVE_LEVEL)
void CURSOR_Update(DEVICE_CONTEXT* context, _In_opt_ const POINTER_POSITION* position,
                   _In_opt_ const POINTER_SHAPE* shape) TSA_EXCLUDES(context->Surface.SubmitMutex);

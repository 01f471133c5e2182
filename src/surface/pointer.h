// The client's pointer: where it is and what it looks like.
#pragma once

#include "base/annotations.h"
#include "device/client_abi.h"

struct DEVICE_CONTEXT;

// The body of CMD_SET_POINTER; either may be null. A shape that does not fit is refused: the old one stays.
_IRQL_requires_(PASSIVE_LEVEL)
void CURSOR_Update(DEVICE_CONTEXT* context, const POINTER_POSITION* position, const POINTER_SHAPE* shape);

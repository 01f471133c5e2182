// The entry points that the client calls directly (signatures and records: device/client_abi.h).
#pragma once

#include "base/annotations.h"
#include "device/client_abi.h"

struct DEVICE_CONTEXT;

// Called from several threads at once. Blocks while a mode is set.
_IRQL_requires_(PASSIVE_LEVEL)
COMMAND_ENTRY CLIENT_Command;

// Ends the client's session: drops the driver's references to its frame buffers and admits the next client.
_IRQL_requires_(PASSIVE_LEVEL)
RELEASE_ENTRY CLIENT_ReleaseInterface;

// At hardware preparation: ends the session of a client that outlived the previous preparation. Its frame
// buffers are freed by their last user, and the next client finds the interface free and the display off.
_IRQL_requires_(PASSIVE_LEVEL)
void CLIENT_EndSession(DEVICE_CONTEXT* context);

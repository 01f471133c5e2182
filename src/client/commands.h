// The entry points that the client calls directly (signatures and records: client/client_abi.h).
#pragma once

#include "device/client_abi.h"

// PASSIVE_LEVEL, from several threads at once. Blocks while a mode is set.
COMMAND_ENTRY CLIENT_Command;

// Ends the client's tenure: drops the driver's references to its frame buffers and lets the next client in.
RELEASE_ENTRY CLIENT_ReleaseInterface;

// On Windows this header declares some functions that <ntddk.h> does not; ZwWaitForSingleObject is one of
// them.
#pragma once

#include <ntddk.h>

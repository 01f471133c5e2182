// `usbdisplay modes`: the driver's mode table.
#pragma once

#include "rig/exit_status.h"

namespace tool {

ExitStatus showModes(bool json);

} // namespace tool

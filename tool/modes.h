// `usbdisplay modes`: the driver's mode table.
#pragma once

#include "tool/exit_status.h"

namespace tool {

ExitStatus showModes(bool json);

} // namespace tool

// `usbdisplay settings`: the driver's settings.
#pragma once

#include "tool/exit_status.h"

namespace tool {

ExitStatus showSettings(bool json);

} // namespace tool

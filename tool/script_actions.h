// `usbdisplay run`: runs a script.
#pragma once

#include "tool/exit_status.h"

#include "platform/usb/clock.h"

#include <cstdint>
#include <string>

namespace tool {

struct RunOptions {
    std::string script;  // "-" for standard input
    std::string capture; // pcapng; from the second plug on, with -2, -3, ... before the extension
    std::uint64_t seed = 1;
    usb::Time tick = 0; // of the clock by which the driver's waits end
    bool free = false;
    bool json = false;
};

// Before the first action, all files that the script reads are read, and the folders of all that it writes
// are checked. Throws what the failing action throws, with the script's name and the line before the message.
ExitStatus runScript(const RunOptions& options);

} // namespace tool

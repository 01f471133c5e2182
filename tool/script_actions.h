// `usbdisplay run`: carries a script out.
#pragma once

#include "tool/exit_status.h"

#include <cstdint>
#include <string>

namespace tool {

struct RunOptions {
    std::string script;  // "-" for standard input
    std::string capture; // pcapng; from the second plug on with -2, -3, ... before the extension
    std::uint64_t seed = 1;
    bool free = false;
    bool json = false;
};

// All files that the script reads are read, and all that it writes are checked for a writable place, before
// its first action. Throws what the failing action throws, with the script's name and the line before it.
ExitStatus runScript(const RunOptions& options);

} // namespace tool

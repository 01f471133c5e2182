// How a command of the tool ends.
#pragma once

namespace tool {

enum class ExitStatus : int {
    Right = 0,
    Wrong = 1,    // a picture that is not the expected one, or a violation of the adapter's rules
    BadInput = 2, // usage, or a file that cannot be used; `support::InputError`
    Failed = 3,   // the driver or the device failed, or the driver broke a rule of the kernel
};

} // namespace tool

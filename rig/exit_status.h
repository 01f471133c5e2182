// How a command of the tool ends.
#pragma once

#include <stdexcept>
#include <string>

namespace tool {

enum class ExitStatus : int {
    Right = 0,
    Wrong = 1,    // a picture that is not the expected one, or a violation of the adapter's rules
    BadInput = 2, // usage, or a file that cannot be used; `desktop::InputError`
    Failed = 3,   // the driver or the device failed, or the driver broke a rule of the kernel
};

// The driver or the device did not do what was asked.
class DeviceError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What the monitor shows is not what it must show.
class WrongResult : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace tool

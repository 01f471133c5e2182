// How a session fails.
#pragma once

#include <stdexcept>
#include <string>

namespace rig {

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

} // namespace rig

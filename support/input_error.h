// Unusable input of the user. The message is one line that names the file or value and what is allowed.
#pragma once

#include <stdexcept>

namespace support {

class InputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

} // namespace support

// The machine's time under the names of the USB layer.
#pragma once

#include "platform/base/clock.h"

namespace usb {

using base::Clock;
using base::kMicrosecond;
using base::kMillisecond;
using base::kSecond;
using base::Time;

} // namespace usb

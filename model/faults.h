// What can be made to fail in the adapter and at its monitor.
#pragma once

#include <cstdint>

namespace model {

// Parts that can stop answering.
enum class Part : std::uint8_t {
    Control,      // control transfers stay pending until the host cancels them
    SerialMaster, // a started serial command never ends
    Transmitter,  // the transmitter does not acknowledge its address
};

enum class TransmitterFault : std::uint8_t {
    None,
    Stuck, // it acknowledges its address and then holds the clock line: each access hangs to the bus time-out
};

// State of the DDC lines as the transmitter's DDC master sees them.
enum class DdcFault : std::uint8_t {
    None,
    Busy,  // an unfinished transaction holds the bus; an abort frees it
    Stuck, // the data line is held low permanently; neither an abort nor the adapter's master frees it
};

} // namespace model

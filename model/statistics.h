// What the adapter counts.
#pragma once

#include <cstdint>

namespace model {

struct Statistics {
    std::uint64_t controlTransfers = 0;
    std::uint64_t registerReads = 0;
    std::uint64_t registerWrites = 0;
    std::uint64_t interruptReports = 0; // delivered to the host
    std::uint64_t bulkTransfers = 0;    // zero-length ones included
    std::uint64_t bytesReceived = 0;    // on the bulk endpoint
    std::uint64_t framesReceived = 0;   // complete and correct
    std::uint64_t framesRepeated = 0;   // of these, the ones equal to the frame before
    std::uint64_t framesShown = 0;      // of these, the ones that the screen was lit for
    std::uint64_t framesBroken = 0;     // with a wrong length or stream
    std::uint64_t framesDropped = 0;    // on command
    std::uint64_t bytesDiscarded = 0;   // bulk data that arrived while the output was asleep, off or flushed
    std::uint64_t frameErrors = 0;      // reported in the status register
    std::uint64_t serialCommands = 0;
};

} // namespace model

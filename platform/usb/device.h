// The interface between the host and a USB device. The adapter's model implements it; every layer between the
// host and the device (link timing, capture, faults) is a `Device` that wraps another.
#pragma once

#include "platform/usb/clock.h"

#include <cstdint>
#include <functional>
#include <span>

namespace usb {

enum class Speed : std::uint8_t { High, Super };

enum class TransferType : std::uint8_t { Control, Bulk, Interrupt };

enum class Status : std::uint8_t {
    Success,
    Stalled,   // the endpoint answered STALL; a control endpoint recovers by itself at the next setup packet
    Cancelled, // the host withdrew the transfer
    Gone,      // the device is no longer there
    Error,     // a transaction error that used up its retries
};

// The eight bytes of a setup packet, in the order of USB 2.0, table 9-2.
struct SetupPacket {
    std::uint8_t requestType = 0;
    std::uint8_t request = 0;
    std::uint16_t value = 0;
    std::uint16_t index = 0;
    std::uint16_t length = 0;
};

// One transfer. The submitter owns the record and the data until `complete` runs.
struct Transfer {
    TransferType type = TransferType::Control;
    std::uint8_t endpoint = 0;       // address, bit 7 set for IN; 0 for the default pipe
    SetupPacket setup;               // control transfers only
    Time interval = 0;               // interrupt transfers only: the host asks the endpoint once in this time
    std::span<std::uint8_t> data;    // OUT: the bytes to send; IN: where to put them; may be empty
    Status status = Status::Success; // result
    std::uint32_t actual = 0;        // result: bytes moved, at most data.size()
    // Called exactly once for each submit, maybe inside it. It may submit and cancel transfers, so a device
    // holds no lock of its own that `submit` or `cancel` take when it calls this.
    std::function<void(Transfer&)> complete;

    bool isIn() const {
        return type == TransferType::Control ? (setup.requestType & 0x80) != 0 : (endpoint & 0x80) != 0;
    }
};

class Device {
  public:
    virtual ~Device() = default;

    virtual Speed speed() const = 0;

    // Starts `transfer`. It completes inside this call or later, always exactly once, with `status` and
    // `actual` set. Standard requests (descriptors, configuration, interface) are control transfers like any
    // other and are answered by the device itself. Callable at up to DISPATCH_LEVEL from any task.
    virtual void submit(Transfer& transfer) = 0;

    // Asks for the end of a transfer that was submitted and has not completed: it completes with `Cancelled`
    // (inside this call or later) unless it completes by itself first. Safe to call for a transfer that has
    // just completed.
    virtual void cancel(Transfer& transfer) = 0;

    // The cable was pulled: every pending transfer completes with `Gone`, and so does every later one.
    virtual void disconnect() = 0;
};

} // namespace usb

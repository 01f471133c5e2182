// The display driver above ours: finds the adapter by its device interface, exchanges entry points with the
// driver, owns the surfaces and fills the driver's frame buffers when the driver asks for it.
#pragma once

#include "desktop/pointer.h"
#include "device/client_abi.h"
#include "platform/machine.h"
#include "support/surface.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>

namespace desktop {

struct ClientOptions {
    // Let go of the driver as soon as the interface disappears. A client that does not makes a removal wait.
    bool releaseOnDeparture = true;
};

// Commands may come from several tasks at once. Every command answers STATUS_DEVICE_REMOVED while the driver
// is not open, without calling it. The object outlives the machine's last interface change, or is destroyed
// from the host task.
class Client {
  public:
    // Inside the machine's run. From here on the client follows the interface's arrival and departure.
    explicit Client(platform::Machine& machine, const ClientOptions& options = {});
    // Calls nothing: a run that was stopped has no driver left to release. `close` first.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // A monitor is attached to the adapter, as far as the interface tells.
    bool interfaceArrived() const;
    bool waitForArrival(usb::Time timeout);
    bool waitForDeparture(usb::Time timeout);

    // Opens the interface that arrived and exchanges records, once an earlier tenure has come to its end.
    NTSTATUS open();
    // Waits for commands under way, hands the interface back and closes it. No effect while not open.
    void close();
    bool isOpen() const;

    // The driver's half of the exchange; zeroes while not open.
    INTERFACE_RECORD driverRecord() const;

    // The whole output is zero after a failure.
    NTSTATUS queryEdid(std::span<std::uint8_t, EDID_BLOCK_SIZE> edid);

    NTSTATUS createFrameBuffer(std::uint64_t identifier, unsigned width, unsigned height);
    NTSTATUS destroyFrameBuffer(std::uint64_t identifier);

    // Hands a frame over; it is copied before the call returns. The driver makes a frame buffer of the
    // frame's size when it knows none by that identifier. The frame has the size of the frame buffer.
    NTSTATUS present(std::uint64_t identifier, const support::Surface& frame);

    // X and Y are the top-left corner of the shape on the desktop.
    NTSTATUS setPointer(const PointerImage& shape);
    NTSTATUS movePointer(int x, int y, bool visible);

    NTSTATUS setRotation(DISPLAY_ROTATION rotation);

    // Display-on sets the mode of the last frame buffer's size, so one is created first.
    NTSTATUS setDisplayPower(bool on);

    // Any command, as it stands.
    NTSTATUS command(ULONG code, std::span<std::uint8_t> input, std::span<std::uint8_t> output);

    // Processor time spent copying frames for the driver, and the frames copied.
    std::uint64_t fillNanoseconds() const;
    std::uint64_t framesFilled() const;

  private:
    struct State;
    std::shared_ptr<State> state_; // shared with the interface notification, which may come late
};

} // namespace desktop

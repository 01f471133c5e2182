// The client of the driver, which is a display driver above it: finds the adapter by its device interface,
// exchanges entry points, owns the surfaces and fills the driver's frame buffers on the driver's request.
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
    // Release the driver as soon as the interface disappears. Without this, a removal has to wait for
    // `close`.
    bool releaseOnDeparture = true;
};

// Commands may come from several tasks at once. Every command answers STATUS_DEVICE_REMOVED while the driver
// is not open, without calling it. The object outlives the machine's last interface change, or is destroyed
// from the host task.
class Client {
  public:
    // Inside the machine's run. From now on the client follows the interface's arrival and departure.
    explicit Client(platform::Machine& machine, const ClientOptions& options = {});
    // Does not call the driver, which no longer exists after a stopped run. Call `close` first.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Of the interface, which exists while a monitor is attached to the adapter.
    bool waitForArrival(usb::Time timeout);
    bool waitForDeparture(usb::Time timeout);

    // Waits until an earlier session is closed, then opens the interface and exchanges records.
    NTSTATUS open();
    // Waits for running commands, releases the interface and closes it. No effect while not open.
    void close();
    bool isOpen() const;

    // The driver's half of the exchange; zeros while not open.
    INTERFACE_RECORD driverRecord() const;

    // The whole output is zero after a failure.
    NTSTATUS queryEdid(std::span<std::uint8_t, EDID_BLOCK_SIZE> edid);

    NTSTATUS createFrameBuffer(std::uint64_t identifier, unsigned width, unsigned height);
    NTSTATUS destroyFrameBuffer(std::uint64_t identifier);

    // The frame is copied before the call returns and has the size of the frame buffer. The driver creates a
    // frame buffer of the frame's size for an unknown identifier.
    NTSTATUS present(std::uint64_t identifier, const support::Surface& frame);

    // X and Y are the top-left corner of the shape on the desktop.
    NTSTATUS setPointer(const PointerImage& shape);
    NTSTATUS movePointer(int x, int y, bool visible);

    NTSTATUS setRotation(DISPLAY_ROTATION rotation);

    // Switching on sets the mode of the last created frame buffer's size, so create one first.
    NTSTATUS setDisplayPower(bool on);

    // Any command, passed on unchanged.
    NTSTATUS command(ULONG code, std::span<std::uint8_t> input, std::span<std::uint8_t> output);

    // Processor time spent copying frames for the driver.
    std::uint64_t fillNanoseconds() const;

  private:
    struct State;
    std::shared_ptr<State> state_; // shared with the interface notification, which may outlive the client
};

} // namespace desktop

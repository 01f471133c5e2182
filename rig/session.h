// One machine with the loaded driver, one adapter and one client.
#pragma once

#include "desktop/client.h"
#include "model/adapter.h"
#include "platform/kernel/driver_call.h"
#include "platform/machine.h"
#include "rig/reference.h"
#include "rig/settings.h"
#include "support/surface.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace rig {

struct SessionOptions {
    kernel::SchedulerOptions scheduler;
    std::uint32_t cpuFeatures = 0xFFFFFFFF; // mask for CPUID leaf 1, ECX
    std::vector<Setting> settings;
};

struct PlugOptions {
    model::AdapterOptions adapter;
    std::uint64_t bandwidth = 0; // bytes per second; 0 for the link's own
    std::string capture = {};    // pcapng file; empty for none
    usb::InlineCompletion inlineCompletion = usb::InlineCompletion::Never;
    // Returns a device of the caller's between link and adapter, which outlives the session.
    std::function<usb::Device&(usb::Device& adapter)> inFront = nullptr;
};

class Session {
  public:
    explicit Session(const SessionOptions& options);
    ~Session();

    // Loads the driver, runs `body` as the machine's host task, and then, even when `body` throws, closes the
    // client, removes the adapter and unloads the driver. The functions below are called inside `body`.
    void run(const std::function<void()>& body);

    platform::Machine& machine() { return machine_; }
    desktop::Client& client() { return *client_; }
    DesktopReference& reference() { return reference_; }

    // All of these throw `DeviceError` when there is no adapter, or when it or the driver fails.
    void plug(const PlugOptions& options);
    model::Adapter& adapter();
    usb::LinkTiming& link();
    platform::DeviceNode& node();
    bool plugged() const { return node_ != nullptr; }
    std::optional<support::Surface> screen(); // what the monitor shows; nothing while it is dark
    void surpriseRemove();
    void remove();
    void suspend();
    void resume();

    // Lets the machine run until `done` returns true or `timeout` ends. Returns the last result of `done`.
    bool waitFor(usb::Time timeout, const std::function<bool()>& done);

    // An event at the adapter or its monitor. It counts as platform code, because hardware that writes into a
    // buffer of the host does not synchronize with threads, and ThreadSanitizer must not check it.
    template <typename Action>
    void atHardware(Action action) {
        kernel::PlatformCall call;
        action(adapter());
    }

    // The monitor may be attached before the adapter is plugged in.
    void attachMonitor(std::vector<std::uint8_t> edid);
    // Waits until the driver has noticed, if the adapter has a status pipe.
    void detachMonitor();

    // Waits for the interface, then opens it.
    void openClient();
    // Throws when `status` is a failure; `what` is the command that gave it.
    static void require(NTSTATUS status, const char* what);

    // Commands to the client, with the same change of the reference.
    void createFrameBuffer(std::uint64_t identifier, unsigned width, unsigned height);
    void setDisplayPower(bool on);
    void present(std::uint64_t identifier, const support::Surface& frame);
    void setPointer(const desktop::PointerImage& shape);
    void movePointer(int x, int y, bool visible);
    void setRotation(DISPLAY_ROTATION rotation);

    // The violations at all adapters that were plugged in, as sentences.
    std::vector<std::string> violations() const;
    std::uint64_t violationCount() const;

  private:
    void finish();

    platform::Machine machine_;
    std::vector<std::unique_ptr<model::Adapter>> adapters_; // use the machine's clock until destroyed
    bool stopped_ = false;                                  // the verifier ended the run
    std::vector<Setting> settings_;
    std::unique_ptr<desktop::Client> client_;
    DesktopReference reference_;
    platform::DeviceNode* node_ = nullptr;
    std::optional<std::vector<std::uint8_t>> monitor_; // attached to the next adapter, too
};

// For the driver to notice a monitor or to show a picture. Longer than its own longest waits.
constexpr usb::Time kDriverTimeout = 10 * usb::kSecond;

} // namespace rig

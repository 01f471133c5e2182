#include "rig/session.h"

#include "driver/device_add.h"
#include "rig/errors.h"

#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <utility>

namespace rig {

namespace {

platform::MachineOptions machineOptions(const SessionOptions& options) {
    platform::MachineOptions machine;
    machine.scheduler = options.scheduler;
    machine.cpuidLeaf1EcxMask = options.cpuFeatures;
    return machine;
}

constexpr usb::Time kPollInterval = 2 * usb::kMillisecond;

std::string messageOf(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "an unknown failure";
    }
}

// Old adapters have no status pipe, so the driver looks for their monitor only at power-up.
bool reportsMonitorChanges(const model::AdapterOptions& adapter) {
    return adapter.revision >= 2;
}

} // namespace

Session::Session(const SessionOptions& options)
    : machine_(machineOptions(options)), settings_(options.settings) {}

Session::~Session() {
    // Stopped tasks may still have transfers in flight. Their adapters must not complete these now.
    for (std::unique_ptr<model::Adapter>& adapter : adapters_) {
        if (stopped_) {
            static_cast<void>(adapter.release());
        }
    }
}

void Session::run(const std::function<void()>& body) {
    std::exception_ptr failure;
    try {
        machine_.run([&] {
            require(machine_.loadDriver(DriverEntry), "loading the driver");
            for (const Setting& setting : settings_) {
                machine_.setParameter(std::u16string(setting.name.begin(), setting.name.end()),
                                      setting.value);
            }
            client_ = std::make_unique<desktop::Client>(machine_);
            try {
                body();
            } catch (const verifier::Stopped&) {
                throw; // the machine has stopped, so nothing can be closed or removed
            } catch (...) {
                failure = std::current_exception();
            }
            finish();
        });
    } catch (const verifier::Stopped& stopped) {
        stopped_ = true;
        if (!failure) {
            throw;
        }
        throw DeviceError(fmt::format("{}; before that: {}", stopped.what(), messageOf(failure)));
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void Session::finish() {
    client_->close();
    if (node_ != nullptr) {
        machine_.remove(*std::exchange(node_, nullptr));
    }
    machine_.unloadDriver();
}

void Session::require(NTSTATUS status, const char* what) {
    if (!NT_SUCCESS(status)) {
        throw DeviceError(fmt::format("{} failed with status 0x{:08X}", what, static_cast<ULONG>(status)));
    }
}

void Session::plug(const PlugOptions& options) {
    if (plugged()) {
        throw DeviceError("an adapter is plugged in already");
    }
    adapters_.push_back(std::make_unique<model::Adapter>(machine_.clock(), options.adapter));
    if (monitor_) {
        adapters_.back()->attachMonitor(*monitor_);
    }
    usb::HostOptions host;
    host.link.bytesPerSecond = options.bandwidth;
    host.capture = options.capture;
    host.inlineCompletion = options.inlineCompletion;
    usb::Device& adapter = *adapters_.back();
    reference_ = {};
    node_ = &machine_.plug(options.inFront ? options.inFront(adapter) : adapter, host);
    require(machine_.startStatus(*node_), "starting the adapter");
}

model::Adapter& Session::adapter() {
    if (!plugged()) {
        throw DeviceError("no adapter is plugged in");
    }
    return *adapters_.back();
}

std::optional<support::Surface> Session::screen() {
    const std::optional<model::Picture> picture = adapter().picture();
    if (!picture) {
        return std::nullopt;
    }
    support::Surface surface(picture->width, picture->height);
    std::memcpy(surface.pixels.data(), picture->pixels.data(), picture->pixels.size());
    return surface;
}

usb::LinkTiming& Session::link() {
    adapter();
    return machine_.host(*node_).link();
}

platform::DeviceNode& Session::node() {
    adapter();
    return *node_;
}

void Session::surpriseRemove() {
    adapter();
    machine_.surpriseRemove(*std::exchange(node_, nullptr));
}

void Session::remove() {
    adapter();
    // Plug and Play asks the owner of an open handle before an orderly removal.
    client_->close();
    machine_.remove(*std::exchange(node_, nullptr));
}

void Session::suspend() {
    adapter();
    machine_.suspend(*node_);
}

void Session::resume() {
    adapter();
    machine_.resume(*node_);
}

bool Session::waitFor(usb::Time timeout, const std::function<bool()>& done) {
    const usb::Time deadline = machine_.clock().now() + timeout;
    while (!done()) {
        if (machine_.clock().now() >= deadline) {
            return false;
        }
        machine_.sleep(kPollInterval);
    }
    return true;
}

void Session::attachMonitor(std::vector<std::uint8_t> edid) {
    if (plugged()) {
        atHardware([&](model::Adapter& device) { device.attachMonitor(edid); });
    }
    monitor_ = std::move(edid);
}

void Session::detachMonitor() {
    monitor_.reset();
    if (!plugged()) {
        return;
    }
    atHardware([](model::Adapter& device) { device.detachMonitor(); });
    if (reportsMonitorChanges(adapter().options()) && !client_->waitForDeparture(kDriverTimeout)) {
        throw DeviceError("the driver did not notice that the monitor is gone");
    }
}

void Session::openClient() {
    if (!client_->waitForArrival(kDriverTimeout)) {
        throw DeviceError("the driver found no monitor: its interface did not appear");
    }
    require(client_->open(), "opening the interface");
}

void Session::createFrameBuffer(std::uint64_t identifier, unsigned width, unsigned height) {
    require(client_->createFrameBuffer(identifier, width, height), "creating a frame buffer");
    reference_.createFrameBuffer(width, height);
}

void Session::setDisplayPower(bool on) {
    require(client_->setDisplayPower(on), on ? "switching the display on" : "switching the display off");
}

void Session::present(std::uint64_t identifier, const support::Surface& frame) {
    require(client_->present(identifier, frame), "presenting a frame");
    reference_.present(frame);
}

void Session::setPointer(const desktop::PointerImage& shape) {
    require(client_->setPointer(shape), "setting the pointer's shape");
    reference_.setPointer(shape);
}

void Session::movePointer(int x, int y, bool visible) {
    require(client_->movePointer(x, y, visible), "moving the pointer");
    reference_.movePointer(x, y, visible);
}

void Session::setRotation(DISPLAY_ROTATION rotation) {
    require(client_->setRotation(rotation), "turning the desktop");
    reference_.setRotation(rotation);
}

std::vector<std::string> Session::violations() const {
    std::vector<std::string> sentences;
    for (const std::unique_ptr<model::Adapter>& adapter : adapters_) {
        for (const model::Violation& violation : adapter->violations()) {
            sentences.push_back(fmt::format("{:.3f} ms: {}: {}",
                                            static_cast<double>(violation.time) / usb::kMillisecond,
                                            model::name(violation.kind), violation.cause));
        }
    }
    return sentences;
}

std::uint64_t Session::violationCount() const {
    std::uint64_t count = 0;
    for (const std::unique_ptr<model::Adapter>& adapter : adapters_) {
        count += adapter->violationCount();
    }
    return count;
}

} // namespace rig

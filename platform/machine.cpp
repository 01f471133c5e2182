#include "platform/machine.h"

#include "platform/base/machine_state.h"
#include "platform/framework/driver.h"
#include "platform/framework/pnp.h"
#include "platform/kernel/driver_call.h"
#include "platform/kernel/interfaces.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/registry.h"
#include "platform/kernel/system.h"
#include "platform/kernel/threads.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace platform {

namespace {

// How long the bus waits for a device to describe itself: the 5 s of USB 2.0, section 9.2.6.1.
constexpr usb::Time kEnumerationTimeout = 5 * usb::kSecond;

struct Identity {
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
};

// Reads the device descriptor as a hub does before it reports a new device. Nothing when the device does not
// answer.
std::optional<Identity> enumerate(usb::Host& host) {
    std::array<std::uint8_t, 18> descriptor{};
    bool completed = false;
    usb::Transfer transfer;
    transfer.type = usb::TransferType::Control;
    transfer.setup = {0x80, 6, 0x0100, 0, descriptor.size()}; // GET_DESCRIPTOR, device
    transfer.data = descriptor;
    transfer.complete = [&](usb::Transfer&) {
        {
            kernel::KernelGuard guard;
            completed = true;
        }
        kernel::wakeChannel(&transfer);
    };
    host.submit(transfer);
    const auto done = [&] { return completed; };
    const kernel::WaitReason reason{"enumeration", &transfer, nullptr};
    if (!kernel::waitUntil(&transfer, reason, kernel::now() + kEnumerationTimeout, done)) {
        host.cancel(transfer);
        kernel::waitUntil(&transfer, reason, kernel::kForever, done);
    }
    if (transfer.status != usb::Status::Success || transfer.actual != descriptor.size()) {
        return std::nullopt;
    }
    return Identity{static_cast<std::uint16_t>(descriptor[8] | descriptor[9] << 8),
                    static_cast<std::uint16_t>(descriptor[10] | descriptor[11] << 8)};
}

std::u16string instancePath(const Identity& identity, unsigned port) {
    const std::string path =
        fmt::format("USB\\VID_{:04X}&PID_{:04X}\\{}", identity.vendor, identity.product, port);
    return {path.begin(), path.end()};
}

// The driver's image is gone: a thread that still ran would execute nothing.
void requireNothingLeft(const char* step) {
    kernel::requireThreadsEnded(step);
    kernel::waitForWorkers();
    kernel::requirePoolEmpty(step);
}

kernel::SystemInformation systemInformation(const MachineOptions& options) {
    kernel::SystemInformation information;
    information.osMajor = options.osMajor;
    information.osMinor = options.osMinor;
    information.osBuild = options.osBuild;
    information.osVersionQueryFails = options.osVersionQueryFails;
    information.cpuidLeaf1EcxMask = options.cpuidLeaf1EcxMask;
    return information;
}

} // namespace

class DeviceNode : public std::enable_shared_from_this<DeviceNode> {
  public:
    DeviceNode(usb::Device& device, usb::Clock& clock, const usb::HostOptions& options)
        : host(device, clock, options) {}

    usb::Host host;
    std::unique_ptr<framework::DevNode> node; // null when the device did not describe itself
    NTSTATUS startStatus = STATUS_NO_SUCH_DEVICE;
};

class InterfaceHandle {
  public:
    DeviceNode& device;
    PFILE_OBJECT file;
};

struct Machine::State {
    explicit State(const MachineOptions& options) : scheduler(options.scheduler) {
        kernel::setSystemInformation(systemInformation(options));
    }

    DeviceNode& add(usb::Device& device, const usb::HostOptions& options) {
        auto node = std::make_shared<DeviceNode>(device, scheduler.clock(), options);
        const std::lock_guard lock(nodesMutex);
        nodes.push_back(std::move(node));
        return *nodes.back();
    }

    DeviceNode& nodeOf(PDEVICE_OBJECT pdo) {
        const std::lock_guard lock(nodesMutex);
        for (const auto& node : nodes) {
            if (node->node != nullptr && node->node->pdo() == pdo) {
                return *node;
            }
        }
        throw std::logic_error("an interface of a device that is in no port");
    }

    void forget(DeviceNode& node) {
        const std::lock_guard lock(nodesMutex);
        std::erase_if(nodes, [&](const auto& candidate) { return candidate.get() == &node; });
    }

    kernel::Scheduler scheduler;
    std::u16string service = u"usbdisplay";

    // The host task adds and removes under the mutex; clients look up under it.
    std::mutex nodesMutex;
    std::vector<std::shared_ptr<DeviceNode>> nodes;

    unsigned ports = 0;
    bool abandoned = false;
};

Machine::Machine(const MachineOptions& options) : state_(std::make_unique<State>(options)) {}

Machine::~Machine() {
    if (state_->abandoned) {
        // Tasks that the end of the run stopped still refer to the devices.
        for (const auto& node : state_->nodes) {
            base::keepForever(node);
        }
    }
}

void Machine::run(const std::function<void()>& body) {
    try {
        state_->scheduler.run(body);
    } catch (...) {
        state_->abandoned = true;
        throw;
    }
}

usb::Clock& Machine::clock() {
    return state_->scheduler.clock();
}

void Machine::sleep(usb::Time duration) {
    kernel::PlatformCall platformCall;
    kernel::waitUntil(this, {"Machine::sleep", nullptr, nullptr}, kernel::now() + duration,
                      [] { return false; });
}

NTSTATUS Machine::loadDriver(DriverEntryRoutine* entry, std::u16string_view service) {
    kernel::PlatformCall platformCall;
    state_->service = service;
    const NTSTATUS status = framework::loadDriver(entry, service);
    if (!NT_SUCCESS(status)) {
        requireNothingLeft("driver load");
    }
    return status;
}

void Machine::unloadDriver() {
    kernel::PlatformCall platformCall;
    while (!state_->nodes.empty()) {
        remove(*state_->nodes.back());
    }
    framework::unloadDriver();
    requireNothingLeft("driver unload");
}

void Machine::setParameter(std::u16string_view name, RegistryValue value) {
    kernel::PlatformCall platformCall;
    const auto key = kernel::parametersKey(state_->service);
    if (const ULONG* number = std::get_if<ULONG>(&value)) {
        key->assign(name, kernel::RegistryValue::dword(*number));
    } else {
        key->assign(name,
                    kernel::RegistryValue::binary(std::get<std::vector<std::uint8_t>>(std::move(value))));
    }
}

std::optional<RegistryValue> Machine::parameter(std::u16string_view name) const {
    kernel::PlatformCall platformCall;
    const auto value = kernel::parametersKey(state_->service)->value(name);
    if (!value) {
        return std::nullopt;
    }
    if (const auto number = value->asDword()) {
        return RegistryValue(*number);
    }
    return RegistryValue(value->data);
}

DeviceNode& Machine::plug(usb::Device& device, const usb::HostOptions& options) {
    kernel::PlatformCall platformCall;
    DeviceNode& node = state_->add(device, options);
    const std::optional<Identity> identity = enumerate(node.host);
    if (!identity) {
        return node;
    }
    node.node = std::make_unique<framework::DevNode>(node.host, instancePath(*identity, ++state_->ports));
    node.startStatus = node.node->add();
    if (NT_SUCCESS(node.startStatus)) {
        node.startStatus = node.node->start();
    }
    return node;
}

NTSTATUS Machine::startStatus(const DeviceNode& node) const {
    return node.startStatus;
}

usb::Host& Machine::host(DeviceNode& node) {
    return node.host;
}

NTSTATUS Machine::queryRemove(DeviceNode& node) {
    kernel::PlatformCall platformCall;
    return node.node->queryRemove();
}

void Machine::cancelRemove(DeviceNode& node) {
    kernel::PlatformCall platformCall;
    node.node->cancelRemove();
}

void Machine::remove(DeviceNode& node) {
    kernel::PlatformCall platformCall;
    if (node.node != nullptr) {
        if (node.node->started()) {
            // The removal follows whatever the driver answers, as after a user who does not wait.
            (void)node.node->queryRemove();
        }
        node.node->remove();
    }
    state_->forget(node);
}

void Machine::surpriseRemove(DeviceNode& node) {
    kernel::PlatformCall platformCall;
    node.host.disconnect();
    if (node.node != nullptr) {
        if (node.node->hasDevice()) {
            node.node->surpriseRemove();
            // As on Windows, the device object goes only after the last handle on it.
            node.node->waitForHandles();
        }
        node.node->remove();
    }
    state_->forget(node);
}

void Machine::stop(DeviceNode& node) {
    kernel::PlatformCall platformCall;
    if (node.node->stop() != STATUS_SUCCESS) {
        throw std::runtime_error("the device refused to stop");
    }
}

NTSTATUS Machine::restart(DeviceNode& node) {
    kernel::PlatformCall platformCall;
    node.startStatus = node.node->start();
    return node.startStatus;
}

void Machine::suspend(DeviceNode& node) {
    kernel::PlatformCall platformCall;
    // The cable may be pulled meanwhile, and the removal be over first.
    const auto held = node.shared_from_this();
    node.node->sleep();
}

void Machine::resume(DeviceNode& node) {
    kernel::PlatformCall platformCall;
    const auto held = node.shared_from_this();
    node.startStatus = node.node->wake();
}

std::vector<std::u16string> Machine::interfaces(const GUID& interfaceClass) const {
    kernel::PlatformCall platformCall;
    return kernel::enabledInterfaces(interfaceClass);
}

void Machine::onInterfaceChange(const GUID& interfaceClass,
                                std::function<void(const InterfaceChange&)> callback) {
    kernel::PlatformCall platformCall;
    kernel::subscribeInterfaces(interfaceClass, [callback](bool arrived, const std::u16string& link) {
        callback(InterfaceChange{arrived, link});
    });
}

NTSTATUS Machine::open(std::u16string_view link, std::shared_ptr<InterfaceHandle>& handle) {
    kernel::PlatformCall platformCall;
    const PDEVICE_OBJECT pdo = kernel::interfaceDevice(link);
    if (pdo == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    DeviceNode& device = state_->nodeOf(pdo);
    PFILE_OBJECT file = nullptr;
    const NTSTATUS status = device.node->open(file);
    if (NT_SUCCESS(status)) {
        handle = std::make_shared<InterfaceHandle>(InterfaceHandle{device, file});
    }
    return status;
}

NTSTATUS Machine::internalControl(InterfaceHandle& handle, ULONG code, std::span<const std::uint8_t> input,
                                  std::span<std::uint8_t> output, ULONG_PTR& information) {
    kernel::PlatformCall platformCall;
    return handle.device.node->internalControl(handle.file, code, input.data(),
                                               static_cast<ULONG>(input.size()), output.data(),
                                               static_cast<ULONG>(output.size()), information);
}

void Machine::close(std::shared_ptr<InterfaceHandle>& handle) {
    kernel::PlatformCall platformCall;
    if (handle != nullptr) {
        handle->device.node->close(handle->file);
        handle.reset();
    }
}

std::uint64_t Machine::poolAllocations() const {
    kernel::PlatformCall platformCall;
    return kernel::poolAllocations();
}

std::uint64_t Machine::objectCreations() const {
    kernel::PlatformCall platformCall;
    return framework::objectCreations();
}

std::map<std::string, std::size_t> Machine::held() const {
    kernel::PlatformCall platformCall;
    std::map<std::string, std::size_t> held = framework::heldObjects();
    for (const kernel::PoolUse& use : kernel::poolInUse()) {
        held["pool " + kernel::tagText(use.tag)] = use.blocks;
    }
    held["thread references"] = kernel::threadReferences();
    return held;
}

std::vector<CpuTime> Machine::cpuTimes() const {
    kernel::PlatformCall platformCall;
    std::vector<CpuTime> times;
    for (kernel::DriverTime& time : kernel::driverTimes()) {
        times.push_back({std::move(time.task), time.kind, time.nanoseconds});
    }
    return times;
}

} // namespace platform

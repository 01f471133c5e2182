// A PC to load the driver into and plug devices into: the one header a host program needs of the platform.
#pragma once

#include "platform/kernel/fault_points.h"
#include "platform/kernel/scheduler.h"
#include "platform/usb/device.h"
#include "platform/usb/host.h"
#include "platform/verifier/verifier.h"

#include <ntddk.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace platform {

struct MachineOptions {
    kernel::SchedulerOptions scheduler;
    ULONG osMajor = 10;
    ULONG osMinor = 0;
    ULONG osBuild = 19045;
    bool osVersionQueryFails = false;
    std::uint32_t cpuidLeaf1EcxMask = 0xFFFFFFFF; // processor features that the driver may see
};

using DriverEntryRoutine = NTSTATUS(PDRIVER_OBJECT, PUNICODE_STRING);

// A registry value: REG_DWORD or REG_BINARY.
using RegistryValue = std::variant<ULONG, std::vector<std::uint8_t>>;

// A device in a port of this machine, from plugging in to its removal.
class DeviceNode;

// A handle that a kernel-mode client opened on a device interface.
class InterfaceHandle;

struct InterfaceChange {
    bool arrived = false;
    std::u16string link; // what `open` takes
};

struct CpuTime {
    std::string task;
    kernel::TaskKind kind = kernel::TaskKind::Host;
    std::uint64_t driverNanoseconds = 0; // inside the driver, without the platform calls it made
};

class Machine {
  public:
    explicit Machine(const MachineOptions& options = {});
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // Runs `body` as the machine's host task; everything below is called from inside it (or from tasks it
    // spawned) at PASSIVE_LEVEL. Throws `verifier::Stopped` when the verifier ended the run.
    void run(const std::function<void()>& body);

    usb::Clock& clock();
    void sleep(usb::Time duration); // lets the machine run for that long

    // Loads the driver under the given service name. `unloadDriver` removes its devices first and then checks
    // that nothing of it is left: pool, objects, threads.
    NTSTATUS loadDriver(DriverEntryRoutine* entry, std::u16string_view service = u"usbdisplay");
    void unloadDriver();

    // The Parameters key of the driver's service.
    void setParameter(std::u16string_view name, RegistryValue value);
    std::optional<RegistryValue> parameter(std::u16string_view name) const;

    // Plugs a device in and starts it. The node exists even when the driver refused the device; `startStatus`
    // says so. The device must outlive the node's removal.
    DeviceNode& plug(usb::Device& device, const usb::HostOptions& options = {});
    NTSTATUS startStatus(const DeviceNode& node) const;
    usb::Host& host(DeviceNode& node);

    NTSTATUS queryRemove(DeviceNode& node); // asks the driver; `cancelRemove` revokes it
    void cancelRemove(DeviceNode& node);
    void remove(DeviceNode& node);         // orderly: query-remove, remove
    void surpriseRemove(DeviceNode& node); // the cable is pulled; returns when the device object is removed
    void stop(DeviceNode& node);           // PnP stop ...
    NTSTATUS restart(DeviceNode& node);    // ... and start again on the same device object
    void suspend(DeviceNode& node);        // D0 to D3 (system sleep)
    void resume(DeviceNode& node);

    // Device interfaces: the links enabled now, and a callback (on a worker task) for every later change.
    std::vector<std::u16string> interfaces(const GUID& interfaceClass) const;
    void onInterfaceChange(const GUID& interfaceClass, std::function<void(const InterfaceChange&)> callback);

    // A kernel-mode client's view of a device: open, internal device control, close.
    NTSTATUS open(std::u16string_view link, std::shared_ptr<InterfaceHandle>& handle);
    NTSTATUS internalControl(InterfaceHandle& handle, ULONG code, std::span<const std::uint8_t> input,
                             std::span<std::uint8_t> output, ULONG_PTR& information);
    void close(std::shared_ptr<InterfaceHandle>& handle);

    // Pool and framework allocations made so far, and the processor time spent in the driver by task.
    std::uint64_t poolAllocations() const;
    std::uint64_t objectCreations() const;

    // What the driver holds now, counted by kind: framework objects and its references to them, pool blocks
    // by tag, references to thread objects.
    std::map<std::string, std::size_t> held() const;
    std::vector<CpuTime> cpuTimes() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace platform

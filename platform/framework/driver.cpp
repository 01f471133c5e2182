#include "platform/framework/driver.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/registry.h"

#include <fmt/format.h>

#include <optional>

namespace framework {

namespace {

// What the driver finds through the variable `WdfDriverGlobals`, which has one address for all machines.
WDF_DRIVER_GLOBALS globals = {};

// What is loaded. Changed only by loading and unloading, which the machine serializes.
struct Loaded {
    Loaded() = default;
    ~Loaded() { globals = {}; }
    Loaded(const Loaded&) = delete;
    Loaded& operator=(const Loaded&) = delete;

    DRIVER_OBJECT driverObject = {};
    std::u16string service;
    std::u16string path;
    UNICODE_STRING registryPath = {};
    Driver* driver = nullptr;
};

struct DriverSlot {
    std::unique_ptr<Loaded> loaded;
};
base::MachinePart<DriverSlot> slot;

// One millisecond each.
constexpr int kLastReleasePolls = 100;

UNICODE_STRING unicodeString(std::u16string& text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(char16_t));
    return {bytes, static_cast<USHORT>(bytes + sizeof(char16_t)), text.data()};
}

// A request belongs to the driver object unless its attributes name a parent, also when it was made for a
// target: one that is not deleted with its device stays as long as the driver is loaded.
void requireNoRequests(const Driver& driver) {
    for (const Ref<Object>& request : driver.childrenOf<Object>(Kind::Request)) {
        verifier::fail(Rule::PoolLeak, "driver unload", request->name(),
                       "The driver has not deleted this request.");
    }
}

void deleteDriver() {
    if (slot->loaded->driver != nullptr) {
        requireNoRequests(*slot->loaded->driver);
        slot->loaded->driver->remove();
        slot->loaded->driver = nullptr;
        globals.Driver = nullptr;
    }
    // Callbacks that outlive their object, such as that of a work item that deleted itself, still run the
    // driver's code.
    kernel::waitForWorkers();
}

void requireNoObjects(const char* call) {
    // What the platform itself still holds for an instant, such as the end of a completion, is no leak.
    for (int i = 0; i < kLastReleasePolls && !liveObjects().empty(); i++) {
        kernel::waitUntil(&*slot, {call, nullptr, nullptr}, kernel::now() + base::kMillisecond,
                          [] { return false; });
    }
    const std::vector<std::string> left = liveObjects();
    if (!left.empty()) {
        verifier::fail(Rule::PoolLeak, call, left.front(),
                       fmt::format("{} objects are still referenced.", left.size()));
    }
}

} // namespace

Driver* currentDriver() {
    return slot->loaded ? slot->loaded->driver : nullptr;
}

Driver& requireDriver(const Call& call) {
    Driver* driver = currentDriver();
    if (driver == nullptr) {
        call.fail(Rule::PnpOrder, nullptr, "There is no driver object yet.");
    }
    return *driver;
}

NTSTATUS loadDriver(DRIVER_INITIALIZE* entry, std::u16string_view service) {
    slot->loaded = std::make_unique<Loaded>();
    slot->loaded->service = service;
    slot->loaded->path = kernel::servicePath(service);
    slot->loaded->registryPath = unicodeString(slot->loaded->path);
    slot->loaded->driverObject.Size = sizeof(DRIVER_OBJECT);
    kernel::serviceKey(service);
    const NTSTATUS status =
        kernel::callDriver("DriverEntry", entry, &slot->loaded->driverObject, &slot->loaded->registryPath);
    if (!NT_SUCCESS(status)) {
        deleteDriver();
        requireNoObjects("DriverEntry");
        slot->loaded.reset();
    }
    return status;
}

void unloadDriver() {
    if (slot->loaded->driver != nullptr && slot->loaded->driver->config.EvtDriverUnload != nullptr) {
        kernel::callDriver("EvtDriverUnload", slot->loaded->driver->config.EvtDriverUnload,
                           static_cast<WDFDRIVER>(slot->loaded->driver->handle()));
    }
    deleteDriver();
    requireNoObjects("DriverUnload");
    slot->loaded.reset();
}

} // namespace framework

using framework::Call;
using kernel::kDispatchLevel;
using kernel::kPassiveLevel;

PWDF_DRIVER_GLOBALS WdfDriverGlobals = &framework::globals;

NTSTATUS WdfDriverCreate(PDRIVER_OBJECT DriverObject, PCUNICODE_STRING RegistryPath,
                         PWDF_OBJECT_ATTRIBUTES DriverAttributes, PWDF_DRIVER_CONFIG DriverConfig,
                         WDFDRIVER* Driver) {
    Call call("WdfDriverCreate", kPassiveLevel);
    if (Driver != nullptr) {
        *Driver = nullptr;
    }
    if (DriverObject == nullptr || RegistryPath == nullptr || DriverConfig == nullptr ||
        framework::slot->loaded == nullptr || DriverObject != &framework::slot->loaded->driverObject) {
        return STATUS_INVALID_PARAMETER;
    }
    if (DriverConfig->Size != sizeof(WDF_DRIVER_CONFIG)) {
        return STATUS_INFO_LENGTH_MISMATCH;
    }
    constexpr ULONG kFlags = WdfDriverInitNonPnpDriver | WdfDriverInitNoDispatchOverride | WdfVerifyOn;
    if ((DriverConfig->DriverInitFlags & ~kFlags) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (framework::slot->loaded->driver != nullptr) {
        return STATUS_DRIVER_INTERNAL_ERROR;
    }
    framework::Ref<framework::Driver> driver;
    const NTSTATUS status =
        createObject(call, DriverAttributes, {.parentAllowed = false, .levelAllowed = true}, nullptr, driver,
                     [&](framework::Object*) {
                         std::u16string path(RegistryPath->Buffer, RegistryPath->Length / sizeof(WCHAR));
                         return new framework::Driver(DriverObject, *DriverConfig, std::move(path),
                                                      framework::slot->loaded->service);
                     });
    if (!NT_SUCCESS(status)) {
        return status;
    }
    framework::slot->loaded->driver = driver.get();
    framework::globals.Driver = static_cast<WDFDRIVER>(driver->handle());
    framework::globals.DriverFlags = DriverConfig->DriverInitFlags;
    framework::globals.DriverTag = DriverConfig->DriverPoolTag;
    if (Driver != nullptr) {
        *Driver = framework::globals.Driver;
    }
    return STATUS_SUCCESS;
}

PWSTR WdfDriverGetRegistryPath(WDFDRIVER Driver) {
    Call call("WdfDriverGetRegistryPath", kPassiveLevel);
    return call.object<framework::Driver>(Driver)->registryPath.data();
}

// The driver: loading and unloading it, and its object, which is the root of the tree and the default parent.
#pragma once

#include "platform/framework/object.h"

#include <string>
#include <string_view>

namespace framework {

class Driver final : public Object {
  public:
    Driver(PDRIVER_OBJECT driverObject, const WDF_DRIVER_CONFIG& config, std::u16string registryPath,
           std::u16string service)
        : Object(Kind::Driver), driverObject(driverObject), config(config),
          registryPath(std::move(registryPath)), service(std::move(service)) {}

    const PDRIVER_OBJECT driverObject;
    const WDF_DRIVER_CONFIG config;
    std::u16string registryPath;
    const std::u16string service;

  protected:
    bool driverMayDelete() const override { return false; }
};

// The driver object, or null before WdfDriverCreate.
Driver* currentDriver();

// The same for a call that needs one; ends the run when there is none.
Driver& requireDriver(const Call& call);

// Runs DriverEntry. After a failure nothing is loaded.
NTSTATUS loadDriver(DRIVER_INITIALIZE* entry, std::u16string_view service);

// Runs the unload callback and deletes the driver object with everything below it. All devices must be gone.
// Reports PoolLeak when an object survives its parent.
void unloadDriver();

} // namespace framework

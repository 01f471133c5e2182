// The framework's driver object: the root of the tree and the default parent.
#pragma once

#include "platform/framework/object.h"

#include <string>

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

} // namespace framework

// What a DevNode knows of its device and of where it stands.
#pragma once

#include "platform/framework/device.h"

#include <memory>
#include <string>
#include <vector>

namespace framework {

struct DevNode::State {
    State(usb::Host& host, std::u16string instance) : host(host), instance(std::move(instance)) {}

    usb::Host& host;
    std::u16string instance;
    DEVICE_OBJECT pdo = {};

    // Guarded by the kernel lock.
    Ref<Device> device;
    bool stepUnderWay = false;
    bool powerStepUnderWay = false; // that step is a sleep or a wake
    std::vector<std::unique_ptr<FILE_OBJECT>> files;

    // Written by the steps, which exclude each other.
    bool prepared = false; // EvtDevicePrepareHardware was called, EvtDeviceReleaseHardware not yet
    bool everStarted = false;
    bool selfManagedIo = false; // initialised once
    bool inD0 = false;          // read by others under the kernel lock
    bool preprocessed = false;  // the driver has handed the packet under way back
};

} // namespace framework

// Device interfaces: the names under which clients find a device. The driver registers and switches them with
// IoRegisterDeviceInterface and IoSetDeviceInterfaceState; this is the machine's side of them.
#pragma once

#include <ntddk.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kernel {

// Makes `pdo` a physical device object that interfaces can be registered for. `instance` is its instance
// path ("USB\VID_1209&PID_0003\1").
void addInterfaceDevice(PDEVICE_OBJECT pdo, std::u16string instance);

// The device was removed: disables its interfaces, with notification, and forgets it.
void removeInterfaceDevice(PDEVICE_OBJECT pdo);

// The links of a class that are enabled now, in the order registered.
std::vector<std::u16string> enabledInterfaces(const GUID& interfaceClass);

// The device behind an enabled link; null when there is none or it is disabled.
PDEVICE_OBJECT interfaceDevice(std::u16string_view link);

// Calls `callback` on a worker task, at PASSIVE_LEVEL, for every later arrival and removal. The calls of all
// subscribers come one at a time and in the order of the changes.
using InterfaceCallback = std::function<void(bool arrived, const std::u16string& link)>;
void subscribeInterfaces(const GUID& interfaceClass, InterfaceCallback callback);

} // namespace kernel

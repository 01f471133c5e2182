// The life of a device from the bus's report to its removal. Each step runs the driver's callbacks on the
// calling task, at PASSIVE_LEVEL, and steps of one device exclude each other; the order of callbacks is the
// framework's (see pnp.cpp).
#pragma once

#include "platform/usb/host.h"

#include <ntddk.h>

#include <memory>
#include <string>

namespace framework {

// A physical device on the bus and the driver's device object on top of it.
class DevNode {
  public:
    // `host` must outlive the node. `instance` is the instance path ("USB\VID_1209&PID_0003\1").
    DevNode(usb::Host& host, std::u16string instance);
    ~DevNode(); // after `remove`
    DevNode(const DevNode&) = delete;
    DevNode& operator=(const DevNode&) = delete;

    PDEVICE_OBJECT pdo();
    bool hasDevice() const; // a device object of the driver is attached
    bool started() const;   // started and neither failed, stopped nor removed

    // EvtDriverDeviceAdd. There is no device object after a failure, nor when the driver declines the device
    // with success.
    NTSTATUS add();

    // IRP_MN_START_DEVICE, for the first time or after `stop`: EvtDevicePrepareHardware, EvtDeviceD0Entry,
    // self-managed I/O. After a failure the hardware has been released; `remove` comes next.
    NTSTATUS start();

    // IRP_MN_QUERY_STOP_DEVICE and IRP_MN_STOP_DEVICE.
    NTSTATUS stop();

    // Device power: D0 to D3 and back. A failing callback leaves the device failed; `remove` comes next.
    void sleep();
    NTSTATUS wake();

    NTSTATUS queryRemove();
    void cancelRemove();

    // IRP_MN_SURPRISE_REMOVAL: the device is gone already. `remove` follows when all handles are closed.
    void surpriseRemove();

    // Waits until no file is open on the device.
    void waitForHandles();

    // IRP_MN_REMOVE_DEVICE: takes down what is still up and deletes the device object.
    void remove();

    // The client's side: IRP_MJ_CREATE, IRP_MJ_INTERNAL_DEVICE_CONTROL with METHOD_NEITHER buffers in kernel
    // memory, IRP_MJ_CLEANUP with IRP_MJ_CLOSE. Synchronous, on the calling task.
    NTSTATUS open(PFILE_OBJECT& file);
    NTSTATUS internalControl(PFILE_OBJECT file, ULONG code, const void* input, ULONG inputLength,
                             void* output, ULONG outputLength, ULONG_PTR& information);
    void close(PFILE_OBJECT file);

    struct State;

  private:
    void forget(PFILE_OBJECT file);

    std::unique_ptr<State> state_;
};

} // namespace framework

// I/O request packets of the host side, with their stack locations.
#pragma once

#include "platform/framework/object.h"

#include <ntddk.h>

namespace framework {

// A packet with the location of the driver under test on top and that of the bus below it.
class Irp {
  public:
    Irp(UCHAR majorFunction, UCHAR minorFunction);
    Irp(const Irp&) = delete;
    Irp& operator=(const Irp&) = delete;

    IRP& irp() { return irp_; }
    IO_STACK_LOCATION& top() { return stack_[1]; }

    // Waits until the packet is completed. PASSIVE_LEVEL.
    NTSTATUS wait();
    ULONG_PTR information() const { return irp_.IoStatus.Information; }

    // Completes a packet that `wait` waits for. Callable at up to DISPATCH_LEVEL.
    static void complete(PIRP irp, NTSTATUS status, ULONG_PTR information);

    // The driver's location is the current one again after the driver skipped it.
    static bool restoreTop(PIRP irp);

  private:
    static Irp& of(PIRP irp) { return *reinterpret_cast<Irp*>(irp); }

    IRP irp_ = {}; // first, see `of`
    IO_STACK_LOCATION stack_[3] = {};
    bool completed_ = false; // guarded by the kernel lock
};

} // namespace framework

// I/O request packets of the host side, with their stack locations.
#pragma once

#include "platform/framework/object.h"

#include <ntddk.h>

#include <functional>
#include <utility>

namespace framework {

// A packet with the location of the driver under test on top and that of the bus below it.
class Irp {
  public:
    Irp(UCHAR majorFunction, UCHAR minorFunction);
    Irp(const Irp&) = delete;
    Irp& operator=(const Irp&) = delete;

    IRP& irp() { return irp_; }
    IO_STACK_LOCATION& top() { return stack_[1]; }

    // What the framework does when the driver has handed the packet on; without it the packet just succeeds.
    void setStep(std::function<NTSTATUS()> step) { step_ = std::move(step); }
    bool handedOn() const { return handedOn_; }

    // Waits until the packet is completed. PASSIVE_LEVEL.
    NTSTATUS wait();
    ULONG_PTR information() const { return irp_.IoStatus.Information; }

    // Takes the step of a packet and completes it.
    static void takeStep(PIRP irp);

    // Completes a packet that `wait` waits for. Callable at up to DISPATCH_LEVEL.
    static void complete(PIRP irp, NTSTATUS status, ULONG_PTR information);

    // The driver's location is the current one again after the driver skipped it.
    static bool restoreTop(PIRP irp);

  private:
    static Irp& of(PIRP irp) { return *reinterpret_cast<Irp*>(irp); }

    IRP irp_ = {}; // first, see `of`
    IO_STACK_LOCATION stack_[3] = {};
    std::function<NTSTATUS()> step_;
    bool handedOn_ = false;
    bool completed_ = false; // guarded by the kernel lock
};

} // namespace framework

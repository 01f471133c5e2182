#include "platform/framework/irp.h"

namespace framework {

namespace {

constexpr CHAR kStackCount = 2;

} // namespace

Irp::Irp(UCHAR majorFunction, UCHAR minorFunction) {
    irp_.Type = 6; // IO_TYPE_IRP
    irp_.Size = sizeof(IRP);
    irp_.StackCount = kStackCount;
    irp_.CurrentLocation = kStackCount;
    irp_.RequestorMode = KernelMode;
    irp_.IoStatus.Status = STATUS_NOT_SUPPORTED;
    irp_.Tail.Overlay.CurrentStackLocation = &top();
    top().MajorFunction = majorFunction;
    top().MinorFunction = minorFunction;
}

NTSTATUS Irp::wait() {
    kernel::waitUntil(this, {"IRP", this, nullptr}, kernel::kForever, [this] {
        kernel::KernelGuard guard;
        return completed_;
    });
    return irp_.IoStatus.Status;
}

void Irp::takeStep(PIRP irp) {
    Irp& packet = of(irp);
    packet.handedOn_ = true;
    complete(irp, packet.step_ ? packet.step_() : STATUS_SUCCESS, 0);
}

void Irp::complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    Irp& packet = of(irp);
    {
        kernel::KernelGuard guard;
        packet.completed_ = true;
    }
    kernel::wakeChannel(&packet);
}

bool Irp::restoreTop(PIRP irp) {
    Irp& packet = of(irp);
    if (irp->CurrentLocation != kStackCount + 1 ||
        irp->Tail.Overlay.CurrentStackLocation != &packet.top() + 1) {
        return false;
    }
    irp->CurrentLocation--;
    irp->Tail.Overlay.CurrentStackLocation--;
    return true;
}

} // namespace framework

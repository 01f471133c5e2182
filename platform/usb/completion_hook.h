// How a device that wraps another receives a transfer's completion: it replaces the transfer's completion
// function before it passes the transfer on, and restores it when the transfer has completed.
#pragma once

#include "platform/usb/device.h"

#include <functional>
#include <utility>

namespace usb {

// Calls the transfer's completion the way every layer must: the function may free the transfer, and with it
// the function object itself.
inline void completeTransfer(Transfer& transfer) {
    const std::function<void(Transfer&)> complete = std::move(transfer.complete);
    complete(transfer);
}

inline void completeTransfer(Transfer& transfer, Status status) {
    transfer.status = status;
    transfer.actual = 0;
    completeTransfer(transfer);
}

// Takes the submitter's completion out of `transfer` and puts `hook` in its place, which is called once, with
// the submitter's completion back in the transfer.
template <typename Hook>
void hookCompletion(Transfer& transfer, Hook hook) {
    transfer.complete = [submitter = std::move(transfer.complete), hook = std::move(hook)](Transfer& done) {
        // Giving the completion back destroys this closure: nothing of it is used after that.
        auto ownHook = hook;
        std::function<void(Transfer&)> original = submitter;
        done.complete = std::move(original);
        ownHook(done);
    };
}

} // namespace usb

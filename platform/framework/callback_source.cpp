#include "platform/framework/callback_source.h"

#include <algorithm>

namespace framework {

using kernel::KernelGuard;

void CallbackSource::noLongerExpected() {
    {
        KernelGuard guard;
        expected_--;
    }
    kernel::wakeChannel(this);
}

void CallbackSource::enter() {
    const kernel::Task* self = &kernel::currentTask();
    KernelGuard guard;
    running_.push_back(self);
}

void CallbackSource::leave() {
    const kernel::Task* self = &kernel::currentTask();
    {
        KernelGuard guard;
        running_.erase(std::find(running_.begin(), running_.end(), self));
    }
    noLongerExpected();
}

bool CallbackSource::runsHere() const {
    const kernel::Task* self = &kernel::currentTask();
    KernelGuard guard;
    return std::find(running_.begin(), running_.end(), self) != running_.end();
}

void CallbackSource::waitForCallbacks(const char* call, OwnEnd ownEnd) {
    if (runsHere()) {
        if (ownEnd == OwnEnd::Deadlock) {
            verifier::fail(Rule::Deadlock, call, name(), "The callback waits for its own end.");
        }
        return;
    }
    kernel::waitUntil(this, {call, this, nullptr}, kernel::kForever, [&] {
        KernelGuard guard;
        return expected_ == 0;
    });
}

} // namespace framework

#include "platform/usb/host.h"

#include "platform/kernel/driver_call.h"
#include "platform/kernel/scheduler.h"
#include "platform/usb/completion_hook.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <vector>

namespace usb {

namespace {

// A transfer while its submission to the layers below has not returned.
struct Passage {
    Transfer* transfer;
    bool submitting = true;
    bool done = false;
    bool cancelWanted = false;
};
using PassagePointer = std::shared_ptr<Passage>;

} // namespace

struct Host::State : std::enable_shared_from_this<State> {
    State(Device& device, Clock& clock, const HostOptions& options)
        : link(device, clock, options.link), inlineCompletion(options.inlineCompletion) {
        if (!options.capture.empty()) {
            capture.emplace(link, clock, options.capture);
        }
    }

    Device& below() { return capture ? static_cast<Device&>(*capture) : link; }

    LinkTiming link;
    std::optional<Capture> capture;
    const InlineCompletion inlineCompletion;

    // Guarded by the kernel lock.
    bool gone = false;
    bool suspended = false;
    std::deque<Transfer*> held; // submitted while suspended
    std::vector<PassagePointer> passing;

    void submit(Transfer& transfer) {
        PassagePointer passage;
        {
            kernel::KernelGuard guard;
            if (suspended && !gone) {
                held.push_back(&transfer);
                return;
            }
            passage = beginPassage(transfer);
        }
        pass(passage);
    }

    // Kernel lock held: from here on a cancellation finds the transfer among those that pass.
    PassagePointer beginPassage(Transfer& transfer) {
        auto passage = std::make_shared<Passage>();
        passage->transfer = &transfer;
        passing.push_back(passage);
        return passage;
    }

    void pass(const PassagePointer& passage) {
        Transfer& transfer = *passage->transfer;
        hookCompletion(transfer, [self = shared_from_this(), passage](Transfer& done) {
            self->completed(*passage, done);
        });
        below().submit(transfer);
        bool cancelNow = false;
        {
            kernel::KernelGuard guard;
            std::erase(passing, passage);
            passage->submitting = false;
            cancelNow = passage->cancelWanted && !passage->done;
        }
        if (cancelNow) {
            below().cancel(transfer);
        }
    }

    void completed(Passage& passage, Transfer& transfer) {
        bool inside = false;
        {
            kernel::KernelGuard guard;
            passage.done = true;
            inside = passage.submitting;
            gone |= transfer.status == Status::Gone;
        }
        if (inside && inlineCompletion == InlineCompletion::Explored && kernel::choose(2) == 1) {
            completeTransfer(transfer);
        } else {
            kernel::queueDpc([&transfer] { completeTransfer(transfer); });
        }
    }

    // True for a transfer that was not passed down. Kernel lock held.
    bool takeHeld(const Transfer& transfer) {
        auto found = std::find(held.begin(), held.end(), &transfer);
        if (found == held.end()) {
            return false;
        }
        held.erase(found);
        return true;
    }

    void cancel(Transfer& transfer) {
        bool wasHeld = false;
        {
            kernel::KernelGuard guard;
            for (const PassagePointer& passage : passing) {
                if (passage->transfer == &transfer) {
                    passage->cancelWanted = true;
                    return;
                }
            }
            wasHeld = takeHeld(transfer);
        }
        if (wasHeld) {
            kernel::queueDpc([&transfer] { completeTransfer(transfer, Status::Cancelled); });
        } else {
            below().cancel(transfer);
        }
    }

    void disconnect() {
        std::deque<Transfer*> cutOff;
        {
            kernel::KernelGuard guard;
            gone = true;
            cutOff.swap(held);
        }
        below().disconnect();
        for (Transfer* transfer : cutOff) {
            kernel::queueDpc([transfer] { completeTransfer(*transfer, Status::Gone); });
        }
    }

    void resume() {
        for (;;) {
            PassagePointer next;
            {
                kernel::KernelGuard guard;
                suspended = false;
                if (held.empty()) {
                    return;
                }
                next = beginPassage(*held.front());
                held.pop_front();
            }
            pass(next);
        }
    }
};

Host::Host(Device& device, Clock& clock, const HostOptions& options)
    : state_(std::make_shared<State>(device, clock, options)) {}

Host::~Host() = default;

Speed Host::speed() const {
    return state_->link.speed();
}

void Host::submit(Transfer& transfer) {
    kernel::PlatformCall call;
    state_->submit(transfer);
}

void Host::cancel(Transfer& transfer) {
    kernel::PlatformCall call;
    state_->cancel(transfer);
}

void Host::disconnect() {
    kernel::PlatformCall call;
    state_->disconnect();
}

bool Host::connected() const {
    kernel::KernelGuard guard;
    return !state_->gone;
}

void Host::resume() {
    kernel::PlatformCall call;
    state_->resume();
}

void Host::suspend() {
    kernel::PlatformCall call;
    kernel::KernelGuard guard;
    state_->suspended = true;
}

LinkTiming& Host::link() {
    return state_->link;
}

} // namespace usb

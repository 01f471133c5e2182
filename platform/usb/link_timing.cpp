#include "platform/usb/link_timing.h"

#include "platform/kernel/driver_call.h"
#include "platform/kernel/scheduler.h"
#include "platform/usb/completion_hook.h"

#include <algorithm>
#include <deque>
#include <vector>

// A bulk transfer's data moves at the link's bandwidth, then the device sees the transfer, then, when the
// device has taken it, it completes at the host after the latency. The next bulk transfer's data starts to
// move as soon as the device has taken the last one, so that a host that keeps two transfers in flight keeps
// the link busy, and a device that does not answer delays all later transfers. Latency and bytes of a control
// transfer pass before the device sees it, one transfer at a time. An interrupt transfer waits at the device
// for a report, for which the host asks at the endpoint's interval and which then takes the latency.

namespace usb {

namespace {

constexpr std::uint64_t kHighSpeedBandwidth = 40'000'000; // bytes per second of bulk data in practice
constexpr std::uint64_t kSuperSpeedBandwidth = 400'000'000;
constexpr Time kHighSpeedLatency = 125 * kMicrosecond; // one microframe
constexpr Time kSuperSpeedLatency = 20 * kMicrosecond;

enum class Phase : std::uint8_t {
    Waiting,
    Moving,
    Entering, // the device's submit has not returned
    AtDevice,
    Returning
};

struct Item {
    Transfer* transfer;
    Phase phase = Phase::Waiting;
    Time movingSince = 0;
    Time movingUntil = 0;
    bool withdrawn = false;    // cancelled or cut off while its data moved
    bool cancelWanted = false; // cancelled while it entered the device
};
using ItemPointer = std::shared_ptr<Item>;

// Transfers of one kind, one at a time.
struct Lane {
    std::deque<ItemPointer> waiting;
    ItemPointer current;
};

} // namespace

struct LinkTiming::State : std::enable_shared_from_this<State> {
    State(Device& innerDevice, Clock& linkClock, const LinkOptions& options)
        : inner(innerDevice), clock(linkClock) {
        const bool super = inner.speed() == Speed::Super;
        bandwidth = options.bytesPerSecond != 0 ? options.bytesPerSecond
                    : super                     ? kSuperSpeedBandwidth
                                                : kHighSpeedBandwidth;
        latency = options.latency >= 0 ? options.latency : super ? kSuperSpeedLatency : kHighSpeedLatency;
    }

    Device& inner;
    Clock& clock;
    Time latency;

    // Guarded by the kernel lock.
    std::uint64_t bandwidth;
    bool gone = false;
    Lane bulk;
    Lane control;
    std::vector<ItemPointer> entering;
    Time busy = 0; // bulk data that has finished moving
    std::uint64_t bulkBytes = 0;
    std::uint64_t bulkTransfers = 0;

    Lane* laneOf(const Transfer& transfer) {
        switch (transfer.type) {
        case TransferType::Bulk:
            return &bulk;
        case TransferType::Control:
            return &control;
        case TransferType::Interrupt:
            return nullptr;
        }
        return nullptr;
    }

    // How long bulk data of `item` has moved.
    Time movedFor(const Item& item) const {
        return std::min(clock.now(), item.movingUntil) - item.movingSince;
    }

    Time movingTime(std::size_t bytes) const {
        const auto product = static_cast<unsigned __int128>(bytes) * kSecond;
        return static_cast<Time>((product + bandwidth - 1) / bandwidth);
    }

    void submit(Transfer& transfer) {
        auto item = std::make_shared<Item>();
        item->transfer = &transfer;
        Lane* lane = laneOf(transfer);
        bool refused = false;
        {
            kernel::KernelGuard guard;
            refused = gone;
            if (!refused && lane != nullptr) {
                lane->waiting.push_back(item);
            }
        }
        if (refused) {
            completeTransfer(transfer, Status::Gone);
        } else if (lane != nullptr) {
            startNext(*lane);
        } else {
            giveToDevice(item);
        }
    }

    void startNext(Lane& lane) {
        ItemPointer item;
        Time due = 0;
        {
            kernel::KernelGuard guard;
            if (lane.current != nullptr || lane.waiting.empty()) {
                return;
            }
            item = lane.current = lane.waiting.front();
            lane.waiting.pop_front();
            item->phase = Phase::Moving;
            item->movingSince = clock.now();
            due = item->movingUntil = item->movingSince + movingTime(item->transfer->data.size());
            if (&lane == &control) {
                due += latency;
            }
        }
        if (due == item->movingSince) {
            giveToDevice(item);
        } else {
            clock.schedule(due, [self = shared_from_this(), item] { self->giveToDevice(item); });
        }
    }

    void giveToDevice(const ItemPointer& item) {
        Transfer& transfer = *item->transfer;
        {
            kernel::KernelGuard guard;
            if (item->withdrawn) {
                return;
            }
            item->phase = Phase::Entering;
            entering.push_back(item);
            if (transfer.type == TransferType::Bulk && !transfer.data.empty()) {
                busy += item->movingUntil - item->movingSince;
                bulkBytes += transfer.data.size();
                bulkTransfers++;
            }
        }
        hookCompletion(transfer, [self = shared_from_this(), item](Transfer&) { self->deviceDone(item); });
        inner.submit(transfer);
        bool cancelNow = false;
        {
            kernel::KernelGuard guard;
            std::erase(entering, item);
            if (item->phase == Phase::Entering) {
                item->phase = Phase::AtDevice;
                cancelNow = item->cancelWanted;
            }
        }
        if (cancelNow) {
            inner.cancel(transfer);
        }
    }

    void deviceDone(const ItemPointer& item) {
        Transfer& transfer = *item->transfer;
        Lane* lane = laneOf(transfer);
        {
            kernel::KernelGuard guard;
            item->phase = Phase::Returning;
            if (lane != nullptr) {
                lane->current = nullptr;
            }
        }
        if (lane != nullptr) {
            startNext(*lane);
        }
        const bool answered = transfer.status != Status::Gone && transfer.status != Status::Cancelled;
        const Time due = nextAsked(transfer) + latency;
        if (lane == &control || !answered || due == clock.now()) {
            completeTransfer(transfer);
        } else {
            clock.schedule(due, [item] { completeTransfer(*item->transfer); });
        }
    }

    // When the host asks the endpoint the next time.
    Time nextAsked(const Transfer& transfer) const {
        const Time now = clock.now();
        const Time interval = transfer.interval;
        return interval == 0 ? now : (now + interval - 1) / interval * interval;
    }

    // Removes a transfer whose data has not all moved; the device never receives it. Kernel lock held.
    bool withdraw(Lane& lane, const Transfer& transfer) {
        auto waiting = std::find_if(lane.waiting.begin(), lane.waiting.end(),
                                    [&](const ItemPointer& item) { return item->transfer == &transfer; });
        if (waiting != lane.waiting.end()) {
            lane.waiting.erase(waiting);
            return true;
        }
        if (lane.current == nullptr || lane.current->transfer != &transfer ||
            lane.current->phase != Phase::Moving) {
            return false;
        }
        lane.current->withdrawn = true;
        if (&lane == &bulk) {
            busy += movedFor(*lane.current);
        }
        lane.current = nullptr;
        return true;
    }

    void cancel(Transfer& transfer) {
        Lane* lane = laneOf(transfer);
        bool withdrawn = false;
        {
            kernel::KernelGuard guard;
            for (const ItemPointer& item : entering) {
                if (item->transfer == &transfer) {
                    item->cancelWanted = true;
                    return;
                }
            }
            withdrawn = lane != nullptr && withdraw(*lane, transfer);
        }
        if (withdrawn) {
            startNext(*lane);
            completeTransfer(transfer, Status::Cancelled);
        } else {
            inner.cancel(transfer);
        }
    }

    void disconnect() {
        std::vector<Transfer*> cutOff;
        {
            kernel::KernelGuard guard;
            gone = true;
            for (Lane* lane : {&control, &bulk}) {
                if (lane->current != nullptr && lane->current->phase == Phase::Moving) {
                    cutOff.push_back(lane->current->transfer);
                    withdraw(*lane, *cutOff.back());
                }
                for (const ItemPointer& item : lane->waiting) {
                    cutOff.push_back(item->transfer);
                }
                lane->waiting.clear();
            }
        }
        inner.disconnect();
        for (Transfer* transfer : cutOff) {
            completeTransfer(*transfer, Status::Gone);
        }
    }
};

LinkTiming::LinkTiming(Device& inner, Clock& clock, const LinkOptions& options)
    : state_(std::make_shared<State>(inner, clock, options)) {}

LinkTiming::~LinkTiming() = default;

Speed LinkTiming::speed() const {
    return state_->inner.speed();
}

void LinkTiming::submit(Transfer& transfer) {
    kernel::PlatformCall call;
    state_->submit(transfer);
}

void LinkTiming::cancel(Transfer& transfer) {
    kernel::PlatformCall call;
    state_->cancel(transfer);
}

void LinkTiming::disconnect() {
    kernel::PlatformCall call;
    state_->disconnect();
}

void LinkTiming::setBandwidth(std::uint64_t bytesPerSecond) {
    kernel::KernelGuard guard;
    state_->bandwidth = std::max<std::uint64_t>(bytesPerSecond, 1);
}

std::uint64_t LinkTiming::bandwidth() const {
    kernel::KernelGuard guard;
    return state_->bandwidth;
}

Time LinkTiming::busyTime() const {
    kernel::KernelGuard guard;
    const ItemPointer& current = state_->bulk.current;
    const bool moving = current != nullptr && current->phase == Phase::Moving;
    return state_->busy + (moving ? state_->movedFor(*current) : 0);
}

std::uint64_t LinkTiming::bulkBytes() const {
    kernel::KernelGuard guard;
    return state_->bulkBytes;
}

std::uint64_t LinkTiming::bulkTransfers() const {
    kernel::KernelGuard guard;
    return state_->bulkTransfers;
}

void LinkTiming::resetCounters() {
    kernel::KernelGuard guard;
    State& state = *state_;
    state.busy = 0;
    state.bulkBytes = 0;
    state.bulkTransfers = 0;
    if (state.bulk.current != nullptr && state.bulk.current->phase == Phase::Moving) {
        // Only what moves from now on counts. The end of the movement is scheduled already.
        state.bulk.current->movingSince = std::min(state.clock.now(), state.bulk.current->movingUntil);
    }
}

} // namespace usb

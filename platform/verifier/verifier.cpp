#include "platform/verifier/verifier.h"

#include "platform/base/machine_state.h"
#include "platform/kernel/core.h"
#include "platform/kernel/driver_call.h"
#include "platform/verifier/locks.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <map>

namespace verifier {

namespace {

constexpr std::array kRuleNames = {"IrqlTooHigh",
                                   "IrqlChanged",
                                   "LockLeftHeld",
                                   "WaitAtDispatch",
                                   "LockOrder",
                                   "LockRecursion",
                                   "LockOwner",
                                   "LockLifetime",
                                   "RequestNotFormatted",
                                   "RequestPending",
                                   "RequestCompletedTwice",
                                   "BufferLifetime",
                                   "BufferTooShort",
                                   "HandleStale",
                                   "HandleDeletedTwice",
                                   "ObjectTree",
                                   "PoolTag",
                                   "PoolOverrun",
                                   "PoolFreedTwice",
                                   "PoolLeak",
                                   "UsbTarget",
                                   "UsbPipeHandle",
                                   "PnpOrder",
                                   "ThreadLeak",
                                   "ListCorruption",
                                   "Argument",
                                   "Deadlock",
                                   "StepLimit"};
static_assert(kRuleNames.size() == kRuleCount);

// That `to` was taken while its predecessor was held, and where that was seen first.
struct Order {
    const void* to;
    std::string where;
};

struct Lock {
    std::string name;
    std::vector<Order> orders;
};

// By address, so that the locks inside a block of memory can be found. Guarded by the kernel lock.
struct Locks {
    std::map<const void*, Lock> byAddress;
    unsigned named = 0;
};
base::MachinePart<Locks> locks;

std::string describeLock(const void* lock) {
    auto found = locks->byAddress.find(lock);
    return found != locks->byAddress.end() && !found->second.name.empty() ? found->second.name
                                                                          : fmt::format("{}", lock);
}

std::string here(std::string_view call) {
    const char* callback = kernel::currentCallback();
    const kernel::Task* task = kernel::currentTaskOrNull();
    return fmt::format("{}{}{} on {}", call, *callback != 0 ? " in " : "", callback,
                       task != nullptr ? task->name : "no task");
}

// The way from `from` to `to` along observed orders, as "A, then B (where)"; empty when there is none.
std::string findOrder(const void* from, const void* to, std::vector<const void*>& visited) {
    if (std::find(visited.begin(), visited.end(), from) != visited.end()) {
        return {};
    }
    visited.push_back(from);
    auto found = locks->byAddress.find(from);
    if (found == locks->byAddress.end()) {
        return {};
    }
    for (const Order& order : found->second.orders) {
        const std::string step =
            fmt::format("{} before {} ({})", describeLock(from), describeLock(order.to), order.where);
        if (order.to == to) {
            return step;
        }
        if (std::string rest = findOrder(order.to, to, visited); !rest.empty()) {
            return step + ", " + rest;
        }
    }
    return {};
}

HeldLock* findHeld(kernel::Task& task, const void* lock) {
    auto held = std::find_if(task.locks.begin(), task.locks.end(),
                             [lock](const HeldLock& entry) { return entry.lock == lock; });
    return held == task.locks.end() ? nullptr : &*held;
}

void noteOrder(const void* held, const void* lock, std::string_view call) {
    std::vector<Order>& orders = locks->byAddress[held].orders;
    if (std::any_of(orders.begin(), orders.end(), [lock](const Order& order) { return order.to == lock; })) {
        return;
    }
    std::vector<const void*> visited;
    const std::string opposite = findOrder(lock, held, visited);
    if (!opposite.empty()) {
        fail(Rule::LockOrder, call, describeLock(lock),
             fmt::format("taken while {} is held, against the order seen before: {}", describeLock(held),
                         opposite));
    }
    orders.push_back({lock, here(call)});
}

// Kernel lock held.
void requireNotInUse(const void* begin, const void* end, std::string_view call) {
    if (kernel::currentCore() == nullptr) {
        return;
    }
    const auto inside = [begin, end](const void* object) { return object >= begin && object < end; };
    for (const kernel::Task* task : kernel::currentCore()->tasks()) {
        // A task notes its locks by itself, so only `sim`, which runs one task at a time, can look at
        // others'.
        if (task == kernel::currentTaskOrNull() || kernel::mode() == kernel::Mode::Sim) {
            for (const HeldLock& held : task->locks) {
                if (inside(held.lock)) {
                    fail(Rule::LockLifetime, call, describeLock(held.lock),
                         fmt::format("its memory is given back while {} holds it", task->name));
                }
            }
        }
        if (task->state != kernel::Task::State::Blocked || task->woken) {
            continue;
        }
        const kernel::WaitReason& reason = task->reason;
        if (inside(reason.object) || std::any_of(reason.objects.begin(), reason.objects.end(), inside)) {
            fail(Rule::LockLifetime, call, fmt::format("{}", begin),
                 fmt::format("its memory is given back while {} waits in {}", task->name, reason.call));
        }
    }
}

} // namespace

std::string_view ruleName(Rule rule) {
    return kRuleNames[static_cast<std::size_t>(rule)];
}

std::string Report::text() const {
    return fmt::format("{} in {}{}{}: {} [task {}, {:.7f} s] SIM_SEED={}", ruleName(rule), call,
                       object.empty() ? "" : ", ", object, detail, task,
                       static_cast<double>(time) / static_cast<double>(base::kSecond), seed);
}

Stopped::Stopped(Report what) : std::runtime_error(what.text()), report_(std::move(what)) {}

void fail(Rule rule, std::string_view call, std::string object, std::string detail) {
    kernel::Task* self = kernel::currentTaskOrNull();
    Report report;
    report.rule = rule;
    report.call = call;
    report.object = std::move(object);
    report.detail = std::move(detail);
    report.task = self != nullptr ? self->name : "none";
    report.time = kernel::now();
    report.seed = kernel::seed();
    if (self == nullptr || kernel::currentCore() == nullptr) {
        throw Stopped(std::move(report));
    }
    kernel::currentCore()->stop(*self, report);
    __builtin_unreachable();
}

void requireIrql(std::string_view call, unsigned limit) {
    const unsigned level = kernel::currentIrql();
    if (level > limit) {
        fail(Rule::IrqlTooHigh, call, "", fmt::format("called at level {}, allowed up to {}", level, limit));
    }
}

void lockAcquiring(const void* lock, LockKind kind, std::string_view name, std::string_view call) {
    kernel::Task* self = kernel::currentTaskOrNull();
    if (self == nullptr) {
        return;
    }
    if (findHeld(*self, lock) != nullptr) {
        if (kind == LockKind::Spin) {
            fail(Rule::LockRecursion, call, describeObject(lock), "the caller holds this spin lock already");
        }
        return;
    }
    if (self->locks.empty()) {
        return;
    }
    kernel::KernelLockIfFree guard;
    if (locks->byAddress[lock].name.empty()) {
        locks->byAddress[lock].name = name;
    }
    for (const HeldLock& held : self->locks) {
        noteOrder(held.lock, lock, call);
    }
}

void lockAcquired(const void* lock, LockKind kind) {
    kernel::Task* self = kernel::currentTaskOrNull();
    if (self == nullptr) {
        return;
    }
    if (HeldLock* held = findHeld(*self, lock)) {
        ++held->depth;
    } else {
        self->locks.push_back({lock, kind, 1});
    }
}

void lockReleased(const void* lock, std::string_view call) {
    kernel::Task* self = kernel::currentTaskOrNull();
    if (self == nullptr) {
        return;
    }
    HeldLock* held = findHeld(*self, lock);
    if (held == nullptr) {
        fail(Rule::LockOwner, call, describeObject(lock), "the caller does not hold this lock");
    }
    if (--held->depth == 0) {
        self->locks.erase(self->locks.begin() + (held - self->locks.data()));
    }
}

void lockDestroyed(const void* lock, std::string_view call) {
    locksDestroyed(lock, static_cast<const char*>(lock) + 1, call);
}

void locksDestroyed(const void* begin, const void* end, std::string_view call) {
    kernel::KernelLockIfFree guard;
    requireNotInUse(begin, end, call);
    auto first = locks->byAddress.lower_bound(begin);
    auto last = locks->byAddress.lower_bound(end);
    if (first == last) {
        return;
    }
    locks->byAddress.erase(first, last);
    for (auto& [address, lock] : locks->byAddress) {
        std::erase_if(lock.orders,
                      [begin, end](const Order& order) { return order.to >= begin && order.to < end; });
    }
}

void lockInitialized(const void* lock, std::string_view kind) {
    lockDestroyed(lock, "initialisation");
    kernel::KernelLockIfFree guard;
    locks->byAddress[lock].name = fmt::format("{} {}", kind, ++locks->named);
}

unsigned locksHeld() {
    const kernel::Task* self = kernel::currentTaskOrNull();
    unsigned count = 0;
    if (self != nullptr) {
        for (const HeldLock& held : self->locks) {
            count += held.depth;
        }
    }
    return count;
}

void nameLock(const void* lock, std::string name) {
    kernel::KernelLockIfFree guard;
    locks->byAddress[lock].name = std::move(name);
}

std::string describeObject(const void* object) {
    kernel::KernelLockIfFree guard;
    return describeLock(object);
}

} // namespace verifier

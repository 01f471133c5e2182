#include "platform/verifier/lock_order.h"

#include "platform/base/machine_state.h"

#include <algorithm>
#include <fmt/format.h>

namespace verifier {

namespace {

base::MachinePart<LockOrder> order;

} // namespace

LockOrder& lockOrder() {
    return *order;
}

void LockOrder::nameIfNew(const void* lock, std::string_view name) {
    if (Lock& entry = locks_[lock]; entry.name.empty()) {
        entry.name = name;
    }
}

void LockOrder::nameByKind(const void* lock, std::string_view kind) {
    locks_[lock].name = fmt::format("{} {}", kind, ++named_);
}

std::string LockOrder::describe(const void* object) const {
    const auto found = locks_.find(object);
    return found != locks_.end() && !found->second.name.empty() ? found->second.name
                                                                : fmt::format("{}", object);
}

bool LockOrder::isKnown(const void* held, const void* lock) const {
    const auto found = locks_.find(held);
    return found != locks_.end() && std::any_of(found->second.orders.begin(), found->second.orders.end(),
                                                [lock](const Order& seen) { return seen.to == lock; });
}

std::string LockOrder::opposite(const void* held, const void* lock) const {
    std::vector<const void*> visited;
    return path(lock, held, visited);
}

std::string LockOrder::path(const void* from, const void* to, std::vector<const void*>& visited) const {
    if (std::find(visited.begin(), visited.end(), from) != visited.end()) {
        return {};
    }
    visited.push_back(from);
    const auto found = locks_.find(from);
    if (found == locks_.end()) {
        return {};
    }
    for (const Order& seen : found->second.orders) {
        const std::string step =
            fmt::format("{} before {} ({})", describe(from), describe(seen.to), seen.where);
        if (seen.to == to) {
            return step;
        }
        if (std::string rest = path(seen.to, to, visited); !rest.empty()) {
            return step + ", " + rest;
        }
    }
    return {};
}

void LockOrder::add(const void* held, const void* lock, std::string where) {
    locks_[held].orders.push_back({lock, std::move(where)});
}

void LockOrder::forget(const void* begin, const void* end) {
    const auto first = locks_.lower_bound(begin);
    const auto last = locks_.lower_bound(end);
    if (first == last) {
        return;
    }
    locks_.erase(first, last);
    for (auto& [address, lock] : locks_) {
        std::erase_if(lock.orders,
                      [begin, end](const Order& seen) { return seen.to >= begin && seen.to < end; });
    }
}

} // namespace verifier

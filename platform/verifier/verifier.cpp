#include "platform/verifier/verifier.h"

#include <array>
#include <fmt/format.h>

namespace verifier {

namespace {

constexpr std::array kRuleNames = {
    "IrqlTooHigh",        "IrqlChanged",
    "LockLeftHeld",       "CriticalRegion",
    "WaitAtDispatch",     "LockOrder",
    "LockRecursion",      "LockOwner",
    "LockLifetime",       "RequestNotFormatted",
    "RequestPending",     "RequestCompletedTwice",
    "RequestCancelled",   "TargetState",
    "ReaderRunning",      "BufferLifetime",
    "BufferTooShort",     "HandleStale",
    "HandleDeletedTwice", "UseAfterRemoval",
    "ObjectTree",         "PoolTag",
    "PoolOverrun",        "PoolFreedTwice",
    "PoolLeak",           "SystemThread",
    "UsbTarget",          "UsbPipeHandle",
    "PnpOrder",           "PnpStatus",
    "CallbackObject",     "ThreadLeak",
    "ListCorruption",     "Argument",
    "Deadlock",           "StepLimit",
};
static_assert(kRuleNames.size() == kRuleCount);

// Written by the thread that creates and destroys the scheduler, while no task runs.
Run* watched = nullptr;

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

void watch(Run* run) {
    watched = run;
}

void fail(Rule rule, std::string_view call, std::string object, std::string detail) {
    Report report;
    report.rule = rule;
    report.call = call;
    report.object = std::move(object);
    report.detail = std::move(detail);
    report.task = "none";
    if (watched == nullptr) {
        throw Stopped(std::move(report));
    }
    report.time = watched->now();
    report.seed = watched->seed();
    const std::string* task = watched->taskName();
    if (task == nullptr) {
        throw Stopped(std::move(report));
    }
    report.task = *task;
    watched->stop(report);
    __builtin_unreachable();
}

void requireIrql(std::string_view call, unsigned limit) {
    const unsigned level = watched != nullptr ? watched->irql() : 0;
    if (level > limit) {
        fail(Rule::IrqlTooHigh, call, "", fmt::format("called at level {}, allowed up to {}", level, limit));
    }
}

} // namespace verifier

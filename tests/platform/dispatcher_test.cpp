#include "platform/kernel/dispatcher.h"
#include "platform/kernel/driver_call.h"
#include "platform/kernel/scheduler.h"
#include "platform/kernel/threads.h"
#include "tests/platform/run.h"

#include <ntddk.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <vector>

namespace {

using namespace kernel;
using namespace platform_test;

LARGE_INTEGER relative(Time duration) {
    LARGE_INTEGER timeout;
    timeout.QuadPart = -duration;
    return timeout;
}

NTSTATUS waitFor(void* object, LARGE_INTEGER* timeout = nullptr) {
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, timeout);
}

// Each of these holds under every schedule and on real threads.

void notificationEventsReleaseAllAndSynchronizationEventsOne() {
    for (EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        KEVENT event;
        KeInitializeEvent(&event, type, FALSE);
        std::atomic<int> released = 0;
        std::vector<Task*> tasks;
        for (int i = 0; i < 3; i++) {
            tasks.push_back(&spawn("waiter", TaskKind::Host, [&] {
                EXPECT_EQ(waitFor(&event), STATUS_SUCCESS);
                released++;
                if (type == SynchronizationEvent) {
                    KeSetEvent(&event, 0, FALSE);
                }
            }));
        }
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
        for (Task* task : tasks) {
            join(*task);
        }
        EXPECT_EQ(released, 3);
        LARGE_INTEGER poll = relative(0);
        EXPECT_EQ(waitFor(&event, &poll), STATUS_SUCCESS);
        EXPECT_EQ(waitFor(&event, &poll), type == NotificationEvent ? STATUS_SUCCESS : STATUS_TIMEOUT);
    }
}

// The wait is over when the event is set, even if it is cleared before the waiter runs.
void aPulseIsNotLost() {
    KEVENT event;
    KEVENT ready;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    KeInitializeEvent(&ready, NotificationEvent, FALSE);
    Task& waiter = spawn("waiter", TaskKind::Host, [&] {
        KeSetEvent(&ready, 0, FALSE);
        LARGE_INTEGER timeout = relative(usb::kSecond);
        EXPECT_EQ(waitFor(&event, &timeout), STATUS_SUCCESS);
    });
    waitFor(&ready);
    sleepFor(100 * usb::kMillisecond); // the waiter is in its wait by now
    KeSetEvent(&event, 0, FALSE);
    KeResetEvent(&event);
    join(waiter);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
}

void aWaitForSeveralTakesTheFirstInObjectOrder() {
    KEVENT first;
    KEVENT second;
    KeInitializeEvent(&first, SynchronizationEvent, TRUE);
    KeInitializeEvent(&second, SynchronizationEvent, TRUE);
    PVOID objects[] = {&first, &second};
    const auto wait = [&](LARGE_INTEGER* timeout) {
        return KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, timeout, nullptr);
    };
    EXPECT_EQ(wait(nullptr), STATUS_WAIT_0);
    EXPECT_EQ(wait(nullptr), STATUS_WAIT_1);
    LARGE_INTEGER timeout = relative(20 * usb::kMicrosecond);
    const Time start = now();
    EXPECT_EQ(wait(&timeout), STATUS_TIMEOUT);
    EXPECT_GE(now() - start, 20 * usb::kMicrosecond);
    Task& setter = spawn("setter", TaskKind::Host, [&] { KeSetEvent(&second, 0, FALSE); });
    EXPECT_EQ(wait(nullptr), STATUS_WAIT_1);
    join(setter);
    EXPECT_EQ(KeReadStateEvent(&first), 0);
}

void absoluteTimeoutsCountFrom1601() {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER timeout;
    timeout.QuadPart = kSystemTimeAtStart + now() + usb::kMillisecond;
    const Time start = now();
    EXPECT_EQ(waitFor(&event, &timeout), STATUS_TIMEOUT);
    EXPECT_GE(now(), start + usb::kMillisecond);
    timeout.QuadPart = 1; // long past
    EXPECT_EQ(waitFor(&event, &timeout), STATUS_TIMEOUT);
}

void mutexesExcludeAndNest() {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    int inside = 0;
    int total = 0;
    const auto work = [&] {
        for (int i = 0; i < 5; i++) {
            LARGE_INTEGER slice = relative(50 * usb::kMillisecond);
            while (waitFor(&mutex, &slice) == STATUS_TIMEOUT) {
            }
            EXPECT_EQ(waitFor(&mutex), STATUS_SUCCESS); // again, by its owner
            EXPECT_EQ(++inside, 1);
            schedulingPoint(Point::Yield);
            inside--;
            total++;
            KeReleaseMutex(&mutex, FALSE);
            KeReleaseMutex(&mutex, FALSE);
        }
    };
    std::vector<Task*> tasks;
    for (int i = 0; i < 3; i++) {
        tasks.push_back(&spawn("worker", TaskKind::Host, work));
    }
    for (Task* task : tasks) {
        join(*task);
    }
    EXPECT_EQ(total, 15);
}

// A DPC and tasks share a counter under a spin lock: with one processor it is never contended, with two it
// is.
void spinLocksExcludeDpcsAndTasks() {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    int inside = 0;
    int total = 0;
    const auto count = [&] {
        KIRQL old;
        KeAcquireSpinLock(&lock, &old);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        EXPECT_EQ(++inside, 1);
        schedulingPoint(Point::Yield);
        inside--;
        total++;
        KeReleaseSpinLock(&lock, old);
    };
    std::vector<Task*> tasks;
    for (int i = 0; i < 2; i++) {
        tasks.push_back(&spawn("task", TaskKind::Host, [&] {
            for (int k = 0; k < 4; k++) {
                queueDpc(count);
                count();
            }
        }));
    }
    for (Task* task : tasks) {
        join(*task);
    }
    sleepFor(50 * usb::kMillisecond); // the DPCs
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    EXPECT_EQ(total, 16);
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

struct ThreadProbe {
    KEVENT go;
    bool endedEarly = false;
    std::atomic<bool> ran = false;
};

void threadBody(PVOID context) {
    auto& probe = *static_cast<ThreadProbe*>(context);
    waitFor(&probe.go);
    probe.ran = true;
    if (probe.endedEarly) {
        PsTerminateSystemThread(STATUS_SUCCESS);
        ADD_FAILURE() << "a terminated thread went on";
    }
}

void threadObjectsAreSignaledAtTheEnd() {
    for (bool early : {false, true}) {
        ThreadProbe probe;
        probe.endedEarly = early;
        KeInitializeEvent(&probe.go, NotificationEvent, FALSE);
        HANDLE handle = nullptr;
        ASSERT_EQ(
            PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, threadBody, &probe),
            STATUS_SUCCESS);
        PVOID thread = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr),
                  STATUS_SUCCESS);
        LARGE_INTEGER poll = relative(0);
        EXPECT_EQ(ZwWaitForSingleObject(handle, FALSE, &poll), STATUS_TIMEOUT);
        EXPECT_EQ(waitFor(thread, &poll), STATUS_TIMEOUT);
        EXPECT_EQ(runningSystemThreads(), 1u);
        KeSetEvent(&probe.go, 0, FALSE);
        EXPECT_EQ(ZwWaitForSingleObject(handle, FALSE, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        EXPECT_EQ(waitFor(thread), STATUS_SUCCESS);
        EXPECT_TRUE(probe.ran);
        ObDereferenceObject(thread);
        requireThreadsEnded("test");
    }
}

Time tickOfTheRun = 0;

// To the next tick.
void delaysLastAsLongAsTheySay() {
    for (Time duration : {usb::kMillisecond, 30 * usb::kMillisecond}) {
        const Time start = now();
        LARGE_INTEGER interval = relative(duration);
        EXPECT_EQ(KeDelayExecutionThread(KernelMode, TRUE, &interval), STATUS_SUCCESS);
        EXPECT_GE(now() - start, duration);
        if (mode() == Mode::Sim) {
            EXPECT_LT(now() - start, duration + std::max<Time>(tickOfTheRun, 1));
            EXPECT_EQ(tickOfTheRun == 0 ? 0 : now() % tickOfTheRun, 0);
        }
    }
}

class Dispatcher : public ::testing::TestWithParam<void (*)()> {};
class FreeDispatcher : public ::testing::TestWithParam<void (*)()> {};

TEST_P(Dispatcher, HoldsUnderEverySchedule) {
    for (unsigned processors : {1u, 2u, 4u}) {
        for (std::uint64_t seed = 1; seed <= 40; seed++) {
            for (Strategy strategy : {Strategy::InOrder, Strategy::Random, Strategy::Pct}) {
                SchedulerOptions options = sim(strategy, seed, processors);
                options.tick = tickOfTheRun = seed % 2 == 0 ? 0 : 15'625 * usb::kMicrosecond;
                const auto report = run(options, GetParam());
                ASSERT_FALSE(report) << report->text();
            }
        }
    }
}

TEST_P(FreeDispatcher, HoldsOnRealThreads) {
    for (int i = 0; i < 10; i++) {
        const auto report = run(freeRunning(), GetParam());
        ASSERT_FALSE(report) << report->text();
    }
}

const auto kProperties = ::testing::Values(
    notificationEventsReleaseAllAndSynchronizationEventsOne, aPulseIsNotLost,
    aWaitForSeveralTakesTheFirstInObjectOrder, absoluteTimeoutsCountFrom1601, mutexesExcludeAndNest,
    spinLocksExcludeDpcsAndTasks, threadObjectsAreSignaledAtTheEnd, delaysLastAsLongAsTheySay);
std::string propertyName(const ::testing::TestParamInfo<void (*)()>& info) {
    static const char* const names[] = {"Events",  "Pulse",     "WaitAny", "AbsoluteTime",
                                        "Mutexes", "SpinLocks", "Threads", "Delays"};
    return names[info.index];
}
INSTANTIATE_TEST_SUITE_P(Kernel, Dispatcher, kProperties, propertyName);
INSTANTIATE_TEST_SUITE_P(Kernel, FreeDispatcher, kProperties, propertyName);

// With more than one processor the lock is really contended in some schedules, or the test above shows
// little.
TEST(SpinLock, IsContendedOnlyBetweenProcessors) {
    for (unsigned processors : {1u, 2u}) {
        bool contended = false;
        for (std::uint64_t seed = 1; seed <= 50; seed++) {
            run(sim(Strategy::Random, seed, processors), [&] {
                KSPIN_LOCK lock;
                KeInitializeSpinLock(&lock);
                const auto take = [&] {
                    contended |= lock != 0;
                    KIRQL old;
                    KeAcquireSpinLock(&lock, &old);
                    schedulingPoint(Point::Yield);
                    KeReleaseSpinLock(&lock, old);
                };
                queueDpc(take);
                take();
                sleepFor(1);
            });
        }
        EXPECT_EQ(contended, processors > 1);
    }
}

} // namespace

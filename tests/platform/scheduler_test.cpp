#include "platform/kernel/driver_call.h"
#include "platform/kernel/scheduler.h"
#include "tests/platform/run.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <string>

namespace {

using namespace kernel;
using namespace platform_test;

// What three tasks do between them, as one string: the schedule made visible.
std::string trace(const SchedulerOptions& options) {
    std::string trace;
    const auto report = run(options, [&trace] {
        std::vector<Task*> tasks;
        for (char name : {'a', 'b', 'c'}) {
            tasks.push_back(&spawn(std::string(1, name), TaskKind::Host, [&trace, name] {
                for (int i = 0; i < 4; i++) {
                    trace += name;
                    schedulingPoint(Point::Interlocked);
                }
            }));
        }
        for (Task* task : tasks) {
            join(*task);
        }
    });
    EXPECT_FALSE(report);
    return trace;
}

TEST(SimScheduler, ASeedNamesOneScheduleAndSeedsExploreMany) {
    EXPECT_EQ(trace(sim(Strategy::InOrder)), "aaaabbbbcccc");
    for (Strategy strategy : {Strategy::Random, Strategy::Pct}) {
        std::set<std::string> seen;
        for (std::uint64_t seed = 1; seed <= 200; seed++) {
            const std::string once = trace(sim(strategy, seed));
            EXPECT_EQ(once, trace(sim(strategy, seed)));
            seen.insert(once);
        }
        EXPECT_GT(seen.size(), strategy == Strategy::Random ? 150u : 6u);
    }
}

// The reader sees the pair torn only when it runs between the two writes.
TEST(SimScheduler, EveryExploringStrategyFindsTheTornPair) {
    for (Strategy strategy : {Strategy::Random, Strategy::Pct}) {
        int torn = 0;
        for (std::uint64_t seed = 1; seed <= 100; seed++) {
            run(sim(strategy, seed), [&torn] {
                int first = 0;
                int second = 0;
                Task& writer = spawn("writer", TaskKind::Host, [&] {
                    for (int i = 1; i <= 3; i++) {
                        first = i;
                        schedulingPoint(Point::Interlocked);
                        second = i;
                        schedulingPoint(Point::Interlocked);
                    }
                });
                schedulingPoint(Point::Interlocked);
                schedulingPoint(Point::Interlocked);
                torn += first != second ? 1 : 0;
                join(writer);
            });
        }
        EXPECT_GT(torn, 3);
        EXPECT_LT(torn, 97);
    }
}

TEST(SimScheduler, TimeJumpsToTheNextTimerAndKeepsTheOrder) {
    std::string order;
    const auto report = run(sim(Strategy::Random, 7), [&order] {
        // Actions of the device's clock: by due time, then in the order scheduled.
        const Time start = now();
        startTimer(start + 30 * usb::kMillisecond, [&] { order += "late "; });
        const TimerId cancelled = startTimer(start + usb::kMillisecond, [&] { order += "cancelled "; });
        EXPECT_TRUE(cancelTimer(cancelled));
        EXPECT_FALSE(cancelTimer(cancelled));
        startTimer(start + 20 * usb::kMillisecond, [&] {
            EXPECT_EQ(currentIrql(), kDispatchLevel);
            EXPECT_EQ(now(), start + 20 * usb::kMillisecond);
            order += "early ";
        });
        sleepFor(10 * 60 * usb::kSecond);
        EXPECT_EQ(now(), start + 10 * 60 * usb::kSecond);
    });
    EXPECT_FALSE(report);
    EXPECT_EQ(order, "early late ");
}

TEST(SimScheduler, ClockActionsWithOneTimeRunInTheOrderScheduled) {
    for (std::uint64_t seed = 1; seed <= 20; seed++) {
        std::string order;
        Scheduler scheduler(sim(Strategy::Random, seed, 4));
        scheduler.run([&] {
            for (char name = 'a'; name <= 'j'; name++) {
                // Due before now, now and later alike.
                scheduler.clock().schedule(name < 'd' ? -5 : 50, [&order, name] { order += name; });
            }
            sleepFor(100);
        });
        EXPECT_EQ(order, "abcdefghij") << "seed " << seed;
    }
}

// A task at DISPATCH_LEVEL keeps DPCs and passive tasks off its processor, and only off its own.
TEST(SimScheduler, DispatchLevelOccupiesOneProcessor) {
    for (unsigned processors : {1u, 2u}) {
        bool dpcRanDuring = false;
        bool passiveRanDuring = false;
        for (std::uint64_t seed = 1; seed <= 50; seed++) {
            run(sim(Strategy::Random, seed, processors), [&] {
                bool raised = false;
                Task& other = spawn("other", TaskKind::Host, [&] { passiveRanDuring |= raised; });
                const unsigned old = raiseIrql(kDispatchLevel);
                raised = true;
                queueDpc([&] { dpcRanDuring |= raised; });
                for (int i = 0; i < 10; i++) {
                    schedulingPoint(Point::Yield);
                }
                raised = false;
                lowerIrql(old);
                join(other);
                sleepFor(1); // the DPC
            });
        }
        EXPECT_EQ(dpcRanDuring, processors > 1);
        EXPECT_EQ(passiveRanDuring, processors > 1);
    }
}

TEST(SimScheduler, DpcsOfOneProcessorRunOneAtATimeInOrder) {
    for (std::uint64_t seed = 1; seed <= 50; seed++) {
        std::string order;
        run(sim(Strategy::Random, seed, 2), [&order] {
            for (char name = 'a'; name <= 'e'; name++) {
                queueDpc(
                    [&order, name] {
                        order += name;
                        schedulingPoint(Point::Yield);
                        order += name;
                    },
                    1);
            }
            sleepFor(1);
        });
        EXPECT_EQ(order, "aabbccddee");
    }
}

struct StopCase {
    const char* name;
    verifier::Rule rule;
    const char* mentions;
    std::function<void()> body;
};

TEST(SimScheduler, RunsThatCannotEndAreReportedWithTheirTasks) {
    const int never = 0;
    const StopCase cases[] = {
        {"the host is never woken", verifier::Rule::Deadlock, "second waits in the test",
         [&never] {
             Task& second = spawn("second", TaskKind::Host, [&never] {
                 waitUntil(&never, {"the test", &never, nullptr}, kForever, [] { return false; });
             });
             join(second);
         }},
        {"two tasks wait for each other, with time-outs", verifier::Rule::Deadlock, "wait for each other",
         [&never] {
             Task& host = currentTask();
             Task& second = spawn("second", TaskKind::Host, [&] {
                 KernelGuard guard;
                 while (!block({"second's wait", &never, &host}, now() + usb::kSecond)) {
                 }
             });
             KernelGuard guard;
             while (!block({"host's wait", &never, &second}, now() + usb::kSecond)) {
             }
         }},
        {"a loop without a wait", verifier::Rule::StepLimit, "scheduling points",
         [] {
             for (;;) {
                 schedulingPoint(Point::Interlocked);
             }
         }},
        {"a loop that sleeps", verifier::Rule::StepLimit, "virtual time",
         [] {
             for (;;) {
                 sleepFor(usb::kMillisecond);
             }
         }},
    };
    for (const StopCase& test : cases) {
        SchedulerOptions options = sim(Strategy::Random);
        options.stepLimit = 100'000;
        options.timeLimit = usb::kSecond;
        const auto report = run(options, test.body);
        ASSERT_TRUE(report) << test.name;
        EXPECT_EQ(report->rule, test.rule) << test.name << ": " << report->text();
        EXPECT_NE(report->detail.find(test.mentions), std::string::npos) << report->text();
        EXPECT_NE(report->text().find("SIM_SEED=1"), std::string::npos) << report->text();
        // The next machine of the same process is a new one.
        EXPECT_FALSE(run(sim(Strategy::Random), [] { sleepFor(usb::kSecond); })) << test.name;
    }
}

// The rest holds under both schedulers.
void eitherWay(const std::function<void(const SchedulerOptions&)>& test) {
    for (std::uint64_t seed = 1; seed <= 20; seed++) {
        test(sim(Strategy::Random, seed));
        test(sim(Strategy::Pct, seed));
    }
}

void workersNeverHoldBackEachOther(const SchedulerOptions& options) {
    std::atomic<bool> released = false;
    std::atomic<int> done = 0;
    const int channel = 0;
    const auto report = run(options, [&] {
        queueWork("blocked", [&] {
            waitUntil(&channel, {"test", &channel, nullptr}, kForever, [&] { return released.load(); });
            done++;
        });
        for (int i = 0; i < 5; i++) {
            queueWork("quick", [&] {
                EXPECT_EQ(currentIrql(), kPassiveLevel);
                if (++done == 5) {
                    released = true;
                    wakeChannel(&channel);
                }
            });
        }
        waitForWorkers();
        EXPECT_EQ(done, 6);
    });
    EXPECT_FALSE(report);
}

void bodiesFailuresReachTheCaller(const SchedulerOptions& options) {
    Scheduler scheduler(options);
    EXPECT_THROW(scheduler.run([] { throw std::runtime_error("the test's own"); }), std::runtime_error);
    int ran = 0;
    scheduler.run([&ran] { ran++; });
    EXPECT_EQ(ran, 1);
}

void aStopParksEveryTask(const SchedulerOptions& options) {
    std::atomic<int> after = 0;
    const int never = 0;
    {
        const auto report = run(options, [&] {
            spawn("waiter", TaskKind::System, [&] {
                waitUntil(&never, {"test", nullptr, nullptr}, now() + 100, [] { return false; });
                for (;;) {
                    schedulingPoint(Point::Yield);
                }
            });
            Task& bad = spawn("bad", TaskKind::System, [] {
                verifier::fail(verifier::Rule::Argument, "the call", "the object", "the detail");
            });
            join(bad);
            after++;
        });
        ASSERT_TRUE(report);
        EXPECT_EQ(report->task, "bad");
        EXPECT_EQ(report->call, "the call");
    }
    EXPECT_EQ(after, 0);
    EXPECT_FALSE(run(options, [] { sleepFor(1); }));
}

void timersFireAndCanBeCancelled(const SchedulerOptions& options) {
    std::atomic<int> fired = 0;
    const int channel = 0;
    const auto report = run(options, [&] {
        const TimerId later = startTimer(now() + 3600 * usb::kSecond, [&] { fired += 100; });
        for (int i = 0; i < 10; i++) {
            startTimer(now() + i * usb::kMicrosecond, [&] {
                fired++;
                wakeChannel(&channel);
            });
        }
        EXPECT_TRUE(waitUntil(&channel, {"test", nullptr, nullptr}, now() + 60 * usb::kSecond,
                              [&] { return fired == 10; }));
        EXPECT_TRUE(cancelTimer(later));
        EXPECT_FALSE(waitUntil(&channel, {"test", nullptr, nullptr}, now() + 100, [] { return false; }));
    });
    EXPECT_FALSE(report);
}

TEST(SimScheduler, WorkersNeverHoldBackEachOther) {
    eitherWay(workersNeverHoldBackEachOther);
}
TEST(FreeScheduler, WorkersNeverHoldBackEachOther) {
    workersNeverHoldBackEachOther(freeRunning());
}
TEST(SimScheduler, BodiesFailuresReachTheCaller) {
    eitherWay(bodiesFailuresReachTheCaller);
}
TEST(FreeScheduler, BodiesFailuresReachTheCaller) {
    bodiesFailuresReachTheCaller(freeRunning());
}
TEST(SimScheduler, AStopParksEveryTask) {
    aStopParksEveryTask(sim(Strategy::Random));
}
TEST(FreeScheduler, AStopParksEveryTask) {
    aStopParksEveryTask(freeRunning());
}
TEST(SimScheduler, TimersFireAndCanBeCancelled) {
    eitherWay(timersFireAndCanBeCancelled);
}
TEST(FreeScheduler, TimersFireAndCanBeCancelled) {
    timersFireAndCanBeCancelled(freeRunning());
}

TEST(SimScheduler, TasksThatWaitForeverAreNoDeadlockOnceTheHostIsDone) {
    const int never = 0;
    Scheduler scheduler(sim(Strategy::Random));
    bool woken = false;
    Task* server = nullptr;
    scheduler.run([&] {
        server = &spawn("server", TaskKind::System, [&] {
            waitUntil(&never, {"server", nullptr, nullptr}, kForever, [&] { return woken; });
        });
        sleepFor(1);
    });
    // It is still there in a second run of the same machine.
    scheduler.run([&] {
        woken = true;
        wakeChannel(&never);
        join(*server);
    });
}

void burn() {
    volatile unsigned sink = 0;
    for (unsigned i = 0; i < 20'000'000; i++) {
        sink = sink + 1;
    }
}

// The driver's time is what passes between entering it and leaving it, without the platform calls in between.
void driverTimeLeavesOutThePlatform(const SchedulerOptions& options) {
    run(options, [] {
        const auto before = driverTime();
        callDriver(
            "busy", +[] { burn(); });
        const auto inDriver = driverTime() - before;
        callDriver(
            "calls out", +[] {
                PlatformCall call;
                burn();
                sleepFor(5 * usb::kMillisecond);
            });
        const auto callingOut = driverTime() - before - inDriver;
        EXPECT_GT(inDriver, 1'000'000u);
        EXPECT_LT(callingOut, inDriver / 2);
        EXPECT_EQ(driverTimes().size(), 1u);
    });
}

TEST(SimScheduler, DriverTimeLeavesOutThePlatform) {
    driverTimeLeavesOutThePlatform(sim(Strategy::Random));
}
TEST(FreeScheduler, DriverTimeLeavesOutThePlatform) {
    driverTimeLeavesOutThePlatform(freeRunning());
}

} // namespace

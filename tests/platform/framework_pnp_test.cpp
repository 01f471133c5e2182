// The order of PnP and power callbacks, also when one of them fails, and what the client's packets meet.
#include "tests/platform/framework_bench.h"

#include <gtest/gtest.h>

namespace {

using namespace platform_test;
using Trace = std::vector<std::string>;

// Each step by itself: the trace of what it calls, from a clean slate.
struct StepRecorder {
    DriverScript& driver;
    Trace operator()(const std::function<void()>& step) {
        driver.trace.clear();
        step();
        return std::exchange(driver.trace, {});
    }
};

TEST(FrameworkPnp, CallbacksComeInTheFrameworksOrder) {
    FrameworkBench bench;
    StepRecorder during{bench.driver};
    auto& machine = bench.machine();
    bench.run([&] {
        platform::DeviceNode* node = nullptr;
        EXPECT_EQ(during([&] { node = &bench.plug(); }), (Trace{"prepare", "d0 entry(D3Final)", "init"}));
        EXPECT_EQ(machine.startStatus(*node), STATUS_SUCCESS);
        EXPECT_EQ(during([&] { machine.suspend(*node); }), (Trace{"suspend", "d0 exit(D3)"}));
        EXPECT_EQ(during([&] { machine.resume(*node); }), (Trace{"d0 entry(D3)", "restart"}));
        EXPECT_EQ(during([&] { machine.stop(*node); }), (Trace{"suspend", "d0 exit(D3Final)", "release"}));
        EXPECT_EQ(during([&] { machine.restart(*node); }),
                  (Trace{"prepare", "d0 entry(D3Final)", "restart"}));
        EXPECT_EQ(during([&] { EXPECT_EQ(machine.queryRemove(*node), STATUS_SUCCESS); }), (Trace{"irp 1"}));
        EXPECT_EQ(during([&] { machine.cancelRemove(*node); }), (Trace{"irp 3"}));
        EXPECT_EQ(during([&] { machine.remove(*node); }),
                  (Trace{"irp 1", "irp 2", "suspend", "d0 exit(D3Final)", "release", "flush", "cleanup"}));
    });
}

TEST(FrameworkPnp, SurpriseRemovalTakesDownBeforeTheRemovePacket) {
    FrameworkBench bench;
    StepRecorder during{bench.driver};
    bench.run([&] {
        auto& awake = bench.plug();
        EXPECT_EQ(during([&] { bench.machine().surpriseRemove(awake); }),
                  (Trace{"surprise", "suspend", "d0 exit(D3Final)", "release", "flush", "irp 2", "cleanup"}));
        bench.device.gone = false;
        auto& asleep = bench.plug();
        bench.machine().suspend(asleep);
        EXPECT_EQ(during([&] { bench.machine().surpriseRemove(asleep); }),
                  (Trace{"surprise", "release", "flush", "irp 2", "cleanup"}));
        bench.device.gone = false;
        bench.driver.answers["d0 exit"] = STATUS_UNSUCCESSFUL; // as when the adapter does not answer any more
        auto& failed = bench.plug();
        bench.machine().suspend(failed);
        EXPECT_EQ(during([&] { bench.machine().surpriseRemove(failed); }),
                  (Trace{"surprise", "irp 2", "cleanup"}));
    });
}

// The cable is pulled while the driver is inside a power callback: the notice does not wait for its end, the
// rest of the removal does.
TEST(FrameworkPnp, ASurpriseRemovalReachesTheDriverInTheMiddleOfAPowerTransition) {
    const struct {
        bool wake;
        Trace expected;
    } cases[] = {
        {false, {"suspend", "d0 exit(D3)", "surprise", "left", "release", "flush", "irp 2", "cleanup"}},
        {true,
         {"d0 entry(D3)", "surprise", "entered", "restart", "suspend", "d0 exit(D3Final)", "left", "release",
          "flush", "irp 2", "cleanup"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.wake ? "wake" : "sleep");
        FrameworkBench bench;
        auto& machine = bench.machine();
        bench.run([&] {
            auto& node = bench.plug();
            if (c.wake) {
                machine.suspend(node);
            }
            bench.driver.trace.clear();
            const auto linger = [&](const char* end) {
                machine.sleep(10 * usb::kMillisecond);
                bench.driver.note(end);
            };
            bench.driver.d0Exit = [&](WDFDEVICE) { linger("left"); };
            bench.driver.d0Entry = [&](WDFDEVICE) {
                linger("entered");
                return STATUS_SUCCESS;
            };
            kernel::Task& power = kernel::spawn("power", kernel::TaskKind::Host, [&] {
                c.wake ? machine.resume(node) : machine.suspend(node);
            });
            machine.sleep(5 * usb::kMillisecond);
            machine.surpriseRemove(node);
            kernel::join(power);
            EXPECT_EQ(bench.driver.trace, c.expected);
        });
    }
}

TEST(FrameworkPnp, AFailingCallbackTakesTheDeviceDownAndSkipsWhatNeverBegan) {
    enum Step { Start, Wake, Sleep, Stop };
    const struct {
        const char* failing;
        Step step;
        Trace expected;
    } cases[] = {
        {"prepare", Start, {"prepare", "release"}},
        {"d0 entry", Start, {"prepare", "d0 entry(D3Final)", "release"}},
        {"init", Start, {"prepare", "d0 entry(D3Final)", "init", "d0 exit(D3Final)", "release", "flush"}},
        {"d0 entry", Wake, {"d0 entry(D3)", "release", "flush"}},
        {"restart", Wake, {"d0 entry(D3)", "restart", "d0 exit(D3Final)", "release", "flush"}},
        {"suspend", Sleep, {"suspend", "d0 exit(D3)", "release", "flush"}},
        {"d0 exit", Sleep, {"suspend", "d0 exit(D3)", "release", "flush"}},
        {"release", Stop, {"suspend", "d0 exit(D3Final)", "release", "flush"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failing);
        FrameworkBench bench;
        auto& machine = bench.machine();
        bench.run([&] {
            auto* node = c.step == Start ? nullptr : &bench.plug();
            if (c.step == Wake) {
                machine.suspend(*node);
            }
            bench.driver.trace.clear();
            bench.driver.answers[c.failing] = STATUS_UNSUCCESSFUL;
            switch (c.step) {
            case Start:
                node = &bench.plug();
                EXPECT_EQ(machine.startStatus(*node), STATUS_UNSUCCESSFUL);
                break;
            case Wake:
                machine.resume(*node);
                break;
            case Sleep:
                machine.suspend(*node);
                break;
            case Stop:
                machine.stop(*node);
                break;
            }
            EXPECT_EQ(std::exchange(bench.driver.trace, {}), c.expected);
            // A failed device is not asked before it is removed. Clean-up follows what has been initialized.
            machine.remove(*node);
            EXPECT_EQ(bench.driver.trace,
                      c.expected.back() == "flush" ? Trace({"irp 2", "cleanup"}) : Trace{"irp 2"});
        });
    }
}

TEST(FrameworkPnp, ADeviceAddThatFailsAfterCreationLeavesNothingBehind) {
    FrameworkBench bench;
    bench.driver.add = [](WDFDEVICE) { return STATUS_INSUFFICIENT_RESOURCES; };
    bench.run([&] {
        auto& node = bench.plug();
        EXPECT_EQ(bench.machine().startStatus(node), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(bench.driver.trace.empty());
    });
}

// A device that its client can open.
class FrameworkClient : public testing::Test {
  protected:
    FrameworkClient() {
        bench.driver.prepare = enableInterface;
        bench.driver.control = [](WDFREQUEST request, ULONG) {
            PVOID input = nullptr;
            PVOID output = nullptr;
            NTSTATUS status = WdfRequestRetrieveInputBuffer(request, 4, &input, nullptr);
            if (NT_SUCCESS(status)) {
                status = WdfRequestRetrieveOutputBuffer(request, 4, &output, nullptr);
            }
            if (NT_SUCCESS(status)) {
                RtlCopyMemory(output, input, 4);
            }
            WdfRequestCompleteWithInformation(request, status, NT_SUCCESS(status) ? 4 : 0);
        };
    }

    void run(const std::function<void(platform::DeviceNode&)>& body) {
        bench.run([&] {
            auto& node = bench.plug();
            ASSERT_EQ(bench.machine().startStatus(node), STATUS_SUCCESS);
            ASSERT_EQ(bench.machine().open(bench.machine().interfaces(kClass).at(0), file), STATUS_SUCCESS);
            body(node);
            bench.machine().close(file);
        });
    }

    NTSTATUS echo(std::size_t inputSize, std::size_t outputSize, ULONG_PTR& information) {
        return bench.machine().internalControl(*file, kNeither, std::span(input).first(inputSize),
                                               std::span(output).first(outputSize), information);
    }

    FrameworkBench bench;
    std::shared_ptr<platform::InterfaceHandle> file;
    std::array<std::uint8_t, 8> input = {1, 2, 3, 4, 5, 6, 7, 8};
    std::array<std::uint8_t, 8> output = {};
};

TEST_F(FrameworkClient, KernelBuffersReachTheDriverAndShortOnesAreRefused) {
    run([&](platform::DeviceNode&) {
        ULONG_PTR information = 0;
        EXPECT_EQ(echo(4, 8, information), STATUS_SUCCESS);
        EXPECT_EQ(information, 4u);
        EXPECT_EQ(output, (std::array<std::uint8_t, 8>{1, 2, 3, 4}));
        EXPECT_EQ(echo(3, 4, information), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(echo(4, 3, information), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(echo(0, 4, information), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(information, 0u);
    });
}

// Requests that arrive in D3 wait; those of a file that is closed meanwhile are cancelled. The wake presents
// the others before self-managed I/O restarts, and the next sleep waits for the callback to return, although
// the request is completed.
TEST_F(FrameworkClient, RequestsWaitForPowerAndPowerWaitsForTheirCallbacks) {
    run([&](platform::DeviceNode& node) {
        auto& machine = bench.machine();
        machine.suspend(node);
        std::shared_ptr<platform::InterfaceHandle> other;
        ASSERT_EQ(machine.open(machine.interfaces(kClass).at(0), other), STATUS_SUCCESS);
        const auto control = [&](platform::InterfaceHandle& handle) {
            ULONG_PTR information = 0;
            return machine.internalControl(handle, kNeither, input, output, information);
        };
        kernel::Task& client = kernel::spawn("client", kernel::TaskKind::Host,
                                             [&] { EXPECT_EQ(control(*file), STATUS_SUCCESS); });
        kernel::Task& leaving = kernel::spawn("leaving client", kernel::TaskKind::Host,
                                              [&, other] { EXPECT_EQ(control(*other), STATUS_CANCELLED); });
        machine.sleep(usb::kSecond);
        bench.driver.control = [&, answer = bench.driver.control](WDFREQUEST request, ULONG code) {
            answer(request, code);
            machine.sleep(10 * usb::kMillisecond);
            bench.driver.note("returned");
        };
        bench.driver.trace.clear();
        machine.close(other);
        kernel::join(leaving);
        machine.resume(node);
        kernel::join(client);
        kernel::Task& last = kernel::spawn("last client", kernel::TaskKind::Host,
                                           [&] { EXPECT_EQ(control(*file), STATUS_SUCCESS); });
        machine.sleep(5 * usb::kMillisecond);
        machine.suspend(node);
        kernel::join(last);
        EXPECT_EQ(bench.driver.trace,
                  (Trace{"file cleanup", "file close", "d0 entry(D3)", "control", "returned", "restart",
                         "control", "suspend", "returned", "d0 exit(D3)"}));
    });
}

TEST_F(FrameworkClient, TheRemovePacketWaitsForTheLastHandle) {
    bench.run([&] {
        auto& machine = bench.machine();
        auto& node = bench.plug();
        ASSERT_EQ(machine.open(machine.interfaces(kClass).at(0), file), STATUS_SUCCESS);
        kernel::Task& client = kernel::spawn("client", kernel::TaskKind::Host, [&] {
            machine.sleep(5 * usb::kSecond);
            ULONG_PTR information = 0;
            EXPECT_EQ(echo(4, 4, information), STATUS_INVALID_DEVICE_STATE);
            bench.driver.note("client closes");
            machine.close(file);
        });
        machine.surpriseRemove(node);
        kernel::join(client);
    });
    EXPECT_EQ(bench.driver.trace, (Trace{"prepare", "d0 entry(D3Final)", "init", "create", "surprise",
                                         "suspend", "d0 exit(D3Final)", "release", "flush", "client closes",
                                         "file cleanup", "file close", "irp 2", "cleanup"}));
}

// Requests of a queue that does not follow the power meet a device whose hardware has been released.
TEST(FrameworkQueue, OnlyAPowerManagedQueueHoldsTheReleaseBack) {
    for (const WDF_TRI_STATE powerManaged : {WdfFalse, WdfTrue}) {
        FrameworkBench bench;
        bench.driver.prepare = enableInterface;
        bench.driver.powerManagedQueue = powerManaged;
        bench.driver.control = [&](WDFREQUEST request, ULONG) {
            bench.machine().sleep(usb::kSecond);
            bench.driver.note("completes");
            WdfRequestComplete(request, STATUS_SUCCESS);
        };
        bench.run([&] {
            auto& machine = bench.machine();
            auto& node = bench.plug();
            std::shared_ptr<platform::InterfaceHandle> file;
            ASSERT_EQ(machine.open(machine.interfaces(kClass).at(0), file), STATUS_SUCCESS);
            ULONG_PTR information = 0;
            kernel::Task& client = kernel::spawn("client", kernel::TaskKind::Host, [&] {
                EXPECT_EQ(machine.internalControl(*file, kNeither, {}, {}, information), STATUS_SUCCESS);
                machine.close(file);
            });
            machine.sleep(usb::kMillisecond);
            machine.surpriseRemove(node);
            kernel::join(client);
        });
        const Trace& trace = bench.driver.trace;
        EXPECT_EQ(std::find(trace.begin(), trace.end(), "completes") <
                      std::find(trace.begin(), trace.end(), "release"),
                  powerManaged == WdfTrue);
    }
}

} // namespace

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
                  (Trace{"surprise", "suspend", "d0 exit(D3Final)", "release", "irp 2", "flush", "cleanup"}));
        bench.device.gone = false;
        auto& asleep = bench.plug();
        bench.machine().suspend(asleep);
        EXPECT_EQ(during([&] { bench.machine().surpriseRemove(asleep); }),
                  (Trace{"surprise", "release", "irp 2", "flush", "cleanup"}));
    });
}

// The cable is pulled while the driver is inside a power callback: the notice does not wait for its end, the
// rest of the removal does.
TEST(FrameworkPnp, ASurpriseRemovalReachesTheDriverInTheMiddleOfAPowerTransition) {
    const struct {
        const char* name;
        std::function<void(platform::Machine&, platform::DeviceNode&)> before;
        std::function<void(platform::Machine&, platform::DeviceNode&)> transition;
        Trace expected;
    } cases[] = {
        {"sleep",
         [](platform::Machine&, platform::DeviceNode&) {},
         [](platform::Machine& machine, platform::DeviceNode& node) { machine.suspend(node); },
         {"suspend", "d0 exit(D3)", "surprise", "left", "release", "irp 2", "flush", "cleanup"}},
        {"wake",
         [](platform::Machine& machine, platform::DeviceNode& node) { machine.suspend(node); },
         [](platform::Machine& machine, platform::DeviceNode& node) { machine.resume(node); },
         {"d0 entry(D3)", "surprise", "entered", "restart", "suspend", "d0 exit(D3Final)", "left", "release",
          "irp 2", "flush", "cleanup"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        FrameworkBench bench;
        auto& machine = bench.machine();
        bench.run([&] {
            auto& node = bench.plug();
            test.before(machine, node);
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
            kernel::Task& power =
                kernel::spawn("power", kernel::TaskKind::Host, [&] { test.transition(machine, node); });
            machine.sleep(5 * usb::kMillisecond);
            machine.surpriseRemove(node);
            kernel::join(power);
            EXPECT_EQ(bench.driver.trace, test.expected);
        });
    }
}

TEST(FrameworkPnp, AFailedStartReleasesTheHardwareAndSkipsWhatNeverBegan) {
    const struct {
        const char* name;
        std::function<NTSTATUS(WDFDEVICE)> DriverScript::*failing;
        Trace expected;
    } cases[] = {
        {"prepare", &DriverScript::prepare, {"prepare", "release", "irp 2"}},
        {"d0 entry", &DriverScript::d0Entry, {"prepare", "d0 entry(D3Final)", "release", "irp 2"}},
        {"self-managed I/O",
         &DriverScript::selfManagedIoInit,
         {"prepare", "d0 entry(D3Final)", "init", "suspend", "d0 exit(D3Final)", "release", "irp 2", "flush",
          "cleanup"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        FrameworkBench bench;
        bench.driver.*test.failing = [](WDFDEVICE) { return STATUS_UNSUCCESSFUL; };
        bench.run([&] {
            auto& node = bench.plug();
            EXPECT_EQ(bench.machine().startStatus(node), STATUS_UNSUCCESSFUL);
            bench.machine().remove(node);
            EXPECT_EQ(bench.driver.trace, test.expected);
        });
    }
}

TEST(FrameworkPnp, AResumeThatFailsLeavesTheDeviceFailedAndRemovable) {
    FrameworkBench bench;
    bench.run([&] {
        auto& node = bench.plug();
        bench.machine().suspend(node);
        bench.driver.d0Entry = [](WDFDEVICE) { return STATUS_UNSUCCESSFUL; };
        bench.driver.trace.clear();
        bench.machine().resume(node);
        EXPECT_EQ(bench.driver.trace, (Trace{"d0 entry(D3)", "release"}));
        bench.machine().remove(node);
    });
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

TEST_F(FrameworkClient, ARequestWaitsWhileTheDeviceSleeps) {
    run([&](platform::DeviceNode& node) {
        auto& machine = bench.machine();
        machine.suspend(node);
        ULONG_PTR information = 0;
        bool done = false;
        kernel::Task& client = kernel::spawn("client", kernel::TaskKind::Host, [&] {
            EXPECT_EQ(echo(4, 4, information), STATUS_SUCCESS);
            done = true;
        });
        machine.sleep(usb::kSecond);
        EXPECT_FALSE(done);
        machine.resume(node);
        kernel::join(client);
        EXPECT_TRUE(done);
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
                                         "suspend", "d0 exit(D3Final)", "release", "client closes",
                                         "file cleanup", "file close", "irp 2", "flush", "cleanup"}));
}

// The hardware is released when the driver has completed them, whether or not the queue follows the power.
TEST(FrameworkQueue, ARemovalWaitsForTheRequestsThatTheDriverHas) {
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
        EXPECT_LT(std::find(trace.begin(), trace.end(), "completes"),
                  std::find(trace.begin(), trace.end(), "release"));
    }
}

} // namespace

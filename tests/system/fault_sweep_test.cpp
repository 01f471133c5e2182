// Lets each call that the system may refuse fail, one run for each: plug in, attach, display on, present,
// something after the picture, remove. The start fails cleanly or the adapter works, and nothing leaks. After
// the failures the same session gets the right picture with no more than the fault requires: display off and
// on, a restart of the device if its power-up was hit, another adapter if it could not start. The load of the
// driver, which precedes all that, has a sweep of its own.
#include "tests/system/rig.h"

#include "driver/device_add.h"
#include "platform/kernel/fault_points.h"
#include "platform/machine.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
#include <set>
#include <string>

namespace system_test {
namespace {

using kernel::FaultMode;

// One block of EDID keeps the number of register accesses, each of them a point, within reason.
std::vector<std::uint8_t> shortEdid() {
    std::vector<std::uint8_t> edid = rig::builtinEdid();
    edid.resize(128);
    edid[126] = 0;
    return edid;
}

struct Scenario {
    PlugOptions plug = adapter();
    std::vector<rig::Setting> settings = {};
    // After the picture, which is expected again within a second of it. The faults are those of this part
    // alone.
    std::function<void(Session&)> afterwards = nullptr;
    bool powersUp = false; // afterwards
};

struct Outcome {
    bool fired = false;
    bool failed = false; // the scenario ended with an error
    std::string call;    // that failed
    std::string fault;
};

enum class Remedy { DisplayOffAndOn, Restart, OtherAdapter };

// The scenario with the fault armed by `arm`. Returns what has to be done for a picture.
Remedy runScenario(Session& session, const PlugOptions& plug, const Scenario& scenario,
                   const std::function<void()>& arm, bool& failed) {
    if (scenario.afterwards == nullptr) {
        arm();
    }
    Remedy remedy = Remedy::OtherAdapter;
    try {
        session.plug(plug);
        remedy = Remedy::Restart;
        session.attachMonitor(shortEdid());
        session.openClient();
        if (!kernel::faultFired()) {
            remedy = Remedy::DisplayOffAndOn;
        }
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        session.setDisplayPower(true);
        session.present(kDesktop, bars());
        rig::ScreenCheck check(session, bars());
        bool shown = check.waitForMatch(30 * kMillisecond);
        if (scenario.afterwards != nullptr) {
            remedy = scenario.powersUp ? Remedy::Restart : Remedy::DisplayOffAndOn;
            arm();
            scenario.afterwards(session);
            shown = check.waitForMatch(kSecond);
        }
        EXPECT_TRUE(shown || kernel::faultFired());
    } catch (const std::exception&) {
        EXPECT_TRUE(kernel::faultFired());
        failed = true;
    }
    return remedy;
}

// Without the failed transfers the adapter's rules are violated until the remedy has stopped the stream.
void apply(Remedy remedy, Session& session, const Scenario& scenario, model::Adapter* victim) {
    switch (remedy) {
    case Remedy::OtherAdapter:
        session.client().close();
        if (session.plugged()) {
            session.remove();
        }
        session.attachMonitor(shortEdid());
        session.plug(scenario.plug);
        break;
    case Remedy::Restart:
        session.client().close();
        session.machine().stop(session.node());
        victim->clearViolations();
        require(session.machine().restart(session.node()), "restarting");
        break;
    case Remedy::DisplayOffAndOn:
        session.setDisplayPower(false);
        victim->clearViolations();
        session.setDisplayPower(true);
        return;
    }
    if (victim != nullptr) {
        victim->clearViolations();
    }
    switchOn(session);
}

Outcome runWithFault(std::uint64_t k, FaultMode mode, const Scenario& scenario) {
    Outcome outcome;
    runSession(inOrder(scenario.settings), [&](Session& session) {
        model::Adapter* victim = nullptr;
        PlugOptions plugVictim = scenario.plug;
        plugVictim.inFront = [&](usb::Device& device) -> usb::Device& {
            victim = static_cast<model::Adapter*>(&device);
            return device;
        };
        Remedy remedy = runScenario(
            session, plugVictim, scenario, [&] { kernel::armFault(k, mode); }, outcome.failed);
        outcome.fired = kernel::faultFired();
        outcome.call = kernel::faultedCall();
        outcome.fault = kernel::faultDescription();
        kernel::disarmFault();
        // A failed transfer halts the pipe of the frames, which only a new configuration ends.
        if (remedy == Remedy::DisplayOffAndOn && outcome.call == "bulk OUT transfer") {
            remedy = Remedy::Restart;
        }
        apply(remedy, session, scenario, victim);
        show(session, gradient());
    });
    if (outcome.fired && testing::Test::HasFailure()) {
        ADD_FAILURE() << "with fault: " << outcome.fault;
    }
    return outcome;
}

// What may be refused between plug-in and removal. A call that is missing in a sweep of each point has lost
// its point.
const std::set<std::string> kCalls = {"ExAllocatePoolWithTag",
                                      "IoAllocateMdl",
                                      "IoRegisterDeviceInterface",
                                      "IoSetDeviceInterfaceState",
                                      "ObReferenceObjectByHandle",
                                      "PsCreateSystemThread",
                                      "WdfCollectionAdd",
                                      "WdfCollectionCreate",
                                      "WdfDeviceCreate",
                                      "WdfDeviceInitAssignWdmIrpPreprocessCallback",
                                      "WdfDriverOpenParametersRegistryKey",
                                      "WdfIoQueueCreate",
                                      "WdfIoTargetStart",
                                      "WdfLookasideListCreate",
                                      "WdfMemoryCreate",
                                      "WdfMemoryCreateFromLookaside",
                                      "WdfMemoryCreatePreallocated",
                                      "WdfRegistryAssignULong",
                                      "WdfRegistryQueryULong",
                                      "WdfRequestCreate",
                                      "WdfRequestSend",
                                      "WdfSpinLockCreate",
                                      "WdfTimerCreate",
                                      "WdfUsbTargetDeviceCreate",
                                      "WdfUsbTargetDeviceFormatRequestForUrb",
                                      "WdfUsbTargetDeviceSelectConfig",
                                      "WdfUsbTargetDeviceSendControlTransferSynchronously",
                                      "WdfUsbTargetPipeConfigContinuousReader",
                                      "WdfWorkItemCreate",
                                      "bulk OUT transfer",
                                      "continuous reader",
                                      "control transfer",
                                      "file object",
                                      "request of a packet"};

// FAULT_POINT in the environment runs one point alone. Some runs of a start must end with an error and some
// without it, so that a sweep which misses the start or the stream is noticed. Returns the calls that failed.
std::set<std::string> sweep(FaultMode mode, const Scenario& scenario = {}, std::uint64_t stride = 1) {
    const char* only = std::getenv("FAULT_POINT");
    std::set<std::string> calls;
    unsigned runs = 0;
    unsigned failures = 0;
    for (std::uint64_t k = only != nullptr ? std::strtoull(only, nullptr, 0) : 1;; k += stride) {
        const Outcome outcome = runWithFault(k, mode, scenario);
        if (testing::Test::HasFailure()) {
            const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
            std::printf("replay: FAULT_POINT=%llu system_tests --gtest_filter=%s.%s\n",
                        static_cast<unsigned long long>(k), test.test_suite_name(), test.name());
            return calls;
        }
        if (only != nullptr) {
            return kCalls;
        }
        if (!outcome.fired) {
            EXPECT_FALSE(outcome.failed);
            break;
        }
        calls.insert(outcome.call);
        runs++;
        failures += outcome.failed;
    }
    std::printf("%u runs, %u of them ended with an error\n", runs, failures);
    EXPECT_TRUE(failures > 0 || scenario.afterwards != nullptr);
    EXPECT_GT(runs, failures);
    return calls;
}

TEST(FaultSweep, EachPointOnce) {
    const std::set<std::string> met = sweep(FaultMode::Once);
    for (const std::string& call : kCalls) {
        EXPECT_TRUE(met.contains(call)) << call;
    }
}

// Two neighbors of one kind differ in one failure of many, so every third point is enough.
TEST(FaultSweep, PointsAndAllOfTheirKindAfterThem) {
    sweep(FaultMode::Sticky, {}, 3);
}

// The register accesses for a transmitter's bytes are thousands of points. A prime stride, which divides the
// length of no sequence, meets each place of the sequences in one repetition or another.
TEST(FaultSweep, TransmitterPointsOnce) {
    sweep(FaultMode::Once, {.plug = adapterWithTransmitter()}, 37);
    sweep(FaultMode::Once, {.plug = adapterWithTransmitter(), .afterwards = switchOffAndOn}, 7);
}

TEST(FaultSweep, CompressionPointsOnce) {
    sweep(FaultMode::Once, {.settings = {setting("Usb3PixelFormatTransformCompressionEnable", 1)}}, 11);
}

TEST(FaultSweep, SleepAndResumePoints) {
    for (const FaultMode mode : {FaultMode::Once, FaultMode::Sticky}) {
        const auto sleepAndResume = [](Session& session) {
            session.suspend();
            session.resume();
        };
        sweep(mode, {.afterwards = sleepAndResume, .powersUp = true}, 3);
    }
}

// The output changes from 24 to 16 bits; switching the display off and on returns it to 24.
TEST(FaultSweep, FormatChangePoints) {
    const auto changeFormat = [](Session& session) {
        session.adapter().reportFrameError();
        session.machine().sleep(10 * kMillisecond);
        session.present(kDesktop, bars());
        session.machine().sleep(300 * kMillisecond);
    };
    sweep(FaultMode::Once, {.plug = slowAdapter(), .afterwards = changeFormat}, 3);
}

// A load that fails leaves no resources, which the machine checks, and the next one works.
TEST(FaultSweep, EachPointOfTheLoadOnce) {
    std::set<std::string> calls;
    std::uint64_t points = 0;
    for (bool fired = true; fired; points += fired) {
        platform::Machine machine;
        machine.run([&] {
            kernel::armFault(points + 1, FaultMode::Once);
            const NTSTATUS status = machine.loadDriver(DriverEntry);
            fired = kernel::faultFired();
            calls.insert(kernel::faultedCall());
            kernel::disarmFault();
            EXPECT_TRUE(fired || NT_SUCCESS(status));
            if (!NT_SUCCESS(status)) {
                ASSERT_EQ(machine.loadDriver(DriverEntry), STATUS_SUCCESS) << kernel::faultDescription();
            }
            machine.unloadDriver();
        });
    }
    EXPECT_EQ(calls, (std::set<std::string>{"", "WdfDriverCreate", "WdfDriverOpenParametersRegistryKey",
                                            "WdfRegistryAssignULong"}));
}

} // namespace
} // namespace system_test

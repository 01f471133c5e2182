// Lets each call that the system may refuse fail, one run for each: plug in, attach, display on, present,
// perhaps sleep and resume, remove. The start fails cleanly or the adapter works; nothing leaks; and after
// the failures a replug shows the right picture. The load of the driver, which precedes all that, has a sweep
// of its own.
#include "tests/system/rig.h"

#include "driver/device_add.h"
#include "platform/kernel/fault_points.h"
#include "platform/machine.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
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

struct Outcome {
    bool fired = false;
    bool failed = false; // the scenario ended with an error
    std::string fault;
};

struct Scenario {
    PlugOptions plug = adapter();
    std::vector<rig::Setting> settings = {};
    bool sleeps = false; // after the picture, which has to come back by itself
};

Outcome runWithFault(std::uint64_t k, FaultMode mode, const Scenario& scenario) {
    const Surface& picture = bars();
    Outcome outcome;
    runSession(inOrder(scenario.settings), [&](Session& session) {
        model::Adapter* victim = nullptr;
        PlugOptions plugVictim = scenario.plug;
        plugVictim.inFront = [&](usb::Device& device) -> usb::Device& {
            victim = static_cast<model::Adapter*>(&device);
            return device;
        };
        kernel::armFault(k, mode);
        outcome.failed = true;
        try {
            session.plug(plugVictim);
            session.attachMonitor(shortEdid());
            switchOn(session);
            session.present(kDesktop, picture);
            rig::ScreenCheck check(session, picture);
            bool shown = check.waitForMatch(30 * kMillisecond);
            if (scenario.sleeps) {
                session.suspend();
                session.resume();
                shown = check.waitForMatch(kSecond);
            }
            EXPECT_TRUE(shown || kernel::faultFired());
            session.remove();
            outcome.failed = false;
        } catch (const std::exception&) {
            if (session.plugged()) {
                session.remove();
            }
        }
        outcome.fired = kernel::faultFired();
        outcome.fault = kernel::faultDescription();
        kernel::disarmFault();
        session.client().close();

        // Without the failed transfers the adapter's rules are violated; the next adapter is a new one.
        if (victim != nullptr) {
            victim->clearViolations();
        }
        session.attachMonitor(shortEdid());
        session.plug(scenario.plug);
        switchOn(session);
        show(session, gradient());
    });
    if (outcome.fired && testing::Test::HasFailure()) {
        ADD_FAILURE() << "with fault: " << outcome.fault;
    }
    return outcome;
}

// FAULT_POINT in the environment runs one point alone. Some runs must end with an error and some without it,
// so that a sweep which misses the start or the stream is noticed.
void sweep(FaultMode mode, const Scenario& scenario = {}, std::uint64_t stride = 1) {
    const char* only = std::getenv("FAULT_POINT");
    unsigned runs = 0;
    unsigned failures = 0;
    for (std::uint64_t k = only != nullptr ? std::strtoull(only, nullptr, 0) : 1;; k += stride) {
        const Outcome outcome = runWithFault(k, mode, scenario);
        if (testing::Test::HasFailure()) {
            const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
            std::printf("replay: FAULT_POINT=%llu system_tests --gtest_filter=%s.%s\n",
                        static_cast<unsigned long long>(k), test.test_suite_name(), test.name());
            return;
        }
        if (only != nullptr) {
            return;
        }
        if (!outcome.fired) {
            EXPECT_FALSE(outcome.failed);
            break;
        }
        runs++;
        failures += outcome.failed;
    }
    std::printf("%u runs, %u of them ended with an error\n", runs, failures);
    EXPECT_GT(failures, 0u);
    EXPECT_GT(runs, failures);
}

TEST(FaultSweep, EachPointOnce) {
    sweep(FaultMode::Once);
}

TEST(FaultSweep, EachPointAndAllOfItsKindAfterIt) {
    sweep(FaultMode::Sticky);
}

// The register accesses for a transmitter's bytes are thousands of points. A prime stride, which divides the
// length of no sequence, meets each place of the sequences in one repetition or another.
TEST(FaultSweep, TransmitterPointsOnce) {
    Scenario scenario;
    scenario.plug = adapterWithTransmitter();
    sweep(FaultMode::Once, scenario, 29);
}

TEST(FaultSweep, CompressionPointsOnce) {
    sweep(FaultMode::Once, {.settings = {setting("Usb3PixelFormatTransformCompressionEnable", 1)}}, 5);
}

TEST(FaultSweep, SleepAndResumePointsOnce) {
    sweep(FaultMode::Once, {.sleeps = true}, 7);
}

TEST(FaultSweep, SleepAndResumePointsAndAllOfTheirKindAfterThem) {
    sweep(FaultMode::Sticky, {.sleeps = true}, 13);
}

// A load that fails leaves no resources, which the machine checks, and the next one works.
TEST(FaultSweep, EachPointOfTheLoadOnce) {
    std::uint64_t points = 0;
    for (bool fired = true; fired; points += fired) {
        platform::Machine machine;
        machine.run([&] {
            kernel::armFault(points + 1, FaultMode::Once);
            const NTSTATUS status = machine.loadDriver(DriverEntry);
            fired = kernel::faultFired();
            kernel::disarmFault();
            EXPECT_TRUE(fired || NT_SUCCESS(status));
            if (!NT_SUCCESS(status)) {
                ASSERT_EQ(machine.loadDriver(DriverEntry), STATUS_SUCCESS) << kernel::faultDescription();
            }
            machine.unloadDriver();
        });
    }
    EXPECT_GT(points, 0U);
}

} // namespace
} // namespace system_test

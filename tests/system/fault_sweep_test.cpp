// Every point at which the system may refuse something is made to refuse, one run for each: plug in, attach,
// display on, present, perhaps sleep and resume, remove. The start fails cleanly or the adapter works;
// nothing leaks; and once the refusals are over, a replug shows the right picture. The load of the driver, of
// which there is one before all that, has a sweep of its own.
#include "tests/system/rig.h"

#include "driver/device_add.h"
#include "platform/kernel/fault_points.h"
#include "platform/machine.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
#include <string>

namespace system_test {
namespace {

using kernel::FaultMode;
using kernel::kFaultKindNames;

// One block of EDID keeps the number of register accesses, each of them a point, within reason.
std::vector<std::uint8_t> shortEdid() {
    std::vector<std::uint8_t> edid = rig::builtinEdid();
    edid.resize(128);
    edid[126] = 0;
    return edid;
}

struct Tally {
    unsigned points = 0;
    unsigned failed = 0; // the scenario ended with an error
    unsigned dark = 0;   // it ended without one, and without the picture
    unsigned shown = 0;
};

// The kind stands first in a fault's description.
std::size_t kindOf(const std::string& description) {
    for (std::size_t kind = 0; kind < kFaultKindNames.size(); kind++) {
        if (description.starts_with(kFaultKindNames[kind])) {
            return kind;
        }
    }
    return kFaultKindNames.size() - 1;
}

enum class Result { NotReached, Failed, Dark, Shown };

struct Outcome {
    Result result = Result::NotReached;
    std::string fault;
    std::uint64_t reached = 0; // points, in the whole scenario
};

struct Scenario {
    PlugOptions plug = adapter();
    std::vector<rig::Setting> settings = {};
    bool sleeps = false; // after the picture, which has to come back by itself
};

Outcome runWithFault(std::uint64_t k, FaultMode mode, const Scenario& scenario) {
    static const Surface picture = pattern("bars", kWidth, kHeight);
    static const Surface next = pattern("gradient", kWidth, kHeight);
    Outcome outcome;
    runSession(inOrder(scenario.settings), [&](Session& session) {
        model::Adapter* victim = nullptr;
        PlugOptions plugVictim = scenario.plug;
        plugVictim.inFront = [&](usb::Device& device) -> usb::Device& {
            victim = static_cast<model::Adapter*>(&device);
            return device;
        };
        kernel::armFault(k, mode);
        Result result = Result::Failed;
        try {
            session.plug(plugVictim);
            session.attachMonitor(shortEdid());
            switchOn(session);
            session.present(kDesktop, picture);
            rig::ScreenCheck check(session, picture);
            result = check.waitForMatch(30 * kMillisecond) ? Result::Shown : Result::Dark;
            if (scenario.sleeps) {
                session.suspend();
                session.resume();
                result = check.waitForMatch(kSecond) ? Result::Shown : Result::Dark;
            }
            session.remove();
        } catch (const std::exception&) {
            if (session.plugged()) {
                session.remove();
            }
        }
        outcome.reached = kernel::faultPointsReached();
        if (kernel::faultFired()) {
            outcome.result = result;
            outcome.fault = kernel::faultDescription();
        }
        kernel::disarmFault();
        session.client().close();

        // An adapter whose driver is refused transfers cannot make sense of the rest; the next one is new.
        if (victim != nullptr) {
            victim->clearViolations();
        }
        session.attachMonitor(shortEdid());
        session.plug(scenario.plug);
        switchOn(session);
        session.present(kDesktop, next);
        expectPicture(session);
    });
    if (outcome.result != Result::NotReached && testing::Test::HasFailure()) {
        ADD_FAILURE() << "with fault: " << outcome.fault;
    }
    return outcome;
}

// FAULT_POINT in the environment runs one point alone, FAULT_STRIDE every so-manieth.
std::uint64_t numberFrom(const char* variable, std::uint64_t otherwise) {
    const char* text = std::getenv(variable);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 0);
}

void sweep(FaultMode mode, const Scenario& scenario = {}, std::uint64_t stride = 1) {
    std::array<Tally, kFaultKindNames.size()> tallies{};
    const std::uint64_t only = numberFrom("FAULT_POINT", 0);
    stride = numberFrom("FAULT_STRIDE", stride);
    for (std::uint64_t k = only != 0 ? only : 1;; k += stride) {
        const Outcome outcome = runWithFault(k, mode, scenario);
        if (testing::Test::HasFailure()) {
            const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
            std::printf("replay: FAULT_POINT=%llu system_tests --gtest_filter=%s.%s\n",
                        static_cast<unsigned long long>(k), test.test_suite_name(), test.name());
            return;
        }
        if (outcome.result == Result::NotReached || only != 0) {
            std::printf("%llu points in a run without a fault, every %llu. was made to fail\n",
                        static_cast<unsigned long long>(outcome.reached),
                        static_cast<unsigned long long>(stride));
            break;
        }
        Tally& tally = tallies[kindOf(outcome.fault)];
        tally.points++;
        tally.failed += outcome.result == Result::Failed;
        tally.dark += outcome.result == Result::Dark;
        tally.shown += outcome.result == Result::Shown;
    }
    std::printf("%-14s %7s %14s %12s %12s\n", mode == FaultMode::Once ? "once" : "sticky", "points",
                "clean failure", "no picture", "picture");
    for (std::size_t kind = 0; kind < tallies.size(); kind++) {
        const Tally& tally = tallies[kind];
        std::printf("%-14s %7u %14u %12u %12u%s\n", std::string(kFaultKindNames[kind]).c_str(), tally.points,
                    tally.failed, tally.dark, tally.shown, tally.points == 0 ? "   never reached" : "");
    }
}

TEST(FaultSweep, EachPointOnce) {
    sweep(FaultMode::Once);
}

TEST(FaultSweep, EachPointAndAllOfItsKindAfterIt) {
    sweep(FaultMode::Sticky);
}

// A transmitter's bytes take a dozen transfers each, all of them points: a stride that is coprime to every
// sequence's length meets each place of each sequence, in a tenth of the time.
TEST(FaultSweep, EveryThirteenthPointOnceWithTransmitter) {
    Scenario scenario;
    scenario.plug.adapter.transmitter = true;
    sweep(FaultMode::Once, scenario, 13);
}

TEST(FaultSweep, EachPointOnceCompressed) {
    sweep(FaultMode::Once, {.settings = {setting("Usb3PixelFormatTransformCompressionEnable", 1)}});
}

TEST(FaultSweep, EverySeventhPointOnceWithSleepAndResume) {
    sweep(FaultMode::Once, {.sleeps = true}, 7);
}

TEST(FaultSweep, EveryThirteenthPointAndAllOfItsKindAfterItWithSleepAndResume) {
    sweep(FaultMode::Sticky, {.sleeps = true}, 13);
}

// A load that fails leaves nothing, which the machine checks, and the next one works.
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
    std::printf("%llu points in a load\n", static_cast<unsigned long long>(points));
    EXPECT_GT(points, 0U);
}

} // namespace
} // namespace system_test

// The rules that the framework and its USB targets check, one table for each subject, and how their drivers
// are run.
#include "tests/platform/framework_world.h"

#include <gtest/gtest.h>

namespace platform_test {

void started(World& world, const Body& body) {
    if (!world.bench.driver.prepare) {
        world.bench.driver.prepare = [&world](WDFDEVICE device) { return world.target.create(device); };
    }
    world.bench.run([&] {
        world.node = &world.bench.plug();
        ASSERT_EQ(world.bench.machine().startStatus(*world.node), STATUS_SUCCESS);
        world.bulk.create(world.target);
        body(world);
        world.bulk.destroy();
    });
}

void runWithReader(World& world, const Body& body) {
    world.startAndStopReader();
    started(world, body);
}

namespace {

void plugOnly(World& world) {
    world.bench.run(
        [&] { EXPECT_EQ(world.bench.machine().startStatus(world.bench.plug()), STATUS_SUCCESS); });
}

} // namespace

void inDeviceAdd(World& world, const Body& body) {
    world.bench.driver.add = [&](WDFDEVICE) {
        body(world);
        return STATUS_SUCCESS;
    };
    plugOnly(world);
}

void inPrepareHardware(World& world, const Body& body) {
    world.bench.driver.prepare = [&](WDFDEVICE) {
        body(world);
        return STATUS_SUCCESS;
    };
    plugOnly(world);
}

void callbacksOnly(World& world, const Body& body) {
    body(world);
    plugOnly(world);
}

void callbacksAndSleep(World& world, const Body& body) {
    body(world);
    world.bench.run([&] {
        auto& node = world.bench.plug();
        EXPECT_EQ(world.bench.machine().startStatus(node), STATUS_SUCCESS);
        world.bench.machine().suspend(node);
        world.bench.machine().resume(node);
        EXPECT_EQ(world.bench.machine().startStatus(node), STATUS_SUCCESS);
    });
}

std::vector<FrameworkCase> together(const std::vector<std::vector<FrameworkCase>>& tables) {
    std::vector<FrameworkCase> cases;
    for (const auto& table : tables) {
        cases.insert(cases.end(), table.begin(), table.end());
    }
    return cases;
}

namespace {

RuleCase::Driver inAWorld(const Stage& stage, const Body& body) {
    return [stage, body](const kernel::SchedulerOptions& options) -> std::optional<verifier::Report> {
        World world(options);
        try {
            stage(world, body);
        } catch (const verifier::Stopped& stopped) {
            return stopped.report();
        }
        return std::nullopt;
    };
}

} // namespace

std::vector<RuleCase> frameworkRules() {
    std::vector<RuleCase> cases;
    for (const FrameworkCase& test : together({requestRules(), objectRules(), deviceRules()})) {
        cases.push_back({test.rule, test.mistake, inAWorld(test.badStage, test.bad),
                         inAWorld(test.goodStage, test.good)});
    }
    return cases;
}

} // namespace platform_test

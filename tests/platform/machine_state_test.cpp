// Two machines, one after the other in one process: the second one sees nothing of what the first one left.
#include "platform/kernel/fault_points.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/threads.h"
#include "tests/platform/framework_world.h"
#include "tests/platform/run.h"

#include <gtest/gtest.h>

#include <intrin.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace platform_test {

namespace {

constexpr ULONG kOtherBuild = 1;

// What both machines touch at the same address.
struct Shared {
    KMUTEX first;
    KMUTEX second;
    unsigned arrivals = 0; // told to the first machine's subscriber
    WDFCOLLECTION object = nullptr;
    std::u16string link;
};

void takeBoth(KMUTEX& outer, KMUTEX& inner) {
    KeWaitForSingleObject(&outer, Executive, KernelMode, FALSE, nullptr);
    KeWaitForSingleObject(&inner, Executive, KernelMode, FALSE, nullptr);
    KeReleaseMutex(&inner, FALSE);
    KeReleaseMutex(&outer, FALSE);
}

ULONG osBuild() {
    RTL_OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    EXPECT_EQ(RtlGetVersion(&version), STATUS_SUCCESS);
    return version.dwBuildNumber;
}

int features() {
    int registers[4] = {};
    __cpuid(registers, 1);
    return registers[2];
}

void waitForever(PVOID) {
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr);
}

// Leaves a started device, objects, memory, a thread, a held lock and everything else that it can, and is
// stopped by the verifier.
void leaveEverything(Shared& shared, const std::string& capture) {
    platform::MachineOptions options;
    options.osBuild = kOtherBuild;
    options.cpuidLeaf1EcxMask = 0;
    platform::Machine machine(options);
    SmallDevice device;
    DriverScript driver;
    script = &driver;
    const auto body = [&] {
        machine.setParameter(u"Left", ULONG{7});
        machine.onInterfaceChange(kClass, [&](const platform::InterfaceChange&) { ++shared.arrivals; });
        ASSERT_EQ(machine.loadDriver(callbacks::driverEntry), STATUS_SUCCESS);
        usb::HostOptions host;
        host.capture = capture;
        ASSERT_EQ(machine.startStatus(machine.plug(device, host)), STATUS_SUCCESS);
        ASSERT_EQ(enableInterface(driver.device), STATUS_SUCCESS);
        machine.sleep(usb::kMillisecond);
        shared.link = machine.interfaces(kClass).at(0);
        WDF_OBJECT_ATTRIBUTES attributes = attributesOf(driver.device);
        ASSERT_EQ(WdfCollectionCreate(&attributes, &shared.object), STATUS_SUCCESS);
        ASSERT_NE(IoAllocateMdl(allocate(7'000'000), 100, FALSE, FALSE, nullptr), nullptr);
        HANDLE thread = nullptr;
        ASSERT_EQ(
            PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, waitForever, nullptr),
            STATUS_SUCCESS);
        machine.sleep(usb::kMillisecond);
        takeBoth(shared.first, shared.second);
        KeWaitForSingleObject(&shared.second, Executive, KernelMode, FALSE, nullptr);
        EXPECT_EQ(features(), 0);
        EXPECT_EQ(osBuild(), kOtherBuild);
        kernel::armFault(1, kernel::FaultMode::Sticky);
        EXPECT_TRUE(kernel::faultPoint(kernel::FaultKind::Allocation, "test"));
        kernel::requirePoolEmpty("test");
    };
    EXPECT_THROW(machine.run(body), verifier::Stopped);
}

void expectNothingLeft(platform::Machine& machine, const Shared& shared) {
    EXPECT_EQ(kernel::faultPointsReached(), 0u);
    EXPECT_FALSE(kernel::faultFired());
    EXPECT_EQ(kernel::faultDescription(), "");
    EXPECT_EQ(machine.objectCreations(), 0u);
    EXPECT_EQ(machine.poolAllocations(), 0u);
    kernel::requirePoolEmpty("test");
    EXPECT_TRUE(machine.cpuTimes().empty());
    EXPECT_EQ(WdfGetDriver(), nullptr);
    EXPECT_FALSE(machine.parameter(u"Left"));
    EXPECT_TRUE(machine.interfaces(kClass).empty());
    std::shared_ptr<platform::InterfaceHandle> handle;
    EXPECT_EQ(machine.open(shared.link, handle), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(kernel::runningSystemThreads(), 0u);
    kernel::requireThreadsEnded("test");
    EXPECT_NE(features(), 0);
    EXPECT_EQ(osBuild(), platform::MachineOptions().osBuild);
}

// What the machine's link recorded.
std::string usbLog(Shared& shared, const std::string& file) {
    usb::HostOptions host;
    host.capture = file;
    FrameworkBench bench(1, host);
    bench.machine().run([&] {
        platform::Machine& machine = bench.machine();
        expectNothingLeft(machine, shared);

        // Neither the order in which the first machine took the locks nor its owner of the second one counts.
        KeInitializeMutex(&shared.first, 0);
        KeInitializeMutex(&shared.second, 0);
        takeBoth(shared.second, shared.first);

        ASSERT_EQ(machine.loadDriver(callbacks::driverEntry), STATUS_SUCCESS);
        platform::DeviceNode& node = bench.plug();
        ASSERT_EQ(machine.startStatus(node), STATUS_SUCCESS);
        EXPECT_EQ(machine.host(node).link().bulkBytes(), 0u);
        ASSERT_EQ(enableInterface(bench.driver.device), STATUS_SUCCESS);
        machine.sleep(usb::kMillisecond);
        machine.unloadDriver();
    });
    std::ifstream log(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(log), {}};
}

TEST(TwoMachines, TheSecondSeesNothingOfTheFirst) {
    auto shared = std::make_unique<Shared>();
    KeInitializeMutex(&shared->first, 0);
    KeInitializeMutex(&shared->second, 0);
    leaveEverything(*shared, testing::TempDir() + "first_machine.pcapng");
    EXPECT_EQ(shared->arrivals, 1u);
    const std::string second = usbLog(*shared, testing::TempDir() + "second_machine.pcapng");
    EXPECT_FALSE(second.empty());
    EXPECT_EQ(usbLog(*shared, testing::TempDir() + "third_machine.pcapng"), second);
    EXPECT_EQ(shared->arrivals, 1u);
}

// A handle of the first machine belongs to no object of the second.
TEST(TwoMachines, HandlesOfTheFirstAreStaleInTheSecond) {
    auto shared = std::make_unique<Shared>();
    KeInitializeMutex(&shared->first, 0);
    KeInitializeMutex(&shared->second, 0);
    leaveEverything(*shared, {});
    const auto report = run(sim(kernel::Strategy::InOrder), [&] { WdfObjectDelete(shared->object); });
    ASSERT_TRUE(report);
    EXPECT_EQ(report->rule, verifier::Rule::HandleStale);
}

} // namespace

} // namespace platform_test

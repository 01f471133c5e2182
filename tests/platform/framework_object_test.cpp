// Objects: contexts, the tree and the order of its deletion, attributes, and what timers, work items, keys
// and collections promise.
#include "tests/platform/framework_bench.h"

#include <gtest/gtest.h>

namespace {

using namespace platform_test;
using Trace = std::vector<std::string>;

struct NAMED {
    const char* Name;
    UCHAR Tail[8];
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(NAMED, GetNamed)
struct OTHER {
    ULONG Value;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(OTHER, GetOther)

void noteCleanup(WDFOBJECT object) {
    script->note(std::string("cleanup ") + GetNamed(object)->Name);
}
void noteDestroy(WDFOBJECT object) {
    script->note(std::string("destroy ") + GetNamed(object)->Name);
}

WDF_OBJECT_ATTRIBUTES attributesOf(WDFOBJECT parent) {
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, NAMED);
    attributes.ParentObject = parent;
    attributes.EvtCleanupCallback = noteCleanup;
    attributes.EvtDestroyCallback = noteDestroy;
    return attributes;
}

WDFOBJECT makeNamed(const char* name, WDFOBJECT parent) {
    WDF_OBJECT_ATTRIBUTES attributes = attributesOf(parent);
    WDFCOLLECTION collection = nullptr;
    EXPECT_EQ(WdfCollectionCreate(&attributes, &collection), STATUS_SUCCESS);
    GetNamed(collection)->Name = name;
    return collection;
}

// Runs inside device add, where a driver makes its objects, on a device that is then removed.
class FrameworkObjects : public testing::Test {
  protected:
    void inDeviceAdd(const std::function<void(WDFDEVICE)>& body) {
        bench.driver.add = [body](WDFDEVICE device) {
            body(device);
            return STATUS_SUCCESS;
        };
        bench.run([&] {
            EXPECT_EQ(bench.machine().startStatus(bench.plug()), STATUS_SUCCESS);
            bench.driver.trace.clear();
        });
    }

    // Runs on a started device.
    void run(const std::function<void(WDFDEVICE)>& body) {
        bench.run([&] {
            ASSERT_EQ(bench.machine().startStatus(bench.plug()), STATUS_SUCCESS);
            bench.driver.trace.clear();
            body(bench.driver.device);
        });
    }

    Trace takeTrace() { return std::exchange(bench.driver.trace, {}); }

    FrameworkBench bench;
};

// Nothing of a tree is destroyed before all of it has been cleaned up.
TEST_F(FrameworkObjects, ATreeIsCleanedUpAndThenDestroyedFromItsLeavesOn) {
    run([&](WDFDEVICE device) {
        const WDFOBJECT parent = makeNamed("parent", device);
        const WDFOBJECT first = makeNamed("first", parent);
        makeNamed("grandchild", first);
        makeNamed("second", parent);
        WdfObjectDelete(parent);
        EXPECT_EQ(takeTrace(),
                  (Trace{"cleanup grandchild", "cleanup first", "cleanup second", "cleanup parent",
                         "destroy grandchild", "destroy first", "destroy second", "destroy parent"}));
    });
}

TEST_F(FrameworkObjects, AReferenceKeepsTheContextAfterTheDeletion) {
    run([&](WDFDEVICE device) {
        const WDFOBJECT object = makeNamed("kept", device);
        WdfObjectReference(object);
        WdfObjectDelete(object);
        EXPECT_EQ(takeTrace(), (Trace{"cleanup kept"}));
        EXPECT_STREQ(GetNamed(object)->Name, "kept");
        WdfObjectDereference(object);
        EXPECT_EQ(takeTrace(), (Trace{"destroy kept"}));
    });
}

// The tree of a device has gone when its driver gets the packet back that it handed on.
TEST_F(FrameworkObjects, TheDevicesTreeGoesInsideTheRemovePacket) {
    bench.driver.preprocess = [](WDFDEVICE device, PIRP irp) {
        IoSkipCurrentIrpStackLocation(irp);
        const NTSTATUS status = WdfDeviceWdmDispatchPreprocessedIrp(device, irp);
        script->note("handed on");
        return status;
    };
    inDeviceAdd([](WDFDEVICE device) { makeNamed("child", makeNamed("object", device)); });
    EXPECT_EQ(bench.driver.trace, (Trace{"irp 1", "handed on", "irp 2", "suspend", "d0 exit(D3Final)",
                                         "release", "flush", "cleanup", "cleanup child", "cleanup object",
                                         "destroy child", "destroy object", "handed on"}));
}

TEST_F(FrameworkObjects, ContextsAreZeroTypedAndKnowTheirObject) {
    run([&](WDFDEVICE device) {
        WDF_OBJECT_ATTRIBUTES attributes;
        WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, OTHER);
        attributes.ParentObject = device;
        attributes.ContextSizeOverride = 100'000;
        WDFSPINLOCK lock = nullptr;
        ASSERT_EQ(WdfSpinLockCreate(&attributes, &lock), STATUS_SUCCESS);
        OTHER* context = GetOther(lock);
        const auto* bytes = reinterpret_cast<const UCHAR*>(context);
        EXPECT_EQ(std::count(bytes, bytes + 100'000, 0), 100'000);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(context) % 32, 16U); // no more than the framework promises
        EXPECT_EQ(WdfObjectContextGetObject(context), lock);
        EXPECT_EQ(GetNamed(lock), nullptr);
        WdfObjectDelete(lock);
    });
}

TEST_F(FrameworkObjects, AttributesThatTheFrameworkRefusesAreRefused) {
    const struct {
        const char* name;
        std::function<void(WDF_OBJECT_ATTRIBUTES&)> change;
        NTSTATUS status;
    } cases[] = {
        {"size", [](auto& a) { a.Size -= 8; }, STATUS_INFO_LENGTH_MISMATCH},
        {"level of an object without callbacks", [](auto& a) { a.ExecutionLevel = WdfExecutionLevelPassive; },
         STATUS_WDF_EXECUTION_LEVEL_INVALID},
        {"no level", [](auto& a) { a.ExecutionLevel = WdfExecutionLevelInvalid; },
         STATUS_WDF_OBJECT_ATTRIBUTES_INVALID},
        {"no scope", [](auto& a) { a.SynchronizationScope = WdfSynchronizationScopeInvalid; },
         STATUS_WDF_OBJECT_ATTRIBUTES_INVALID},
        {"scope of an object without callbacks",
         [](auto& a) { a.SynchronizationScope = WdfSynchronizationScopeDevice; },
         STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID},
        {"override below the type's size", [](auto& a) { a.ContextSizeOverride = 1; },
         STATUS_WDF_OBJECT_ATTRIBUTES_INVALID},
        {"override without a type",
         [](auto& a) {
             a.ContextTypeInfo = nullptr;
             a.ContextSizeOverride = 8;
         },
         STATUS_WDF_OBJECT_ATTRIBUTES_INVALID},
    };
    run([&](WDFDEVICE device) {
        for (const auto& test : cases) {
            SCOPED_TRACE(test.name);
            WDF_OBJECT_ATTRIBUTES attributes = attributesOf(device);
            test.change(attributes);
            WDFCOLLECTION collection = nullptr;
            EXPECT_EQ(WdfCollectionCreate(&attributes, &collection), test.status);
            EXPECT_EQ(collection, nullptr);
        }
        WDF_WORKITEM_CONFIG config;
        WDF_WORKITEM_CONFIG_INIT(&config, [](WDFWORKITEM) {});
        WDFWORKITEM item = nullptr;
        EXPECT_EQ(WdfWorkItemCreate(&config, nullptr, &item), STATUS_WDF_PARENT_NOT_SPECIFIED);
    });
}

TEST_F(FrameworkObjects, ACollectionKeepsItsItemsInOrder) {
    run([&](WDFDEVICE device) {
        const auto collection = static_cast<WDFCOLLECTION>(makeNamed("collection", device));
        WDFOBJECT items[3];
        for (WDFOBJECT& item : items) {
            item = makeNamed("item", device);
            EXPECT_EQ(WdfCollectionAdd(collection, item), STATUS_SUCCESS);
        }
        WdfCollectionRemove(collection, items[1]);
        EXPECT_EQ(WdfCollectionGetCount(collection), 2u);
        EXPECT_EQ(WdfCollectionGetFirstItem(collection), items[0]);
        EXPECT_EQ(WdfCollectionGetItem(collection, 1), items[2]);
        EXPECT_EQ(WdfCollectionGetItem(collection, 2), nullptr);
        WdfObjectDelete(items[0]);
        EXPECT_EQ(takeTrace(), (Trace{"cleanup item"}));
        WdfCollectionRemoveItem(collection, 0);
        EXPECT_EQ(takeTrace(), (Trace{"destroy item"}));
    });
}

// Timers and work items note when and at which level they ran.

void noteLevel(const char* name) {
    script->note(std::string(name) + " at " + std::to_string(KeGetCurrentIrql()) + " after " +
                 std::to_string(kernel::now() / usb::kMillisecond));
}

WDFWORKITEM makeWorkItem(WDFDEVICE device, PFN_WDF_WORKITEM function) {
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, function);
    WDF_OBJECT_ATTRIBUTES attributes = attributesOf(device);
    WDFWORKITEM item = nullptr;
    EXPECT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
    GetNamed(item)->Name = "item";
    return item;
}

class FrameworkCallbacks : public FrameworkObjects {
  protected:
    WDFTIMER makeTimer(
        WDFDEVICE device, WDF_EXECUTION_LEVEL level, LONG period = 0,
        PFN_WDF_TIMER function = [](WDFTIMER) { noteLevel("timer"); }) {
        WDF_TIMER_CONFIG config;
        WDF_TIMER_CONFIG_INIT_PERIODIC(&config, function, period);
        WDF_OBJECT_ATTRIBUTES attributes;
        WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
        attributes.ParentObject = device;
        attributes.ExecutionLevel = level;
        WDFTIMER timer = nullptr;
        EXPECT_EQ(WdfTimerCreate(&config, &attributes, &timer),
                  level == WdfExecutionLevelPassive && period != 0 ? STATUS_NOT_SUPPORTED : STATUS_SUCCESS);
        return timer;
    }

    void sleep(LONGLONG milliseconds) { bench.machine().sleep(milliseconds * usb::kMillisecond); }
};

TEST_F(FrameworkCallbacks, TimersRunAtTheirLevelWhenTheyAreDue) {
    run([&](WDFDEVICE device) {
        makeTimer(device, WdfExecutionLevelPassive, 10);
        const std::pair<WDF_EXECUTION_LEVEL, std::string> levels[] = {
            {WdfExecutionLevelPassive, "0"}, {WdfExecutionLevelInheritFromParent, "2"}};
        for (const auto& [level, irql] : levels) {
            const kernel::Time before = kernel::now() / usb::kMillisecond;
            const WDFTIMER timer = makeTimer(device, level);
            EXPECT_FALSE(WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(10)));
            EXPECT_TRUE(WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(20)));
            sleep(100);
            EXPECT_EQ(takeTrace(), (Trace{"timer at " + irql + " after " + std::to_string(before + 20)}));
            EXPECT_FALSE(WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(20)));
            EXPECT_TRUE(WdfTimerStop(timer, TRUE));
            EXPECT_FALSE(WdfTimerStop(timer, FALSE));
            sleep(100);
            EXPECT_EQ(takeTrace(), Trace{});
        }
        const WDFTIMER periodic = makeTimer(device, WdfExecutionLevelInheritFromParent, 10);
        WdfTimerStart(periodic, WDF_REL_TIMEOUT_IN_MS(5));
        sleep(50);
        EXPECT_TRUE(WdfTimerStop(periodic, TRUE));
        EXPECT_EQ(takeTrace().size(), 5u);
        WdfTimerStart(periodic, WDF_REL_TIMEOUT_IN_MS(5));
        WdfObjectDelete(periodic);
        sleep(50);
        EXPECT_EQ(takeTrace(), Trace{});
    });
}

// The callback is under way when the stop comes, and tries to start its timer again after that.
TEST_F(FrameworkCallbacks, AStopThatWaitsRefusesAStart) {
    run([&](WDFDEVICE device) {
        const WDFTIMER timer = makeTimer(device, WdfExecutionLevelPassive, 0, [](WDFTIMER self) {
            LARGE_INTEGER interval;
            interval.QuadPart = WDF_REL_TIMEOUT_IN_MS(10);
            KeDelayExecutionThread(KernelMode, FALSE, &interval);
            EXPECT_FALSE(WdfTimerStart(self, WDF_REL_TIMEOUT_IN_MS(100)));
            script->note("timer");
        });
        for (const bool refuses : {true, false}) {
            WdfTimerStart(timer, WDF_REL_TIMEOUT_IN_MS(10));
            sleep(refuses ? 15 : 25);
            EXPECT_TRUE(
                WdfTimerStop(timer, TRUE)); // the start was refused, or the timer it started is stopped
            sleep(1000);
            EXPECT_EQ(takeTrace(), Trace{"timer"});
        }
    });
}

TEST_F(FrameworkCallbacks, AWorkItemRunsOncePerEnqueueAtPassiveLevelAndIsWaitedFor) {
    run([&](WDFDEVICE device) {
        const WDFWORKITEM item = makeWorkItem(device, [](WDFWORKITEM) {
            LARGE_INTEGER interval;
            interval.QuadPart = WDF_REL_TIMEOUT_IN_MS(10);
            KeDelayExecutionThread(KernelMode, FALSE, &interval);
            script->note("worked at " + std::to_string(KeGetCurrentIrql()));
        });
        WdfWorkItemEnqueue(item);
        WdfWorkItemEnqueue(item); // it is queued already
        WdfWorkItemFlush(item);
        EXPECT_EQ(takeTrace(), (Trace{"worked at 0"}));
        WdfWorkItemEnqueue(item);
        WdfObjectDelete(item);
        const Trace waitedFor = {"worked at 0", "cleanup item"};
        EXPECT_EQ(Trace(bench.driver.trace.begin(), bench.driver.trace.begin() + 2), waitedFor);
        sleep(1);
        EXPECT_EQ(takeTrace().back(), "destroy item");
    });
}

// The device may go while such an item is queued or runs; seeds decide which.
TEST(FrameworkWorkItem, AWorkItemMayDeleteItselfWhileItsDeviceGoes) {
    for (std::uint64_t seed = 1; seed <= 50; seed++) {
        FrameworkBench seeded(seed);
        seeded.run([&] {
            seeded.plug();
            makeWorkItem(seeded.driver.device, [](WDFWORKITEM) {});
            const WDFWORKITEM item = makeWorkItem(seeded.driver.device, [](WDFWORKITEM self) {
                kernel::schedulingPoint(kernel::Point::Yield);
                script->note("worked");
                WdfObjectDelete(self);
            });
            WdfWorkItemEnqueue(item);
        });
        const Trace& trace = seeded.driver.trace;
        EXPECT_EQ(std::count(trace.begin(), trace.end(), "worked"), 1) << "SIM_SEED=" << seed;
        EXPECT_EQ(std::count(trace.begin(), trace.end(), "destroy item"), 2) << "SIM_SEED=" << seed;
    }
}

TEST_F(FrameworkObjects, RegistryValuesAreTypedAndMeasured) {
    auto& machine = bench.machine();
    bench.driver.entry = [&](WDFDRIVER driver) {
        WDFKEY key = nullptr;
        EXPECT_EQ(WdfDriverOpenParametersRegistryKey(driver, STANDARD_RIGHTS_ALL, nullptr, &key),
                  STATUS_SUCCESS);
        DECLARE_CONST_UNICODE_STRING(number, u"Number");
        DECLARE_CONST_UNICODE_STRING(bytes, u"Bytes");
        DECLARE_CONST_UNICODE_STRING(missing, u"Missing");
        ULONG value = 7;
        EXPECT_EQ(WdfRegistryQueryULong(key, &missing, &value), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(WdfRegistryQueryULong(key, &bytes, &value), STATUS_OBJECT_TYPE_MISMATCH);
        EXPECT_EQ(value, 7u);
        EXPECT_EQ(WdfRegistryAssignULong(key, &number, 42), STATUS_SUCCESS);
        EXPECT_EQ(WdfRegistryQueryULong(key, &number, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, 42u);
        UCHAR buffer[4] = {};
        ULONG length = 0;
        EXPECT_EQ(WdfRegistryQueryValue(key, &bytes, 2, buffer, &length, nullptr), STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(length, 3u);
        EXPECT_EQ(buffer[0], 0);
        EXPECT_EQ(WdfRegistryQueryValue(key, &bytes, 4, buffer, &length, nullptr), STATUS_SUCCESS);
        EXPECT_EQ(buffer[2], 3);
        EXPECT_EQ(WdfRegistryQueryValue(key, &bytes, 0, nullptr, &length, nullptr), STATUS_BUFFER_OVERFLOW);
        const UNICODE_STRING odd = {3, 4, bytes.Buffer};
        EXPECT_EQ(WdfRegistryQueryULong(key, &odd, &value), STATUS_INVALID_PARAMETER);
        WdfRegistryClose(key);
        return STATUS_SUCCESS;
    };
    machine.run([&] {
        machine.setParameter(u"Bytes", std::vector<std::uint8_t>{1, 2, 3});
        EXPECT_EQ(machine.loadDriver(callbacks::driverEntry), STATUS_SUCCESS);
        EXPECT_EQ(machine.parameter(u"number"), platform::RegistryValue(ULONG{42}));
        machine.unloadDriver();
    });
}

} // namespace

// Plugging in, showing, sleeping and removing, while other tasks interfere. Under explored schedules each
// seed fixes which task runs when; on real threads and the real clock the sanitizers check the accesses to
// memory. Each run ends with the driver unloaded and none of its resources left.
#include "tests/system/rig.h"

#include "platform/kernel/fault_points.h"

#include <fmt/format.h>

namespace system_test {
namespace {

constexpr unsigned kSchedules = 60;

PlugOptions exploredAdapter() {
    PlugOptions options = adapter();
    options.inlineCompletion = usb::InlineCompletion::Explored;
    return options;
}

// An adapter of revision 0 has no power stages to wait for, which matters on the real clock.
PlugOptions fastPlug() {
    return adapter(0);
}

void pullCableInMidStream(Session& session, const PlugOptions& plug) {
    startDesktop(session, plug);
    // A frame takes 2.3 ms.
    session.machine().sleep(static_cast<usb::Time>(kernel::choose(60)) * kMillisecond / 10);
    {
        ClientThread presenter = presentInBackground(session, 20, 0);
        session.surpriseRemove();
    }
    showDesktop(session, plug, gradient());
}

void sleepInMidStream(Session& session, const PlugOptions& plug, unsigned rounds) {
    startDesktop(session, plug);
    for (unsigned round = 0; round < rounds; round++) {
        {
            ClientThread presenter = presentInBackground(session, 6);
            session.suspend();
            session.resume();
        }
        show(session, noise(round), 3 * kSecond);
    }
}

void attachAndDetach(Session& session, const PlugOptions& plug, unsigned rounds) {
    session.plug(plug);
    for (unsigned round = 0; round < rounds; round++) {
        session.attachMonitor({});
        switchOn(session);
        show(session, round % 2 == 0 ? bars() : gradient());
        session.detachMonitor();
    }
}

// Frames, frame buffers, pointer, frame errors and display power at once.
void useFromSeveralThreads(Session& session, const PlugOptions& plug, unsigned frames) {
    plugWithMonitor(session, plug);
    switchOn(session);
    desktop::Client& client = session.client();
    {
        ClientThread presenter("presenter", [&] {
            for (unsigned frame = 0; frame < frames; frame++) {
                EXPECT_EQ(STATUS_SUCCESS,
                          client.present(1 + frame % 3, frame % 2 == 0 ? bars() : gradient()));
                session.machine().sleep(kMillisecond);
                if (frame % 4 == 3) {
                    EXPECT_EQ(STATUS_SUCCESS, client.destroyFrameBuffer(1 + frame % 3));
                }
            }
        });
        ClientThread second("second presenter", [&] {
            for (unsigned frame = 0; frame < frames; frame++) {
                EXPECT_EQ(STATUS_SUCCESS, client.present(2, bars()));
                session.machine().sleep(kMillisecond);
            }
        });
        ClientThread pointer("pointer", [&] {
            for (unsigned step = 0; step < 2 * frames; step++) {
                EXPECT_EQ(STATUS_SUCCESS,
                          client.setPointer(desktop::builtinPointer(step % 2 == 0 ? "halo" : "beam")));
                const int at = static_cast<int>(step) * 15;
                EXPECT_EQ(STATUS_SUCCESS, client.movePointer(at, at, step % 5 != 4));
                session.machine().sleep(kMillisecond / 2);
            }
            EXPECT_EQ(STATUS_SUCCESS, client.movePointer(0, 0, false));
        });
        ClientThread errors("frame errors", [&] {
            for (unsigned error = 0; error < 5; error++) {
                session.atHardware([](model::Adapter& device) { device.reportFrameError(); });
                session.machine().sleep(2 * kMillisecond);
            }
        });
        for (unsigned round = 0; round < 3; round++) {
            EXPECT_EQ(STATUS_SUCCESS, client.setDisplayPower(round % 2 == 1));
            session.machine().sleep(2 * kMillisecond);
        }
    }
    EXPECT_EQ(STATUS_SUCCESS, client.setDisplayPower(true));
    session.present(7, gradient());
    expectPicture(session);
}

// Allows any number of returns from 16 to 24 bits.
const std::vector<rig::Setting> kManyReturns = {setting("DynamicAdjustPixelBytesAtRunTimeThreshold", 100)};

TEST(FreeRunning, ShowsPictures) {
    for (const usb::Speed link : {usb::Speed::Super, usb::Speed::High}) {
        runSession(freeRunning(), [&](Session& session) {
            showDesktop(session, adapter(0, link));
            for (unsigned frame = 0; frame < 10; frame++) {
                session.present(kDesktop, noise(frame));
            }
            show(session, gradient());
        });
    }
}

TEST(FreeRunning, FollowsAMonitor) {
    runSession(freeRunning(), [](Session& session) { attachAndDetach(session, adapter(), 2); });
}

TEST(FreeRunning, SurvivesACablePulledInMidStream) {
    runSession(freeRunning(), [](Session& session) {
        pullCableInMidStream(session, fastPlug());
        session.remove();
        pullCableInMidStream(session, fastPlug());
    });
}

TEST(FreeRunning, SleepsInMidStream) {
    runSession(freeRunning(), [](Session& session) { sleepInMidStream(session, adapter(), 1); });
}

TEST(FreeRunning, ServesSeveralThreadsOfTheClient) {
    runSession(freeRunning(kManyReturns),
               [](Session& session) { useFromSeveralThreads(session, adapter(), 60); });
}

TEST(Lifecycle, CompletionsInsideTheSend) {
    explore(kSchedules, [](Session& session) {
        showDesktop(session, exploredAdapter());
        for (unsigned frame = 0; frame < 5; frame++) {
            show(session, noise(frame));
        }
        switchOffAndOn(session);
        show(session, gradient());
    });
}

TEST(Lifecycle, SurvivesACablePulledInMidStream) {
    explore(2 * kSchedules, [](Session& session) { pullCableInMidStream(session, exploredAdapter()); });
}

TEST(Lifecycle, SleepsInMidStream) {
    explore(kSchedules, [](Session& session) { sleepInMidStream(session, exploredAdapter(), 3); });
}

TEST(Lifecycle, FollowsAMonitorTenTimes) {
    explore(20, [](Session& session) { attachAndDetach(session, exploredAdapter(), 10); });
}

TEST(Lifecycle, ServesSeveralThreadsOfTheClient) {
    explore(
        kSchedules, [](Session& session) { useFromSeveralThreads(session, exploredAdapter(), 12); },
        kManyReturns);
}

TEST(Lifecycle, SleepsOnEveryRevisionAndInEveryFormat) {
    const std::vector<rig::Setting> compressed = {setting("Usb3PixelFormatTransformCompressionEnable", 1)};
    for (unsigned revision = 0; revision <= 2; revision++) {
        for (const auto& settings : {std::vector<rig::Setting>(), compressed}) {
            SCOPED_TRACE(fmt::format("revision {}, {}", revision, settings.empty() ? "plain" : "compressed"));
            runSession(inOrder(settings), [&](Session& session) {
                showDesktop(session, adapter(revision));
                for (unsigned round = 0; round < 3; round++) {
                    session.suspend();
                    session.machine().sleep(kSecond);
                    // A sleep does not switch revision 0 off: its monitor keeps the last frame.
                    EXPECT_EQ(revision == 0, session.adapter().picture().has_value());
                    session.resume();
                    expectPicture(session, 3 * kSecond); // without a new present
                    show(session, noise(round), 3 * kSecond);
                }
            });
        }
    }
}

// The last state of a connector that bounces is the one that counts.
TEST(Lifecycle, FollowsABouncingMonitor) {
    explore(kSchedules, [](Session& session) {
        const auto wait = [&] {
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(3)) * kMillisecond);
        };
        session.plug(exploredAdapter());
        for (unsigned pulse = 0; pulse < 6; pulse++) {
            session.atHardware([](model::Adapter& device) { device.attachMonitor({}); });
            wait();
            session.atHardware([](model::Adapter& device) { device.detachMonitor(); });
            wait();
        }
        session.attachMonitor({});
        for (const Surface* picture : {&bars(), &gradient()}) {
            session.machine().sleep(kSecond);
            switchOn(session);
            show(session, *picture);
            session.atHardware([](model::Adapter& device) { device.pulseHotPlug(); });
        }
    });
}

TEST(Lifecycle, RestartsAfterAStopOfTheDevice) {
    explore(kSchedules, [](Session& session) {
        showDesktop(session, exploredAdapter());
        for (unsigned round = 0; round < 3; round++) {
            session.machine().stop(session.node());
            EXPECT_TRUE(session.client().waitForDeparture(kSecond));
            require(session.machine().restart(session.node()), "restarting");
            switchOn(session);
            show(session, noise(round));
        }
    });
}

// The pipe is halted for good, and the driver gives the device up until it is stopped and started.
TEST(Lifecycle, RestartsAfterAStall) {
    explore(20, [](Session& session) {
        showDesktop(session, exploredAdapter());
        session.adapter().stall(model::kBulkOutEndpoint);
        session.machine().sleep(100 * kMillisecond);
        EXPECT_EQ(STATUS_DEVICE_REMOVED, session.client().present(kDesktop, gradient()));
        session.machine().stop(session.node());
        EXPECT_TRUE(session.client().waitForDeparture(kSecond));
        require(session.machine().restart(session.node()), "restarting");
        switchOn(session);
        show(session, gradient());
    });
}

TEST(Lifecycle, HoldsNoMoreAfterEveryStart) {
    runSession(inOrder(), [](Session& session) {
        plugWithMonitor(session);
        const auto restart = [&] {
            session.machine().stop(session.node());
            require(session.machine().restart(session.node()), "restarting");
        };
        restart();
        const auto held = session.machine().held();
        for (unsigned start = 0; start < 5; start++) {
            restart();
        }
        EXPECT_EQ(held, session.machine().held());
    });
}

// The count decides about compression: a release after a failed preparation must not lower it.
TEST(Lifecycle, CountsPreparedAdaptersOnly) {
    runSession(inOrder(), [](Session& session) {
        const auto expectCount = [&](ULONG count) {
            EXPECT_EQ(session.machine().parameter(u"CurrentNumberOfDevices"), platform::RegistryValue(count));
        };
        session.plug(adapter());
        model::Adapter unsupported(session.machine().clock(), adapter(3).adapter);
        platform::DeviceNode& node = session.machine().plug(unsupported);
        EXPECT_FALSE(NT_SUCCESS(session.machine().startStatus(node)));
        session.machine().remove(node);
        expectCount(1);

        // Counted once, and then not prepared again.
        model::Adapter second(session.machine().clock(), adapter().adapter);
        platform::DeviceNode& other = session.machine().plug(second);
        expectCount(2);
        session.machine().stop(other);
        expectCount(1);
        kernel::armFault(1, kernel::FaultMode::Once);
        EXPECT_FALSE(NT_SUCCESS(session.machine().restart(other)));
        kernel::disarmFault();
        expectCount(1);
        session.machine().remove(other);
        session.remove();
        expectCount(0);
    });
}

TEST(Lifecycle, ChangesModesWhileFramesAreShown) {
    explore(kSchedules / 2, [](Session& session) {
        plugWithMonitor(session, exploredAdapter());
        switchOn(session);
        constexpr unsigned kSizes[][2] = {{640, 480}, {800, 600}, {848, 480}};
        for (unsigned round = 0; round < 4; round++) {
            const unsigned width = kSizes[round % 3][0];
            const unsigned height = kSizes[round % 3][1];
            ClientThread presenter = presentInBackground(session, 10);
            session.setDisplayPower(false);
            session.createFrameBuffer(10 + round, width, height);
            session.setDisplayPower(true);
            session.present(10 + round, pattern("scroll", width, height, round));
        }
        session.present(13, noise(0));
        expectPicture(session, noise(0));
    });
}

// The client closes the interface while its frames are being shown, and opens it again.
TEST(Lifecycle, ServesTheNextSessionOfAClient) {
    explore(kSchedules, [](Session& session) {
        plugWithMonitor(session, exploredAdapter());
        for (unsigned round = 0; round < 3; round++) {
            switchOn(session);
            session.present(kDesktop, round % 2 == 0 ? bars() : gradient());
            if (kernel::choose(2) == 0) {
                expectPicture(session);
            }
            session.client().close();
        }
    });
}

// The monitor is detached while the display is being switched on, and attached again while the device sleeps.
TEST(Lifecycle, RecoversFromADetachDuringDisplayOn) {
    explore(kSchedules, [](Session& session) {
        plugWithMonitor(session, exploredAdapter());
        session.openClient();
        require(session.client().createFrameBuffer(kDesktop, kWidth, kHeight), "creating");
        {
            ClientThread client("client", [&] {
                (void)session.client().setDisplayPower(true);
                (void)session.client().present(kDesktop, bars());
                (void)session.client().setDisplayPower(false);
                (void)session.client().setDisplayPower(true);
            });
            session.atHardware([](model::Adapter& device) { device.detachMonitor(); });
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(20)) * kMillisecond);
            session.suspend();
            session.atHardware([](model::Adapter& device) { device.attachMonitor({}); });
            session.resume();
        }
        expectRecovery(session);
    });
}

// The frame update thread stops the stream to adjust the pixel format while other tasks switch the display,
// the monitor or the device.
TEST(Lifecycle, RecoversFromASwitchDuringAnAdjustment) {
    explore(kSchedules, [](Session& session) {
        startDesktop(session, exploredAdapter());
        {
            ClientThread presenter = presentInBackground(session, 10);
            ClientThread errors("frame errors", [&] {
                for (unsigned error = 0; error < 4; error++) {
                    session.atHardware([](model::Adapter& device) { device.reportFrameError(); });
                    session.machine().sleep(2 * kMillisecond);
                }
            });
            switch (kernel::choose(4)) {
            case 0:
                switchOffAndOn(session);
                break;
            case 1:
                session.atHardware([](model::Adapter& device) { device.detachMonitor(); });
                session.machine().sleep(5 * kMillisecond);
                session.atHardware([](model::Adapter& device) { device.attachMonitor({}); });
                break;
            case 2:
                session.suspend();
                session.resume();
                break;
            default:
                session.machine().stop(session.node());
                require(session.machine().restart(session.node()), "restarting");
                break;
            }
        }
        expectRecovery(session);
    });
}

TEST(Lifecycle, PlugsShowsAndUnplugsUnderAThousandSchedules) {
    explore(1000, [](Session& session) {
        // A slower link repeats the picture less often; the orders of plug, show and unplug stay the same.
        PlugOptions slow = adapter();
        slow.bandwidth = 100'000'000;
        showDesktop(session, slow);
        session.remove();
    });
}

} // namespace
} // namespace system_test

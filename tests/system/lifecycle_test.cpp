// The life of an adapter under explored schedules. Each seed fixes which task runs when; each run ends with
// the driver unloaded and nothing of it left.
#include "tests/system/rig.h"

#include "platform/kernel/fault_points.h"

#include <chrono>
#include <cstdio>
#include <fmt/format.h>

namespace system_test {
namespace {

constexpr unsigned kSchedules = 60;

const Surface& bars() {
    static const Surface picture = pattern("bars", kWidth, kHeight);
    return picture;
}
const Surface& gradient() {
    static const Surface picture = pattern("gradient", kWidth, kHeight);
    return picture;
}

PlugOptions exploredAdapter() {
    PlugOptions options = adapter();
    options.inlineCompletion = usb::InlineCompletion::Explored;
    return options;
}

TEST(Lifecycle, PlugAttachShowUnplug) {
    explore(kSchedules, [](Session& session) {
        session.plug(adapter());
        session.attachMonitor({});
        switchOn(session);
        session.present(kDesktop, bars());
        expectPicture(session);
        session.present(kDesktop, gradient());
        expectPicture(session);
        session.remove();
    });
}

TEST(Lifecycle, CompletionsInsideTheSend) {
    explore(kSchedules, [](Session& session) {
        showDesktop(session, exploredAdapter(), bars());
        expectPicture(session);
        for (unsigned frame = 0; frame < 5; frame++) {
            session.present(kDesktop, pattern("noise", kWidth, kHeight, frame));
            expectPicture(session);
        }
        session.setDisplayPower(false);
        session.setDisplayPower(true);
        session.present(kDesktop, gradient());
        expectPicture(session);
    });
}

TEST(Lifecycle, CableIsPulledInTheMiddleOfAFrame) {
    explore(2 * kSchedules, [](Session& session) {
        showDesktop(session, exploredAdapter(), bars());
        // A frame takes 2.3 ms.
        session.machine().sleep(static_cast<usb::Time>(kernel::choose(60)) * kMillisecond / 10);
        {
            ClientThread presenter("presenter", [&] {
                for (unsigned frame = 0; frame < 10; frame++) {
                    (void)session.client().present(kDesktop, gradient());
                }
            });
            session.surpriseRemove();
        }
        showDesktop(session, exploredAdapter(), gradient());
        expectPicture(session);
    });
}

TEST(Lifecycle, SleepAndResumeInMidStream) {
    explore(kSchedules, [](Session& session) {
        showDesktop(session, exploredAdapter(), bars());
        for (unsigned round = 0; round < 3; round++) {
            {
                ClientThread presenter("presenter", [&] {
                    for (unsigned frame = 0; frame < 6; frame++) {
                        (void)session.client().present(kDesktop, frame % 2 == 0 ? gradient() : bars());
                        session.machine().sleep(kMillisecond);
                    }
                });
                session.suspend();
                session.resume();
            }
            session.present(kDesktop, pattern("noise", kWidth, kHeight, round));
            expectPicture(session, 3 * kSecond);
        }
    });
}

TEST(Lifecycle, SleepAndResumeOnEveryRevisionAndFormat) {
    const std::vector<rig::Setting> compressed = {setting("Usb3PixelFormatTransformCompressionEnable", 1)};
    for (unsigned revision = 0; revision <= 2; revision++) {
        for (const auto& settings : {std::vector<rig::Setting>(), compressed}) {
            SCOPED_TRACE(fmt::format("revision {}, {}", revision, settings.empty() ? "plain" : "compressed"));
            runSession(inOrder(settings), [&](Session& session) {
                showDesktop(session, adapter(revision), bars());
                expectPicture(session);
                for (unsigned round = 0; round < 3; round++) {
                    session.suspend();
                    session.machine().sleep(kSecond);
                    // Revision 0 has no power to take away: its screen keeps the last frame.
                    EXPECT_EQ(revision == 0, session.adapter().picture().has_value());
                    session.resume();
                    expectPicture(session, 3 * kSecond); // without a new present
                    session.present(kDesktop, pattern("noise", kWidth, kHeight, round));
                    expectPicture(session, 3 * kSecond);
                }
            });
        }
    }
}

TEST(Lifecycle, MonitorComesAndGoesTenTimes) {
    explore(20, [](Session& session) {
        session.plug(exploredAdapter());
        for (unsigned round = 0; round < 10; round++) {
            session.attachMonitor({});
            switchOn(session);
            session.present(kDesktop, round % 2 == 0 ? bars() : gradient());
            expectPicture(session);
            session.detachMonitor();
        }
    });
}

// The monitor flutters: what counts is where it comes to rest.
TEST(Lifecycle, MonitorFlutters) {
    explore(kSchedules, [](Session& session) {
        session.plug(exploredAdapter());
        for (unsigned pulse = 0; pulse < 6; pulse++) {
            session.adapter().attachMonitor({});
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(3)) * kMillisecond);
            session.adapter().detachMonitor();
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(3)) * kMillisecond);
        }
        session.attachMonitor({});
        session.machine().sleep(kSecond);
        switchOn(session);
        session.present(kDesktop, bars());
        expectPicture(session);
        session.adapter().pulseHotPlug();
        session.machine().sleep(kSecond);
        switchOn(session);
        session.present(kDesktop, gradient());
        expectPicture(session);
    });
}

TEST(Lifecycle, DeviceIsStoppedAndRestarted) {
    explore(kSchedules, [](Session& session) {
        showDesktop(session, exploredAdapter(), bars());
        expectPicture(session);
        for (unsigned round = 0; round < 3; round++) {
            session.machine().stop(session.node());
            EXPECT_TRUE(session.client().waitForDeparture(kSecond));
            require(session.machine().restart(session.node()), "restarting");
            switchOn(session);
            session.present(kDesktop, pattern("noise", kWidth, kHeight, round));
            expectPicture(session);
        }
    });
}

// Three threads of the client at once: power, frames, pointer.
TEST(Lifecycle, ThreadsOfTheClientDoNotMind) {
    explore(kSchedules, [](Session& session) {
        session.attachMonitor({});
        session.plug(exploredAdapter());
        switchOn(session);
        desktop::Client& client = session.client();
        {
            ClientThread presenter("presenter", [&] {
                for (unsigned frame = 0; frame < 12; frame++) {
                    EXPECT_EQ(STATUS_SUCCESS,
                              client.present(1 + frame % 3, frame % 2 == 0 ? bars() : gradient()));
                    session.machine().sleep(kMillisecond);
                    if (frame % 4 == 3) {
                        EXPECT_EQ(STATUS_SUCCESS, client.destroyFrameBuffer(1 + frame % 3));
                    }
                }
            });
            ClientThread pointer("pointer", [&] {
                EXPECT_EQ(STATUS_SUCCESS, client.setPointer(desktop::builtinPointer("halo")));
                for (int step = 0; step < 25; step++) {
                    EXPECT_EQ(STATUS_SUCCESS, client.movePointer(step * 20, step * 15, step % 5 != 4));
                    session.machine().sleep(kMillisecond / 2);
                }
                EXPECT_EQ(STATUS_SUCCESS, client.movePointer(0, 0, false));
            });
            for (unsigned round = 0; round < 3; round++) {
                EXPECT_EQ(STATUS_SUCCESS, client.setDisplayPower(round % 2 == 1));
                session.machine().sleep(2 * kMillisecond);
            }
        }
        EXPECT_EQ(STATUS_SUCCESS, client.setDisplayPower(true));
        session.present(7, bars());
        expectPicture(session);
    });
}

TEST(Lifecycle, ModesChangeWhileFramesAreShown) {
    explore(kSchedules / 2, [](Session& session) {
        session.attachMonitor({});
        session.plug(exploredAdapter());
        switchOn(session);
        constexpr unsigned kSizes[][2] = {{640, 480}, {800, 600}, {848, 480}};
        for (unsigned round = 0; round < 4; round++) {
            const unsigned width = kSizes[round % 3][0];
            const unsigned height = kSizes[round % 3][1];
            ClientThread presenter("presenter", [&] {
                for (unsigned frame = 0; frame < 10; frame++) {
                    (void)session.client().present(kDesktop, bars());
                    session.machine().sleep(kMillisecond);
                }
            });
            session.setDisplayPower(false);
            session.createFrameBuffer(10 + round, width, height);
            session.setDisplayPower(true);
            const Surface picture = pattern("scroll", width, height, round);
            session.present(10 + round, picture);
        }
        const Surface last = pattern("noise", 640, 480);
        session.present(13, last);
        expectPicture(session, last);
    });
}

// The client leaves while its frames are being shown, and comes back.
TEST(Lifecycle, ClientLeavesAndComesBack) {
    explore(kSchedules, [](Session& session) {
        session.attachMonitor({});
        session.plug(exploredAdapter());
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

// The monitor goes while the display is being switched on, and the device sleeps while it comes.
TEST(Lifecycle, MonitorAndPowerMeet) {
    explore(kSchedules, [](Session& session) {
        session.attachMonitor({});
        session.plug(exploredAdapter());
        session.openClient();
        require(session.client().createFrameBuffer(kDesktop, kWidth, kHeight), "creating");
        {
            ClientThread client("client", [&] {
                (void)session.client().setDisplayPower(true);
                (void)session.client().present(kDesktop, bars());
                (void)session.client().setDisplayPower(false);
                (void)session.client().setDisplayPower(true);
            });
            session.adapter().detachMonitor();
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(20)) * kMillisecond);
            session.suspend();
            session.adapter().attachMonitor({});
            session.resume();
        }
        session.machine().sleep(kSecond);
        if (!session.client().isOpen()) {
            session.openClient();
        }
        session.createFrameBuffer(2, kWidth, kHeight);
        session.setDisplayPower(false);
        session.setDisplayPower(true);
        session.present(2, gradient());
        expectPicture(session);
    });
}

// A send that is refused must neither lose a render context nor end the stream. A transfer that fails leaves
// the pipe halted: the adapter is given up, and works after a replug.
TEST(Lifecycle, RefusedSendsDoNotStopTheStream) {
    explore(2 * kSchedules, [](Session& session) {
        showDesktop(session, exploredAdapter(), bars());
        expectPicture(session);
        for (unsigned round = 0; round < 6; round++) {
            kernel::armFault(1 + kernel::choose(6),
                             round < 5 ? kernel::FaultMode::Once : kernel::FaultMode::Sticky);
            session.machine().sleep(20 * kMillisecond);
            kernel::disarmFault();
            const std::string fault = kernel::faultDescription();
            const NTSTATUS status = session.client().present(kDesktop, gradient());
            if (fault.find("WdfRequestSend") == std::string::npos) {
                EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_DEVICE_REMOVED) << fault;
                break;
            }
            ASSERT_EQ(STATUS_SUCCESS, status) << fault;
            expectPicture(session, gradient());
            session.present(kDesktop, pattern("noise", kWidth, kHeight, round));
            expectPicture(session);
        }
        session.adapter().clearViolations(); // frames without their zero-length transfers
        session.remove();
        showDesktop(session, exploredAdapter(), gradient());
        expectPicture(session);
    });
}

// Frame errors halve the pixels' bytes, a quiet check period gives them back.
TEST(Lifecycle, OutputFallsBackTo16BitsAndReturns) {
    const std::vector<rig::Setting> settings = {setting("DynamicAdjustPixelBytesAtRunTimeThreshold", 2)};
    explore(
        kSchedules / 6,
        [](Session& session) {
            PlugOptions options = exploredAdapter();
            options.bandwidth = 61'000'000; // 15 ms a frame: half a minute is not ten thousand transfers
            showDesktop(session, options, bars());
            expectPicture(session);
            const auto formatNow = [&] {
                const std::optional<model::OutputMode> mode = session.adapter().outputMode();
                return mode ? model::name(mode->format) : "none";
            };
            // A frame update looks at the state of things: pictures keep coming.
            const auto presentUntil = [&](model::PixelFormat format, usb::Time timeout) {
                unsigned frame = 0;
                return session.waitFor(timeout, [&] {
                    session.present(kDesktop, ++frame % 2 == 0 ? bars() : gradient());
                    session.machine().sleep(50 * kMillisecond);
                    return formatNow() == model::name(format);
                });
            };
            for (unsigned round = 0; round < 2; round++) {
                session.adapter().reportFrameError();
                EXPECT_TRUE(presentUntil(model::PixelFormat::Rgb565, kSecond));
                expectPicture(session);
                EXPECT_TRUE(presentUntil(model::PixelFormat::Bgr24, 12 * kSecond));
                expectPicture(session);
            }
            // The third time it stays.
            session.adapter().reportFrameError();
            EXPECT_TRUE(presentUntil(model::PixelFormat::Rgb565, kSecond));
            EXPECT_FALSE(presentUntil(model::PixelFormat::Bgr24, 12 * kSecond));
            expectPicture(session);
        },
        settings);
}

// The adjustment stops the stream on the frame update thread while others switch, detach and sleep.
TEST(Lifecycle, AdjustmentMeetsSwitching) {
    explore(2 * kSchedules, [](Session& session) {
        showDesktop(session, exploredAdapter(), bars());
        {
            ClientThread presenter("presenter", [&] {
                for (unsigned frame = 0; frame < 10; frame++) {
                    (void)session.client().present(kDesktop, frame % 2 == 0 ? gradient() : bars());
                    session.machine().sleep(kMillisecond);
                }
            });
            ClientThread troublemaker("troublemaker", [&] {
                for (unsigned error = 0; error < 4; error++) {
                    session.adapter().reportFrameError();
                    session.machine().sleep(2 * kMillisecond);
                }
            });
            switch (kernel::choose(4)) {
            case 0:
                session.setDisplayPower(false);
                session.setDisplayPower(true);
                break;
            case 1:
                session.adapter().detachMonitor();
                session.machine().sleep(5 * kMillisecond);
                session.adapter().attachMonitor({});
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
        session.machine().sleep(kSecond);
        if (!session.client().isOpen()) {
            session.openClient();
        }
        session.createFrameBuffer(2, kWidth, kHeight);
        session.setDisplayPower(false);
        session.setDisplayPower(true);
        session.present(2, gradient());
        expectPicture(session);
    });
}

// How long a thousand schedules take is printed, not judged: the machine that tests may be busy.
TEST(Lifecycle, AThousandSchedulesOfPlugShowUnplug) {
    const auto begin = std::chrono::steady_clock::now();
    explore(1000, [](Session& session) {
        // A slower link repeats the picture less often; the orders of plug, show and unplug stay the same.
        rig::PlugOptions slow = adapter();
        slow.bandwidth = 100'000'000;
        showDesktop(session, slow, bars());
        expectPicture(session);
        session.remove();
    });
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    if (!replaysOneSeed()) {
        std::printf("1,000 schedules of plug, show, unplug: %.1f s\n", took.count());
        RecordProperty("seconds", fmt::format("{:.1f}", took.count()));
    }
}

// Ten minutes of somebody's morning.
TEST(Lifecycle, TenMinutes) {
    runSession(explored(4), [](Session& session) {
        constexpr usb::Time kEnd = 600 * kSecond;
        constexpr unsigned kSizes[][2] = {{640, 480}, {800, 600}, {1024, 768}, {1280, 720}};
        session.attachMonitor({});
        session.plug(adapter());
        platform::Machine& machine = session.machine();
        unsigned round = 0;
        while (machine.clock().now() < kEnd) {
            const unsigned width = kSizes[round % 4][0];
            const unsigned height = kSizes[round % 4][1];
            switchOn(session, width, height);
            for (unsigned frame = 0; frame < 3; frame++) {
                session.present(kDesktop, pattern("scroll", width, height, frame));
                expectPicture(session);
                // Two minutes of a still desktop are 50,000 transfers: the display is off for most of it.
                machine.sleep(200 * kMillisecond);
            }
            switch (round++ % 3) {
            case 0:
                session.suspend();
                machine.sleep(20 * kSecond);
                session.resume();
                expectPicture(session, 3 * kSecond);
                session.client().close();
                break;
            case 1:
                session.setDisplayPower(false);
                machine.sleep(20 * kSecond);
                session.client().close();
                break;
            default:
                session.detachMonitor();
                machine.sleep(20 * kSecond);
                session.attachMonitor({});
                break;
            }
        }
        EXPECT_GE(machine.clock().now(), kEnd);
    });
}

} // namespace
} // namespace system_test

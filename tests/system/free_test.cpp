// The whole road on real threads and the real clock, for the sanitizers: what the explored schedules show of
// orders, this shows of memory.
#include "tests/system/rig.h"

namespace system_test {
namespace {

constexpr usb::Time kPatience = 20 * kSecond; // instrumented builds are slow

const Surface& bars() {
    static const Surface picture = pattern("bars", kWidth, kHeight);
    return picture;
}
const Surface& gradient() {
    static const Surface picture = pattern("gradient", kWidth, kHeight);
    return picture;
}

TEST(FreeRunning, ShowsPictures) {
    for (const usb::Speed link : {usb::Speed::Super, usb::Speed::High}) {
        runSession(freeRunning(), [&](Session& session) {
            showDesktop(session, adapter(0, link), bars());
            expectPicture(session, kPatience);
            for (unsigned frame = 0; frame < 10; frame++) {
                session.present(kDesktop, pattern("noise", kWidth, kHeight, frame));
            }
            session.present(kDesktop, gradient());
            expectPicture(session, kPatience);
        });
    }
}

TEST(FreeRunning, FollowsAMonitorThatComesAndGoes) {
    runSession(freeRunning(), [](Session& session) {
        session.plug(adapter());
        for (unsigned round = 0; round < 2; round++) {
            session.attachMonitor({});
            switchOn(session);
            session.present(kDesktop, round == 0 ? bars() : gradient());
            expectPicture(session, kPatience);
            session.detachMonitor();
        }
    });
}

TEST(FreeRunning, CableIsPulledInMidStream) {
    runSession(freeRunning(), [](Session& session) {
        for (unsigned round = 0; round < 3; round++) {
            showDesktop(session, adapter(0), bars());
            expectPicture(session, kPatience);
            ClientThread presenter("presenter", [&] {
                for (unsigned frame = 0; frame < 20; frame++) {
                    (void)session.client().present(kDesktop, frame % 2 == 0 ? gradient() : bars());
                }
            });
            session.surpriseRemove();
        }
    });
}

TEST(FreeRunning, SleepsAndWakesInMidStream) {
    runSession(freeRunning(), [](Session& session) {
        showDesktop(session, adapter(), bars());
        {
            ClientThread presenter("presenter", [&] {
                for (unsigned frame = 0; frame < 50; frame++) {
                    (void)session.client().present(kDesktop, frame % 2 == 0 ? gradient() : bars());
                    session.machine().sleep(20 * kMillisecond);
                }
            });
            session.suspend();
            session.resume();
        }
        session.present(kDesktop, gradient());
        expectPicture(session, kPatience);
    });
}

TEST(FreeRunning, ThreadsOfTheClientDoNotMind) {
    const std::vector<rig::Setting> settings = {setting("DynamicAdjustPixelBytesAtRunTimeThreshold", 100)};
    runSession(freeRunning(settings), [](Session& session) {
        session.attachMonitor({});
        session.plug(adapter());
        switchOn(session);
        desktop::Client& client = session.client();
        {
            ClientThread presenter("presenter", [&] {
                for (unsigned frame = 0; frame < 60; frame++) {
                    EXPECT_EQ(STATUS_SUCCESS,
                              client.present(1 + frame % 2, frame % 2 == 0 ? bars() : gradient()));
                }
            });
            ClientThread second("second presenter", [&] {
                for (unsigned frame = 0; frame < 60; frame++) {
                    EXPECT_EQ(STATUS_SUCCESS, client.present(2, bars()));
                    EXPECT_EQ(STATUS_SUCCESS, client.destroyFrameBuffer(3));
                }
            });
            ClientThread pointer("pointer", [&] {
                for (int step = 0; step < 100; step++) {
                    EXPECT_EQ(STATUS_SUCCESS,
                              client.setPointer(desktop::builtinPointer(step % 2 == 0 ? "halo" : "beam")));
                    EXPECT_EQ(STATUS_SUCCESS, client.movePointer(step * 6, step * 4, true));
                }
                EXPECT_EQ(STATUS_SUCCESS, client.movePointer(0, 0, false));
            });
            ClientThread errors("frame errors", [&] {
                for (unsigned error = 0; error < 5; error++) {
                    session.atHardware([](model::Adapter& device) { device.reportFrameError(); });
                    session.machine().sleep(30 * kMillisecond);
                }
            });
            for (unsigned round = 0; round < 2; round++) {
                EXPECT_EQ(STATUS_SUCCESS, client.setDisplayPower(false));
                EXPECT_EQ(STATUS_SUCCESS, client.setDisplayPower(true));
            }
        }
        session.present(9, gradient());
        expectPicture(session, kPatience);
    });
}

} // namespace
} // namespace system_test

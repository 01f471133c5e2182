// The monitor shows the latest picture that the client presented, even if the stream was stopped at that
// time.
#include "tests/system/rig.h"

#include <gtest/gtest.h>

namespace system_test {
namespace {

// Presents two frame buffers in turn, as a client with double buffering does, and then stops presenting.
TEST(Restart, ShowsWhatWasPresentedWhileTheFormatWasSwitched) {
    explore(20, [](Session& session) {
        showDesktop(session, slowAdapter());
        session.createFrameBuffer(kDesktop + 1, kWidth, kHeight);
        session.atHardware([](model::Adapter& device) { device.reportFrameError(); });
        for (unsigned frame = 0; frame < 40; frame++) {
            session.present(kDesktop + frame % 2, pattern("scroll", kWidth, kHeight, frame));
            session.machine().sleep(16 * kMillisecond);
        }
        expectPicture(session);
        EXPECT_EQ(model::PixelFormat::Rgb565, session.adapter().outputMode()->format);
    });
}

// The presents of another thread end at any moment of a stop and the start after it. Then the desktop rests.
TEST(Restart, LosesNoPresent) {
    explore(60, [](Session& session) {
        showDesktop(session, adapter());
        session.createFrameBuffer(kDesktop + 1, kWidth, kHeight);
        for (unsigned round = 0; round < 6; round++) {
            {
                ClientThread presenter("presenter", [&] {
                    for (unsigned left = kernel::choose(10); left > 0; left--) {
                        require(session.client().present(kDesktop, bars()), "presenting");
                        session.machine().sleep(static_cast<usb::Time>(kernel::choose(20)) * kMillisecond);
                    }
                    require(session.client().present(kDesktop, bars()), "presenting");
                    require(session.client().present(kDesktop + 1, gradient()), "presenting");
                });
                switchOffAndOn(session);
            }
            expectPicture(session, gradient());
        }
    });
}

TEST(Restart, ShowsNothingThatTheClientNeverPresented) {
    explore(20, [](Session& session) {
        plugWithMonitor(session);
        session.openClient();
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        session.setDisplayPower(true);
        session.machine().sleep(kSecond);
        EXPECT_EQ(0u, session.adapter().statistics().framesReceived);
        show(session, bars());
    });
}

} // namespace
} // namespace system_test

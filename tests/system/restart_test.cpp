// The picture that a client leaves standing is the one that the monitor shows, also when it was presented
// while the stream stood still.
#include "tests/system/rig.h"

#include <gtest/gtest.h>

namespace system_test {
namespace {

// Two frame buffers in turn, as a client with double buffering uses them, and then nothing more.
TEST(Restart, ShowsWhatWasPresentedWhileTheFormatWasSwitched) {
    explore(20, [](Session& session) {
        PlugOptions slow = adapter();
        slow.bandwidth = 61'000'000;
        showDesktop(session, slow, pattern("bars", kWidth, kHeight));
        expectPicture(session);
        session.createFrameBuffer(kDesktop + 1, kWidth, kHeight);
        session.adapter().reportFrameError();
        for (unsigned frame = 0; frame < 40; frame++) {
            session.present(kDesktop + frame % 2, pattern("scroll", kWidth, kHeight, frame));
            session.machine().sleep(16 * kMillisecond);
        }
        expectPicture(session);
        EXPECT_EQ(model::PixelFormat::Rgb565, session.adapter().outputMode()->format);
    });
}

TEST(Restart, ShowsNothingThatTheClientNeverPresented) {
    explore(20, [](Session& session) {
        session.attachMonitor({});
        session.plug(adapter());
        session.openClient();
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        session.setDisplayPower(true);
        session.machine().sleep(kSecond);
        EXPECT_EQ(0u, session.adapter().statistics().framesReceived);
        session.present(kDesktop, pattern("bars", kWidth, kHeight));
        expectPicture(session);
    });
}

} // namespace
} // namespace system_test

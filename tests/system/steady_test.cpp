// A running stream allocates no memory and never leaves the link idle.
#include "tests/system/rig.h"

#include <cstdio>

namespace system_test {
namespace {

struct Stream {
    const char* name;
    std::vector<rig::Setting> settings;
    usb::Speed link;
    unsigned width;
    unsigned height;
};

const Stream kStreams[] = {
    {"24 bits", {}, usb::Speed::Super, 1920, 1080},
    {"24 bits with zero-length transfers", {}, usb::Speed::Super, 640, 480},
    {"RGB565",
     {setting("UseUsb3OutputRGB565Enable", 1), setting("UseDynamicPixelBytesAdjustmentEnable", 0)},
     usb::Speed::Super,
     1024,
     768},
    {"compressed", {}, usb::Speed::High, 1024, 768},
};

TEST(SteadyState, AllocatesNothingPerFrame) {
    for (const Stream& stream : kStreams) {
        SCOPED_TRACE(stream.name);
        runSession(inOrder(stream.settings), [&](Session& session) {
            const Surface frames[] = {pattern("bars", stream.width, stream.height),
                                      pattern("gradient", stream.width, stream.height)};
            showDesktop(session, adapter(2, stream.link), frames[0], 5 * kSecond);
            const std::uint64_t allocations = session.machine().poolAllocations();
            const std::uint64_t objects = session.machine().objectCreations();
            const std::uint64_t sent = session.adapter().statistics().framesReceived;
            for (unsigned frame = 0; frame < 100; frame++) {
                session.present(kDesktop, frames[frame % 2]);
                session.machine().sleep(16 * kMillisecond);
            }
            EXPECT_EQ(allocations, session.machine().poolAllocations());
            EXPECT_EQ(objects, session.machine().objectCreations());
            EXPECT_GE(session.adapter().statistics().framesReceived, sent + 100);
            expectPicture(session, 5 * kSecond);
        });
    }
}

// What the driver holds after many status reports, frames and sleeps is what it held after one of each.
TEST(SteadyState, HoldsNoMoreAfterManyEvents) {
    runSession(inOrder(), [](Session& session) {
        const Surface frames[] = {pattern("bars", 1024, 768), pattern("gradient", 1024, 768)};
        showDesktop(session, adapter(), frames[0]);
        const auto repeat = [&](unsigned times, const std::function<void(unsigned)>& event) {
            event(0);
            const auto held = session.machine().held();
            for (unsigned number = 1; number <= times; number++) {
                event(number);
            }
            EXPECT_EQ(held, session.machine().held());
        };
        repeat(100, [&](unsigned) {
            session.adapter().reportFrameError();
            session.machine().sleep(100 * kMillisecond);
        });
        repeat(100, [&](unsigned number) {
            session.present(kDesktop, frames[number % 2]);
            session.machine().sleep(16 * kMillisecond);
        });
        repeat(20, [&](unsigned) {
            session.suspend();
            session.resume();
            session.machine().sleep(kSecond);
        });
    });
}

TEST(SteadyState, KeepsTheLinkBusy) {
    for (const bool presenting : {false, true}) {
        SCOPED_TRACE(presenting ? "new frames" : "the same frame");
        runSession(inOrder(), [&](Session& session) {
            const Surface frames[] = {pattern("bars", 1920, 1080), pattern("gradient", 1920, 1080)};
            showDesktop(session, adapter(), frames[0]);
            session.link().resetCounters();
            const usb::Time begin = now(session);
            for (unsigned frame = 0; frame < 60; frame++) {
                if (presenting) {
                    session.present(kDesktop, frames[frame % 2]);
                }
                session.machine().sleep(kSecond / 60);
            }
            const usb::Time took = now(session) - begin;
            const double busy = static_cast<double>(session.link().busyTime()) / static_cast<double>(took);
            std::printf("link busy: %.2f %%\n", busy * 100);
            EXPECT_GE(busy, 0.98);
            EXPECT_LE(busy, 1.0);
        });
    }
}

} // namespace
} // namespace system_test

// Sessions with the real driver: a wrong picture is detected and described, and the client can close the
// driver at any moment, also while commands run.
#include "desktop/frame_source.h"
#include "rig/builtin_edid.h"
#include "rig/errors.h"
#include "rig/screen_check.h"
#include "rig/session.h"

#include <gtest/gtest.h>

#include <fmt/format.h>

namespace rig {
namespace {

using support::Surface;

Surface gradient(unsigned width, unsigned height) {
    return desktop::drawPattern(*desktop::findPattern("gradient"), width, height, 0, 1);
}

void showOn(Session& session, const Surface& picture) {
    session.openClient();
    session.createFrameBuffer(1, picture.width, picture.height);
    session.setDisplayPower(true);
    session.present(1, picture);
}

TEST(ScreenCheck, NamesTheFirstWrongPixel) {
    struct Case {
        const char* what;
        usb::Speed link;
        const char* values; // of the pixel, as shown and as expected
    };
    const Case cases[] = {
        {"24 bits", usb::Speed::Super, "is 0x2A1EA2, expected 0xD5E15D"},
        {"RGB555, quantized", usb::Speed::High, "is 0x1475, expected 0x6B8B"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Session session({});
        session.run([&] {
            session.attachMonitor(builtinEdid());
            PlugOptions plug;
            plug.adapter.link = c.link;
            session.plug(plug);
            const Surface picture = gradient(640, 480);
            showOn(session, picture);
            ScreenCheck right(session, picture);
            EXPECT_TRUE(right.waitForMatch(kDriverTimeout)) << right.problem();

            Surface other = picture;
            other.at(105, 57) = ~picture.at(105, 57);
            other.at(3, 400) = ~picture.at(3, 400);
            ScreenCheck wrong(session, other);
            EXPECT_FALSE(wrong.waitForMatch(50 * usb::kMillisecond));
            EXPECT_EQ(wrong.problem(),
                      fmt::format("wrong picture: pixel (105, 57) {}; 2 pixels differ", c.values));

            const Surface larger = gradient(800, 600);
            ScreenCheck otherSize(session, larger);
            EXPECT_FALSE(otherSize.matches());
            EXPECT_EQ(otherSize.problem(), "the monitor shows 640x480, expected 800x600");
        });
        EXPECT_EQ(session.violationCount(), 0u);
    }
}

TEST(ScreenCheck, TellsWhyTheMonitorIsDark) {
    Session session({});
    session.run([&] {
        session.attachMonitor(builtinEdid());
        session.plug({});
        const Surface picture = gradient(640, 480);
        ScreenCheck check(session, picture);
        EXPECT_FALSE(check.matches());
        EXPECT_TRUE(check.problem().starts_with("the monitor is dark: ")) << check.problem();
    });
}

TEST(Session, CleansUpWhenTheBodyFails) {
    Session session({});
    EXPECT_THROW(session.run([&] {
        session.attachMonitor(builtinEdid());
        session.plug({});
        showOn(session, gradient(640, 480));
        throw WrongResult("on purpose");
    }),
                 WrongResult);
}

// The monitor is detached while another task presents. In every schedule the client is closed afterwards,
// later commands are refused, and a new session works.
TEST(Client, ClosesWhileCommandsRun) {
    for (std::uint64_t seed = 1; seed <= 60; seed++) {
        SCOPED_TRACE(fmt::format("SIM_SEED={}", seed));
        SessionOptions options;
        options.scheduler.seed = seed;
        options.scheduler.strategy = seed % 2 == 0 ? kernel::Strategy::Pct : kernel::Strategy::Random;
        Session session(options);
        const Surface picture = gradient(640, 480);
        session.run([&] {
            session.attachMonitor(builtinEdid());
            session.plug({});
            showOn(session, picture);
            NTSTATUS last = STATUS_SUCCESS;
            kernel::Task& presenter = kernel::spawn("presenter", kernel::TaskKind::Host, [&] {
                for (unsigned i = 0; i < 200 && NT_SUCCESS(last); i++) {
                    last = session.client().present(1 + i % 3, picture);
                    session.machine().sleep(usb::kMillisecond / 4);
                }
            });
            session.machine().sleep(static_cast<usb::Time>(seed) * usb::kMillisecond / 3);
            session.detachMonitor();
            kernel::join(presenter);
            EXPECT_EQ(last, STATUS_DEVICE_REMOVED);
            EXPECT_TRUE(session.waitFor(usb::kSecond, [&] { return !session.client().isOpen(); }));
            EXPECT_EQ(session.client().movePointer(1, 1, true), STATUS_DEVICE_REMOVED);

            session.attachMonitor(builtinEdid());
            showOn(session, picture);
            ScreenCheck check(session, picture);
            EXPECT_TRUE(check.waitForMatch(kDriverTimeout)) << check.problem();
        });
        EXPECT_EQ(session.violationCount(), 0u);
    }
}

TEST(Client, IsTheOnlyOne) {
    Session session({});
    session.run([&] {
        session.attachMonitor(builtinEdid());
        session.plug({});
        session.openClient();
        EXPECT_EQ(session.client().open(), STATUS_INVALID_DEVICE_STATE) << "it is open already";
        desktop::Client second(session.machine());
        EXPECT_EQ(second.open(), STATUS_UNSUCCESSFUL) << "the driver serves one client";
        session.client().close();
        session.client().close();
        EXPECT_EQ(second.open(), STATUS_SUCCESS);
        second.close();
    });
}

TEST(ClientFree, PresentsAndMovesThePointerFromSeveralThreads) {
    SessionOptions options;
    options.scheduler.mode = kernel::Mode::Free;
    Session session(options);
    const Surface picture = gradient(640, 480);
    session.run([&] {
        session.attachMonitor(builtinEdid());
        session.plug({});
        showOn(session, picture);
        session.setPointer(desktop::builtinPointer("halo"));
        kernel::Task& mover = kernel::spawn("mover", kernel::TaskKind::Host, [&] {
            for (int i = 0; i < 200; i++) {
                EXPECT_EQ(session.client().movePointer(i, i, true), STATUS_SUCCESS);
            }
        });
        for (unsigned i = 0; i < 50; i++) {
            EXPECT_EQ(session.client().present(1 + i % 2, picture), STATUS_SUCCESS);
        }
        kernel::join(mover);
        session.movePointer(30, 40, true);
        session.present(1, picture);
        ScreenCheck check(session, *session.reference().picture());
        EXPECT_TRUE(check.waitForMatch(kDriverTimeout)) << check.problem();
    });
    EXPECT_EQ(session.violationCount(), 0u);
}

} // namespace
} // namespace rig

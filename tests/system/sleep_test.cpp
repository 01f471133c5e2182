// Sleep and wake-up with and without a transmitter, with commands of the client and a pulled cable in
// between.
#include "tests/system/rig.h"

#include <array>
#include <gtest/gtest.h>

namespace system_test {
namespace {

constexpr usb::Time kSettled = 4 * kSecond;

bool isDark(Session& session) {
    return !session.adapter().rawFrame().has_value();
}

class Sleep : public testing::TestWithParam<bool> {};

// The transmitter loses its registers during a sleep, and the mode is set again for it.
TEST_P(Sleep, IsFollowedByTheSamePicture) {
    explore(10, [](Session& session) {
        showDesktop(session, adapterWithTransmitter(GetParam()));
        session.suspend();
        session.resume();
        expectPicture(session, kSettled);
        show(session, gradient());
    });
}

// No register is accessed outside D0, where each access would wait for its time-out.
TEST_P(Sleep, KeepsADisplayDarkThatWasSwitchedOffMeanwhile) {
    explore(10, [](Session& session) {
        showDesktop(session, adapterWithTransmitter(GetParam()));
        session.suspend();
        const usb::Time before = now(session);
        session.setDisplayPower(false);
        EXPECT_LT(now(session) - before, 100 * kMillisecond);
        session.resume();
        session.machine().sleep(kSettled);
        EXPECT_TRUE(isDark(session));
        session.setDisplayPower(true);
        expectPicture(session, kSettled);
    });
}

// The display is switched in the middle of the power-down or of the wake-up: the client's latest command
// applies.
TEST_P(Sleep, AppliesTheLatestDisplayPower) {
    explore(30, [](Session& session) {
        showDesktop(session, adapterWithTransmitter(GetParam()));
        const bool finallyOn = kernel::choose(2) == 0;
        {
            ClientThread client("client", [&] {
                session.machine().sleep(static_cast<usb::Time>(kernel::choose(3000)) * kMillisecond);
                session.setDisplayPower(false);
                session.machine().sleep(static_cast<usb::Time>(kernel::choose(3000)) * kMillisecond);
                if (finallyOn) {
                    session.setDisplayPower(true);
                }
            });
            session.suspend();
            session.resume();
        }
        session.machine().sleep(kSettled);
        if (finallyOn) {
            expectPicture(session);
        } else {
            EXPECT_TRUE(isDark(session));
        }
    });
}

// A surprise removal does not wait for the power callback that is running: Windows does not order the two.
TEST_P(Sleep, MayBeInterruptedByASurpriseRemoval) {
    explore(60, [](Session& session) {
        showDesktop(session, adapterWithTransmitter(GetParam()));
        {
            platform::DeviceNode& node = session.node();
            const bool waking = kernel::choose(2) == 0;
            if (waking) {
                session.suspend();
            }
            ClientThread power("power", [&] {
                if (waking) {
                    session.machine().resume(node);
                } else {
                    session.machine().suspend(node);
                }
            });
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(20'000)) * kMillisecond / 10);
            session.surpriseRemove();
        }
        showDesktop(session, adapterWithTransmitter(GetParam()), gradient(), kSettled);
    });
}

// A report that arrived before the power-down is dealt with before the device leaves D0. Later its register
// access would wait for a time-out, and keep the client from the EDID.
TEST_P(Sleep, LeavesNoReportBehind) {
    explore(40, [](Session& session) {
        plugWithMonitor(session, adapterWithTransmitter(GetParam()));
        session.openClient();
        {
            ClientThread reporter("adapter", [&] {
                for (unsigned report = 0; report < 30; report++) {
                    session.adapter().reportFrameError();
                    session.machine().sleep(kMillisecond);
                }
            });
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(200)) * kMillisecond / 10);
            session.suspend();
        }
        const usb::Time begin = now(session);
        std::array<std::uint8_t, EDID_BLOCK_SIZE> edid{};
        require(session.client().queryEdid(edid), "querying the EDID");
        EXPECT_LT(now(session) - begin, 100 * kMillisecond);
        session.resume();
    });
}

INSTANTIATE_TEST_SUITE_P(With, Sleep, testing::Bool(),
                         [](const auto& info) { return info.param ? "Transmitter" : "NoTransmitter"; });

// A transmitter that does not answer for a while and then is back. Whatever the driver could not do
// meanwhile, the transmitter ends powered and programmed for the mode.
TEST(Transmitter, IsProgrammedForTheModeWhenItAnswersAgain) {
    const struct {
        const char* what;
        std::function<void(Session&)> whileDeaf;
        std::function<void(Session&)> afterwards;
    } cases[] = {
        {"a mode set", [](Session& session) { switchOffAndOn(session); }, switchOffAndOn},
        {"a power-down at display-off", [](Session& session) { session.setDisplayPower(false); },
         [](Session& session) { session.setDisplayPower(true); }},
        {"a power-down at sleep", [](Session& session) { session.suspend(); },
         [](Session& session) { session.resume(); }},
        {"a sleep and the wake-up",
         [](Session& session) {
             session.suspend();
             session.resume();
         },
         [](Session& session) {
             session.suspend();
             session.resume();
         }},
        {"a restart of the device",
         [](Session& session) {
             session.client().close();
             session.machine().stop(session.node());
             require(session.machine().restart(session.node()), "restarting");
             switchOn(session);
         },
         [](Session& session) {
             session.suspend();
             session.resume();
         }},
        {"a wake-up with the display off",
         [](Session& session) {
             session.suspend();
             session.setDisplayPower(false);
             session.resume();
         },
         [](Session& session) {
             session.suspend();
             session.resume();
             session.setDisplayPower(true);
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        runSession(inOrder(), [&](Session& session) {
            session.attachMonitor(rig::builtinEdid());
            session.plug(adapterWithTransmitter());
            switchOn(session);
            show(session, bars(), kSettled);
            session.adapter().setDeaf(model::Part::Transmitter, true);
            c.whileDeaf(session);
            session.adapter().setDeaf(model::Part::Transmitter, false);
            c.afterwards(session);
            show(session, gradient(), kSettled);
            const auto videoCode = [&] { return session.adapter().peekTransmitter(1, 0x5B); };
            EXPECT_EQ(1, videoCode()) << "640 x 480";
            session.setDisplayPower(false);
            session.createFrameBuffer(kDesktop + 1, 1280, 720);
            session.setDisplayPower(true);
            session.present(kDesktop + 1, pattern("bars", 1280, 720));
            expectPicture(session, kSettled);
            EXPECT_EQ(4, videoCode()) << "1280 x 720";
        });
    }
}

} // namespace
} // namespace system_test

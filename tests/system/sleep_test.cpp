// What a sleep leaves and what a wake brings back, with and without a transmitter, whatever the client does
// meanwhile.
#include "tests/system/rig.h"

#include <gtest/gtest.h>

namespace system_test {
namespace {

constexpr usb::Time kSettled = 4 * kSecond;

PlugOptions adapterWith(bool transmitter) {
    PlugOptions options = adapter();
    options.adapter.transmitter = transmitter;
    return options;
}

bool isDark(Session& session) {
    return !session.adapter().rawFrame().has_value();
}

// Sleeps and wakes with `meanwhile` done by the client in between.
void sleepAndWake(Session& session, const std::function<void()>& meanwhile = {}) {
    session.suspend();
    if (meanwhile) {
        meanwhile();
    }
    session.resume();
}

class Sleep : public testing::TestWithParam<bool> {};

// The transmitter forgets its programme over a sleep, and the mode is set again for it.
TEST_P(Sleep, BringsThePictureBack) {
    explore(10, [](Session& session) {
        showDesktop(session, adapterWith(GetParam()), pattern("bars", kWidth, kHeight));
        expectPicture(session);
        sleepAndWake(session);
        expectPicture(session, kSettled);
        session.present(kDesktop, pattern("gradient", kWidth, kHeight));
        expectPicture(session);
    });
}

// No register is touched out of D0, where each access would wait for its time-out.
TEST_P(Sleep, StaysDarkWhenSwitchedOffMeanwhile) {
    explore(10, [](Session& session) {
        showDesktop(session, adapterWith(GetParam()), pattern("bars", kWidth, kHeight));
        expectPicture(session);
        sleepAndWake(session, [&] {
            const usb::Time before = session.machine().clock().now();
            session.setDisplayPower(false);
            EXPECT_LT(session.machine().clock().now() - before, 100 * kMillisecond);
        });
        session.machine().sleep(kSettled);
        EXPECT_TRUE(isDark(session));
        session.setDisplayPower(true);
        expectPicture(session, kSettled);
    });
}

// A switch in the middle of the power-down or of the wake: the client's last word holds.
TEST_P(Sleep, MeetsASwitch) {
    explore(30, [](Session& session) {
        showDesktop(session, adapterWith(GetParam()), pattern("bars", kWidth, kHeight));
        expectPicture(session);
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
            sleepAndWake(session);
        }
        session.machine().sleep(kSettled);
        if (finallyOn) {
            expectPicture(session);
        } else {
            EXPECT_TRUE(isDark(session));
        }
    });
}

// The surprise does not wait for the power callback under way: Windows orders the two by nothing.
TEST_P(Sleep, MeetsTheEndOfTheCable) {
    explore(60, [](Session& session) {
        showDesktop(session, adapterWith(GetParam()), pattern("bars", kWidth, kHeight));
        expectPicture(session);
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
        showDesktop(session, adapterWith(GetParam()), pattern("gradient", kWidth, kHeight));
        expectPicture(session, kSettled);
    });
}

INSTANTIATE_TEST_SUITE_P(With, Sleep, testing::Bool(),
                         [](const auto& info) { return info.param ? "Transmitter" : "NoTransmitter"; });

// A programme that failed is not taken for one that was made: the next mode set of the same size repeats it.
TEST(Transmitter, IsProgrammedAgainOnceItHasHealed) {
    runSession(inOrder(), [](Session& session) {
        session.attachMonitor({});
        session.plug(adapterWith(true));
        session.adapter().setDeaf(model::Part::Transmitter, true);
        switchOn(session);
        session.adapter().setDeaf(model::Part::Transmitter, false);
        session.setDisplayPower(false);
        session.setDisplayPower(true);
        session.present(kDesktop, pattern("gradient", kWidth, kHeight));
        expectPicture(session, kSettled);
    });
}

} // namespace
} // namespace system_test

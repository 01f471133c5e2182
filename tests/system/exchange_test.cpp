// The exchange of entry points: sizes, codes, one client at a time, and the end of a session.
#include "tests/system/rig.h"

#include <fmt/format.h>

namespace system_test {
namespace {

void withMonitor(const std::function<void(Session&)>& body) {
    runSession(inOrder(), [&](Session& session) {
        plugWithMonitor(session);
        ASSERT_TRUE(session.client().waitForArrival(kSecond));
        body(session);
    });
}

TEST(Exchange, RefusesOtherSizesAndCodes) {
    const CallCase cases[] = {
        {IOCTL_EXCHANGE_INTERFACE, 39, 40, STATUS_BUFFER_TOO_SMALL},
        {IOCTL_EXCHANGE_INTERFACE, 40, 39, STATUS_BUFFER_TOO_SMALL},
        {IOCTL_EXCHANGE_INTERFACE, 0, 0, STATUS_BUFFER_TOO_SMALL},
        {0x220000, 40, 40, STATUS_NOT_SUPPORTED},
        {0x220007, 40, 40, STATUS_NOT_SUPPORTED},
        {0, 0, 0, STATUS_NOT_SUPPORTED},
        {0xFFFFFFFF, 40, 40, STATUS_NOT_SUPPORTED},
    };
    withMonitor([&](Session& session) {
        RawClient client(session);
        for (const auto& c : cases) {
            SCOPED_TRACE(fmt::format("0x{:X} with {} and {} bytes", c.code, c.input, c.output));
            EXPECT_EQ(c.status, client.control(c.code, c.input, c.output));
            EXPECT_EQ(0u, client.information);
        }
        EXPECT_EQ(STATUS_SUCCESS, client.exchange()) << "a refused exchange reserved the interface";
        client.release();
    });
}

TEST(Exchange, WritesNoMoreThanTheRecord) {
    withMonitor([](Session& session) {
        RawClient client(session);
        ASSERT_EQ(STATUS_SUCCESS, client.control(IOCTL_EXCHANGE_INTERFACE, 100, 100));
        EXPECT_EQ(40u, client.information);
        EXPECT_EQ(std::vector<std::uint8_t>(60, 0xA5), client.untouched);
        client.release();
    });
}

TEST(Exchange, ServesOneClientAtATime) {
    withMonitor([](Session& session) {
        RawClient first(session);
        RawClient second(session);
        ASSERT_EQ(STATUS_SUCCESS, first.exchange());
        for (int attempt = 0; attempt < 3; attempt++) {
            EXPECT_EQ(STATUS_UNSUCCESSFUL, second.exchange());
            EXPECT_EQ(0u, second.information);
            EXPECT_EQ(STATUS_UNSUCCESSFUL, first.exchange());
        }
        first.release();
        ASSERT_EQ(STATUS_SUCCESS, second.exchange());
        EXPECT_EQ(STATUS_UNSUCCESSFUL, first.exchange());
        second.release();
        ASSERT_EQ(STATUS_SUCCESS, first.exchange());
        first.release();
        first.release(); // once too often: still exactly one client is accepted
        ASSERT_EQ(STATUS_SUCCESS, second.exchange());
        EXPECT_EQ(STATUS_UNSUCCESSFUL, first.exchange());
        second.release();
    });
}

TEST(Exchange, AcceptsAtMostOneOfTwo) {
    explore(100, [](Session& session) {
        plugWithMonitor(session);
        ASSERT_TRUE(session.client().waitForArrival(kSecond));
        RawClient first(session);
        RawClient second(session);
        NTSTATUS firstStatus = STATUS_PENDING;
        NTSTATUS secondStatus = STATUS_PENDING;
        {
            ClientThread other("other", [&] { secondStatus = second.exchange(); });
            firstStatus = first.exchange();
        }
        // Both may fail when each finds the count incremented by the other; both must not succeed.
        EXPECT_FALSE(NT_SUCCESS(firstStatus) && NT_SUCCESS(secondStatus));
        RawClient& winner = NT_SUCCESS(firstStatus) ? first : second;
        if (NT_SUCCESS(firstStatus) || NT_SUCCESS(secondStatus)) {
            winner.release();
        }
        EXPECT_EQ(STATUS_SUCCESS, first.exchange());
        first.release();
    });
}

// The next client starts without the frame buffers of the previous one, and with the display off.
TEST(Exchange, ResetsTheStateForTheNextClient) {
    withMonitor([](Session& session) {
        const Surface picture = bars();
        switchOn(session);
        show(session, picture);
        session.client().close();
        EXPECT_FALSE(session.client().isOpen());

        switchOn(session);
        show(session, gradient());
    });
}

// Its commands do no harm while the device is stopped and started, and the next client gets the picture.
TEST(Exchange, EndsTheSessionOfAClientThatKeepsItOverARestart) {
    explore(30, [](Session& session) {
        plugWithMonitor(session);
        const std::unique_ptr<desktop::Client> late = holdingClient(session);
        {
            require(late->createFrameBuffer(kDesktop, kWidth, kHeight), "creating");
            require(late->setDisplayPower(true), "switching on");
            const unsigned rounds = 60 * kernel::choose(2);
            ClientThread user("late client", [&] {
                for (unsigned round = 0; round < rounds; round++) {
                    (void)late->createFrameBuffer(kDesktop, kWidth, kHeight);
                    (void)late->setDisplayPower(round % 3 != 1);
                    (void)late->present(kDesktop, gradient());
                    session.machine().sleep(static_cast<usb::Time>(kernel::choose(40)) * kMillisecond);
                }
            });
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(1000)) * kMillisecond);
            session.machine().stop(session.node());
            session.machine().sleep(static_cast<usb::Time>(kernel::choose(100)) * kMillisecond);
            require(session.machine().restart(session.node()), "restarting");
        }
        switchOn(session);
        show(session, bars());
    });
}

} // namespace
} // namespace system_test

// Removal: orderly and by pulling the cable, with a client that lets go, lets go late, or never does.
#include "tests/system/rig.h"

#include <fmt/format.h>

namespace system_test {
namespace {

// A client that keeps the interface when it disappears.
std::unique_ptr<desktop::Client> holdingClient(Session& session) {
    auto client = std::make_unique<desktop::Client>(session.machine(),
                                                    desktop::ClientOptions{.releaseOnDeparture = false});
    if (!client->waitForArrival(10 * kSecond)) {
        throw std::runtime_error("the interface did not appear");
    }
    require(client->open(), "opening the interface");
    return client;
}

// What holds up a removal besides the client: above all the stop of the stream, which gives the frame update
// thread 100 ms.
constexpr usb::Time kRemovalTime = 150 * kMillisecond;

TEST(Removal, WaitsTenSecondsForAClientThatHoldsOn) {
    std::unique_ptr<desktop::Client> client; // outlives the machine's run: it never lets go
    runSession(inOrder(), [&](Session& session) {
        session.attachMonitor({});
        session.plug(adapter());
        client = holdingClient(session);
        const usb::Time begin = session.machine().clock().now();
        session.remove();
        const usb::Time took = session.machine().clock().now() - begin;
        constexpr usb::Time kWait = 1001 * 10 * kMillisecond;
        EXPECT_GE(took, kWait);
        EXPECT_LT(took, kWait + kRemovalTime);
    });
}

TEST(Removal, EndsItsWaitWhenTheClientLetsGo) {
    runSession(inOrder(), [](Session& session) {
        session.attachMonitor({});
        session.plug(adapter());
        const std::unique_ptr<desktop::Client> client = holdingClient(session);
        const usb::Time begin = session.machine().clock().now();
        {
            ClientThread late("late client", [&] {
                session.machine().sleep(3 * kSecond);
                client->close();
            });
            session.remove();
        }
        const usb::Time took = session.machine().clock().now() - begin;
        EXPECT_GE(took, 3 * kSecond);
        EXPECT_LT(took, 3 * kSecond + 20 * kMillisecond + kRemovalTime);
    });
}

TEST(Removal, DoesNotWaitWithoutAClient) {
    for (const bool opened : {false, true}) {
        runSession(inOrder(), [&](Session& session) {
            session.attachMonitor({});
            session.plug(adapter());
            if (opened) {
                session.openClient();
                session.client().close();
            }
            const usb::Time begin = session.machine().clock().now();
            session.remove();
            EXPECT_LT(session.machine().clock().now() - begin, kRemovalTime);
        });
    }
}

TEST(Removal, MayBeCancelled) {
    runSession(inOrder(), [](Session& session) {
        showDesktop(session, adapter(), pattern("bars", kWidth, kHeight));
        expectPicture(session);
        EXPECT_EQ(STATUS_SUCCESS, session.machine().queryRemove(session.node()));
        session.machine().cancelRemove(session.node());
        session.present(kDesktop, pattern("gradient", kWidth, kHeight));
        expectPicture(session);
    });
}

// From the moment the cable is out every command fails, whatever it is, and nothing touches the bus.
TEST(SurpriseRemoval, RefusesEveryCommand) {
    runSession(inOrder(), [](Session& session) {
        session.attachMonitor({});
        session.plug(adapter());
        const std::unique_ptr<desktop::Client> client = holdingClient(session);
        const Surface picture = pattern("bars", kWidth, kHeight);
        require(client->createFrameBuffer(kDesktop, kWidth, kHeight), "creating");
        require(client->setDisplayPower(true), "switching on");
        require(client->present(kDesktop, picture), "presenting");
        model::Adapter& adapter = session.adapter();
        session.machine().sleep(100 * kMillisecond);
        {
            ClientThread puller("puller", [&] { session.surpriseRemove(); });
            session.machine().sleep(500 * kMillisecond);
            const std::uint64_t transfers = adapter.statistics().controlTransfers;
            for (ULONG code = 0; code < 12; code++) {
                std::vector<std::uint8_t> input(64, 0);
                std::vector<std::uint8_t> output(256, 0);
                EXPECT_EQ(STATUS_DEVICE_REMOVED, client->command(code, input, output)) << "code " << code;
            }
            EXPECT_EQ(transfers, adapter.statistics().controlTransfers);
            client->close();
        }
    });
}

// Nothing may be waited for that only the adapter could end.
TEST(SurpriseRemoval, IsOverSoon) {
    const struct {
        const char* name;
        std::function<void(Session&)> before;
        usb::Time limit;
    } cases[] = {
        {"idle", [](Session&) {}, 200 * kMillisecond},
        {"with a monitor", [](Session& session) { session.attachMonitor({}); }, 200 * kMillisecond},
        {"streaming",
         [](Session& session) {
             session.attachMonitor({});
             switchOn(session);
             session.present(kDesktop, pattern("bars", kWidth, kHeight));
             expectPicture(session);
         },
         400 * kMillisecond},
        {"switched off",
         [](Session& session) {
             session.attachMonitor({});
             switchOn(session);
             session.setDisplayPower(false);
         },
         200 * kMillisecond},
        {"asleep", [](Session& session) { session.suspend(); }, 200 * kMillisecond},
        {"while the adapter is deaf",
         [](Session& session) {
             session.attachMonitor({});
             switchOn(session);
             session.adapter().setDeaf(model::Part::Control, true);
         },
         400 * kMillisecond},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        runSession(inOrder(), [&](Session& session) {
            session.plug(adapter());
            c.before(session);
            const usb::Time begin = session.machine().clock().now();
            session.surpriseRemove();
            EXPECT_LT(session.machine().clock().now() - begin, c.limit);
            // And the port takes the next adapter.
            showDesktop(session, adapter(), pattern("gradient", kWidth, kHeight));
            expectPicture(session);
        });
    }
}

// In the middle of a frame, of an EDID read, of a power-up, of a mode set, of a display-off: at any moment.
TEST(SurpriseRemoval, MayComeAtAnyMoment) {
    for (usb::Time moment = 0; moment < 2800 * kMillisecond; moment += 37 * kMillisecond) {
        SCOPED_TRACE(fmt::format("after {} ms", moment / kMillisecond));
        runSession(inOrder(), [&](Session& session) {
            session.attachMonitor(rig::builtinEdid());
            const usb::Time start = session.machine().clock().now();
            bool pulled = false;
            // The start itself cannot be interrupted from the tool: the first adapter's cable is pulled by
            // the device going silent and gone.
            model::Adapter* device = nullptr;
            PlugOptions plug = adapter();
            plug.inFront = [&](usb::Device& inner) -> usb::Device& {
                device = static_cast<model::Adapter*>(&inner);
                return inner;
            };
            {
                ClientThread puller("puller", [&] {
                    session.machine().sleep(moment);
                    if (device != nullptr) {
                        device->disconnect();
                        pulled = true;
                    }
                });
                try {
                    session.plug(plug);
                    switchOn(session);
                    for (unsigned frame = 0; frame < 100 && !pulled; frame++) {
                        session.present(kDesktop, pattern("noise", kWidth, kHeight, frame));
                        session.machine().sleep(10 * kMillisecond);
                    }
                } catch (const std::exception&) {
                    // Refused is as good as worked: the adapter is gone.
                }
            }
            EXPECT_TRUE(pulled);
            EXPECT_LT(session.machine().clock().now() - start, 40 * kSecond);
            if (session.plugged()) {
                session.surpriseRemove();
            }
            showDesktop(session, adapter(), pattern("gradient", kWidth, kHeight));
            expectPicture(session);
        });
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

} // namespace
} // namespace system_test

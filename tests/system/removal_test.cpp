// Orderly and surprise removal, with a client that releases the driver at once, late, or never.
#include "tests/system/rig.h"

#include "platform/usb/completion_hook.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace system_test {
namespace {

// The duration of a removal without the wait for the client: mainly the stop of the stream, which gives the
// frame update thread 100 ms.
constexpr usb::Time kRemovalTime = 150 * kMillisecond;

TEST(Removal, WaitsTenSecondsForTheClient) {
    std::unique_ptr<desktop::Client> client; // never releases the driver, and outlives the machine's run
    runSession(inOrder(), [&](Session& session) {
        plugWithMonitor(session);
        client = holdingClient(session);
        require(client->createFrameBuffer(kDesktop, kWidth, kHeight), "creating"); // freed without its client
        const usb::Time begin = now(session);
        session.remove();
        const usb::Time took = now(session) - begin;
        constexpr usb::Time kWait = 1001 * 10 * kMillisecond;
        EXPECT_GE(took, kWait);
        EXPECT_LT(took, kWait + kRemovalTime);
    });
}

TEST(Removal, EndsItsWaitWhenTheClientReleasesTheDriver) {
    runSession(inOrder(), [](Session& session) {
        plugWithMonitor(session);
        const std::unique_ptr<desktop::Client> client = holdingClient(session);
        const usb::Time begin = now(session);
        {
            ClientThread late("late client", [&] {
                session.machine().sleep(3 * kSecond);
                client->close();
            });
            session.remove();
        }
        const usb::Time took = now(session) - begin;
        EXPECT_GE(took, 3 * kSecond);
        EXPECT_LT(took, 3 * kSecond + 20 * kMillisecond + kRemovalTime);
    });
}

// A host controller that takes seconds to end the frames that it was told to cancel.
class SlowController final : public usb::Device {
  public:
    usb::Speed speed() const override { return inner->speed(); }
    void disconnect() override { inner->disconnect(); }
    void submit(usb::Transfer& transfer) override {
        if (holds && transfer.type == usb::TransferType::Bulk) {
            held_.push_back(&transfer);
        } else {
            inner->submit(transfer);
        }
    }
    void cancel(usb::Transfer& transfer) override {
        if (std::ranges::find(held_, &transfer) == held_.end()) {
            inner->cancel(transfer);
        }
    }
    void endHeld() {
        for (usb::Transfer* transfer : std::exchange(held_, {})) {
            usb::completeTransfer(*transfer, usb::Status::Cancelled);
        }
    }

    usb::Device* inner = nullptr;
    bool holds = false;

  private:
    std::vector<usb::Transfer*> held_;
};

TEST(Removal, WaitsForEveryTransfer) {
    runSession(inOrder(), [](Session& session) {
        SlowController controller;
        PlugOptions plug = adapter();
        plug.inFront = [&](usb::Device& device) -> usb::Device& {
            controller.inner = &device;
            return controller;
        };
        showDesktop(session, plug);
        controller.holds = true;
        session.machine().sleep(100 * kMillisecond);
        const usb::Time begin = now(session);
        {
            ClientThread controllerEnds("controller", [&] {
                session.machine().sleep(15 * kSecond);
                controller.endHeld();
            });
            session.remove();
            EXPECT_GE(now(session) - begin, 15 * kSecond);
        }
    });
}

TEST(Removal, DoesNotWaitWithoutAClient) {
    for (const bool opened : {false, true}) {
        runSession(inOrder(), [&](Session& session) {
            plugWithMonitor(session);
            if (opened) {
                session.openClient();
                session.client().close();
            }
            const usb::Time begin = now(session);
            session.remove();
            EXPECT_LT(now(session) - begin, kRemovalTime);
        });
    }
}

// The monitor's EDID takes the transmitter more than a second; its reading is given up.
TEST(Removal, DoesNotWaitForAnEdid) {
    runSession(inOrder(), [](Session& session) {
        session.plug(adapterWithTransmitter());
        session.attachMonitor(rig::builtinEdid());
        session.machine().sleep(300 * kMillisecond);
        const usb::Time begin = now(session);
        session.remove();
        EXPECT_LT(now(session) - begin, 2 * kRemovalTime);
    });
}

TEST(Removal, MayBeCancelled) {
    runSession(inOrder(), [](Session& session) {
        showDesktop(session, adapter());
        EXPECT_EQ(STATUS_SUCCESS, session.machine().queryRemove(session.node()));
        session.machine().cancelRemove(session.node());
        show(session, gradient());
    });
}

// Once the cable is pulled, every command fails without a transfer on the bus.
TEST(SurpriseRemoval, RefusesEveryCommand) {
    runSession(inOrder(), [](Session& session) {
        plugWithMonitor(session);
        const std::unique_ptr<desktop::Client> client = holdingClient(session);
        const Surface picture = bars();
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

// The driver must not wait for an event that only the adapter could cause.
TEST(SurpriseRemoval, EndsSoon) {
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
             show(session, bars());
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
            const usb::Time begin = now(session);
            session.surpriseRemove();
            EXPECT_LT(now(session) - begin, c.limit);
            // The next adapter works in the same port.
            showDesktop(session, adapter(), gradient());
        });
    }
}

// In the middle of a power-up, an EDID read, a mode set or a frame.
TEST(SurpriseRemoval, MayHappenAtAnyTime) {
    for (usb::Time moment = 0; moment < 2800 * kMillisecond; moment += 37 * kMillisecond) {
        SCOPED_TRACE(fmt::format("after {} ms", moment / kMillisecond));
        runSession(inOrder(), [&](Session& session) {
            session.attachMonitor(rig::builtinEdid());
            const usb::Time start = now(session);
            bool pulled = false;
            // A session cannot remove an adapter while it starts, so the test disconnects the device itself.
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
                        session.present(kDesktop, noise(frame));
                        session.machine().sleep(10 * kMillisecond);
                    }
                } catch (const std::exception&) {
                    // A failure is as good as a success, because the adapter is gone.
                }
            }
            EXPECT_TRUE(pulled);
            EXPECT_LT(now(session) - start, 40 * kSecond);
            if (session.plugged()) {
                session.surpriseRemove();
            }
            showDesktop(session, adapter(), gradient());
        });
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

} // namespace
} // namespace system_test

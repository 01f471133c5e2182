// What the USB stack and the endpoints may do to the driver: reads that end in other ways than with a report,
// and a selection that is refused.
#include "tests/system/rig.h"

#include "platform/usb/completion_hook.h"

#include <cstdio>
#include <optional>
#include <utility>

namespace system_test {
namespace {

constexpr std::uint8_t kClearFeature = 1;
constexpr std::uint8_t kSetInterface = 11;
constexpr std::uint16_t kStatusRegister = 0x8000;

// Between the host and the adapter.
class Interference final : public usb::Device {
  public:
    PlugOptions plug() {
        PlugOptions options = adapter();
        options.inFront = [this](usb::Device& device) -> usb::Device& {
            inner_ = &device;
            return *this;
        };
        return options;
    }

    usb::Speed speed() const override { return inner_->speed(); }
    void cancel(usb::Transfer& transfer) override { inner_->cancel(transfer); }
    void disconnect() override { inner_->disconnect(); }

    void submit(usb::Transfer& transfer) override {
        const bool isControl = transfer.type == usb::TransferType::Control;
        if (transfer.type == usb::TransferType::Interrupt) {
            reads++;
            if (stalls) {
                usb::completeTransfer(transfer, usb::Status::Stalled);
                return;
            }
            read_ = &transfer;
            usb::hookCompletion(transfer, [this](usb::Transfer& done) {
                read_ = nullptr;
                if (end_) {
                    done.status = *std::exchange(end_, std::nullopt);
                    done.actual = 0;
                }
                usb::completeTransfer(done);
            });
        } else if (isControl && (transfer.setup.requestType & 0x60) == 0) {
            resets += transfer.setup.request == kClearFeature;
            if (transfer.setup.request == kSetInterface && refusesSelection) {
                usb::completeTransfer(transfer, usb::Status::Stalled);
                return;
            }
        } else if (isControl) {
            statusReads += transfer.isIn() && transfer.setup.index == kStatusRegister;
        }
        inner_->submit(transfer);
    }

    // Ends the read that is out, without a report.
    void endRead(usb::Status status) {
        end_ = status;
        inner_->cancel(*read_);
    }

    bool stalls = false;
    bool refusesSelection = false;
    unsigned reads = 0;
    unsigned resets = 0;
    unsigned statusReads = 0;

  private:
    usb::Device* inner_ = nullptr;
    usb::Transfer* read_ = nullptr;
    std::optional<usb::Status> end_;
};

// With a monitor attached, a report of no bytes looks like one about a frame: the status is read, which does
// no harm, and the next report is read as usual.
TEST(StatusPipe, TakesAReadWithoutBytes) {
    Interference usb;
    runSession(inOrder(), [&](Session& session) {
        showDesktop(session, usb.plug());
        const unsigned statusReads = usb.statusReads;
        usb.endRead(usb::Status::Success);
        session.machine().sleep(100 * kMillisecond);
        EXPECT_EQ(usb.statusReads, statusReads + 1);
        session.adapter().reportFrameError();
        session.machine().sleep(100 * kMillisecond);
        EXPECT_EQ(usb.statusReads, statusReads + 2);
        show(session, gradient());
    });
}

// The framework does not send a cancelled read again until the pipe is stopped and started.
TEST(StatusPipe, LivesAgainAfterASleepWhenItsReadWasCancelled) {
    Interference usb;
    runSession(inOrder(), [&](Session& session) {
        showDesktop(session, usb.plug());
        const unsigned reads = usb.reads;
        usb.endRead(usb::Status::Cancelled);
        session.machine().sleep(kSecond);
        EXPECT_EQ(usb.reads, reads);
        show(session, gradient());
        session.suspend();
        session.resume();
        EXPECT_EQ(usb.reads, reads + 1);
        const unsigned statusReads = usb.statusReads;
        session.adapter().reportFrameError();
        session.machine().sleep(100 * kMillisecond);
        EXPECT_EQ(usb.statusReads, statusReads + 1);
    });
}

// The framework recovers without a limit and without a pause. What bounds it is the bus: the host asks the
// endpoint once in its interval of 1 ms, so a second costs at most a thousand reads, resets and work items.
TEST(StatusPipe, CostsABoundedNumberOfTransfersWhenItStallsForEver) {
    Interference usb;
    runSession(inOrder(), [&](Session& session) {
        showDesktop(session, usb.plug());
        usb.stalls = true;
        usb.endRead(usb::Status::Stalled);
        session.machine().sleep(100 * kMillisecond);
        const unsigned reads = usb.reads;
        const unsigned resets = usb.resets;
        session.machine().sleep(kSecond);
        std::printf("%u reads and %u resets in a second\n", usb.reads - reads, usb.resets - resets);
        EXPECT_GE(usb.reads - reads, 100u);
        EXPECT_LE(usb.reads - reads, 1000u);
        EXPECT_LE(usb.resets - resets, 1000u);
        show(session, gradient());

        usb.stalls = false;
        session.machine().sleep(100 * kMillisecond);
        const unsigned statusReads = usb.statusReads;
        session.adapter().reportFrameError();
        session.machine().sleep(100 * kMillisecond);
        EXPECT_EQ(usb.statusReads, statusReads + 1);
    });
}

// After a refused selection there is no bulk pipe, and nothing is sent on the one from before.
TEST(Selection, ThatIsRefusedAtARestartFailsTheStartAndNotTheNextOne) {
    Interference usb;
    runSession(inOrder(), [&](Session& session) {
        showDesktop(session, usb.plug());
        session.machine().stop(session.node());
        usb.refusesSelection = true;
        EXPECT_FALSE(NT_SUCCESS(session.machine().restart(session.node())));
        usb.refusesSelection = false;
        session.adapter().clearViolations();
        session.remove();
        showDesktop(session, usb.plug(), gradient());
    });
}

} // namespace
} // namespace system_test

// The status pipe when its reads end in other ways than with a report.
#include "tests/system/rig.h"

#include "platform/usb/completion_hook.h"

#include <optional>
#include <utility>

namespace system_test {
namespace {

// Between the host and the adapter.
class Interference final : public usb::Device {
  public:
    usb::Speed speed() const override { return inner_->speed(); }
    void cancel(usb::Transfer& transfer) override { inner_->cancel(transfer); }
    void disconnect() override { inner_->disconnect(); }
    void submit(usb::Transfer& transfer) override {
        constexpr std::uint8_t kClearFeature = 1;
        const bool isInterrupt = transfer.type == usb::TransferType::Interrupt;
        reads += isInterrupt;
        resets += transfer.setup.requestType == 0x02 && transfer.setup.request == kClearFeature;
        statusReads_ += transfer.setup.requestType == 0xC0 && transfer.setup.index == 0x8000;
        if (isInterrupt && stalls) {
            return usb::completeTransfer(transfer, usb::Status::Stalled);
        }
        if (isInterrupt) {
            read_ = &transfer;
            usb::hookCompletion(transfer, [this](usb::Transfer& done) {
                if (end_) {
                    done.status = *std::exchange(end_, std::nullopt);
                    done.actual = 0;
                }
                usb::completeTransfer(done);
            });
        }
        inner_->submit(transfer);
    }

    void show(Session& session) {
        PlugOptions plug = adapter();
        plug.inFront = [this](usb::Device& device) -> usb::Device& {
            inner_ = &device;
            return *this;
        };
        showDesktop(session, plug);
    }

    // How often the driver reads the status when the read that is out ends, or when the adapter reports.
    unsigned statusReadsAfter(Session& session, std::optional<usb::Status> end) {
        const unsigned before = statusReads_;
        if (end) {
            end_ = end;
            inner_->cancel(*read_);
        } else {
            session.adapter().reportFrameError();
        }
        session.machine().sleep(kSecond / 10);
        return statusReads_ - before;
    }
    unsigned statusReadsAfterReport(Session& session) { return statusReadsAfter(session, std::nullopt); }

    bool stalls = false;
    unsigned reads = 0;
    unsigned resets = 0;

  private:
    usb::Device* inner_ = nullptr;
    usb::Transfer* read_ = nullptr;
    std::optional<usb::Status> end_;
    unsigned statusReads_ = 0;
};

// With a monitor attached, no bytes look like a report about a frame: the status is read, which does no harm.
// A cancelled read is not sent again until the device enters D0.
TEST(StatusPipe, LivesOnAfterAReadWithoutBytesAndAgainAfterACancelledOne) {
    Interference usb;
    runSession(inOrder(), [&](Session& session) {
        usb.show(session);
        EXPECT_EQ(usb.statusReadsAfter(session, usb::Status::Success), 1u);
        EXPECT_EQ(usb.statusReadsAfterReport(session), 1u);
        const unsigned reads = usb.reads;
        EXPECT_EQ(usb.statusReadsAfter(session, usb::Status::Cancelled), 0u);
        EXPECT_EQ(usb.reads, reads);
        show(session, gradient());
        session.suspend();
        session.resume();
        EXPECT_EQ(usb.reads, reads + 1);
        EXPECT_EQ(usb.statusReadsAfterReport(session), 1u);
    });
}

// The framework recovers without a limit and without a pause. What bounds it is the bus: the host asks the
// endpoint once in its interval of 1 ms, so a second costs at most a thousand reads, resets and work items.
TEST(StatusPipe, CostsABoundedNumberOfTransfersWhenItStallsForEver) {
    Interference usb;
    runSession(inOrder(), [&](Session& session) {
        usb.show(session);
        usb.stalls = true;
        (void)usb.statusReadsAfter(session, usb::Status::Stalled);
        const unsigned reads = std::exchange(usb.reads, 0);
        usb.resets = 0;
        session.machine().sleep(kSecond);
        EXPECT_GT(reads, 0u);
        EXPECT_GT(usb.reads, 100u);
        EXPECT_LE(usb.reads, 1000u);
        EXPECT_LE(usb.resets, 1000u);
        show(session, gradient());
        usb.stalls = false;
        session.machine().sleep(kSecond / 10);
        EXPECT_EQ(usb.statusReadsAfterReport(session), 1u);
    });
}

} // namespace
} // namespace system_test

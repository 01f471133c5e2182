// A USB stack that refuses transfers: the stream must neither end nor repeat its attempts without a pause,
// must lose no render context, and must send the newest picture once transfers are accepted again, without a
// new command.
#include "tests/system/rig.h"

#include "platform/kernel/fault_points.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace system_test {
namespace {

// The steps of one frame that may be refused: formatting, queueing, tracking and sending two requests each.
// Steps 8 and 10 are the transfers themselves. A failure of those ends the stream.
constexpr std::uint64_t kSteps[] = {1, 2, 3, 4, 5, 6, 7, 9};

class RefusedSend : public testing::Test {
  protected:
    // A run that the verifier stops leaves the fault armed.
    void TearDown() override { kernel::disarmFault(); }
};

TEST_F(RefusedSend, IsFollowedByTheNewestPicture) {
    explore(40, [](Session& session) {
        showDesktop(session, adapter());
        for (const std::uint64_t k : kSteps) {
            const Surface next = pattern("gradient", kWidth, kHeight, k);
            kernel::armFault(k, kernel::FaultMode::Sticky);
            session.machine().sleep(20 * kMillisecond);
            session.present(kDesktop, next);
            session.machine().sleep(20 * kMillisecond);
            kernel::disarmFault();
            expectPicture(session, next);
        }
    });
}

// The system refuses a repetition of the old picture and then the new picture, while the other transfer of
// the old one is in flight. After that transfer completes, no transfer is left whose completion would send
// the new picture.
TEST_F(RefusedSend, OfTheNewestPictureIsRepeatedAfterAnOlderTransfer) {
    for (const std::uint64_t k : kSteps) {
        SCOPED_TRACE(k);
        runSession(inOrder(), [&](Session& session) {
            showDesktop(session, slowAdapter());
            kernel::armFault(k, kernel::FaultMode::Sticky);
            while (!kernel::faultFired()) {
                session.machine().sleep(kMillisecond / 10);
            }
            const Surface next = gradient();
            session.present(kDesktop, next);
            session.machine().sleep(kMillisecond);
            kernel::disarmFault();
            expectPicture(session, next);
        });
    }
}

// The k-th step of the running stream is refused for two seconds. The driver tries it only a few times in
// every tenth of a second. One of the steps is a send.
TEST_F(RefusedSend, IsRepeatedAtALowRate) {
    std::set<std::string> kinds;
    for (const std::uint64_t k : kSteps) {
        runSession(inOrder(), [&](Session& session) {
            showDesktop(session, adapter());
            kernel::armFault(k, kernel::FaultMode::Sticky);
            session.machine().sleep(2 * kSecond);
            const std::uint64_t tried = kernel::faultPointsReached();
            kinds.insert(kernel::faultDescription());
            EXPECT_GE(tried, 10u);
            EXPECT_LE(tried, 400u) << kernel::faultDescription();
            session.present(kDesktop, gradient());
            kernel::disarmFault();
            expectPicture(session);
        });
    }
    std::string all;
    for (const std::string& kind : kinds) {
        all += kind + "; ";
    }
    EXPECT_NE(all.find("WdfRequestSend"), std::string::npos) << all;
}

// One step is refused and the next one accepted: every frame that is sent has its zero-length transfer.
TEST_F(RefusedSend, MayBeFollowedByAnAcceptedOne) {
    explore(40, [](Session& session) {
        PlugOptions plug = adapter();
        plug.inlineCompletion = usb::InlineCompletion::Explored;
        showDesktop(session, plug);
        for (unsigned round = 0; round < 6; round++) {
            kernel::armFault(kSteps[kernel::choose(std::size(kSteps))], kernel::FaultMode::Once);
            session.machine().sleep(20 * kMillisecond);
            kernel::disarmFault();
            show(session, noise(round));
        }
    });
}

// Neither request of a frame is sent, and the reason is that there is no device.
TEST_F(RefusedSend, ByADeviceThatIsGoneEndsTheStream) {
    runSession(inOrder(), [](Session& session) {
        showDesktop(session, adapter());
        kernel::armFault(7, kernel::FaultMode::Sticky, STATUS_NO_SUCH_DEVICE);
        session.machine().sleep(20 * kMillisecond);
        kernel::disarmFault();
        EXPECT_EQ(STATUS_DEVICE_REMOVED, session.client().present(kDesktop, gradient()));
    });
}

TEST_F(RefusedSend, MayBeInterruptedByStopAndRemoval) {
    explore(60, [](Session& session) {
        startDesktop(session, adapter());
        const Surface next = gradient();
        for (unsigned round = 0; round < 3; round++) {
            kernel::armFault(kSteps[kernel::choose(std::size(kSteps))], kernel::FaultMode::Sticky);
            session.machine().sleep(kernel::choose(20) * kMillisecond);
            kernel::disarmFault();
            if (kernel::faultDescription().find("bulk OUT transfer") != std::string::npos) {
                // An error on the wire halts the pipe, and the driver gives up an adapter with a halted pipe.
                session.adapter().clearViolations();
                session.remove();
                startDesktop(session, adapter());
            }
            // The driver may repeat the step at any time from here on.
            if (kernel::choose(2) == 0) {
                switchOffAndOn(session);
            } else {
                session.suspend();
                session.resume();
            }
            session.present(kDesktop, next);
            expectPicture(session, next);
        }
        kernel::armFault(kSteps[kernel::choose(std::size(kSteps))], kernel::FaultMode::Sticky);
        session.machine().sleep(5 * kMillisecond);
        session.remove();
        kernel::disarmFault();
    });
}

} // namespace
} // namespace system_test

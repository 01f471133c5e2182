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

// The steps of one transfer that may be refused, and the first ones of the next: formatting, queueing,
// tracking and sending two requests each.
constexpr unsigned kSteps = 8;
constexpr unsigned kStepsToTheSend = 6; // before the frame itself is sent

class RefusedSend : public testing::Test {
  protected:
    // A run that the verifier stops leaves the fault armed.
    void TearDown() override { kernel::disarmFault(); }
};

TEST_F(RefusedSend, IsFollowedByTheNewestPicture) {
    explore(40, [](Session& session) {
        showDesktop(session, adapter());
        for (std::uint64_t k = 1; k <= kSteps; k++) {
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
    for (std::uint64_t k = 1; k <= kStepsToTheSend; k++) {
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
    for (std::uint64_t k = 1; k <= kSteps; k++) {
        runSession(inOrder(), [&](Session& session) {
            showDesktop(session, adapter());
            kernel::armFault(k, kernel::FaultMode::Sticky);
            session.machine().sleep(2 * kSecond);
            const std::uint64_t tried = kernel::faultPointsReached();
            kinds.insert(kernel::faultDescription());
            EXPECT_GE(tried, 10u);
            EXPECT_LE(tried, 400u) << kernel::faultDescription();
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

// One send is refused and the next one accepted. A round whose fault is another call is the last, because the
// driver gives up an adapter whose transfer failed; the next adapter works.
TEST_F(RefusedSend, MayBeFollowedByAnAcceptedOne) {
    explore(40, [](Session& session) {
        PlugOptions plug = adapter();
        plug.inlineCompletion = usb::InlineCompletion::Explored;
        showDesktop(session, plug);
        for (unsigned round = 0; round < 6; round++) {
            kernel::armFault(1 + kernel::choose(kStepsToTheSend), kernel::FaultMode::Once);
            session.machine().sleep(20 * kMillisecond);
            kernel::disarmFault();
            if (kernel::faultDescription().find("WdfRequestSend") == std::string::npos) {
                break;
            }
            show(session, noise(round));
        }
        session.adapter().clearViolations(); // frames without their zero-length transfers
        session.remove();
        showDesktop(session, plug, gradient());
    });
}

TEST_F(RefusedSend, MayBeInterruptedByStopAndRemoval) {
    explore(60, [](Session& session) {
        startDesktop(session, adapter());
        const Surface next = gradient();
        for (unsigned round = 0; round < 3; round++) {
            kernel::armFault(1 + kernel::choose(kSteps), kernel::FaultMode::Sticky);
            session.machine().sleep(kernel::choose(20) * kMillisecond);
            kernel::disarmFault();
            // The driver may repeat the step at any time from here on.
            switchOffAndOn(session);
            session.present(kDesktop, next);
            expectPicture(session, next);
        }
        kernel::armFault(1, kernel::FaultMode::Sticky);
        session.machine().sleep(5 * kMillisecond);
        kernel::disarmFault();
        session.remove();
    });
}

} // namespace
} // namespace system_test

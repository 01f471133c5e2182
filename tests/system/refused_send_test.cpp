// A USB stack that refuses to take transfers: the stream must neither spin nor end, lose no render context,
// and bring the newest picture once transfers are taken again, without the client doing anything.
#include "tests/system/rig.h"

#include "platform/kernel/fault_points.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace system_test {
namespace {

// Steps of one transfer that may be refused, and the first of the next: formatting, queueing, tracking and
// sending two requests each.
constexpr unsigned kSteps = 8;
constexpr unsigned kStepsToTheSend = 6; // of the frame itself: nothing of it goes out

class RefusedSend : public testing::Test {
  protected:
    // A run that the verifier stops leaves its refusals in force.
    void TearDown() override { kernel::disarmFault(); }
};

TEST_F(RefusedSend, TheNewestPictureComesBackByItself) {
    explore(40, [](Session& session) {
        showDesktop(session, adapter(), pattern("bars", kWidth, kHeight));
        expectPicture(session);
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

// A re-send is refused, and while the other transfer of the old picture is still out, the new picture is,
// too. When that other one comes back, nothing is under way any more that would bring the new one.
TEST_F(RefusedSend, TheNewestPictureIsNotForgottenBehindAnOlderTransfer) {
    for (std::uint64_t k = 1; k <= kStepsToTheSend; k++) {
        SCOPED_TRACE(k);
        runSession(inOrder(), [&](Session& session) {
            PlugOptions slow = adapter();
            slow.bandwidth = 61'000'000; // 15 ms a frame
            showDesktop(session, slow, pattern("bars", kWidth, kHeight));
            expectPicture(session);
            kernel::armFault(k, kernel::FaultMode::Sticky);
            while (!kernel::faultFired()) {
                session.machine().sleep(kMillisecond / 10);
            }
            const Surface next = pattern("gradient", kWidth, kHeight);
            session.present(kDesktop, next);
            session.machine().sleep(kMillisecond);
            kernel::disarmFault();
            expectPicture(session, next);
        });
    }
}

// Whatever the k-th step of the running stream is, a send among them: it is refused for two seconds, and
// tried a few times in every tenth of a second, no more.
TEST_F(RefusedSend, TheDriverTriesAgainNowAndThen) {
    std::set<std::string> kinds;
    for (std::uint64_t k = 1; k <= kSteps; k++) {
        runSession(inOrder(), [&](Session& session) {
            showDesktop(session, adapter(), pattern("bars", kWidth, kHeight));
            expectPicture(session);
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

TEST_F(RefusedSend, StopsAndRemovalsMeanwhileLoseNothing) {
    explore(60, [](Session& session) {
        showDesktop(session, adapter(), pattern("bars", kWidth, kHeight));
        const Surface next = pattern("gradient", kWidth, kHeight);
        for (unsigned round = 0; round < 3; round++) {
            kernel::armFault(1 + kernel::choose(kSteps), kernel::FaultMode::Sticky);
            session.machine().sleep(kernel::choose(20) * kMillisecond);
            kernel::disarmFault();
            // A repetition may be due at any moment now.
            session.setDisplayPower(false);
            session.setDisplayPower(true);
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

// Everything the adapter offers, from several threads at once: for the sanitizers.
#include <gtest/gtest.h>

#include <thread>

#include "tests/model/host.h"

namespace model::test {
namespace {

TEST(FreeThreads, ShareOneAdapter) {
    const Mode& mode = modeOf(640, 480);
    Host host;
    host.switchOn(2);
    host.setMode(mode, kRgb8);
    host.adapter.setScreenListener([&] { (void)host.adapter.darkReason(); });

    constexpr unsigned kRounds = 100;
    std::atomic<unsigned> reports = 0;
    std::thread streaming([&] {
        for (unsigned i = 0; i < kRounds; i++) {
            host.sendFrame(noise(pixels(mode), i / 2));
        }
    });
    std::thread registers([&] {
        for (unsigned i = 0; i < kRounds; i++) {
            host.read(reg::kStatus);
        }
    });
    std::thread events([&] {
        for (unsigned i = 0; i < kRounds; i++) {
            host.adapter.reportFrameError();
        }
    });
    std::thread reader([&] {
        for (unsigned i = 0; i < kRounds; i++) {
            std::uint8_t byte = 0;
            std::atomic<bool> ended = false;
            usb::Transfer read;
            read.type = usb::TransferType::Interrupt;
            read.endpoint = kInterruptInEndpoint;
            read.data = {&byte, 1};
            read.complete = [&](usb::Transfer& transfer) {
                reports += transfer.status == usb::Status::Success;
                ended = true;
            };
            host.adapter.submit(read);
            host.adapter.cancel(read);
            while (!ended) {
                std::this_thread::yield();
            }
        }
    });
    std::thread watcher([&] {
        for (unsigned i = 0; i < kRounds; i++) {
            (void)host.adapter.picture();
            (void)host.adapter.statistics();
            (void)host.adapter.violations();
        }
    });
    for (std::thread* thread : {&streaming, &registers, &events, &reader, &watcher}) {
        thread->join();
    }
    EXPECT_EQ(host.adapter.statistics().framesReceived, kRounds);
    EXPECT_EQ(host.adapter.statistics().interruptReports, reports);
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

} // namespace
} // namespace model::test

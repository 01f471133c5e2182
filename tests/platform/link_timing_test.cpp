#include "platform/usb/host.h"
#include "platform/usb/link_timing.h"
#include "tests/platform/run.h"
#include "tests/platform/scripted_device.h"

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace kernel;
using namespace platform_test;
using usb::Status;
using usb::TransferType;

// A transfer with its own data that notes how and when it ended.
struct Sent {
    usb::Transfer transfer;
    std::vector<std::uint8_t> data;
    std::atomic<int> completions = 0;
    std::atomic<Time> endedAt = -1;

    Sent(TransferType type, std::uint8_t endpoint, std::size_t size) : data(size) {
        transfer.type = type;
        transfer.endpoint = endpoint;
        transfer.data = data;
        transfer.complete = [this](usb::Transfer&) {
            endedAt = now();
            completions++;
        };
    }
    Sent(const Sent&) = delete;
};

// A body that runs with a clock.
void onClock(const std::function<void(usb::Clock&)>& body) {
    Scheduler scheduler(sim(Strategy::Random, 5));
    scheduler.run([&] { body(scheduler.clock()); });
}

constexpr std::uint8_t kOut = 0x01;
constexpr std::uint8_t kReports = 0x83;

TEST(LinkTiming, BytesAndLatencyTakeTheirTime) {
    struct Case {
        usb::Speed speed;
        TransferType type;
        std::size_t bytes;
        Time expected;
    };
    const Case cases[] = {
        {usb::Speed::Super, TransferType::Bulk, 4'000'000, 10 * usb::kMillisecond + 20 * usb::kMicrosecond},
        {usb::Speed::High, TransferType::Bulk, 4'000'000, 100 * usb::kMillisecond + 125 * usb::kMicrosecond},
        {usb::Speed::Super, TransferType::Bulk, 0, 20 * usb::kMicrosecond},
        {usb::Speed::Super, TransferType::Bulk, 1, 20 * usb::kMicrosecond + 1}, // rounded up
        {usb::Speed::Super, TransferType::Control, 4, 20 * usb::kMicrosecond + 1},
        {usb::Speed::High, TransferType::Interrupt, 1, 125 * usb::kMicrosecond},
    };
    for (const Case& test : cases) {
        onClock([&test](usb::Clock& clock) {
            ScriptedDevice device(test.speed);
            device.onSubmit = [&](usb::Transfer& transfer) { device.accept(transfer); };
            usb::LinkTiming link(device, clock, {});
            Sent sent(test.type, test.type == TransferType::Interrupt ? kReports : kOut, test.bytes);
            link.submit(sent.transfer);
            EXPECT_EQ(sent.completions, 0);
            sleepFor(usb::kSecond);
            EXPECT_EQ(sent.completions, 1);
            EXPECT_EQ(sent.endedAt, test.expected) << test.bytes << " bytes";
            EXPECT_EQ(sent.transfer.status, Status::Success);
        });
    }
}

// A host that always keeps two frames on their way, each followed by an empty transfer, loses no bandwidth.
TEST(LinkTiming, TwoTransfersInFlightKeepTheLinkBusy) {
    onClock([](usb::Clock& clock) {
        ScriptedDevice device(usb::Speed::Super);
        device.onSubmit = [&](usb::Transfer& transfer) { device.accept(transfer); };
        usb::LinkTiming link(device, clock, {});
        std::vector<std::uint8_t> frame(6'000'000);
        std::deque<usb::Transfer> transfers;
        int left = 100;
        std::function<void()> send = [&] {
            if (left-- <= 0) {
                return;
            }
            usb::Transfer& data = transfers.emplace_back();
            data.type = TransferType::Bulk;
            data.endpoint = kOut;
            data.data = frame;
            data.complete = [](usb::Transfer&) {};
            usb::Transfer& empty = transfers.emplace_back();
            empty.type = TransferType::Bulk;
            empty.endpoint = kOut;
            empty.complete = [&send](usb::Transfer&) { send(); };
            link.submit(data);
            link.submit(empty);
        };
        send();
        send();
        const Time start = now();
        sleepFor(usb::kSecond);
        EXPECT_GT(link.busyTime(), (now() - start) * 98 / 100);
        EXPECT_EQ(link.bulkBytes(), link.bulkTransfers() * frame.size());
        EXPECT_EQ(link.bulkTransfers(), 66u); // 15 ms each
        link.resetCounters();
        EXPECT_EQ(link.busyTime(), 0);
        sleepFor(10 * usb::kMillisecond);
        EXPECT_EQ(link.busyTime(), 10 * usb::kMillisecond);
        left = 0;
        sleepFor(usb::kSecond);
    });
}

TEST(LinkTiming, StarvedLinksAreSlowFromTheNextTransferOn) {
    onClock([](usb::Clock& clock) {
        ScriptedDevice device(usb::Speed::Super);
        device.onSubmit = [&](usb::Transfer& transfer) { device.accept(transfer); };
        usb::LinkTiming link(device, clock, {400'000'000, 0});
        Sent first(TransferType::Bulk, kOut, 400'000);
        Sent second(TransferType::Bulk, kOut, 400'000);
        link.submit(first.transfer);
        link.submit(second.transfer);
        link.setBandwidth(4'000'000);
        sleepFor(usb::kSecond);
        EXPECT_EQ(first.endedAt, usb::kMillisecond);
        EXPECT_EQ(second.endedAt, 101 * usb::kMillisecond);
    });
}

// Where a transfer is when it is withdrawn or the cable is pulled.
TEST(LinkTiming, WithdrawnTransfersEndOnceWhereverTheyAre) {
    for (bool pull : {false, true}) {
        onClock([pull](usb::Clock& clock) {
            ScriptedDevice device(usb::Speed::Super); // deaf
            usb::LinkTiming link(device, clock, {});
            Sent atDevice(TransferType::Bulk, kOut, 100);
            Sent waiting(TransferType::Bulk, kOut, 100);
            Sent report(TransferType::Interrupt, kReports, 1);
            Sent control(TransferType::Control, 0, 4);
            link.submit(atDevice.transfer);
            link.submit(waiting.transfer);
            link.submit(report.transfer);
            sleepFor(usb::kMillisecond);
            link.submit(control.transfer); // still moving
            EXPECT_EQ(device.submitted.size(), 2u);
            Sent* const all[] = {&atDevice, &waiting, &report, &control};
            if (pull) {
                link.disconnect();
            } else {
                for (Sent* sent : {&waiting, &atDevice, &report, &control}) {
                    link.cancel(sent->transfer);
                }
            }
            sleepFor(usb::kSecond);
            for (Sent* sent : all) {
                EXPECT_EQ(sent->completions, 1);
                EXPECT_EQ(sent->transfer.status, pull ? Status::Gone : Status::Cancelled);
                link.cancel(sent->transfer); // too late, and harmless
                EXPECT_EQ(sent->completions, 1);
            }
            EXPECT_TRUE(device.submitted.empty());
            Sent later(TransferType::Bulk, kOut, 100);
            device.onSubmit = [&](usb::Transfer& transfer) { device.accept(transfer); };
            link.submit(later.transfer);
            sleepFor(usb::kSecond);
            EXPECT_EQ(later.completions, 1);
            EXPECT_EQ(later.transfer.status, pull ? Status::Gone : Status::Success);
        });
    }
}

TEST(LinkTiming, ADeafDeviceHoldsUpWhatFollows) {
    onClock([](usb::Clock& clock) {
        ScriptedDevice device(usb::Speed::Super);
        usb::LinkTiming link(device, clock, {});
        Sent first(TransferType::Bulk, kOut, 400);
        Sent second(TransferType::Bulk, kOut, 400);
        link.submit(first.transfer);
        link.submit(second.transfer);
        sleepFor(usb::kSecond);
        ASSERT_EQ(device.submitted.size(), 1u);
        const Time answered = now();
        device.onSubmit = [&](usb::Transfer& transfer) { device.accept(transfer); };
        device.accept(first.transfer);
        sleepFor(usb::kSecond);
        EXPECT_EQ(first.endedAt, answered + 20 * usb::kMicrosecond);
        EXPECT_EQ(second.endedAt, answered + 21 * usb::kMicrosecond);
    });
}

TEST(Host, DeliversByDpcOrInsideAsTheScheduleChooses) {
    for (usb::InlineCompletion mode : {usb::InlineCompletion::Never, usb::InlineCompletion::Explored}) {
        int inside = 0;
        for (std::uint64_t seed = 1; seed <= 40; seed++) {
            Scheduler scheduler(sim(Strategy::Random, seed));
            scheduler.run([&] {
                ScriptedDevice device(usb::Speed::Super);
                device.onSubmit = [&](usb::Transfer& transfer) { device.accept(transfer); };
                usb::HostOptions options;
                options.link = {1'000'000'000'000'000, 0};
                options.inlineCompletion = mode;
                usb::Host host(device, scheduler.clock(), options);
                Sent sent(TransferType::Bulk, kOut, 0);
                bool submitting = true;
                sent.transfer.complete = [&](usb::Transfer&) {
                    sent.completions++;
                    const bool isDpc = taskKind(currentTask()) == TaskKind::Dpc;
                    EXPECT_EQ(isDpc, currentIrql() == kDispatchLevel);
                    inside += submitting && !isDpc ? 1 : 0;
                };
                host.submit(sent.transfer);
                submitting = false;
                sleepFor(usb::kMillisecond);
                EXPECT_EQ(sent.completions, 1);
            });
        }
        if (mode == usb::InlineCompletion::Never) {
            EXPECT_EQ(inside, 0);
        } else {
            EXPECT_GT(inside, 5);
            EXPECT_LT(inside, 35);
        }
    }
}

TEST(Host, HoldsTransfersWhileThePortIsSuspended) {
    onClock([](usb::Clock& clock) {
        ScriptedDevice device(usb::Speed::Super);
        device.onSubmit = [&](usb::Transfer& transfer) { device.accept(transfer); };
        usb::Host host(device, clock, {});
        host.suspend();
        Sent first(TransferType::Bulk, kOut, 4);
        Sent second(TransferType::Bulk, kOut, 4);
        Sent third(TransferType::Bulk, kOut, 4);
        for (Sent* sent : {&first, &second, &third}) {
            host.submit(sent->transfer);
        }
        sleepFor(usb::kSecond);
        EXPECT_EQ(first.completions + second.completions + third.completions, 0);
        host.cancel(second.transfer);
        sleepFor(usb::kSecond);
        EXPECT_EQ(second.transfer.status, Status::Cancelled);
        EXPECT_EQ(second.completions, 1);
        host.resume();
        sleepFor(usb::kSecond);
        EXPECT_EQ(first.transfer.status, Status::Success);
        EXPECT_LT(first.endedAt, third.endedAt);
        // Pulled while suspended: what is held and what comes later is gone.
        host.suspend();
        Sent fourth(TransferType::Bulk, kOut, 4);
        Sent fifth(TransferType::Bulk, kOut, 4);
        host.submit(fourth.transfer);
        host.disconnect();
        host.submit(fifth.transfer);
        sleepFor(usb::kSecond);
        EXPECT_EQ(fourth.transfer.status, Status::Gone);
        EXPECT_EQ(fifth.transfer.status, Status::Gone);
        EXPECT_EQ(fourth.completions + fifth.completions, 2);
    });
}

// Transfers, cancels and a pulled cable at random moments: each transfer ends exactly once.
void endsExactlyOnce(const SchedulerOptions& options) {
    Scheduler scheduler(options);
    scheduler.run([&] {
        ScriptedDevice device(usb::Speed::Super);
        usb::Host host(device, scheduler.clock(), {});
        std::deque<Sent> all;
        for (int i = 0; i < 30; i++) {
            all.emplace_back(i % 3 == 0 ? TransferType::Control : TransferType::Bulk,
                             static_cast<std::uint8_t>(i % 3 == 0 ? 0 : kOut),
                             40u * static_cast<unsigned>(i));
        }
        Task& sender = spawn("sender", TaskKind::Host, [&] {
            for (Sent& sent : all) {
                host.submit(sent.transfer);
                if (choose(4) == 0) {
                    sleepFor(10);
                }
            }
        });
        Task& canceller = spawn("canceller", TaskKind::Host, [&] {
            for (Sent& sent : all) {
                sleepFor(choose(20));
                host.cancel(sent.transfer);
            }
        });
        if (choose(2) == 0) {
            sleepFor(choose(300));
            host.disconnect();
        }
        join(sender);
        join(canceller);
        host.disconnect();
        sleepFor(100 * usb::kMillisecond);
        for (const Sent& sent : all) {
            EXPECT_EQ(sent.completions, 1);
        }
    });
}

TEST(Host, EveryTransferEndsExactlyOnce) {
    for (std::uint64_t seed = 1; seed <= 300; seed++) {
        endsExactlyOnce(sim(seed % 2 == 0 ? Strategy::Random : Strategy::Pct, seed));
    }
}

TEST(FreeHost, EveryTransferEndsExactlyOnce) {
    for (int i = 0; i < 20; i++) {
        endsExactlyOnce(freeRunning());
    }
}

} // namespace

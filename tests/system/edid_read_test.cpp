// How the driver reads the monitor's EDID, through the adapter's own serial master and through the
// transmitter: complete for each number of blocks, and without a fault when it is corrupt or the monitor
// stops answering.
#include "tests/system/rig.h"

#include "device/device_context.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <numeric>
#include <set>

namespace system_test {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kBlock = 128;

void fixChecksum(Bytes& edid, std::size_t block) {
    const auto first = edid.begin() + static_cast<std::ptrdiff_t>(block * kBlock);
    const unsigned sum = std::accumulate(first, first + kBlock - 1, 0u);
    edid[block * kBlock + kBlock - 1] = static_cast<std::uint8_t>(0x100 - sum % 0x100);
}

// The built-in monitor with `blocks` different blocks.
Bytes edidOf(std::size_t blocks) {
    const Bytes builtin = rig::builtinEdid();
    Bytes edid(builtin.begin(), builtin.begin() + kBlock);
    edid[126] = static_cast<std::uint8_t>(blocks - 1);
    fixChecksum(edid, 0);
    for (std::size_t block = 1; block < blocks; block++) {
        edid.insert(edid.end(), builtin.begin() + kBlock, builtin.begin() + 2 * kBlock);
        edid[block * kBlock + kBlock - 2] = static_cast<std::uint8_t>(block); // behind the timings
        fixChecksum(edid, block);
    }
    return edid;
}

// A block as stored by the driver, which rewrites the base block for the client.
Bytes blockInDriver(Session& session, std::size_t block) {
    auto* context = static_cast<DEVICE_CONTEXT*>(session.client().driverRecord().Context);
    MUTEX_GUARD monitor(context->Control.MonitorMutex);
    const UCHAR(&bytes)[kBlock] = context->Control.Edid.EdidBlocks[block];
    return {std::begin(bytes), std::end(bytes)};
}

Bytes offered(Session& session) {
    Bytes edid(kBlock);
    require(session.client().command(CMD_QUERY_EDID, {}, edid), "asking for the EDID");
    return edid;
}

const Bytes kNothing(kBlock, 0);

unsigned sumOf(const Bytes& block) {
    return std::accumulate(block.begin(), block.end(), 0u) % 0x100;
}

class EdidRead : public testing::TestWithParam<bool> {};

TEST_P(EdidRead, ReadsEveryBlock) {
    std::size_t run = 0;
    for (const std::size_t blocks : {1, 2, 3, 8, 9, 10}) {
        SCOPED_TRACE(fmt::format("{} blocks", blocks));
        SessionOptions options = inOrder();
        options.scheduler.tick = kTicks[++run % std::size(kTicks)];
        runSession(options, [&](Session& session) {
            const Bytes edid = edidOf(blocks);
            session.attachMonitor(edid);
            session.plug(adapterWithTransmitter(GetParam()));
            session.openClient();
            EXPECT_EQ(0x00, offered(session)[0]);
            EXPECT_EQ(0xFF, offered(session)[1]);
            // The driver keeps eight blocks. Of a monitor with more than nine it uses the base block alone.
            const std::size_t kept = blocks > 9 ? 1 : blocks;
            for (std::size_t block = 1; block < 8; block++) {
                const auto first = edid.begin() + static_cast<std::ptrdiff_t>(block * kBlock);
                EXPECT_EQ(block < kept ? Bytes(first, first + kBlock) : kNothing,
                          blockInDriver(session, block))
                    << "block " << block;
            }
        });
    }
}

// Header and CEA structure are checked only if there is a transmitter, checksums never. The block that the
// client gets always has a correct checksum.
TEST_P(EdidRead, ChecksTheStructureForTheTransmitter) {
    const struct {
        const char* what;
        std::size_t byte;
        bool structural;
    } cases[] = {
        {"header", 5, true}, // the transmitter never reads the first three bytes
        {"contents", 20, false},
        {"checksum", 127, false},
        {"revision of the extension", kBlock + 1, true},
        {"checksum of the extension", 2 * kBlock - 1, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        runSession(inOrder(), [&](Session& session) {
            Bytes edid = edidOf(2);
            edid[c.byte] ^= 0x10;
            session.attachMonitor(edid);
            session.plug(adapterWithTransmitter(GetParam()));
            session.openClient();
            EXPECT_EQ(GetParam() && c.structural, offered(session) == kNothing);
            EXPECT_EQ(0u, sumOf(offered(session)));
        });
    }
}

// A client that asks while the EDID of another monitor is read.
TEST_P(EdidRead, IsNeverSeenHalf) {
    runSession(inOrder(), [](Session& session) {
        session.attachMonitor(edidOf(1));
        session.plug(adapterWithTransmitter(GetParam()));
        const std::unique_ptr<desktop::Client> client = holdingClient(session);
        std::set<Bytes> seen;
        bool ended = false;
        {
            ClientThread asker("asker", [&] {
                while (!ended) {
                    Bytes edid(kBlock);
                    require(client->command(CMD_QUERY_EDID, {}, edid), "asking for the EDID");
                    seen.insert(edid);
                    session.machine().sleep(7 * kMillisecond);
                }
            });
            session.adapter().detachMonitor();
            session.machine().sleep(kSecond);
            session.adapter().attachMonitor(edidOf(2));
            session.machine().sleep(10 * kSecond);
            ended = true;
        }
        EXPECT_EQ(3u, seen.size()) << "the first monitor's, none, the second one's";
        for (const Bytes& edid : seen) {
            EXPECT_TRUE(edid == kNothing || sumOf(edid) == 0);
        }
        client->close();
    });
}

// The monitor answers a number of bytes and then holds the bus. The client gets its interface in time, and
// the EDID of the next monitor is read.
TEST_P(EdidRead, EndsWhenTheMonitorStopsAnswering) {
    for (const unsigned bytes : {0u, 1u, 7u, 50u, 127u, 128u, 200u, 255u}) {
        SCOPED_TRACE(fmt::format("silent after {} bytes", bytes));
        runSession(inOrder(), [&](Session& session) {
            session.attachMonitor(edidOf(2));
            session.plug(adapterWithTransmitter(GetParam()));
            session.openClient();
            const Bytes whole = offered(session);

            session.detachMonitor();
            session.adapter().limitDdcAnswers(bytes);
            const usb::Time begin = now(session);
            session.attachMonitor(edidOf(2));
            session.openClient();
            EXPECT_LT(now(session) - begin, 60 * kSecond);
            EXPECT_EQ(0u, sumOf(offered(session)));

            session.detachMonitor();
            session.adapter().limitDdcAnswers(std::nullopt);
            session.attachMonitor(edidOf(2));
            session.openClient();
            EXPECT_EQ(whole, offered(session));
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Through, EdidRead, testing::Bool(),
                         [](const auto& info) { return info.param ? "Transmitter" : "Adapter"; });

} // namespace
} // namespace system_test

// The register accesses of the driver, compared with tables that were written from the adapter's side:
// power-up and power-down, monitors that are attached and detached, display modes.
#include "tests/system/rig.h"
#include "tests/system/transcript.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <iterator>

namespace system_test {
namespace {

constexpr std::uint32_t bit(unsigned number) {
    return 1u << number;
}

using Table = std::vector<Step>;

Table operator+(Table left, const Table& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// One monitor block of the DDC, four bytes at a time.
Table edidBlock(unsigned block) {
    Table table;
    for (unsigned offset = 0; offset < 128; offset += 4) {
        table.push_back(i2cRead(0x50, static_cast<std::uint8_t>(block * 128 + offset)));
    }
    return table;
}

// No device answers at the transmitter's address.
const Table kNoTransmitter = {i2cTimeout(0x4C, 0x00)};

Table powerUp(unsigned revision) {
    const Table begin = Table{set(0x8048, bit(15))} + kNoTransmitter;
    switch (revision) {
    case 1:
        return begin + Table{set(0x8020, bit(30)), set(0x803C, 0x14), clear(0x8040, 0xF0000000)};
    case 2:
        return begin + Table{set(0x8048, bit(15)), set(0x8020, bit(30)), set(0x8020, bit(28)),
                             clear(0x8088, bit(10))};
    default:
        return begin;
    }
}

const Table kStatus = {read(0x8000)};

Table attached(unsigned revision) {
    return Table{set(0x0070, bit(20)), set(0x0070, bit(19))} +
           (revision == 2 ? Table{clear(0x0078, bit(17))} : Table{});
}

Table outputOff(unsigned revision) {
    return Table{clear(0x803C, bit(26))} + (revision == 2 ? Table{set(0x0078, bit(17))} : Table{});
}

Table detached(unsigned revision) {
    return outputOff(revision) + Table{clear(0x0070, bit(20)), clear(0x0070, bit(19))};
}

Table finalPowerDown(unsigned revision) {
    switch (revision) {
    case 1:
        return {set(0x0070, bit(20)), set(0x0070, bit(19))};
    case 2:
        return {clear(0x8064, bit(17))};
    default:
        return {};
    }
}

Table sleep(unsigned revision) {
    return Table{clear(0x8020, bit(30)), clear(0x8020, bit(28))} + outputOff(revision);
}

// The end of a power-up without a monitor. The output of the older revisions is switched off for certain.
Table noMonitor(unsigned revision) {
    return revision == 2 ? kStatus : kStatus + detached(revision);
}

std::vector<std::uint8_t> oneBlockEdid() {
    std::vector<std::uint8_t> edid = rig::builtinEdid();
    edid.resize(128);
    edid[126] = 0;
    return edid;
}

using MonitorBytes = std::optional<std::vector<std::uint8_t>>;
const MonitorBytes kWithoutEdid = std::vector<std::uint8_t>();

// A session whose adapter has a recorder in front of it, with a monitor attached unless `monitor` is empty.
void record(const SessionOptions& options, PlugOptions plug, const MonitorBytes& monitor,
            const std::function<void(Session&, Recorder&)>& body) {
    Recorder recorder;
    runSession(options, [&](Session& session) {
        if (monitor) {
            session.attachMonitor(*monitor);
        }
        plug.inFront = recorder.wrap(session.machine().clock());
        session.plug(plug);
        body(session, recorder);
    });
}

// Compares the register accesses since the last call with a table.
void expectAccesses(Recorder& recorder, const Table& table, unsigned revision = 2, bool serial = true) {
    EXPECT_EQ("", differs(recorder.registerAccesses(serial), table, revision));
    recorder.clear();
}

class PowerSequences : public testing::TestWithParam<unsigned> {};

TEST_P(PowerSequences, FollowTheAdapterWithoutAMonitor) {
    const unsigned revision = GetParam();
    record(inOrder(), adapter(revision), std::nullopt, [&](Session& session, Recorder& recorder) {
        expectAccesses(recorder, powerUp(revision) + noMonitor(revision), revision);
        session.suspend();
        expectAccesses(recorder, sleep(revision), revision);
        session.resume();
        expectAccesses(recorder, powerUp(revision) + noMonitor(revision), revision);
        session.remove();
        expectAccesses(recorder, finalPowerDown(revision), revision);
    });
}

TEST_P(PowerSequences, FollowTheAdapterWithAMonitor) {
    const unsigned revision = GetParam();
    record(inOrder(), adapter(revision), oneBlockEdid(), [&](Session& session, Recorder& recorder) {
        // A report of the monitor may cause reads of the status in between.
        std::vector<Transfer> accesses = recorder.registerAccesses();
        EXPECT_LT(0, std::erase_if(accesses, [](const Transfer& one) { return one.setup.index == 0x8000; }));
        EXPECT_EQ("", differs(accesses, powerUp(revision) + attached(revision) + edidBlock(0), revision));
        recorder.clear();
        session.remove();
        expectAccesses(recorder, detached(revision) + finalPowerDown(revision), revision);
    });
}

INSTANTIATE_TEST_SUITE_P(Every, PowerSequences, testing::Values(0u, 1u, 2u),
                         [](const auto& info) { return fmt::format("Revision{}", info.param); });

TEST(MonitorPower, FollowAMonitorThatIsAttachedAndDetached) {
    record(inOrder(), adapter(), std::nullopt, [&](Session& session, Recorder& recorder) {
        recorder.clear();
        session.attachMonitor(rig::builtinEdid());
        ASSERT_TRUE(session.client().waitForArrival(10 * kSecond));
        expectAccesses(recorder, kStatus + attached(2) + edidBlock(0) + edidBlock(1));
        session.detachMonitor();
        session.machine().sleep(kSecond); // the client is told first
        expectAccesses(recorder, kStatus + detached(2));
    });
}

// Each stage takes 750 ms to power up, and the stages are switched off 750 ms apart.
TEST(MonitorPower, GiveThePowerStagesTheirTime) {
    record(inOrder(), adapter(), std::nullopt, [&](Session& session, Recorder& recorder) {
        const usb::Time start = now(session);
        EXPECT_GE(start, 1500 * kMillisecond);
        recorder.clear();
        session.suspend();
        EXPECT_GE(now(session) - start, 750 * kMillisecond);
        const std::vector<Transfer> accesses = recorder.registerAccesses();
        ASSERT_GE(accesses.size(), 4u);
        EXPECT_GE(accesses[2].time - accesses[1].time, 750 * kMillisecond);
    });
}

// The display modes.

struct Timing {
    unsigned width;
    unsigned height;
    std::uint32_t pll;
    std::array<std::uint32_t, 4> images; // 0x8008, 0x800C, 0x8010, 0x8014
    std::uint32_t formatCleared;         // bits cleared in 0x8004
};

constexpr Timing kVga = {640, 480, 0x3F6119, {0x02800320, 0x00600089, 0x01E0020D, 0x01C2001C}, 0x9F0020CC};
constexpr Timing kVgaCea = {640, 480, 0x3F6119, {0x02800320, 0x00600091, 0x01E0020D, 0x02420024}, 0x9F0020CC};
constexpr Timing kWide = {1680, 1050, 0x756204, {0x069008C0, 0x00B001C9, 0x041A0441, 0x02560025}, 0x9F0020C0};
constexpr Timing kFullHd = {
    1920, 1080, 0x596106, {0x07800898, 0x002C00C1, 0x04380465, 0x02A5002A}, 0x9F0020C0};

struct ModeCase {
    const char* name;
    Timing timing;
    std::uint32_t control; // bits set in 0x803C
    std::uint32_t format;  // bits set in 0x8004
    usb::Speed link = usb::Speed::Super;
    std::vector<rig::Setting> settings = {};
    bool transmitter = false;
    bool detection = true; // of bandwidth: ended by clearing a bit, even if it was not set
};

const ModeCase kModeCases[] = {
    {"640x480, 3 bytes", kVga, 0x11000000, 0x00000081},
    {.name = "640x480, 3 bytes, transmitter",
     .timing = kVgaCea,
     .control = 0x11000000,
     .format = 0x00000081,
     .transmitter = true},
    {"1680x1050, 3 bytes, the smallest whose bytes are counted", kWide, 0x21000000, 0x0000008D},
    {"1920x1080, 3 bytes", kFullHd, 0x21000000, 0x0000008D},
    {"1920x1080, RGB565",
     kFullHd,
     0x10000000,
     0x000000CD,
     usb::Speed::Super,
     {setting("UseUsb3OutputRGB565Enable", 1), setting("UseDynamicPixelBytesAdjustmentEnable", 0)}},
    {"1920x1080, RGB555 compressed", kFullHd, 0x10000000, 0x8100008D, usb::Speed::High},
    {.name = "1920x1080, 3 bytes, no bandwidth detection, with bucket",
     .timing = kFullHd,
     .control = 0x20200000,
     .format = 0x0000008D,
     .settings = {setting("UseBandwidthDetectionEnable", 0), setting("UseFrameErrorBucket", 1)},
     .detection = false},
};

Table modeTable(const ModeCase& mode, bool first) {
    Table table;
    if (first) {
        table = {set(0x803C, bit(26)), write(0x802C, mode.timing.pll)};
    }
    table = table + Table{set(0x8048, bit(15)),
                          read(0x802C),
                          clear(0x803C, 0x39682000),
                          set(0x803C, mode.control),
                          clear(0x8004, mode.timing.formatCleared),
                          set(0x8004, mode.format)};
    constexpr std::uint16_t kImageRegisters[] = {0x8008, 0x800C, 0x8010, 0x8014};
    for (std::size_t i = 0; i < mode.timing.images.size(); i++) {
        table.push_back(write(kImageRegisters[i], mode.timing.images[i]));
        table.push_back(read(kImageRegisters[i]));
    }
    return table + Table{clear(0x801C, 0x3FFF0000), clear(0x0070, bit(13))};
}

TEST(ModeSequences, ProgramTimingClockAndFormat) {
    for (const ModeCase& mode : kModeCases) {
        SCOPED_TRACE(mode.name);
        PlugOptions plug = adapter(2, mode.link);
        plug.adapter.transmitter = mode.transmitter;
        record(inOrder(mode.settings), plug, kWithoutEdid, [&](Session& session, Recorder& recorder) {
            session.openClient();
            session.createFrameBuffer(kDesktop, mode.timing.width, mode.timing.height);

            recorder.clear();
            session.setDisplayPower(true);
            EXPECT_EQ(recorder.registerAccesses().size(), recorder.transfers().size())
                << "the streaming interface has its setting already: nothing else is sent";
            const Table hold = {set(0x803C, bit(25)), clear(0x803C, bit(25))};
            expectAccesses(recorder, modeTable(mode, true) + (mode.transmitter ? hold : Table{}), 2, false);

            // Off: the bandwidth detection ends with the stream, then the output is flushed.
            session.setDisplayPower(false);
            const Table noDetection = mode.detection ? Table{clear(0x803C, bit(24))} : Table{};
            expectAccesses(recorder, noDetection + Table{set(0x8048, bit(15))}, 2, false);

            // On again: the clock is still running.
            session.setDisplayPower(true);
            expectAccesses(recorder, noDetection + modeTable(mode, false), 2, false);
            show(session, pattern("bars", mode.timing.width, mode.timing.height), 5 * kSecond);
        });
    }
}

// After a detach no mode is set any more, so the next display-on programs the clock, too.
TEST(ModeSequences, ProgramTheClockAgainAfterADetach) {
    record(inOrder(), adapter(), kWithoutEdid, [](Session& session, Recorder& recorder) {
        switchOn(session);

        recorder.clear();
        session.detachMonitor();
        session.machine().sleep(kSecond);
        expectAccesses(recorder, kStatus + Table{clear(0x803C, bit(24))} + detached(2));

        session.attachMonitor({});
        session.openClient();
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        recorder.clear();
        session.setDisplayPower(true);
        // Whether the output is disabled first depends on what is left of the previous mode.
        EXPECT_TRUE(std::ranges::any_of(recorder.registerAccesses(), [](const Transfer& one) {
            return one.isAccess(kWriteRegister, 0x802C) && one.word() == kVga.pll;
        }));
        show(session, bars());
    });
}

// A size that no table has: no register is accessed, and the command succeeds all the same.
TEST(ModeSequences, SkipAModeThatTheAdapterDoesNotHave) {
    record(inOrder(), adapter(), kWithoutEdid, [](Session& session, Recorder& recorder) {
        session.openClient();
        require(session.client().createFrameBuffer(kDesktop, 1000, 1000), "creating a frame buffer");
        recorder.clear();
        EXPECT_EQ(STATUS_SUCCESS, session.client().setDisplayPower(true));
        EXPECT_TRUE(recorder.registerAccesses().empty());
        EXPECT_EQ(STATUS_SUCCESS, session.client().present(kDesktop, pattern("bars", 1000, 1000)));
        session.machine().sleep(kSecond);
        EXPECT_FALSE(session.adapter().picture());
        EXPECT_EQ(0u, session.adapter().statistics().bulkTransfers);
    });
}

TEST(ModeSequences, ChooseTheRefreshOfFullHd) {
    constexpr std::uint32_t k60 = 1920u << 16 | 2200;
    constexpr std::uint32_t k50 = 1920u << 16 | 2640;
    constexpr std::uint32_t k24 = 1920u << 16 | 2752;
    const rig::Setting at50 = setting("FullHD50Enable", 1);
    const rig::Setting at30 = setting("FullHD30Enable", 1);
    const rig::Setting at24 = setting("FullHD24Enable", 1);
    const struct {
        std::vector<rig::Setting> settings;
        std::uint32_t horizontal;
        std::uint32_t pll;
    } cases[] = {
        {{}, k60, 0x596106},           {{at50}, k50, 0x596106},
        {{at30}, k60, 0x346107}, // 30 Hz has the totals of 60 Hz
        {{at24}, k24, 0x346107},       {{at50, at30, at24}, k50, 0x596106},
        {{at30, at24}, k60, 0x346107},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings.empty() ? "none" : c.settings[0].name);
        runSession(inOrder(c.settings), [&](Session& session) {
            plugWithMonitor(session);
            switchOn(session, 1920, 1080);
            EXPECT_EQ(c.horizontal, session.adapter().peekRegister(0x8008));
            EXPECT_EQ(c.pll, session.adapter().peekRegister(0x802C));
            show(session, pattern("bars", 1920, 1080));
        });
    }
}

// An adapter that lost its clock in a sleep gets its timing back without a command of the client.
TEST(ModeSequences, RestoreTheTimingAfterASleep) {
    record(inOrder(), adapter(), kWithoutEdid, [](Session& session, Recorder& recorder) {
        switchOn(session);
        show(session, bars());
        recorder.clear();
        session.suspend();
        expectAccesses(recorder, sleep(2));
        session.resume();
        expectAccesses(recorder, powerUp(2) + Table{read(0x802C)} + modeTable(kModeCases[0], true) + kStatus);
        expectPicture(session);
    });
}

// A setup packet, byte by byte.
std::array<std::uint8_t, 8> bytesOf(const usb::SetupPacket& setup) {
    const auto low = [](std::uint16_t word) { return static_cast<std::uint8_t>(word); };
    const auto high = [](std::uint16_t word) { return static_cast<std::uint8_t>(word >> 8); };
    return {setup.requestType, setup.request,     low(setup.value),  high(setup.value),
            low(setup.index),  high(setup.index), low(setup.length), high(setup.length)};
}

TEST(RegisterAccesses, AreVendorRequestsOfFourBytes) {
    using Setup = std::array<std::uint8_t, 8>;
    record(inOrder(), adapter(), rig::builtinEdid(), [](Session&, Recorder& recorder) {
        bool readSeen = false;
        bool writeSeen = false;
        bool serialSeen = false;
        for (const Transfer& transfer : recorder.registerAccesses()) {
            EXPECT_EQ(4u, transfer.data.size());
            if (transfer.isAccess(kReadRegister, kSerialControl)) {
                readSeen = true;
                EXPECT_EQ((Setup{0xC0, 0x40, 0, 0, 0x20, 0x80, 4, 0}), bytesOf(transfer.setup));
            }
            if (transfer.isAccess(kWriteRegister, 0x0070)) {
                writeSeen = true;
                EXPECT_EQ((Setup{0x40, 0x41, 0, 0, 0x70, 0, 4, 0}), bytesOf(transfer.setup));
            }
            // A serial command keeps the power bits that the control register holds.
            if (transfer.isAccess(kWriteRegister, kSerialControl) && (transfer.word() & 0xFFFF) == 0x10D0) {
                serialSeen = true;
                EXPECT_EQ(0x500010D0u, transfer.word());
            }
        }
        EXPECT_TRUE(readSeen);
        EXPECT_TRUE(writeSeen);
        EXPECT_TRUE(serialSeen);
    });
}

TEST(Identities, DetermineThePowerUpSequence) {
    constexpr std::uint16_t kAlt = ADAPTER_PRODUCT_ID - 2;
    const struct {
        const char* name;
        std::uint16_t vendor;
        std::uint16_t product;
        std::uint16_t device;
        unsigned revision;
    } cases[] = {
        {"main 1.00", ADAPTER_VENDOR_ID, ADAPTER_PRODUCT_ID, 0x0100, 1},
        {"alt 1.00", ADAPTER_VENDOR_ID, kAlt, 0x0100, 0},
        {"main 2.00", ADAPTER_VENDOR_ID, ADAPTER_PRODUCT_ID, 0x0200, 2},
        {"alt 2.00", ADAPTER_VENDOR_ID, kAlt, 0x0200, 2},
        {"one above alt", ADAPTER_VENDOR_ID, kAlt + 1, 0x0200, 0},
        {"one below alt", ADAPTER_VENDOR_ID, kAlt - 1, 0x0200, 0},
        {"partner 2.00", PARTNER_VENDOR_ID, PARTNER_PRODUCT_ID, 0x0200, 2},
        {"the partner's product number, our vendor", ADAPTER_VENDOR_ID, PARTNER_PRODUCT_ID, 0x0200, 0},
        {"partner 2.01", PARTNER_VENDOR_ID, PARTNER_PRODUCT_ID, 0x0201, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PlugOptions plug = adapter(c.revision);
        plug.adapter.idVendor = c.vendor;
        plug.adapter.idProduct = c.product;
        plug.adapter.bcdDevice = c.device;
        record(inOrder(), plug, std::nullopt, [&](Session&, Recorder& recorder) {
            expectAccesses(recorder, powerUp(c.revision) + noMonitor(c.revision), c.revision);
        });
    }
}

TEST(Identities, RefuseRevision3AfterReadingItsDescriptors) {
    Recorder recorder;
    runSession(inOrder(), [&](Session& session) {
        PlugOptions plug = adapter(3);
        plug.inFront = recorder.wrap(session.machine().clock());
        EXPECT_THROW(session.plug(plug), std::exception);
        EXPECT_EQ(STATUS_UNSUCCESSFUL, session.machine().startStatus(session.node()));
        EXPECT_TRUE(recorder.registerAccesses().empty());
        EXPECT_TRUE(std::ranges::any_of(recorder.transfers(), [](const Transfer& transfer) {
            return transfer.setup.request == 6 && transfer.setup.value == 0x0200;
        })) << "the configuration descriptor was not read";
    });
}

// An adapter without a bulk OUT pipe works, but shows no picture; one without a status pipe is refused.
TEST(Endpoints, MayBeMissing) {
    std::vector<std::uint8_t> noBulkOut = model::configurationDescriptor(usb::Speed::High);
    std::vector<std::uint8_t> noInterrupt = noBulkOut;
    std::vector<std::uint8_t> oneInterface = noBulkOut;
    for (std::size_t at = 0; at + 3 < noBulkOut.size(); at += noBulkOut[at]) {
        if (noBulkOut[at + 1] == 5 && noBulkOut[at + 2] == model::kBulkOutEndpoint) {
            noBulkOut[at + 2] |= 0x80;
        }
        if (noInterrupt[at + 1] == 5 && noInterrupt[at + 2] == model::kInterruptInEndpoint) {
            noInterrupt[at + 2] &= 0x7F;
        }
    }
    // Configuration (9 bytes) and the first interface alone.
    std::size_t end = 9 + 9;
    while (end + 1 < oneInterface.size() && oneInterface[end + 1] != 4) {
        end += oneInterface[end];
    }
    oneInterface.resize(end);
    oneInterface[2] = static_cast<std::uint8_t>(end);
    oneInterface[3] = static_cast<std::uint8_t>(end >> 8);
    oneInterface[4] = 1;

    runSession(inOrder(), [&](Session& session) {
        PlugOptions plug = adapter(2, usb::Speed::High);
        plug.adapter.configurationDescriptor = noBulkOut;
        plugWithMonitor(session, plug);
        switchOn(session);
        session.present(kDesktop, bars());
        session.machine().sleep(kSecond);
        EXPECT_EQ(0u, session.adapter().statistics().bulkTransfers);
    });
    for (const std::vector<std::uint8_t>& descriptor : {noInterrupt, oneInterface}) {
        runSession(inOrder(), [&](Session& session) {
            PlugOptions plug = adapter(2, usb::Speed::High);
            plug.adapter.configurationDescriptor = descriptor;
            EXPECT_THROW(session.plug(plug), std::exception);
            session.remove();
            plugWithMonitor(session, adapter(2, usb::Speed::High)); // the next adapter works
        });
    }
}

} // namespace
} // namespace system_test

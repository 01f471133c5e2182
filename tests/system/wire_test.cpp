// What the driver says to the adapter, access by access, against tables that were written from the adapter's
// side: powering up and down, monitors that come and go, display modes.
#include "tests/system/rig.h"
#include "tests/system/transcript.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <initializer_list>
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

// Nobody answers at the transmitter's address.
const Table kNoTransmitter = {i2cSilence(0x4C, 0x00)};

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
    Table table = {set(0x0070, bit(20)), set(0x0070, bit(19))};
    if (revision == 2) {
        table.push_back(clear(0x0078, bit(17)));
    }
    return table;
}

Table detached(unsigned revision) {
    Table table = {clear(0x803C, bit(26))};
    if (revision == 2) {
        table.push_back(set(0x0078, bit(17)));
    }
    return table + Table{clear(0x0070, bit(20)), clear(0x0070, bit(19))};
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
    Table table = {clear(0x8020, bit(30)), clear(0x8020, bit(28)), clear(0x803C, bit(26))};
    if (revision == 2) {
        table.push_back(set(0x0078, bit(17)));
    }
    return table;
}

// What powering up finds without a monitor. The older revisions make sure that the output is off.
Table noMonitor(unsigned revision) {
    return revision == 2 ? kStatus : kStatus + detached(revision);
}

// A session with a recorder on the wire and one block of EDID.
class Wire : public testing::TestWithParam<unsigned> {
  protected:
    void withAdapter(unsigned revision, const SessionOptions& options, bool monitor,
                     const std::function<void(Session&)>& body) {
        runSession(options, [&](Session& session) {
            if (monitor) {
                std::vector<std::uint8_t> edid = rig::builtinEdid();
                edid.resize(128);
                edid[126] = 0;
                session.attachMonitor(edid);
            }
            PlugOptions plug = adapter(revision);
            plug.inFront = recorder_.wrap(session.machine().clock());
            session.plug(plug);
            body(session);
        });
    }

    // What was said since the last call, against a table.
    void expectSaid(const Table& table, unsigned revision, bool serial = true) {
        const std::vector<ControlTransfer> said = recorder_.registerAccesses(serial);
        EXPECT_EQ("", differs(said, table, revision));
        recorder_.clear();
    }

    Recorder recorder_;
};

TEST_P(Wire, PowersUpWithoutMonitor) {
    withAdapter(GetParam(), inOrder(), false,
                [&](Session&) { expectSaid(powerUp(GetParam()) + noMonitor(GetParam()), GetParam()); });
}

TEST_P(Wire, PowersUpWithMonitor) {
    withAdapter(GetParam(), inOrder(), true, [&](Session&) {
        // The monitor's report may be waiting, and then somebody looks at the status in between.
        std::vector<ControlTransfer> said = recorder_.registerAccesses();
        EXPECT_LT(0, std::erase_if(said, [](const ControlTransfer& transfer) {
                      return transfer.setup.index == 0x8000;
                  }));
        EXPECT_EQ("", differs(said, powerUp(GetParam()) + attached(GetParam()) + edidBlock(0), GetParam()));
    });
}

TEST_P(Wire, GoesToSleepAndWakes) {
    withAdapter(GetParam(), inOrder(), false, [&](Session& session) {
        recorder_.clear();
        session.suspend();
        expectSaid(sleep(GetParam()), GetParam());
        session.resume();
        expectSaid(powerUp(GetParam()) + noMonitor(GetParam()), GetParam());
    });
}

TEST_P(Wire, PowersDownForGood) {
    withAdapter(GetParam(), inOrder(), false, [&](Session& session) {
        recorder_.clear();
        session.remove();
        expectSaid(finalPowerDown(GetParam()), GetParam());
    });
}

TEST_P(Wire, PowersDownForGoodWithMonitor) {
    withAdapter(GetParam(), inOrder(), true, [&](Session& session) {
        recorder_.clear();
        session.remove();
        expectSaid(detached(GetParam()) + finalPowerDown(GetParam()), GetParam());
    });
}

INSTANTIATE_TEST_SUITE_P(Every, Wire, testing::Values(0u, 1u, 2u),
                         [](const auto& info) { return fmt::format("Revision{}", info.param); });

class WireOfRevision2 : public Wire {};

TEST_F(WireOfRevision2, FollowsAMonitorThatComesAndGoes) {
    withAdapter(2, inOrder(), false, [&](Session& session) {
        recorder_.clear();
        session.attachMonitor(rig::builtinEdid());
        ASSERT_TRUE(session.client().waitForArrival(10 * kSecond));
        expectSaid(kStatus + attached(2) + edidBlock(0) + edidBlock(1), 2);
        session.detachMonitor();
        session.machine().sleep(kSecond); // the client is told first
        expectSaid(kStatus + detached(2), 2);
    });
}

// The stages take 750 ms each to come up and stand 750 ms apart on the way down.
TEST_F(WireOfRevision2, GivesThePowerStagesTheirTime) {
    withAdapter(2, inOrder(), false, [&](Session& session) {
        const usb::Time up = session.machine().clock().now();
        EXPECT_GE(up, 1500 * kMillisecond);
        recorder_.clear();
        const usb::Time start = session.machine().clock().now();
        session.suspend();
        EXPECT_GE(session.machine().clock().now() - start, 750 * kMillisecond);
        const std::vector<ControlTransfer> said = recorder_.registerAccesses();
        ASSERT_GE(said.size(), 4u);
        EXPECT_GE(said[2].time - said[1].time, 750 * kMillisecond);
    });
}

// The display modes.

struct ModeCase {
    const char* name;
    std::vector<rig::Setting> settings;
    usb::Speed link;
    bool transmitter;
    unsigned width;
    unsigned height;
    bool detection; // of bandwidth: ended by clearing a bit, whether or not it was set

    std::uint32_t pll;
    std::array<std::uint32_t, 4> images; // 0x8008, 0x800C, 0x8010, 0x8014
    std::uint32_t control;               // bits set in 0x803C
    std::uint32_t formatCleared;         // bits cleared in 0x8004
    std::uint32_t format;                // bits set in 0x8004
};

constexpr std::array<std::uint32_t, 4> kVga = {0x02800320, 0x00600089, 0x01E0020D, 0x01C2001C};
constexpr std::array<std::uint32_t, 4> kVgaCea = {0x02800320, 0x00600091, 0x01E0020D, 0x02420024};
constexpr std::array<std::uint32_t, 4> k1080 = {0x07800898, 0x002C00C1, 0x04380465, 0x02A5002A};

const ModeCase kModeCases[] = {
    {"640x480, 3 bytes",
     {},
     usb::Speed::Super,
     false,
     640,
     480,
     true,
     0x3F6119,
     kVga,
     0x11000000,
     0x9F0020CC,
     0x00000081},
    {"640x480, 3 bytes, transmitter",
     {},
     usb::Speed::Super,
     true,
     640,
     480,
     true,
     0x3F6119,
     kVgaCea,
     0x11000000,
     0x9F0020CC,
     0x00000081},
    {"1920x1080, 3 bytes",
     {},
     usb::Speed::Super,
     false,
     1920,
     1080,
     true,
     0x596106,
     k1080,
     0x21000000,
     0x9F0020C0,
     0x0000008D},
    {"1920x1080, RGB565",
     {setting("UseUsb3OutputRGB565Enable", 1), setting("UseDynamicPixelBytesAdjustmentEnable", 0)},
     usb::Speed::Super,
     false,
     1920,
     1080,
     true,
     0x596106,
     k1080,
     0x10000000,
     0x9F0020C0,
     0x000000CD},
    {"1920x1080, RGB555 compressed",
     {},
     usb::Speed::High,
     false,
     1920,
     1080,
     true,
     0x596106,
     k1080,
     0x10000000,
     0x9F0020C0,
     0x8100008D},
    {"1920x1080, 3 bytes, no bandwidth detection, with bucket",
     {setting("UseBandwidthDetectionEnable", 0), setting("UseFrameErrorBucket", 1)},
     usb::Speed::Super,
     false,
     1920,
     1080,
     false,
     0x596106,
     k1080,
     0x20200000,
     0x9F0020C0,
     0x0000008D},
};

Table modeTable(const ModeCase& mode, bool first) {
    Table table;
    if (first) {
        table = {set(0x803C, bit(26)), write(0x802C, mode.pll)};
    }
    table = table + Table{set(0x8048, bit(15)),
                          read(0x802C),
                          clear(0x803C, 0x39682000),
                          set(0x803C, mode.control),
                          clear(0x8004, mode.formatCleared),
                          set(0x8004, mode.format)};
    constexpr std::uint16_t kImageRegisters[] = {0x8008, 0x800C, 0x8010, 0x8014};
    for (std::size_t i = 0; i < mode.images.size(); i++) {
        table.push_back(write(kImageRegisters[i], mode.images[i]));
        table.push_back(read(kImageRegisters[i]));
    }
    return table + Table{clear(0x801C, 0x3FFF0000), clear(0x0070, bit(13))};
}

// The standard request that selects alternate setting 0 of the streaming interface; the register accesses
// after which it came.
std::optional<std::size_t> alternateSettingAfter(const std::vector<ControlTransfer>& said) {
    std::size_t registers = 0;
    for (const ControlTransfer& transfer : said) {
        if (transfer.isVendor()) {
            registers++;
        } else if (transfer.setup.requestType == 0x01 && transfer.setup.request == 11 &&
                   transfer.setup.value == 0 && transfer.setup.index == 1) {
            return registers;
        }
    }
    return std::nullopt;
}

TEST(WireOfModes, ProgramsTimingClockAndFormat) {
    for (const ModeCase& mode : kModeCases) {
        SCOPED_TRACE(mode.name);
        Recorder recorder;
        runSession(inOrder(mode.settings), [&](Session& session) {
            session.attachMonitor({});
            PlugOptions plug = adapter(2, mode.link);
            plug.adapter.transmitter = mode.transmitter;
            plug.inFront = recorder.wrap(session.machine().clock());
            session.plug(plug);
            session.openClient();
            session.createFrameBuffer(kDesktop, mode.width, mode.height);

            recorder.clear();
            session.setDisplayPower(true);
            const Table hold = {set(0x803C, bit(25)), clear(0x803C, bit(25))};
            const Table first = modeTable(mode, true);
            EXPECT_EQ("",
                      differs(recorder.registerAccesses(false), mode.transmitter ? first + hold : first, 2));
            if (!mode.transmitter) {
                EXPECT_EQ(recorder.registerAccesses().size(), alternateSettingAfter(recorder.transfers()))
                    << "the streaming interface is selected when the timing stands";
            }

            // Off: the bandwidth detection ends with the stream, then the output is flushed.
            recorder.clear();
            session.setDisplayPower(false);
            const Table noDetection = mode.detection ? Table{clear(0x803C, bit(24))} : Table{};
            EXPECT_EQ(
                "", differs(recorder.registerAccesses(false), noDetection + Table{set(0x8048, bit(15))}, 2));

            // On again: the clock runs already.
            recorder.clear();
            session.setDisplayPower(true);
            EXPECT_EQ("", differs(recorder.registerAccesses(false), noDetection + modeTable(mode, false), 2));
            session.present(kDesktop, pattern("bars", mode.width, mode.height));
            expectPicture(session, 5 * kSecond);
        });
    }
}

// Nothing is left of a mode after a detach: the next display-on programs the clock, too.
TEST(WireOfModes, ProgramsTheClockAgainAfterADetach) {
    Recorder recorder;
    runSession(inOrder(), [&](Session& session) {
        session.attachMonitor({});
        PlugOptions plug = adapter();
        plug.inFront = recorder.wrap(session.machine().clock());
        session.plug(plug);
        switchOn(session);

        recorder.clear();
        session.detachMonitor();
        session.machine().sleep(kSecond);
        EXPECT_EQ("", differs(recorder.registerAccesses(),
                              kStatus + Table{clear(0x803C, bit(24))} + detached(2), 2));

        session.attachMonitor({});
        session.openClient();
        session.createFrameBuffer(kDesktop, kWidth, kHeight);
        recorder.clear();
        session.setDisplayPower(true);
        const std::vector<ControlTransfer> said = recorder.registerAccesses();
        const Table table = modeTable(kModeCases[0], true);
        // The output may still be active from before; whether it is disabled first is not at stake here.
        const auto clock = std::find_if(said.begin(), said.end(), [](const ControlTransfer& transfer) {
            return transfer.setup.index == 0x802C && transfer.setup.request == 0x41;
        });
        ASSERT_NE(said.end(), clock);
        EXPECT_EQ(0x3F6119u, clock->word());
        EXPECT_GE(said.size(), table.size());
        session.present(kDesktop, pattern("bars", kWidth, kHeight));
        expectPicture(session);
    });
}

// A mode that no table has: nothing is written, and the client is not told.
TEST(WireOfModes, LeavesTheAdapterAloneForAModeItDoesNotHave) {
    Recorder recorder;
    runSession(inOrder(), [&](Session& session) {
        session.attachMonitor({});
        PlugOptions plug = adapter();
        plug.inFront = recorder.wrap(session.machine().clock());
        session.plug(plug);
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

TEST(WireOfModes, ChoosesTheRefreshOfFullHd) {
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
            session.attachMonitor({});
            session.plug(adapter());
            switchOn(session, 1920, 1080);
            EXPECT_EQ(c.horizontal, session.adapter().peekRegister(0x8008));
            EXPECT_EQ(c.pll, session.adapter().peekRegister(0x802C));
            session.present(kDesktop, pattern("bars", 1920, 1080));
            expectPicture(session);
        });
    }
}

// An adapter that lost its clock in a sleep gets its timing back before anybody asks for a mode.
TEST(WireOfModes, RestoresTheTimingAfterASleep) {
    Recorder recorder;
    runSession(inOrder(), [&](Session& session) {
        session.attachMonitor({});
        PlugOptions plug = adapter();
        plug.inFront = recorder.wrap(session.machine().clock());
        session.plug(plug);
        switchOn(session);
        session.present(kDesktop, pattern("bars", kWidth, kHeight));
        expectPicture(session);

        recorder.clear();
        session.suspend();
        EXPECT_EQ("", differs(recorder.registerAccesses(), sleep(2), 2));
        recorder.clear();
        session.resume();
        EXPECT_EQ("",
                  differs(recorder.registerAccesses(),
                          powerUp(2) + Table{read(0x802C)} + modeTable(kModeCases[0], true) + kStatus, 2));
        expectPicture(session);
    });
}

// Setup packets, byte by byte.

std::array<std::uint8_t, 8> bytesOf(const usb::SetupPacket& setup) {
    const auto low = [](std::uint16_t word) { return static_cast<std::uint8_t>(word); };
    const auto high = [](std::uint16_t word) { return static_cast<std::uint8_t>(word >> 8); };
    return {setup.requestType, setup.request,     low(setup.value),  high(setup.value),
            low(setup.index),  high(setup.index), low(setup.length), high(setup.length)};
}

TEST(WireOfRegisters, IsVendorRequestsOfFourBytes) {
    Recorder recorder;
    runSession(inOrder(), [&](Session& session) {
        PlugOptions plug = adapter();
        plug.inFront = recorder.wrap(session.machine().clock());
        session.plug(plug);
        session.attachMonitor({});
        ASSERT_TRUE(session.client().waitForArrival(kSecond));

        bool readSeen = false;
        bool writeSeen = false;
        for (const ControlTransfer& transfer : recorder.registerAccesses()) {
            const std::array<std::uint8_t, 8> bytes = bytesOf(transfer.setup);
            EXPECT_EQ(4u, transfer.data.size());
            if (transfer.setup.request == 0x40 && transfer.setup.index == 0x8020) {
                readSeen = true;
                EXPECT_EQ((std::array<std::uint8_t, 8>{0xC0, 0x40, 0, 0, 0x20, 0x80, 4, 0}), bytes);
            }
            if (transfer.setup.request == 0x41 && transfer.setup.index == 0x0070) {
                writeSeen = true;
                EXPECT_EQ((std::array<std::uint8_t, 8>{0x40, 0x41, 0, 0, 0x70, 0, 4, 0}), bytes);
            }
        }
        EXPECT_TRUE(readSeen);
        EXPECT_TRUE(writeSeen);
    });
}

// The EDID of an adapter whose control register holds its power bits: commands leave those alone.
TEST(WireOfRegisters, KeepsThePowerBitsInSerialCommands) {
    Recorder recorder;
    runSession(inOrder(), [&](Session& session) {
        session.attachMonitor(rig::builtinEdid());
        PlugOptions plug = adapter();
        plug.inFront = recorder.wrap(session.machine().clock());
        session.plug(plug);
        bool seen = false;
        for (const ControlTransfer& transfer : recorder.registerAccesses()) {
            if (transfer.setup.request == 0x41 && transfer.setup.index == 0x8020 &&
                (transfer.word() & 0xFFFF) == 0x10D0) {
                seen = true;
                EXPECT_EQ(0x500010D0u, transfer.word());
            }
        }
        EXPECT_TRUE(seen);
    });
}

// Which revision an identity stands for shows in how the adapter is powered up.
TEST(WireOfIdentities, DecidesThePowerUp) {
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
        {"partner 2.01", PARTNER_VENDOR_ID, PARTNER_PRODUCT_ID, 0x0201, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Recorder recorder;
        runSession(inOrder(), [&](Session& session) {
            PlugOptions plug = adapter(c.revision);
            plug.adapter.idVendor = c.vendor;
            plug.adapter.idProduct = c.product;
            plug.adapter.bcdDevice = c.device;
            plug.inFront = recorder.wrap(session.machine().clock());
            session.plug(plug);
            EXPECT_EQ("", differs(recorder.registerAccesses(), powerUp(c.revision) + noMonitor(c.revision),
                                  c.revision));
        });
    }
}

TEST(WireOfIdentities, RefusesRevision3AfterReadingItsDescriptors) {
    Recorder recorder;
    runSession(inOrder(), [&](Session& session) {
        PlugOptions plug = adapter(3);
        plug.inFront = recorder.wrap(session.machine().clock());
        EXPECT_THROW(session.plug(plug), std::exception);
        EXPECT_EQ(STATUS_UNSUCCESSFUL, session.machine().startStatus(session.node()));
        EXPECT_TRUE(recorder.registerAccesses().empty());
        const std::vector<ControlTransfer> said = recorder.transfers();
        EXPECT_TRUE(std::any_of(said.begin(), said.end(), [](const ControlTransfer& transfer) {
            return transfer.setup.request == 6 && transfer.setup.value == 0x0200;
        })) << "the configuration descriptor was not read";
    });
}

// An adapter without a bulk OUT pipe shows nothing and breaks nothing; one without a status pipe is refused.
TEST(WireOfIdentities, CopesWithMissingEndpoints) {
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
        session.attachMonitor({});
        session.plug(plug);
        switchOn(session);
        session.present(kDesktop, pattern("bars", kWidth, kHeight));
        session.machine().sleep(kSecond);
        EXPECT_EQ(0u, session.adapter().statistics().bulkTransfers);
    });
    for (const std::vector<std::uint8_t>& descriptor : {noInterrupt, oneInterface}) {
        runSession(inOrder(), [&](Session& session) {
            PlugOptions plug = adapter(2, usb::Speed::High);
            plug.adapter.configurationDescriptor = descriptor;
            EXPECT_THROW(session.plug(plug), std::exception);
            session.remove();
            session.attachMonitor({});
            session.plug(adapter(2, usb::Speed::High)); // the next adapter is all right
        });
    }
}

} // namespace
} // namespace system_test

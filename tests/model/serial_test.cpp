// The serial master in time, and what hangs on its bus: the monitor's DDC and the memories.
#include <gtest/gtest.h>

#include <stdexcept>

#include "model/memories.h"
#include "model/serial_master.h"
#include "tests/model/host.h"

namespace model::test {
namespace {

AdapterOptions revision(unsigned number) {
    AdapterOptions options;
    options.revision = number;
    return options;
}

std::uint32_t wordAt(const std::vector<std::uint8_t>& bytes, std::size_t at) {
    return static_cast<std::uint32_t>(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16) |
           static_cast<std::uint32_t>(bytes[at + 3]) << 24;
}

TEST(Serial, IsBusyUntilTheBitsAreOnTheWire) {
    Host host(revision(0));
    host.adapter.attachMonitor(edidOf(1));
    EXPECT_NE(host.read(reg::kSerialControl) & reg::kSerialDone, 0u) << "idle at power-on";
    host.write(reg::kSerialControl, 0x10D0);
    EXPECT_EQ(host.read(reg::kSerialControl), 0x10D0u);
    host.clock.advance(SerialMaster::kI2cRead - 1);
    EXPECT_EQ(host.read(reg::kSerialControl), 0x10D0u);
    EXPECT_EQ(host.read(reg::kSerialReadData), 0u) << "the word of the read before";
    host.clock.advance(1);
    EXPECT_EQ(host.read(reg::kSerialControl), 0x10D0u | reg::kSerialDone);
    EXPECT_EQ(host.read(reg::kSerialReadData), 0x13121110u);
    // Writing the word back changes power bits and starts nothing.
    host.set(reg::kSerialControl, reg::kPowerStage1);
    EXPECT_EQ(host.read(reg::kSerialControl), 0x10D0u | reg::kSerialDone | reg::kPowerStage1);
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

TEST(Serial, NeverCompletesForASilentDevice) {
    const std::pair<const char*, std::function<void(Host&)>> cases[] = {
        {"no monitor", [](Host& host) { host.adapter.detachMonitor(); }},
        {"a monitor without DDC", [](Host& host) { host.adapter.attachMonitor({}); }},
        {"a deaf master", [](Host& host) { host.adapter.setDeaf(Part::SerialMaster, true); }},
        {"a stuck bus", [](Host& host) { host.adapter.setDdcFault(DdcFault::Stuck); }},
        {"a monitor that hangs", [](Host& host) { host.adapter.limitDdcAnswers(2); }},
    };
    for (const auto& [what, silence] : cases) {
        SCOPED_TRACE(what);
        Host host;
        host.adapter.attachMonitor(edidOf(1));
        std::uint32_t value = 0;
        ASSERT_TRUE(host.i2cRead(i2c::kEdid, 0, value));
        silence(host);
        const usb::Time before = host.clock.now();
        EXPECT_FALSE(host.i2cRead(i2c::kEdid, 0, value));
        EXPECT_GE(host.clock.now() - before, 100 * usb::kMillisecond);
        // The master is free again: the next command is no violation and reaches another device.
        host.adapter.setDeaf(Part::SerialMaster, false);
        EXPECT_TRUE(host.i2cRead(i2c::kEeprom, 0, value));
        EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
    }
}

TEST(Serial, TheSegmentHoldsUntilAnotherDeviceIsAddressed) {
    const auto edid = edidOf(5);
    Host host;
    host.adapter.attachMonitor(edid);
    const auto read = [&](std::uint8_t offset) {
        std::uint32_t value = 0;
        EXPECT_TRUE(host.i2cRead(i2c::kEdid, offset, value));
        return value;
    };
    std::uint32_t ignored = 0;
    EXPECT_EQ(read(4), wordAt(edid, 4));
    EXPECT_TRUE(host.i2cRead(i2c::kSegmentPointer, 1, ignored));
    EXPECT_EQ(read(4), wordAt(edid, 256 + 4));
    EXPECT_EQ(read(128 + 4), wordAt(edid, 384 + 4));
    EXPECT_TRUE(host.i2cRead(i2c::kSegmentPointer, 2, ignored));
    EXPECT_EQ(read(124), wordAt(edid, 512 + 124));
    EXPECT_EQ(read(128), 0xFFFFFFFFu) << "beyond the monitor's memory";
    host.i2cRead(i2c::kTransmitter, 0, ignored); // not even there: the STOP is what counts
    EXPECT_EQ(read(4), wordAt(edid, 4));
    host.i2cRead(i2c::kSegmentPointer, 1, ignored);
    host.adapter.attachMonitor(edid);
    EXPECT_EQ(read(4), wordAt(edid, 4)) << "a monitor starts at segment 0";

    host.adapter.attachMonitor(edidOf(2));
    EXPECT_FALSE(host.i2cRead(i2c::kSegmentPointer, 1, ignored)) << "two blocks know no segments";
}

TEST(Memories, EepromWritesTakeAWriteCycleAndStayInTheirPage) {
    Host host;
    ASSERT_TRUE(host.i2cWrite(i2c::kEeprom, 0x14, 0x44332211));
    EXPECT_GT(host.clock.now(), Eeprom::kWriteCycle);
    std::uint32_t value = 0;
    ASSERT_TRUE(host.i2cRead(i2c::kEeprom, 0x14, value));
    EXPECT_EQ(value, 0x44332211u);
    ASSERT_TRUE(host.i2cWrite(i2c::kEeprom, 0x2E, 0xDDCCBBAA));
    const auto cells = host.adapter.memory(Memory::Eeprom);
    EXPECT_EQ(cells[0x2E], 0xAA);
    EXPECT_EQ(cells[0x2F], 0xBB);
    EXPECT_EQ(cells[0x20], 0xCC) << "a page write wraps";
    EXPECT_EQ(cells[0x30], 0xFF);

    host.adapter.corruptWrites(Memory::Eeprom, 12);
    ASSERT_TRUE(host.i2cWrite(i2c::kEeprom, 12, 0));
    ASSERT_TRUE(host.i2cRead(i2c::kEeprom, 12, value));
    EXPECT_EQ(value, 1u);
    ASSERT_TRUE(host.i2cWrite(i2c::kEeprom, 12, 0));
    ASSERT_TRUE(host.i2cRead(i2c::kEeprom, 12, value));
    EXPECT_EQ(value, 0u) << "one write only";
    host.adapter.refuseWrites(Memory::Eeprom, true);
    EXPECT_FALSE(host.i2cWrite(i2c::kEeprom, 12, 7));
}

TEST(Memories, FlashProgramsOnlyWhatWasErased) {
    Host host;
    const std::vector<std::uint8_t> old(8192, 0x0F);
    host.adapter.loadMemory(Memory::Flash, old);
    std::uint32_t value = 0;
    ASSERT_TRUE(host.spiWrite(0x0104, 0x12345678, false));
    ASSERT_TRUE(host.spiRead(0x0104, value));
    EXPECT_EQ(value, 0x12345678u & 0x0F0F0F0F);
    const usb::Time before = host.clock.now();
    ASSERT_TRUE(host.spiWrite(0x0104, 0x12345678, true));
    EXPECT_GE(host.clock.now() - before, SpiFlash::kEraseTime) << "the host had to poll for the erase";
    ASSERT_TRUE(host.spiWrite(0x0108, 0xCAFEF00D, false));
    ASSERT_TRUE(host.spiRead(0x0104, value));
    EXPECT_EQ(value, 0x12345678u);
    ASSERT_TRUE(host.spiRead(0x0108, value));
    EXPECT_EQ(value, 0xCAFEF00Du);
    ASSERT_TRUE(host.spiRead(0x0FFC, value));
    EXPECT_EQ(value, 0xFFFFFFFFu);
    ASSERT_TRUE(host.spiRead(0x1000, value));
    EXPECT_EQ(value, 0x0F0F0F0Fu) << "the next sector is untouched";
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
    EXPECT_THROW(host.adapter.loadMemory(Memory::Eeprom, old), std::length_error);
}

} // namespace
} // namespace model::test

// The adapter's memories are programmed from the registry at every power-up, word by word, and verified.
#include "tests/system/rig.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace system_test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using model::Memory;

constexpr std::uint8_t kOld = 0xA5;
constexpr std::size_t kSector = 4096; // of the flash, erased as a whole

Bytes image(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<std::uint8_t>(i * 7 + 1);
    }
    return bytes;
}

enum class Fault { None, WordThree, WritesRefused };

struct Programming {
    const char* name;
    Memory memory = Memory::Eeprom;
    std::size_t size = 0;
    unsigned revision = 2;
    Fault fault = Fault::None;
    std::size_t programmed = 0; // bytes of the image
    std::size_t erased = 0;     // bytes from the start, including the programmed ones
};

const Programming kProgrammings[] = {
    {.name = "a word and a byte", .size = 5, .programmed = 5, .erased = 8},
    {.name = "all but the last word", .size = 252, .programmed = 252, .erased = 252},
    {.name = "all of it", .size = 256, .programmed = 256, .erased = 256},
    {.name = "more than the offset reaches", .size = 512},
    {.name = "more than an image may have", .size = 600},
    {.name = "no image"},
    {.name = "a mismatch at word 3", .size = 64, .fault = Fault::WordThree, .programmed = 12, .erased = 64},
    {.name = "no write acknowledged", .size = 64, .fault = Fault::WritesRefused},
    {.name = "revision 1", .size = 64, .revision = 1},
    {.name = "revision 0", .size = 64, .revision = 0},
    {"flash: a word and a byte", Memory::Flash, 5, 2, Fault::None, 5, kSector},
    {"flash: all of an image", Memory::Flash, 512, 2, Fault::None, 512, kSector},
    {"flash: more than an image may have", Memory::Flash, 600},
    {"flash: a mismatch at word 3", Memory::Flash, 64, 2, Fault::WordThree, 12, kSector},
    {"flash: revision 1", Memory::Flash, 64, 1},
};

constexpr std::size_t kWordThree = 12;

void setUp(model::Adapter& adapter, const Programming& c) {
    adapter.loadMemory(c.memory, Bytes(adapter.memory(c.memory).size(), kOld));
    if (c.fault == Fault::WordThree) {
        adapter.corruptWrites(c.memory, kWordThree, 2); // the EEPROM is erased by writes, too
    }
    adapter.refuseWrites(c.memory, c.fault == Fault::WritesRefused);
}

TEST(Programmer, WritesWhatTheRegistryHolds) {
    for (const Programming& c : kProgrammings) {
        SCOPED_TRACE(c.name);
        const bool eeprom = c.memory == Memory::Eeprom;
        runSession(inOrder({setting(eeprom ? "UseEepromProgrammerEnable" : "UseSpiProgrammerEnable", 1)}),
                   [&](Session& session) {
                       session.plug(adapter(c.revision)); // there is no image yet
                       setUp(session.adapter(), c);
                       if (c.size != 0) {
                           session.machine().setParameter(eeprom ? u"EepromData" : u"SpiData", image(c.size));
                       }
                       session.suspend();
                       session.resume();

                       Bytes expected(session.adapter().memory(c.memory).size(), kOld);
                       std::fill_n(expected.begin(), c.erased, 0xFF);
                       std::ranges::copy(image(c.programmed), expected.begin());
                       Bytes found = session.adapter().memory(c.memory);
                       if (c.fault == Fault::WordThree) {
                           std::fill_n(found.begin() + kWordThree, 4, 0xFF); // any result of the failed write
                       }
                       EXPECT_EQ(expected, found);
                   });
    }
}

} // namespace
} // namespace system_test

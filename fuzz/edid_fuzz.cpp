// Any bytes as an EDID for the driver's checks and its rewriting of the base block.
//
// Input: one byte of conditions (bits 0 and 1: link, bits 2 to 4: filter, bit 5: the mode list is almost
// full, bits 6 and 7: a filter beyond the known ones), then up to eight blocks of 128 bytes, short ones
// padded with zeros.
//
// Every input runs with two contexts. They are equal in what an EDID operation may read and different in all
// other bytes. A result that differs was read out of bounds; a changed byte was written out of bounds. The
// sanitizers cannot detect either inside one record.
#include "device/usb_context.h"
#include "display/edid.h"
#include "display/mode_tables.h"
#include "fuzz/require.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

namespace {

struct Conditions {
    USHORT bcdUsb;
    ULONG filter;
    bool modesListed;

    bool superSpeed() const { return bcdUsb == 0x0300; }
};

Conditions conditionsOf(std::uint8_t byte) {
    constexpr USHORT kLinks[4] = {0x0300, 0x0210, 0x0200, 0x0310};
    return {.bcdUsb = kLinks[byte & 3],
            .filter = (byte & 0xC0) != 0 ? 0xFFFFFFFFu - byte : 1u + (byte >> 2 & 7u),
            .modesListed = (byte & 0x20) != 0};
}

// The EDID in a context whose other bytes, blocks past the extension count among them, are `surroundings`.
MONITOR_EDID contextWith(std::span<const std::uint8_t> edid, const Conditions& conditions,
                         std::uint8_t surroundings) {
    MONITOR_EDID display;
    std::memset(static_cast<void*>(&display), surroundings, sizeof(display));
    UCHAR* const blocks = &display.EdidBlocks[0][0];
    const std::size_t extensions = edid.size() > 126 ? edid[126] : 0;
    std::memset(blocks, 0, std::min<std::size_t>(extensions + 1, EDID_BLOCK_COUNT) * EDID_BLOCK_SIZE);
    std::copy_n(edid.begin(), std::min(edid.size(), sizeof(display.EdidBlocks)), blocks);
    display.MonitorModeCount = 0;
    if (conditions.modesListed) {
        // Almost full, with the pair of modes that the choice of the preferred mode treats specially.
        for (ULONG& count = display.MonitorModeCount; count < MONITOR_MODE_COUNT - 2; count++) {
            display.MonitorModes[count] = {64 + count, 64, 60};
        }
        display.MonitorModes[0] = {1680, 1050, 60};
        display.MonitorModes[1] = {1600, 1200, 60};
    }
    return display;
}

bool sameBytes(const MONITOR_EDID& one, const MONITOR_EDID& two) {
    return std::memcmp(&one, &two, sizeof(one)) == 0;
}

// Nothing but the mode list and, where a rewrite may write, the base block has changed.
void requireOnlyAllowedChanges(const MONITOR_EDID& before, const MONITOR_EDID& after, bool rewritten) {
    MONITOR_EDID restored = after;
    restored.MonitorModeCount = before.MonitorModeCount;
    std::memcpy(restored.MonitorModes, before.MonitorModes, sizeof(before.MonitorModes));
    if (rewritten) {
        constexpr std::size_t kTimings = 35;
        UCHAR* const block = restored.EdidBlocks[0];
        std::memcpy(block + kTimings, before.EdidBlocks[0] + kTimings,
                    EDID_EXTENSION_COUNT_OFFSET - kTimings);
        block[EDID_CHECKSUM_OFFSET] = before.EdidBlocks[0][EDID_CHECKSUM_OFFSET];
    }
    REQUIRE(sameBytes(before, restored));
}

void requireSoundModeList(const MONITOR_EDID& display) {
    REQUIRE(display.MonitorModeCount <= MONITOR_MODE_COUNT);
    for (ULONG i = 0; i < display.MonitorModeCount; i++) {
        const MONITOR_MODE& mode = display.MonitorModes[i];
        REQUIRE(mode.Refresh == 60);
        REQUIRE(std::uint64_t{mode.Width} * mode.Height <= MODE_MAX_PIXELS);
        for (ULONG other = 0; other < i; other++) {
            REQUIRE(std::memcmp(&mode, &display.MonitorModes[other], sizeof(mode)) != 0);
        }
    }
}

// The sizes that the adapter shows at 60 Hz within its frame memory, as its documentation lists them.
bool isDrivable(unsigned width, unsigned height) {
    constexpr unsigned kSizes[][2] = {
        {640, 480},   {800, 600},   {848, 480},   {854, 480},   {1024, 768}, {1152, 864},
        {1280, 600},  {1280, 720},  {1280, 768},  {1280, 800},  {1280, 960}, {1280, 1024},
        {1360, 768},  {1366, 768},  {1400, 1050}, {1440, 900},  {1600, 900}, {1600, 1200},
        {1680, 1050}, {1920, 1080}, {1920, 1200}, {2048, 1152},
    };
    return std::ranges::any_of(kSizes,
                               [&](const auto& size) { return size[0] == width && size[1] == height; });
}

// Decodes a standard timing as a client does (VESA E-EDID 1.4, 3.9).
void requireDrivableStandardTiming(UCHAR first, UCHAR second) {
    constexpr unsigned kAcross[4] = {16, 4, 5, 16};
    constexpr unsigned kDown[4] = {10, 3, 4, 9};
    if (first == 0x61 && second == 0x7C) {
        return; // the placeholder
    }
    const unsigned width = (first + 31u) * 8;
    const unsigned height = width / kAcross[second >> 6] * kDown[second >> 6];
    REQUIRE((second & 0x3F) == 0);
    REQUIRE(isDrivable(width, height));
}

void requireSmallEnough(const UCHAR* timing) {
    const unsigned width = timing[2] | (timing[4] & 0xF0u) << 4;
    const unsigned height = timing[5] | (timing[7] & 0xF0u) << 4;
    REQUIRE(width * height <= MODE_MAX_PIXELS);
}

void requireSoundBlock(const UCHAR* block, const Conditions& conditions) {
    unsigned sum = 0;
    for (ULONG i = 0; i < EDID_BLOCK_SIZE; i++) {
        sum += block[i];
    }
    REQUIRE(sum % 256 == 0);
    if (conditions.superSpeed()) {
        REQUIRE(block[35] == 0x21 && block[36] == 0x08 && block[37] == 0);
        for (ULONG entry = 0; entry < EDID_STANDARD_TIMING_COUNT; entry++) {
            requireDrivableStandardTiming(block[38 + 2 * entry], block[39 + 2 * entry]);
        }
        requireSmallEnough(&block[EDID_DETAILED_TIMING_OFFSET]);
    } else if (conditions.filter <= EDID_FILTER_1024X768) {
        for (ULONG at = 38; at < 54; at++) {
            REQUIRE(block[at] == 0x01);
        }
        requireSmallEnough(&block[EDID_DETAILED_TIMING_OFFSET]);
    }
}

struct Outcome {
    MONITOR_EDID display;
    BOOLEAN valid;
    ULONG ceaBlock;
};

Outcome runEverything(std::span<const std::uint8_t> edid, const Conditions& conditions,
                      std::uint8_t surroundings) {
    Outcome outcome = {.display = contextWith(edid, conditions, surroundings), .valid = FALSE, .ceaBlock = 0};
    const MONITOR_EDID before = outcome.display;
    outcome.valid = EDID_Validate(&outcome.display);
    outcome.ceaBlock = EDID_FindCeaBlock(&outcome.display);
    REQUIRE(outcome.ceaBlock < EDID_BLOCK_COUNT);
    REQUIRE(sameBytes(before, outcome.display));
    // The driver adds the modes of the first CEA block only, but every block number must be safe.
    const ULONG extensions =
        std::min<ULONG>(before.EdidBlocks[0][EDID_EXTENSION_COUNT_OFFSET], EDID_LAST_BLOCK);
    for (ULONG block = 1; block <= extensions; block++) {
        EDID_AddCeaModes(&outcome.display, block);
    }
    EDID_AddCeaModes(&outcome.display, EDID_BLOCK_COUNT);
    EDID_AddCeaModes(&outcome.display, 0xFFFFFFFF);
    requireSoundModeList(outcome.display);
    requireOnlyAllowedChanges(before, outcome.display, false);

    EDID_Rewrite(&outcome.display, conditions.bcdUsb, conditions.filter);
    requireSoundModeList(outcome.display);
    requireOnlyAllowedChanges(before, outcome.display, true);
    requireSoundBlock(outcome.display.EdidBlocks[0], conditions);
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const Conditions conditions = conditionsOf(data[0]);
    const std::span<const std::uint8_t> edid(data + 1, std::min(size - 1, sizeof(MONITOR_EDID::EdidBlocks)));
    // As part of an EDID, 0 ends a list and 4 is the code of 1280 x 720.
    const Outcome one = runEverything(edid, conditions, 0x00);
    const Outcome two = runEverything(edid, conditions, 0x04);

    REQUIRE(one.valid == two.valid);
    REQUIRE(one.ceaBlock == two.ceaBlock);
    REQUIRE(std::memcmp(one.display.EdidBlocks[0], two.display.EdidBlocks[0], EDID_BLOCK_SIZE) == 0);
    REQUIRE(one.display.MonitorModeCount == two.display.MonitorModeCount);
    REQUIRE(std::memcmp(one.display.MonitorModes, two.display.MonitorModes,
                        one.display.MonitorModeCount * sizeof(MONITOR_MODE)) == 0);
    return 0;
}

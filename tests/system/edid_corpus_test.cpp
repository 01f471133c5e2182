// The EDIDs of real monitors on every kind of adapter: what the client is offered, judged by the rules of
// this file.
#include "tests/support/temporary_folder.h"
#include "tests/system/rig.h"

#include "tool/edid_modes.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <numeric>
#include <set>

namespace system_test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Block = std::array<std::uint8_t, EDID_BLOCK_SIZE>;

constexpr unsigned kMonitors = 73;

struct Monitor {
    std::string name; // of the file, without its extension
    Bytes edid;
};

std::vector<Monitor> monitors() {
    std::vector<Monitor> list;
    for (const auto& entry : std::filesystem::directory_iterator(TEST_DATA "/edids")) {
        if (entry.path().extension() == ".bin") {
            std::ifstream in(entry.path(), std::ios::binary);
            list.push_back({entry.path().stem().string(), Bytes(std::istreambuf_iterator<char>(in), {})});
        }
    }
    std::ranges::sort(list, {}, &Monitor::name);
    return list;
}

struct Path {
    const char* name;
    usb::Speed link;
    bool transmitter;

    bool superSpeed() const { return link == usb::Speed::Super; }
    model::AdapterOptions adapter() const {
        model::AdapterOptions options;
        options.link = link;
        options.transmitter = transmitter;
        return options;
    }
};

constexpr Path kPaths[] = {
    {"HighSpeed", usb::Speed::High, false},
    {"HighSpeedTransmitter", usb::Speed::High, true},
    {"SuperSpeed", usb::Speed::Super, false},
    {"SuperSpeedTransmitter", usb::Speed::Super, true},
};

// Monitors whose EDID is rejected by an adapter with a transmitter: in the first CEA-861 extension that the
// driver examines, the revision is another one, the offset of the detailed timings is missing, or a vendor
// other than HDMI precedes a newer kind of data block. Their client gets no EDID.
const std::set<std::string> kRejected = {
    "big-GSM5BC1",        "blocks3-ACR0915",    "blocks4+-GSM5C56",   "blocks4+-GSM9E83",
    "cea-d0-HAT1160",     "cea-d0-HAT2150",     "cea-novsdb-SAM0B13", "cea-oldrev-SAM0582",
    "cea-oldrev-SAM0686", "cea-oldrev-SAM0C6E", "hdmi-HPN3706",       "hdmi2-AUS2706",
    "hdmi2-GSM0001",      "hdmi2-GSM7755",      "hdmi2-PHLC212",      "otheroui-DEL41D9",
    "otheroui-SPT0BC2",   "ultrawide-DELA1E4",  "ultrawide-GSM774A",  "ultrawide-HPN364E",
};

bool isAccepted(const Monitor& monitor, const Path& path) {
    return !path.transmitter || !kRejected.contains(monitor.name);
}

// What the adapter drives at 60 Hz in a frame of at most 2048 x 1152 pixels, as its documentation lists it.
bool isDrivable(unsigned width, unsigned height) {
    static const std::set<std::pair<unsigned, unsigned>> sizes = {
        {640, 480},   {800, 600},   {848, 480},   {854, 480},   {1024, 768}, {1152, 864},
        {1280, 600},  {1280, 720},  {1280, 768},  {1280, 800},  {1280, 960}, {1280, 1024},
        {1360, 768},  {1366, 768},  {1400, 1050}, {1440, 900},  {1600, 900}, {1600, 1200},
        {1680, 1050}, {1920, 1080}, {1920, 1200}, {2048, 1152},
    };
    return sizes.contains({width, height});
}

struct DetailedTiming {
    unsigned width;
    unsigned height;
    unsigned refresh; // truncated
    bool fastest;     // the clock is the largest that a timing can hold
};

// The detailed timings of a base block up to the first slot without one.
std::vector<DetailedTiming> detailedTimings(std::span<const std::uint8_t> block) {
    std::vector<DetailedTiming> timings;
    for (std::size_t at = 54; at < 126 && (block[at] | block[at + 1]) != 0; at += 18) {
        const auto field = [&](std::size_t low, std::size_t high, unsigned shift) {
            return block[at + low] + ((block[at + high] >> shift & 0xFu) << 8);
        };
        const unsigned width = field(2, 4, 4);
        const unsigned height = field(5, 7, 4);
        const unsigned total = (width + field(3, 4, 0)) * (height + field(6, 7, 0));
        const unsigned clock = block[at] | block[at + 1] << 8;
        timings.push_back({width, height, total == 0 ? 0 : clock * 10000u / total, clock == 0xFFFF});
    }
    return timings;
}

std::pair<unsigned, unsigned> standardSize(std::uint8_t first, std::uint8_t second) {
    constexpr std::array<std::pair<unsigned, unsigned>, 4> aspects = {{{16, 10}, {4, 3}, {5, 4}, {16, 9}}};
    const auto [across, down] = aspects[second >> 6];
    const unsigned width = first * 8 + 248;
    return {width, width / across * down};
}

void expectOneMode(const Block& block) {
    EXPECT_EQ(std::vector<int>(block.begin() + 35, block.begin() + 38), (std::vector<int>{0x01, 0, 0}));
    EXPECT_EQ(std::count(block.begin() + 38, block.begin() + 54, 0x01), 16);
    const std::vector<DetailedTiming> timings = detailedTimings(block);
    ASSERT_FALSE(timings.empty());
    EXPECT_EQ(std::pair(timings[0].width, timings[0].height), std::pair(800u, 600u));
    EXPECT_EQ(timings[0].refresh, 60u);
}

void expectDrivableModes(const Block& block, const Monitor& monitor) {
    // 640 x 480, 800 x 600 and 1024 x 768 at 60 Hz.
    EXPECT_EQ(std::vector<int>(block.begin() + 35, block.begin() + 38), (std::vector<int>{0x21, 0x08, 0}));
    for (std::size_t at = 38; at < 54; at += 2) {
        const auto [width, height] = standardSize(block[at], block[at + 1]);
        const bool placeholder = block[at] == 0x61 && block[at + 1] == 0x7C; // 120 Hz: no client takes it
        EXPECT_TRUE(placeholder || ((block[at + 1] & 0x3F) == 0 && isDrivable(width, height)))
            << fmt::format("standard timing {:02X} {:02X}", block[at], block[at + 1]);
    }
    // The first detailed timing is what clients prefer: always drivable. The others stay the monitor's own,
    // also when the adapter cannot drive them.
    const std::vector<DetailedTiming> own = detailedTimings(monitor.edid);
    const std::vector<DetailedTiming> offered = detailedTimings(block);
    ASSERT_FALSE(offered.empty());
    for (std::size_t slot = 0; slot < offered.size(); slot++) {
        const DetailedTiming& timing = offered[slot];
        EXPECT_TRUE(timing.refresh == 60 || timing.fastest) << "slot " << slot << " at " << timing.refresh;
        const bool isOwn =
            slot < own.size() && own[slot].width == timing.width && own[slot].height == timing.height;
        EXPECT_TRUE(isDrivable(timing.width, timing.height) || (slot > 0 && isOwn))
            << fmt::format("slot {}: {}x{}", slot, timing.width, timing.height);
    }
}

void expectRightBlock(const Block& block, const Monitor& monitor, const Path& path) {
    if (!isAccepted(monitor, path)) {
        EXPECT_EQ(block, Block{});
        return;
    }
    EXPECT_EQ(std::accumulate(block.begin(), block.end(), 0u) % 256, 0u);
    // All fields except the timings stay the monitor's, such as header and identity.
    EXPECT_TRUE(std::equal(block.begin(), block.begin() + 35, monitor.edid.begin()));
    EXPECT_EQ(block[126], monitor.edid[126]);
    if (path.superSpeed()) {
        expectDrivableModes(block, monitor);
    } else {
        expectOneMode(block);
    }
}

class EdidCorpus : public testing::TestWithParam<Path> {};

// One monitor after another on the same adapter: no data of one may appear in the EDID of the next.
TEST_P(EdidCorpus, OffersOnlyWhatTheAdapterDrives) {
    const Path& path = GetParam();
    const std::vector<Monitor> all = monitors();
    ASSERT_EQ(all.size(), kMonitors);
    runSession(inOrder(), [&](Session& session) {
        session.plug({.adapter = path.adapter()});
        for (const Monitor& monitor : all) {
            SCOPED_TRACE(monitor.name);
            session.attachMonitor(monitor.edid);
            session.openClient();
            Block block{};
            Session::require(session.client().queryEdid(block), "reading the EDID");
            expectRightBlock(block, monitor, path);
            session.detachMonitor();
        }
    });
}

std::string describeMode(std::string_view place, unsigned width, unsigned height, unsigned refresh) {
    return fmt::format("{} {}x{} at {} Hz", place, width, height, refresh);
}

// The mode of a line such as "    DMT 0x09:   800x600    60.316541 Hz", as edid-decode prints it below a
// heading such as "  Standard Timings:". Empty for other lines.
std::string parseMode(const std::string& line, std::string_view heading) {
    const std::size_t colon = line.find(": ");
    unsigned width = 0;
    unsigned height = 0;
    char interlaced[2] = "";
    double refresh = 0;
    for (const std::string_view place : {"Established", "Standard", "Detailed"}) {
        if (colon == std::string::npos || !heading.substr(2).starts_with(place)) {
            continue;
        }
        const char* const numbers = line.c_str() + colon + 1;
        if (std::sscanf(numbers, "%ux%u%1[i]%lf Hz", &width, &height, interlaced, &refresh) == 4) {
            height /= 2; // two fields of that height, which is what the EDID says
        } else if (std::sscanf(numbers, "%ux%u %lf Hz", &width, &height, &refresh) != 3) {
            continue;
        }
        const bool named72 = place == "Established" && height == 480 && refresh > 72 && refresh < 73;
        return describeMode(place, width, height, named72 ? 72 : static_cast<unsigned>(refresh + 0.5));
    }
    return {};
}

std::multiset<std::string> decodedModes(const std::string& file) {
    std::FILE* const pipe = popen(("edid-decode -s --skip-sha " + file).c_str(), "r");
    std::multiset<std::string> modes;
    std::string heading = "  ";
    char buffer[512];
    while (pipe != nullptr && std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        const std::string line(buffer, std::strcspn(buffer, "\n"));
        if (line.starts_with("  ") && !line.starts_with("   ")) {
            heading = line;
        } else if (const std::string mode = parseMode(line, heading); !mode.empty()) {
            modes.insert(mode);
        }
    }
    EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0) << "edid-decode failed or is not installed";
    return modes;
}

// edid-decode checks the reader that the reports of the tool use, independently of it.
TEST(EdidModes, OfEveryMonitorAreReadAsEdidDecodeReadsThem) {
    const test::TemporaryFolder folder;
    for (const Monitor& monitor : monitors()) {
        SCOPED_TRACE(monitor.name);
        Bytes base(monitor.edid.begin(), monitor.edid.begin() + EDID_BLOCK_SIZE);
        base[126] = 0; // no extensions
        base[127] = 0;
        base[127] = static_cast<std::uint8_t>(0 - std::accumulate(base.begin(), base.end(), 0u));
        std::multiset<std::string> modes;
        for (const tool::EdidMode& mode : tool::edidModes(base)) {
            std::string place = mode.place.substr(0, mode.place.find(' '));
            place[0] = static_cast<char>(std::toupper(place[0]));
            modes.insert(describeMode(place, mode.size.width, mode.size.height, mode.refresh));
        }
        EXPECT_EQ(modes, decodedModes(folder.write("edid.bin", base)));
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, EdidCorpus, testing::ValuesIn(kPaths),
                         [](const auto& instance) { return std::string(instance.param.name); });

} // namespace
} // namespace system_test

// The EDIDs of real monitors on every kind of adapter: what the client is offered, judged by rules of this
// file and by edid-decode.
#include "tests/system/rig.h"

#include "tool/edid.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <tuple>
#include <unistd.h>

namespace system_test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Block = std::array<std::uint8_t, EDID_BLOCK_SIZE>;

constexpr unsigned kMonitors = 73;

struct Monitor {
    std::string name; // of the file, without its extension
    std::string file;
    Bytes edid;
};

std::vector<Monitor> monitors() {
    std::vector<Monitor> list;
    for (const auto& entry : std::filesystem::directory_iterator(TEST_DATA "/edids")) {
        if (entry.path().extension() == ".bin") {
            std::ifstream in(entry.path(), std::ios::binary);
            list.push_back({entry.path().stem().string(), entry.path().string(),
                            Bytes(std::istreambuf_iterator<char>(in), {})});
        }
    }
    std::ranges::sort(list, {}, &Monitor::name);
    return list;
}

struct Road {
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

void PrintTo(const Road& road, std::ostream* out) {
    *out << road.name;
}

constexpr Road kRoads[] = {
    {"HighSpeed", usb::Speed::High, false},
    {"HighSpeedTransmitter", usb::Speed::High, true},
    {"SuperSpeed", usb::Speed::Super, false},
    {"SuperSpeedTransmitter", usb::Speed::Super, true},
};

// Monitors that an adapter with a transmitter does not take at their word: the first of their CEA-861
// extensions that the driver looks at is of another revision, has no detailed timings to start from, or names
// another vendor than HDMI before it comes to something newer. Their client sees no EDID.
const std::set<std::string> kNotBelieved = {
    "big-GSM5BC1",        "blocks3-ACR0915",    "blocks4+-GSM5C56",   "blocks4+-GSM9E83",
    "cea-d0-HAT1160",     "cea-d0-HAT2150",     "cea-novsdb-SAM0B13", "cea-oldrev-SAM0582",
    "cea-oldrev-SAM0686", "cea-oldrev-SAM0C6E", "hdmi-HPN3706",       "hdmi2-AUS2706",
    "hdmi2-GSM0001",      "hdmi2-GSM7755",      "hdmi2-PHLC212",      "otheroui-DEL41D9",
    "otheroui-SPT0BC2",   "ultrawide-DELA1E4",  "ultrawide-GSM774A",  "ultrawide-HPN364E",
};

bool isBelieved(const Monitor& monitor, const Road& road) {
    return !road.transmitter || !kNotBelieved.contains(monitor.name);
}

struct Mode {
    std::string place; // "established", "standard", "detailed"
    unsigned width = 0;
    unsigned height = 0;
    unsigned refresh = 0;

    auto operator<=>(const Mode&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Mode& mode) {
    return out << fmt::format("{} {}x{} at {} Hz", mode.place, mode.width, mode.height, mode.refresh);
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
        constexpr std::array<std::pair<unsigned, unsigned>, 4> aspects = {
            {{16, 10}, {4, 3}, {5, 4}, {16, 9}}};
        const auto [across, down] = aspects[block[at + 1] >> 6];
        const unsigned width = block[at] * 8 + 248;
        const bool placeholder = block[at] == 0x61 && block[at + 1] == 0x7C; // 120 Hz: no client takes it
        EXPECT_TRUE(placeholder || ((block[at + 1] & 0x3F) == 0 && isDrivable(width, width / across * down)))
            << fmt::format("standard timing {:02X} {:02X}", block[at], block[at + 1]);
    }
    // The first detailed timing is what clients prefer: always drivable. In the others the monitor is
    // believed, also when it shows more than the adapter can drive.
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

void expectRightBlock(const Block& block, const Monitor& monitor, const Road& road) {
    if (!isBelieved(monitor, road)) {
        EXPECT_EQ(block, Block{});
        return;
    }
    EXPECT_EQ(std::accumulate(block.begin(), block.end(), 0u) % 256, 0u);
    // Header, identity and what else is not a timing stays the monitor's.
    EXPECT_TRUE(std::equal(block.begin(), block.begin() + 35, monitor.edid.begin()));
    EXPECT_EQ(block[126], monitor.edid[126]);
    if (road.superSpeed()) {
        expectDrivableModes(block, monitor);
    } else {
        expectOneMode(block);
    }
}

class EdidCorpus : public testing::TestWithParam<Road> {};

// One adapter, one monitor after the other: nothing of one may show in the next.
TEST_P(EdidCorpus, OffersOnlyWhatTheAdapterDrives) {
    const Road& road = GetParam();
    const std::vector<Monitor> all = monitors();
    ASSERT_EQ(all.size(), kMonitors);
    runSession(inOrder(), [&](Session& session) {
        session.plug({.adapter = road.adapter()});
        for (const Monitor& monitor : all) {
            SCOPED_TRACE(monitor.name);
            session.attachMonitor(monitor.edid);
            session.openClient();
            Block block{};
            Session::require(session.client().queryEdid(block), "reading the EDID");
            expectRightBlock(block, monitor, road);
            session.detachMonitor();
        }
    });
}

// edid-decode, for many blocks by one shell.
class Decoder {
  public:
    static bool isInstalled() { return std::system("command -v edid-decode >/dev/null 2>&1") == 0; }

    Decoder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "edids-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        folder_ = pattern;
    }
    ~Decoder() { std::filesystem::remove_all(folder_); }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    void add(const std::string& name, const Bytes& block) {
        std::ofstream(folder_ / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(block.size()));
    }

    // Modes by name; a block that edid-decode refuses has none.
    std::map<std::string, std::multiset<Mode>> run() const {
        const std::string command = fmt::format(
            "cd '{}' && for f in *; do echo \"=== $f\"; edid-decode -s --skip-sha \"$f\"; done 2>&1",
            folder_.string());
        std::FILE* const pipe = popen(command.c_str(), "r");
        std::map<std::string, std::multiset<Mode>> modes;
        std::string name;
        std::string section;
        char buffer[512];
        while (pipe != nullptr && std::fgets(buffer, sizeof(buffer), pipe) != nullptr) {
            const std::string line(buffer, std::strcspn(buffer, "\n"));
            if (line.starts_with("=== ")) {
                name = line.substr(4);
                modes[name];
            } else if (line.starts_with("  ") && !line.starts_with("   ")) {
                section = line;
            } else if (const auto mode = parseMode(line, section)) {
                modes[name].insert(*mode);
            }
        }
        EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0);
        return modes;
    }

  private:
    // "    DMT 0x09:   800x600    60.316541 Hz ..." in the section "  Established Timings I & II:"
    static std::optional<Mode> parseMode(const std::string& line, const std::string& section) {
        Mode mode;
        if (section.starts_with("  Established")) {
            mode.place = "established";
        } else if (section.starts_with("  Standard")) {
            mode.place = "standard";
        } else if (section.starts_with("  Detailed")) {
            mode.place = "detailed";
        }
        const std::size_t colon = line.find(": ");
        char interlaced[2] = "";
        double refresh = 0;
        if (mode.place.empty() || colon == std::string::npos) {
            return std::nullopt;
        }
        const char* const numbers = line.c_str() + colon + 1;
        const int fields =
            std::sscanf(numbers, "%ux%u%1[i]%lf Hz", &mode.width, &mode.height, interlaced, &refresh);
        if (fields == 4) {
            mode.height /= 2; // two fields of that height, which is what the EDID says
        } else if (std::sscanf(numbers, "%ux%u %lf Hz", &mode.width, &mode.height, &refresh) != 3) {
            return std::nullopt;
        }
        mode.refresh = static_cast<unsigned>(refresh + 0.5);
        return mode;
    }

    std::filesystem::path folder_;
};

// What `usbdisplay edid --json` prints for this monitor.
nlohmann::json edidReport(const Monitor& monitor, const Road& road) {
    tool::EdidOptions options;
    options.file = monitor.file;
    options.adapter = road.adapter();
    options.json = true;
    testing::internal::CaptureStdout();
    const tool::ExitStatus status = tool::showEdid(options);
    std::fflush(stdout);
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_EQ(status, tool::ExitStatus::Right);
    return nlohmann::json::parse(text);
}

std::multiset<Mode> offeredModes(const nlohmann::json& report) {
    std::multiset<Mode> modes;
    for (const nlohmann::json& mode : report.at("offered")) {
        const std::string place = mode.at("place");
        modes.insert(
            {place.substr(0, place.find(' ')), mode.at("width"), mode.at("height"), mode.at("refresh")});
    }
    return modes;
}

TEST_P(EdidCorpus, EdidDecodeReadsTheModesThatTheToolReports) {
    if (!Decoder::isInstalled()) {
        GTEST_SKIP() << "edid-decode is not installed";
    }
    const Road& road = GetParam();
    Decoder decoder;
    std::map<std::string, std::multiset<Mode>> reported;
    for (const Monitor& monitor : monitors()) {
        if (isBelieved(monitor, road)) {
            SCOPED_TRACE(monitor.name);
            const nlohmann::json report = edidReport(monitor, road);
            const Bytes block = report.at("block");
            ASSERT_EQ(block.size(), EDID_BLOCK_SIZE);
            decoder.add(monitor.name, block);
            reported[monitor.name] = offeredModes(report);
        }
    }
    const std::map<std::string, std::multiset<Mode>> decoded = decoder.run();
    ASSERT_EQ(decoded.size(), kMonitors - (road.transmitter ? kNotBelieved.size() : 0));
    for (const auto& [name, modes] : reported) {
        EXPECT_EQ(decoded.at(name), modes) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Roads, EdidCorpus, testing::ValuesIn(kRoads),
                         [](const auto& instance) { return std::string(instance.param.name); });

} // namespace
} // namespace system_test

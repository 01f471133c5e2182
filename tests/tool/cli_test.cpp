// The built tool: exit status, one clear line for bad input, no output file in that case.
#include "desktop/frame_source.h"
#include "display/mode_tables.h"
#include "support/png_image.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int status = -1;
    std::string output;
    std::string errors;
};

class Tool : public testing::Test {
  protected:
    std::string place(const std::string& name) const { return folder_.place(name); }
    std::string write(const std::string& name, const std::string& text) const {
        return folder_.write(name, text);
    }

    static std::string contents(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    Outcome run(const std::string& arguments, const std::string& input = "/dev/null") const {
        const std::string command = "cd " + folder_.path().string() + " && " TOOL_BINARY " " + arguments +
                                    " <" + input + " >" + place("stdout") + " 2>" + place("stderr");
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(place("stdout")),
                contents(place("stderr"))};
    }

    test::TemporaryFolder folder_;
};

TEST_F(Tool, RefusesBadUsageInOneLine) {
    const std::string text = write("text.png", "this is no picture");
    const std::string script = write("script.txt", "open\nfly\n");
    const std::string missing = write("missing.txt", "plug\npresent 1 nowhere.png\n");
    const std::string odd = write("odd.bin", "123");
    const std::string half = write("half.raw", "123");
    const std::pair<std::string, std::string> cases[] = {
        {"", "a command is missing; allowed are show, run, modes, edid, settings (--help"},
        {"fly", "fly"},
        {"show --fly", "--fly"},
        {"show --image " + place("none.png"), "none.png\": No such file"},
        {"show --image " + text, "text.png\" is not a usable PNG picture"},
        {"show --pattern plaid", "--pattern is \"plaid\"; allowed are bars"},
        {"show --pattern bars --image " + text, "exclude each other"},
        {"show --video -", "--video needs --size"},
        {"show --video - --size 640x480", "standard input holds no frame"},
        {"show --video " + half + " --size 640x480", "ends inside frame 1: 3 of 1228800 bytes"},
        {"show --size 640", "--size is \"640\"; allowed is WIDTHxHEIGHT"},
        {"show --size 641x480", "641x480; the adapter can show 640x480"},
        {"show --mode 2560x1600", "--mode is 2560x1600; the adapter can show"},
        {"show --link usb4", "usb4"},
        {"show --revision 7", "7"},
        {"show --bandwidth fast", "--bandwidth is \"fast\""},
        {"show --edid " + odd, "odd.bin\" has 3 bytes"},
        {"show --set Nonsense=1", "setting \"Nonsense\" is unknown"},
        {"show --set FullHD50Enable", "allowed is NAME=VALUE"},
        {"show --frames 0", "--frames is \"0\"; allowed is a number from 1"},
        {"show --pointer 5", "--pointer is \"5\"; allowed is X,Y"},
        {"show --out " + place("no/folder/a.png"), "cannot write"},
        {"show --seed -1", "--seed is \"-1\""},
        {"run " + place("none.txt"), "none.txt\": No such file"},
        {"run " + script, "script.txt\", line 2: action \"fly\" is unknown"},
        {"run " + missing, "missing.txt\", line 2: cannot read"},
        {"edid " + odd, "odd.bin\" has 3 bytes"},
        {"edid", "F.bin"},
        {"modes extra", "extra"},
    };
    for (const auto& [arguments, expected] : cases) {
        SCOPED_TRACE(arguments);
        const std::string out = place("out.png");
        const bool takesOut = arguments.starts_with("show") && arguments.find("--out") == std::string::npos;
        const Outcome outcome = run(arguments + (takesOut ? " --out " + out : ""));
        EXPECT_EQ(outcome.status, 2);
        EXPECT_NE(outcome.errors.find(expected), std::string::npos) << outcome.errors;
        EXPECT_EQ(std::count(outcome.errors.begin(), outcome.errors.end(), '\n'), 1) << outcome.errors;
        EXPECT_TRUE(outcome.output.empty()) << outcome.output;
        EXPECT_FALSE(fs::exists(out));
    }
}

TEST_F(Tool, ExplainsItselfWithHelp) {
    for (const char* command :
         {"--help", "show --help", "run --help", "modes --help", "edid --help", "settings --help"}) {
        const Outcome outcome = run(command);
        EXPECT_EQ(outcome.status, 0) << command;
        EXPECT_GT(outcome.output.size(), 200u) << command;
    }
    EXPECT_NE(run("run --help").output.find("expect picture"), std::string::npos);
    EXPECT_NE(run("show --help").output.find("moving-bar"), std::string::npos);
}

// Of entries with the same size and refresh the driver reaches only the first.
std::size_t distinctModes() {
    std::set<std::array<ULONG, 3>> modes;
    VIDEO_MODE_ENTRY entry{};
    for (ULONG index = 0; MODE_GetEntry(index, &entry); index++) {
        modes.insert({entry.Width, entry.Height, entry.Refresh});
    }
    return modes.size();
}

TEST_F(Tool, ListsTheModes) {
    const Outcome outcome = run("modes --json");
    ASSERT_EQ(outcome.status, 0);
    const nlohmann::json modes = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(modes.size(), distinctModes());
    unsigned offered = 0;
    for (const nlohmann::json& mode : modes) {
        const double relative = mode["pll_clock"].get<double>() / mode["pixel_clock"].get<double>();
        EXPECT_NEAR(relative, 1, 0.011) << mode;
        offered += mode["offered"].get<bool>();
        EXPECT_TRUE(!mode["offered"].get<bool>() || mode["refresh"] == 60) << mode;
    }
    EXPECT_GT(offered, 20u);
}

TEST_F(Tool, ListsTheSettings) {
    const Outcome outcome = run("settings --json");
    ASSERT_EQ(outcome.status, 0);
    const nlohmann::json settings = nlohmann::json::parse(outcome.output);
    const std::string text = run("settings").output;
    for (const nlohmann::json& setting : settings) {
        const std::string name = setting["name"];
        EXPECT_NE(text.find("\n" + name + "\n"), std::string::npos) << name;
        const bool binary = setting["type"] == "REG_BINARY";
        EXPECT_EQ(setting["default"].is_null(), binary) << name;
        EXPECT_EQ(run("show --size 640x480 --set " + name + (binary ? "=1" : "=4294967296")).status, 2)
            << name << " takes a value of the wrong kind";
    }
    EXPECT_NE(text.find("    default 30; range: 0 to 4294967295; read: device add\n"), std::string::npos);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80u) << line;
    }
}

TEST_F(Tool, ShowsAPicture) {
    const Outcome outcome = run("show --pattern gradient --size 800x600 --pointer 100,100 --json --out " +
                                place("monitor.png") + " --capture " + place("wire.pcapng"));
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    const nlohmann::json report = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(report["picture"], "right");
    EXPECT_EQ(report["frames"]["presented"], 1);
    EXPECT_EQ(report["frames"]["shown"], 1);
    EXPECT_TRUE(report["violations"].empty());
    EXPECT_GT(fs::file_size(place("monitor.png")), 1000u);
    EXPECT_GT(fs::file_size(place("wire.pcapng")), 800u * 600 * 3);
}

// The expected picture is computed without the tool's own reference: a reduced channel is its high bits,
// repeated in the low bits.
TEST_F(Tool, WritesWhatTheMonitorShows) {
    const auto widened = [](unsigned channel, unsigned bits) {
        const unsigned kept = channel >> (8 - bits);
        return kept << (8 - bits) | kept >> (2 * bits - 8);
    };
    struct Case {
        const char* options;
        unsigned redBits, greenBits, blueBits;
    };
    const Case cases[] = {
        {"", 8, 8, 8},
        {"--set UseUsb3OutputRGB565Enable=1 --set UseDynamicPixelBytesAdjustmentEnable=0", 5, 6, 5},
    };
    const support::Surface picture = desktop::drawPattern(*desktop::findPattern("noise"), 800, 600, 0, 11);
    support::writePng(place("in.png"), picture);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.options);
        const Outcome outcome = run("show --image - --out - " + std::string(c.options), place("in.png"));
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
        const support::Surface shown = support::readPng(place("stdout"));
        ASSERT_EQ(shown.pixels.size(), picture.pixels.size());
        std::size_t wrong = 0;
        for (std::size_t i = 0; i < picture.pixels.size(); i++) {
            const unsigned p = picture.pixels[i];
            wrong += shown.pixels[i] != support::makePixel(widened(p >> 16 & 0xFF, c.redBits),
                                                           widened(p >> 8 & 0xFF, c.greenBits),
                                                           widened(p & 0xFF, c.blueBits));
        }
        EXPECT_EQ(wrong, 0u);
    }
}

TEST_F(Tool, TakesVideoFromStandardInput) {
    std::string frames;
    for (unsigned i = 0; i < 3 * 640 * 480; i++) {
        const unsigned pixel = i * 2654435761u;
        frames.append(reinterpret_cast<const char*>(&pixel), 4);
    }
    const Outcome outcome = run("show --video - --size 640x480 --json", write("video.raw", frames));
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    const nlohmann::json report = nlohmann::json::parse(outcome.output);
    EXPECT_EQ(report["frames"]["presented"], 3);
    EXPECT_EQ(report["frames"]["shown"], 3);
}

TEST_F(Tool, RunsAScriptAndNamesTheLineThatFails) {
    const std::string good = write("good.txt", "attach default\nplug\nopen\ncreate 1 640x480\ndisplay on\n"
                                               "present 1 gradient\nexpect picture\nsave shown.png\n");
    const Outcome right = run("run " + good);
    EXPECT_EQ(right.status, 0) << right.errors;
    EXPECT_TRUE(fs::exists(place("shown.png"))) << "files are written to the current directory";

    const Outcome wrong = run("run " + write("dark.txt", contents(good) + "expect dark\n"));
    EXPECT_EQ(wrong.status, 1);
    EXPECT_NE(wrong.errors.find("dark.txt\", line 9: expect dark: the monitor still shows a picture"),
              std::string::npos)
        << wrong.errors;

    const Outcome failed = run("run " + write("unplugged.txt", "plug\nremove\ndetach\nsleep\n"));
    EXPECT_EQ(failed.status, 3);
    EXPECT_NE(failed.errors.find("line 4: sleep: no adapter is plugged in"), std::string::npos)
        << failed.errors;
}

TEST_F(Tool, RepeatsARunFromItsSeed) {
    const std::string arguments = "show --pattern moving-bar --size 640x480 --frames 5 --json --seed 7";
    nlohmann::json first = nlohmann::json::parse(run(arguments).output);
    nlohmann::json second = nlohmann::json::parse(run(arguments).output);
    for (const char* realTime : {"cpu_ms", "cpu_ms_per_frame"}) {
        first.erase(realTime);
        second.erase(realTime);
    }
    EXPECT_EQ(first, second);
}

TEST_F(Tool, ExplainsAnEdid) {
    const Outcome outcome = run("edid default --link usb2 --json --out " + place("offered.bin"));
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    const nlohmann::json report = nlohmann::json::parse(outcome.output);
    ASSERT_EQ(report["offered"].size(), 2u);
    EXPECT_EQ(report["offered"][0]["width"], 800);
    EXPECT_EQ(report["offered"][1]["place"], "detailed 1");
    EXPECT_EQ(report["offered"][1]["height"], 600);
    EXPECT_EQ(fs::file_size(place("offered.bin")), 128u);
}

// Every demo script succeeds.
class DemoScripts : public Tool, public testing::WithParamInterface<std::string> {};

TEST_P(DemoScripts, Run) {
    const Outcome outcome = run("run " + GetParam());
    EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errors;
}

std::vector<std::string> demoScripts() {
    std::vector<std::string> list;
    for (const fs::directory_entry& entry : fs::directory_iterator(DEMO_DATA "/scripts")) {
        list.push_back(entry.path().string());
    }
    return list;
}

INSTANTIATE_TEST_SUITE_P(All, DemoScripts, testing::ValuesIn(demoScripts()), [](const auto& info) {
    std::string name = fs::path(info.param).stem().string();
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

} // namespace

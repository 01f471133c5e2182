// The command line. Reads options, calls one command, and converts its exceptions to exit statuses.
#include "desktop/frame_source.h"
#include "rig/errors.h"
#include "rig/settings.h"
#include "support/enumerate.h"
#include "support/input_error.h"
#include "support/parse.h"
#include "tool/edid.h"
#include "tool/exit_status.h"
#include "tool/modes.h"
#include "tool/script.h"
#include "tool/script_actions.h"
#include "tool/settings.h"
#include "tool/show.h"
#include "tool/text_layout.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fmt/format.h>
#include <map>

namespace {

using support::InputError;

using tool::ExitStatus;

constexpr const char* kAbout =
    "Shows desktops on the monitor of the modeled adapter, through the real driver.\n"
    "\n"
    "  usbdisplay show --image F.png --link usb3 --out monitor.png\n"
    "  usbdisplay show --pattern scroll --frames 120 --link usb2\n"
    "  ffmpeg -i film.mkv -f rawvideo -pix_fmt bgr0 -s 1280x720 - | usbdisplay show --video - --size "
    "1280x720\n"
    "  usbdisplay run demo/scripts/sleep-resume.txt\n"
    "  usbdisplay edid monitor.bin --link usb2\n"
    "\n"
    "Exit status: 0 right; 1 wrong picture, or a violation of the adapter's rules;\n"
    "2 bad usage or bad input, nothing written; 3 the driver or the device failed, or the driver broke a "
    "rule\n"
    "of the kernel.";

const std::map<std::string, usb::Speed> kLinks = {{"usb2", usb::Speed::High}, {"usb3", usb::Speed::Super}};
const std::map<std::string, std::uint32_t> kProcessors = {
    {"sse41", 0xFFFFFFFF}, {"ssse3", ~(1u << 19 | 1u << 20)}, {"none", ~(1u << 9 | 1u << 19 | 1u << 20)}};

const std::map<std::string, usb::Time> kTicks = {
    {"0", 0}, {"1", usb::kMillisecond}, {"15.625", 15'625 * usb::kMicrosecond}};

// For values that need more than CLI11's own checks.
template <typename Value, typename Parse>
void addParsed(CLI::App* command, const std::string& name, Value& value, const std::string& help,
               const std::string& type, Parse parse) {
    command
        ->add_option_function<std::string>(
            name, [&value, name, parse](const std::string& text) { value = parse(text, name); }, help)
        ->type_name(type);
}

std::pair<int, int> parsePoint(const std::string& text, const std::string& name) {
    const std::size_t comma = text.find(',');
    if (comma == std::string::npos) {
        throw InputError(fmt::format("{} is \"{}\"; allowed is X,Y", name, text));
    }
    return {support::parseCoordinate(text.substr(0, comma), name),
            support::parseCoordinate(text.substr(comma + 1), name)};
}

std::string settingHelp() {
    constexpr std::size_t kWidth = 78;
    const std::string names = support::enumerate(rig::settingList(), &rig::SettingInfo::name);
    std::string help =
        "A value under the driver's Parameters key; repeat it for more values. Binary values:\n"
        "NAME=@FILE. Explained by the command settings:\n" +
        tool::formatParagraph(names, kWidth, 2);
    help.pop_back(); // the line feed at the end
    return help;
}

void addSettings(CLI::App* command, std::vector<rig::Setting>& settings) {
    command
        ->add_option_function<std::vector<std::string>>(
            "--set",
            [&settings](const std::vector<std::string>& list) {
                for (const std::string& text : list) {
                    settings.push_back(rig::parseAssignment(text));
                }
            },
            settingHelp())
        ->type_name("NAME=VALUE")
        ->allow_extra_args(false);
}

void addLink(CLI::App* command, usb::Speed& link) {
    command->add_option("--link", link, "The link: usb2 (high speed) or usb3 (SuperSpeed, the default)")
        ->transform(CLI::CheckedTransformer(kLinks).description(""))
        ->type_name("usb2|usb3");
}

void addSeed(CLI::App* command, std::uint64_t& seed) {
    addParsed(command, "--seed", seed,
              "Selects the schedule, the order in which tasks run. Failures print it", "N",
              [](const std::string& text, const std::string& name) {
                  return support::parseNumber(text, name, 0, UINT64_MAX);
              });
    command->get_option("--seed")->envname("SIM_SEED");
}

void addTick(CLI::App* command, usb::Time& tick) {
    command
        ->add_option(
            "--tick", tick,
            "The machine's clock: the driver's delays and time-outs end every so many milliseconds;\n"
            "0, the default, for exact time. Windows has 15.625 or 1")
        ->transform(CLI::CheckedTransformer(kTicks).description(""))
        ->type_name("0|1|15.625");
}

void addCapture(CLI::App* command, std::string& capture) {
    command->add_option("--capture", capture, "Capture all USB traffic, for tshark and Wireshark")
        ->type_name("F.pcapng");
}

void addFree(CLI::App* command, bool& free) {
    command->add_flag("--free", free, "Real threads and the real clock instead of the simulated machine");
}

void addAdapter(CLI::App* command, model::AdapterOptions& adapter) {
    addLink(command, adapter.link);
    command->add_option("--revision", adapter.revision, "The adapter's chip: 0, 1 or 2 (the default)")
        ->check(CLI::IsMember({0, 1, 2}).description(""))
        ->type_name("N");
    command->add_flag("--transmitter", adapter.transmitter, "The adapter carries an HDMI transmitter");
}

std::string patternHelp() {
    std::string help = "A test pattern instead of a picture:";
    for (const desktop::Pattern& pattern : desktop::patterns()) {
        help += fmt::format("\n  {:<11} {}", pattern.name, pattern.description);
    }
    return help;
}

// Every command registers its options and sets `action` to its body.
using CommandBody = std::function<ExitStatus()>;

void addShow(CLI::App& app, CommandBody& action) {
    auto options = std::make_shared<tool::ShowOptions>();
    CLI::App* command = app.add_subcommand(
        "show",
        "Present frames, wait until the monitor shows the last one, and compare it with what its mode "
        "must show.\nWithout a source it shows the pattern \"bars\" in 1920x1080.");
    command->add_option("--image", options->image, "A PNG picture; - reads standard input")
        ->type_name("F.png");
    command->add_option("--pattern", options->pattern, patternHelp())->type_name("NAME");
    command
        ->add_option("--video", options->video,
                     "Raw frames of 4 bytes per pixel (blue, green, red, unused); - reads standard input. "
                     "Needs --size")
        ->type_name("F|-");
    addParsed(command, "--size", options->size, "Size of the frames; a picture is scaled to it", "WxH",
              support::parseSize);
    addParsed(command, "--mode", options->mode,
              "Display mode; frames of another size are centered. By default the size of the frames", "WxH",
              support::parseSize);
    addAdapter(command, options->adapter);
    addParsed(command, "--bandwidth", options->bandwidth,
              "Bandwidth of the link, by default 40 (usb2) or 400 (usb3)", "MB/S", support::parseBandwidth);
    command
        ->add_option(
            "--edid", options->edid,
            "The monitor's EDID; by default a built-in one of 1920x1080; none: a monitor without EDID")
        ->type_name("F.bin|none");
    addSettings(command, options->settings);
    addParsed(command, "--frames", options->frames,
              "Frames to present; by default 1, 60 for a moving pattern, all frames of a video", "N",
              [](const std::string& text, const std::string& name) {
                  return static_cast<unsigned>(support::parseNumber(text, name, 1, 10'000'000));
              });
    addParsed(command, "--rate", options->rate, "Frames presented per second, by default 60", "N",
              [](const std::string& text, const std::string& name) {
                  return static_cast<unsigned>(support::parseNumber(text, name, 1, 1000));
              });
    addParsed(command, "--pointer", options->pointer, "Show an arrow with its top-left corner at X,Y", "X,Y",
              parsePoint);
    command->add_option("--out", options->out, "Write what the monitor shows as PNG")->type_name("F.png");
    addCapture(command, options->capture);
    addSeed(command, options->seed);
    addTick(command, options->tick);
    addFree(command, options->free);
    command
        ->add_option("--cpu", options->cpuFeatures,
                     "Highest vector extension that the driver may use, by default sse41")
        ->transform(CLI::CheckedTransformer(kProcessors).description(""))
        ->type_name("sse41|ssse3|none");
    command->add_flag("--json", options->json, "Print one JSON object with a series of samples");
    command->callback([options, &action] { action = [options] { return tool::show(*options); }; });
}

void addRun(CLI::App& app, CommandBody& action) {
    auto options = std::make_shared<tool::RunOptions>();
    CLI::App* command =
        app.add_subcommand("run", "Run a script of actions: plug, attach, present, sleep, expect ...");
    command->footer(tool::scriptHelp());
    command->add_option("SCRIPT", options->script, "The script; - reads standard input")->required();
    addCapture(command, options->capture);
    addSeed(command, options->seed);
    addTick(command, options->tick);
    addFree(command, options->free);
    command->add_flag("--json", options->json, "Print one JSON object");
    command->callback([options, &action] { action = [options] { return tool::runScript(*options); }; });
}

void addModes(CLI::App& app, CommandBody& action) {
    auto json = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand(
        "modes", "List every mode of the driver, with its pixel clock, and whether a monitor may offer it.");
    command->add_flag("--json", *json, "Print a JSON list");
    command->callback([json, &action] { action = [json] { return tool::showModes(*json); }; });
}

void addSettingList(CLI::App& app, CommandBody& action) {
    auto json = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand(
        "settings", "List the driver's settings: default, range, effect, when it is read.");
    command->add_flag("--json", *json, "Print a JSON list");
    command->callback([json, &action] { action = [json] { return tool::showSettings(*json); }; });
}

void addEdid(CLI::App& app, CommandBody& action) {
    auto options = std::make_shared<tool::EdidOptions>();
    CLI::App* command = app.add_subcommand(
        "edid",
        "Attach a monitor with this EDID, let the driver read and rewrite it, and show for each mode whether "
        "the client is offered it and why.");
    command->add_option("F.bin", options->file, "The EDID: blocks of 128 bytes; - reads standard input")
        ->required();
    addAdapter(command, options->adapter);
    addSettings(command, options->settings);
    command->add_option("--out", options->out, "Write the block that the client reads")->type_name("F2.bin");
    addSeed(command, options->seed);
    command->add_flag("--json", options->json, "Print one JSON object");
    command->callback([options, &action] { action = [options] { return tool::showEdid(*options); }; });
}

int fail(ExitStatus status, const char* message) {
    std::fprintf(stderr, "usbdisplay: %s\n", message);
    return static_cast<int>(status);
}

int runTool(int argc, char** argv) {
    CLI::App app(kAbout, "usbdisplay");
    app.require_subcommand(0, 1);
    app.set_version_flag("--version", "usbdisplay " USBDISPLAY_VERSION);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return fmt::format("usbdisplay: {} (--help lists what is allowed)\n", error.what());
    });
    CommandBody action;
    addShow(app, action);
    addRun(app, action);
    addModes(app, action);
    addEdid(app, action);
    addSettingList(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : static_cast<int>(ExitStatus::BadInput);
    }
    if (!action) {
        throw InputError(fmt::format("a command is missing; allowed are {} (--help explains them)",
                                     support::enumerate(app.get_subcommands({}), &CLI::App::get_name)));
    }
    return static_cast<int>(action());
}

} // namespace

int main(int argc, char** argv) {
    try {
        return runTool(argc, argv);
    } catch (const InputError& error) {
        return fail(ExitStatus::BadInput, error.what());
    } catch (const rig::WrongResult& error) {
        return fail(ExitStatus::Wrong, error.what());
    } catch (const std::exception& error) {
        return fail(ExitStatus::Failed, error.what());
    }
}

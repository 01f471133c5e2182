#include "tool/script.h"

#include "desktop/frame_source.h"
#include "desktop/pointer.h"
#include "rig/settings.h"
#include "support/enumerate.h"
#include "support/input_error.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <span>

namespace tool {

namespace {

using support::InputError;

// The words of a line after the action's name.
using Words = std::span<const std::string_view>;

// Thrown when the arguments do not fit the action. The parser adds the action's usage.
struct WrongArguments {};

void requireCount(Words words, std::size_t least, std::size_t most) {
    if (words.size() < least || words.size() > most) {
        throw WrongArguments{};
    }
}

template <typename Value>
struct Choice {
    std::string_view word;
    Value value;
};

template <typename Value, std::size_t count>
Value choose(std::string_view word, std::string_view what, const std::array<Choice<Value>, count>& choices) {
    const auto chosen = std::ranges::find(choices, word, &Choice<Value>::word);
    if (chosen == choices.end()) {
        throw InputError(fmt::format("{} is \"{}\"; allowed are {}", what, word,
                                     support::enumerate(choices, &Choice<Value>::word)));
    }
    return chosen->value;
}

template <typename Simple>
Action parseSimple(Words words) {
    requireCount(words, 0, 0);
    return Simple{};
}

std::string binarySettings() {
    std::vector<std::string_view> names;
    for (const rig::SettingInfo& info : rig::settingList()) {
        if (info.isBinary()) {
            names.push_back(info.name);
        }
    }
    return fmt::format("{}", fmt::join(names, " and "));
}

// The file is read later, before the script's first action.
Action parseRegistry(Words words) {
    requireCount(words, 2, 2);
    if (!words[1].starts_with('@')) {
        return RegistryAction{rig::parseSetting(words[0], words[1]).name, std::string(words[1])};
    }
    const rig::SettingInfo& info = rig::findSetting(words[0]);
    if (!info.isBinary() || words[1].size() == 1) {
        throw InputError(fmt::format("\"{}\" takes no @FILE; allowed are {}", words[0], binarySettings()));
    }
    return RegistryAction{std::string(info.name), std::string(words[1])};
}

void applyPlugOption(PlugAction& plug, std::string_view word) {
    constexpr std::array<Choice<usb::Speed>, 2> kLinks = {
        {{"usb2", usb::Speed::High}, {"usb3", usb::Speed::Super}}};
    constexpr std::array<Choice<model::Product>, 3> kProducts = {
        {{"main", model::Product::Main}, {"alt", model::Product::Alt}, {"partner", model::Product::Partner}}};
    constexpr std::array<Choice<model::DdcPath>, 2> kPaths = {
        {{"transmitter", model::DdcPath::Transmitter}, {"adapter", model::DdcPath::AdapterMaster}}};
    if (word == "transmitter") {
        plug.adapter.transmitter = true;
        return;
    }
    const std::size_t equals = word.find('=');
    const std::string_view key = word.substr(0, equals);
    const std::string_view value = equals == std::string_view::npos ? "" : word.substr(equals + 1);
    if (key == "revision") {
        plug.adapter.revision = static_cast<unsigned>(support::parseNumber(value, key, 0, 3));
    } else if (key == "link") {
        plug.adapter.link = choose(value, key, kLinks);
    } else if (key == "product") {
        plug.adapter.product = choose(value, key, kProducts);
    } else if (key == "bcd-usb") {
        plug.adapter.bcdUsb = static_cast<std::uint16_t>(support::parseNumber(value, key, 0, 0xFFFF));
    } else if (key == "ddc") {
        plug.adapter.ddcPath = choose(value, key, kPaths);
    } else if (key == "bandwidth") {
        plug.bandwidth = support::parseBandwidth(value, key);
    } else {
        throw WrongArguments{};
    }
}

Action parsePlug(Words words) {
    PlugAction plug;
    for (const std::string_view word : words) {
        applyPlugOption(plug, word);
    }
    try {
        model::identityOf(plug.adapter.revision, plug.adapter.product);
    } catch (const std::invalid_argument&) {
        throw InputError(fmt::format("revision {} exists as product=main only", plug.adapter.revision));
    }
    return plug;
}

Action parseAttach(Words words) {
    requireCount(words, 1, 1);
    return AttachAction{std::string(words[0])};
}

std::uint64_t parseIdentifier(std::string_view word) {
    return support::parseNumber(word, "frame buffer", 0, UINT64_MAX);
}

Action parseCreate(Words words) {
    requireCount(words, 2, 2);
    return CreateAction{parseIdentifier(words[0]), support::parseSize(words[1], "size")};
}

Action parseDisplay(Words words) {
    requireCount(words, 1, 1);
    constexpr std::array<Choice<bool>, 2> kPower = {{{"on", true}, {"off", false}}};
    return DisplayAction{choose(words[0], "display", kPower)};
}

Action parsePresent(Words words) {
    requireCount(words, 2, 2);
    return PresentAction{parseIdentifier(words[0]), std::string(words[1]), 1};
}

Action parseStream(Words words) {
    requireCount(words, 3, 3);
    return PresentAction{
        parseIdentifier(words[0]), std::string(words[1]),
        static_cast<unsigned>(support::parseNumber(words[2], "number of frames", 1, 1'000'000))};
}

Action parsePointer(Words words) {
    requireCount(words, 1, 3);
    if (words[0] == "hide") {
        requireCount(words, 1, 1);
        return PointerAction{.shape = "", .x = {}, .y = {}, .visible = false};
    }
    PointerAction pointer;
    if (words[0] != "move") {
        pointer.shape = words[0];
    }
    if (words.size() == 3) {
        pointer.x = support::parseCoordinate(words[1], "X");
        pointer.y = support::parseCoordinate(words[2], "Y");
    } else if (words.size() == 2 || pointer.shape.empty()) {
        throw WrongArguments{};
    }
    return pointer;
}

Action parseRotate(Words words) {
    requireCount(words, 1, 1);
    return RotateAction{static_cast<DISPLAY_ROTATION>(support::parseNumber(words[0], "rotation", 1, 4))};
}

Action parseWait(Words words) {
    requireCount(words, 1, 1);
    return WaitAction{support::parseNumber(words[0], "milliseconds", 0, 86'400'000)};
}

Action parseSave(Words words) {
    requireCount(words, 1, 1);
    return SaveAction{std::string(words[0])};
}

Action parseBandwidthAction(Words words) {
    requireCount(words, 1, 1);
    return BandwidthAction{support::parseBandwidth(words[0], "bandwidth")};
}

Action parseMemory(Words words) {
    requireCount(words, 2, 2);
    constexpr std::array<Choice<model::Memory>, 2> kMemories = {
        {{"eeprom", model::Memory::Eeprom}, {"flash", model::Memory::Flash}}};
    return MemoryAction{choose(words[0], "memory", kMemories), std::string(words[1])};
}

Action parseTransmitter(Words words) {
    requireCount(words, 1, 1);
    constexpr std::array<Choice<TransmitterState>, 3> kStates = {{{"stuck", TransmitterState::Stuck},
                                                                  {"deaf", TransmitterState::Deaf},
                                                                  {"well", TransmitterState::Well}}};
    return TransmitterAction{choose(words[0], "transmitter", kStates)};
}

template <model::DdcFault fault>
Action parseDdc(Words words) {
    requireCount(words, 0, 0);
    return DdcAction{fault};
}

Action parseExpect(Words words) {
    requireCount(words, 1, 2);
    if (words[0] == "bits") {
        requireCount(words, 2, 2);
        constexpr std::array<Choice<Expectation>, 3> kBits = {
            {{"8", Expectation::Bits8}, {"16", Expectation::Bits16}, {"24", Expectation::Bits24}}};
        return ExpectAction{choose(words[1], "bits per pixel", kBits)};
    }
    requireCount(words, 1, 1);
    constexpr std::array<Choice<Expectation>, 4> kExpectations = {{{"picture", Expectation::Picture},
                                                                   {"dark", Expectation::Dark},
                                                                   {"hdmi", Expectation::Hdmi},
                                                                   {"dvi", Expectation::Dvi}}};
    return ExpectAction{choose(words[0], "expectation", kExpectations)};
}

struct ActionRule {
    std::string_view name;
    std::string_view arguments;
    std::string_view meaning;
    Action (*parse)(Words);
};

constexpr auto kRules = std::to_array<ActionRule>({
    {"registry", "NAME VALUE|@FILE", "set a value under the driver's Parameters key", parseRegistry},
    {"plug",
     "[revision=0..3] [link=usb2|usb3] [product=main|alt|partner] [bcd-usb=0x0300] [transmitter] "
     "[ddc=transmitter|adapter] [bandwidth=MB/S]",
     "plug an adapter in", parsePlug},
    {"attach", "FILE.bin|default|none", "attach a monitor to the adapter; before `plug`: to the next adapter",
     parseAttach},
    {"open", "", "wait for the interface and exchange entry points", parseSimple<OpenAction>},
    {"create", "ID WxH", "create a frame buffer", parseCreate},
    {"display", "on|off", "switch the display; on sets the mode of the last frame buffer's size",
     parseDisplay},
    {"present", "ID FILE.png|PATTERN", "present a picture, scaled to the frame buffer", parsePresent},
    {"stream", "ID FILE.png|PATTERN N", "present N frames, 60 per second", parseStream},
    {"pointer", "arrow|beam|halo|cross|FILE.png [X Y] | move X Y | hide", "shape, move or hide the pointer",
     parsePointer},
    {"rotate", "1..4", "set the rotation of the pointer: 1 none, 2 a quarter, 3 a half, 4 three quarters",
     parseRotate},
    {"wait", "MS", "let the machine run", parseWait},
    {"frame-error", "", "the adapter reports a dropped frame", parseSimple<FrameErrorAction>},
    {"sleep", "", "put the system to sleep", parseSimple<SleepAction>},
    {"resume", "", "wake the system up", parseSimple<ResumeAction>},
    {"detach", "", "detach the monitor", parseSimple<DetachAction>},
    {"close", "", "the client closes the driver", parseSimple<CloseAction>},
    {"surprise", "", "unplug the adapter without warning", parseSimple<SurpriseAction>},
    {"remove", "", "remove the adapter in an orderly way", parseSimple<RemoveAction>},
    {"save", "FILE.png", "write the monitor's picture", parseSave},
    {"bandwidth", "MB/S", "change the bandwidth of the link", parseBandwidthAction},
    {"memory", "eeprom|flash FILE", "write the contents of a memory", parseMemory},
    {"transmitter", "stuck|deaf|well", "make the HDMI transmitter fail, or work again", parseTransmitter},
    {"ddc-busy", "", "the monitor holds the DDC lines low in the middle of a transaction",
     parseDdc<model::DdcFault::Busy>},
    {"report", "", "print mode, levels and transmitter", parseSimple<ReportAction>},
    {"expect", "picture | dark | bits 8|16|24 | hdmi | dvi", "wait for this state; a failure ends the script",
     parseExpect},
});

std::string usageOf(const ActionRule& rule) {
    return rule.arguments.empty() ? std::string(rule.name) : fmt::format("{} {}", rule.name, rule.arguments);
}

std::vector<std::string_view> splitWords(std::string_view line) {
    constexpr std::string_view kSpace = " \t\r";
    std::vector<std::string_view> words;
    std::size_t begin = line.find_first_not_of(kSpace);
    while (begin != std::string_view::npos) {
        const std::size_t end = std::min(line.find_first_of(kSpace, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(kSpace, end);
    }
    return words;
}

// A comment starts at a `#` that begins the line or follows a space. File names may contain others.
std::string_view withoutComment(std::string_view line) {
    for (std::size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
        if (at == 0 || line[at - 1] == ' ' || line[at - 1] == '\t') {
            return line.substr(0, at);
        }
    }
    return line;
}

Action parseAction(Words words) {
    const auto rule = std::ranges::find(kRules, words[0], &ActionRule::name);
    if (rule == kRules.end()) {
        throw InputError(fmt::format("action \"{}\" is unknown; allowed are {}", words[0],
                                     support::enumerate(kRules, &ActionRule::name)));
    }
    try {
        return rule->parse(words.subspan(1));
    } catch (const WrongArguments&) {
        throw InputError(fmt::format("wrong arguments; allowed is \"{}\"", usageOf(*rule)));
    }
}

} // namespace

std::vector<ScriptLine> parseScript(std::string_view text, std::string_view name) {
    std::vector<ScriptLine> lines;
    unsigned number = 0;
    while (!text.empty()) {
        number++;
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = withoutComment(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::vector<std::string_view> words = splitWords(line);
        if (words.empty()) {
            continue;
        }
        try {
            const std::string_view shown(words.front().data(),
                                         words.back().data() + words.back().size() - words.front().data());
            lines.push_back({number, std::string(shown), parseAction(words)});
        } catch (const InputError& error) {
            throw InputError(fmt::format("{}, line {}: {}", name, number, error.what()));
        }
    }
    return lines;
}

std::string scriptHelp() {
    std::string help = "One action per line; # starts a comment. Files are read from the folder of the\n"
                       "script and written to the current directory.\n\n";
    for (const ActionRule& rule : kRules) {
        help += fmt::format("  {}\n      {}\n", usageOf(rule), rule.meaning);
    }
    help += "\nPatterns:";
    for (const desktop::Pattern& pattern : desktop::patterns()) {
        help += fmt::format(" {}", pattern.name);
    }
    help += "\n";
    return help;
}

} // namespace tool

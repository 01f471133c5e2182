// Scripts: one action per line, `#` starts a comment. Parsing reads no other file and needs no machine.
#pragma once

#include "device/client_abi.h"
#include "model/adapter.h"
#include "support/parse.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tool {

struct RegistryAction {
    std::string name;
    std::string value; // a number, or "@FILE"
};
struct PlugAction {
    model::AdapterOptions adapter;
    std::uint64_t bandwidth = 0; // bytes per second; 0 for the link's own
};
struct AttachAction {
    std::string edid; // a file, "none" or "default"
};
struct OpenAction {};
struct CreateAction {
    std::uint64_t identifier = 0;
    support::Size size;
};
struct DisplayAction {
    bool on = false;
};
struct PresentAction {
    std::uint64_t identifier = 0;
    std::string picture; // a pattern's name or a file
    unsigned frames = 1; // 60 per second
};
struct PointerAction {
    std::string shape; // a built-in pointer's name or a file; empty to keep the shape
    std::optional<int> x;
    std::optional<int> y;
    bool visible = true;
};
struct RotateAction {
    DISPLAY_ROTATION rotation = ROTATION_NONE;
};
struct WaitAction {
    std::uint64_t milliseconds = 0;
};
struct FrameErrorAction {};
struct SleepAction {};
struct ResumeAction {};
struct DetachAction {};
struct CloseAction {};
struct SurpriseAction {};
struct RemoveAction {};
struct SaveAction {
    std::string file;
};
struct BandwidthAction {
    std::uint64_t bytesPerSecond = 0;
};
struct MemoryAction {
    model::Memory memory = model::Memory::Eeprom;
    std::string file;
};
enum class TransmitterState : std::uint8_t { Well, Stuck, Deaf };
struct TransmitterAction {
    TransmitterState state = TransmitterState::Well;
};
struct DdcAction {
    model::DdcFault fault = model::DdcFault::None;
};
struct ReportAction {};
enum class Expectation : std::uint8_t { Picture, Dark, Bits8, Bits16, Bits24, Hdmi, Dvi };
struct ExpectAction {
    Expectation what = Expectation::Picture;
};

using Action =
    std::variant<RegistryAction, PlugAction, AttachAction, OpenAction, CreateAction, DisplayAction,
                 PresentAction, PointerAction, RotateAction, WaitAction, FrameErrorAction, SleepAction,
                 ResumeAction, DetachAction, CloseAction, SurpriseAction, RemoveAction, SaveAction,
                 BandwidthAction, MemoryAction, TransmitterAction, DdcAction, ReportAction, ExpectAction>;

struct ScriptLine {
    unsigned number = 0; // from 1
    std::string text;    // without comment and surrounding space
    Action action;
};

// `name` is the script's name in messages. Throws `InputError` for the first line that is not an action.
std::vector<ScriptLine> parseScript(std::string_view text, std::string_view name);

// Every action with its arguments and meaning, for `--help`.
std::string scriptHelp();

} // namespace tool

#include "tool/script_actions.h"

#include "desktop/frame_source.h"
#include "rig/driver_probe.h"
#include "rig/errors.h"
#include "rig/frame_pacer.h"
#include "rig/screen_check.h"
#include "rig/session.h"
#include "support/file.h"
#include "support/input_error.h"
#include "support/png_image.h"
#include "tool/edid_file.h"
#include "tool/report.h"
#include "tool/script.h"
#include "tool/transmitter_report.h"

#include <filesystem>
#include <fmt/format.h>
#include <map>

namespace tool {

namespace {

using rig::DeviceError;
using rig::kDriverTimeout;
using rig::Session;
using rig::SessionOptions;
using rig::Setting;
using rig::WrongResult;
using support::InputError;
using support::Surface;

constexpr std::size_t kMaxScriptBytes = 16u << 20;
constexpr unsigned kStreamRate = 60;

template <typename... Cases>
struct Overloaded : Cases... {
    using Cases::operator()...;
};
template <typename... Cases>
Overloaded(Cases...) -> Overloaded<Cases...>; // Clang 14 does not deduce it by itself

// The files that a script names. They are read from the script's folder, or from the current directory for a
// script from standard input, and written to the current directory, as with every other command.
class ScriptFiles {
  public:
    explicit ScriptFiles(const std::string& script)
        : folder_(script == "-" ? "" : std::filesystem::path(script).parent_path()) {}

    std::string place(const std::string& file) const { return (folder_ / file).string(); }

    void load(const Action& action) {
        std::visit(Overloaded{
                       [this](const RegistryAction& a) { settings_.emplace(a.name + a.value, setting(a)); },
                       [this](const AttachAction& a) { edids_.emplace(a.edid, loadEdid(edidPlace(a.edid))); },
                       [this](const PresentAction& a) {
                           if (desktop::findPattern(a.picture) == nullptr) {
                               loadPicture(a.picture);
                           }
                       },
                       [this](const PointerAction& a) {
                           if (!a.shape.empty()) {
                               pointers_.emplace(a.shape, pointer(a.shape));
                           }
                       },
                       [](const SaveAction& a) { support::requireWritable(a.file); },
                       [](const MemoryAction& a) { support::requireWritable(a.file); },
                       [](const auto&) {},
                   },
                   action);
    }

    const Setting& settingOf(const RegistryAction& action) const {
        return settings_.at(action.name + action.value);
    }
    const std::vector<std::uint8_t>& edid(const std::string& file) const { return edids_.at(file); }
    const Surface& picture(const std::string& file) const { return pictures_.at(file); }
    const desktop::PointerImage& pointerOf(const std::string& name) const { return pointers_.at(name); }

  private:
    Setting setting(const RegistryAction& action) const {
        const bool fromFile = action.value.starts_with('@');
        return rig::parseSetting(action.name, fromFile ? "@" + place(action.value.substr(1)) : action.value);
    }

    std::string edidPlace(const std::string& file) const {
        return file == "none" || file == "default" ? file : place(file);
    }

    void loadPicture(const std::string& file) {
        if (!pictures_.contains(file)) {
            pictures_.emplace(file, support::readPng(place(file)));
        }
    }

    desktop::PointerImage pointer(const std::string& name) const {
        return desktop::isBuiltinPointer(name)
                   ? desktop::builtinPointer(name)
                   : desktop::pointerFromPicture(support::readPngWithAlpha(place(name)),
                                                 support::inputName(place(name)));
    }

    std::filesystem::path folder_;
    std::map<std::string, Setting> settings_;
    std::map<std::string, std::vector<std::uint8_t>> edids_;
    std::map<std::string, Surface> pictures_;
    std::map<std::string, desktop::PointerImage> pointers_;
};

SessionOptions sessionOptions(const RunOptions& options) {
    SessionOptions session;
    session.scheduler.mode = options.free ? kernel::Mode::Free : kernel::Mode::Sim;
    session.scheduler.seed = options.seed;
    session.scheduler.tick = options.tick;
    return session;
}

// Performs single actions. One overload of `perform` for each kind.
class Performer {
  public:
    Performer(const RunOptions& options, const ScriptFiles& files, Session& session)
        : options_(options), files_(files), session_(session) {}

    // What the last action reported, for the log; null for most actions.
    Json takeDetails() { return std::exchange(details_, nullptr); }

    void perform(const RegistryAction& a) {
        const Setting& setting = files_.settingOf(a);
        session_.machine().setParameter(std::u16string(setting.name.begin(), setting.name.end()),
                                        setting.value);
    }

    void perform(const PlugAction& a) {
        session_.plug({.adapter = a.adapter, .bandwidth = a.bandwidth, .capture = captureFile()});
        sizes_.clear();
        pointerX_ = pointerY_ = 0;
    }

    void perform(const AttachAction& a) { session_.attachMonitor(files_.edid(a.edid)); }
    void perform(const DetachAction&) { session_.detachMonitor(); }
    void perform(const OpenAction&) { session_.openClient(); }
    void perform(const CloseAction&) { session_.client().close(); }

    void perform(const CreateAction& a) {
        session_.createFrameBuffer(a.identifier, a.size.width, a.size.height);
        sizes_[a.identifier] = a.size;
    }

    void perform(const DisplayAction& a) { session_.setDisplayPower(a.on); }

    void perform(const PresentAction& a) {
        rig::FramePacer pacer(session_.machine(), kStreamRate);
        for (unsigned frame = 0; frame < a.frames; frame++) {
            pacer.waitFor(frame);
            session_.present(a.identifier, frameOf(a));
            presented_++;
        }
    }

    void perform(const PointerAction& a) {
        if (!a.shape.empty()) {
            session_.setPointer(files_.pointerOf(a.shape));
        }
        pointerX_ = a.x.value_or(pointerX_);
        pointerY_ = a.y.value_or(pointerY_);
        session_.movePointer(pointerX_, pointerY_, a.visible);
    }

    void perform(const RotateAction& a) { session_.setRotation(a.rotation); }

    void perform(const WaitAction& a) {
        session_.machine().sleep(static_cast<usb::Time>(a.milliseconds) * usb::kMillisecond);
    }

    void perform(const FrameErrorAction&) { session_.adapter().reportFrameError(); }
    void perform(const SleepAction&) { session_.suspend(); }
    void perform(const ResumeAction&) { session_.resume(); }
    void perform(const SurpriseAction&) { session_.surpriseRemove(); }
    void perform(const RemoveAction&) { session_.remove(); }
    void perform(const BandwidthAction& a) { session_.link().setBandwidth(a.bytesPerSecond); }

    void perform(const SaveAction& a) {
        const std::optional<Surface> shown = session_.screen();
        if (!shown) {
            throw WrongResult(fmt::format("the monitor is dark: {}", session_.adapter().darkReason()));
        }
        support::writePng(a.file, *shown);
    }

    void perform(const MemoryAction& a) { support::writeFile(a.file, session_.adapter().memory(a.memory)); }

    void perform(const TransmitterAction& a) {
        session_.adapter().setDeaf(model::Part::Transmitter, a.state == TransmitterState::Deaf);
        session_.adapter().setTransmitterFault(a.state == TransmitterState::Stuck
                                                   ? model::TransmitterFault::Stuck
                                                   : model::TransmitterFault::None);
    }

    void perform(const DdcAction& a) { session_.adapter().setDdcFault(a.fault); }

    void perform(const ReportAction&) {
        details_ = Json::object();
        if (const std::optional<model::OutputMode> mode = session_.adapter().outputMode()) {
            details_["mode"] = fmt::format("{}x{} at {:.2f} Hz", mode->width, mode->height, mode->refresh);
            details_["bits_per_pixel"] = 8 * model::bytesPerPixel(mode->format);
            details_["compressed"] = mode->compressed;
        }
        if (const std::optional<rig::DriverState> driver = rig::probeDriver(session_.client())) {
            details_["compression_level"] = driver->compressionLevel;
            details_["quantisation_level"] = driver->quantizationLevel;
        }
        details_["frame_errors"] = session_.adapter().statistics().frameErrors;
        if (const std::optional<model::TransmitterReport> report = session_.adapter().transmitter()) {
            details_["transmitter"] =
                options_.json ? transmitterJson(*report) : Json(describeTransmitter(*report));
        }
    }

    void perform(const ExpectAction& a) {
        switch (a.what) {
        case Expectation::Picture:
            return expectPicture();
        case Expectation::Dark:
            return expectDark();
        case Expectation::Bits8:
            return expectBits(8);
        case Expectation::Bits16:
            return expectBits(16);
        case Expectation::Bits24:
            return expectBits(24);
        case Expectation::Hdmi:
            return expectConnection(true);
        case Expectation::Dvi:
            return expectConnection(false);
        }
    }

  private:
    std::string captureFile() {
        plugs_++;
        if (options_.capture.empty() || plugs_ == 1) {
            return options_.capture;
        }
        const std::filesystem::path file(options_.capture);
        return (file.parent_path() /
                fmt::format("{}-{}{}", file.stem().string(), plugs_, file.extension().string()))
            .string();
    }

    Surface frameOf(const PresentAction& action) const {
        const auto size = sizes_.find(action.identifier);
        if (const desktop::Pattern* pattern = desktop::findPattern(action.picture)) {
            if (size == sizes_.end()) {
                throw InputError(fmt::format("frame buffer {} has no size; a pattern needs `create` before",
                                             action.identifier));
            }
            return desktop::drawPattern(*pattern, size->second.width, size->second.height, presented_,
                                        options_.seed);
        }
        const Surface& picture = files_.picture(action.picture);
        return size == sizes_.end() ? picture
                                    : support::scale(picture, size->second.width, size->second.height);
    }

    void expectPicture() {
        if (!session_.reference().picture()) {
            throw WrongResult("nothing was presented that could be expected");
        }
        rig::ScreenCheck check(session_, *session_.reference().picture());
        if (!check.waitForMatch(kDriverTimeout)) {
            throw WrongResult(check.problem());
        }
    }

    void expectDark() {
        const auto dark = [this] { return !session_.plugged() || !session_.adapter().darkReason().empty(); };
        if (!session_.waitFor(kDriverTimeout, dark)) {
            throw WrongResult("the monitor still shows a picture");
        }
    }

    void expectBits(unsigned wanted) {
        unsigned bits = 0;
        const auto right = [&] {
            const std::optional<model::OutputMode> mode = session_.adapter().outputMode();
            bits = mode ? 8 * model::bytesPerPixel(mode->format) : 0;
            return bits == wanted;
        };
        if (!session_.waitFor(kDriverTimeout, right)) {
            throw WrongResult(fmt::format("the adapter takes {} bits per pixel, expected {}", bits, wanted));
        }
    }

    void expectConnection(bool hdmi) {
        const auto connected = [&] {
            const std::optional<model::TransmitterReport> report = session_.adapter().transmitter();
            return report && report->powered && report->hdmi == hdmi;
        };
        if (!session_.waitFor(kDriverTimeout, connected)) {
            const std::optional<model::TransmitterReport> report = session_.adapter().transmitter();
            throw WrongResult(
                fmt::format("the monitor is not connected as {}: {}", hdmi ? "HDMI" : "DVI",
                            report ? describeTransmitter(*report) : "the adapter has no transmitter"));
        }
    }

    const RunOptions& options_;
    const ScriptFiles& files_;
    Session& session_;
    std::map<std::uint64_t, support::Size> sizes_; // of the frame buffers created
    int pointerX_ = 0;
    int pointerY_ = 0;
    std::uint64_t presented_ = 0;
    unsigned plugs_ = 0;
    Json details_;
};

// Calls `body` and puts `place` before the message of an exception.
template <typename Body>
void atPlace(const std::string& place, Body body) {
    try {
        body();
    } catch (const InputError& error) {
        throw InputError(fmt::format("{}: {}", place, error.what()));
    } catch (const DeviceError& error) {
        throw DeviceError(fmt::format("{}: {}", place, error.what()));
    } catch (const WrongResult& error) {
        throw WrongResult(fmt::format("{}: {}", place, error.what()));
    }
}

class ScriptRun {
  public:
    ScriptRun(const RunOptions& options, std::vector<ScriptLine> lines)
        : options_(options), lines_(std::move(lines)), name_(support::inputName(options.script)),
          files_(options.script), session_(sessionOptions(options)), performer_(options, files_, session_) {
        for (const ScriptLine& line : lines_) {
            atPlace(fmt::format("{}, line {}", name_, line.number), [&] { files_.load(line.action); });
        }
    }

    ExitStatus run() {
        std::exception_ptr failure;
        try {
            session_.run([this] {
                for (const ScriptLine& line : lines_) {
                    perform(line);
                }
            });
        } catch (const std::exception& error) {
            failure = std::current_exception();
            json_["problem"] = error.what();
        }
        finish();
        if (failure) {
            std::rethrow_exception(failure);
        }
        return session_.violationCount() == 0 ? ExitStatus::Right : ExitStatus::Wrong;
    }

  private:
    void perform(const ScriptLine& line) {
        atPlace(fmt::format("{}, line {}: {}", name_, line.number, line.text),
                [&] { std::visit([this](const auto& action) { performer_.perform(action); }, line.action); });
        log(line, performer_.takeDetails());
    }

    void log(const ScriptLine& line, Json details) {
        const double ms = static_cast<double>(session_.machine().clock().now()) / usb::kMillisecond;
        if (!options_.json) {
            fmt::print("{:>12.3f} ms  {}\n", ms, line.text);
            for (const auto& [key, value] : details.items()) {
                fmt::print("{:>15}  {}: {}\n", "", key,
                           value.is_string() ? value.get<std::string>() : value.dump());
            }
            std::fflush(stdout);
            return;
        }
        Json step = {{"line", line.number}, {"action", line.text}, {"ms", ms}};
        if (!details.is_null()) {
            step["report"] = std::move(details);
        }
        json_["steps"].push_back(std::move(step));
    }

    void finish() {
        const std::vector<std::string> violations = session_.violations();
        if (!options_.json) {
            for (const std::string& violation : violations) {
                fmt::print("violation at {}\n", violation);
            }
            return;
        }
        json_["violations"] = violations;
        json_["seed"] = options_.seed;
        fmt::print("{}\n", json_.dump(2));
    }

    const RunOptions& options_;
    std::vector<ScriptLine> lines_;
    std::string name_;
    ScriptFiles files_;
    Session session_;
    Performer performer_;
    Json json_ = {{"steps", Json::array()}};
};

} // namespace

ExitStatus runScript(const RunOptions& options) {
    const std::vector<std::uint8_t> text = support::readFile(options.script, kMaxScriptBytes);
    if (!options.capture.empty()) {
        support::requireWritable(options.capture);
    }
    return ScriptRun(options, parseScript({reinterpret_cast<const char*>(text.data()), text.size()},
                                          support::inputName(options.script)))
        .run();
}

} // namespace tool

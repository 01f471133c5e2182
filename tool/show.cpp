#include "tool/show.h"

#include "desktop/frame_source.h"
#include "rig/errors.h"
#include "rig/frame_pacer.h"
#include "rig/screen_check.h"
#include "rig/session.h"
#include "rig/stream_meter.h"
#include "support/enumerate.h"
#include "support/file.h"
#include "support/input_error.h"
#include "support/png_image.h"
#include "tool/edid_file.h"
#include "tool/mode_list.h"
#include "tool/report.h"
#include "tool/stream_report.h"
#include "tool/transmitter_report.h"

#include <algorithm>
#include <fmt/format.h>
#include <memory>

namespace tool {

namespace {

using desktop::FrameSource;
using rig::SessionOptions;
using rig::StreamMeter;
using support::InputError;
using support::Size;
using support::Surface;

constexpr Size kDefaultSize = {1920, 1080};
constexpr unsigned kMovingFrames = 60;

// Frames alternate between two frame buffers, so that one can be filled while the other is being sent.
constexpr std::uint64_t kFrameBuffers = 2;

struct Source {
    std::unique_ptr<FrameSource> frames;
    Size size;
    std::optional<unsigned> count; // none: to the end of the source
};

Source imageSource(const ShowOptions& options) {
    Surface picture = support::readPng(options.image);
    const Size size = options.size.value_or(Size{picture.width, picture.height});
    if (size != Size{picture.width, picture.height}) {
        picture = support::scale(picture, size.width, size.height);
    }
    return {desktop::stillSource(std::move(picture)), size, options.frames.value_or(1)};
}

Source videoSource(const ShowOptions& options) {
    if (!options.size) {
        throw InputError("--video needs --size WIDTHxHEIGHT: raw frames do not contain it");
    }
    return {desktop::rawVideoSource(options.video, options.size->width, options.size->height), *options.size,
            options.frames};
}

Source patternSource(const ShowOptions& options) {
    const desktop::Pattern* pattern =
        desktop::findPattern(options.pattern.empty() ? "bars" : options.pattern);
    if (pattern == nullptr) {
        throw InputError(fmt::format("--pattern is \"{}\"; allowed are {}", options.pattern,
                                     support::enumerate(desktop::patterns(), &desktop::Pattern::name)));
    }
    const Size size = options.size.value_or(options.mode.value_or(kDefaultSize));
    return {desktop::patternSource(*pattern, size.width, size.height, options.seed), size,
            options.frames.value_or(pattern->moves ? kMovingFrames : 1)};
}

Source makeSource(const ShowOptions& options) {
    const int given = !options.image.empty() + !options.pattern.empty() + !options.video.empty();
    if (given > 1) {
        throw InputError("--image, --pattern and --video exclude each other");
    }
    return !options.image.empty()   ? imageSource(options)
           : !options.video.empty() ? videoSource(options)
                                    : patternSource(options);
}

SessionOptions sessionOptions(const ShowOptions& options) {
    SessionOptions session;
    session.scheduler.mode = options.free ? kernel::Mode::Free : kernel::Mode::Sim;
    session.scheduler.seed = options.seed;
    session.scheduler.tick = options.tick;
    session.cpuFeatures = options.cpuFeatures;
    session.settings = options.settings;
    return session;
}

// One run: plug, switch on, stream, wait for the last picture.
class ShowRun {
  public:
    ShowRun(const ShowOptions& options, Source source, Size mode, std::vector<std::uint8_t> edid)
        : options_(options), source_(std::move(source)), mode_(mode), edid_(std::move(edid)),
          session_(sessionOptions(options)) {}

    ExitStatus run() {
        session_.run([this] {
            bringUp();
            stream();
            checkLastPicture();
            summarize();
        });
        // After the run, because the removal of the adapter may violate rules, too.
        reportViolations();
        if (screen_) {
            support::writePng(options_.out, *screen_);
        }
        report_.print(options_.json, options_.out == "-");
        return problem_.empty() && session_.violationCount() == 0 ? ExitStatus::Right : ExitStatus::Wrong;
    }

  private:
    void bringUp() {
        session_.attachMonitor(edid_);
        session_.plug(
            {.adapter = options_.adapter, .bandwidth = options_.bandwidth, .capture = options_.capture});
        session_.openClient();
        for (std::uint64_t identifier = 1; identifier <= kFrameBuffers; identifier++) {
            session_.createFrameBuffer(identifier, mode_.width, mode_.height);
        }
        // While the display is off, so that the first picture already has the pointer.
        if (options_.pointer) {
            session_.setPointer(desktop::builtinPointer("arrow"));
            session_.movePointer(options_.pointer->first, options_.pointer->second, true);
        }
        session_.setDisplayPower(true);
        if (!session_.adapter().outputMode()) {
            throw rig::DeviceError(fmt::format("the driver did not set the mode {}x{}: {}", mode_.width,
                                               mode_.height, session_.adapter().darkReason()));
        }
    }

    void stream() {
        Progress progress(!options_.json || options_.free);
        meter_ = std::make_unique<StreamMeter>(session_);
        rig::FramePacer pacer(session_.machine(), options_.rate);
        Surface frame;
        unsigned presented = 0;
        while ((!source_.count || presented < *source_.count) && source_.frames->next(frame)) {
            pacer.waitFor(presented);
            const bool fits = frame.width == mode_.width && frame.height == mode_.height;
            session_.present(1 + presented % kFrameBuffers,
                             fits ? frame : support::center(frame, mode_.width, mode_.height));
            presented++;
            meter_->framePresented();
            progress.show(fmt::format("frame {}{}", presented,
                                      source_.count ? fmt::format(" of {}", *source_.count) : ""));
        }
        if (presented == 0) {
            throw InputError(fmt::format("{} holds no frame", support::inputName(options_.video)));
        }
    }

    void checkLastPicture() {
        // A slow link must finish the frames in flight before it carries the last one.
        const std::uint64_t frameBytes = std::uint64_t{mode_.width} * mode_.height * 3;
        const usb::Time transfers = static_cast<usb::Time>(
            8 * frameBytes * usb::kSecond / std::max<std::uint64_t>(session_.link().bandwidth(), 1));
        rig::ScreenCheck check(session_, *session_.reference().picture());
        if (!check.waitForMatch(rig::kDriverTimeout + transfers)) {
            problem_ = check.problem();
        }
        figures_ = meter_->finish();
        if (options_.out.empty()) {
            return;
        }
        screen_ = session_.screen();
    }

    void summarize() {
        report_.add("picture", problem_.empty() ? "right" : "wrong", "picture",
                    problem_.empty() ? "right" : "WRONG");
        if (!problem_.empty()) {
            report_.add("problem", problem_);
            report_.addLine(problem_);
        }
        reportMode();
        reportStream(report_, figures_, options_.free);
        if (const std::optional<model::TransmitterReport> transmitter = session_.adapter().transmitter()) {
            report_.add("transmitter", transmitterJson(*transmitter), "transmitter",
                        describeTransmitter(*transmitter));
        }
        report_.add("seed", options_.seed);
    }

    void reportMode() {
        const std::optional<model::OutputMode> mode = session_.adapter().outputMode();
        if (!mode) {
            return;
        }
        report_.add("mode",
                    {{"width", mode->width},
                     {"height", mode->height},
                     {"refresh", mode->refresh},
                     {"format", model::name(mode->format)},
                     {"bits_per_pixel", 8 * model::bytesPerPixel(mode->format)},
                     {"compressed", mode->compressed}},
                    "mode",
                    fmt::format("{}x{} at {:.2f} Hz, {}{}", mode->width, mode->height, mode->refresh,
                                model::name(mode->format), mode->compressed ? ", compressed" : ""));
    }

    void reportViolations() {
        const std::vector<std::string> violations = session_.violations();
        const std::uint64_t count = session_.violationCount();
        report_.add("violations", violations, "violations", count == 0 ? "none" : std::to_string(count));
        for (const std::string& violation : violations) {
            report_.addLine(violation);
        }
    }

    const ShowOptions& options_;
    Source source_;
    Size mode_;
    std::vector<std::uint8_t> edid_;
    rig::Session session_;
    std::unique_ptr<StreamMeter> meter_;
    rig::StreamFigures figures_;
    std::optional<Surface> screen_;
    std::string problem_;
    Report report_;
};

} // namespace

ExitStatus show(const ShowOptions& options) {
    Source source = makeSource(options);
    const Size mode = options.mode.value_or(source.size);
    requireShowable(mode, options.mode ? "--mode" : "the size of the frames");
    for (const std::string& file : {options.out, options.capture}) {
        if (!file.empty()) {
            support::requireWritable(file);
        }
    }
    return ShowRun(options, std::move(source), mode, loadEdid(options.edid)).run();
}

} // namespace tool

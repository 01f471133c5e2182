// The cost of a frame from the client's present to the bus, and the utilization of the link, with driver,
// platform, model and client together under the `sim` scheduler. Time on the link is virtual and exact.
// Processor time is that of the driver alone.
#include "rig/builtin_edid.h"
#include "rig/frame_pacer.h"
#include "rig/session.h"
#include "rig/stream_meter.h"
#include "support/png_image.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using rig::StreamFigures;
using support::Surface;

constexpr unsigned kFrames = 180;
constexpr unsigned kRepetitions = 5;
constexpr unsigned kRate = 60; // frames per second

struct Scene {
    std::string name;
    std::vector<Surface> frames; // shown one after the other
};

// The picture, scrolled up by one line of text per frame, so that every row differs from the row it replaces.
Scene scrolled(const std::string& name, const std::string& file) {
    Scene scene{name, {}};
    const Surface picture = support::readPng(file);
    for (unsigned step = 0; step < 8; step++) {
        Surface frame = picture;
        const std::size_t shift = std::size_t{step} * 19 * picture.width;
        std::rotate_copy(picture.pixels.begin(), picture.pixels.begin() + static_cast<std::ptrdiff_t>(shift),
                         picture.pixels.end(), frame.pixels.begin());
        scene.frames.push_back(std::move(frame));
    }
    return scene;
}

enum class Desktop { Moves, Rests };

// Streams the scene at 60 frames per second, or shows its first frame for the same time.
StreamFigures stream(const Scene& scene, usb::Speed link, Desktop desktop) {
    StreamFigures result;
    rig::SessionOptions options;
    options.scheduler.strategy = kernel::Strategy::InOrder;
    rig::Session session(options);
    session.run([&] {
        rig::PlugOptions plug;
        plug.adapter.link = link;
        session.attachMonitor(rig::builtinEdid());
        session.plug(plug);
        session.openClient();
        const Surface& first = scene.frames.front();
        session.createFrameBuffer(1, first.width, first.height);
        session.createFrameBuffer(2, first.width, first.height);
        session.setDisplayPower(true);
        session.present(1, first);
        session.machine().sleep(500 * usb::kMillisecond); // until levels are stable and tables are built

        rig::StreamMeter meter(session);
        rig::FramePacer pacer(session.machine(), kRate);
        for (unsigned frame = 0; frame < kFrames; frame++) {
            pacer.waitFor(frame);
            if (desktop == Desktop::Moves) {
                session.present(1 + frame % 2, scene.frames[frame % scene.frames.size()]);
                meter.framePresented();
            }
        }
        pacer.waitFor(kFrames);
        result = meter.finish();
    });
    return result;
}

std::uint64_t median(std::vector<std::uint64_t> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The last of several runs, with the medians of their processor times.
StreamFigures repeat(const Scene& scene, usb::Speed link, Desktop desktop) {
    std::vector<std::uint64_t> convert;
    std::vector<std::uint64_t> complete;
    StreamFigures last;
    for (unsigned repetition = 0; repetition < kRepetitions; repetition++) {
        last = stream(scene, link, desktop);
        convert.push_back(last.convertNanoseconds);
        complete.push_back(last.completeNanoseconds);
    }
    last.convertNanoseconds = median(convert);
    last.completeNanoseconds = median(complete);
    return last;
}

double milliseconds(std::uint64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e6;
}

const char* nameOf(usb::Speed link) {
    return link == usb::Speed::Super ? "usb3" : "usb2";
}

void printMovingRow(const Scene& scene, usb::Speed link) {
    const StreamFigures run = repeat(scene, link, Desktop::Moves);
    const double frames = static_cast<double>(run.presented);
    fmt::print("{:<16} {:<5} {:>9.1f} {:>11} {:>8.1f} {:>9.3f} {:>9.3f} {:>12}\n", scene.name, nameOf(link),
               run.frameRate, run.bytes / std::max<std::uint64_t>(run.sent, 1) / 1000, run.busy * 100,
               milliseconds(run.convertNanoseconds) / frames, milliseconds(run.completeNanoseconds) / frames,
               run.allocations);
}

void printStillRow(const Scene& scene, usb::Speed link) {
    const StreamFigures run = repeat(scene, link, Desktop::Rests);
    fmt::print("{:<16} {:<5} {:>10} {:>9.3f} {:>14.2f} {:>12}\n", scene.name, nameOf(link), run.sent,
               milliseconds(run.convertNanoseconds),
               milliseconds(run.completeNanoseconds) * 1000 / static_cast<double>(run.sent), run.allocations);
}

} // namespace

int main() {
    const std::string demo = DEMO_DATA;
    const std::string data = TEST_DATA;
    const std::vector<Scene> scenes = {scrolled("desktop-office", demo + "/desktop-office.png"),
                                       scrolled("desktop-sheet", demo + "/desktop-sheet.png"),
                                       scrolled("photo", data + "/photo.png")};

    fmt::print("Whole frame changed 60 times per second, 1920x1080, default settings; medians of {} runs\n\n",
               kRepetitions);
    fmt::print("{:<16} {:<5} {:>9} {:>11} {:>8} {:>9} {:>9} {:>12}\n", "", "link", "pictures", "KB per",
               "link", "convert", "complete", "allocations");
    fmt::print("{:<16} {:<5} {:>9} {:>11} {:>8} {:>9} {:>9} {:>12}\n", "", "", "per sec.", "transfer",
               "busy %", "CPU ms", "CPU ms", "");
    for (const Scene& scene : scenes) {
        printMovingRow(scene, usb::Speed::Super);
        printMovingRow(scene, usb::Speed::High);
    }

    fmt::print("\nNothing changed for {} seconds: cost of the re-sends of the newest buffer\n\n",
               kFrames / kRate);
    fmt::print("{:<16} {:<5} {:>10} {:>9} {:>14} {:>12}\n", "", "link", "re-sends", "convert", "complete CPU",
               "allocations");
    fmt::print("{:<16} {:<5} {:>10} {:>9} {:>14} {:>12}\n", "", "", "", "CPU ms", "us per re-send", "");
    for (const Scene& scene : scenes) {
        printStillRow(scene, usb::Speed::Super);
        printStillRow(scene, usb::Speed::High);
    }
    fmt::print(
        "\nOn usb2 a picture whose stream exceeds 480 KiB is handed over again every 10 ms, and encoded "
        "again\nwhile its level still rises.\n");
}

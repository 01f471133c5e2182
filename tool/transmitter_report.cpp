#include "tool/transmitter_report.h"

#include <fmt/format.h>

namespace tool {

std::string describeTransmitter(const model::TransmitterReport& report) {
    if (!report.powered) {
        return "powered down";
    }
    std::string text = report.hdmi ? "HDMI" : "DVI";
    if (report.avi) {
        text += fmt::format(", VIC {}, aspect {}, colorimetry {}", report.avi->vic, report.avi->aspect,
                            report.avi->colorimetry);
    }
    text += report.videoMuted ? ", picture muted" : ", picture on";
    if (!report.audioRunning) {
        return text + ", no sound";
    }
    text += fmt::format(", {} audio at {} Hz", report.spdif ? "S/PDIF" : "I2S", report.sampleRate);
    if (report.audio) {
        text += fmt::format(", {} channels", report.audio->channels);
    }
    return text + (report.avMute ? ", muted" : "");
}

Json transmitterJson(const model::TransmitterReport& report) {
    Json json = {{"powered", report.powered},
                 {"connection", report.hdmi ? "HDMI" : "DVI"},
                 {"av_mute", report.avMute},
                 {"video_muted", report.videoMuted},
                 {"audio_running", report.audioRunning},
                 {"audio_input", report.spdif ? "S/PDIF" : "I2S"},
                 {"sample_rate", report.sampleRate}};
    if (report.avi) {
        json["avi"] = {{"version", report.avi->version},
                       {"vic", report.avi->vic},
                       {"aspect", report.avi->aspect},
                       {"colorimetry", report.avi->colorimetry},
                       {"bytes", report.avi->bytes}};
    }
    if (report.audio) {
        json["audio"] = {{"channels", report.audio->channels}, {"bytes", report.audio->bytes}};
    }
    return json;
}

} // namespace tool

// What the sink at the end of the HDMI cable is told.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace model {

struct AviInfoFrame {
    unsigned version = 0;
    unsigned vic = 0;             // CEA-861 video identification code, 0 for none
    std::string_view aspect;      // "4:3", "16:9" or "none"
    std::string_view colorimetry; // "ITU-R 601", "ITU-R 709" or "none"
    std::uint8_t checksum = 0;
    std::vector<std::uint8_t> bytes; // header, checksum and 13 data bytes
};

struct AudioInfoFrame {
    unsigned channels = 0;
    std::uint8_t checksum = 0;
    std::vector<std::uint8_t> bytes; // header, checksum and 10 data bytes
};

struct TransmitterReport {
    bool powered = false;
    bool hdmi = false; // else DVI
    bool avMute = false;
    bool videoMuted = false; // no TMDS picture, whatever the cause
    bool audioRunning = false;
    bool spdif = false;                  // audio input, else I2S
    unsigned sampleRate = 0;             // Hz from the channel status, 0 when it names none
    std::optional<AviInfoFrame> avi;     // being repeated, with a correct checksum
    std::optional<AudioInfoFrame> audio; // being repeated, with a correct checksum
};

} // namespace model

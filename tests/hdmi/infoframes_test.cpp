#include "hdmi/infoframes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <numeric>
#include <vector>

namespace {

template <typename Record>
std::vector<unsigned> bytesOf(const Record& record) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    return {bytes, bytes + sizeof(record)};
}

// Whole frames: header, checksum, data.
TEST(InfoFrames, AviFramesOfEverySize) {
    const struct {
        ULONG width, height;
        unsigned checksum, aspect, code;
    } cases[] = {
        {640, 480, 0x06, 0x58, 1},   {1280, 720, 0xB3, 0xA8, 4}, {1920, 1080, 0xA7, 0xA8, 16},
        {1920, 1200, 0x07, 0x58, 0}, {720, 480, 0x07, 0x58, 0},  {0, 0, 0x07, 0x58, 0},
        {1280, 1080, 0x07, 0x58, 0},
    };
    for (const auto& one : cases) {
        const std::vector<unsigned> expected{
            0x82, 2, 13, one.checksum, 0x10, one.aspect, 0, one.code, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(bytesOf(INFOFRAME_BuildAvi(one.width, one.height)), expected)
            << one.width << " x " << one.height;
    }
}

TEST(InfoFrames, AudioFrameTellsTwoChannels) {
    EXPECT_EQ(bytesOf(INFOFRAME_BuildAudio()),
              (std::vector<unsigned>{0x84, 1, 10, 0x70, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(InfoFrames, ChecksumMakesAnyRecordSumToZero) {
    for (unsigned seed = 0; seed < 256; seed++) {
        AUDIO_INFOFRAME frame = INFOFRAME_BuildAudio();
        std::memset(frame.Data, static_cast<int>(seed), sizeof(frame.Data));
        INFOFRAME_SetChecksum(&frame);
        const std::vector<unsigned> bytes = bytesOf(frame);
        EXPECT_EQ(std::accumulate(bytes.begin(), bytes.end(), 0u) % 256, 0u);
    }
}

TEST(InfoFrames, ChannelStatusOfRatesAndChannels) {
    const struct {
        ULONG rate, channels;
        std::vector<unsigned> bytes;
    } cases[] = {
        {44100, 2, {0, 0, 2, 0x00, 0xF2}},  {32000, 1, {0, 0, 1, 0x03, 0xC2}},
        {48000, 0, {0, 0, 1, 0x02, 0xD2}},  {88200, 4, {0, 0, 4, 0x08, 0x72}},
        {96000, 5, {0, 0, 4, 0x0A, 0x52}},  {176400, 3, {0, 0, 3, 0x0C, 0x32}},
        {192000, 9, {0, 0, 4, 0x0E, 0x12}}, {768000, 2, {0, 0, 2, 0x09, 0x62}},
        {11025, 2, {0, 0, 2, 0x02, 0xD2}},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(bytesOf(INFOFRAME_BuildChannelStatus(one.channels, INFOFRAME_SamplingCode(one.rate))),
                  one.bytes)
            << one.rate << " Hz, " << one.channels << " channels";
    }
}

} // namespace

// The channel status of audio streams that the driver does not set up itself: it knows one rate, and two
// channels. tests/system/transmitter_test.cpp checks the info frames in the transmitter's registers.
#include "hdmi/infoframes.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

TEST(ChannelStatus, HoldsTheRateAndAtMostFourChannels) {
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
        const AUDIO_CHANNEL_STATUS status =
            INFOFRAME_BuildChannelStatus(one.channels, INFOFRAME_SamplingCode(one.rate));
        const auto* bytes = reinterpret_cast<const unsigned char*>(&status);
        EXPECT_EQ(std::vector<unsigned>(bytes, bytes + sizeof(status)), one.bytes)
            << one.rate << " Hz, " << one.channels << " channels";
    }
}

} // namespace

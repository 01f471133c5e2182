// Which encoder a frame goes to, and in what shape.
#include "tests/pixel/encoders.h"

#include "pixel/compression.h"

#include <gtest/gtest.h>

namespace {

using test::AlignedBuffer;
using test::Bytes;
using test::run;
using test::operator+;

constexpr ULONG kCapacity = 30000;
constexpr ULONG kStagingCapacity = 50000;

class Compression : public testing::Test {
  protected:
    Bytes compress(const Bytes& source, ULONG pixels) {
        const FRAME_SOURCE frame = {source.data(), source.size(), pixels};
        const BYTE_RANGE destination = {destination_.data(), destination_.data() + kCapacity};
        const ULONGLONG length =
            format_.Frame.OutputColorMode == OUTPUT_COLOR_16_BIT
                ? COMPRESSION_CompressFrame16(format_, cpu_, &state_, frame, stagingRange_, destination)
                : COMPRESSION_CompressFrame(format_, cpu_, frame, stagingRange_, destination);
        return destination_.bytes(0, length);
    }

    // The pixels a decoder shows.
    Bytes shown(const Bytes& stream, unsigned unit, size_t pixels) {
        std::string problem;
        Bytes frame = test::expand(stream, unit, pixels, problem);
        EXPECT_EQ(problem, "");
        return frame;
    }

    COMPRESSION_FORMAT format_ = {{4, OUTPUT_COLOR_24_BIT, 0}, 0, FALSE, FALSE};
    CPU_FEATURES cpu_ = {TRUE, FALSE};
    GROUP_ENCODER_STATE state_ = {};
    AlignedBuffer staging_{kStagingCapacity};
    BYTE_RANGE stagingRange_ = {staging_.data(), staging_.data() + kStagingCapacity};
    AlignedBuffer destination_{kCapacity + 16, 0xA5};
};

TEST_F(Compression, FramesAreConvertedBeforeTheirUnitsAreRead) {
    const Bytes bgrx32 = run(5, 0xAA123456, 4) + run(1, 0xBB654321, 4) + run(26, 0xCC80C0E0, 4);
    const Bytes bgr24 = run(5, 0x123456, 3) + run(1, 0x654321, 3) + run(26, 0x80C0E0, 3);
    const Bytes carried24 = run(5, 0x123456, 3) + run(1, 0x644321, 3) + run(26, 0x80C0E0, 3);
    const Bytes rgb8 = run(5, 0x0A, 1) + run(1, 0x50, 1) + run(26, 0xB6, 1);
    const Bytes rgb555 = run(5, 0x08CA, 2) + run(1, 0x3104, 2) + run(26, 0x431C, 2);
    const Bytes quantized = run(5, 0x08CB, 2) + run(1, 0x3105, 2) + run(26, 0x431D, 2);
    for (const int simd : {0, 1, 2}) {
        cpu_.CpuHasSsse3 = simd > 0;
        cpu_.CpuHasSse41 = simd > 1;
        for (const bool exactUnits : {false, true}) {
            format_.ExactUnitsOnly = exactUnits;
            for (const ULONG sourceBytes : {3u, 4u}) {
                format_.Frame.SourceBytesPerPixel = sourceBytes;
                SCOPED_TRACE("SIMD " + std::to_string(simd) + ", exact units " + std::to_string(exactUnits) +
                             ", " + std::to_string(sourceBytes) + " bytes");
                const Bytes& source = sourceBytes == 4 ? bgrx32 : bgr24;
                format_.Frame.OutputColorMode = OUTPUT_COLOR_24_BIT;
                EXPECT_EQ(shown(compress(source, 32), 3, 32), carried24);
                format_.Frame.OutputColorMode = OUTPUT_COLOR_16_BIT;
                EXPECT_EQ(shown(compress(source, 32), 2, 32), simd == 2 ? quantized : rgb555);
                format_.Frame.OutputColorMode = OUTPUT_COLOR_8_BIT;
                const unsigned unit = exactUnits ? 3 : 1;
                EXPECT_EQ(shown(compress(source, 32), unit, 32), exactUnits ? carried24 : rgb8);
            }
        }
    }
}

// Old adapters need at least 1,025 bytes: a short stream is written again with a lead-in, a long one is not.
// 16-bit streams always have it.
TEST_F(Compression, ShortStreamsForOldAdaptersGetALeadIn) {
    Bytes changing;
    for (unsigned pixel = 0; pixel < 2000; pixel++) {
        changing = std::move(changing) + run(1, pixel / 2 * 2 << 8, 4);
    }
    const Bytes flat = run(2000, 0x123456, 4);
    format_.LeadIn = TRUE;
    EXPECT_EQ(compress(flat, 2000).size(), 1032u); // 342 literals, a count and a closing literal
    EXPECT_EQ(shown(compress(flat, 2000), 3, 2000), run(2000, 0x123456, 3));
    EXPECT_EQ(compress(changing, 2000).size(), 6000u);
    format_.Frame.OutputColorMode = OUTPUT_COLOR_16_BIT;
    EXPECT_EQ(compress(flat, 2000).size(), 1032u); // 513 literals, a count, a closing literal and fill
    format_.Frame.OutputColorMode = OUTPUT_COLOR_24_BIT;
    format_.LeadIn = FALSE;
    EXPECT_EQ(compress(flat, 2000).size(), 12u);
}

TEST_F(Compression, FramesThatCannotBeReadOrHeldAreNotSent) {
    const Bytes source = run(32, 0x123456, 4);
    constexpr ULONG most = kCapacity / 3; // of pixels that do not compress
    const Bytes noise = test::noise((size_t{most} + 16) * 4, 9);
    for (const bool exactUnits : {false, true}) {
        format_.ExactUnitsOnly = exactUnits;
        EXPECT_FALSE(compress(source, 32).empty());
        EXPECT_TRUE(compress(source, 33).empty()) << "a pixel beyond the client's buffer";
        EXPECT_TRUE(compress(source, 0).empty());
        EXPECT_EQ(compress(noise, most).size(), kCapacity);
        EXPECT_TRUE(compress(noise, most + 1).empty());
        EXPECT_EQ(destination_.bytes(kCapacity, 16), Bytes(16, 0xA5));
        EXPECT_FALSE(compress(source, 32).empty()) << "the next frame";
    }
    format_.ExactUnitsOnly = FALSE;
    stagingRange_.End = stagingRange_.Start + 95;
    EXPECT_TRUE(compress(source, 32).empty()) << "a staging buffer of one byte too few";
    stagingRange_ = {};
    EXPECT_TRUE(compress(source, 32).empty()) << "no staging buffer";
}

} // namespace

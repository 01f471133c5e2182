// Which encoder a frame goes to, and in what shape.
#include "tests/pixel/encoders.h"

#include "pixel/compression.h"
#include "pixel/transform.h"

#include <gtest/gtest.h>

namespace {

using test::AlignedBuffer;
using test::Bytes;
using test::run;
using test::operator+;

class Compression : public testing::Test {
  protected:
    Compression() {
        context_->Render.CompressionStagingAligned = staging_.data();
        context_->Display.Mode.SourceBytesPerPixel = 4;
        context_->Display.Mode.OutputColorMode = OUTPUT_COLOR_24_BIT;
        context_->Cpu.CpuHasSsse3 = TRUE;
    }

    Bytes compress(const Bytes& source, ULONG pixels) {
        const ULONGLONG length = COMPRESSION_CompressFrame(context_.get(), 0, source.size(), source.data(),
                                                           destination_.data(), pixels);
        return destination_.bytes(0, length);
    }

    // The pixels a decoder shows, or why it shows none.
    Bytes shown(const Bytes& stream, unsigned unit, size_t pixels) {
        std::string problem;
        Bytes frame = test::expand(stream, unit, pixels, problem);
        EXPECT_EQ(problem, "");
        return frame;
    }

    const std::unique_ptr<DEVICE_CONTEXT> context_ = test::makeContext();
    AlignedBuffer staging_{COMPRESSION_STAGING_ALLOCATION};
    AlignedBuffer destination_{RENDER_BUFFER_ALLOCATION};
};

TEST_F(Compression, FourByteFramesAreConvertedBeforeTheirUnitsAreRead) {
    const Bytes source = run(5, 0xAA123456, 4) + run(1, 0xBB654321, 4) + run(26, 0xCC80C0E0, 4);
    for (const bool ssse3 : {false, true}) {
        context_->Cpu.CpuHasSsse3 = ssse3;
        for (const ULONG revision : {0u, 1u, 2u}) {
            context_->Usb.ChipRevision = revision;
            for (const ULONG colorMode : {OUTPUT_COLOR_24_BIT, OUTPUT_COLOR_8_BIT}) {
                SCOPED_TRACE(std::string(ssse3 ? "SSSE3" : "plain") + ", revision " +
                             std::to_string(revision) + ", color mode " + std::to_string(colorMode));
                context_->Display.Mode.OutputColorMode = colorMode;
                const Bytes stream = compress(source, 32);
                // Revision 2 has no one-byte units.
                if (colorMode == OUTPUT_COLOR_8_BIT && revision != 2) {
                    EXPECT_EQ(shown(stream, 1, 32), run(5, 0x0A, 1) + run(1, 0x50, 1) + run(26, 0xB6, 1));
                } else {
                    EXPECT_EQ(shown(stream, 3, 32),
                              run(5, 0x123456, 3) + run(1, 0x644321, 3) + run(26, 0x80C0E0, 3));
                }
            }
        }
    }
}

TEST_F(Compression, ThreeByteFramesAreEncodedAsTheyAre) {
    context_->Display.Mode.SourceBytesPerPixel = 3;
    const Bytes source = run(5, 0x123456, 3) + run(27, 0xFEDCBA, 3);
    for (const ULONG revision : {0u, 2u}) {
        context_->Usb.ChipRevision = revision;
        EXPECT_EQ(shown(compress(source, 32), 3, 32), source);
    }
}

// Old adapters want at least 1,025 bytes: a short stream is written again with a lead-in, a long one is not.
TEST_F(Compression, ShortStreamsForOldAdaptersGetALeadIn) {
    context_->Usb.ChipRevision = 1;
    context_->Pixel.LegacyCompressionFlag = 1;
    const Bytes flat = run(2000, 0x123456, 4);
    const Bytes stream = compress(flat, 2000);
    EXPECT_EQ(stream.size(), 1032u); // 342 literals, a count and a closing literal
    EXPECT_EQ(shown(stream, 3, 2000), run(2000, 0x123456, 3));

    Bytes changing;
    for (unsigned pixel = 0; pixel < 2000; pixel++) {
        changing = std::move(changing) + run(1, pixel / 2 * 2 << 8, 4);
    }
    EXPECT_EQ(compress(changing, 2000).size(), 6000u);
    context_->Pixel.LegacyCompressionFlag = 0;
    EXPECT_EQ(compress(flat, 2000).size(), 12u);
}

TEST_F(Compression, FramesThatCannotBeReadOrHeldAreNotSent) {
    const Bytes source = run(32, 0x123456, 4);
    for (const ULONG revision : {0u, 2u}) {
        context_->Usb.ChipRevision = revision;
        EXPECT_FALSE(compress(source, 32).empty());
        EXPECT_TRUE(compress(source, 33).empty()) << "a pixel beyond the client's buffer";
        EXPECT_TRUE(compress(source, 0).empty());
    }
    context_->Usb.ChipRevision = 0;
    context_->Render.CompressionStagingAligned = nullptr;
    EXPECT_TRUE(compress(source, 32).empty()) << "no staging buffer";

    // The largest frame of noise that fits, and one pixel more.
    context_->Render.CompressionStagingAligned = staging_.data();
    constexpr ULONG most = RENDER_BUFFER_CAPACITY / 3;
    const Bytes noise = test::noise((size_t{most} + 1 + 16) * 4, 9);
    for (const ULONG revision : {0u, 2u}) {
        context_->Usb.ChipRevision = revision;
        std::fill_n(destination_.data() + RENDER_BUFFER_CAPACITY, 16, 0xA5);
        EXPECT_TRUE(compress(noise, most + 1).empty());
        EXPECT_EQ(destination_.bytes(RENDER_BUFFER_CAPACITY, 16), Bytes(16, 0xA5));
        EXPECT_FALSE(compress(source, 32).empty()) << "the next frame";
    }
}

} // namespace

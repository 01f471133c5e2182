// Conversions against the formulas of the formats, computed here once more from the channel values.
#include "tests/pixel/pixel_fixture.h"

#include "pixel/transform.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using test::AlignedBuffer;
using test::Bytes;

enum class Format { kRgb8, kRgb565, kRgb555, kBgr24 };

size_t bytesOf(Format format) {
    return format == Format::kRgb8 ? 1 : format == Format::kBgr24 ? 3 : 2;
}

Bytes convertByFormula(const Bytes& source, size_t sourceBytes, Format format) {
    Bytes output;
    for (size_t at = 0; at + sourceBytes <= source.size(); at += sourceBytes) {
        const unsigned blue = source[at], green = source[at + 1], red = source[at + 2];
        unsigned value = 0;
        switch (format) {
        case Format::kRgb8:
            value = red / 64 * 64 + green / 32 * 8 + blue / 32;
            break;
        case Format::kRgb565:
            value = red / 8 * 2048 + green / 4 * 32 + blue / 8;
            break;
        case Format::kRgb555:
            value = red / 8 * 1024 + green / 8 * 32 + blue / 8;
            break;
        case Format::kBgr24:
            value = blue + green * 256 + red * 65536;
            break;
        }
        for (size_t byte = 0; byte < bytesOf(format); byte++) {
            output.push_back(static_cast<unsigned char>(value >> (8 * byte)));
        }
    }
    return output;
}

// Every value of each channel occurs beside many values of the others.
Bytes mixedPixels(size_t pixels, size_t bytesPerPixel) {
    Bytes source = test::noise(pixels * bytesPerPixel, 7);
    for (size_t pixel = 0; pixel < pixels && pixel < 768; pixel++) {
        source[pixel * bytesPerPixel + pixel / 256] = static_cast<unsigned char>(pixel);
    }
    return source;
}

struct Routine {
    const char* name;
    size_t sourceBytes;
    Format format;
    bool blocks;
    void (*convert)(UCHAR* destination, const UCHAR* source, ULONG pixelCount);
};

const Routine kRoutines[] = {
    {"Bgr24ToRgb565", 3, Format::kRgb565, false,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgr24ToRgb16(d, s, n, 0); }},
    {"Bgr24ToRgb555", 3, Format::kRgb555, false,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgr24ToRgb16(d, s, n, 1); }},
    {"Bgrx32ToRgb565", 4, Format::kRgb565, false,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgrx32ToRgb16(d, s, n, 2); }},
    {"Bgrx32ToRgb555", 4, Format::kRgb555, false,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgrx32ToRgb16(d, s, n, 1); }},
    {"Bgr24ToRgb8", 3, Format::kRgb8, false, PIXEL_Bgr24ToRgb8},
    {"Bgrx32ToRgb8", 4, Format::kRgb8, false, PIXEL_Bgrx32ToRgb8},
    {"Bgrx32ToBgr24", 4, Format::kBgr24, false, PIXEL_Bgrx32ToBgr24},
    {"Bgr24ToRgb8Blocks", 3, Format::kRgb8, true, PIXEL_Bgr24ToRgb8Blocks},
    {"Bgr24ToRgb565Blocks", 3, Format::kRgb565, true,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgr24ToRgb16Blocks(d, s, n, 0); }},
    {"Bgr24ToRgb555Blocks", 3, Format::kRgb555, true,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgr24ToRgb16Blocks(d, s, n, 1); }},
    {"Copy24Blocks", 3, Format::kBgr24, true, PIXEL_Copy24Blocks},
    {"Bgrx32ToRgb8Blocks", 4, Format::kRgb8, true, PIXEL_Bgrx32ToRgb8Blocks},
    {"Bgrx32ToRgb565Blocks", 4, Format::kRgb565, true,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgrx32ToRgb16Blocks(d, s, n, 2); }},
    {"Bgrx32ToRgb555Blocks", 4, Format::kRgb555, true,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgrx32ToRgb16Blocks(d, s, n, 1); }},
    {"Bgrx32ToRgb565Streamed", 4, Format::kRgb565, true,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgrx32ToRgb16Streamed(d, s, n, 0); }},
    {"Bgrx32ToRgb555Streamed", 4, Format::kRgb555, true,
     [](UCHAR* d, const UCHAR* s, ULONG n) { PIXEL_Bgrx32ToRgb16Streamed(d, s, n, 1); }},
    {"Bgrx32ToBgr24Blocks", 4, Format::kBgr24, true, PIXEL_Bgrx32ToBgr24Blocks},
};

// Odd counts too: a block routine completes the last block, a per-pixel routine stops at the last pixel. The
// bytes around the output stay.
TEST(Transform, EveryRoutineFollowsItsFormulaAndExtent) {
    for (const Routine& routine : kRoutines) {
        for (const ULONG count : {0u, 1u, 15u, 16u, 17u, 37u, 48u, 4096u}) {
            SCOPED_TRACE(std::string(routine.name) + ", " + std::to_string(count) + " pixels");
            const size_t touched = routine.blocks ? (count + 15) / 16 * 16 : count;
            const Bytes source = mixedPixels(touched, routine.sourceBytes);
            const Bytes expected = convertByFormula(source, routine.sourceBytes, routine.format);
            AlignedBuffer output(expected.size() + 64, 0xA5);
            routine.convert(output.data() + 32, source.data(), count);
            EXPECT_EQ(output.bytes(32, expected.size()), expected);
            EXPECT_EQ(output.bytes(0, 32), Bytes(32, 0xA5));
            EXPECT_EQ(output.bytes(32 + expected.size(), 32), Bytes(32, 0xA5));
        }
    }
}

TEST(Transform, StatedPixels) {
    const struct {
        UCHAR pixel[4];
        unsigned rgb565, rgb555, rgb8;
    } cases[] = {
        {{0x1C, 0x2E, 0x2B, 0x77}, 0x2963, 0x14A3, 0x08},
        {{0xFF, 0xFF, 0xFF, 0x00}, 0xFFFF, 0x7FFF, 0xFF},
        {{0x00, 0x00, 0x00, 0xFF}, 0x0000, 0x0000, 0x00},
    };
    for (const auto& one : cases) {
        UCHAR out[2];
        PIXEL_Bgrx32ToRgb16(out, one.pixel, 1, 0);
        EXPECT_EQ(out[0] | out[1] << 8u, one.rgb565);
        PIXEL_Bgrx32ToRgb16(out, one.pixel, 1, 1);
        EXPECT_EQ(out[0] | out[1] << 8u, one.rgb555);
        PIXEL_Bgrx32ToRgb8(out, one.pixel, 1);
        EXPECT_EQ(out[0], one.rgb8);
    }
}

// Both processor paths give the same bytes.
TEST(Transform, FrameFormatChoosesTheConversion) {
    const struct {
        ULONG sourceBytes, outputColorMode, rgb555;
        Format format;
    } cases[] = {
        {4, 0, 0, Format::kRgb8},   {4, 1, 0, Format::kRgb565}, {4, 1, 1, Format::kRgb555},
        {4, 1, 2, Format::kRgb565}, {4, 2, 0, Format::kBgr24},  {4, 7, 1, Format::kBgr24},
        {3, 0, 0, Format::kRgb8},   {3, 1, 0, Format::kRgb565}, {3, 1, 1, Format::kRgb555},
        {3, 2, 0, Format::kBgr24},
    };
    for (const bool ssse3 : {false, true}) {
        CPU_FEATURES cpu = {};
        cpu.CpuHasSsse3 = ssse3;
        for (const auto& one : cases) {
            SCOPED_TRACE(std::to_string(one.sourceBytes) + " bytes, output mode " +
                         std::to_string(one.outputColorMode) + (ssse3 ? ", SSSE3" : ", plain"));
            const Bytes source = mixedPixels(1024, one.sourceBytes);
            const Bytes expected = convertByFormula(source, one.sourceBytes, one.format);
            AlignedBuffer output(expected.size(), 0xA5);
            PIXEL_TransformFrame({one.sourceBytes, one.outputColorMode, one.rgb555}, cpu, output.data(),
                                 source.data(), 1024);
            EXPECT_EQ(output.bytes(0, expected.size()), expected);
        }
        for (const ULONG sourceBytes : {0u, 1u, 2u, 5u}) {
            AlignedBuffer output(64, 0xA5);
            PIXEL_TransformFrame({sourceBytes, OUTPUT_COLOR_24_BIT, 0}, cpu, output.data(), Bytes(256).data(),
                                 16);
            EXPECT_EQ(output.bytes(0, 64), Bytes(64, 0xA5)) << "a source of " << sourceBytes << " bytes";
        }
    }
}

} // namespace

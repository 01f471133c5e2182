// What a decoder shows of a frame that went through an encoder, for any frame.
#include "tests/pixel/encoders.h"

#include "pixel/transform.h"
#include "support/png_image.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <bit>

namespace {

using test::Bytes;
using test::Encoder;
using test::kEncoders;

unsigned pixelAt(const Bytes& frame, size_t index, unsigned bytesPerPixel) {
    unsigned value = 0;
    std::memcpy(&value, &frame[index * bytesPerPixel], std::min(bytesPerPixel, 3u));
    return value;
}

// Bits that a literal cannot carry.
constexpr unsigned kLost[] = {0, 0x01, 0x8000, 0x010000};

Bytes encodeAndShow(const Encoder& encoder, unsigned level, const Bytes& source, std::string& problem) {
    const test::Encode form = encoder.vectors != nullptr ? encoder.vectors : encoder.byPixel;
    const Bytes stream = test::encode(encoder, form, {.level = level}, source);
    return test::expand(stream, encoder.unit, source.size() / encoder.sourceBytes, problem);
}

// What an encoder may change in a pixel at a level.
struct Change {
    unsigned kept; // the bits shown as they are
    unsigned set;  // the bits shown as 1
    unsigned open; // the bits shown as either
};

// Quantization is the same for every pixel: black and white tell which bits it keeps and sets.
Change changeOf(const Encoder& encoder, unsigned level) {
    if (encoder.quantizes) {
        std::string problem;
        const Bytes shown = encodeAndShow(encoder, level, test::run(1, 0, encoder.sourceBytes), problem);
        const Bytes white = encodeAndShow(encoder, level, test::run(1, ~0u, encoder.sourceBytes), problem);
        const unsigned set = pixelAt(shown, 0, encoder.unit);
        return {pixelAt(white, 0, encoder.unit) & ~set, set, 0};
    }
    return {~0u, 0, kLost[encoder.unit] | (encoder.tolerant ? COMPRESSION_GetToleranceMask(level) : 0)};
}

// Empty when the decoder shows the expected frame, else the first pixel that differs.
std::string problemOf(const Encoder& encoder, unsigned level, const Bytes& source) {
    const Change change = changeOf(encoder, level);
    std::string problem;
    const Bytes shown = encodeAndShow(encoder, level, source, problem);
    const size_t pixels = source.size() / encoder.sourceBytes;
    for (size_t index = 0; index < pixels && problem.empty(); index++) {
        const unsigned before = test::asUnit(encoder, pixelAt(source, index, encoder.sourceBytes));
        const unsigned expected = (before & change.kept) | change.set;
        if ((expected | change.open) != (pixelAt(shown, index, encoder.unit) | change.open)) {
            problem = "pixel " + std::to_string(index) + " of " + std::to_string(pixels);
        }
    }
    return problem.empty() ? ""
                           : std::string(encoder.name) + ", level " + std::to_string(level) + ": " + problem;
}

constexpr unsigned kLevels = 12; // 0 to 11 exist for every encoder

RC_GTEST_PROP(Encoding, ShowsAnyFrame, ()) {
    const Encoder& encoder = kEncoders[*rc::gen::inRange<size_t>(0, std::size(kEncoders))];
    RC_ASSERT(problemOf(encoder, *rc::gen::inRange(0u, kLevels), *rc::gen::arbitrary<Bytes>()) == "");
}

// Runs of every length, of colors that are near each other or not.
RC_GTEST_PROP(Encoding, ShowsAnyFrameOfRuns, ()) {
    const Encoder& encoder = kEncoders[*rc::gen::inRange<size_t>(0, std::size(kEncoders))];
    const auto lengths = rc::gen::oneOf(rc::gen::inRange(1u, 4u), rc::gen::inRange(1u, 40u),
                                        rc::gen::inRange(100u, 300u), rc::gen::inRange(32700u, 32800u));
    const auto colors = rc::gen::oneOf(rc::gen::element(0u, 0x01010101u, 0x40414243u, 0x7F7F7F7Fu),
                                       rc::gen::arbitrary<unsigned>());
    Bytes source;
    for (const auto& [length, color] :
         *rc::gen::container<std::vector<std::pair<unsigned, unsigned>>>(rc::gen::pair(lengths, colors))) {
        source = test::operator+(std::move(source), test::run(length, color, encoder.sourceBytes));
    }
    RC_ASSERT(problemOf(encoder, *rc::gen::inRange(0u, kLevels), source) == "");
}

TEST(Encoding, EachQuantizationLevelKeepsOneBitLess) {
    unsigned finer = 0x7FFE;
    for (unsigned level = 1; level < kLevels; level++) {
        const unsigned kept = changeOf(test::encoder("groups"), level).kept;
        EXPECT_EQ(std::popcount(kept), 15 - static_cast<int>(level));
        EXPECT_EQ(kept & ~finer, 0u) << "level " << level;
        finer = kept;
    }
}

TEST(Encoding, ShowsDesktopsAndPhotos) {
    for (const char* file :
         {DEMO_DATA "/desktop-office.png", DEMO_DATA "/desktop-sheet.png", TEST_DATA "/photo.png"}) {
        const support::Surface picture = support::readPng(file);
        const ULONG pixels = picture.width * picture.height;
        const auto* bgrx = reinterpret_cast<const UCHAR*>(picture.pixels.data());
        Bytes converted[5] = {
            {}, Bytes(pixels), Bytes(pixels * 2), Bytes(pixels * 3), {bgrx, bgrx + pixels * 4}};
        PIXEL_Bgrx32ToRgb8(converted[1].data(), bgrx, pixels);
        PIXEL_Bgrx32ToRgb16(converted[2].data(), bgrx, pixels, 1);
        PIXEL_Bgrx32ToBgr24(converted[3].data(), bgrx, pixels);
        for (const Encoder& encoder : kEncoders) {
            for (const unsigned level : {0u, 5u, 8u, 11u}) {
                EXPECT_EQ(problemOf(encoder, level, converted[encoder.sourceBytes]), "") << file;
            }
        }
    }
}

} // namespace

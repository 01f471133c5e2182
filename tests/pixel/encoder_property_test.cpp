// What a decoder shows of a frame that went through an encoder, for any frame.
#include "tests/pixel/encoders.h"

#include "pixel/transform.h"
#include "support/png_image.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace {

using test::Bytes;
using test::Encoder;
using test::kEncoders;

unsigned pixelAt(const Bytes& frame, size_t index, unsigned bytesPerPixel) {
    unsigned value = 0;
    std::memcpy(&value, &frame[index * bytesPerPixel], std::min(bytesPerPixel, 3u));
    return value;
}

// Bits that a literal cannot carry, and those in which the compression level lets a pixel differ from its
// literal.
constexpr unsigned kLost[] = {0, 0x01, 0x8000, 0x010000};
constexpr unsigned kTolerated[] = {0, 0x010101, 0x030303, 0x070707, 0,        0,       0x0F0F0F,
                                   0, 0x1F1F1F, 0x1F3F1F, 0x3F3F3F, 0x7F3F7F, 0x7F7F7F};

// Bits per level that quantisation clears, and those it sets then.
constexpr unsigned kKept[] = {0x7FFF, 0x7FFE, 0x7BFE, 0x7BDE, 0x7BDC, 0x73DC,
                              0x739C, 0x7398, 0x6398, 0x6318, 0x6310, 0x4310};
constexpr unsigned kSet[] = {1, 1, 1, 1, 0x21, 0x21, 0x21, 0x21, 0x421, 0x421, 0x421, 0x421};

// Empty when the decoder shows what it must, else where it does not.
std::string problemOf(const Encoder& encoder, unsigned level, const Bytes& source) {
    const auto context = test::makeContext();
    COMPRESSION_BuildGroupTables(context.get());
    context->Display.Mode.CompressionLevel = level;
    context->Pixel.QuantLevel = static_cast<USHORT>(level);
    const size_t pixels = source.size() / encoder.sourceBytes;
    const test::Encode form = encoder.vectors != nullptr ? encoder.vectors : encoder.byPixel;
    const Bytes stream = test::encode(encoder, form, context.get(), source);
    std::string problem;
    const Bytes shown = test::expand(stream, encoder.unit, pixels, problem);
    for (size_t index = 0; index < pixels && problem.empty(); index++) {
        const unsigned before = test::asUnit(encoder, pixelAt(source, index, encoder.sourceBytes));
        const unsigned after = pixelAt(shown, index, encoder.unit);
        const unsigned open = kLost[encoder.unit] | (encoder.tolerant ? kTolerated[level] : 0);
        const bool right = encoder.quantises ? after == ((before & kKept[level]) | kSet[level])
                                             : (before | open) == (after | open);
        if (!right) {
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

// Runs of every length, of colours that are near each other or not.
RC_GTEST_PROP(Encoding, ShowsAnyFrameOfRuns, ()) {
    const Encoder& encoder = kEncoders[*rc::gen::inRange<size_t>(0, std::size(kEncoders))];
    const auto lengths = rc::gen::oneOf(rc::gen::inRange(1u, 4u), rc::gen::inRange(1u, 40u),
                                        rc::gen::inRange(100u, 300u), rc::gen::inRange(32700u, 32800u));
    const auto colours = rc::gen::oneOf(rc::gen::element(0u, 0x01010101u, 0x40414243u, 0x7F7F7F7Fu),
                                        rc::gen::arbitrary<unsigned>());
    Bytes source;
    for (const auto& [length, colour] :
         *rc::gen::container<std::vector<std::pair<unsigned, unsigned>>>(rc::gen::pair(lengths, colours))) {
        source = test::operator+(std::move(source), test::run(length, colour, encoder.sourceBytes));
    }
    RC_ASSERT(problemOf(encoder, *rc::gen::inRange(0u, kLevels), source) == "");
}

TEST(Encoding, ShowsDesktopsAndPhotos) {
    for (const char* file :
         {DEMO_DATA "/desktop-office.png", DEMO_DATA "/desktop-sheet.png", TEST_DATA "/photo.png"}) {
        const desktop::Surface picture = desktop::readPng(file);
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

// Streams byte by byte, vector forms against their references, and the end of the destination.
#include "tests/pixel/encoders.h"

#include <gtest/gtest.h>

namespace {

using test::AlignedBuffer;
using test::Bytes;
using test::Encoder;
using test::kEncoders;
using test::run;
using test::words;
using test::operator+;

TEST(Encoder, StatedStreams) {
    const Bytes fill2{0x80, 0x80}, fill3{0x80, 0x80, 0x80};
    const struct {
        const char* encoder;
        unsigned level;
        bool leadIn;
        Bytes source, stream;
    } cases[] = {
        {"tolerant 16-bit", 0, false, run(3, 0x1234, 2), words({0x9234, 1, 0x9234}) + fill2},
        {"tolerant 16-bit", 0, false, run(2, 0x1234, 2), words({0x9234, 0x9234})},
        {"tolerant 24-bit", 0, false, run(5, 0x123456, 3) + run(1, 0x654321, 3),
         Bytes{0x56, 0x34, 0x89, 4, 0, 0, 0x21, 0x43, 0xB2} + fill3},
        {"tolerant 8-bit", 0, false, run(131, 0x40, 1) + run(1, 0x22, 1),
         Bytes{0xA0, 0x7F, 0xA0, 0x02, 0x91} + fill3},
        {"tolerant 8-bit", 0, false, run(130, 0x40, 1) + run(1, 0x22, 1),
         Bytes{0xA0, 0x7F, 0xA0, 0x01, 0x91} + fill3},
        {"tolerant 16-bit", 1, false, words({0x1234, 0x1235, 0x1235, 0x1234, 0x1236}),
         words({0x9234, 1, 0x9235, 1, 0x9236}) + fill2},
        {"tolerant 24-bit", 9, false, run(1, 0x123456, 3) + run(1, 0x0D0B49, 3) + run(1, 0x12B456, 3),
         Bytes{0x56, 0x34, 0x89, 1, 0, 0, 0x56, 0xB4, 0x89} + fill3},
        {"tolerant 16-bit", 0, true, run(700, 0x1234, 2), run(513, 0x9234, 2) + words({186, 0x9234}) + fill2},
        {"exact BGR24", 0, false,
         run(3, 0x123456, 3) + run(1, 0x123457, 3) + run(5, 0xABCDEF, 3) + run(1, 0xFEDCBA, 3),
         Bytes{0x56, 0x34, 0x89, 2, 0, 0,    0x57, 0x34, 0x89, 0xEF,
               0xCD, 0xD5, 4,    0, 0, 0xBA, 0xDC, 0xFF, 0xCC, 0xCC}},
        {"exact BGRX32", 0, false, run(2, 0xAA123456, 4) + run(7, 0x55133456, 4),
         Bytes{0x56, 0x34, 0x89, 8, 0, 0, 0xCC, 0xCC}},
        {"groups", 0, false, run(40000, 0x1234, 2), words({0x9235, 0x7FFB, 0x9235, 0x1C42, 0x9235})},
        {"groups", 8, false, words({0, 0x7FFF}), words({0x8421, 0xE7B9})},
        {"groups", 11, false, words({0, 0x7FFF}), words({0x8421, 0xC731})},
        {"groups", 0, false, words({0x100, 0x200, 0x300, 0x400, 0x500, 0x600, 0x700, 0x800}),
         words({0x8101, 0x8201, 0x8301, 0x8401, 0x8501, 0x8601, 0x8701, 0x8801})},
        {"groups", 0, false,
         run(3, 0, 2) + words({0x1234, 0x4321, 0x4321}) + run(9, 0x7C00, 2) + words({0x1F}),
         words({0x8001, 2, 0x9235, 0xC321, 0xC321, 0xFC01, 8, 0x801F})},
        {"groups", 0, false, run(3, 0, 2) + words({0x1234, 0x4321, 0x4321}) + run(10, 0x7C00, 2),
         words({0x8001, 2, 0x9235, 0xC321, 0xC321, 0xFC01, 8, 0xFC01})},
    };
    for (const auto& one : cases) {
        const Encoder& tested = test::encoder(one.encoder);
        const test::Settings settings{one.level, one.leadIn};
        EXPECT_EQ(test::encode(tested, tested.byPixel, settings, one.source), one.stream) << one.encoder;
        if (tested.vectors != nullptr) {
            EXPECT_EQ(test::encode(tested, tested.vectors, settings, one.source), one.stream)
                << one.encoder << ", vectors";
        }
    }
}

// Runs of random length over a small set of colors; `longest` bounds the runs.
Bytes runs(size_t pixels, unsigned bytesPerPixel, unsigned longest, unsigned colors, std::mt19937& random) {
    std::vector<unsigned> palette(colors);
    for (unsigned& color : palette) {
        color = random();
    }
    Bytes source;
    while (source.size() < pixels * bytesPerPixel) {
        const size_t left = pixels - source.size() / bytesPerPixel;
        source = std::move(source) + run(std::min<size_t>(1 + random() % longest, left),
                                         palette[random() % colors] ^ (random() % 4), bytesPerPixel);
    }
    return source;
}

class VectorForm : public testing::TestWithParam<Encoder> {
  protected:
    void expectSameStream(std::span<const UCHAR> source) {
        const Encoder& tested = GetParam();
        ASSERT_EQ(test::encode(tested, tested.vectors, {level_}, source),
                  test::encode(tested, tested.byPixel, {level_}, source))
            << source.size() / tested.sourceBytes << " pixels, level " << level_;
    }

    unsigned level_ = 0;
};

// The lengths: every one around the first words of 64 pixels, then those around words and strips of 1,024.
// Levels 12 to 15 exist, though the level control does not use them.
TEST_P(VectorForm, WritesTheReferenceStreamAtEveryLengthAndLevel) {
    std::mt19937 random(1);
    for (size_t pixels = 0; pixels < 2200; pixels++) {
        if (pixels < 150 || (pixels % 64 < 12 && pixels % 3 == 0)) {
            for (const unsigned longest : {1u, 3u, 12u, 40u, 200u}) {
                level_ = random() % 16;
                expectSameStream(runs(pixels, GetParam().sourceBytes, longest, 1 + pixels % 5, random));
            }
        }
    }
    for (level_ = 0; level_ < 16; level_++) {
        for (const unsigned longest : {1u, 3u, 12u, 40u, 200u}) {
            expectSameStream(runs(2100, GetParam().sourceBytes, longest, 5, random));
        }
    }
}

// Pixels that a quantization may or may not merge: each differs from the one before in few bits.
TEST_P(VectorForm, WritesTheReferenceStreamForNearColors) {
    std::mt19937 random(2);
    const unsigned bytesPerPixel = GetParam().sourceBytes;
    for (level_ = 0; level_ < 13; level_++) {
        for (int round = 0; round < 15; round++) {
            Bytes source;
            unsigned color = random();
            for (int pixel = 0; pixel < 700; pixel++) {
                source = std::move(source) + run(1, color, bytesPerPixel);
                if (random() % 3 == 0) {
                    color ^= 1u << random() % 32;
                } else if (random() % 3 == 0 && pixel > 4) {
                    std::memcpy(&color, &source[source.size() - 3 * bytesPerPixel], bytesPerPixel);
                }
            }
            expectSameStream(source);
        }
    }
}

// One run that begins at every lane and ends around what a count or an open run can hold, and around their
// doubles, between pixels of another color.
TEST_P(VectorForm, WritesTheReferenceStreamAroundCountLimits) {
    const unsigned bytesPerPixel = GetParam().sourceBytes;
    for (const unsigned limit : {8u, 16u, 32u, 127u, 32752u, 32768u, 65504u, 65536u}) {
        for (const unsigned before : {0u, 1u, 7u, 8u, 15u, 16u}) {
            for (unsigned length = limit - 3;
                 length<limit + 40; length += limit> 1000 && before > 0 ? 5 : 1) {
                expectSameStream(run(before, 0x11111111, bytesPerPixel) +
                                 run(length, 0x22222222, bytesPerPixel) +
                                 run(before % 3, 0x33333333, bytesPerPixel));
            }
        }
    }
}

TEST_P(VectorForm, WritesTheReferenceStreamForUnalignedSources) {
    std::mt19937 random(3);
    const Bytes source = runs(3000, GetParam().sourceBytes, 30, 7, random);
    for (unsigned offset = 0; offset < 40; offset++) {
        expectSameStream(std::span(source).subspan(offset));
    }
}

std::vector<Encoder> encodersWithVectors() {
    std::vector<Encoder> found;
    for (const Encoder& one : kEncoders) {
        if (one.vectors != nullptr) {
            found.push_back(one);
        }
    }
    return found;
}

std::string testName(const testing::TestParamInfo<Encoder>& info) {
    std::string name;
    for (const char* at = info.param.name; *at != 0; at++) {
        name += std::isalnum(static_cast<unsigned char>(*at)) ? *at : '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(All, VectorForm, testing::ValuesIn(encodersWithVectors()), testName);

// The destination ends at every byte around the stream's end, at the start and inside a run: a stream that
// fits is written, one that does not gives 0, and nothing beyond the end is touched.
TEST(Encoder, StaysInsideItsDestination) {
    std::mt19937 random(4);
    for (const Encoder& tested : kEncoders) {
        for (const unsigned longest : {1u, 20u, 300u}) {
            const Bytes source = runs(400, tested.sourceBytes, longest, 6, random);
            const Bytes stream = test::encode(tested, tested.byPixel, {}, source);
            ASSERT_FALSE(stream.empty());
            for (size_t room = 0; room < stream.size() + 40; room++) {
                for (const test::Encode encode : {tested.byPixel, tested.vectors}) {
                    if (encode == nullptr) {
                        continue;
                    }
                    SCOPED_TRACE(std::string(tested.name) + ", room for " + std::to_string(room) + " of " +
                                 std::to_string(stream.size()));
                    AlignedBuffer destination(room + 64, 0xCC);
                    const ULONGLONG length =
                        encode({}, source, 400, destination.data(), destination.data() + room);
                    const Bytes written = destination.bytes(0, length);
                    const size_t used = std::min(written.size(), test::usedBytes(stream, tested.unit, 400));
                    ASSERT_EQ(length, room < stream.size() ? 0 : stream.size());
                    ASSERT_TRUE(std::equal(written.begin(), written.begin() + static_cast<ptrdiff_t>(used),
                                           stream.begin()));
                    ASSERT_EQ(destination.bytes(room, 64), Bytes(64, 0xCC));
                }
            }
        }
    }
}

// A client's buffer that ends before the frame does: pixels from there on are shown as they are, unmerged.
TEST(Encoder, TolerantEncoderMergesNothingBeyondTheSource) {
    const Bytes source = run(140, 0x1234, 2);
    AlignedBuffer destination(400);
    const ULONGLONG length = COMPRESSION_EncodeRuns(source.data(), 200, 140, 2, destination.data(),
                                                    destination.data() + 400, 0, FALSE);
    // A literal, 99 repeats, and forty more literals.
    EXPECT_EQ(destination.bytes(0, length), words({0x9234, 99}) + run(40, 0x9234, 2));
}

} // namespace

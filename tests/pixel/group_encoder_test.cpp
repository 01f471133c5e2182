// The quantizing encoder: its stream against a group-by-group model, and its level control.
#include "tests/pixel/encoders.h"

#include "pixel/group_level.h"

#include <gtest/gtest.h>

namespace {

using test::Bytes;
using test::run;
using test::operator+;

// The stream built eight pixels at a time, with the run before them. The caller's pixels are quantized
// already.
std::vector<unsigned> encodeGroupByGroup(const std::vector<unsigned>& pixels) {
    std::vector<unsigned> out;
    unsigned previous = ~pixels[0] & 0xFFFF;
    unsigned pending = 0;
    const auto put = [&](unsigned count, unsigned word) {
        if (count > 0) {
            out.push_back(count == 1 ? word : count);
        }
    };
    for (size_t group = 0; group < pixels.size(); group += 8) {
        bool repeat[8];
        for (size_t lane = 0; lane < 8; lane++) {
            repeat[lane] = pixels[group + lane] == (lane > 0 ? pixels[group + lane - 1] : previous);
        }
        const bool flat = std::all_of(repeat, repeat + 8, [](bool is) { return is; });
        if (flat && pending <= 32752) {
            pending += 8;
            continue;
        }
        if (flat) {
            repeat[4] = false;
        }
        size_t lane = 0;
        while (repeat[lane]) {
            lane++;
        }
        put(pending + static_cast<unsigned>(lane), previous);
        pending = 0;
        for (; lane < 8; lane++) {
            if (repeat[lane]) {
                pending++;
                continue;
            }
            put(pending, lane > 0 ? pixels[group + lane - 1] : 0);
            pending = 0;
            out.push_back(pixels[group + lane]);
        }
        previous = pixels[group + 7];
    }
    if (pending >= 3) {
        out.push_back(pending - 1);
        out.push_back(previous);
    } else {
        out.insert(out.end(), pending, previous);
    }
    return out;
}

TEST(GroupEncoder, FollowsTheGroupRule) {
    std::mt19937 random(5);
    for (int round = 0; round < 400; round++) {
        // Short runs, and sometimes one longer than any count.
        std::vector<unsigned> pixels;
        while (pixels.size() < 200) {
            const unsigned length = random() % 50 == 0 ? 32740 + random() % 70000 : 1 + random() % 12;
            pixels.insert(pixels.end(), length, 0x8001 | random() % 3 << 5);
        }
        pixels.resize(pixels.size() / 8 * 8);
        Bytes source;
        for (const unsigned pixel : pixels) {
            source.push_back(static_cast<unsigned char>(pixel));
            source.push_back(static_cast<unsigned char>(pixel >> 8));
        }
        const std::vector<unsigned> expected = encodeGroupByGroup(pixels);
        const test::Encoder& groups = test::encoder("groups");
        for (const test::Encode form : {groups.byPixel, groups.vectors}) {
            const Bytes stream = test::encode(groups, form, {}, source);
            std::vector<unsigned> units;
            for (size_t at = 0; at < stream.size(); at += 2) {
                units.push_back(stream[at] | stream[at + 1] << 8);
            }
            ASSERT_EQ(units, expected) << "round " << round;
        }
    }
}

struct Control {
    GROUP_ENCODER_STATE state = {};
    test::AlignedBuffer destination{100000};

    ULONGLONG encode(const Bytes& source, ULONG target, size_t room = 100000) {
        return COMPRESSION_EncodeRgb555Groups(&state, source.data(), destination.data(),
                                              destination.data() + room,
                                              static_cast<ULONG>(source.size() / 2), target);
    }
};

TEST(GroupEncoder, GoesThroughTheLevelsUntilAFrameFits) {
    // Noise in the bits that level 6 clears, in those that level 9 clears further, and so on, and in bits
    // that stay.
    std::mt19937 random(6);
    Bytes source;
    for (const unsigned bits : {0x0C63u, 0x1084u, 0x0008u, 0x2000u, 0x4310u}) {
        for (int pixel = 0; pixel < 2000; pixel++) {
            source = std::move(source) + run(1, random() & bits, 2);
        }
    }
    std::vector<ULONGLONG> lengths;
    for (USHORT level = 0; level < 12; level++) {
        Control control;
        control.state.QuantLevel = level;
        lengths.push_back(control.encode(source, 100000));
    }
    // Every step from level 0 is taken when the one before it does not fit.
    for (const auto& [target, level] : {std::pair{lengths[0], 0},
                                        {lengths[0] - 1, 6},
                                        {lengths[6] - 1, 9},
                                        {lengths[9] - 1, 10},
                                        {lengths[10] - 1, 11},
                                        {lengths[11] - 1, 11}}) {
        Control control;
        EXPECT_EQ(control.encode(source, static_cast<ULONG>(target)), lengths[static_cast<size_t>(level)]);
        EXPECT_EQ(control.state.QuantLevel, level) << "target " << target;
    }
}

TEST(GroupEncoder, BecomesFinerAfterALongSeriesOfSmallFrames) {
    const Bytes small = run(8, 0x1234, 2);        // six bytes
    const Bytes medium = test::noise(2 * 424, 7); // between 80 % and all of a target of 1,000
    const struct {
        const char* what;
        USHORT level;
        ULONG count;
        Bytes frame;
        int levelAfter;
        ULONG countAfter;
    } cases[] = {
        {"the last small frame of the series", 3, 120, small, 2, 0},
        {"one before it", 3, 119, small, 3, 120},
        {"a frame near the target", 3, 119, medium, 3, 0},
        {"the finest level does not count", 0, 17, small, 0, 17},
    };
    for (const auto& one : cases) {
        Control control;
        control.state.QuantLevel = one.level;
        control.state.QuantSmallFrameCount = one.count;
        const ULONGLONG length = control.encode(one.frame, 1000);
        EXPECT_LE(length, 1000u) << one.what;
        EXPECT_EQ(control.state.QuantLevel, one.levelAfter) << one.what;
        EXPECT_EQ(control.state.QuantSmallFrameCount, one.countAfter) << one.what;
    }
}

// A stream longer than its buffer counts as too long for any target; one that fits at a coarser level is
// sent.
TEST(GroupEncoder, FallsBackToACoarserLevelWhenTheBufferEnds) {
    Bytes source;
    for (int pixel = 0; pixel < 4000; pixel++) {
        source = std::move(source) + run(1, pixel % 2 == 0 ? 0x4210 : 0x4211 + 2, 2);
    }
    Control control;
    const ULONGLONG length = control.encode(source, 100000, 4000);
    EXPECT_GT(length, 0u);
    EXPECT_LE(length, 4000u);
    EXPECT_GT(control.state.QuantLevel, 0);

    Control full;
    EXPECT_EQ(full.encode(test::noise(8000, 8), 100000, 4000), 0u);
    EXPECT_EQ(full.encode(run(800, 0x1234, 2), 100000, 4000), 6u) << "the frame after one that did not fit";
    EXPECT_EQ(full.encode(Bytes(), 100000), 0u);
}

} // namespace

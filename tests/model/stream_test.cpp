// Frames on the wire: run streams, delimiting, pace.
#include <gtest/gtest.h>

#include <rapidcheck/gtest.h>

#include "model/run_stream.h"
#include "model/stream_pace.h"
#include "tests/model/host.h"

namespace model::test {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Kinds = std::vector<ViolationKind>;

TEST(RunStream, ExpandsToTheGivenPixels) {
    struct Case {
        unsigned unit;
        Bytes stream;
        Bytes pixels;
    };
    const Case cases[] = {
        {2, {0x34, 0x92, 0x01, 0x00, 0x34, 0x92, 0x80, 0x80}, {0x34, 0x12, 0x34, 0x12, 0x34, 0x12}},
        {2, {0x34, 0x92, 0x34, 0x92}, {0x34, 0x12, 0x34, 0x12}},
        {2, {0x01, 0x80, 0x02, 0x00, 0xFF, 0xFF}, {1, 0, 1, 0, 1, 0, 0xFF, 0x7F}}, // no fill at all
        {3,
         {0x56, 0x34, 0x89, 0x01, 0x00, 0x00, 0x21, 0x43, 0xB2, 0, 0, 0},
         {0x56, 0x34, 0x12, 0x56, 0x34, 0x12, 0x21, 0x43, 0x64}},
        {3, {0x56, 0x34, 0x89, 0x01, 0x00, 0x00, 0xEE, 0xEE}, {0x56, 0x34, 0x12, 0x56, 0x34, 0x12}},
        {1, {0xA0, 0x02, 0x01, 0x91}, {0x40, 0x40, 0x40, 0x40, 0x22}}, // a count may follow a count
    };
    for (const Case& test : cases) {
        Bytes pixels(test.pixels.size());
        EXPECT_EQ(expandRuns(test.stream, test.unit, pixels), "");
        EXPECT_EQ(pixels, test.pixels);
    }
}

TEST(RunStream, NamesWhatNoDecoderCouldFollow) {
    struct Case {
        unsigned unit;
        Bytes stream;
        std::size_t pixels;
        const char* cause;
    };
    const Case cases[] = {
        {2, {}, 1, "ends after 0 of 1"},
        {2, {0x34}, 1, "ends after 0 of 1"},
        {2, {0x01, 0x00, 0x34, 0x92}, 2, "before any literal"},
        {2, {0x34, 0x92, 0x00, 0x00}, 2, "count of 0"},
        {2, {0x34, 0x92, 0x02, 0x00}, 2, "runs past the frame"},
        {2, {0x34, 0x92, 0x01, 0x00}, 3, "ends after 2 of 3"},
        {3, {0x56, 0x34, 0x89, 0x01, 0x00}, 2, "ends after 1 of 2"},
        {3, {0x56, 0x34, 0x89, 0xFF, 0xFF, 0x7F}, 2, "runs past the frame"},
        {2, {0x34, 0x92, 0x80}, 1, "1 bytes follow the last pixel"}, // not a multiple of four
        {2, {0x34, 0x92, 0x80, 0x80, 0x80, 0x80}, 1, "4 bytes follow"},
        {1, {0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80}, 2, "6 bytes follow"},
        {4, {0, 0, 0, 0x80}, 1, "no units of 4"},
    };
    for (const Case& test : cases) {
        Bytes pixels(test.pixels * test.unit);
        EXPECT_NE(expandRuns(test.stream, test.unit, pixels).find(test.cause), std::string::npos)
            << test.cause << ", got: " << expandRuns(test.stream, test.unit, pixels);
    }
}

// A plain reading of the rules, unit by unit, beside the fast one. Stops at `most` pixels or the first fault.
struct Plain {
    Bytes pixels;
    std::size_t taken = 0; // bytes of the stream
};

Plain readPlainly(const Bytes& stream, unsigned unit, std::size_t most) {
    Plain plain;
    while (plain.pixels.size() < most * unit && plain.taken + unit <= stream.size()) {
        std::uint32_t value = 0;
        for (unsigned i = 0; i < unit; i++) {
            value |= static_cast<std::uint32_t>(stream[plain.taken + i]) << 8 * i;
        }
        const std::uint32_t flag = 1u << (8 * unit - 1);
        if ((value & flag) != 0) {
            value &= ~flag;
            if (unit == 1) {
                value <<= 1;
            }
            if (unit == 3) {
                value = (value & 0xFFFF) | value >> 16 << 17;
            }
            for (unsigned i = 0; i < unit; i++) {
                plain.pixels.push_back(static_cast<std::uint8_t>(value >> 8 * i));
            }
        } else {
            if (value == 0 || plain.pixels.empty() || plain.pixels.size() / unit + value > most) {
                break;
            }
            for (std::uint32_t i = 0; i < value * unit; i++) {
                plain.pixels.push_back(plain.pixels[plain.pixels.size() - unit]);
            }
        }
        plain.taken += unit;
    }
    return plain;
}

RC_GTEST_PROP(RunStream, AgreesWithAPlainReadingOnAnyBytes, ()) {
    const auto unit = *rc::gen::inRange(1u, 4u);
    // Literals and small counts in every order, and now and then a zero count or half a unit.
    Bytes stream;
    for (const auto choice : *rc::gen::container<Bytes>(rc::gen::arbitrary<std::uint8_t>())) {
        Bytes bytes(unit, 0);
        bytes[0] = choice % 2 == 0 ? choice & 0x7F : choice == 0xFF ? 0 : 1 + choice % 9;
        if (choice % 2 == 0 || stream.empty()) {
            bytes[unit - 1] |= 0x80;
        }
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    }
    if (*rc::gen::inRange(0, 4) == 0 && !stream.empty()) {
        stream.pop_back();
    }
    const std::size_t reached = readPlainly(stream, unit, 1000).pixels.size() / unit;
    const std::size_t count = *rc::gen::oneOf(rc::gen::just(reached), rc::gen::inRange<std::size_t>(0, 300));

    const Plain plain = readPlainly(stream, unit, count);
    const std::size_t rest = stream.size() - plain.taken;
    const bool good =
        plain.pixels.size() == count * unit && rest < 4 && (rest == 0 || stream.size() % 4 == 0);
    RC_CLASSIFY(good, "a whole frame");
    Bytes pixels(count * unit);
    RC_ASSERT(expandRuns(stream, unit, pixels).empty() == good);
    if (good) {
        RC_ASSERT(pixels == plain.pixels);
    }
}

TEST(Picture, WidensEveryFormatSoThatBlackAndWhiteStay) {
    struct Case {
        PixelFormat format;
        std::uint32_t pixel;
        std::uint32_t shown;
    };
    const Case cases[] = {
        {PixelFormat::Bgr24, 0x123456, 0xFF123456},     {PixelFormat::Bgr24Red7, 0xFE0000, 0xFFFF0000},
        {PixelFormat::Bgr24Red7, 0x120000, 0xFF120000}, {PixelFormat::Rgb565, 0xFFFF, 0xFFFFFFFF},
        {PixelFormat::Rgb565, 0x8410, 0xFF848284},      {PixelFormat::Rgb555, 0x7FFF, 0xFFFFFFFF},
        {PixelFormat::Rgb555, 0x4210, 0xFF848484},      {PixelFormat::Rgb8, 0xFF, 0xFFFFFFFF},
        {PixelFormat::Rgb8, 0x80, 0xFFAA0000},          {PixelFormat::Rgb565, 0, 0xFF000000},
    };
    for (const Case& test : cases) {
        const std::uint8_t bytes[] = {static_cast<std::uint8_t>(test.pixel),
                                      static_cast<std::uint8_t>(test.pixel >> 8),
                                      static_cast<std::uint8_t>(test.pixel >> 16)};
        EXPECT_EQ(toBgrx32(test.format, bytes), test.shown) << name(test.format) << " " << test.pixel;
    }
}

TEST(Picture, ChecksumSeesEveryByteAndItsPlace) {
    for (const std::size_t size : {1u, 7u, 8u, 31u, 32u, 33u, 100u}) {
        const Bytes bytes = noise(size, 5);
        for (std::size_t i = 0; i < size; i++) {
            Bytes other = bytes;
            other[i] ^= 0x10;
            EXPECT_NE(checksum(other), checksum(bytes));
        }
        Bytes longer = bytes;
        longer.push_back(0);
        EXPECT_NE(checksum(longer), checksum(bytes));
    }
}

// Frames.

class Stream : public testing::Test {
  protected:
    void start(std::uint32_t format = kBgr24, bool zeroLength = true, bool bandwidth = false) {
        host.switchOn();
        host.setMode(mode, format, zeroLength, bandwidth);
        host.takeViolations();
    }
    Bytes frame(std::uint32_t seed = 1) const { return noise(pixels(mode) * 3, seed); }

    Host host;
    const Mode& mode = modeOf(640, 480);
};

TEST_F(Stream, DelimitsFramesByZeroLengthTransfers) {
    start();
    host.send(frame());
    host.send(frame());
    EXPECT_EQ(host.takeViolationKinds(), Kinds{ViolationKind::MissingZeroLength});
    host.send({});
    host.send({});
    EXPECT_EQ(host.takeViolationKinds(), Kinds{ViolationKind::ExtraZeroLength});
    // A mode set begins a new stream, whatever the old one left open.
    host.send(frame());
    host.displayOff();
    host.setMode(mode, kBgr24, false);
    host.send(frame());
    host.send(frame());
    EXPECT_EQ(host.takeViolationKinds(), Kinds{});
    host.send({});
    EXPECT_EQ(host.takeViolationKinds(), Kinds{ViolationKind::ExtraZeroLength});
    EXPECT_EQ(host.adapter.statistics().framesReceived, 5u);
}

TEST_F(Stream, RefusesBrokenFramesAndKeepsTheLastGoodOne) {
    start();
    const Bytes good = frame();
    host.sendFrame(good);
    Bytes bad = good;
    bad.pop_back();
    host.sendFrame(bad);
    bad.resize(good.size() + 4);
    host.sendFrame(bad);
    host.sendFrame({0});
    EXPECT_EQ(host.takeViolationKinds(), Kinds(3, ViolationKind::BadFrameLength));
    EXPECT_TRUE(host.adapter.rawFrame()->pixels == good);

    host.displayOff();
    host.setMode(mode, kCompressed | kRgb555);
    Bytes red; // 0x7C00 in runs of 32,768, and a last one that fills the frame
    for (std::size_t left = pixels(mode); left > 0;) {
        const std::size_t run = std::min<std::size_t>(left, 32768);
        red.insert(red.end(), {0x00, 0xFC, static_cast<std::uint8_t>(run - 1),
                               static_cast<std::uint8_t>((run - 1) >> 8)});
        left -= run;
    }
    Bytes cut(red.begin(), red.end() - 4);
    host.sendFrame(cut);
    EXPECT_EQ(host.takeViolationKinds(), Kinds{ViolationKind::BadStream});
    EXPECT_FALSE(host.adapter.picture()) << "the old frame has another format";
    host.sendFrame(red);
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
    ASSERT_TRUE(host.adapter.picture());
    EXPECT_EQ(host.adapter.picture()->pixels[2], 0xFF);
}

TEST_F(Stream, DecodesEveryLayoutOfTheFormatRegister) {
    struct Case {
        std::uint32_t format;
        unsigned revision;
        PixelFormat expected;
    };
    const Case cases[] = {
        {kBgr24, 2, PixelFormat::Bgr24},
        {kRgb565, 2, PixelFormat::Rgb565},
        {kRgb555, 2, PixelFormat::Rgb555},
        {kRgb8, 2, PixelFormat::Rgb8},
        {kCompressed, 2, PixelFormat::Bgr24Red7},
        {kCompressed | kRgb555, 2, PixelFormat::Rgb555},
        {kCompressed | kRgb565, 2, PixelFormat::Rgb555}, // a literal has 15 bits of color only
        {kCompressed | kRgb8, 0, PixelFormat::Rgb8},
        {kCompressed | kRgb8, 2, PixelFormat::Bgr24Red7}, // revision 2 has no 1-byte units
    };
    for (const Case& test : cases) {
        AdapterOptions options;
        options.revision = test.revision;
        Host other(options);
        other.switchOn();
        other.setMode(mode, test.format);
        Bytes bytes(pixels(mode) * bytesPerPixel(test.expected), 0xA5); // literals, when taken as a stream
        other.sendFrame(bytes);
        EXPECT_EQ(other.takeViolations(), std::vector<std::string>{});
        ASSERT_TRUE(other.adapter.rawFrame());
        EXPECT_EQ(other.adapter.rawFrame()->format, test.expected);
        EXPECT_EQ(other.adapter.picture()->pixels.size(), pixels(mode) * 4);
    }
}

TEST_F(Stream, EqualBytesOfAnotherLayoutAreAnotherPicture) {
    start(kRgb565);
    const Bytes bytes = noise(pixels(mode) * 2, 1);
    host.sendFrame(bytes);
    const Bytes before = host.adapter.picture()->pixels;
    host.displayOff();
    host.setMode(mode, kRgb555);
    host.sendFrame(bytes);
    EXPECT_FALSE(host.adapter.picture()->pixels == before);
    EXPECT_EQ(host.adapter.statistics().framesRepeated, 0u);
}

TEST_F(Stream, TellsTheListenerOfNewPicturesOnly) {
    start();
    unsigned calls = 0;
    host.adapter.setScreenListener([&] {
        calls++;
        EXPECT_TRUE(host.adapter.picture()) << "called without the lock";
    });
    host.sendFrame(frame(1));
    host.sendFrame(frame(1));
    host.sendFrame(frame(2));
    EXPECT_EQ(calls, 2u);
    EXPECT_EQ(host.adapter.statistics().framesRepeated, 1u);
    EXPECT_EQ(host.adapter.picture()->frameNumber, 3u);
    // A picture that arrived while the screen was dark is new when the screen lights up.
    host.set(reg::kControl, reg::kControlTransmitterHold);
    host.sendFrame(frame(3));
    EXPECT_EQ(calls, 2u);
    host.clear(reg::kControl, reg::kControlTransmitterHold);
    host.sendFrame(frame(3));
    EXPECT_EQ(calls, 3u);
}

TEST_F(Stream, ReportsADroppedFrame) {
    start();
    host.sendFrame(frame(1));
    host.read(reg::kStatus);
    host.adapter.dropNextFrame();
    host.sendFrame(frame(2));
    EXPECT_EQ(host.read(reg::kStatus) & reg::kStatusFrameError, reg::kStatusFrameError);
    EXPECT_TRUE(host.adapter.rawFrame()->pixels == frame(1));
    host.sendFrame(frame(2));
    EXPECT_TRUE(host.adapter.rawFrame()->pixels == frame(2));
}

TEST_F(Stream, ReportsFrameErrorsWhenTheLinkStarvesIt) {
    const Bytes same = frame();
    const auto errorsAt = [&](bool armed, usb::Time interval, unsigned frames) {
        host.displayOff();
        host.setMode(mode, kBgr24, true, armed);
        const std::uint64_t before = host.adapter.statistics().frameErrors;
        for (unsigned i = 0; i < frames; i++) {
            host.sendFrame(same);
            host.clock.advance(interval);
        }
        return host.adapter.statistics().frameErrors - before;
    };
    start();
    const usb::Time period = usb::kSecond / 60;
    EXPECT_EQ(errorsAt(true, period, 60), 0u);
    EXPECT_EQ(errorsAt(true, period * 120 / 100, 60), 0u);
    EXPECT_GE(errorsAt(true, period * 135 / 100, 60), 6u);
    EXPECT_GE(errorsAt(true, period * 10, 60), 6u);
    EXPECT_EQ(errorsAt(false, period * 10, 60), 0u) << "not armed";
    EXPECT_EQ(errorsAt(true, 2 * usb::kSecond, 20), 0u) << "a host that pauses is not starved";
    EXPECT_EQ(errorsAt(true, period * 10, StreamPace::kFrames), 0u) << "too few frames to tell";
    EXPECT_EQ(host.read(reg::kStatus) & reg::kStatusFrameError, reg::kStatusFrameError);
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

TEST_F(Stream, HaltsUntilTheHostClearsTheEndpoint) {
    start();
    host.adapter.stall(kBulkOutEndpoint);
    EXPECT_EQ(host.send(frame()), usb::Status::Stalled);
    EXPECT_EQ(host.send({}), usb::Status::Stalled);
    host.control({0x02, 1, 0, kBulkOutEndpoint, 0});
    EXPECT_EQ(host.send(frame()), usb::Status::Success);
    host.send({});
    EXPECT_EQ(host.takeViolations(), std::vector<std::string>{});
}

} // namespace
} // namespace model::test

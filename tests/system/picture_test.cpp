// The monitor shows the frame that the client presented: for every revision, link, wire format and encoder,
// in several sizes, with the pointer at every kind of position. transmitter_test.cpp shows every size.
#include "tests/system/rig.h"

#include <algorithm>
#include <fmt/format.h>
#include <tuple>

namespace system_test {
namespace {

struct Format {
    const char* name;
    std::vector<rig::Setting> settings;
    std::uint32_t cpuFeatures; // CPUID leaf 1, ECX
    model::PixelFormat shown;
    bool compressed;
};

constexpr std::uint32_t kAll = 0xFFFFFFFF;

std::vector<Format> formatsOf(usb::Speed link) {
    using enum model::PixelFormat;
    if (link == usb::Speed::High) {
        const rig::Setting plain = setting("Usb2PixelFormatTransformCompressionEnable", 0);
        return {
            {"RGB555 in groups", {}, kAll, Rgb555, true},
            {"RGB555 tolerant", {}, 0, Rgb555, true},
            {"BGR24", {plain}, kAll, Bgr24, false},
            {"BGR24 without SSSE3", {plain}, 0, Bgr24, false},
        };
    }
    const rig::Setting rgb565 = setting("UseUsb3OutputRGB565Enable", 1);
    const rig::Setting fixed = setting("UseDynamicPixelBytesAdjustmentEnable", 0);
    const rig::Setting compressed = setting("Usb3PixelFormatTransformCompressionEnable", 1);
    const rig::Setting several = setting("CurrentNumberOfDevices", 2);
    return {
        {"BGR24", {}, kAll, Bgr24, false},
        {"BGR24 without SSSE3", {}, 0, Bgr24, false},
        {"RGB565", {rgb565, fixed}, kAll, Rgb565, false},
        {"RGB565 without SSSE3", {rgb565, fixed}, 0, Rgb565, false},
        // The stop inside the mode set clears the request for 16 bits while they are adjusted at run time.
        {"RGB565 requested, 24 bits adjusted", {rgb565}, kAll, Bgr24, false},
        {"RGB555 in groups", {compressed}, kAll, Rgb555, true},
        {"RGB555 tolerant", {compressed}, 0, Rgb555, true},
        {"three adapters, 24 bits", {several}, kAll, Bgr24Red7, true},
        {"three adapters, 16 bits", {several, rgb565, fixed}, kAll, Rgb555, true},
    };
}

struct Size {
    unsigned width;
    unsigned height;
};

class Pictures : public testing::TestWithParam<std::tuple<unsigned, usb::Speed>> {
  protected:
    static unsigned revision() { return std::get<0>(GetParam()); }
    static usb::Speed link() { return std::get<1>(GetParam()); }
};

TEST_P(Pictures, AreShownInEveryFormat) {
    constexpr Size kSizes[] = {{640, 480}, {1280, 720}, {1920, 1080}};
    for (const Format& format : formatsOf(link())) {
        SessionOptions options = inOrder(format.settings);
        options.cpuFeatures = format.cpuFeatures;
        runSession(options, [&](Session& session) {
            plugWithMonitor(session, adapter(revision(), link()));
            session.openClient();
            std::uint64_t identifier = 0;
            for (const Size& size : kSizes) {
                SCOPED_TRACE(fmt::format("{} at {}x{}", format.name, size.width, size.height));
                session.createFrameBuffer(++identifier, size.width, size.height);
                switchOffAndOn(session);
                for (const char* name : {"gradient", "scroll", "noise", "solid"}) {
                    SCOPED_TRACE(name);
                    session.present(identifier, pattern(name, size.width, size.height));
                    expectPicture(session, 5 * kSecond);
                }
                const std::optional<model::OutputMode> mode = session.adapter().outputMode();
                ASSERT_TRUE(mode);
                EXPECT_EQ(model::name(format.shown), model::name(mode->format));
                EXPECT_EQ(format.compressed, mode->compressed);
                EXPECT_EQ(size.width, mode->width);
                EXPECT_EQ(size.height, mode->height);
                EXPECT_NEAR(60, mode->refresh, 1);
                require(session.client().destroyFrameBuffer(identifier), "destroying a frame buffer");
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Every, Pictures,
                         testing::Combine(testing::Values(0u, 1u, 2u),
                                          testing::Values(usb::Speed::High, usb::Speed::Super)),
                         [](const auto& info) {
                             return fmt::format("Revision{}{}", std::get<0>(info.param),
                                                std::get<1>(info.param) == usb::Speed::High ? "Usb2"
                                                                                            : "Usb3");
                         });

TEST(PicturesOfAnotherSizeThanTheMode, AreNotShown) {
    runSession(inOrder(), [](Session& session) {
        showDesktop(session, adapter());
        const std::uint64_t shown = session.adapter().rawChecksum();

        require(session.client().createFrameBuffer(2, 800, 600), "creating a frame buffer");
        require(session.client().present(2, pattern("noise", 800, 600)), "presenting");
        session.machine().sleep(100 * kMillisecond);
        EXPECT_EQ(shown, session.adapter().rawChecksum());

        show(session, gradient());
    });
}

class Pointers : public testing::TestWithParam<const char*> {};

// At every edge and corner of the frame and beyond, in every rotation. The positions are those of the desktop
// as the client sees it, so that in each rotation some of them lie at each edge of the frame.
TEST_P(Pointers, AreDrawnAtTheirPositionInEveryRotation) {
    const desktop::PointerImage shape = desktop::builtinPointer(GetParam());
    const int width = static_cast<int>(shape.width);
    const int height = static_cast<int>(shape.height);
    const Surface picture = gradient();
    runSession(inOrder(), [&](Session& session) {
        startDesktop(session, adapter(), picture);
        session.setPointer(shape);
        for (const DISPLAY_ROTATION rotation :
             {ROTATION_NONE, ROTATION_QUARTER, ROTATION_HALF, ROTATION_THREE_QUARTERS}) {
            session.setRotation(rotation);
            session.movePointer(30, 20, true); // as before the rotation
            expectPicture(session);
            const bool turned = rotation == ROTATION_QUARTER || rotation == ROTATION_THREE_QUARTERS;
            const int right = turned ? kHeight : kWidth;
            const int bottom = turned ? kWidth : kHeight;
            const int columns[] = {-width, -width + 1, -3, 0, right / 2, right - width, right - 2, right};
            const int rows[] = {-height, -height + 1, -2, 0, bottom / 2, bottom - height, bottom - 1, bottom};
            for (const int x : columns) {
                for (const int y : rows) {
                    SCOPED_TRACE(fmt::format("rotation {} at {},{}", static_cast<int>(rotation), x, y));
                    session.movePointer(x, y, true);
                    expectPicture(session);
                }
            }
            session.movePointer(0, 0, false);
            expectPicture(session, picture);
            session.movePointer(30, 20, true);
            expectPicture(session);
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    });
}

INSTANTIATE_TEST_SUITE_P(OfEachKind, Pointers, testing::Values("arrow", "beam", "halo", "cross"),
                         [](const auto& info) { return std::string(info.param); });

// Moves without a present draw into the same frame again: no pixel of an earlier position may remain, and
// none of the pointer at all once it is hidden.
TEST(PointerMoves, RestoreThePixelsUnderThePointer) {
    const Surface picture = pattern("noise", kWidth, kHeight);
    runSession(inOrder(), [&](Session& session) {
        startDesktop(session, adapter(), picture);
        session.setPointer(desktop::builtinPointer("halo"));
        for (int step = 0; step < 40; step++) {
            session.movePointer(step * 17 - 20, step * 13 - 20, true);
            expectPicture(session);
        }
        session.setPointer(desktop::builtinPointer("beam"));
        expectPicture(session);
        session.movePointer(0, 0, false);
        expectPicture(session, picture);
    });
}

// A pointer that was set before the first present is in the first picture; one that moves while another frame
// buffer is current is not drawn into the old one.
TEST(PointerMoves, FollowTheCurrentFrameBuffer) {
    const Surface first = bars();
    const Surface second = gradient();
    runSession(inOrder(), [&](Session& session) {
        plugWithMonitor(session);
        session.openClient();
        session.setPointer(desktop::builtinPointer("cross"));
        session.movePointer(100, 100, true);
        session.createFrameBuffer(1, kWidth, kHeight);
        session.createFrameBuffer(2, kWidth, kHeight);
        session.setDisplayPower(true);
        session.movePointer(150, 100, true);
        session.machine().sleep(50 * kMillisecond);
        session.present(1, first);
        expectPicture(session);
        session.present(2, second);
        expectPicture(session);
        session.movePointer(300, 200, true);
        expectPicture(session);
        session.present(1, first);
        expectPicture(session);
    });
}

// Memory that the client never filled must not reach the wire: a pointer update before the first present
// finds a frame buffer without a picture.
TEST(PointerMoves, ShowNoUnfilledMemory) {
    runSession(inOrder(), [](Session& session) {
        plugWithMonitor(session);
        switchOn(session);
        session.setPointer(desktop::builtinPointer("arrow"));
        session.movePointer(10, 10, true);
        session.machine().sleep(200 * kMillisecond);
        if (const std::optional<model::Picture> picture = session.adapter().picture()) {
            // The frame may be black with the pointer in it, and nothing else.
            const std::size_t dark =
                static_cast<std::size_t>(std::count(picture->pixels.begin(), picture->pixels.end(), 0));
            EXPECT_GT(dark, std::size_t{kWidth} * (kHeight - 32) * 3 - 32 * 32 * 4);
        }
        show(session, bars());
    });
}

} // namespace
} // namespace system_test

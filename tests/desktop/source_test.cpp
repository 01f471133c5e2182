// Sources of frames and pointers: raw streams, patterns and the built-in shapes.
#include "desktop/frame_source.h"
#include "desktop/pointer.h"
#include "tests/support/error_message.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace desktop {
namespace {

using support::Pixel;
using support::Surface;
using test::messageOf;

TEST(RawVideo, EndsAtAFrameOrSaysWhere) {
    const test::TemporaryFolder folder;
    std::vector<std::uint8_t> frames(2 * 4 * 3 * 2);
    for (std::size_t i = 0; i < frames.size(); i++) {
        frames[i] = static_cast<std::uint8_t>(i);
    }
    Surface frame;
    const auto whole = rawVideoSource(folder.write("two.raw", frames), 3, 2);
    ASSERT_TRUE(whole->next(frame));
    EXPECT_EQ(frame.at(1, 0), 0x07060504u);
    ASSERT_TRUE(whole->next(frame));
    EXPECT_EQ(frame.at(0, 0), 0x1B1A1918u);
    EXPECT_FALSE(whole->next(frame));

    frames.pop_back();
    const auto cut = rawVideoSource(folder.write("cut.raw", frames), 3, 2);
    ASSERT_TRUE(cut->next(frame));
    const std::string message = messageOf([&] { cut->next(frame); });
    EXPECT_NE(message.find("ends inside frame 2: 23 of 24 bytes"), std::string::npos) << message;
}

TEST(Patterns, AreWhatTheirTableSays) {
    std::set<std::vector<Pixel>> pictures;
    for (const Pattern& pattern : patterns()) {
        SCOPED_TRACE(std::string(pattern.name));
        const auto source = patternSource(pattern, 160, 90, 1);
        Surface first;
        Surface second;
        ASSERT_TRUE(source->next(first));
        second = first;
        ASSERT_TRUE(source->next(second));
        EXPECT_EQ(first.pixels != second.pixels, pattern.moves);
        EXPECT_EQ(drawPattern(pattern, 160, 90, 1, 1).pixels, second.pixels)
            << "a frame depends on its number only";
        EXPECT_TRUE(pictures.insert(first.pixels).second) << "two patterns look the same";
        drawPattern(pattern, 1, 1, 0, 1); // sizes without room for the details
    }
}

TEST(Pointers, ComeInEveryKind) {
    std::set<POINTER_TYPE> kinds;
    for (const BuiltinPointer& builtin : builtinPointers()) {
        const PointerImage image = builtinPointer(builtin.name);
        kinds.insert(image.type);
        const bool monochrome = image.type == POINTER_MONOCHROME;
        EXPECT_EQ(image.bits.size(), std::size_t{image.pitch} * image.height * (monochrome ? 2 : 1));
        EXPECT_GE(image.pitch * 8u, image.width * (monochrome ? 1u : 32u));
        EXPECT_NE(image.width, image.height) << "a square shape would hide a wrong rotation";
    }
    EXPECT_EQ(kinds.size(), 3u);
    EXPECT_NE(messageOf([] { pointerFromPicture(Surface(257, 10), "\"p.png\""); }).find("at most 256 x 256"),
              std::string::npos);
}

} // namespace
} // namespace desktop

// Where pictures come from and go to: PNG files, raw streams, patterns, and files that appear whole.
#include "desktop/frame_source.h"
#include "desktop/pointer.h"
#include "support/file.h"
#include "support/input_error.h"
#include "support/png_image.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

namespace desktop {
namespace {

namespace fs = std::filesystem;

class Sources : public testing::Test {
  protected:
    Sources() {
        std::string name = (fs::temp_directory_path() / "usbdisplay-XXXXXX").string();
        folder_ = mkdtemp(name.data());
    }
    ~Sources() override { fs::remove_all(folder_); }

    std::string place(const std::string& name) const { return (folder_ / name).string(); }

    std::string write(const std::string& name, const std::vector<std::uint8_t>& bytes) const {
        std::ofstream(place(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return place(name);
    }

    std::size_t filesInFolder() const {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(folder_), fs::directory_iterator()));
    }

    fs::path folder_;
};

template <typename Body>
std::string messageOf(Body body) {
    try {
        body();
    } catch (const InputError& error) {
        return error.what();
    }
    return "(no error)";
}

TEST_F(Sources, PngKeepsEveryPixel) {
    const Surface picture = drawPattern(*findPattern("noise"), 61, 47, 0, 5);
    writePng(place("a.png"), picture);
    const Surface back = readPng(place("a.png"));
    EXPECT_EQ(back.width, 61u);
    EXPECT_EQ(back.pixels, picture.pixels);
    EXPECT_EQ(filesInFolder(), 1u);
}

TEST_F(Sources, HostilePngFilesAreRefused) {
    writePng(place("good.png"), drawPattern(*findPattern("gradient"), 64, 64, 0, 1));
    const std::vector<std::uint8_t> good = readFile(place("good.png"), 1 << 20);
    const auto altered = [&](std::size_t at, std::initializer_list<std::uint8_t> bytes) {
        std::vector<std::uint8_t> copy = good;
        for (const std::uint8_t byte : bytes) {
            copy.at(at++) = byte;
        }
        return copy;
    };
    const std::vector<std::uint8_t> cut(good.begin(),
                                        good.begin() + static_cast<std::ptrdiff_t>(good.size() / 2));
    const std::pair<const char*, std::vector<std::uint8_t>> cases[] = {
        {"empty", {}},
        {"text", {'h', 'e', 'l', 'l', 'o'}},
        {"signature only", {good.begin(), good.begin() + 8}},
        {"cut in the middle", cut},
        {"wrong checksum of the header", altered(29, {0, 0, 0, 0})},
        {"no width", altered(16, {0, 0, 0, 0})},
        {"two thousand million pixels wide", altered(16, {0x7F, 0xFF, 0xFF, 0xFF})},
        {"impossible bit depth", altered(24, {7})},
        {"damaged pixels", altered(60, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
    };
    for (const auto& [what, bytes] : cases) {
        const std::string file = write("bad.png", bytes);
        EXPECT_NE(messageOf([&] { readPng(file); }).find(file), std::string::npos)
            << what << ": " << messageOf([&] { readPng(file); });
    }
    EXPECT_EQ(messageOf([&] { readPng(place("none.png")); }),
              "cannot read \"" + place("none.png") + "\": No such file or directory");
}

TEST_F(Sources, HugePngIsRefusedBeforeItsMemoryIsTaken) {
    // 9000 x 9000 pixels of one colour compress to a few kilobytes.
    const Surface wide(9000, 2, 0xFF102030);
    writePng(place("wide.png"), wide);
    EXPECT_NE(messageOf([&] { readPng(place("wide.png")); }).find("at most 8192 x 8192"), std::string::npos);
}

TEST_F(Sources, FilesAppearWholeOrNotAtAll) {
    const std::string file = write("out.bin", {1, 2, 3});
    writeFile(file, std::vector<std::uint8_t>{9, 9});
    EXPECT_EQ(readFile(file, 100), (std::vector<std::uint8_t>{9, 9}));
    EXPECT_EQ(filesInFolder(), 1u) << "no temporary file is left";
    EXPECT_NE(messageOf([&] { writeFile(place("no/such/folder.bin"), {}); }).find("cannot write"),
              std::string::npos);
    EXPECT_NE(messageOf([&] { requireWritable(place("no/such/folder.bin")); }).find("cannot write"),
              std::string::npos);
    EXPECT_NE(messageOf([&] { requireWritable(folder_.string()); }).find("Is a directory"),
              std::string::npos);
    EXPECT_NE(messageOf([&] { readFile(file, 1); }).find("longer than the 1 bytes"), std::string::npos);
}

TEST_F(Sources, RawVideoEndsAtAFrameOrSaysWhere) {
    std::vector<std::uint8_t> frames(2 * 4 * 3 * 2);
    for (std::size_t i = 0; i < frames.size(); i++) {
        frames[i] = static_cast<std::uint8_t>(i);
    }
    Surface frame;
    const auto whole = rawVideoSource(write("two.raw", frames), 3, 2);
    ASSERT_TRUE(whole->next(frame));
    EXPECT_EQ(frame.at(1, 0), 0x07060504u);
    ASSERT_TRUE(whole->next(frame));
    EXPECT_EQ(frame.at(0, 0), 0x1B1A1918u);
    EXPECT_FALSE(whole->next(frame));

    frames.pop_back();
    const auto cut = rawVideoSource(write("cut.raw", frames), 3, 2);
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
        EXPECT_NE(image.width, image.height) << "a square shape would hide a wrong turn";
    }
    EXPECT_EQ(kinds.size(), 3u);
    EXPECT_NE(messageOf([] { pointerFromPicture(Surface(257, 10), "\"p.png\""); }).find("at most 256 x 256"),
              std::string::npos);
}

TEST(Surfaces, ScaleAndCenter) {
    Surface four(4, 2);
    for (unsigned i = 0; i < 8; i++) {
        four.pixels[i] = i + 1;
    }
    EXPECT_EQ(scale(four, 2, 1).pixels, (std::vector<Pixel>{1, 3}));
    EXPECT_EQ(scale(four, 4, 2).pixels, four.pixels);
    EXPECT_EQ(center(four, 2, 2).pixels, (std::vector<Pixel>{2, 3, 6, 7}));
    EXPECT_EQ(center(Surface(1, 1, 7), 3, 3).at(1, 1), 7u);
}

} // namespace
} // namespace desktop

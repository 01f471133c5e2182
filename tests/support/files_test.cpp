// PNG files, valid and invalid, files that are never incomplete, and pictures in another size.
#include "support/file.h"
#include "support/png_image.h"
#include "support/surface.h"
#include "tests/support/error_message.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace support {
namespace {

using test::messageOf;

class Files : public testing::Test {
  protected:
    test::TemporaryFolder folder_;
};

Surface patchwork(unsigned width, unsigned height) {
    Surface surface(width, height);
    Pixel state = 1;
    for (Pixel& pixel : surface.pixels) {
        state = state * 1664525u + 1013904223u;
        pixel = 0xFF000000 | state >> 8;
    }
    return surface;
}

TEST_F(Files, PngKeepsEveryPixel) {
    const Surface picture = patchwork(61, 47);
    writePng(folder_.place("a.png"), picture);
    const Surface back = readPng(folder_.place("a.png"));
    EXPECT_EQ(back.width, 61u);
    EXPECT_EQ(back.pixels, picture.pixels);
    EXPECT_EQ(folder_.files(), 1u);
}

TEST_F(Files, InvalidPngFilesAreRefused) {
    writePng(folder_.place("good.png"), patchwork(64, 64));
    const std::vector<std::uint8_t> good = readFile(folder_.place("good.png"), 1 << 20);
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
        const std::string file = folder_.write("bad.png", bytes);
        EXPECT_NE(messageOf([&] { readPng(file); }).find(file), std::string::npos)
            << what << ": " << messageOf([&] { readPng(file); });
    }
    EXPECT_EQ(messageOf([&] { readPng(folder_.place("none.png")); }),
              "cannot read \"" + folder_.place("none.png") + "\": No such file or directory");
}

TEST_F(Files, HugePngIsRefusedBeforeAllocation) {
    // 9000 x 9000 pixels of one color compress to a few kilobytes.
    const Surface wide(9000, 2, 0xFF102030);
    writePng(folder_.place("wide.png"), wide);
    EXPECT_NE(messageOf([&] { readPng(folder_.place("wide.png")); }).find("at most 8192 x 8192"),
              std::string::npos);
}

TEST_F(Files, AreNeverIncomplete) {
    const std::string file = folder_.write("out.bin", {1, 2, 3});
    writeFile(file, std::vector<std::uint8_t>{9, 9});
    EXPECT_EQ(readFile(file, 100), (std::vector<std::uint8_t>{9, 9}));
    EXPECT_EQ(folder_.files(), 1u) << "no temporary file is left";
    EXPECT_NE(messageOf([&] { writeFile(folder_.place("no/such/folder.bin"), {}); }).find("cannot write"),
              std::string::npos);
    EXPECT_NE(messageOf([&] { requireWritable(folder_.place("no/such/folder.bin")); }).find("cannot write"),
              std::string::npos);
    EXPECT_NE(messageOf([&] { requireWritable(folder_.path().string()); }).find("Is a directory"),
              std::string::npos);
    EXPECT_NE(messageOf([&] { readFile(file, 1); }).find("longer than the 1 bytes"), std::string::npos);
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
} // namespace support

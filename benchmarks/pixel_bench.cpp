// Conversions and encoders on 1920 x 1080 frames, one core. The source of each iteration is freshly written,
// as a client's present leaves it, and the output goes to four buffers in turn, as render buffers do.
#include "benchmarks/medians.h"

#include "desktop/frame_source.h"
#include "pixel/exact_encoder.h"
#include "pixel/group_encoder.h"
#include "pixel/group_level.h"
#include "pixel/transform.h"
#include "support/png_image.h"

#include <emmintrin.h>
#include <fmt/core.h>
#include <libyuv.h>
#include <lz4.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <random>

namespace {

constexpr ULONG kWidth = 1920;
constexpr ULONG kHeight = 1080;
constexpr ULONG kPixels = kWidth * kHeight;
constexpr size_t kFrameBytes = size_t{kPixels} * 4;
constexpr size_t kBufferBytes = kFrameBytes; // as much as any stream of a frame needs

struct AlignedDelete {
    void operator()(UCHAR* memory) const { ::operator delete (memory, std::align_val_t{4096}); }
};
using Buffer = std::unique_ptr<UCHAR, AlignedDelete>;

Buffer makeBuffer(size_t size) {
    Buffer buffer(static_cast<UCHAR*>(::operator new (size, std::align_val_t{4096})));
    std::memset(buffer.get(), 0, size);
    return buffer;
}

// The buffers that all benchmarks share.
struct Stage {
    Buffer frame = makeBuffer(kFrameBytes);
    Buffer staging = makeBuffer(kBufferBytes);
    Buffer copies[4] = {makeBuffer(kFrameBytes), makeBuffer(kFrameBytes), makeBuffer(kFrameBytes),
                        makeBuffer(kFrameBytes)};
    unsigned turn = 0;

    UCHAR* nextOutput() { return copies[turn++ % 4].get(); }
};

struct Picture {
    std::string name;
    std::vector<support::Pixel> pixels;
    GROUP_ENCODER_STATE groupState = {}; // with the level at which the group encoder settles
    ULONGLONG groupStream = 0;
    Buffer rgb565 = makeBuffer(size_t{kPixels} * 2);
};

Picture makePicture(Stage& stage, std::string name, std::vector<support::Pixel> pixels) {
    Picture picture{std::move(name), std::move(pixels)};
    const auto* source = reinterpret_cast<const UCHAR*>(picture.pixels.data());
    PIXEL_Bgrx32ToRgb16Blocks(picture.rgb565.get(), source, kPixels, 0);
    PIXEL_Bgrx32ToRgb16Blocks(stage.staging.get(), source, kPixels, 1);
    UCHAR* output = stage.nextOutput();
    picture.groupStream = COMPRESSION_EncodeRgb555Groups(&picture.groupState, stage.staging.get(), output,
                                                         output + kBufferBytes, kPixels, GROUP_TARGET_SIZE);
    return picture;
}

std::vector<Picture> makePictures(Stage& stage) {
    const auto load = [](const char* file) { return support::readPng(file).pixels; };
    std::vector<support::Pixel> noise(kPixels);
    std::mt19937 random(1);
    for (support::Pixel& pixel : noise) {
        pixel = static_cast<support::Pixel>(random());
    }
    std::vector<Picture> pictures;
    pictures.push_back(makePicture(stage, "desktop-office", load(DEMO_DATA "/desktop-office.png")));
    pictures.push_back(makePicture(stage, "desktop-sheet", load(DEMO_DATA "/desktop-sheet.png")));
    pictures.push_back(makePicture(stage, "photo", load(TEST_DATA "/photo.png")));
    pictures.push_back(makePicture(stage, "solid", std::vector<support::Pixel>(kPixels, 0xFF336699)));
    pictures.push_back(makePicture(stage, "noise", std::move(noise)));
    return pictures;
}

// The same traffic without arithmetic: reads 16 pixels of 4 bytes at a time and writes as many vectors as the
// conversion does. Past the caches or through them: which is faster depends on the machine.
template <int Vectors, bool PastCaches>
void copyWithoutArithmetic(UCHAR* destination, const UCHAR* source) {
    auto* out = reinterpret_cast<__m128i*>(destination);
    const auto* in = reinterpret_cast<const __m128i*>(source);
    for (ULONG done = 0; done < kPixels; done += PIXELS_PER_BLOCK) {
        __m128i block[4];
        for (__m128i& vector : block) {
            vector = _mm_load_si128(in++);
        }
        asm volatile("" : "+x"(block[0]), "+x"(block[1]), "+x"(block[2]), "+x"(block[3])); // all are read
        for (int i = 0; i < Vectors; i++) {
            if constexpr (PastCaches) {
                _mm_stream_si128(out++, block[i]);
            } else {
                _mm_store_si128(out++, block[i]);
            }
        }
    }
    _mm_sfence();
}

struct Conversion {
    const char* name;
    const char* other; // libyuv's routine for the same channel order
    void (*convert)(UCHAR* destination, const UCHAR* source);
    void (*convertByLibyuv)(UCHAR* destination, const UCHAR* source);
    void (*copyPastCaches)(UCHAR* destination, const UCHAR* source);
    void (*copyThroughCaches)(UCHAR* destination, const UCHAR* source);
};

constexpr int kSourceStride = kWidth * 4;

const Conversion kConversions[] = {
    {"BGRX32 to BGR24", "ARGBToRGB24",
     [](UCHAR* out, const UCHAR* in) { PIXEL_Bgrx32ToBgr24Blocks(out, in, kPixels); },
     [](UCHAR* out, const UCHAR* in) {
         libyuv::ARGBToRGB24(in, kSourceStride, out, kWidth * 3, kWidth, kHeight);
     },
     copyWithoutArithmetic<3, true>, copyWithoutArithmetic<3, false>},
    {"BGRX32 to RGB565", "ARGBToRGB565",
     [](UCHAR* out, const UCHAR* in) { PIXEL_Bgrx32ToRgb16Streamed(out, in, kPixels, 0); },
     [](UCHAR* out, const UCHAR* in) {
         libyuv::ARGBToRGB565(in, kSourceStride, out, kWidth * 2, kWidth, kHeight);
     },
     copyWithoutArithmetic<2, true>, copyWithoutArithmetic<2, false>},
    {"BGRX32 to RGB555", "ARGBToARGB1555",
     [](UCHAR* out, const UCHAR* in) { PIXEL_Bgrx32ToRgb16Streamed(out, in, kPixels, 1); },
     [](UCHAR* out, const UCHAR* in) {
         libyuv::ARGBToARGB1555(in, kSourceStride, out, kWidth * 2, kWidth, kHeight);
     },
     copyWithoutArithmetic<2, true>, copyWithoutArithmetic<2, false>},
};

void addConversions(Stage& stage, const Picture& picture) {
    const auto present = [&] { std::memcpy(stage.frame.get(), picture.pixels.data(), kFrameBytes); };
    bench::add("memcpy", present, [&] { std::memcpy(stage.nextOutput(), stage.frame.get(), kFrameBytes); });
    for (const Conversion& one : kConversions) {
        bench::add(one.name, present, [&] { one.convert(stage.nextOutput(), stage.frame.get()); });
        bench::add(std::string("libyuv ") + one.other, present,
                   [&] { one.convertByLibyuv(stage.nextOutput(), stage.frame.get()); });
        bench::add(std::string("copy past the caches for ") + one.name, present,
                   [&] { one.copyPastCaches(stage.nextOutput(), stage.frame.get()); });
        bench::add(std::string("copy through the caches for ") + one.name, present,
                   [&] { one.copyThroughCaches(stage.nextOutput(), stage.frame.get()); });
    }
}

void printConversions(const bench::Medians& medians) {
    const double memcpyMs = medians.milliseconds("memcpy");
    fmt::print("\nConversion of a 1920 x 1080 frame; memcpy of the source frame: {:.3f} ms\n\n", memcpyMs);
    fmt::print("{:<18} {:>9} {:>14} {:>10} {:>10} {:>10}\n", "", "ms", "GB/s source", "x memcpy", "x libyuv",
               "x copy");
    for (const Conversion& one : kConversions) {
        const double ms = medians.milliseconds(one.name);
        const double libyuvMs = medians.milliseconds(std::string("libyuv ") + one.other);
        const double copyMs =
            std::min(medians.milliseconds(std::string("copy past the caches for ") + one.name),
                     medians.milliseconds(std::string("copy through the caches for ") + one.name));
        fmt::print("{:<18} {:>9.3f} {:>14.1f} {:>10.2f} {:>10.2f} {:>10.2f}\n", one.name, ms,
                   kFrameBytes / ms * 1e-6, memcpyMs / ms, libyuvMs / ms, copyMs / ms);
    }
}

struct EncoderForm {
    const char* name;
    size_t inputBytes; // per pixel
    ULONGLONG (*encode)(Stage& stage, const Picture& picture, UCHAR* output, bool vectors);
};

const EncoderForm kEncoders[] = {
    {"groups, staged 16-bit", 2,
     [](Stage& stage, const Picture& picture, UCHAR* output, bool vectors) {
         return (vectors ? COMPRESSION_EncodeGroupsByTable : COMPRESSION_EncodeGroupsByPixel)(
             stage.staging.get(), output, output + kBufferBytes, kPixels, picture.groupState.QuantLevel);
     }},
    {"exact, BGRX32", 4,
     [](Stage& stage, const Picture&, UCHAR* output, bool vectors) {
         return (vectors ? COMPRESSION_EncodeBgrx32ExactBlocks : COMPRESSION_EncodeBgrx32Exact)(
             stage.frame.get(), output, output + kBufferBytes, kPixels);
     }},
};

std::string encoderName(const EncoderForm& encoder, const Picture& picture, bool vectors) {
    return fmt::format("{} {}{}", encoder.name, picture.name, vectors ? "" : " scalar");
}

std::string frameName(const Picture& picture) {
    return "frame " + picture.name;
}

std::string lz4Name(const Picture& picture) {
    return "LZ4 " + picture.name;
}

void addEncoders(Stage& stage, const Picture& picture) {
    const auto present = [&] { std::memcpy(stage.frame.get(), picture.pixels.data(), kFrameBytes); };
    const auto presentAndStage = [&stage, present] {
        present();
        PIXEL_Bgrx32ToRgb16Blocks(stage.staging.get(), stage.frame.get(), kPixels, 1);
    };
    for (const EncoderForm& encoder : kEncoders) {
        for (const bool vectors : {true, false}) {
            bench::add(encoderName(encoder, picture, vectors), presentAndStage,
                       [&stage, &picture, &encoder, vectors] {
                           benchmark::DoNotOptimize(
                               encoder.encode(stage, picture, stage.nextOutput(), vectors));
                       });
        }
    }
    bench::add(frameName(picture), present, [&stage, &picture] {
        GROUP_ENCODER_STATE state = picture.groupState;
        UCHAR* output = stage.nextOutput();
        benchmark::DoNotOptimize(COMPRESSION_EncodeBgrx32Groups(
            &state, stage.frame.get(), output, output + kBufferBytes, kPixels, GROUP_TARGET_SIZE));
    });
    bench::add(
        lz4Name(picture),
        [&] { std::memcpy(stage.staging.get(), picture.rgb565.get(), size_t{kPixels} * 2); },
        [&] {
            benchmark::DoNotOptimize(LZ4_compress_default(reinterpret_cast<const char*>(stage.staging.get()),
                                                          reinterpret_cast<char*>(stage.nextOutput()),
                                                          kPixels * 2, static_cast<int>(kFrameBytes)));
        });
}

void printEncoders(const bench::Medians& medians, Stage& stage, const std::vector<Picture>& pictures) {
    fmt::print("\nEncoders; groups at the level where the level control settles\n\n");
    fmt::print("{:<25} {:<15} {:>9} {:>9} {:>13} {:>10}\n", "", "", "stream KB", "ms", "GB/s input",
               "x scalar");
    for (const EncoderForm& encoder : kEncoders) {
        for (const Picture& picture : pictures) {
            std::memcpy(stage.frame.get(), picture.pixels.data(), kFrameBytes);
            PIXEL_Bgrx32ToRgb16Blocks(stage.staging.get(), stage.frame.get(), kPixels, 1);
            const ULONGLONG length = encoder.encode(stage, picture, stage.nextOutput(), true);
            const double ms = medians.milliseconds(encoderName(encoder, picture, true));
            const double scalarMs = medians.milliseconds(encoderName(encoder, picture, false));
            fmt::print("{:<25} {:<15} {:>9.0f} {:>9.3f} {:>13.1f} {:>10.2f}\n", encoder.name, picture.name,
                       static_cast<double>(length) * 1e-3, ms,
                       static_cast<double>(kPixels * encoder.inputBytes) / ms * 1e-6, scalarMs / ms);
        }
    }
    fmt::print("\nFrame from BGRX32 to compressed stream, beside LZ4 of the RGB565 frame alone\n\n");
    fmt::print("{:<15} {:>6} {:>9} {:>9} {:>9} {:>9}\n", "", "level", "stream KB", "ms", "LZ4 ms", "x LZ4");
    for (const Picture& picture : pictures) {
        const double ms = medians.milliseconds(frameName(picture));
        const double lz4Ms = medians.milliseconds(lz4Name(picture));
        fmt::print("{:<15} {:>6} {:>9.0f} {:>9.3f} {:>9.3f} {:>9.2f}\n", picture.name,
                   unsigned{picture.groupState.QuantLevel}, static_cast<double>(picture.groupStream) * 1e-3,
                   ms, lz4Ms, lz4Ms / ms);
    }
}

} // namespace

int main(int argc, char** argv) {
    Stage stage;
    const std::vector<Picture> pictures = makePictures(stage);
    addConversions(stage, pictures[0]);
    for (const Picture& picture : pictures) {
        addEncoders(stage, picture);
    }
    const bench::Medians medians = bench::run(argc, argv);
    printConversions(medians);
    printEncoders(medians, stage, pictures);
}

// Encodes any frame with each encoder and decodes it: the vector form writes the same stream as its
// reference, the stream does not exceed its buffer, and the adapter's run expander shows every pixel with the
// accuracy of the level.
//
// Input: byte 0 picks the encoder, byte 1 the level and (bit 7) the lead-in, byte 2 how much of the largest
// stream the buffer holds (0: all of it), byte 3 (bit 0) whether the rest is the frame's bytes or a list of
// runs: two bytes of length, one of color.
#include "fuzz/require.h"
#include "tests/pixel/encoders.h"

namespace {

using test::Bytes;

constexpr size_t kMostPixels = 150000;
constexpr size_t kHeader = 4;

Bytes frameOf(std::span<const unsigned char> input, bool runs, unsigned bytesPerPixel) {
    if (!runs) {
        return {input.begin(), input.end() - static_cast<ptrdiff_t>(input.size() % bytesPerPixel)};
    }
    Bytes frame;
    for (; input.size() >= 3 && frame.size() < kMostPixels * bytesPerPixel; input = input.subspan(3)) {
        const size_t length = 1 + (input[0] | (input[1] & 0x8F) << 8);
        frame = test::operator+(std::move(frame), test::run(length, input[2] * 0x01010101u, bytesPerPixel));
    }
    return frame;
}

// The bits of a pixel that a unit can carry.
unsigned carried(const test::Encoder& encoder) {
    return encoder.unit == 1 ? 0xFE : encoder.unit == 2 ? 0x7FFF : 0xFEFFFF;
}

void requireShown(const test::Encoder& encoder, unsigned level, const Bytes& frame, const Bytes& stream) {
    const size_t pixels = frame.size() / encoder.sourceBytes;
    std::string problem;
    const Bytes shown = test::expand(stream, encoder.unit, pixels, problem);
    REQUIRE(problem.empty());
    // At level 0 every carried bit is shown, except the lowest one of the group encoder's.
    if (level != 0) {
        return;
    }
    const unsigned same = carried(encoder) & ~(encoder.quantizes ? 1u : 0u);
    for (size_t index = 0; index < pixels; index++) {
        unsigned before = 0;
        unsigned after = 0;
        std::memcpy(&before, &frame[index * encoder.sourceBytes], std::min(encoder.sourceBytes, 3u));
        std::memcpy(&after, &shown[index * encoder.unit], encoder.unit);
        before = test::asUnit(encoder, before);
        REQUIRE((before & same) == (after & same));
    }
}

// The stream, empty when it does not fit `room` bytes. The bytes behind those must not change.
Bytes encodeInto(size_t room, const test::Encoder& encoder, test::Encode form, const test::Settings& settings,
                 const Bytes& frame) {
    constexpr unsigned char kCanary = 0xA5;
    test::AlignedBuffer destination(room + 64, kCanary);
    const ULONG pixels = static_cast<ULONG>(frame.size() / encoder.sourceBytes);
    const ULONGLONG length = form(settings, frame, pixels, destination.data(), destination.data() + room);
    REQUIRE(length <= room);
    REQUIRE(destination.bytes(room, 64) == Bytes(64, kCanary));
    Bytes stream = destination.bytes(0, length);
    if (!encoder.tolerant) {
        const size_t used = std::min(stream.size(), test::usedBytes(stream, encoder.unit, pixels));
        std::fill(stream.begin() + static_cast<ptrdiff_t>(used), stream.end(), 0);
    }
    return stream;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size < kHeader) {
        return 0;
    }
    const test::Encoder& encoder = test::kEncoders[data[0] % std::size(test::kEncoders)];
    const unsigned level = (data[1] & 0x7F) % 12;
    const test::Settings settings{level, data[1] >> 7 != 0};

    const Bytes frame = frameOf({data + kHeader, size - kHeader}, data[3] & 1, encoder.sourceBytes);
    const size_t largest = frame.size() / encoder.sourceBytes * encoder.unit + 32;
    const size_t room = data[2] == 0 ? largest : largest * data[2] / 256;
    const Bytes stream = encodeInto(room, encoder, encoder.byPixel, settings, frame);
    if (encoder.vectors != nullptr) {
        REQUIRE(encodeInto(room, encoder, encoder.vectors, settings, frame) == stream);
    }
    REQUIRE(data[2] != 0 || !stream.empty() || frame.empty());
    if (!stream.empty()) {
        requireShown(encoder, level, frame, stream);
    }
    return 0;
}

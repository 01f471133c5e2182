// Every encoder behind one signature, so that one test can say the same of all of them.
#pragma once

#include "tests/pixel/pixel_fixture.h"

#include "model/run_stream.h"
#include "pixel/exact_encoder.h"
#include "pixel/group_encoder.h"
#include "pixel/run_encoder.h"
#include "pixel/transform.h"

#include <algorithm>
#include <string>
#include <vector>

namespace test {

// The context carries what an encoder reads: level, lead-in flag, tables.
using Encode = ULONGLONG (*)(DEVICE_CONTEXT* context, std::span<const UCHAR> source, ULONG pixels,
                             UCHAR* destination, const UCHAR* end);

struct Encoder {
    const char* name;
    unsigned sourceBytes;
    unsigned unit;
    bool tolerant;  // follows CompressionLevel, ends with fill bytes
    bool quantises; // follows QuantLevel
    Encode byPixel;
    Encode vectors; // null: there is none
};

template <unsigned Unit, bool ByPixel>
ULONGLONG encodeRuns(DEVICE_CONTEXT* context, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination,
                     const UCHAR* end) {
    context->Cpu.CpuHasSsse3 = TRUE;
    return (ByPixel ? COMPRESSION_EncodeRunsByPixel : COMPRESSION_EncodeRuns)(
        context, source.data(), source.size(), pixels, Unit, destination, end, TRUE);
}

inline const Encoder kEncoders[] = {
    {"tolerant 8-bit", 1, 1, true, false, encodeRuns<1, true>, nullptr},
    {"tolerant 16-bit", 2, 2, true, false, encodeRuns<2, true>, encodeRuns<2, false>},
    {"tolerant 24-bit", 3, 3, true, false, encodeRuns<3, true>, nullptr},
    {"exact BGR24", 3, 3, false, false,
     [](DEVICE_CONTEXT*, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination, const UCHAR* end) {
         return COMPRESSION_EncodeBgr24Exact(source.data(), destination, end, pixels);
     },
     [](DEVICE_CONTEXT*, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination, const UCHAR* end) {
         return COMPRESSION_EncodeBgr24ExactBlocks(source.data(), destination, end, pixels);
     }},
    {"exact BGRX32", 4, 3, false, false,
     [](DEVICE_CONTEXT*, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination, const UCHAR* end) {
         return COMPRESSION_EncodeBgrx32Exact(source.data(), destination, end, pixels);
     },
     [](DEVICE_CONTEXT*, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination, const UCHAR* end) {
         return COMPRESSION_EncodeBgrx32ExactBlocks(source.data(), destination, end, pixels);
     }},
    {"groups", 2, 2, false, true,
     [](DEVICE_CONTEXT* context, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination,
        const UCHAR* end) {
         return COMPRESSION_EncodeGroupsByPixel(source.data(), destination, end, pixels,
                                                context->Pixel.QuantLevel);
     },
     [](DEVICE_CONTEXT* context, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination,
        const UCHAR* end) {
         return COMPRESSION_EncodeGroupsByTable(context, source.data(), destination, end, pixels,
                                                context->Pixel.QuantLevel);
     }},
    // The reference reduces the frame first.
    {"groups from BGRX32", 4, 2, false, true,
     [](DEVICE_CONTEXT* context, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination,
        const UCHAR* end) {
         Bytes reduced(size_t{pixels} * 2);
         PIXEL_Bgrx32ToRgb16(reduced.data(), source.data(), pixels, 1);
         return COMPRESSION_EncodeGroupsByPixel(reduced.data(), destination, end, pixels,
                                                context->Pixel.QuantLevel);
     },
     [](DEVICE_CONTEXT* context, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination,
        const UCHAR* end) {
         return COMPRESSION_EncodeBgrx32GroupsByTable(context, source.data(), destination, end, pixels,
                                                      context->Pixel.QuantLevel);
     }},
};

// A pixel of the encoder's source as a unit can carry it.
inline unsigned asUnit(const Encoder& encoder, unsigned pixel) {
    return encoder.sourceBytes == 4 && encoder.unit == 2
               ? (pixel >> 9 & 0x7C00) | (pixel >> 6 & 0x03E0) | (pixel >> 3 & 0x001F)
               : pixel;
}

// The bytes of a stream that its pixels need; the rest is filling.
inline size_t usedBytes(const Bytes& stream, unsigned unit, size_t pixels) {
    size_t at = 0;
    for (size_t done = 0; done < pixels && at + unit <= stream.size(); at += unit) {
        size_t value = 0;
        std::memcpy(&value, &stream[at], unit);
        done += value >> (8 * unit - 1) != 0 ? 1 : value;
    }
    return at;
}

// Encodes with ample room. The filling of an exact stream, which may read anything, reads 0xCC.
inline Bytes encode(const Encoder& encoder, Encode form, DEVICE_CONTEXT* context,
                    std::span<const UCHAR> source) {
    const size_t pixels = source.size() / encoder.sourceBytes;
    AlignedBuffer destination(pixels * 3 + 64, 0xCC);
    const ULONGLONG length = form(context, source, static_cast<ULONG>(pixels), destination.data(),
                                  destination.data() + destination.size());
    Bytes stream = destination.bytes(0, length);
    if (!encoder.tolerant) {
        std::fill(stream.begin() + static_cast<ptrdiff_t>(usedBytes(stream, encoder.unit, pixels)),
                  stream.end(), 0xCC);
    }
    return stream;
}

inline Bytes expand(const Bytes& stream, unsigned unit, size_t pixels, std::string& problem) {
    Bytes frame(pixels * unit);
    problem = model::expandRuns(stream, unit, frame);
    return frame;
}

} // namespace test

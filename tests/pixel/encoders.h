// Every encoder behind one signature, so that one test covers all of them.
#pragma once

#include "tests/pixel/pixel_fixture.h"

#include "model/run_stream.h"
#include "pixel/exact_encoder.h"
#include "pixel/group_encoder.h"
#include "pixel/tolerant_encoder.h"
#include "pixel/transform.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

struct Settings {
    unsigned level = 0; // of compression or quantization
    bool leadIn = false;
};

using Encode = ULONGLONG (*)(const Settings& settings, std::span<const UCHAR> source, ULONG pixels,
                             UCHAR* destination, const UCHAR* end);

template <unsigned Unit>
ULONGLONG tolerant(const Settings& settings, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination,
                   const UCHAR* end) {
    return COMPRESSION_EncodeRuns(source.data(), source.size(), pixels, Unit, destination, end,
                                  COMPRESSION_GetToleranceMask(settings.level), settings.leadIn);
}

template <auto Encoder>
ULONGLONG exact(const Settings&, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination,
                const UCHAR* end) {
    return Encoder(source.data(), destination, end, pixels);
}

template <auto Encoder>
ULONGLONG groups(const Settings& settings, std::span<const UCHAR> source, ULONG pixels, UCHAR* destination,
                 const UCHAR* end) {
    return Encoder(source.data(), destination, end, pixels, settings.level);
}

inline ULONGLONG reduceAndEncode(const UCHAR* source, UCHAR* destination, const UCHAR* end, ULONG pixels,
                                 ULONG level) {
    Bytes reduced(size_t{pixels} * 2);
    PIXEL_Bgrx32ToRgb16(reduced.data(), source, pixels, 1);
    return COMPRESSION_EncodeGroupsByPixel(reduced.data(), destination, end, pixels, level);
}

struct Encoder {
    const char* name;
    unsigned sourceBytes;
    unsigned unit;
    bool tolerant; // ends with fill bytes
    bool quantizes;
    Encode byPixel;
    Encode vectors; // null: there is none
};

inline const Encoder kEncoders[] = {
    {"tolerant 8-bit", 1, 1, true, false, tolerant<1>, nullptr},
    {"tolerant 16-bit", 2, 2, true, false, tolerant<2>, nullptr},
    {"tolerant 24-bit", 3, 3, true, false, tolerant<3>, nullptr},
    {"exact BGR24", 3, 3, false, false, exact<COMPRESSION_EncodeBgr24Exact>,
     exact<COMPRESSION_EncodeBgr24ExactBlocks>},
    {"exact BGRX32", 4, 3, false, false, exact<COMPRESSION_EncodeBgrx32Exact>,
     exact<COMPRESSION_EncodeBgrx32ExactBlocks>},
    {"groups", 2, 2, false, true, groups<COMPRESSION_EncodeGroupsByPixel>,
     groups<COMPRESSION_EncodeGroupsByTable>},
    {"groups from BGRX32", 4, 2, false, true, groups<reduceAndEncode>,
     groups<COMPRESSION_EncodeBgrx32GroupsByTable>},
};

inline const Encoder& encoder(const std::string& name) {
    for (const Encoder& one : kEncoders) {
        if (one.name == name) {
            return one;
        }
    }
    throw std::invalid_argument(name);
}

// A pixel of the encoder's source as a unit can carry it.
inline unsigned asUnit(const Encoder& encoder, unsigned pixel) {
    return encoder.sourceBytes == 4 && encoder.unit == 2
               ? (pixel >> 9 & 0x7C00) | (pixel >> 6 & 0x03E0) | (pixel >> 3 & 0x001F)
               : pixel;
}

// The bytes of a stream that its pixels need; the rest is fill.
inline size_t usedBytes(const Bytes& stream, unsigned unit, size_t pixels) {
    size_t at = 0;
    for (size_t done = 0; done < pixels && at + unit <= stream.size(); at += unit) {
        size_t value = 0;
        std::memcpy(&value, &stream[at], unit);
        done += value >> (8 * unit - 1) != 0 ? 1 : value;
    }
    return at;
}

// Encodes with ample room. The fill of an exact stream, which is undefined, becomes 0xCC.
inline Bytes encode(const Encoder& encoder, Encode form, const Settings& settings,
                    std::span<const UCHAR> source) {
    const size_t pixels = source.size() / encoder.sourceBytes;
    AlignedBuffer destination(pixels * 3 + 64, 0xCC);
    const ULONGLONG length = form(settings, source, static_cast<ULONG>(pixels), destination.data(),
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

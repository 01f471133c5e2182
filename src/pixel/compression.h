// Compressed frames: which encoder a frame goes to, and in what shape. The stream: pixel/run_stream.h.
//
//   output color mode   chip, processor        encoder                     units
//   16-bit              SSSE3 and SSE4.1       group (pixel/group_level.h) 2 bytes
//   16-bit              any other processor    tolerant                    2 bytes
//   8-bit, 24-bit       exact units only       exact                       3 bytes
//   8-bit, 24-bit       any other chip         tolerant                    1 byte, 3 bytes
#pragma once

#include "pixel/cpu_features.h"
#include "pixel/group_level.h"
#include "pixel/pixel_format.h"

// How the mode in force and the adapter's chip want a compressed frame.
struct COMPRESSION_FORMAT {
    FRAME_FORMAT Frame;
    ULONG CompressionLevel; // 0 to 12, of the tolerant encoder
    BOOLEAN ExactUnitsOnly; // the run expander of revision 2 knows 3-byte units only, also in an 8-bit mode
    BOOLEAN LeadIn;         // revision 1 needs streams of at least LEAD_IN_BYTES bytes
};

// The client's frame. It may be shorter than its pixels need: such a frame is not read.
struct FRAME_SOURCE {
    const UCHAR* Pixels;
    ULONGLONG Size; // bytes
    ULONG PixelCount;
};

// The bytes from Start up to End.
struct BYTE_RANGE {
    UCHAR* Start;
    UCHAR* End;
};

// Encodes a frame into `destination` and returns the length of the stream in bytes. 0 means that nothing is
// to be sent: the frame is shorter than its pixels, or it does not fit `staging` or `destination`; the next
// frame starts afresh. COMPRESSION_CompressFrame16 serves 16-bit output, COMPRESSION_CompressFrame the rest.
//
// `staging` takes the frame in the output format where the encoder does not convert it itself. It starts on a
// 16-byte boundary and does not overlap the other buffers; Start is null when there is none. No locks; any
// IRQL.
ULONGLONG COMPRESSION_CompressFrame(const COMPRESSION_FORMAT& format, const CPU_FEATURES& cpu,
                                    const FRAME_SOURCE& frame, BYTE_RANGE staging, BYTE_RANGE destination);
ULONGLONG COMPRESSION_CompressFrame16(const COMPRESSION_FORMAT& format, const CPU_FEATURES& cpu,
                                      GROUP_ENCODER_STATE* groupState, const FRAME_SOURCE& frame,
                                      BYTE_RANGE staging, BYTE_RANGE destination);

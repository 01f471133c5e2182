#include "display/mode_tables.h"

#include "device/mode_limits.h"

namespace {

// With s the sync width and a = s + back porch + 1, a sync image holds s and a: the start of the sync and of
// the picture in the adapter's line and frame counters.
constexpr VIDEO_MODE_ENTRY Mode(ULONG width, ULONG height, ULONG refresh, ULONG horizontalTotal,
                                ULONG horizontalSync, ULONG horizontalBackPorch, ULONG verticalTotal,
                                ULONG verticalSync, ULONG verticalBackPorch, ULONG pllWord) {
    const ULONG horizontalStart = horizontalSync + horizontalBackPorch + 1;
    const ULONG verticalStart = verticalSync + verticalBackPorch + 1;
    return {
        .Width = width,
        .Height = height,
        .Refresh = refresh,
        .HorizontalTotal = horizontalTotal,
        .HorizontalSync = horizontalSync,
        .HorizontalBackPorch = horizontalBackPorch,
        .VerticalTotal = verticalTotal,
        .VerticalSync = verticalSync,
        .VerticalBackPorch = verticalBackPorch,
        .HorizontalSizeImage = width << 16 | horizontalTotal,
        .HorizontalSyncImage = horizontalSync << 16 | horizontalStart,
        .VerticalSizeImage = height << 16 | verticalTotal,
        .VerticalSyncImage = verticalStart << 20 | verticalSync << 16 | verticalStart,
        .PllWord = pllWord,
    };
}

// Size, refresh; horizontal total, sync, back porch; vertical total, sync, back porch; PLL word. Part of the
// adapter's data. The second 1920 x 1200 is never reached.
// clang-format off
constexpr VIDEO_MODE_ENTRY MODES[] = {
    Mode( 640,  480,  60,   800,  96,  40,   525, 2,  25,  0x3F6119),
    Mode( 640,  480,  73,   832,  40, 120,   520, 3,  20,  0x3C6113),
    Mode( 640,  480,  75,   840,  64, 120,   500, 3,  16,  0x3F6114),
    Mode( 640,  350,  85,   832,  64,  96,   445, 3,  60,  0x6B6211),
    Mode( 640,  400,  85,   832,  64,  96,   445, 3,  41,  0x6B6211),
    Mode( 720,  400,  85,   936,  72, 108,   446, 3,  42,  0x476114),
    Mode( 800,  600,  56,  1024,  72, 128,   625, 2,  22,  0x2B410C),
    Mode( 640,  480,  85,   832,  56,  80,   509, 3,  25,  0x24410A),
    Mode( 800,  600,  60,  1056, 128,  88,   628, 4,  23,  0x7F6210),
    Mode(1024,  768,  43,  1264, 176,  56,   817, 4,  20,  0x476110),
    Mode( 848,  480,  60,  1088, 112, 112,   517, 8,  23,  0x1B4108),
    Mode( 800,  600,  75,  1056,  80, 160,   625, 3,  21,  0x636114),
    Mode( 800,  600,  72,  1040, 120,  64,   666, 6,  23,  0x0A0102),
    Mode( 800,  600,  85,  1048,  64, 152,   631, 3,  27,  0x2D4108),
    Mode(1024,  768,  60,  1344, 136, 160,   806, 6,  29,  0x0D2102),
    Mode(1280,  720,  60,  1650,  40, 220,   750, 5,  25,  0x346107),
    Mode(1024,  768,  70,  1328, 136, 144,   806, 6,  29,  0x0F2102),
    Mode(1024,  768,  75,  1312,  96, 176,   800, 3,  28,  0x3F6108),
    Mode(1280,  768,  60,  1664, 128, 192,   798, 7,  20,  0x7F6208),
    Mode(1152,  864,  60,  1600, 128, 256,   900, 3,  32,  0x796207),
    Mode(1280,  800,  60,  1680, 128, 200,   831, 6,  22,  0x436108),
    Mode(1366,  768,  60,  1792, 143, 213,   798, 3,  24,  0x676206),
    Mode(1360,  768,  60,  1792, 112, 256,   795, 6,  18,  0x5E610B),
    Mode(1024,  768,  85,  1376,  96, 208,   808, 3,  36,  0x556109),
    Mode(1280,  960,  60,  1800, 112, 312,  1000, 3,  36,  0x616109),
    Mode(1280,  768,  75,  1696, 128, 208,   805, 7,  27,  0x294104),
    Mode(1440,  900,  60,  1904, 152, 232,   934, 6,  25,  0x406106),
    Mode(1280,  800,  75,  1696, 128, 208,   838, 6,  29,  0x406106),
    Mode(1280, 1024,  60,  1688, 112, 248,  1066, 3,  38,  0x616109),
    Mode(1280,  768,  85,  1712, 136, 216,   809, 7,  31,  0x2F4104),
    Mode(1400, 1050,  60,  1864, 144, 232,  1089, 4,  32,  0x496106),
    Mode(1280,  800,  85,  1712, 136, 216,   843, 6,  34,  0x314104),
    Mode(1280, 1024,  75,  1688, 144, 248,  1066, 3,  38,  0x1B4102),
    Mode(1440,  900,  75,  1936, 152, 248,   942, 6,  33,  0x526106),
    Mode(1680, 1050,  60,  2240, 176, 280,  1089, 6,  30,  0x756204),
    Mode(1920, 1080,  50,  2640,  44, 148,  1125, 5,  36,  0x596106),
    Mode(1920, 1080,  60,  2200,  44, 148,  1125, 5,  36,  0x596106),
    Mode(1280,  960,  85,  1728, 160, 224,  1011, 3,  47,  0x596106),
    Mode(1400, 1050,  75,  1896, 144, 248,  1099, 4,  42,  0x7D6204),
    Mode(1440,  900,  85,  1952, 152, 256,   948, 6,  39,  0x3F6104),
    Mode(1280, 1024,  85,  1728, 160, 224,  1072, 3,  44,  0x3F6104),
    Mode(1600, 1200,  60,  2160, 192, 304,  1250, 3,  46,  0x616106),
    Mode(1600, 1200,  65,  2169, 192, 304,  1250, 3,  46,  0x234102),
    Mode(1400, 1050,  85,  1912, 152, 256,  1105, 4,  48,  0x244102),
    Mode(1680, 1050,  75,  2272, 176, 296,  1099, 6,  40,  0x4B6104),
    Mode(1600, 1200,  70,  2160, 192, 304,  1250, 3,  46,  0x264102),
    Mode(1920, 1200,  60,  2592, 200, 336,  1245, 6,  36,  0x4D6104),
    Mode(1600, 1200,  75,  2160, 192, 304,  1250, 3,  46,  0x516104),
    Mode(1792, 1344,  60,  2488,  25,  41,  1394, 3,  46,  0x536104),
    Mode(1680, 1050,  85,  2288, 176, 304,  1105, 6,  46,  0x2B4102),
    Mode(1856, 1392,  60,  2528, 224, 352,  1439, 3,  43,  0x576104),
    Mode(1600, 1200,  85,  2160, 192, 304,  1250, 3,  46,  0x2E4102),
    Mode(1920, 1440,  60,  2600, 208, 344,  1500, 3,  56,  0x2F4102),
    Mode(1920, 1200,  75,  2608, 208, 344,  1255, 6,  46,  0x314102),
    Mode(1792, 1344,  75,  2456, 216, 352,  1417, 3,  69,  0x346102),
    Mode(1600, 1200, 100,  2160, 192, 304,  1250, 3,  46,  0x366102),
    Mode(1920, 1200,  85,  2624, 208, 352,  1262, 6,  53,  0x716202),
    Mode(1856, 1392,  75,  2560, 224, 352,  1500, 3, 104,  0x736202),
    Mode(1920, 1440,  75,  2640, 224, 352,  1500, 3,  56,  0x776202),
    Mode(2560, 1600,  60,  3504, 280, 472,  1658, 6,  49,  0x466102),
    Mode(2560, 1600,  75,  3536, 280, 488,  1672, 6,  63,  0x596102),
    Mode(2560, 1600,  85,  3536, 280, 488,  1682, 6,  73,  0x646102),
    Mode(1920, 1080,  24,  2752,  48, 144,  1125, 5,  36,  0x346107),
    Mode(1600,  900,  60,  1800,  80,  96,  1000, 3,  96,  0x616109),
    Mode(1280,  600,  60,  1648, 128, 184,   622, 3,  18,  0x7B620A),
    Mode( 854,  480,  15,  1088, 112, 112,   517, 8,  23,  0x1B4120),
    Mode( 854,  480,  60,  1088, 112, 112,   517, 8,  23,  0x1B4108),
    Mode( 854,  480,  56,  1055,  61,  93,   538, 3,  29,  0x59611C),
    Mode( 854,  480,  30,  1055,  61,  93,   538, 3,  29,  0x3F6125),
    Mode( 854,  480,  24,  1319,  61,  93,   538, 3,  29,  0x6D6220),
    Mode(2048, 1152,  60,  2208,  32,  80,  1185, 5,  25,  0x5E6106),
    Mode(1920, 1200,  60,  2592, 208, 226,  1242, 3,  38,  0x4D6104),
    Mode(1920, 1080,  30,  2200,  44, 148,  1125, 5,  36,  0x346107),
};
// clang-format on

constexpr BOOLEAN HasImages(const VIDEO_MODE_ENTRY& mode, ULONG horizontalSize, ULONG horizontalSync,
                            ULONG verticalSize, ULONG verticalSync) {
    return mode.HorizontalSizeImage == horizontalSize && mode.HorizontalSyncImage == horizontalSync &&
           mode.VerticalSizeImage == verticalSize && mode.VerticalSyncImage == verticalSync;
}
static_assert(HasImages(MODES[0], 0x2800320, 0x600089, 0x1E0020D, 0x1C2001C));
static_assert(HasImages(MODES[36], 0x7800898, 0x2C00C1, 0x4380465, 0x2A5002A));

// The block conversions move whole blocks of 16 pixels, and the fields of the images are 16, 12 and 4 bits
// wide.
constexpr BOOLEAN AllModesFit() {
    for (const VIDEO_MODE_ENTRY& mode : MODES) {
        if (mode.Width * mode.Height % 16 != 0 || mode.HorizontalTotal > 0xFFFF ||
            mode.VerticalTotal > 0xFFF || mode.VerticalSync > 0xF ||
            mode.VerticalSync + mode.VerticalBackPorch >= 0xFFF) {
            return FALSE;
        }
    }
    return TRUE;
}
static_assert(AllModesFit());

} // namespace

BOOLEAN MODE_LookupTable(ULONG table, ULONG width, ULONG height, ULONG refresh, VIDEO_MODE_ENTRY* entry) {
    if (table >= MODE_TABLE_COUNT) {
        return FALSE;
    }
    for (const VIDEO_MODE_ENTRY& mode : MODES) {
        if (mode.Width == width && mode.Height == height && mode.Refresh == refresh) {
            *entry = mode;
            return TRUE;
        }
    }
    return FALSE;
}

BOOLEAN MODE_IsSupported(ULONG width, ULONG height, ULONG refresh) {
    VIDEO_MODE_ENTRY entry;
    return refresh == 60 && ULONGLONG{width} * height <= MODE_MAX_PIXELS &&
           MODE_LookupTable(MODE_TABLE_24_BIT, width, height, refresh, &entry);
}

BOOLEAN MODE_GetEntry(ULONG index, VIDEO_MODE_ENTRY* entry) {
    if (index >= ARRAYSIZE(MODES)) {
        return FALSE;
    }
    *entry = MODES[index];
    return TRUE;
}

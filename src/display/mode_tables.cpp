#include "display/mode_tables.h"

namespace {

// The adapter's tables have one row per mode and differ only in words that the driver has no use for, so one
// table of the words it needs serves all six.
struct MODE_ROW {
    USHORT Width;
    USHORT Height;
    USHORT Refresh;
    USHORT HorizontalTotal;
    USHORT HorizontalSync;
    USHORT HorizontalBackPorch;
    USHORT VerticalTotal;
    USHORT VerticalSync;
    USHORT VerticalBackPorch;
    ULONG PllWord;
};

constexpr MODE_ROW MODE_ROWS[] = {
    {640, 480, 60, 800, 96, 40, 525, 2, 25, 0x3f6119},
    {640, 480, 73, 832, 40, 120, 520, 3, 20, 0x3c6113},
    {640, 480, 75, 840, 64, 120, 500, 3, 16, 0x3f6114},
    {640, 350, 85, 832, 64, 96, 445, 3, 60, 0x6b6211},
    {640, 400, 85, 832, 64, 96, 445, 3, 41, 0x6b6211},
    {720, 400, 85, 936, 72, 108, 446, 3, 42, 0x476114},
    {800, 600, 56, 1024, 72, 128, 625, 2, 22, 0x2b410c},
    {640, 480, 85, 832, 56, 80, 509, 3, 25, 0x24410a},
    {800, 600, 60, 1056, 128, 88, 628, 4, 23, 0x7f6210},
    {1024, 768, 43, 1264, 176, 56, 817, 4, 20, 0x476110},
    {848, 480, 60, 1088, 112, 112, 517, 8, 23, 0x1b4108},
    {800, 600, 75, 1056, 80, 160, 625, 3, 21, 0x636114},
    {800, 600, 72, 1040, 120, 64, 666, 6, 23, 0xa0102},
    {800, 600, 85, 1048, 64, 152, 631, 3, 27, 0x2d4108},
    {1024, 768, 60, 1344, 136, 160, 806, 6, 29, 0xd2102},
    {1280, 720, 60, 1650, 40, 220, 750, 5, 25, 0x346107},
    {1024, 768, 70, 1328, 136, 144, 806, 6, 29, 0xf2102},
    {1024, 768, 75, 1312, 96, 176, 800, 3, 28, 0x3f6108},
    {1280, 768, 60, 1664, 128, 192, 798, 7, 20, 0x7f6208},
    {1152, 864, 60, 1600, 128, 256, 900, 3, 32, 0x796207},
    {1280, 800, 60, 1680, 128, 200, 831, 6, 22, 0x436108},
    {1366, 768, 60, 1792, 143, 213, 798, 3, 24, 0x676206},
    {1360, 768, 60, 1792, 112, 256, 795, 6, 18, 0x5e610b},
    {1024, 768, 85, 1376, 96, 208, 808, 3, 36, 0x556109},
    {1280, 960, 60, 1800, 112, 312, 1000, 3, 36, 0x616109},
    {1280, 768, 75, 1696, 128, 208, 805, 7, 27, 0x294104},
    {1440, 900, 60, 1904, 152, 232, 934, 6, 25, 0x406106},
    {1280, 800, 75, 1696, 128, 208, 838, 6, 29, 0x406106},
    {1280, 1024, 60, 1688, 112, 248, 1066, 3, 38, 0x616109},
    {1280, 768, 85, 1712, 136, 216, 809, 7, 31, 0x2f4104},
    {1400, 1050, 60, 1864, 144, 232, 1089, 4, 32, 0x496106},
    {1280, 800, 85, 1712, 136, 216, 843, 6, 34, 0x314104},
    {1280, 1024, 75, 1688, 144, 248, 1066, 3, 38, 0x1b4102},
    {1440, 900, 75, 1936, 152, 248, 942, 6, 33, 0x526106},
    {1680, 1050, 60, 2240, 176, 280, 1089, 6, 30, 0x756204},
    {1920, 1080, 50, 2640, 44, 148, 1125, 5, 36, 0x596106},
    {1920, 1080, 60, 2200, 44, 148, 1125, 5, 36, 0x596106},
    {1280, 960, 85, 1728, 160, 224, 1011, 3, 47, 0x596106},
    {1400, 1050, 75, 1896, 144, 248, 1099, 4, 42, 0x7d6204},
    {1440, 900, 85, 1952, 152, 256, 948, 6, 39, 0x3f6104},
    {1280, 1024, 85, 1728, 160, 224, 1072, 3, 44, 0x3f6104},
    {1600, 1200, 60, 2160, 192, 304, 1250, 3, 46, 0x616106},
    {1600, 1200, 65, 2169, 192, 304, 1250, 3, 46, 0x234102},
    {1400, 1050, 85, 1912, 152, 256, 1105, 4, 48, 0x244102},
    {1680, 1050, 75, 2272, 176, 296, 1099, 6, 40, 0x4b6104},
    {1600, 1200, 70, 2160, 192, 304, 1250, 3, 46, 0x264102},
    {1920, 1200, 60, 2592, 200, 336, 1245, 6, 36, 0x4d6104},
    {1600, 1200, 75, 2160, 192, 304, 1250, 3, 46, 0x516104},
    {1792, 1344, 60, 2488, 25, 41, 1394, 3, 46, 0x536104},
    {1680, 1050, 85, 2288, 176, 304, 1105, 6, 46, 0x2b4102},
    {1856, 1392, 60, 2528, 224, 352, 1439, 3, 43, 0x576104},
    {1600, 1200, 85, 2160, 192, 304, 1250, 3, 46, 0x2e4102},
    {1920, 1440, 60, 2600, 208, 344, 1500, 3, 56, 0x2f4102},
    {1920, 1200, 75, 2608, 208, 344, 1255, 6, 46, 0x314102},
    {1792, 1344, 75, 2456, 216, 352, 1417, 3, 69, 0x346102},
    {1600, 1200, 100, 2160, 192, 304, 1250, 3, 46, 0x366102},
    {1920, 1200, 85, 2624, 208, 352, 1262, 6, 53, 0x716202},
    {1856, 1392, 75, 2560, 224, 352, 1500, 3, 104, 0x736202},
    {1920, 1440, 75, 2640, 224, 352, 1500, 3, 56, 0x776202},
    {2560, 1600, 60, 3504, 280, 472, 1658, 6, 49, 0x466102},
    {2560, 1600, 75, 3536, 280, 488, 1672, 6, 63, 0x596102},
    {2560, 1600, 85, 3536, 280, 488, 1682, 6, 73, 0x646102},
    {1920, 1080, 24, 2752, 48, 144, 1125, 5, 36, 0x346107},
    {1600, 900, 60, 1800, 80, 96, 1000, 3, 96, 0x616109},
    {1280, 600, 60, 1648, 128, 184, 622, 3, 18, 0x7b620a},
    {854, 480, 15, 1088, 112, 112, 517, 8, 23, 0x1b4120},
    {854, 480, 60, 1088, 112, 112, 517, 8, 23, 0x1b4108},
    {854, 480, 56, 1055, 61, 93, 538, 3, 29, 0x59611c},
    {854, 480, 30, 1055, 61, 93, 538, 3, 29, 0x3f6125},
    {854, 480, 24, 1319, 61, 93, 538, 3, 29, 0x6d6220},
    {2048, 1152, 60, 2208, 32, 80, 1185, 5, 25, 0x5e6106},
    {1920, 1200, 60, 2592, 208, 226, 1242, 3, 38, 0x4d6104},
    {1920, 1080, 30, 2200, 44, 148, 1125, 5, 36, 0x346107},
};
static_assert(sizeof(MODE_ROWS) / sizeof(MODE_ROWS[0]) == MODE_TABLE_ENTRIES);

constexpr VIDEO_MODE_ENTRY EntryFromRow(const MODE_ROW& row) {
    const ULONG horizontalStart = ULONG(row.HorizontalSync) + row.HorizontalBackPorch + 1;
    const ULONG verticalStart = ULONG(row.VerticalSync) + row.VerticalBackPorch + 1;
    VIDEO_MODE_ENTRY entry = {};
    entry.Width = row.Width;
    entry.Height = row.Height;
    entry.Refresh = row.Refresh;
    entry.HorizontalTotal = row.HorizontalTotal;
    entry.HorizontalSync = row.HorizontalSync;
    entry.HorizontalBackPorch = row.HorizontalBackPorch;
    entry.VerticalTotal = row.VerticalTotal;
    entry.VerticalSync = row.VerticalSync;
    entry.VerticalBackPorch = row.VerticalBackPorch;
    entry.HorizontalSizeImage = ULONG(row.Width) << 16 | row.HorizontalTotal;
    entry.HorizontalSyncImage = ULONG(row.HorizontalSync) << 16 | horizontalStart;
    entry.VerticalSizeImage = ULONG(row.Height) << 16 | row.VerticalTotal;
    entry.VerticalSyncImage = verticalStart << 20 | ULONG(row.VerticalSync) << 16 | verticalStart;
    entry.PllWord = row.PllWord;
    return entry;
}

constexpr bool HasImages(const MODE_ROW& row, ULONG horizontalSize, ULONG horizontalSync, ULONG verticalSize,
                         ULONG verticalSync) {
    const VIDEO_MODE_ENTRY entry = EntryFromRow(row);
    return entry.HorizontalSizeImage == horizontalSize && entry.HorizontalSyncImage == horizontalSync &&
           entry.VerticalSizeImage == verticalSize && entry.VerticalSyncImage == verticalSync;
}
static_assert(HasImages(MODE_ROWS[0], 0x2800320, 0x600089, 0x1e0020d, 0x1c2001c));
static_assert(HasImages(MODE_ROWS[36], 0x7800898, 0x2c00c1, 0x4380465, 0x2a5002a));

const MODE_ROW* FindRow(ULONG width, ULONG height, ULONG refresh) {
    for (const MODE_ROW& row : MODE_ROWS) {
        if (row.Width == width && row.Height == height && row.Refresh == refresh) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

BOOLEAN MODE_LookupTable(ULONG table, ULONG width, ULONG height, ULONG refresh, VIDEO_MODE_ENTRY* entry) {
    const MODE_ROW* row = table < MODE_TABLE_COUNT ? FindRow(width, height, refresh) : nullptr;
    if (row == nullptr) {
        return FALSE;
    }
    *entry = EntryFromRow(*row);
    return TRUE;
}

BOOLEAN MODE_GetEntry(ULONG index, VIDEO_MODE_ENTRY* entry) {
    if (index >= MODE_TABLE_ENTRIES) {
        return FALSE;
    }
    *entry = EntryFromRow(MODE_ROWS[index]);
    return TRUE;
}

BOOLEAN MODE_IsSupported(ULONG width, ULONG height, ULONG refresh) {
    return ULONGLONG(width) * height <= MODE_MAX_PIXELS && refresh == 60 &&
           FindRow(width, height, refresh) != nullptr;
}

#include "display/monitor_modes.h"

#include "device/mode_limits.h"

void MONITOR_AddMode(MONITOR_EDID* edid, ULONG width, ULONG height, ULONG refresh) {
    if (edid->MonitorModeCount >= MONITOR_MODE_COUNT || ULONGLONG{width} * height > MODE_MAX_PIXELS) {
        return;
    }
    for (ULONG i = 0; i < edid->MonitorModeCount; i++) {
        const MONITOR_MODE& mode = edid->MonitorModes[i];
        if (mode.Width == width && mode.Height == height && mode.Refresh == refresh) {
            return;
        }
    }
    edid->MonitorModes[edid->MonitorModeCount++] = {width, height, refresh};
}

#include "tool/driver_probe.h"

#include "driver/device_context.h"

namespace tool {

std::optional<DriverState> probeDriver(const desktop::Client& client) {
    const INTERFACE_RECORD record = client.driverRecord();
    if (record.Context == nullptr) {
        return std::nullopt;
    }
    const DEVICE_CONTEXT& context = *static_cast<const DEVICE_CONTEXT*>(record.Context);
    const MODE_PARAMETERS& mode = context.Display.Mode;
    const ULONG colorMode = SHARED_Read(mode.OutputColorMode);
    return DriverState{
        .width = SHARED_Read(mode.Width),
        .height = SHARED_Read(mode.Height),
        .refresh = SHARED_Read(mode.Refresh),
        .outputBytes = colorMode == OUTPUT_COLOR_8_BIT    ? 1u
                       : colorMode == OUTPUT_COLOR_16_BIT ? 2u
                                                          : 3u,
        .compressed = SHARED_Read(mode.CompressionEnabled) != 0,
        .compressionLevel = SHARED_Read(mode.CompressionLevel),
        .quantisationLevel = SHARED_Read(context.Pixel.QuantLevel),
        .groupEncoder =
            SHARED_Read(context.Cpu.CpuHasSsse3) != 0 && SHARED_Read(context.Cpu.CpuHasSse41) != 0,
    };
}

} // namespace tool

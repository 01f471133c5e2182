#include "rig/driver_probe.h"

#include "device/device_context.h"

namespace rig {

namespace {

// Reads a field without its lock while the driver goes on working. Values may be old, so only reports use
// them.
template <typename T>
__attribute__((no_sanitize("thread"), noinline)) T peek(const T& field) {
    return *const_cast<const volatile T*>(&field);
}

} // namespace

TSA_NO_ANALYSIS std::optional<DriverState> probeDriver(const desktop::Client& client) {
    const INTERFACE_RECORD record = client.driverRecord();
    if (record.Context == nullptr) {
        return std::nullopt;
    }
    const DEVICE_CONTEXT& context = *static_cast<const DEVICE_CONTEXT*>(record.Context);
    const MODE_PARAMETERS& mode = context.Display.Mode;
    return DriverState{
        .width = peek(mode.Width),
        .height = peek(mode.Height),
        .refresh = peek(mode.Refresh),
        .outputBytes = PIXEL_OutputBytes(peek(mode.OutputColorMode)),
        .compressed = peek(mode.CompressionEnabled) != 0,
        .compressionLevel = peek(context.Render.CompressionLevel),
        .quantisationLevel = peek(context.Pixel.QuantLevel),
        .groupEncoder = peek(context.Cpu.CpuHasSsse3) != 0 && peek(context.Cpu.CpuHasSse41) != 0,
    };
}

} // namespace rig

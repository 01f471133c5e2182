#include "rig/driver_probe.h"

#include "device/device_context.h"

namespace rig {

namespace {

// The driver keeps running while its fields are read, and most of them are not shared fields. The values may
// be out of date, so they serve reports only, and ThreadSanitizer does not check these reads.
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
    return DriverState{
        .compressionLevel = peek(context.Render.CompressionLevel),
        .quantizationLevel = peek(context.Pixel.QuantLevel),
        .newestBuffer = peek(context.Render.LatestRenderBufferIndex),
        .groupEncoder = peek(context.Cpu.CpuHasSsse3) != 0 && peek(context.Cpu.CpuHasSse41) != 0,
    };
}

} // namespace rig

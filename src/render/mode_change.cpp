#include "render/mode_change.h"

#include "display/mode_timing.h"
#include "render/compression_level.h"
#include "render/drop_frames.h"

NTSTATUS RENDER_ProgramMode(DEVICE_CONTEXT* context, const MODE_PARAMETERS* parameters) {
    const NTSTATUS status = MODE_Program(context, parameters);
    if (status != STATUS_INVALID_PARAMETER) {
        RENDER_EmptyFrameErrorBucket(context);
        COMPRESSION_ResetLevel(context);
    }
    return status;
}

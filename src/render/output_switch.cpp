#include "render/output_switch.h"

#include "base/shared_field.h"
#include "display/video_output.h"
#include "render/drop_frames.h"
#include "render/mode_change.h"
#include "render/start_stop.h"

namespace {

// The last frames before the switch can be incomplete: they must not count as dropped. RenderStartStopMutex
// is taken before DisplayStateMutex, as in every other stop.
void StopForSwitch(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    MUTEX_GUARD displayState(context->Display.DisplayStateMutex);
    RENDER_SuspendFrameErrors(context);
    RENDER_Stop(context);
    MODE_DisableOutput(context);
    RENDER_ResumeFrameErrors(context);
}

void SwitchOutput(DEVICE_CONTEXT* context, ULONG outputColorMode)
    TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    StopForSwitch(context);

    const MODE_PARAMETERS previous = context->Display.Mode;
    MODE_PARAMETERS wanted = previous;
    wanted.OutputColorMode = outputColorMode;
    if (outputColorMode == OUTPUT_COLOR_16_BIT) {
        wanted.Rgb555Enable = 0;
    }
    if (NT_SUCCESS(RENDER_ProgramMode(context, &wanted))) {
        SETTINGS_UseRgb565Output(&context->Settings, TRUE);
        if (outputColorMode == OUTPUT_COLOR_16_BIT) {
            RENDER_RestartDropFrameCheck(context); // the way back is tried a whole period later
        }
        (void)RENDER_Start(context);
    } else if (NT_SUCCESS(RENDER_ProgramMode(context, &previous))) {
        // A transfer failed during the switch. The old format still gives a picture.
        (void)RENDER_Start(context);
    }
    // Otherwise the adapter has no usable timing or pipe, and the stream stays stopped until the next mode
    // set.
}

// A check period has passed with 16-bit output.
void ConsiderUpgrade(DEVICE_CONTEXT* context) TSA_REQUIRES(context->Render.RenderStartStopMutex) {
    RENDER_PIPELINE* render = &context->Render;
    SHARED_Write(render->DropFrameCheckState, DROP_FRAME_CHECK_SEEN);
    const ULONG upgrades = SHARED_Read(render->PixelBytesUpgradeCount);
    if (upgrades < context->Settings.DynamicAdjustPixelBytesAtRunTimeThreshold &&
        !SHARED_Read(render->DropFrameEventReceived)) {
        SHARED_Write(render->PixelBytesUpgradeCount, upgrades + 1);
        SwitchOutput(context, OUTPUT_COLOR_24_BIT);
    }
    SHARED_Write(render->DropFrameEventReceived, FALSE);
}

} // namespace

BOOLEAN RENDER_WantsOtherPixelBytes(const DEVICE_CONTEXT* context) {
    if (context->Settings.UseDynamicPixelBytesAdjustmentEnable == 0) {
        return FALSE;
    }
    switch (context->Display.Mode.OutputColorMode) {
    case OUTPUT_COLOR_24_BIT:
        return SHARED_Read(context->Render.DropFrameEventReceived);
    case OUTPUT_COLOR_16_BIT:
        return SHARED_Read(context->Render.DropFrameCheckState) == DROP_FRAME_CHECK_ELAPSED;
    default:
        return FALSE;
    }
}

void RENDER_AdjustPixelBytes(DEVICE_CONTEXT* context) {
    MUTEX_GUARD startStop(context->Render.RenderStartStopMutex);
    if (context->Render.RenderRunning == 0) {
        return; // Stopped meanwhile; the next start of the stream chooses its format.
    }
    switch (context->Display.Mode.OutputColorMode) {
    case OUTPUT_COLOR_24_BIT:
        if (SHARED_Read(context->Render.DropFrameEventReceived)) {
            SwitchOutput(context, OUTPUT_COLOR_16_BIT);
        }
        break;
    case OUTPUT_COLOR_16_BIT:
        if (SHARED_Read(context->Render.DropFrameCheckState) == DROP_FRAME_CHECK_ELAPSED) {
            ConsiderUpgrade(context);
        }
        break;
    default:
        break;
    }
}

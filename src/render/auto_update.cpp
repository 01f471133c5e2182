#include "render/auto_update.h"

#include "base/util.h"
#include "render/compression_level.h"
#include "render/passive_timer.h"
#include "surface/present.h"

struct RENDER_COMPRESSION_AUTOUPDATETIMER_CONTEXT {
    DEVICE_CONTEXT* DeviceContext;
};

WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(RENDER_COMPRESSION_AUTOUPDATETIMER_CONTEXT, RENDER_GetAutoUpdateContext)

namespace {

constexpr ULONG AUTO_UPDATE_DELAY_MS = 10;
constexpr ULONG REPEAT_DELAY_MS = 100; // causes little load when the bus refuses every transfer

} // namespace

NTSTATUS RENDER_CreateCompressionAutoUpdateTimer(DEVICE_CONTEXT* context) {
    WDFTIMER* timer = &context->Render.CompressionAutoUpdateTimer;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, RENDER_COMPRESSION_AUTOUPDATETIMER_CONTEXT);
    const NTSTATUS status = TIMER_Create(context, RENDER_CompressionAutoUpdateTimerFunc, &attributes, timer);
    if (NT_SUCCESS(status)) {
        RENDER_GetAutoUpdateContext(*timer)->DeviceContext = context;
    }
    return status;
}

void RENDER_DeleteCompressionAutoUpdateTimer(DEVICE_CONTEXT* context) {
    TIMER_Delete(&context->Render.CompressionAutoUpdateTimer);
}

void RENDER_CompressionAutoUpdateTimerFunc(WDFTIMER timer) {
    FRAMEBUFFER_RequestUpdate(RENDER_GetAutoUpdateContext(timer)->DeviceContext);
}

void RENDER_CompressionAutoUpdate(DEVICE_CONTEXT* context, ULONGLONG length) {
    RENDER_PIPELINE* render = &context->Render;
    const MODE_PARAMETERS& mode = context->Display.Mode;
    render->AutoUpdateArmed = FALSE;
    if (context->Usb.DeviceDescriptor.bcdUSB != USB_BCD_HIGH_SPEED_LINK || mode.AutoUpdateEnabled == 0) {
        return;
    }
    if (length > mode.CompressedHighThreshold) {
        // The same frame is sent again soon, in fewer bytes.
        COMPRESSION_RaiseLevel(context);
        render->AutoUpdateArmed = TRUE;
        render->SmallFrameSeen = FALSE;
        WdfTimerStart(render->CompressionAutoUpdateTimer, RelativeMs(AUTO_UPDATE_DELAY_MS));
    } else if (length >= mode.CompressedLowThreshold) {
        render->SmallFrameSeen = FALSE;
    } else if (render->SmallFrameSeen) {
        render->SmallFrameSeen = FALSE;
        COMPRESSION_LowerLevel(context);
    } else {
        render->SmallFrameSeen = TRUE;
    }
}

void RENDER_StopAutoUpdate(DEVICE_CONTEXT* context) {
    if (context->Display.Mode.AutoUpdateEnabled != 0 && context->Render.AutoUpdateArmed) {
        WdfTimerStop(context->Render.CompressionAutoUpdateTimer, FALSE);
    }
}

void RENDER_RepeatFrameLater(DEVICE_CONTEXT* context) {
    WdfTimerStart(context->Render.CompressionAutoUpdateTimer, RelativeMs(REPEAT_DELAY_MS));
}

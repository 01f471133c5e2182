#include "render/compression_level.h"

void COMPRESSION_ResetLevel(DEVICE_CONTEXT* context) {
    if (context->Render.CompressionLevelLock.Handle == nullptr) {
        return;
    }
    WDF_SPIN_LOCK_GUARD guard(context->Render.CompressionLevelLock);
    context->Render.CompressionLevel = context->Display.Mode.CompressionLevel;
}

ULONG COMPRESSION_CurrentLevel(DEVICE_CONTEXT* context) {
    WDF_SPIN_LOCK_GUARD guard(context->Render.CompressionLevelLock);
    return context->Render.CompressionLevel;
}

void COMPRESSION_RaiseLevel(DEVICE_CONTEXT* context) {
    WDF_SPIN_LOCK_GUARD guard(context->Render.CompressionLevelLock);
    if (context->Render.CompressionLevel != context->Display.Mode.CompressionLevelMax) {
        context->Render.CompressionLevel++;
    }
}

void COMPRESSION_LowerLevel(DEVICE_CONTEXT* context) {
    WDF_SPIN_LOCK_GUARD guard(context->Render.CompressionLevelLock);
    if (context->Display.Mode.CompressionLevelMin < context->Render.CompressionLevel) {
        context->Render.CompressionLevel--;
    }
}

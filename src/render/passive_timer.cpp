#include "render/passive_timer.h"

NTSTATUS TIMER_Create(DEVICE_CONTEXT* context, PFN_WDF_TIMER function, WDF_OBJECT_ATTRIBUTES* attributes,
                      WDFTIMER* timer) {
    WDF_TIMER_CONFIG config;
    WDF_TIMER_CONFIG_INIT(&config, function);
    config.AutomaticSerialization = TRUE;
    attributes->ExecutionLevel = WdfExecutionLevelPassive;
    attributes->ParentObject = context->Device;
    const NTSTATUS status = WdfTimerCreate(&config, attributes, timer);
    if (!NT_SUCCESS(status)) {
        *timer = nullptr;
    }
    return status;
}

void TIMER_Delete(WDFTIMER* timer) {
    if (*timer != nullptr) {
        WdfTimerStop(*timer, TRUE);
        WdfObjectDelete(*timer);
        *timer = nullptr;
    }
}

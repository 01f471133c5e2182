#include "device/device_count.h"

#include "device/device_context.h"
#include "device/registry.h"

namespace {

constexpr const auto& VALUE_NAME = WIDE("CurrentNumberOfDevices");

} // namespace

void DEVICECOUNT_Clear() {
    (void)REGISTRY_AssignULong(VALUE_NAME, 0);
}

void DEVICECOUNT_Add(DEVICE_CONTEXT* context) {
    context->CountedAsPrepared = TRUE;
    context->Settings.CurrentNumberOfDevices++;
    (void)REGISTRY_AssignULong(VALUE_NAME, context->Settings.CurrentNumberOfDevices);
}

// A release also follows a preparation that failed before it counted the device: it must not take another
// adapter out of the count.
void DEVICECOUNT_Remove(DEVICE_CONTEXT* context) {
    if (!context->CountedAsPrepared) {
        return;
    }
    context->CountedAsPrepared = FALSE;
    // A mode set may have read a smaller number since.
    if (context->Settings.CurrentNumberOfDevices > 0) {
        context->Settings.CurrentNumberOfDevices--;
    }
    (void)REGISTRY_AssignULong(VALUE_NAME, context->Settings.CurrentNumberOfDevices);
}

ULONG DEVICECOUNT_Refresh(DEVICE_CONTEXT* context) {
    (void)REGISTRY_QueryULong(VALUE_NAME, &context->Settings.CurrentNumberOfDevices);
    return context->Settings.CurrentNumberOfDevices;
}

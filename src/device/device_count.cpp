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
    context->Settings.CurrentNumberOfDevices++;
    (void)REGISTRY_AssignULong(VALUE_NAME, context->Settings.CurrentNumberOfDevices);
}

// A release after a preparation that failed early takes back what was never added; it must not wrap around to
// a number of adapters that turns compression on everywhere.
void DEVICECOUNT_Remove(DEVICE_CONTEXT* context) {
    if (context->Settings.CurrentNumberOfDevices > 0) {
        context->Settings.CurrentNumberOfDevices--;
    }
    (void)REGISTRY_AssignULong(VALUE_NAME, context->Settings.CurrentNumberOfDevices);
}

ULONG DEVICECOUNT_Refresh(DEVICE_CONTEXT* context) {
    (void)REGISTRY_QueryULong(VALUE_NAME, &context->Settings.CurrentNumberOfDevices);
    return context->Settings.CurrentNumberOfDevices;
}

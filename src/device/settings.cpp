#include "device/settings.h"

#include "base/annotations.h"
#include "device/registry.h"

namespace {

#define SETTINGS_DEFAULT(name, value, ...) value,
constexpr SETTINGS DEFAULTS = {SETTINGS_LIST(SETTINGS_DEFAULT, SETTINGS_NOTHING)};
#undef SETTINGS_DEFAULT

struct SETTING {
    PCWSTR Name;
    ULONG SETTINGS::*Field;
};

#define SETTINGS_ENTRY(name, ...) {WIDE(#name), &SETTINGS::name},
constexpr SETTING TABLE[] = {SETTINGS_LIST(SETTINGS_ENTRY, SETTINGS_NOTHING)};
#undef SETTINGS_ENTRY

} // namespace

void REGISTRY_ReadConfiguration(SETTINGS* settings) {
    *settings = DEFAULTS;
    for (const SETTING& setting : TABLE) {
        // A value that is missing or of another type leaves the default.
        (void)REGISTRY_QueryULong(setting.Name, &(settings->*setting.Field));
    }
}
